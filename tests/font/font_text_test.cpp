// Drawing of glyphs and strings: small pictures drawn by hand, and the real font compared byte by
// byte with the pixel-by-pixel reference, in guarded memory.

#include "font/font_text.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "font_calls.h"
#include "guarded_memory.h"
#include "painting.h"
#include "picture.h"
#include "reference.h"
#include "status.h"

#ifdef FOCUS_TEST_THINNED
static constexpr int STRIDE = 7;
#else
static constexpr int STRIDE = 1;
#endif

static constexpr uint8_t JUNK = GuardedMemory::JUNK;

// A text target 8 bits deep, in the colors of the readout.
static DrawRect target_of(int32_t height, int32_t cell_width, int32_t pitch)
{
    DrawRect target = {};
    target.width = pitch;
    target.height = height;
    target.depth = 8;
    target.fg_color = 16;
    target.bg_color = 17;
    target.cell_width = cell_width;
    target.pitch = pitch;
    return target;
}

// A glyph made from a picture with 'X' for set bits. Its bitmap ends at an unmapped page; the bits
// after the last column are set, as they may be.
class MadeGlyph
{
  public:
    MadeGlyph(const std::vector<std::string> &picture, int left, int top)
        : bits_(picture.size() * bytes_per_row(picture))
    {
        const size_t row_bytes = bytes_per_row(picture);
        std::fill_n(bits_.data(), bits_.size(), (uint8_t)0xFF);
        for (size_t row = 0; row < picture.size(); row++) {
            for (size_t col = 0; col < picture[row].size(); col++) {
                if (picture[row][col] != 'X')
                    bits_.data()[row * row_bytes + col / 8] ^= (uint8_t)(0x80 >> (col % 8));
            }
        }
        glyph.left = left;
        glyph.top = top;
        glyph.bitmap.rows = (unsigned)picture.size();
        glyph.bitmap.width = picture.empty() ? 0 : (unsigned)picture[0].size();
        glyph.bitmap.pitch = (int)row_bytes;
        glyph.bitmap.buffer = bits_.data();
        glyph.bitmap.pixel_mode = FT_PIXEL_MODE_MONO;
    }

    FT_Glyph handle()
    {
        return (FT_Glyph)&glyph;
    }

    FT_BitmapGlyphRec glyph = {};

  private:
    static size_t bytes_per_row(const std::vector<std::string> &picture)
    {
        return picture.empty() ? 0 : (picture[0].size() + 7) / 8;
    }

    GuardedMemory bits_;
};

static const std::vector<std::string> CROSS = {"X.X", ".X.", "X.X"};

// Draws a glyph on size bytes of junk and returns them.
static std::vector<uint8_t> drawn(MadeGlyph &glyph, const DrawRect &target, int32_t baseline_offset,
                                  int32_t x_origin, uint8_t highlight, size_t size,
                                  Guard guard = Guard::BEHIND)
{
    const GuardedMemory memory(size, guard);
    EXPECT_EQ(font_draw_target(memory.data(), &target, glyph.handle(), baseline_offset, x_origin,
                               highlight, (uint32_t)size),
              STATUS_OK);
    EXPECT_TRUE(memory.surroundings_are_whole());
    return memory.bytes();
}

// ---- one glyph ---------------------------------------------------------------------------------

TEST(FontDrawTarget, PutsTheSetBitsAtTheirPlaceAndLeavesTheOthers)
{
    MadeGlyph glyph(CROSS, 1, 3);

    const std::vector<uint8_t> bytes = drawn(glyph, target_of(5, 0, 8), -1, 2, 0, 5 * 8);

    EXPECT_EQ(picture_of(bytes, 8), "????????\n"
                                    "???T?T??\n"
                                    "????T???\n"
                                    "???T?T??\n"
                                    "????????\n");
}

