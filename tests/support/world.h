// What the display thread calls outside of the program: the codec library, FreeType, files and heap
// memory. Every call is recorded with its arguments and its answer, and any call can be made to
// fail. Tests inspect these calls only through this record: the model of the program (model.h)
// reads it, FakeCodec shows it as text.
//
// FreeType and the files are the real ones behind a wrapper; memory of the codec library is
// guarded. Only the display thread may call in.
//
// Implemented by world.cpp, world_codec.cpp, world_files.cpp and world_freetype.cpp; a test program
// links the sources that it needs.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_GLYPH_H

#include "guarded_memory.h"
#include "osd/qm7_codec.h"

namespace world
{

enum Fn : uint8_t {
    LIBRARY_INIT,
    LIBRARY_EXIT,
    OPEN_DEVICE,
    CLOSE_DEVICE,
    NOTIFY_CALLBACK,
    SET_NOTIFY,
    GET_COLOR_MEM,
    SET_COLOR,
    GET_STATUS,
    OPEN_OSD,
    CLEAR_OSD,
    CLOSE_OSD,
    GET_OSD_MEM,
    SET_OSD,
    FILE_OPEN,
    FILE_FSTAT,
    FILE_READ,
    FILE_CLOSE,
    HEAP_CALLOC,
    HEAP_FREE, // of what HEAP_CALLOC gave; it cannot fail
    FONT_INIT,
    FONT_NEW_FACE,
    FONT_REQUEST_SIZE,
    FONT_CHAR_INDEX,
    FONT_LOAD_GLYPH,
    FONT_GET_GLYPH,
    FONT_TO_BITMAP,
    FONT_DONE_GLYPH,
    FONT_DONE_FACE,
    FONT_DONE_FREETYPE,
    CALL_COUNT, // the calls above are the program's own

    // Inside FreeType: counted and made to fail, but not recorded.
    INNER_MALLOC = CALL_COUNT,
    INNER_REALLOC,
    INNER_OPEN,
    INNER_FSTAT,
    INNER_MMAP,
    FN_COUNT,

    // Not calls: what happened during the call recorded before.
    REPORT, // of a post; in: post id, index, running
    FOCUS   // new values; in: current, peak
};
constexpr FT_Error FONT_FAILED = 0x55; // result of FreeType's functions that fail
const char *name_of(Fn fn);            // as in C: "qm7_cl_library_init", "FT_New_Face", "calloc"

// A bitmap glyph as FreeType made it.
struct Glyph {
    FT_BitmapGlyphRec record; // its buffer points to bytes
    bool mono;
    std::vector<uint8_t> bytes;
};

// One call. Objects of FreeType appear as numbers, from 1 on and never used twice; 0 is null, -1
// one that does not exist (any more).
struct Event {
    Fn fn;
    std::array<int64_t, 6> in{}; // arguments
    std::string text;            // a path among them
    bool failed = false;
    int error = 0; // errno after the call
    std::array<int64_t, 3> out{};
    std::shared_ptr<GuardedMemory> memory; // handed out
    std::vector<uint8_t> bytes;            // memory as it was then: shown, applied
    std::shared_ptr<Glyph> glyph;          // made
};

struct Plane {
    std::optional<uint32_t> pitch;        // unset: the requested width, rounded up to 16
    std::optional<uint32_t> failed_pitch; // stored by an open that fails
    std::optional<uint32_t> size;         // unset: pitch x requested height
    bool no_memory = false;
    Guard guard = Guard::BEHIND;

    uint32_t opened_pitch = 0;             // of the last open that worked
    uint32_t opened_height = 0;            // of its request
    uint32_t osd_id = 0;                   // of the memory fetched last; 0: none, or shown since
    std::shared_ptr<GuardedMemory> memory; // fetched last
};

struct Script {
    // Whether the call of fn that is the index-th since clear_record(), from 1, fails.
    std::function<bool(Fn fn, uint64_t index)> fails;
    int code = 5; // errno of failed calls

    // Called as a call of the codec library begins, ends, and while it is under way, which is the
    // moment for reports and new focus values.
    std::function<void(const Event &)> begun;
    std::function<void(const Event &)> ended;
    std::function<void(Fn fn)> during;

    // false, for long runs: only the last call is kept, shown bytes are not copied, and every fetch
    // of a plane returns the same memory.
    bool records = true;

    // By post id modulo 4.
    uint16_t width[4] = {1920, 1280, 720, 352};
    uint16_t height[4] = {1080, 720, 480, 240};
    Plane planes[4][4];
    uint32_t failed_osd_id = 0; // stored by a get_osd_mem that fails
    uint32_t next_osd_id = 1001;

    uint32_t color_size = 1024;
    bool no_color_memory = false; // hand out NULL, with color_size all the same
    std::shared_ptr<GuardedMemory> color_memory;
    size_t short_read = 0; // bytes that a read leaves out

    std::string font_path = TEST_FONT_PATH; // opened in place of the program's font
    std::string palette_path = "/dev/null"; // opened in place of the program's palette
    long largest_block = 0;   // the largest allocation of FreeType, in bytes; 0: no limit
    bool render_gray = false; // FreeType renders 8 bits a pixel
};

extern Script script;
extern std::vector<Event> record;
extern uint64_t calls[FN_COUNT];                 // since clear_record()
extern std::atomic<PostNotifyCallback> callback; // registered by the program

// Forgets the record and the counts, not the objects that exist.
void clear_record();

// A new script, no record, and the product's state as in a new process; live engines are torn down.
void reset();

// Objects of FreeType, heap arrays and descriptors of the program that exist.
size_t objects_alive();
// Those of them that one function made.
size_t objects_alive(Fn maker);
// The number of an object in the record.
int64_t number_of(const void *object);

// Releases of objects that did not exist, since reset().
extern int64_t wrong_releases;

// For script.during: records what happened; the caller makes it happen.
void note_report(const PostNotifyInfo &info);
void note_focus(uint32_t current, uint32_t peak);

// For wrappers of the functions that FreeType calls: whether FreeType is running, and whether its
// call fails.
extern int inside_freetype;
bool inner_call_fails(Fn fn);

// Runs action and returns what it wrote to the standard streams.
struct Streams {
    std::string out;
    std::string err;
};
Streams with_streams(const std::function<void()> &action);

// ---- for world_codec.cpp, world_files.cpp and world_freetype.cpp -------------------------------

struct Object {
    int64_t number;
    Fn maker;
};
extern std::map<const void *, Object> objects; // those that exist

// Records that maker made object, in place of any older one at that address. Returns its number.
int64_t born(const void *object, Fn maker);

// Records that object is released; false if it does not exist.
bool die(const void *object);

// Records a call. The reference is valid until the next one.
Event &begin(Fn fn, std::initializer_list<int64_t> in = {});

} // namespace world
