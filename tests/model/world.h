// The world outside of the program, as its display thread meets it: the codec library, FreeType,
// files and memory. Every call is recorded with its arguments, its answer and what happened beside
// it; any call can be made to fail. The model (model.h) reads the record and says what the program
// must have done.
//
// FreeType and the files are the real ones behind a wrapper; memory handed out is guarded. One
// thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
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
const char *name_of(Fn fn);

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
    int error = 0; // errno behind it
    std::array<int64_t, 3> out{};
    std::shared_ptr<GuardedMemory> memory; // handed out
    std::vector<uint8_t> bytes;            // memory as it was then: shown, applied
    std::shared_ptr<Glyph> glyph;          // made
};

struct Plane {
    std::optional<uint32_t> pitch;        // else the width that is asked for, rounded up to 16
    std::optional<uint32_t> failed_pitch; // stored by an open that fails
    std::optional<uint32_t> size;         // else pitch x height that is asked for
    bool no_memory = false;
    Guard guard = Guard::BEHIND;

    uint32_t opened_pitch = 0;
    uint32_t opened_height = 0;
};

struct Script {
    // Whether the call of fn that is the index-th since clear_record(), from 1, fails.
    std::function<bool(Fn fn, uint64_t index)> fails;
    int code = 5; // errno of failed calls

    // What happens while a call of the codec library is under way.
    std::function<void(Fn fn)> during;

    // By post id modulo 4.
    uint16_t width[4] = {1920, 1280, 720, 352};
    uint16_t height[4] = {1080, 720, 480, 240};
    Plane planes[4][4];
    uint32_t failed_osd_id = 0; // stored by a get_osd_mem that fails

    uint32_t color_size = 1024;
    bool no_color_memory = false;
    size_t short_read = 0; // bytes that a read leaves out

    std::string font_path;    // what stands where the program looks for its font
    std::string palette_path; // and for its palette
    long largest_block = 0;   // bytes that FreeType gets in one piece; 0: any number
};

extern Script script;
extern std::vector<Event> record;
extern uint64_t calls[FN_COUNT]; // since clear_record()

// Forgets the record and the counts, not the objects that exist.
void clear_record();

// A new script, no record, and the product's state as in a new process; live engines are torn down.
void reset();

// Objects of FreeType, heap memory and descriptors of the program's that exist.
size_t objects_alive();

// For script.during: records what happened; the caller makes it happen.
void note_report(const PostNotifyInfo &info);
void note_focus(uint32_t current, uint32_t peak);

// For wrappers of what FreeType calls in turn: whether that is a call of FreeType's at all, and
// whether it fails.
extern int inside_freetype;
bool inner_call_fails(Fn fn);

// Runs action with the standard streams sent to memory; what comes out is for streams.
struct Streams {
    std::string out;
    std::string err;
};
Streams with_streams(const std::function<void()> &action);

} // namespace world