TEST(FontDrawTarget, TopRowIsTheGlyphsTopAboveTheBaseline)
{
    const std::vector<std::string> one_bit = {"X"};
    for (int top = -1; top <= 3; top++) {
        MadeGlyph glyph(one_bit, 0, top);

        const std::vector<uint8_t> bytes = drawn(glyph, target_of(4, 0, 2), -1, 0, 0, 6 * 2);

        const size_t row = (size_t)(4 - 1 - top); // the baseline is row 3
        for (size_t i = 0; i < bytes.size(); i++)
            EXPECT_EQ(bytes[i], i == 2 * row ? 16 : JUNK) << "top " << top << " byte " << i;
    }
}

TEST(FontDrawTarget, FirstPixelOfAByteTakesItsLowestBits)
{
    // Columns 0 and 3 of four pixels, on clear memory.
    MadeGlyph glyph({"X..X"}, 0, 1);
    DrawRect target = target_of(1, 0, 4);
    target.fg_color = 2;
    const auto first_bytes = [&](uint32_t depth) {
        target.depth = depth;
        std::vector<uint8_t> bytes(4, 0);
        EXPECT_EQ(font_draw_target(bytes.data(), &target, glyph.handle(), 0, 0, 0, 4), STATUS_OK);
        return bytes;
    };

    EXPECT_EQ(first_bytes(2), std::vector<uint8_t>({0x82, 0, 0, 0}));
    EXPECT_EQ(first_bytes(4), std::vector<uint8_t>({0x02, 0x20, 0, 0}));
    EXPECT_EQ(first_bytes(8), std::vector<uint8_t>({2, 0, 0, 2}));
}

TEST(FontDrawTarget, OnlyTheBitsOfThePixelAreReplaced)
{
    MadeGlyph glyph({".X."}, 0, 1);
    DrawRect target = target_of(1, 0, 2);
    target.depth = 2;
    target.fg_color = 1;
    std::vector<uint8_t> bytes(2, 0xFF);

    EXPECT_EQ(font_draw_target(bytes.data(), &target, glyph.handle(), 0, 0, 0, 2), STATUS_OK);

    EXPECT_EQ(bytes, std::vector<uint8_t>({0xF7, 0xFF})); // 11 11 01 11
}

TEST(FontDrawTarget, HighlightIsAFixedIndexCutToTheDepth)
{
    MadeGlyph glyph({"X"}, 0, 1);
    for (const uint32_t color : {0u, 3u, 16u, 0xFFFFFFFFu}) {
        for (const uint8_t highlight : {uint8_t{1}, uint8_t{2}, uint8_t{255}}) {
            const struct {
                uint32_t depth;
                uint8_t byte; // the other pixels of the byte keep their ones
            } cases[] = {{8, 20}, {4, 0xF4}, {2, 0xFC}};
            for (const auto &[depth, byte] : cases) {
                DrawRect target = target_of(1, 0, 1);
                target.depth = depth;
                target.fg_color = color;
                uint8_t memory = 0xFF;

                (void)font_draw_target(&memory, &target, glyph.handle(), 0, 0, highlight, 1);

                EXPECT_EQ(memory, byte) << "depth " << depth << " highlight " << (int)highlight;
            }
        }
    }
}

TEST(FontDrawTarget, ForegroundIsCutToTheDepth)
{
    MadeGlyph glyph({"X"}, 0, 1);
    const struct {
        uint32_t depth;
        uint32_t color;
        uint8_t byte; // on memory of zeros
    } cases[] = {{2, 0x1F, 3}, {2, 0x1D, 1}, {4, 0x1F, 0xF}, {8, 0x11F, 0x1F}, {8, 16, 16}};
    for (const auto &[depth, color, byte] : cases) {
        DrawRect target = target_of(1, 0, 1);
        target.depth = depth;
        target.fg_color = color;
        uint8_t memory = 0;

        (void)font_draw_target(&memory, &target, glyph.handle(), 0, 0, 0, 1);

        EXPECT_EQ(memory, byte) << "depth " << depth << " color " << color;
    }
}

TEST(FontDrawTarget, GlyphAsHighAsTheTargetIsNotClippedAtItsEdge)
{
    // Three rows on three lines, one line too low: the last row is after the target's lines, within
    // the memory.
    MadeGlyph glyph(CROSS, 0, 3);

    const std::vector<uint8_t> bytes = drawn(glyph, target_of(3, 0, 4), 1, 0, 0, 4 * 4);

    EXPECT_EQ(picture_of(bytes, 4), "????\n"
                                    "T?T?\n"
                                    "?T??\n"
                                    "T?T?\n");
}

