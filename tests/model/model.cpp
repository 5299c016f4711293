#include "model.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include "difference.h"
#include "reference.h"

using namespace world;

namespace model
{

static constexpr int32_t OK = 0;
static constexpr int32_t FAULT = -14;
static constexpr int32_t NO_MEMORY = -12;

static const char PALETTE[] = "/usr/local/morvel/app/conf/data/osd/osd_def_color.plt";
static const char FONT[] = "/usr/local/morvel/import/font/dejavu/font/DejaVuSansMono.ttf";
static const char CHARACTERS[] =
    "1234567890: -abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

// ---- reading the record ------------------------------------------------------------------------

__attribute__((format(printf, 1, 0))) static std::string formatted(const char *format,
                                                                   va_list arguments)
{
    char text[2048];
    const int length = vsnprintf(text, sizeof text, format, arguments);
    if (length < 0 || (size_t)length >= sizeof text)
        throw std::logic_error("text too long for the model");
    return text;
}

static std::string described(const Event &event)
{
    std::string text = std::string(name_of(event.fn)) + "(";
    for (const int64_t value : event.in)
        text += std::to_string(value) + " ";
    text += event.text + ")";
    if (event.failed) {
        char code[32];
        snprintf(code, sizeof code, " failed, errno 0x%08X", (unsigned)event.error);
        text += code;
    }
    return text;
}

void Model::begin()
{
    next = 0;
    out.clear();
    err.clear();
    buffers.clear();
    while (next_is(REPORT) || next_is(FOCUS))
        next++; // before the operation: the model has them already
}

bool Model::next_is(Fn fn) const
{
    return next < record.size() && record[next].fn == fn;
}

const Event &Model::expect(Fn fn, std::vector<int64_t> in, const std::string &text)
{
    in.resize(Event().in.size());
    if (next == record.size())
        throw Mismatch(std::string("missing at the end: ") + name_of(fn));
    const Event &event = record[next++];
    Event wanted;
    wanted.fn = fn;
    std::copy(in.begin(), in.end(), wanted.in.begin());
    wanted.text = text;
    if (event.fn != fn || event.in != wanted.in || event.text != text)
        throw Mismatch("call " + std::to_string(next) + " is " + described(event) + ", not " +
                       described(wanted));

    for (; next_is(REPORT) || next_is(FOCUS); next++) {
        const Event &beside = record[next];
        if (beside.fn == REPORT) {
            report((uint32_t)beside.in[0], (uint32_t)beside.in[1], (uint32_t)beside.in[2]);
        } else {
            current = (uint32_t)beside.in[0];
            peak = (uint32_t)beside.in[1];
        }
    }
    return event;
}

void Model::print(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    out += formatted(format, arguments);
    va_end(arguments);
}

void Model::error_line(const char *operation, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    err += "ERR:#qm7osd:[(null)]=" + formatted(format, arguments) + "(" + operation + ")\n";
    va_end(arguments);
}

int32_t Model::fault(const char *operation, const char *call, const Event &event)
{
    error_line(operation, "%s() failed. errno=0x%08X", call, (unsigned)event.error);
    return FAULT;
}

Model::Buffer *Model::adopt(const Event &event, uint32_t pitch)
{
    if (!event.memory)
        return nullptr;
    buffers.push_back({event.memory, event.memory->bytes(), pitch});
    Buffer &buffer = buffers.back();
    std::fill(buffer.expected.begin(), buffer.expected.end(), GuardedMemory::JUNK);
    return &buffer;
}

void Model::compare(const Buffer &buffer, const std::vector<uint8_t> &actual,
                    const std::string &when)
{
    if (actual != buffer.expected)
        throw Mismatch(when + ": " + difference(actual, buffer.expected, buffer.pitch));
}

// The percentage whose bar differs in the fewest bytes.
static std::string nearest_percent(const std::vector<uint8_t> &actual, const DrawRect &rect)
{
    int32_t nearest = 0;
    size_t fewest = SIZE_MAX;
    for (int32_t percent = 0; percent <= 100; percent++) {
        std::vector<uint8_t> bar(actual.size());
        reference::paint_bar(bar, rect, percent);
        const size_t count = differing_bytes(actual, bar);
        if (count < fewest) {
            fewest = count;
            nearest = percent;
        }
    }
    return "nearest to the bar of " + std::to_string(nearest) + " %, from which " +
           std::to_string(fewest) + " bytes differ";
}

static void compare_text(const char *stream, const std::string &actual, const std::string &expected)
{
    if (actual != expected)
        throw Mismatch(std::string(stream) + " is \"" + actual + "\", not \"" + expected + "\"");
}

void Model::end(const Streams &streams)
{
    if (next != record.size())
        throw Mismatch("one call too many: " + described(record[next]));
    compare_text("standard output", streams.out, out);
    compare_text("standard error", streams.err, err);
    for (const Buffer &buffer : buffers) {
        compare(buffer, buffer.memory->bytes(), "at the end");
        if (!buffer.memory->surroundings_are_whole())
            throw Mismatch("bytes changed outside of the memory handed out");
    }
}

void Model::report(uint32_t id, uint32_t index, uint32_t running)
{
    if (index > 3)
        return;
    if (running != 0) {
        post_res_id[index] = id;
        started[index] = true;
    } else {
        stopped[index] = true;
    }
}

// ---- session and palette -----------------------------------------------------------------------

int32_t Model::library_process()
{
    static const char SELF[] = "OSD_Library_Process";
    const auto undo = [this](int32_t result) {
        expect(CLOSE_DEVICE);
        expect(LIBRARY_EXIT);
        return result;
    };

    if (const Event &call = expect(LIBRARY_INIT); call.failed)
        return fault(SELF, "qm7_cl_library_init", call);
    if (const Event &call = expect(OPEN_DEVICE); call.failed) {
        expect(LIBRARY_EXIT);
        return fault(SELF, "qm7_cl_sys_open_device", call);
    }
    if (const Event &call = expect(NOTIFY_CALLBACK, {1}); call.failed)
        return undo(fault(SELF, "qm7_cl_post_notify_callback", call));
    if (const Event &call = expect(SET_NOTIFY, {15}); call.failed)
        return undo(fault(SELF, "qm7_cl_post_set_notify", call));
    const Event &color = expect(GET_COLOR_MEM, {1});
    if (color.failed)
        return undo(fault(SELF, "qm7_cl_post_get_osd_color_mem", color));

    Buffer *buffer = adopt(color, 0);
    fill_color(buffer, (uint32_t)color.out[0]);

    const Event &apply = expect(SET_COLOR);
    if (buffer && apply.bytes != buffer->expected)
        throw Mismatch("colors applied: " + table_difference(apply.bytes, buffer->expected));
    if (apply.failed)
        return undo(fault(SELF, "qm7_cl_post_set_osd_color", apply));
    return OK;
}

void Model::fill_color(Buffer *buffer, uint32_t size)
{
    std::vector<uint8_t> nowhere;
    std::vector<uint8_t> &table = buffer ? buffer->expected : nowhere;
    std::fill(table.begin(), table.end(), 0);

    const auto reason = [this](const char *what, int error) {
        err += std::string(what) + ": " + strerror(error) + "\n";
    };
    const Event &file = expect(FILE_OPEN, {O_RDONLY}, PALETTE);
    if (file.failed) {
        reason(PALETTE, file.error);
    } else {
        const Event &status = expect(FILE_FSTAT, {file.out[0]});
        const uint32_t length = (uint32_t)status.out[0];
        if (status.failed) {
            reason("fstat", status.error);
        } else if (length > size) {
            print("size=%d\nbuffer_len=%d\nfile too large\n", (int)length, (int)size);
        } else {
            const Event &bytes = expect(FILE_READ, {file.out[0], length});
            std::copy(bytes.bytes.begin(), bytes.bytes.end(), table.begin());
            if (bytes.out[0] != length)
                reason(PALETTE, bytes.error);
        }
        expect(FILE_CLOSE, {file.out[0]});
    }

    static const struct {
        size_t offset;
        uint8_t value;
    } FORCED[] = {{67, 0x08}, {68, 0xEF}, {69, 0x28}, {70, 0x6D}, {72, 0x4C},
                  {73, 0x54}, {74, 0xFF}, {76, 0xB2}, {77, 0xAA}, {78, 0x00}};
    for (const auto &forced : FORCED) {
        if (forced.offset < table.size())
            table[forced.offset] = forced.value;
    }
}

void Model::close_library()
{
    if (const Event &call = expect(CLOSE_DEVICE); call.failed)
        fault("osd_close_codec_lib", "qm7_cl_sys_close_device", call);
    if (const Event &call = expect(LIBRARY_EXIT); call.failed)
        fault("osd_close_codec_lib", "qm7_cl_library_exit", call);
}

// ---- fonts -------------------------------------------------------------------------------------

int32_t Model::get_glyph(int64_t face, uint32_t character, int64_t *glyph,
                         std::shared_ptr<world::Glyph> *made)
{
    const auto failed = [this](const char *message) {
        error_line("font_get_glyph", "%s", message);
        return FAULT;
    };
    *glyph = 0;
    if (face == 0) { // FreeType refuses a null face; the program may call it or not
        if (next_is(FONT_CHAR_INDEX))
            expect(FONT_CHAR_INDEX, {0, character});
        if (next_is(FONT_LOAD_GLYPH))
            expect(FONT_LOAD_GLYPH, {0, 0, FT_LOAD_DEFAULT});
        return failed("load glyph failed");
    }
    const Event &index = expect(FONT_CHAR_INDEX, {face, character});
    if (expect(FONT_LOAD_GLYPH, {face, index.out[0], FT_LOAD_DEFAULT}).failed)
        return failed("load glyph failed");
    const Event &got = expect(FONT_GET_GLYPH, {face});
    if (got.failed)
        return failed("get glyph failed");
    *glyph = got.out[0];
    const Event &bitmap = expect(FONT_TO_BITMAP, {*glyph, FT_RENDER_MODE_MONO, 0, 1});
    if (bitmap.failed)
        return failed("glyph to bitmap failed");
    *made = bitmap.glyph;
    return OK;
}

void Model::free_cache(Engine *engine)
{
    for (const auto &entry : engine->cache) {
        if (entry.second != 0)
            expect(FONT_DONE_GLYPH, {entry.second});
    }
    if (engine->array != 0)
        expect(HEAP_FREE, {engine->array});
    engine->array = 0;
    engine->cache.clear();
    engine->glyphs.clear();
}

int32_t Model::create_cache(Engine *engine)
{
    const size_t count = strlen(CHARACTERS);
    const Event &array = expect(HEAP_CALLOC, {(int64_t)count, sizeof(void *) == 4 ? 8 : 16});
    if (array.failed) {
        error_line("font_create_cache", "calloc failed");
        return NO_MEMORY;
    }
    engine->array = array.out[0];
    for (const char *character = CHARACTERS; *character; character++) {
        int64_t glyph;
        std::shared_ptr<world::Glyph> made;
        const int32_t result = get_glyph(engine->face, (uint8_t)*character, &glyph, &made);
        if (result == OK || glyph != 0) {
            engine->cache.push_back({(uint8_t)*character, glyph});
            engine->glyphs.push_back(made);
        }
        if (result != OK) {
            error_line("font_create_cache", "set glyph failed");
            free_cache(engine);
            return FAULT;
        }
    }
    return OK;
}

void Model::clear_engine(Engine *engine)
{
    if (engine->library == 0) {
        error_line("font_clear_engine", "invalid param");
        return;
    }
    free_cache(engine);
    expect(FONT_DONE_FACE, {engine->face});
    expect(FONT_DONE_FREETYPE, {engine->library});
    *engine = Engine();
}

int32_t Model::init_engine(Engine *engine, uint32_t pixel_size)
{
    static const char SELF[] = "font_init_engine";
    *engine = Engine();
    const Event &library = expect(FONT_INIT);
    if (library.failed) {
        error_line(SELF, "Init_FreeType error");
        return FAULT;
    }
    engine->library = library.out[0];

    const Event &face = expect(FONT_NEW_FACE, {engine->library, 0}, FONT);
    if (face.failed) {
        error_line(SELF, "New_Face error. font file: %s", FONT);
        expect(FONT_DONE_FREETYPE, {engine->library});
        *engine = Engine();
        return FAULT;
    }
    engine->face = face.out[0];

    const Event &size = expect(
        FONT_REQUEST_SIZE, {engine->face, FT_SIZE_REQUEST_TYPE_REAL_DIM, 0, pixel_size * 64, 0, 0});
    if (size.failed) {
        error_line(SELF, "request size error");
        clear_engine(engine);
        return FAULT;
    }
    engine->descender = size.out[0];
    engine->max_advance = size.out[1];

    if (create_cache(engine) != OK) {
        error_line(SELF, "create buffer error");
        clear_engine(engine);
        return FAULT;
    }
    return OK;
}

int32_t Model::init_fonts()
{
    static const uint32_t LINE_COUNTS[] = {1080, 720, 480, 240};
    for (size_t number = 0; number < 4; number++) {
        if (init_engine(&engines[number], std::max(LINE_COUNTS[number] / 17, 8u)) != OK) {
            error_line("osd_init_font", "font_init_engine() failed");
            return FAULT;
        }
    }
    return OK;
}

// ---- planes ------------------------------------------------------------------------------------

static bool is_tolerated(int error)
{
    const uint32_t code = (uint32_t)error;
    return code == 0x81E03204 || code == 0x81E04507 || code == 0x81003209 || code == 0x81E0250C;
}

int32_t Model::open_plane(Post *post, uint32_t id, uint32_t number)
{
    if (post->opened[number])
        return OK;
    const Event &call =
        expect(OPEN_OSD, {id, number, post->region.width, post->region.height, 2, 0});
    post->pitch[number] = (uint32_t)call.out[0]; // written in place, by a failed call as well
    if (!call.failed) {
        post->opened[number] = true;
        return OK;
    }
    if (is_tolerated(call.error)) {
        post->pitch[number] = 0;
        post->opened[number] = true;
        return OK;
    }
    fault("osd_open_osd", "qm7_cl_post_open_osd", call);
    return (uint32_t)call.error == 0x81E03246 ? FAULT : OK;
}

int32_t Model::close_plane(Post *post, uint32_t id, uint32_t number)
{
    static const char SELF[] = "osd_close_osd";
    if (!post->opened[number])
        return OK;
    const Event &clear = expect(CLEAR_OSD, {id, number});
    if (clear.failed && !is_tolerated(clear.error)) {
        fault(SELF, "qm7_cl_post_clear_osd", clear);
        error_line(SELF, "postResId=0x%08X, Number=0x%08X", id, number);
        return FAULT;
    }
    const Event &close = expect(CLOSE_OSD, {id, number});
    if (close.failed)
        return fault(SELF, "qm7_cl_post_close_osd", close);
    post->opened[number] = false;
    return OK;
}

int32_t Model::show_bar(const Post &post, uint32_t id, uint32_t percent)
{
    DrawRect rect = {};
    rect.width = post.region.width;
    rect.height = post.region.height;
    rect.depth = 8;
    rect.bg_color = 17;
    rect.pitch = (int32_t)post.pitch[0];
    rect.resolution = post.region.resolution;

    const Event &fetch = expect(GET_OSD_MEM, {id, 0, 0, 1});
    const uint32_t osd_id = (uint32_t)fetch.out[0];
    const uint32_t size = (uint32_t)fetch.out[1];
    if (fetch.failed) {
        print("qm7_cl_post_get_osd_mem() failed. errno=0x%08X", (unsigned)fetch.error);
        print("postResId=0x%08X, OSD num=%d, osdId=0x%08x", id, 0, osd_id);
        return FAULT;
    }
    Buffer *buffer = adopt(fetch, post.pitch[0]);
    if (size < post.pitch[0] * post.region.height) {
        print("osd memory over: mem.size=%d pitch=%d height=%d", (int32_t)size, rect.pitch,
              rect.height);
        return FAULT;
    }
    if (buffer) {
        std::fill(buffer->expected.begin(), buffer->expected.end(), 0);
        reference::paint_bar(buffer->expected, rect, (int32_t)percent);
    }

    const Event &show =
        expect(SET_OSD, {id, osd_id, post.region.x & 0xFFFF, post.region.y & 0xFFFF});
    if (buffer)
        compare(
            *buffer, show.bytes,
            "bar of " + std::to_string((int32_t)percent) + " %" +
                (show.bytes == buffer->expected ? "" : ", " + nearest_percent(show.bytes, rect)));
    if (show.failed) {
        print("qm7_cl_post_set_osd() failed. errno=0x%08X", (unsigned)show.error);
        print("postResId=0x%08X", id);
        return FAULT;
    }
    return OK;
}

// ---- text --------------------------------------------------------------------------------------

static int32_t pixels_of(int64_t value)
{
    return (int32_t)((value - 1) / 64 + 1);
}

int32_t Model::target_bitmap(const Post &post, const std::string &text, const DrawRect &target,
                             Buffer *buffer, bool highlight)
{
    static const char SELF[] = "font_get_target_bitmap";
    const auto failed = [this](const char *operation, const char *message) {
        error_line(operation, "%s", message);
        return FAULT;
    };
    if (!buffer)
        return failed(SELF, "invalid parameter");
    if ((int64_t)target.cell_width * (int64_t)text.size() > target.pitch)
        return failed(SELF, "target width is too small");
    reference::paint_rectangle(buffer->expected, target);

    static const Engine DEAD;
    const Engine &engine = post.engine ? *post.engine : DEAD;
    for (size_t i = 0; i < text.size(); i++) {
        const uint32_t character = (uint8_t)text[i];
        const auto cached =
            std::find_if(engine.cache.begin(), engine.cache.end(),
                         [=](const auto &entry) { return entry.first == character; });
        int64_t glyph = 0;
        std::shared_ptr<world::Glyph> bitmap;
        const bool is_cached = cached != engine.cache.end() && cached->second != 0;
        if (is_cached) {
            glyph = cached->second;
            bitmap = engine.glyphs[(size_t)(cached - engine.cache.begin())];
        } else if (get_glyph(engine.face, character, &glyph, &bitmap) != OK) {
            const int32_t result = failed(SELF, "set glyph failed");
            if (glyph != 0)
                expect(FONT_DONE_GLYPH, {glyph});
            return result;
        }

        if (!bitmap->mono) {
            failed("font_draw_target", "invalid pixel_mode");
            const int32_t result = failed(SELF, "draw target failed");
            expect(FONT_DONE_GLYPH, {glyph});
            if (is_cached) // all posts draw with the same array
                const_cast<int64_t &>(cached->second) = 0;
            return result;
        }
        reference::paint_glyph(buffer->expected, target, bitmap->record,
                               pixels_of(engine.descender), (int32_t)i * target.cell_width,
                               highlight);
        if (!is_cached)
            expect(FONT_DONE_GLYPH, {glyph});
    }
    return OK;
}

int32_t Model::show_string(const Post &post, uint32_t id, uint32_t percent)
{
    DrawRect target = {};
    target.width = 21 * post.cell_width;
    target.height = (int32_t)post.font_size;
    target.depth = 8;
    target.fg_color = 16;
    target.bg_color = 17;
    target.cell_width = post.cell_width;
    target.pitch = (int32_t)post.pitch[1];
    const uint32_t x = post.region.resolution < 2
                           ? post.region.x + (uint32_t)((post.region.width - target.width) / 2)
                           : post.region.x + 1;
    const uint32_t y = post.region.y - post.font_size;

    // Read now: may be newer than those of the percentage.
    char text[64];
    bool highlight = false;
    if (peak == 0) {
        snprintf(text, sizeof text, "FOCUS ASSIST %3d/---", (int32_t)current);
    } else {
        snprintf(text, sizeof text, "FOCUS ASSIST %3d/%3d", (int32_t)current, (int32_t)peak);
        highlight = (int32_t)percent >= reference::THRESHOLD;
    }
    const std::string cut = std::string(text).substr(0, 25);

    const Event &fetch = expect(GET_OSD_MEM, {id, 1, 0, 1});
    const uint32_t osd_id = (uint32_t)fetch.out[0];
    if (fetch.failed) {
        print("qm7_cl_post_get_osd_mem() failed. errno=0x%08X\n", (unsigned)fetch.error);
        print("postResId=0x%08X, OSD num=%d, osdId=0x%08X\n", id, 1, osd_id);
        return FAULT;
    }
    Buffer *buffer = adopt(fetch, post.pitch[1]);
    if (buffer)
        std::fill(buffer->expected.begin(), buffer->expected.end(), 0);
    if (target_bitmap(post, cut, target, buffer, highlight) != OK) {
        error_line("show_string", "get target bitmap failed");
        return FAULT;
    }

    const Event &show = expect(SET_OSD, {id, osd_id, x & 0xFFFF, y & 0xFFFF});
    compare(*buffer, show.bytes, "text \"" + cut + "\"");
    if (show.failed) {
        print("qm7_cl_post_set_osd() failed. errno=0x%08X", (unsigned)show.error);
        print("postResId=0x%08X", id);
        return FAULT;
    }
    return OK;
}

// ---- display loop ------------------------------------------------------------------------------

void Model::display_start()
{
    for (Post &post : posts)
        post = Post();
    library_process();
    if (init_fonts() != OK)
        error_line("osd_Focus_Assist_run", "osd_init_font() failed\n");
}

void Model::init_draw_param(Post *post)
{
    if (post->initialized)
        return;
    post->font_size = std::max(post->height / 17, 8u);
    static const struct {
        uint32_t output_width;
        uint16_t width;
        uint16_t height;
    } SIZES[] = {{1920, 720, 108}, {1280, 480, 72}, {720, 280, 48}, {352, 132, 24}};
    uint32_t resolution = 0;
    while (resolution < 4 && SIZES[resolution].output_width != post->width)
        resolution++;

    post->region.resolution = resolution;
    if (resolution < 4) {
        post->region.width = SIZES[resolution].width;
        post->region.height = SIZES[resolution].height;
        post->engine = &engines[resolution];
    } else {
        error_line("init_draw_param", "invalid resolution");
    }
    post->region.x = (post->width - post->region.width) / 2;
    post->region.y = post->height * 4 / 5;
    post->cell_width =
        post->engine && post->engine->library ? pixels_of(post->engine->max_advance) : 0;
    post->initialized = true;
}

bool Model::draw_post(uint32_t p, uint32_t percent)
{
    Post &post = posts[p];
    init_draw_param(&post);

    open_plane(&post, post_res_id[p], 0);
    if (show_bar(post, post_res_id[p], percent) != OK) {
        print("show_bar() failed");
        return false;
    }
    if (open_plane(&post, post_res_id[p], 1) != OK) {
        print("osd_open_osd() failed\n");
        return false;
    }
    if (show_string(post, post_res_id[p], percent) != OK) {
        print("show_string() failed\n");
        return false;
    }
    return true;
}

void Model::display_pass()
{
    const uint32_t percent = peak == 0 ? 0 : current * 100u / peak;
    for (uint32_t p = 0; p < 4; p++) {
        Post &post = posts[p];
        if (stopped[p]) {
            stopped[p] = false;
            std::fill(std::begin(post.opened), std::end(post.opened), false);
            post.valid = false;
        }
        if (started[p]) {
            started[p] = false;
            if (!post.valid) {
                const Event &status = expect(GET_STATUS, {post_res_id[p], 1});
                if (status.failed) {
                    print("POST%d get_post_geometry() failed", (int)p);
                    return;
                }
                post.width = (uint32_t)status.out[0];
                post.height = (uint32_t)status.out[1];
                post.valid = true;
            }
        }
        if (post.valid)
            draw_post(p, percent);
    }
}

} // namespace model
