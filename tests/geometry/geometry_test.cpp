// Draws the readout on outputs and into plane memory of every kind that a library could report, and
// compares every byte with the literal reference. The memory lies between unmapped pages, so that
// an access outside of it ends the test.
//
// FOCUS_LONG=1 in the environment tries every height instead of a sample.

#include <climits>
#include <cstdlib>
#include <set>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "difference.h"
#include "font/font_engine.h"
#include "font/font_text.h"
#include "osd/osd_plane.h"
#include "reference.h"
#include "scene.h"

using namespace world;

namespace
{

constexpr uint32_t ID = 0x1000; // of post 0
constexpr uint32_t MAX_HEIGHT = 2200;

bool long_form()
{
    const char *wanted = getenv("FOCUS_LONG");
    return wanted && wanted[0] == '1';
}

struct Values {
    uint32_t current;
    uint32_t peak;
};

// Values of up to ten digits; percentages of 0, on both sides of the threshold, above 100 and below
// 0.
const std::vector<Values> VALUES = {{0, 0},
                                    {7, 0},
                                    {42, 97},
                                    {reference::THRESHOLD - 1, 100},
                                    {reference::THRESHOLD, 100},
                                    {100, 100},
                                    {120, 100},
                                    {999, 1000},
                                    {1234, 2000},
                                    {12345, 54321},
                                    {123456, 99999},
                                    {1234567, 7654321},
                                    {42949672, 1},
                                    {42949673, 1},
                                    {99999999, 99999999},
                                    {2147483647, 2147483647},
                                    {2147483648, 1},
                                    {4294967295, 4294967295},
                                    {4294967295, 1},
                                    {1, 4294967295},
                                    {21474836, 1},
                                    {21474837, 1}};

// Sizes of memory, computed from the size that the plane needs.
using SizeOf = uint32_t (*)(uint32_t needed);
const std::vector<SizeOf> SIZES = {
    [](uint32_t needed) { return needed; },
    [](uint32_t needed) { return needed + 1; },
    [](uint32_t needed) { return needed - (needed != 0); },
    [](uint32_t needed) { return needed / 2; },
    [](uint32_t needed) { return needed + 4097; },
    [](uint32_t) { return 0u; },
    [](uint32_t) { return 1u; },
    [](uint32_t) { return 8u; },
    [](uint32_t) { return 1u << 20; },
};

// One scene, as its engines take long to build; each case resets the posts.
Scene &scene()
{
    static Scene *const made = [] {
        Scene *fresh = new Scene;
        fresh->check_start();
        return fresh;
    }();
    return *made;
}

struct Case {
    uint16_t width;
    uint16_t height;
    uint32_t pitch[2]; // 0: that of the region
    uint32_t alignment;
    SizeOf size_of[2];
    bool no_memory[2];
    Guard guard;
    Values values;
};

uint32_t region_width(uint32_t width)
{
    switch (width) {
    case 1920:
    case 1280:
    case 720:
    case 352:
        return reference::region_width(reference::resolution_index(width));
    default:
        return 0;
    }
}

uint32_t region_height(uint32_t width)
{
    return region_width(width) == 0 ? 0
                                    : reference::region_height(reference::resolution_index(width));
}

// Runs one pass on a new post and compares it with the model.
::testing::AssertionResult passes(const Case &c)
{
    scene().forget_posts();
    script.width[0] = c.width;
    script.height[0] = c.height;
    for (size_t number = 0; number < 2; number++) {
        Plane &plane = script.planes[0][number];
        plane = Plane();
        plane.guard = c.guard;
        plane.no_memory = c.no_memory[number];
        const uint32_t aligned =
            (region_width(c.width) + c.alignment - 1) / c.alignment * c.alignment;
        plane.pitch = c.pitch[number] != 0 ? c.pitch[number] : aligned;
        plane.size = c.size_of[number](*plane.pitch * region_height(c.width));
    }
    scene().set_focus(c.values.current, c.values.peak);
    scene().report(ID, 0, 1);
    try {
        scene().check_pass();
    } catch (const model::Mismatch &mismatch) {
        return ::testing::AssertionFailure()
               << c.width << "x" << c.height << " alignment " << c.alignment << " pitch "
               << c.pitch[0] << "/" << c.pitch[1] << " size " << *script.planes[0][0].size << "/"
               << *script.planes[0][1].size << " values " << c.values.current << "/"
               << c.values.peak << ": " << mismatch.what();
    }
    return ::testing::AssertionSuccess();
}

Case plain(uint32_t width, uint32_t height)
{
    return {(uint16_t)width,      (uint16_t)height, {0, 0},        16,
            {SIZES[0], SIZES[0]}, {false, false},   Guard::BEHIND, {43, 50}};
}

TEST(Geometry, EveryHeightOfTheFourWidths)
{
    const std::vector<uint32_t> alignments = {1, 2, 4, 8, 16, 32, 64, 256};
    std::set<std::pair<uint32_t, Guard>> placed;
    size_t cases = 0;
    for (const uint32_t width : {1920u, 1280u, 720u, 352u}) {
        for (uint32_t height = 0; height <= MAX_HEIGHT; height += long_form() ? 1u : 29u) {
            for (size_t i = 0; i < (long_form() ? alignments.size() : 1); i++, cases++) {
                Case c = plain(width, height);
                c.alignment = alignments[long_form() ? i : cases % alignments.size()];
                c.size_of[0] = SIZES[cases % 5 % SIZES.size()];
                c.size_of[1] = SIZES[cases / 5 % SIZES.size()];
                c.guard = cases / alignments.size() % 2 == 0 ? Guard::BEHIND : Guard::BEFORE;
                c.values = VALUES[cases % VALUES.size()];
                placed.emplace(c.alignment, c.guard);
                ASSERT_TRUE(passes(c));
            }
        }
    }
    EXPECT_EQ(placed.size(), 2 * alignments.size()); // each alignment at both ends of the pages
    RecordProperty("cases", std::to_string(cases));
}

TEST(Geometry, OtherWidths)
{
    size_t cases = 0;
    for (const uint32_t width : {0u, 1u, 16u, 351u, 353u, 640u, 719u, 721u, 1279u, 1281u, 1440u,
                                 1919u, 1921u, 3840u, 65535u}) {
        for (uint32_t height = 0; height <= MAX_HEIGHT; height += long_form() ? 1u : 131u) {
            Case c = plain(width, height);
            c.pitch[0] = c.pitch[1] = (uint32_t)(cases % 7) * 100;
            c.size_of[0] = SIZES[5 + cases % 4]; // a region without height needs no memory
            c.size_of[1] = SIZES[5 + cases / 4 % 4];
            c.values = VALUES[cases % VALUES.size()];
            ASSERT_TRUE(passes(c));
            cases++;
        }
    }
    RecordProperty("cases", std::to_string(cases));
}

TEST(Geometry, SizesAndValues)
{
    size_t cases = 0;
    for (const uint32_t width : {1920u, 1280u, 720u, 352u}) {
        for (const uint32_t height : {0u, 240u, 576u, 1080u, 2200u, 65535u}) {
            for (size_t size = 0; size < SIZES.size(); size++) {
                for (size_t value = 0; value < VALUES.size(); value++, cases++) {
                    if (!long_form() && cases % 7 != 0)
                        continue;
                    Case c = plain(width, height);
                    c.size_of[0] = SIZES[size == 2 || size == 3 ? 0 : size];
                    c.size_of[1] = SIZES[size];
                    c.alignment = value % 2 == 0 ? 16 : 64;
                    c.values = VALUES[value];
                    ASSERT_TRUE(passes(c));
                }
            }
        }
    }
}

TEST(Geometry, PitchesUpToThoseThatWrap)
{
    for (const uint32_t width : {1920u, 1280u, 720u, 352u, 640u}) {
        const uint32_t lines = region_height(width) == 0 ? 1 : region_height(width);
        const uint32_t wraps =
            (uint32_t)((1ull << 32) / lines) + 1; // times lines it wraps below lines
        for (const uint32_t pitch :
             {1u,          2u,          3u,         5u,          10u,         11u,
              63u,         131u,        839u,       840u,        2000u,       65535u,
              65536u,      wraps,       2 * wraps,  0x40000000u, 0x7FFFFFFFu, 0x80000000u,
              0x80000001u, 0xFFFFFFF0u, 0xFFFFFFFFu}) {
            for (size_t size = 0; size < SIZES.size(); size++) {
                Case c = plain(width, 1080);
                c.pitch[0] = c.pitch[1] = pitch;
                // The wrapped product as size, or another size if that is too large.
                const uint32_t needed = pitch * region_height(width);
                c.size_of[0] = c.size_of[1] =
                    needed > (1u << 24) && size < 5 ? SIZES[8] : SIZES[size];
                c.values = VALUES[(pitch + size) % VALUES.size()];
                ASSERT_TRUE(passes(c));
            }
        }
    }
}

TEST(Geometry, NoMemory)
{
    for (const uint32_t width : {1920u, 1280u, 720u, 352u, 640u}) {
        for (const bool bar : {false, true}) {
            for (const bool text : {false, true}) {
                for (const SizeOf size : SIZES) {
                    Case c = plain(width, 1080);
                    c.no_memory[0] = bar;
                    c.no_memory[1] = text;
                    c.size_of[0] = c.size_of[1] = size;
                    ASSERT_TRUE(passes(c));
                }
            }
        }
    }
}

// The largest size, 4 GiB less a byte: the same pages mapped over and over.
TEST(Geometry, MemoryOfFourGigabytes)
{
    constexpr size_t PIECE = 2u << 20;
    constexpr size_t SIZE = 0xFFFFFFFF;
    if (sizeof(size_t) == 4)
        return; // does not fit in 32 bits of addresses
    const int file = memfd_create("plane", 0);
    ASSERT_GE(file, 0);
    ASSERT_EQ(ftruncate(file, PIECE), 0);
    uint8_t *memory = (uint8_t *)mmap(nullptr, SIZE + 1 + PIECE, PROT_NONE,
                                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        FAIL() << "no room for the memory";
    for (size_t offset = 0; offset < SIZE; offset += PIECE) {
        const void *const piece =
            mmap(memory + offset, PIECE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0);
        EXPECT_EQ(piece, memory + offset);
    }

    DrawRect rect = {};
    rect.height = 2; // small, so that lines do not overlap through the repeated pages
    rect.depth = 8;
    rect.bg_color = 17;
    rect.pitch = 720;
    OsdMem mem = {memory, (uint32_t)SIZE};
    if (long_form()) {
        EXPECT_EQ(osd_clear_mem(&mem), SIZE);
    }
    draw_rectangle_bitmap(memory, &rect, 50, (uint32_t)SIZE);
    std::vector<uint8_t> expected(2 * 720);
    reference::paint_bar(expected, rect, 50);
    EXPECT_EQ(difference({memory, expected.size()}, expected, 720), "");
    munmap(memory, SIZE + 1 + PIECE);
    close(file);
}

// ---- painters and text by themselves: all depths, and records that no pass makes ---------------

// Describes the difference.
std::string explained(const GuardedMemory &memory, const std::vector<uint8_t> &expected,
                      int32_t pitch)
{
    const std::string text = difference(memory.bytes(), expected, pitch > 0 ? (size_t)pitch : 0);
    return text.empty() ? "bytes changed outside of the memory" : text;
}

using Painter = void (*)(uint8_t *memory, const DrawRect *rect, uint32_t size);
using Reference = void (*)(std::span<uint8_t> memory, const DrawRect &rect);

::testing::AssertionResult same(const DrawRect &rect, uint32_t size, Guard guard, Painter paint,
                                Reference expect)
{
    GuardedMemory memory(size, guard);
    std::vector<uint8_t> expected = memory.bytes();
    expect(expected, rect);
    paint(memory.data(), &rect, size);
    if (memory.bytes() == expected && memory.surroundings_are_whole())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << "width " << rect.width << " height " << rect.height << " depth " << rect.depth
           << " pitch " << rect.pitch << " resolution " << rect.resolution << " size " << size
           << ": " << explained(memory, expected, rect.pitch);
}

TEST(Geometry, PaintersAtEveryDepth)
{
    const std::vector<int32_t> lengths = {INT32_MIN, -1, 0, 1, 2, 3, 7, 8, 9, 33, 100, INT32_MAX};
    for (const uint32_t depth : {2u, 4u, 8u}) {
        for (const int32_t width : lengths) {
            for (const int32_t height : lengths) {
                for (const int32_t pitch : lengths) {
                    for (const uint32_t size : {0u, 1u, 50u, 1000u}) {
                        DrawRect rect = {};
                        rect.width = width;
                        rect.height = height;
                        rect.depth = depth;
                        rect.bg_color = 0x1B;
                        rect.pitch = pitch;
                        rect.resolution = size % 6;
                        const Guard guard = width % 2 == 0 ? Guard::BEHIND : Guard::BEFORE;
                        ASSERT_TRUE(same(rect, size, guard, draw_rectangle,
                                         [](std::span<uint8_t> memory, const DrawRect &r) {
                                             reference::paint_rectangle(memory, r);
                                         }));
                        if (height == INT32_MIN || pitch == INT32_MAX)
                            continue; // overflows in the reference
                        ASSERT_TRUE(same(
                            rect, size, guard,
                            [](uint8_t *memory, const DrawRect *r, uint32_t bytes) {
                                draw_rectangle_bitmap(memory, r, r->width, bytes);
                            },
                            [](std::span<uint8_t> memory, const DrawRect &r) {
                                reference::paint_bar(memory, r, r.width);
                            }));
                    }
                }
            }
        }
    }
}

TEST(Geometry, TextAtEveryDepth)
{
    (void)scene();
    for (const uint32_t depth : {2u, 4u, 8u}) {
        for (const uint32_t engine : {0u, 3u}) {
            static const std::string text = "Ab/ 9";
            const reference::Font font(TEST_FONT_PATH, reference::font_pixel_size(engine));
            for (const int32_t height : {-100, 0, 1, 14, 20, 63, 70, 500}) {
                for (const int32_t pitch : {0, 40, 200, 321, 5000}) {
                    for (const int32_t cell : {-30, 0, 8, 37, 64}) {
                        for (const uint32_t size : {0u, 1u, 999u, 30000u}) {
                            DrawRect rect = {};
                            rect.width = 21 * cell;
                            rect.height = height;
                            rect.depth = depth;
                            rect.fg_color = 0x1E;
                            rect.bg_color = 0x11;
                            rect.cell_width = cell;
                            rect.pitch = pitch;
                            GuardedMemory memory(size, cell == 8 ? Guard::BEFORE : Guard::BEHIND);
                            std::vector<uint8_t> expected = memory.bytes();
                            const bool fits = cell * 5 <= pitch * (int32_t)(8 / depth);
                            if (fits)
                                reference::paint_text(expected, rect, font, text, height == 20);

                            clear_record();
                            int32_t result = 1;
                            (void)with_streams([&] {
                                result = font_get_target_bitmap(&font_engines[engine], text.c_str(),
                                                                &rect, memory.data(), height == 20,
                                                                size);
                            });
                            ASSERT_EQ(result, fits ? 0 : -14);
                            ASSERT_TRUE(memory.bytes() == expected &&
                                        memory.surroundings_are_whole())
                                << "depth " << depth << " engine " << engine << " height " << height
                                << " pitch " << pitch << " cell " << cell << " size " << size
                                << ": " << explained(memory, expected, pitch);
                        }
                    }
                }
            }
        }
    }
}

// Glyphs of any size at any place, also such as no font has.
TEST(Geometry, GlyphsAtEveryPlace)
{
    const std::vector<int32_t> places = {-1000, -33, -9, -8, -1, 0, 1, 7, 8, 40, 41, 48, 1000};
    for (const uint32_t depth : {2u, 4u, 8u}) {
        for (const uint32_t cols : {0u, 1u, 7u, 8u, 9u, 41u, 64u}) {
            for (const uint32_t rows : {0u, 1u, 3u, 12u}) {
                const uint32_t row_bytes = (cols + 7) / 8;
                GuardedMemory bits(rows * row_bytes);
                FT_BitmapGlyphRec glyph = {};
                glyph.bitmap.rows = rows;
                glyph.bitmap.width = cols;
                glyph.bitmap.pitch = (int)row_bytes;
                glyph.bitmap.pixel_mode = FT_PIXEL_MODE_MONO;
                glyph.bitmap.buffer = bits.data();
                for (const int32_t left : places) {
                    for (const int32_t top : {-1000, -5, 0, 3, 10, 1000}) {
                        for (const int32_t pitch : {0, 1, 10, 40}) {
                            DrawRect rect = {};
                            rect.height = 10;
                            rect.depth = depth;
                            rect.fg_color = 0x1E;
                            rect.pitch = pitch;
                            glyph.left = left;
                            glyph.top = top;
                            GuardedMemory memory(400, left < 0 ? Guard::BEFORE : Guard::BEHIND);
                            std::vector<uint8_t> expected = memory.bytes();
                            reference::paint_glyph(expected, rect, glyph, -2, 5, false);
                            ASSERT_EQ(font_draw_target(memory.data(), &rect, (FT_Glyph)&glyph, -2,
                                                       5, 0, 400),
                                      0);
                            ASSERT_TRUE(memory.bytes() == expected &&
                                        memory.surroundings_are_whole())
                                << "depth " << depth << " glyph " << cols << "x" << rows << " at "
                                << left << "," << top << " pitch " << pitch << ": "
                                << explained(memory, expected, pitch);
                        }
                    }
                }
            }
        }
    }
}

} // namespace