TEST(FontDrawTarget, GlyphHigherThanTheTargetIsCutAtItsEnd)
{
    MadeGlyph glyph({"X..", "XX.", "X.X", ".XX"}, 0, 2);

    // The first row is on line 3 - 2 = 1, so that two of the four rows fit.
    const std::vector<uint8_t> bytes = drawn(glyph, target_of(3, 0, 4), 0, 0, 0, 6 * 4);

    EXPECT_EQ(picture_of(bytes, 4), "????\n"
                                    "T???\n"
                                    "TT??\n"
                                    "????\n"
                                    "????\n"
                                    "????\n");
}

TEST(FontDrawTarget, RowsAboveTheMemoryAreDroppedWithoutReadingBeyondTheBitmap)
{
    // Four rows on two lines, the first two lines above: 2 + 2 rows are drawn, then more than the
    // bitmap has.
    for (const int top : {4, 5}) {
        MadeGlyph glyph({"XX", "XX", "X.", ".X"}, 0, top);

        const std::vector<uint8_t> bytes = drawn(glyph, target_of(2, 0, 2), 0, 0, 0, 4 * 2);

        EXPECT_EQ(picture_of(bytes, 2), top == 4 ? "T?\n?T\n??\n??\n" : "?T\n??\n??\n??\n");
    }
}

TEST(FontDrawTarget, GlyphWiderThanALineIsCutAtTheLinesEnd)
{
    MadeGlyph glyph({"XXXXX"}, 1, 1);

    const std::vector<uint8_t> bytes = drawn(glyph, target_of(1, 0, 4), 0, 1, 0, 3 * 4);

    EXPECT_EQ(picture_of(bytes, 4), "??TT\n"
                                    "????\n"
                                    "????\n");
}

TEST(FontDrawTarget, GlyphAsWideAsALineContinuesInTheNext)
{
    MadeGlyph glyph({"XXXX"}, 0, 1);

    const std::vector<uint8_t> bytes = drawn(glyph, target_of(1, 0, 4), 0, 2, 0, 3 * 4);

    EXPECT_EQ(picture_of(bytes, 4), "??TT\n"
                                    "TT??\n"
                                    "????\n");
}

TEST(FontDrawTarget, NegativeLeftDrawsIntoThePreviousLine)
{
    MadeGlyph glyph(CROSS, -1, 3);

    const std::vector<uint8_t> bytes =
        drawn(glyph, target_of(3, 0, 4), 0, 0, 0, 3 * 4, Guard::BEFORE);

    EXPECT_EQ(picture_of(bytes, 4), "?T??\n" // the first pixel is before the memory
                                    "T??T\n"
                                    "?T??\n");
}

TEST(FontDrawTarget, NegativePitchDrawsBackwardsWithinTheMemory)
{
    MadeGlyph glyph({"XXXXXXXX", "XXXXXXXX", "XXXXXXXX", "XXXXXXXX"}, -20, 3);

    const std::vector<uint8_t> bytes =
        drawn(glyph, target_of(0, 0, -10), 0, 0, 0, 30, Guard::BEFORE);

    // Three rows, at -3 * -10 - 20 = 10, at 0 and at -10.
    EXPECT_EQ(picture_of(bytes, 10), "TTTTTTTT??\n"
                                     "TTTTTTTT??\n"
                                     "??????????\n");
}

TEST(FontDrawTarget, WideClippedGlyphIsNotReadBeyondItsColumns)
{
    // Nine columns on a line of eight, 20 columns to the left: 28 columns are to be drawn.
    MadeGlyph glyph({"XXXXXXXXX"}, -20, 2);

    const std::vector<uint8_t> bytes = drawn(glyph, target_of(4, 0, 8), 0, 0, 0, 4 * 8);

    // Its pixels are numbers 2 * 8 - 20 = -4 to 4.
    EXPECT_EQ(picture_of(bytes, 8), "TTTTT???\n"
                                    "????????\n"
                                    "????????\n"
                                    "????????\n");
}

