#include "world.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "product_state.h"

namespace world
{

Script script;
std::vector<Event> record;
uint64_t calls[FN_COUNT];
int inside_freetype;
std::atomic<PostNotifyCallback> callback;
std::map<const void *, Object> objects;
int64_t wrong_releases;

const char *name_of(Fn fn)
{
    static const char *const NAMES[] = {"qm7_cl_library_init",
                                        "qm7_cl_library_exit",
                                        "qm7_cl_sys_open_device",
                                        "qm7_cl_sys_close_device",
                                        "qm7_cl_post_notify_callback",
                                        "qm7_cl_post_set_notify",
                                        "qm7_cl_post_get_osd_color_mem",
                                        "qm7_cl_post_set_osd_color",
                                        "qm7_cl_post_thread_get_status",
                                        "qm7_cl_post_open_osd",
                                        "qm7_cl_post_clear_osd",
                                        "qm7_cl_post_close_osd",
                                        "qm7_cl_post_get_osd_mem",
                                        "qm7_cl_post_set_osd",
                                        "open",
                                        "fstat",
                                        "read",
                                        "close",
                                        "calloc",
                                        "free",
                                        "FT_Init_FreeType",
                                        "FT_New_Face",
                                        "FT_Request_Size",
                                        "FT_Get_Char_Index",
                                        "FT_Load_Glyph",
                                        "FT_Get_Glyph",
                                        "FT_Glyph_To_Bitmap",
                                        "FT_Done_Glyph",
                                        "FT_Done_Face",
                                        "FT_Done_FreeType",
                                        "malloc in FreeType",
                                        "realloc in FreeType",
                                        "open in FreeType",
                                        "fstat in FreeType",
                                        "mmap in FreeType",
                                        "",
                                        "report",
                                        "focus"};
    return NAMES[fn];
}

// ---- objects -----------------------------------------------------------------------------------

static int64_t next_object = 1;

int64_t number_of(const void *object)
{
    if (!object)
        return 0;
    const auto found = objects.find(object);
    return found == objects.end() ? -1 : found->second.number;
}

int64_t born(const void *object, Fn maker)
{
    objects[object] = {next_object, maker};
    return next_object++;
}

bool die(const void *object)
{
    if (objects.erase(object) == 1)
        return true;
    wrong_releases++;
    return false;
}

size_t objects_alive()
{
    return objects.size();
}

size_t objects_alive(Fn maker)
{
    return (size_t)std::count_if(objects.begin(), objects.end(),
                                 [=](const auto &one) { return one.second.maker == maker; });
}

// ---- record ------------------------------------------------------------------------------------

void clear_record()
{
    record.clear();
    std::fill(std::begin(calls), std::end(calls), 0);
}

static bool fails(Fn fn)
{
    calls[fn]++;
    return script.fails && script.fails(fn, calls[fn]);
}

bool inner_call_fails(Fn fn)
{
    return inside_freetype > 0 && fails(fn);
}

Event &begin(Fn fn, std::initializer_list<int64_t> in)
{
    if (!script.records)
        record.clear();
    Event &event = record.emplace_back();
    event.fn = fn;
    std::copy(in.begin(), in.end(), event.in.begin());
    event.failed = fails(fn);
    return event;
}

void note_report(const PostNotifyInfo &info)
{
    Event &event = record.emplace_back();
    event.fn = REPORT;
    event.in = {info.postResId, info.post_index, info.running};
}

void note_focus(uint32_t current, uint32_t peak)
{
    Event &event = record.emplace_back();
    event.fn = FOCUS;
    event.in = {current, peak};
}

void reset()
{
    script = Script();
    reset_product_state();
    callback = nullptr;
    wrong_releases = 0;
    clear_record();
}

// ---- standard streams --------------------------------------------------------------------------

Streams with_streams(const std::function<void()> &action)
{
    struct Memory {
        char *bytes = nullptr;
        size_t size = 0;
        FILE *stream;
        Memory() : stream(open_memstream(&bytes, &size))
        {
        }
        std::string close()
        {
            fclose(stream);
            const std::string text(bytes, size);
            free(bytes);
            return text;
        }
    };
    Memory out;
    Memory err;
    FILE *const real_out = stdout;
    FILE *const real_err = stderr;
    stdout = out.stream;
    stderr = err.stream;
    action();
    stdout = real_out;
    stderr = real_err;
    return {out.close(), err.close()};
}

} // namespace world
