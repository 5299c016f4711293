#include "world.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ft2build.h>
#include FT_MODULE_H
#include <map>
#include <sys/stat.h>
#include <unistd.h>

#include "font/font_engine.h"
#include "freetype_wrap.h"
#include "osd/osd_palette.h"
#include "osd/osd_session.h"

namespace world
{

static constexpr int FAILED = -1;
static constexpr int NO_REASON = 0x7E57C0DE; // errno after calls that worked
static constexpr uint32_t UNUSED_OUTPUT = 0xDEADBEEF;

Script script;
std::vector<Event> record;
uint64_t calls[FN_COUNT];
int inside_freetype;

const char *name_of(Fn fn)
{
    static const char *const NAMES[] = {"library_init",
                                        "library_exit",
                                        "sys_open_device",
                                        "sys_close_device",
                                        "notify_callback",
                                        "set_notify",
                                        "get_color_mem",
                                        "set_color",
                                        "get_status",
                                        "open_osd",
                                        "clear_osd",
                                        "close_osd",
                                        "get_osd_mem",
                                        "set_osd",
                                        "open",
                                        "fstat",
                                        "read",
                                        "close",
                                        "calloc",
                                        "free",
                                        "Init_FreeType",
                                        "New_Face",
                                        "Request_Size",
                                        "Get_Char_Index",
                                        "Load_Glyph",
                                        "Get_Glyph",
                                        "Glyph_To_Bitmap",
                                        "Done_Glyph",
                                        "Done_Face",
                                        "Done_FreeType",
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

static std::map<const void *, int64_t> objects;
static std::map<const void *, int64_t> blocks; // of the heap
static std::map<int, int64_t> files;

struct HandedOut {
    const Plane *plane;
    std::shared_ptr<GuardedMemory> memory;
};
static std::map<uint32_t, HandedOut> handed_out; // by osdId; a plane's last one until it is shown
static int64_t next_object = 1;

static int64_t id_of(const void *object)
{
    if (!object)
        return 0;
    const auto found = objects.find(object);
    return found == objects.end() ? -1 : found->second;
}

static int64_t born(const void *object)
{
    objects[object] = next_object;
    return next_object++;
}

static int64_t file_id_of(int file)
{
    const auto found = files.find(file);
    return found == files.end() ? -1 : found->second;
}

size_t objects_alive()
{
    return objects.size() + blocks.size() + files.size();
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

static Event &begin(Fn fn, std::initializer_list<int64_t> in = {})
{
    Event event;
    event.fn = fn;
    std::copy(in.begin(), in.end(), event.in.begin());
    event.failed = fails(fn);
    record.push_back(std::move(event));
    return record.back();
}

static void run_beside(Fn fn)
{
    if (script.during)
        script.during(fn);
}

// The answer of a codec call; the event may have moved when the record grew.
static int32_t end_codec_call(size_t index)
{
    const Fn fn = record[index].fn;
    const bool failed = record[index].failed;
    record[index].error = failed ? script.code : NO_REASON;
    run_beside(fn);
    errno = failed ? script.code : NO_REASON;
    return failed ? FAILED : 0;
}

static int32_t codec_call(Fn fn, std::initializer_list<int64_t> in = {})
{
    (void)begin(fn, in);
    return end_codec_call(record.size() - 1);
}

void note_report(const PostNotifyInfo &info)
{
    Event event;
    event.fn = REPORT;
    event.in = {info.postResId, info.post_index, info.running};
    record.push_back(std::move(event));
}

void note_focus(uint32_t current, uint32_t peak)
{
    Event event;
    event.fn = FOCUS;
    event.in = {current, peak};
    record.push_back(std::move(event));
}

void reset()
{
    script = Script();
    script.font_path = TEST_FONT_PATH;
    script.palette_path = "/dev/null";
    for (FontEngine &engine : font_engines) {
        if (engine.library)
            font_clear_engine(&engine);
        engine = FontEngine();
    }
    for (std::atomic<uint32_t> &id : post_notify_state.post_res_id)
        id = 0;
    post_notify_state.started_mask = 0;
    post_notify_state.stopped_mask = 0;
    handed_out.clear();
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

using namespace world;

// ---- codec library -----------------------------------------------------------------------------

template <typename Record> static bool is_zero(const Record *bytes)
{
    const uint8_t *first = (const uint8_t *)bytes;
    return std::all_of(first, first + sizeof *bytes, [](uint8_t byte) { return byte == 0; });
}

static PostNotifyCallback registered;
static std::shared_ptr<GuardedMemory> color_memory;
static uint32_t next_osd_id = 0x0000BEEF;

static constexpr FT_Error FONT_FAILED = 0x55;

// What a failed call may leave in a place for a handle: nothing that exists.
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

extern "C" {

int32_t qm7_cl_library_init(void)
{
    return codec_call(LIBRARY_INIT);
}

int32_t qm7_cl_library_exit(void)
{
    return codec_call(LIBRARY_EXIT);
}

int32_t qm7_cl_sys_open_device(void)
{
    return codec_call(OPEN_DEVICE);
}

int32_t qm7_cl_sys_close_device(void)
{
    return codec_call(CLOSE_DEVICE);
}

int32_t qm7_cl_post_notify_callback(PostNotifyCallback callback)
{
    registered = callback;
    return codec_call(NOTIFY_CALLBACK, {callback == osd_post_notify});
}

int32_t qm7_cl_post_set_notify(uint32_t mask)
{
    return codec_call(SET_NOTIFY, {mask});
}

int32_t qm7_cl_post_get_osd_color_mem(OsdMem *mem)
{
    Event &event = begin(GET_COLOR_MEM, {is_zero(mem)});
    if (!event.failed) {
        mem->size = script.color_size;
        if (!script.no_color_memory) {
            color_memory = std::make_shared<GuardedMemory>(script.color_size);
            mem->addr = color_memory->data();
            event.memory = color_memory;
        }
        event.out = {mem->size};
    }
    return end_codec_call(record.size() - 1);
}

int32_t qm7_cl_post_set_osd_color(void)
{
    Event &event = begin(SET_COLOR);
    if (color_memory)
        event.bytes = color_memory->bytes();
    return end_codec_call(record.size() - 1);
}

int32_t qm7_cl_post_thread_get_status(uint32_t postResId, PostStatus *status)
{
    Event &event = begin(GET_STATUS, {postResId, is_zero(status)});
    if (!event.failed) {
        memset((void *)status, 0xA5, sizeof *status);
        status->width = script.width[postResId % 4];
        status->height = script.height[postResId % 4];
        event.out = {status->width, status->height};
    }
    return end_codec_call(record.size() - 1);
}

int32_t qm7_cl_post_open_osd(uint32_t postResId, const OsdOpenParam *param, uint32_t *extra_out,
                             uint32_t *pitch)
{
    Plane &plane = script.planes[postResId % 4][param->number % 4];
    Event &event = begin(OPEN_OSD, {postResId, param->number, param->width, param->height,
                                    param->depth_code, *extra_out});
    if (event.failed) {
        *pitch = plane.failed_pitch.value_or(*pitch);
    } else {
        *extra_out = UNUSED_OUTPUT;
        *pitch = plane.pitch.value_or((param->width + 15u) / 16 * 16);
        plane.opened_pitch = *pitch;
        plane.opened_height = param->height;
    }
    event.out = {*pitch};
    return end_codec_call(record.size() - 1);
}

int32_t qm7_cl_post_clear_osd(uint32_t postResId, uint32_t osd_number)
{
    return codec_call(CLEAR_OSD, {postResId, osd_number});
}

int32_t qm7_cl_post_close_osd(uint32_t postResId, uint32_t osd_number)
{
    return codec_call(CLOSE_OSD, {postResId, osd_number});
}

int32_t qm7_cl_post_get_osd_mem(uint32_t postResId, int32_t osd_number, uint32_t *osdId,
                                OsdMem *mem)
{
    const Plane &plane = script.planes[postResId % 4][(uint32_t)osd_number % 4];
    Event &event = begin(GET_OSD_MEM, {postResId, osd_number, *osdId, is_zero(mem)});
    if (event.failed) {
        *osdId = script.failed_osd_id;
    } else {
        *osdId = next_osd_id++;
        mem->size = plane.size.value_or(plane.opened_pitch * plane.opened_height);
        if (!plane.no_memory) {
            event.memory = std::make_shared<GuardedMemory>(mem->size, plane.guard);
            mem->addr = event.memory->data();
        }
        std::erase_if(handed_out, [&](const auto &one) { return one.second.plane == &plane; });
        handed_out[*osdId] = {&plane, event.memory};
    }
    event.out = {*osdId, mem->size};
    return end_codec_call(record.size() - 1);
}

int32_t qm7_cl_post_set_osd(uint32_t postResId, uint32_t osdId, OsdPosition position)
{
    Event &event = begin(SET_OSD, {postResId, osdId, position.x, position.y});
    const auto found = handed_out.find(osdId);
    if (found != handed_out.end() && found->second.memory)
        event.bytes = found->second.memory->bytes();
    handed_out.erase(osdId);
    return end_codec_call(record.size() - 1);
}

// ---- files and memory --------------------------------------------------------------------------

int __real_open(const char *path, int flags, ...);
int __real_fstat(int file, struct stat *status);
ssize_t __real_read(int file, void *buffer, size_t size);
int __real_close(int file);
void *__real_calloc(size_t count, size_t size);
void __real_free(void *memory);
int __wrap_open(const char *path, int flags, ...);
int __wrap_fstat(int file, struct stat *status);
ssize_t __wrap_read(int file, void *buffer, size_t size);
int __wrap_close(int file);
void *__wrap_calloc(size_t count, size_t size);
void __wrap_free(void *memory);

// The program creates no file, so there is no mode to hand on.
int __wrap_open(const char *path, int flags, ...)
{
    Event &event = begin(FILE_OPEN, {flags});
    event.text = path;
    int file = -1;
    if (event.failed) {
        errno = script.code;
    } else {
        file =
            __real_open(event.text == OSD_PALETTE_PATH ? script.palette_path.c_str() : path, flags);
        event.failed = file < 0;
    }
    event.error = errno;
    if (file >= 0) {
        files[file] = next_object++;
        event.out = {files[file]};
    }
    return file;
}

int __wrap_fstat(int file, struct stat *status)
{
    Event &event = begin(FILE_FSTAT, {file_id_of(file)});
    int result = -1;
    if (event.failed)
        errno = script.code;
    else
        result = __real_fstat(file, status);
    event.error = errno;
    event.failed = result != 0;
    event.out = {event.failed ? 0 : (int64_t)(uint32_t)status->st_size};
    return result;
}

ssize_t __wrap_read(int file, void *buffer, size_t size)
{
    Event &event = begin(FILE_READ, {file_id_of(file), (int64_t)size});
    ssize_t result = -1;
    if (event.failed) {
        errno = script.code;
    } else {
        errno = 0; // a short read leaves it as it was
        result = __real_read(file, buffer, size - std::min(size, script.short_read));
    }
    event.error = errno;
    event.failed = result < 0;
    event.out = {result};
    if (result > 0)
        event.bytes.assign((const uint8_t *)buffer, (const uint8_t *)buffer + result);
    return result;
}

int __wrap_close(int file)
{
    Event &event = begin(FILE_CLOSE, {file_id_of(file)});
    if (event.in[0] < 0)
        return -1;
    files.erase(file);
    (void)__real_close(file); // a close that fails has closed all the same
    if (!event.failed)
        return 0;
    errno = script.code;
    return -1;
}

void *__wrap_calloc(size_t count, size_t size)
{
    Event &event = begin(HEAP_CALLOC, {(int64_t)count, (int64_t)size});
    void *memory = event.failed ? nullptr : __real_calloc(count, size);
    event.failed = !memory;
    if (memory) {
        blocks[memory] = next_object++;
        event.out = {blocks[memory]};
    }
    return memory;
}

void __wrap_free(void *memory)
{
    const auto found = blocks.find(memory);
    if (found != blocks.end()) {
        (void)begin(HEAP_FREE, {found->second});
        blocks.erase(found);
    }
    __real_free(memory);
}

// ---- FreeType ----------------------------------------------------------------------------------

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

// What FT_Init_FreeType does, with memory in pieces of limited size; FT_Done_FreeType frees the
// record.
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
        event.out = {born(*library)};
    return error;
}

FT_Error __wrap_FT_New_Face(FT_Library library, const char *path, FT_Long index, FT_Face *face)
{
    Event &event = begin(FONT_NEW_FACE, {id_of(library), index});
    event.text = path;
    const char *real_path = event.text == FONT_PATH ? script.font_path.c_str() : path;
    *face = junk_handle<FT_Face>();
    const FT_Error error =
        font_call(event, [=] { return __real_FT_New_Face(library, real_path, index, face); });
    if (!event.failed)
        event.out = {born(*face)};
    return error;
}

FT_Error __wrap_FT_Request_Size(FT_Face face, FT_Size_Request request)
{
    Event &event =
        begin(FONT_REQUEST_SIZE, {id_of(face), request->type, request->width, request->height,
                                  request->horiResolution, request->vertResolution});
    const FT_Error error = font_call(event, [=] { return __real_FT_Request_Size(face, request); });
    if (!event.failed)
        event.out = {face->size->metrics.descender, face->size->metrics.max_advance};
    return error;
}

FT_UInt __wrap_FT_Get_Char_Index(FT_Face face, FT_ULong code)
{
    Event &event = begin(FONT_CHAR_INDEX, {id_of(face), (int64_t)code});
    if (event.failed)
        return 0;
    event.out = {__real_FT_Get_Char_Index(face, code)};
    return (FT_UInt)event.out[0];
}

FT_Error __wrap_FT_Load_Glyph(FT_Face face, FT_UInt index, FT_Int32 flags)
{
    Event &event = begin(FONT_LOAD_GLYPH, {id_of(face), index, flags});
    return font_call(event, [=] { return __real_FT_Load_Glyph(face, index, flags); });
}

FT_Error __wrap_FT_Get_Glyph(FT_GlyphSlot slot, FT_Glyph *glyph)
{
    Event &event = begin(FONT_GET_GLYPH, {id_of(slot->face)});
    const FT_Error error = font_call(event, [=] { return __real_FT_Get_Glyph(slot, glyph); });
    if (!event.failed)
        event.out = {born(*glyph)};
    return error;
}

FT_Error __wrap_FT_Glyph_To_Bitmap(FT_Glyph *glyph, FT_Render_Mode mode, const FT_Vector *origin,
                                   FT_Bool destroy)
{
    Event &event = begin(FONT_TO_BITMAP, {id_of(*glyph), mode, origin != nullptr, destroy});
    const FT_Glyph before = *glyph;
    const FT_Error error =
        font_call(event, [=] { return __real_FT_Glyph_To_Bitmap(glyph, mode, origin, destroy); });
    if (event.failed)
        return error;

    if (*glyph != before) {
        objects.erase(before);
        objects[*glyph] = event.in[0];
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
    const int64_t id = begin(FONT_DONE_GLYPH, {id_of(glyph)}).in[0];
    if (id > 0) {
        objects.erase(glyph);
        inside_freetype++;
        __real_FT_Done_Glyph(glyph);
        inside_freetype--;
    }
}

// A failed release of a face or a library has released it all the same.
FT_Error __wrap_FT_Done_Face(FT_Face face)
{
    const Event &event = begin(FONT_DONE_FACE, {id_of(face)});
    if (event.in[0] <= 0)
        return FONT_FAILED;
    objects.erase(face);
    inside_freetype++;
    const FT_Error error = __real_FT_Done_Face(face);
    inside_freetype--;
    return event.failed ? FONT_FAILED : error;
}

FT_Error __wrap_FT_Done_FreeType(FT_Library library)
{
    const Event &event = begin(FONT_DONE_FREETYPE, {id_of(library)});
    if (event.in[0] <= 0)
        return FONT_FAILED;
    objects.erase(library);
    inside_freetype++;
    const FT_Error error = __real_FT_Done_FreeType(library);
    inside_freetype--;
    return event.failed ? FONT_FAILED : error;
}

} // extern "C"