TEST(FontDrawTarget, OtherPixelModesAreRefused)
{
    for (int mode = 0; mode < 16; mode++) {
        if (mode == FT_PIXEL_MODE_MONO)
            continue;
        MadeGlyph glyph(CROSS, 0, 3);
        glyph.glyph.bitmap.pixel_mode = (unsigned char)mode;
        DrawRect target = target_of(3, 0, 4);
        for (const uint32_t depth : {8u, 3u}) { // the glyph is checked before the depth
            target.depth = depth;
            const GuardedMemory memory(3 * 4);

            const Captured captured = capture([&] {
                EXPECT_EQ(font_draw_target(memory.data(), &target, glyph.handle(), 0, 0, 0, 12),
                          STATUS_INVALID);
            });

            EXPECT_EQ(captured.err, error_line("invalid pixel_mode", "font_draw_target"));
            EXPECT_EQ(captured.out, "");
            EXPECT_EQ(memory.bytes(), std::vector<uint8_t>(12, JUNK));
        }
    }
    EXPECT_EQ(FT_PIXEL_MODE_MONO, 1);
}

TEST(FontDrawTarget, InvalidDepthIsRefused)
{
    for (const uint32_t depth : INVALID_DEPTHS) {
        MadeGlyph glyph(CROSS, 0, 3);
        DrawRect target = target_of(3, 0, 4);
        target.depth = depth;
        const GuardedMemory memory(3 * 4);

        const Captured captured = capture([&] {
            EXPECT_EQ(font_draw_target(memory.data(), &target, glyph.handle(), 0, 0, 0, 12),
                      STATUS_INVALID);
        });

        EXPECT_EQ(captured.err, error_line("invalid mask", "font_draw_target")) << depth;
        EXPECT_EQ(memory.bytes(), std::vector<uint8_t>(12, JUNK));
    }
}

// Glyphs of all sizes at all places, most of them partly outside, in memory guarded on one side,
// then on the other.
TEST(FontDrawTarget, EqualsTheReferenceAnywhere)
{
    std::mt19937 random(20);
    const auto between = [&](int low, int high) {
        return (int)(random() % (unsigned)(high - low + 1)) + low;
    };
    for (int round = 0; round < 20000 / STRIDE; round++) {
        std::vector<std::string> picture((size_t)between(0, 9));
        const size_t width = (size_t)between(0, 20);
        for (std::string &row : picture) {
            for (size_t i = 0; i < width; i++)
                row += random() % 2 ? 'X' : '.';
        }
        MadeGlyph glyph(picture, between(-25, 25), between(-12, 12));
        DrawRect target = target_of(between(-3, 12), 0, between(0, 24));
        const uint32_t depths[] = {2, 4, 8, 8};
        target.depth = depths[random() % 4];
        target.fg_color = (uint32_t)between(0, 255);
        const int32_t baseline_offset = between(-5, 5);
        const int32_t x_origin = between(-5, 40);
        const bool highlight = random() % 2;
        const size_t size = (size_t)between(0, 12 * 24);

        std::vector<uint8_t> expected(size, JUNK);
        reference::paint_glyph(expected, target, glyph.glyph, baseline_offset, x_origin, highlight);
        for (const Guard guard : {Guard::BEHIND, Guard::BEFORE}) {
            const std::vector<uint8_t> bytes =
                drawn(glyph, target, baseline_offset, x_origin, highlight, size, guard);
            ASSERT_TRUE(same_picture(bytes, expected, std::max((size_t)target.pitch, (size_t)1)))
                << "round " << round;
        }
    }
}

TEST(FontDrawTarget, ExtremePlacesStayInTheMemory)
{
    MadeGlyph glyph({"XXXXXXXXXX", "XXXXXXXXXX"}, 0, 2);
    for (const int32_t height : {INT_MIN, 0, 1, 2, INT_MAX}) {
        for (const int32_t pitch : {INT_MIN, -64, -1, 0, 1, 64, INT_MAX}) {
            for (const int32_t baseline_offset : {-65536, -12, 0, 65536}) {
                for (const int32_t x_origin : {INT_MIN, 0, INT_MAX}) {
                    const DrawRect target = target_of(height, 0, pitch);
                    (void)drawn(glyph, target, baseline_offset, x_origin, 0,
                                50); // the guards detect an access
                }
            }
        }
    }
}

