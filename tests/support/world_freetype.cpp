// FreeType, calloc and free of the world: wrappers (--wrap) of the real functions.

#include <cstdlib>

#include <ft2build.h>
#include FT_MODULE_H

#include "font/font_engine.h"
#include "freetype_wrap.h"
#include "world.h"

using namespace world;

// What a failed call stores in place of a handle.
template <typename Handle> static Handle junk_handle()
{
    return (Handle)(uintptr_t)0x11;
}

// Runs the call of FreeType unless the event says that it fails.
template <typename Call> static FT_Error font_call(Event &event, Call call)
{
    FT_Error error = FONT_FAILED;
    if (!event.failed) {
        inside_freetype++;
        error = call();
        inside_freetype--;
    }
    event.failed = error != 0;
    return error;
}

// Releases object if it exists.
template <typename Handle> static FT_Error release(Fn fn, Handle object, FT_Error (*real)(Handle))
{
    const bool failed = begin(fn, {number_of(object)}).failed;
    if (!die(object))
        return FONT_FAILED;
    inside_freetype++;
    const FT_Error error = real(object);
    inside_freetype--;
    return failed ? FONT_FAILED : error; // releases even if it is to report a failure
}

extern "C" {

void *__real_calloc(size_t count, size_t size);
void __real_free(void *memory);
void *__wrap_calloc(size_t count, size_t size);
void __wrap_free(void *memory);

void *__wrap_calloc(size_t count, size_t size)
{
    Event &event = begin(HEAP_CALLOC, {(int64_t)count, (int64_t)size});
    void *memory = event.failed ? nullptr : __real_calloc(count, size);
    event.failed = !memory;
    if (memory)
        event.out = {born(memory, HEAP_CALLOC)};
    return memory;
}

void __wrap_free(void *memory)
{
    const auto found = objects.find(memory);
    if (found != objects.end() && found->second.maker == HEAP_CALLOC) {
        (void)begin(HEAP_FREE, {found->second.number});
        (void)die(memory);
    }
    __real_free(memory);
}

static void *allocate_limited(FT_Memory, long size)
{
    return size > script.largest_block ? nullptr : malloc((size_t)size);
}

static void *reallocate_limited(FT_Memory, long, long size, void *block)
{
    return size > script.largest_block ? nullptr : realloc(block, (size_t)size);
}

static void free_limited(FT_Memory, void *block)
{
    __real_free(block);
}

// FT_Init_FreeType with allocations of limited size. FT_Done_FreeType frees the record.
static FT_Error init_limited(FT_Library *library)
{
    FT_Memory memory = (FT_Memory)malloc(sizeof *memory);
    *memory = {nullptr, allocate_limited, free_limited, reallocate_limited};
    const FT_Error error = FT_New_Library(memory, library);
    if (error == 0)
        FT_Add_Default_Modules(*library);
    else
        __real_free(memory);
    return error;
}

FT_Error __wrap_FT_Init_FreeType(FT_Library *library)
{
    Event &event = begin(FONT_INIT);
    *library = junk_handle<FT_Library>();
    const FT_Error error = font_call(event, [=] {
        return script.largest_block > 0 ? init_limited(library) : __real_FT_Init_FreeType(library);
    });
    if (!event.failed)
        event.out = {born(*library, FONT_INIT)};
    return error;
}

FT_Error __wrap_FT_New_Face(FT_Library library, const char *path, FT_Long index, FT_Face *face)
{
    Event &event = begin(FONT_NEW_FACE, {number_of(library), index});
    event.text = path;
    const char *real_path = event.text == FONT_PATH ? script.font_path.c_str() : path;
    *face = junk_handle<FT_Face>();
    const FT_Error error =
        font_call(event, [=] { return __real_FT_New_Face(library, real_path, index, face); });
    if (!event.failed)
        event.out = {born(*face, FONT_NEW_FACE)};
    return error;
}

FT_Error __wrap_FT_Request_Size(FT_Face face, FT_Size_Request request)
{
    Event &event =
        begin(FONT_REQUEST_SIZE, {number_of(face), request->type, request->width, request->height,
                                  request->horiResolution, request->vertResolution});
    const FT_Error error = font_call(event, [=] { return __real_FT_Request_Size(face, request); });
    if (!event.failed)
        event.out = {face->size->metrics.descender, face->size->metrics.max_advance};
    return error;
}

FT_UInt __wrap_FT_Get_Char_Index(FT_Face face, FT_ULong code)
{
    Event &event = begin(FONT_CHAR_INDEX, {number_of(face), (int64_t)code});
    if (event.failed)
        return 0;
    event.out = {__real_FT_Get_Char_Index(face, code)};
    return (FT_UInt)event.out[0];
}

FT_Error __wrap_FT_Load_Glyph(FT_Face face, FT_UInt index, FT_Int32 flags)
{
    Event &event = begin(FONT_LOAD_GLYPH, {number_of(face), index, flags});
    return font_call(event, [=] { return __real_FT_Load_Glyph(face, index, flags); });
}

FT_Error __wrap_FT_Get_Glyph(FT_GlyphSlot slot, FT_Glyph *glyph)
{
    Event &event = begin(FONT_GET_GLYPH, {number_of(slot->face)});
    const FT_Error error = font_call(event, [=] { return __real_FT_Get_Glyph(slot, glyph); });
    if (!event.failed)
        event.out = {born(*glyph, FONT_GET_GLYPH)};
    return error;
}

FT_Error __wrap_FT_Glyph_To_Bitmap(FT_Glyph *glyph, FT_Render_Mode mode, const FT_Vector *origin,
                                   FT_Bool destroy)
{
    Event &event = begin(FONT_TO_BITMAP, {number_of(*glyph), mode, origin != nullptr, destroy});
    const FT_Glyph before = *glyph;
    const FT_Error error = font_call(event, [=] {
        return __real_FT_Glyph_To_Bitmap(glyph, script.render_gray ? FT_RENDER_MODE_NORMAL : mode,
                                         origin, destroy);
    });
    if (event.failed)
        return error;

    if (*glyph != before) {
        const Object same = objects[before]; // it keeps its number
        objects.erase(before);
        objects[*glyph] = same;
    }
    const FT_BitmapGlyph made = (FT_BitmapGlyph)*glyph;
    const size_t bytes = (size_t)std::abs(made->bitmap.pitch) * made->bitmap.rows;
    event.glyph = std::make_shared<Glyph>();
    event.glyph->record = *made;
    event.glyph->mono = made->bitmap.pixel_mode == FT_PIXEL_MODE_MONO;
    if (bytes > 0)
        event.glyph->bytes.assign(made->bitmap.buffer, made->bitmap.buffer + bytes);
    event.glyph->record.bitmap.buffer = event.glyph->bytes.data();
    return error;
}

void __wrap_FT_Done_Glyph(FT_Glyph glyph)
{
    if (!glyph)
        return;
    (void)release<FT_Glyph>(FONT_DONE_GLYPH, glyph, [](FT_Glyph one) {
        __real_FT_Done_Glyph(one);
        return 0;
    });
}

FT_Error __wrap_FT_Done_Face(FT_Face face)
{
    return release(FONT_DONE_FACE, face, __real_FT_Done_Face);
}

FT_Error __wrap_FT_Done_FreeType(FT_Library library)
{
    return release(FONT_DONE_FREETYPE, library, __real_FT_Done_FreeType);
}

} // extern "C"
