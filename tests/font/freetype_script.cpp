#include "freetype_script.h"

#include <algorithm>
#include <cstdlib>

#include "freetype_wrap.h"

static constexpr FT_Error FAILED = 0x55; // an error code of FreeType's

long FreeTypeScript::count(const std::string &call) const
{
    return std::count(calls.begin(), calls.end(), call);
}

FreeTypeScript &freetype()
{
    static FreeTypeScript script;
    return script;
}

void reset_freetype_script()
{
    FreeTypeScript &script = freetype();
    script.fail_at.clear();
    script.fail_any_at = 0;
    script.render_gray = false;
    script.done_library_result = 0;
    script.calls.clear();
    script.released.clear();
    script.wrong_releases = 0;
}

static void note(const std::string &name, const std::string &arguments)
{
    freetype().calls.push_back(name + "(" + arguments + ")");
}

// Notes a call that can fail; whether it does.
static bool fails(const std::string &name, const std::string &arguments)
{
    FreeTypeScript &script = freetype();
    note(name, arguments);
    const bool by_order = script.fail_any_at > 0 && --script.fail_any_at == 0;
    const auto at = script.fail_at.find(name);
    const bool by_name = at != script.fail_at.end() && at->second > 0 && --at->second == 0;
    return by_order || by_name;
}

// Takes a handle off the list; whether it stood there.
template <typename Handle> static bool give_back(std::set<Handle> &handles, Handle handle)
{
    if (handles.erase(handle) == 1)
        return true;
    freetype().wrong_releases++;
    return false;
}

extern "C" {

void *__real_calloc(size_t count, size_t size);
void __real_free(void *memory);

FT_Error __wrap_FT_Init_FreeType(FT_Library *library)
{
    if (fails("FT_Init_FreeType", "")) {
        *library = (FT_Library)(uintptr_t)0x10; // says nothing, and must not be looked at
        return FAILED;
    }
    const FT_Error error = __real_FT_Init_FreeType(library);
    if (error == 0)
        freetype().libraries.insert(*library);
    return error;
}

FT_Error __wrap_FT_New_Face(FT_Library library, const char *path, FT_Long index, FT_Face *face)
{
    if (fails("FT_New_Face", std::string(path) + ", " + std::to_string(index))) {
        *face = (FT_Face)(uintptr_t)0x20;
        return FAILED;
    }
    const FT_Error error = __real_FT_New_Face(library, path, index, face);
    if (error == 0)
        freetype().faces.insert(*face);
    return error;
}

FT_Error __wrap_FT_Request_Size(FT_Face face, FT_Size_Request request)
{
    const bool real = request->type == FT_SIZE_REQUEST_TYPE_REAL_DIM;
    const std::string arguments =
        (real ? "REAL_DIM, " : "another type, ") + std::to_string(request->width) + " x " +
        std::to_string(request->height) + ", at " + std::to_string(request->horiResolution) +
        " x " + std::to_string(request->vertResolution);
    if (fails("FT_Request_Size", arguments))
        return FAILED;
    return __real_FT_Request_Size(face, request);
}

FT_UInt __wrap_FT_Get_Char_Index(FT_Face face, FT_ULong code)
{
    note("FT_Get_Char_Index", std::to_string(code));
    return __real_FT_Get_Char_Index(face, code);
}

FT_Error __wrap_FT_Load_Glyph(FT_Face face, FT_UInt index, FT_Int32 flags)
{
    if (fails("FT_Load_Glyph", std::to_string(index) + ", " + std::to_string(flags)))
        return FAILED;
    return __real_FT_Load_Glyph(face, index, flags);
}

FT_Error __wrap_FT_Get_Glyph(FT_GlyphSlot slot, FT_Glyph *glyph)
{
    if (fails("FT_Get_Glyph", ""))
        return FAILED;
    const FT_Error error = __real_FT_Get_Glyph(slot, glyph);
    if (error == 0)
        freetype().glyphs.insert(*glyph);
    return error;
}

FT_Error __wrap_FT_Glyph_To_Bitmap(FT_Glyph *glyph, FT_Render_Mode mode, const FT_Vector *origin,
                                   FT_Bool destroy)
{
    const std::string arguments = "mode " + std::to_string(mode) +
                                  (origin ? ", origin" : ", no origin") + ", destroy " +
                                  std::to_string(destroy);
    if (fails("FT_Glyph_To_Bitmap", arguments))
        return FAILED;
    const FT_Glyph outline = *glyph;
    const FT_Error error = __real_FT_Glyph_To_Bitmap(
        glyph, freetype().render_gray ? FT_RENDER_MODE_NORMAL : mode, origin, destroy);
    if (error == 0) {
        if (destroy)
            freetype().glyphs.erase(outline);
        freetype().glyphs.insert(*glyph);
    }
    return error;
}

void __wrap_FT_Done_Glyph(FT_Glyph glyph)
{
    note("FT_Done_Glyph", glyph ? "" : "null");
    if (!glyph)
        return;
    freetype().released.push_back(glyph);
    if (give_back(freetype().glyphs, glyph))
        __real_FT_Done_Glyph(glyph);
}

FT_Error __wrap_FT_Done_Face(FT_Face face)
{
    note("FT_Done_Face", "");
    return give_back(freetype().faces, face) ? __real_FT_Done_Face(face) : FAILED;
}

FT_Error __wrap_FT_Done_FreeType(FT_Library library)
{
    note("FT_Done_FreeType", "");
    if (!give_back(freetype().libraries, library))
        return FAILED;
    const FT_Error error = __real_FT_Done_FreeType(library);
    return freetype().done_library_result ? freetype().done_library_result : error;
}

void *__wrap_calloc(size_t count, size_t size)
{
    if (fails("calloc", std::to_string(count) + ", " + std::to_string(size)))
        return nullptr;
    void *memory = __real_calloc(count, size);
    freetype().arrays.insert(memory);
    return memory;
}

void __wrap_free(void *memory)
{
    freetype().arrays.erase(memory);
    __real_free(memory);
}

} // extern "C"