// ---- strings -----------------------------------------------------------------------------------

// The four engines are built once for all tests; a test that changes a cache builds its own.
class FontGetTargetBitmap : public testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(osd_init_font(TEST_FONT_PATH, engines), STATUS_OK);
        for (uint32_t i = 0; i < FONT_ENGINE_COUNT; i++)
            fonts[i] =
                std::make_unique<reference::Font>(TEST_FONT_PATH, reference::font_pixel_size(i));
    }

    static void TearDownTestSuite()
    {
        for (FontEngine &engine : engines)
            font_clear_engine(&engine);
        for (std::unique_ptr<reference::Font> &font : fonts)
            font.reset();
        EXPECT_EQ(world::objects_alive(), 0u);
    }

    void SetUp() override
    {
        world::reset();
    }

    // A target like that of the readout: 21 cells of the font.
    static DrawRect readout_target(uint32_t resolution, int32_t pitch)
    {
        const int32_t cell = font_cell_width(&engines[resolution]);
        DrawRect target = target_of((int32_t)reference::font_pixel_size(resolution), cell, pitch);
        target.width = 21 * cell;
        return target;
    }

    // Draws text on junk and compares it with the reference.
    static void expect_as_reference(uint32_t resolution, const std::string &text,
                                    const DrawRect &target, bool highlight, size_t size,
                                    Guard guard = Guard::BEHIND)
    {
        world::clear_record();
        const GuardedMemory memory(size, guard);
        std::vector<uint8_t> expected(size, JUNK);
        reference::paint_text(expected, target, *fonts[resolution], text, highlight);

        const Captured captured = capture([&] {
            EXPECT_EQ(font_get_target_bitmap(&engines[resolution], text.c_str(), &target,
                                             memory.data(), highlight, (uint32_t)size),
                      STATUS_OK);
        });

        EXPECT_EQ(captured.err, "");
        EXPECT_TRUE(memory.surroundings_are_whole());
        EXPECT_TRUE(same_picture(memory.bytes(), expected, (size_t)std::max(target.pitch, 1)))
            << "resolution " << resolution << " text " << text << " depth " << target.depth
            << " height " << target.height << " pitch " << target.pitch;
    }

    static FontEngine engines[FONT_ENGINE_COUNT];
    static std::unique_ptr<reference::Font> fonts[FONT_ENGINE_COUNT];
};

FontEngine FontGetTargetBitmap::engines[FONT_ENGINE_COUNT];
std::unique_ptr<reference::Font> FontGetTargetBitmap::fonts[FONT_ENGINE_COUNT];

// Strings of the readout, all cached characters, characters that are not cached, the empty string.
static const char *const STRINGS[] = {"",
                                      "A",
                                      "FOCUS ASSIST   7/---",
                                      "FOCUS ASSIST  42/ 97",
                                      "FOCUS ASSIST 999/999",
                                      "FOCUS ASSIST 1234/2000",
                                      "1234567890: -",
                                      "abcdefghijklm",
                                      "nopqrstuvwxyz",
                                      "ABCDEFGHIJKLM",
                                      "NOPQRSTUVWXYZ",
                                      "//@#%_|gjpqyQ",
                                      "\x01\xE9\xFF"};

TEST_F(FontGetTargetBitmap, EqualsTheReferenceAtEveryResolutionAndDepth)
{
    for (uint32_t resolution = 0; resolution < 4; resolution++) {
        for (const uint32_t depth : {2u, 4u, 8u}) {
            for (const char *text : STRINGS) {
                const int32_t cell = font_cell_width(&engines[resolution]);
                const int32_t line = std::max((int32_t)strlen(text), 1) * cell;
                const int32_t least = (line * (int32_t)depth + 7) / 8; // bytes for so many pixels
                for (const int32_t pitch : {least, least + 1, (least + 15) / 16 * 16}) {
                    DrawRect target = readout_target(resolution, pitch);
                    target.depth = depth;
                    for (const bool highlight : {false, true})
                        expect_as_reference(resolution, text, target, highlight,
                                            (size_t)(pitch * (target.height + 3)));
                }
            }
        }
    }
}

