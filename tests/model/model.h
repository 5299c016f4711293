// A model of the display thread. It reads the record of calls and answers (world.h) and computes
// the expected calls and arguments, the expected output, and every expected byte of memory. It
// shares only the layout of records with the program.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "draw/painter.h"
#include "world.h"

namespace model
{

// The program differs from the model.
struct Mismatch : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Engine {
    int64_t library = 0; // numbers of objects in the record, 0: none
    int64_t face = 0;
    int64_t array = 0;
    int64_t descender = 0;
    int64_t max_advance = 0;
    std::vector<std::pair<uint32_t, int64_t>> cache; // character, glyph
    std::vector<std::shared_ptr<world::Glyph>> glyphs;
};

struct Region {
    uint16_t width = 0;
    uint16_t height = 0;
    uint32_t x = 0;
    uint32_t y = 0;
    uint32_t resolution = 0;
};

struct Post {
    bool valid = false;
    uint32_t width = 0;
    uint32_t height = 0;
    bool initialized = false;
    uint32_t font_size = 0;
    int32_t cell_width = 0;
    const Engine *engine = nullptr;
    Region region;
    bool opened[4] = {};
    uint32_t pitch[4] = {};
};

class Model
{
  public:
    Engine engines[4];
    Post posts[4];
    uint32_t post_res_id[4] = {};
    bool started[4] = {};
    bool stopped[4] = {};
    uint32_t current = 0;
    uint32_t peak = 0;

    void report(uint32_t post_res_id, uint32_t index, uint32_t running);

    // Check an operation: begin(), the operation of the model, end(). end() compares the streams
    // and all memory, and fails if the record has further calls.
    void begin();
    void end(const world::Streams &streams);

    // ---- operations of the program
    void display_start();
    void display_pass();
    int32_t library_process();
    void close_library();
    int32_t init_fonts();
    void clear_engine(Engine *engine);
    int32_t close_plane(Post *post, uint32_t post_res_id, uint32_t number);

  private:
    struct Buffer {
        std::shared_ptr<GuardedMemory> memory;
        std::vector<uint8_t> expected;
        uint32_t pitch; // bytes a line, for messages; 0: no lines
    };

    size_t next = 0; // event of the record
    std::string out;
    std::string err;
    std::vector<Buffer> buffers;

    const world::Event &expect(world::Fn fn, std::vector<int64_t> in = {},
                               const std::string &text = "");
    bool next_is(world::Fn fn) const;
    void print(const char *format, ...) __attribute__((format(printf, 2, 3)));
    void error_line(const char *operation, const char *format, ...)
        __attribute__((format(printf, 3, 4)));
    int32_t fault(const char *operation, const char *call, const world::Event &event);
    Buffer *adopt(const world::Event &event, uint32_t pitch);
    static void compare(const Buffer &buffer, const std::vector<uint8_t> &actual,
                        const std::string &when);

    void fill_color(Buffer *buffer, uint32_t size);
    int32_t init_engine(Engine *engine, uint32_t pixel_size);
    int32_t create_cache(Engine *engine);
    void free_cache(Engine *engine);
    int32_t get_glyph(int64_t face, uint32_t character, int64_t *glyph,
                      std::shared_ptr<world::Glyph> *made);
    void init_draw_param(Post *post);
    int32_t open_plane(Post *post, uint32_t id, uint32_t number);
    int32_t show_bar(const Post &post, uint32_t id, uint32_t percent);
    int32_t show_string(const Post &post, uint32_t id, uint32_t percent);
    int32_t target_bitmap(const Post &post, const std::string &text, const DrawRect &target,
                          Buffer *buffer, bool highlight);
    bool draw_post(uint32_t p, uint32_t percent);
};

} // namespace model