TEST_F(FontGetTargetBitmap, EqualsTheReferenceInEveryColor)
{
    for (const uint32_t depth : {2u, 4u, 8u}) {
        for (const uint32_t color : {0u, 1u, 0x1Fu, 255u, 0xFFFFFFFFu}) {
            DrawRect target = readout_target(3, 140);
            target.depth = depth;
            target.fg_color = color;
            target.bg_color = 0x2B;
            for (const bool highlight : {false, true})
                expect_as_reference(3, "FOCUS ASSIST   7/ 85", target, highlight, 140 * 14);
        }
    }
}

TEST_F(FontGetTargetBitmap, EmptyStringIsTheBackground)
{
    const DrawRect target = target_of(3, 7, 6);
    const GuardedMemory memory(4 * 6);

    EXPECT_EQ(font_get_target_bitmap(&engines[3], "", &target, memory.data(), 0, 24), STATUS_OK);

    EXPECT_EQ(picture_of(memory.bytes(), 6), "------\n"
                                             "------\n"
                                             "------\n"
                                             "??????\n");
}

TEST_F(FontGetTargetBitmap, TextMayBeAsWideAsALine)
{
    for (const uint32_t depth : {2u, 4u, 8u}) {
        DrawRect target = readout_target(3, 0);
        target.depth = depth;
        target.pitch = 4 * target.cell_width * (int32_t)depth / 8; // a line of four cells
        expect_as_reference(3, "A/BC", target, false, (size_t)(target.pitch * target.height));

        const GuardedMemory memory((size_t)(target.pitch * target.height));
        const Captured captured = capture([&] {
            EXPECT_EQ(font_get_target_bitmap(&engines[3], "A/BCD", &target, memory.data(), 0,
                                             (uint32_t)memory.size()),
                      STATUS_FAULT);
        });

        EXPECT_EQ(captured.err, error_line("target width is too small", "font_get_target_bitmap"));
        EXPECT_EQ(captured.out, "");
        EXPECT_EQ(memory.bytes(), std::vector<uint8_t>(memory.size(), JUNK)) << "untouched";
    }
}

TEST_F(FontGetTargetBitmap, NullArgumentIsCheckedBeforeTheDepth)
{
    for (const uint32_t depth : {8u, 3u}) {
        DrawRect target = readout_target(3, 140);
        target.depth = depth;
        const GuardedMemory memory(140 * 14);
        FontEngine *engine = &engines[3];

        const Captured captured = capture([&] {
            EXPECT_EQ(font_get_target_bitmap(nullptr, "A", &target, memory.data(), 0, 140 * 14),
                      STATUS_INVALID);
            EXPECT_EQ(font_get_target_bitmap(engine, nullptr, &target, memory.data(), 0, 140 * 14),
                      STATUS_INVALID);
            EXPECT_EQ(font_get_target_bitmap(engine, "A", &target, nullptr, 0, 140 * 14),
                      STATUS_INVALID);
        });

        const std::string line = error_line("invalid parameter", "font_get_target_bitmap");
        EXPECT_EQ(captured.err, line + line + line);
        EXPECT_EQ(memory.bytes(), std::vector<uint8_t>(140 * 14, JUNK));
    }
}

TEST_F(FontGetTargetBitmap, InvalidDepthIsCheckedBeforeTheWidth)
{
    for (const uint32_t depth : INVALID_DEPTHS) {
        DrawRect target = readout_target(3, 1); // too narrow as well
        target.depth = depth;
        const GuardedMemory memory(140 * 14);

        const Captured captured = capture([&] {
            EXPECT_EQ(
                font_get_target_bitmap(&engines[3], "AB", &target, memory.data(), 0, 140 * 14),
                STATUS_INVALID);
        });

        EXPECT_EQ(captured.err, error_line("invalid mask", "font_get_target_bitmap")) << depth;
        EXPECT_EQ(memory.bytes(), std::vector<uint8_t>(140 * 14, JUNK));
    }
}

TEST_F(FontGetTargetBitmap, CharactersThatAreNotCachedAreRenderedAndReleased)
{
    const DrawRect target = readout_target(3, 160);
    const GuardedMemory memory(160 * 14);

    ASSERT_EQ(font_get_target_bitmap(&engines[3], "FOCUS ASSIST 1/2/3", &target, memory.data(), 0,
                                     160 * 14),
              STATUS_OK);

    const std::vector<std::string> calls = font_calls();
    const std::string index = std::to_string(FT_Get_Char_Index(engines[3].face, '/'));
    const std::vector<std::string> once = {
        "FT_Get_Char_Index(47)", "FT_Load_Glyph(" + index + ", 0)", "FT_Get_Glyph()",
        "FT_Glyph_To_Bitmap(mode 2, no origin, destroy 1)", "FT_Done_Glyph()"};
    std::vector<std::string> twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(calls, twice);
    EXPECT_EQ(engines[3].cache.count, 65u);
    EXPECT_EQ(font_find_glyph(&engines[3].cache, '/'), nullptr);
}

TEST_F(FontGetTargetBitmap, DoesNotChangeItsTarget)
{
    DrawRect target = readout_target(3, 140);
    target.x = 1000;
    target.y = 1001;
    target.resolution = 77;
    const DrawRect before = target;

    expect_as_reference(3, "FOCUS ASSIST   7/---", target, false, 140 * 14);

    EXPECT_EQ(memcmp(&target, &before, sizeof target), 0);
}

// ---- failures ----------------------------------------------------------------------------------

TEST_F(FontGetTargetBitmap, UncachedGlyphThatCannotBeDrawnIsReleased)
{
    const DrawRect target = readout_target(2, 112);
    std::vector<uint8_t> expected(112 * 28, JUNK);
    reference::paint_text(expected, target, *fonts[2], "AB", false);
    world::clear_record();
    world::script.render_gray = true;
    const size_t glyphs_before = world::objects_alive(world::FONT_GET_GLYPH);
    const GuardedMemory memory(112 * 28);

    const Captured captured = capture([&] {
        EXPECT_EQ(font_get_target_bitmap(&engines[2], "AB/C", &target, memory.data(), 0, 112 * 28),
                  STATUS_FAULT);
    });

    EXPECT_EQ(captured.err, error_line("invalid pixel_mode", "font_draw_target") +
                                error_line("draw target failed", "font_get_target_bitmap"));
    EXPECT_TRUE(same_picture(memory.bytes(), expected, 112));
    EXPECT_EQ(released_glyphs().size(), 1u);
    EXPECT_EQ(world::objects_alive(world::FONT_GET_GLYPH), glyphs_before);
    EXPECT_EQ(world::wrong_releases, 0);
}

TEST_F(FontGetTargetBitmap, CachedGlyphThatCannotBeDrawnIsReleasedOnceAndForgotten)
{
    FontEngine engine = {};
    ASSERT_EQ(font_init_engine(&engine, TEST_FONT_PATH, 28), STATUS_OK);
    GlyphCacheEntry *entry = nullptr;
    for (uint32_t i = 0; i < engine.cache.count; i++) {
        if (engine.cache.entries[i].char_code == 'B')
            entry = &engine.cache.entries[i];
    }
    ASSERT_NE(entry, nullptr);
    FT_Done_Glyph(entry->glyph);
    world::script.render_gray = true;
    ASSERT_EQ(font_get_glyph(engine.face, 'B', &entry->glyph), STATUS_OK);
    world::script.render_gray = false;
    const int64_t gray = world::number_of(entry->glyph);
    const DrawRect target = readout_target(2, 112);
    std::vector<uint8_t> expected(112 * 28, JUNK);
    world::clear_record();
    reference::paint_text(expected, target, *fonts[2], "AA", false);
    world::clear_record();
    GuardedMemory memory(112 * 28);

    const Captured captured = capture([&] {
        EXPECT_EQ(font_get_target_bitmap(&engine, "AABC", &target, memory.data(), 0, 112 * 28),
                  STATUS_FAULT);
    });

    EXPECT_EQ(captured.err, error_line("invalid pixel_mode", "font_draw_target") +
                                error_line("draw target failed", "font_get_target_bitmap"));
    EXPECT_TRUE(same_picture(memory.bytes(), expected, 112));
    EXPECT_EQ(released_glyphs(), std::vector<int64_t>({gray}));
    EXPECT_EQ(entry->glyph, nullptr);
    EXPECT_EQ(engine.cache.count, 65u);

    // From now on the cache lacks the character.
    memory.fill_with_junk();
    EXPECT_EQ(font_get_target_bitmap(&engine, "AABC", &target, memory.data(), 0, 112 * 28),
              STATUS_OK);
    reference::paint_text(expected, target, *fonts[2], "AABC", false);
    EXPECT_TRUE(same_picture(memory.bytes(), expected, 112));

    font_clear_engine(&engine);
    EXPECT_EQ(world::wrong_releases, 0);
}

TEST_F(FontGetTargetBitmap, CacheIsNotReadBeyondItsLastEntry)
{
    // A cache of one entry that ends at an unmapped page; its glyph cannot be drawn.
    const GuardedMemory memory_of_entries(sizeof(GlyphCacheEntry));
    GlyphCacheEntry *entry = (GlyphCacheEntry *)(void *)memory_of_entries.data();
    *entry = {'B', nullptr};
    world::script.render_gray = true;
    ASSERT_EQ(font_get_glyph(engines[2].face, 'B', &entry->glyph), STATUS_OK);
    world::script.render_gray = false;
    FontEngine engine = {engines[2].library, engines[2].face, {1, entry}};
    const DrawRect target = readout_target(2, 112);
    const GuardedMemory memory(112 * 28);
    const auto draw = [&](const char *text) {
        return font_get_target_bitmap(&engine, text, &target, memory.data(), 0, 112 * 28);
    };

    EXPECT_EQ(draw("A/"), STATUS_OK); // searched to the end
    const Captured captured = capture([&] { EXPECT_EQ(draw("B"), STATUS_FAULT); });

    EXPECT_EQ(captured.err, error_line("invalid pixel_mode", "font_draw_target") +
                                error_line("draw target failed", "font_get_target_bitmap"));
    EXPECT_EQ(entry->glyph, nullptr);
    EXPECT_EQ(world::wrong_releases, 0);
}

TEST_F(FontGetTargetBitmap, DeadEngineFailsAtTheFirstCharacter)
{
    FontEngine dead = {};
    for (const bool stale : {false, true}) {
        if (stale) { // left by teardown and by a failed start: must not be read
            dead.face = (FT_Face)(uintptr_t)0x20;
            dead.cache.count = 65;
        }
        for (const int32_t cell : {0, 7}) {
            const DrawRect target = target_of(3, cell, 140);
            const GuardedMemory memory(4 * 140);

            const Captured captured = capture([&] {
                EXPECT_EQ(font_get_target_bitmap(&dead, "FOCUS ASSIST   7/---", &target,
                                                 memory.data(), 0, 4 * 140),
                          STATUS_FAULT);
            });

            EXPECT_EQ(captured.err, error_line("load glyph failed", "font_get_glyph") +
                                        error_line("set glyph failed", "font_get_target_bitmap"));
            std::vector<uint8_t> expected(4 * 140, JUNK);
            std::fill_n(expected.begin(), 3 * 140, (uint8_t)17);
            EXPECT_TRUE(same_picture(memory.bytes(), expected, 140));
        }
    }
}

TEST_F(FontGetTargetBitmap, DeadEngineStillDrawsTheEmptyString)
{
    FontEngine dead = {};
    const DrawRect target = target_of(2, 7, 4);
    const GuardedMemory memory(2 * 4);

    EXPECT_EQ(font_get_target_bitmap(&dead, "", &target, memory.data(), 0, 8), STATUS_OK);

    EXPECT_EQ(picture_of(memory.bytes(), 4), "----\n----\n");
}
