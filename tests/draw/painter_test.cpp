// The two painters, byte for byte against the pixel-by-pixel reference and against pictures drawn
// by hand.

#include "draw/painter.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "guarded_memory.h"
#include "painting.h"
#include "picture.h"
#include "reference.h"

// Under emulation and the thread sanitizer only a sample of each range is tried.
#ifdef FOCUS_TEST_THINNED
static constexpr int STRIDE = 13;
#else
static constexpr int STRIDE = 1;
#endif

static constexpr uint8_t JUNK = GuardedMemory::JUNK;

// A rectangle 8 bits deep on memory of pitch bytes a line.
static DrawRect rect_of(int32_t width, int32_t height, int32_t pitch)
{
    DrawRect rect = {};
    rect.width = width;
    rect.height = height;
    rect.depth = 8;
    rect.bg_color = 17;
    rect.pitch = pitch;
    return rect;
}

static std::vector<uint8_t> painted_rectangle(const DrawRect &rect, size_t size)
{
    const GuardedMemory memory(size);
    draw_rectangle(memory.data(), &rect, (uint32_t)size);
    EXPECT_TRUE(memory.surroundings_are_whole());
    return memory.bytes();
}

static std::vector<uint8_t> painted_bar(const DrawRect &rect, int32_t percent, size_t size)
{
    const GuardedMemory memory(size);
    draw_rectangle_bitmap(memory.data(), &rect, percent, (uint32_t)size);
    EXPECT_TRUE(memory.surroundings_are_whole());
    return memory.bytes();
}

// ---- rectangle ---------------------------------------------------------------------------------

TEST(DrawRectangle, FillsItsAreaAndClearsTheRestOfItsLines)
{
    const DrawRect rect = rect_of(5, 3, 8);

    const std::vector<uint8_t> bytes = painted_rectangle(rect, 4 * 8);

    EXPECT_EQ(picture_of(bytes, 8), "-----...\n"
                                    "-----...\n"
                                    "-----...\n"
                                    "????????\n");
}

TEST(DrawRectangle, HeightZeroAndOnePaintOnlyLineZero)
{
    for (const int32_t height : {INT_MIN, -1, 0, 1}) {
        const std::vector<uint8_t> bytes = painted_rectangle(rect_of(3, height, 6), 2 * 6);

        EXPECT_EQ(picture_of(bytes, 6), "---...\n"
                                        "??????\n")
            << "height " << height;
    }
}

TEST(DrawRectangle, TrailingPartOfAByteStaysUnpainted)
{
    DrawRect rect = rect_of(10, 3, 4);
    rect.depth = 2;
    rect.bg_color = 3;

    const std::vector<uint8_t> bytes = painted_rectangle(rect, 3 * 4);

    const std::vector<uint8_t> line = {0xFF, 0xFF, 0x00, 0x00};
    for (size_t i = 0; i < 3; i++)
        EXPECT_TRUE(std::equal(line.begin(), line.end(), bytes.begin() + (ptrdiff_t)(4 * i)));
}

TEST(DrawRectangle, ColorIsCutToTheDepth)
{
    struct Case {
        uint32_t depth;
        uint32_t color;
        uint8_t byte;
    };
    const Case cases[] = {{4, 0x1F, 0xFF}, {4, 0x12, 0x22},  {2, 17, 0x55},
                          {2, 0x1E, 0xAA}, {8, 0x111, 0x11}, {8, 0xFFFFFF00, 0x00}};
    for (const Case &c : cases) {
        DrawRect rect = rect_of(8, 2, 8);
        rect.depth = c.depth;
        rect.bg_color = c.color;

        const std::vector<uint8_t> bytes = painted_rectangle(rect, 2 * 8);

        EXPECT_EQ(bytes[0], c.byte) << "depth " << c.depth << " color " << c.color;
        EXPECT_EQ(bytes[8], c.byte) << "depth " << c.depth << " color " << c.color;
    }
}

TEST(DrawRectangle, WidthBeyondThePitchRunsOnAndIsCoveredByTheNextLine)
{
    const std::vector<uint8_t> covered = painted_rectangle(rect_of(9, 2, 4), 4 * 4);

    // Bytes 4 to 7 were painted as part of line 0, then again as line 1. Byte 8 was combined with
    // its old content and not covered by another line.
    EXPECT_EQ(picture_of(covered, 4).substr(0, 10), "----\n----\n");
    EXPECT_EQ(covered[8], JUNK | 17);
    EXPECT_EQ(covered[9], JUNK);
}

TEST(DrawRectangle, EqualsTheReferenceAtEveryDepthWidthHeightPitchAndSize)
{
    const GuardedMemory memory(256);
    for (const uint32_t depth : {2u, 4u, 8u}) {
        for (const uint32_t color : {0u, 1u, 17u, 0x1Fu, 0xFFFFFFFFu}) {
            for (int32_t width = -9; width <= 45; width += 1 + (STRIDE > 1)) {
                for (int32_t height = -1; height <= 4; height++) {
                    for (int32_t pitch = -1; pitch <= 13; pitch++) {
                        DrawRect rect = rect_of(width, height, pitch);
                        rect.depth = depth;
                        rect.bg_color = color;
                        for (const size_t size : {0u, 1u, 7u, 26u, 38u, 256u}) {
                            uint8_t *target = memory.data() + (256 - size);
                            std::fill_n(memory.data(), 256, JUNK);
                            std::vector<uint8_t> expected(256, JUNK);

                            draw_rectangle(target, &rect, (uint32_t)size);

                            reference::paint_rectangle({&expected[0] + (256 - size), size}, rect);
                            ASSERT_TRUE(same_picture(memory.bytes(), expected, 64))
                                << "depth " << depth << " color " << color << " width " << width
                                << " height " << height << " pitch " << pitch << " size " << size;
                        }
                    }
                }
            }
        }
    }
}

TEST(DrawRectangle, ExtremeRectanglesStayInTheMemory)
{
    for (const int32_t width : {INT_MIN, 0, INT_MAX}) {
        for (const int32_t height : {INT_MIN, 0, INT_MAX}) {
            for (const int32_t pitch : {INT_MIN, -1, 0, 1, 64, INT_MAX}) {
                for (const uint32_t depth : {2u, 4u, 8u}) {
                    DrawRect rect = rect_of(width, height, pitch);
                    rect.depth = depth;
                    (void)painted_rectangle(rect, 100); // the guards detect an access
                }
            }
        }
    }
}

TEST(DrawRectangle, NullMemoryIsNotTouched)
{
    const DrawRect rect = rect_of(5, 3, 8);

    draw_rectangle(nullptr, &rect, 0); // crashes on an access
}

TEST(DrawRectangle, InvalidDepthIsLoggedAndPaintsNothing)
{
    for (const uint32_t depth : INVALID_DEPTHS) {
        DrawRect rect = rect_of(5, 3, 8);
        rect.depth = depth;
        std::vector<uint8_t> bytes;

        const Captured captured = capture([&] { bytes = painted_rectangle(rect, 3 * 8); });

        EXPECT_EQ(captured.err, error_line("invalid mask", "draw_rectangle"));
        EXPECT_EQ(captured.out, "");
        EXPECT_EQ(bytes, std::vector<uint8_t>(3 * 8, JUNK)) << "depth " << depth;
    }
}

TEST(DrawRectangle, DoesNotChangeItsRectangle)
{
    DrawRect rect = rect_of(5, 3, 8);
    const std::vector<uint8_t> plain = painted_rectangle(rect, 3 * 8);
    rect.x = 99;
    rect.y = 98;
    rect.fg_color = 97;
    rect.cell_width = 96;
    rect.resolution = 3;
    const DrawRect before = rect;

    const std::vector<uint8_t> bytes = painted_rectangle(rect, 3 * 8);

    EXPECT_EQ(bytes, plain);
    EXPECT_EQ(memcmp(&rect, &before, sizeof rect), 0);
}

// ---- bar ---------------------------------------------------------------------------------------

TEST(DrawBar, PlacesFrameInteriorMarkerAndFill)
{
    // 44 wide: the interior is 40, columns 2 to 41; the marker's center is 2 + 34, its bounds 34
    // and 38, both excluded; half of the interior ends before column 22.
    DrawRect rect = rect_of(0, 6, 44);
    rect.resolution = 3;

    const std::vector<uint8_t> bytes = painted_bar(rect, 50, 7 * 44);

    EXPECT_EQ(picture_of(bytes, 44), "############################################\n"
                                     "############################################\n"
                                     "##====================-------------|||----##\n"
                                     "##====================-------------|||----##\n"
                                     "############################################\n"
                                     "############################################\n"
                                     "????????????????????????????????????????????\n");
}

TEST(DrawBar, FullSizeBarOfTheWidestOutput)
{
    DrawRect rect = rect_of(720, 108, 720);

    const std::vector<uint8_t> bytes = painted_bar(rect, 0, 720 * 108);

    for (int line = 0; line < 108; line++) {
        for (int column = 0; column < 720; column++) {
            const bool frame = line <= 4 || line >= 103 || column <= 4 || column >= 715;
            const bool marker = column >= 604 && column <= 613;
            ASSERT_EQ(bytes[(size_t)(line * 720 + column)], frame    ? 11
                                                            : marker ? 19
                                                                     : 17)
                << "line " << line << " column " << column;
        }
    }
}

TEST(DrawBar, FillsNothingAtZeroAndEverythingFromAHundred)
{
    for (uint32_t resolution = 0; resolution < 4; resolution++) {
        DrawRect rect = rect_of(0, 30, 300);
        rect.resolution = resolution;

        const auto holds = [&](int32_t percent, uint8_t index) {
            const std::vector<uint8_t> bytes = painted_bar(rect, percent, 30 * 300);
            return std::count(bytes.begin(), bytes.end(), index);
        };

        EXPECT_EQ(holds(0, 18), 0);
        EXPECT_GT(holds(0, 17), 0);
        EXPECT_EQ(holds(-1, 18), 0);
        EXPECT_EQ(holds(INT_MIN, 18), 0);
        EXPECT_EQ(holds(100, 17), 0);
        EXPECT_GT(holds(100, 18), 0);
        EXPECT_GT(holds(99, 17), 0);
        for (const int32_t percent : {101, 300, 4294967, INT_MAX})
            EXPECT_EQ(painted_bar(rect, percent, 30 * 300), painted_bar(rect, 100, 30 * 300));
    }
}

TEST(DrawBar, FillNeverCoversTheMarker)
{
    DrawRect rect = rect_of(0, 30, 300);
    const auto markers = [&](int32_t percent) {
        const std::vector<uint8_t> bytes = painted_bar(rect, percent, 30 * 300);
        return std::count(bytes.begin(), bytes.end(), 19);
    };

    // 290 wide inside, center 5 + 246.5: columns 247 to 256 on 20 lines.
    for (int32_t percent = 0; percent <= 110; percent++)
        EXPECT_EQ(markers(percent), 10 * 20) << percent;
}

TEST(DrawBar, NoFrameAndNoMarkerWithoutAResolution)
{
    for (const uint32_t resolution : {4u, 5u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        DrawRect rect = rect_of(0, 2, 10);
        rect.resolution = resolution;

        EXPECT_EQ(picture_of(painted_bar(rect, 30, 20), 10), "===-------\n"
                                                             "===-------\n");
        EXPECT_EQ(picture_of(painted_bar(rect, 0, 20), 10), "----------\n"
                                                            "----------\n");
    }
}

// In double precision 460 * 0.01 is a little more than 4.6, and 55 times that rounds down to 253
// before the frame's 5 is added. A fused multiply-add rounds once, gives a little more than 258 and
// fills one column more; likewise at 468.
TEST(DrawBar, ProductsAreRoundedBeforeTheyAreAdded)
{
    struct Bar {
        uint32_t resolution;
        int32_t pitch;
        size_t first_unfilled;
    };
    for (const auto [resolution, pitch, first_unfilled] : {Bar{0, 470, 258}, Bar{1, 468, 257}}) {
        DrawRect rect = rect_of(0, 20, pitch);
        rect.resolution = resolution;

        const std::vector<uint8_t> bytes = painted_bar(rect, 55, 20u * (size_t)pitch);

        const uint8_t *line = bytes.data() + (ptrdiff_t)10 * pitch;
        EXPECT_EQ(line[first_unfilled - 1], 18) << pitch;
        EXPECT_EQ(line[first_unfilled], 17) << pitch;
    }
}

TEST(DrawBar, AnyValidDepthPaintsOneBytePerPixel)
{
    for (const uint32_t depth : {2u, 4u}) {
        DrawRect rect = rect_of(0, 12, 60);
        const std::vector<uint8_t> deep = painted_bar(rect, 40, 12 * 60);
        rect.depth = depth;

        const std::vector<uint8_t> bytes = painted_bar(rect, 40, 12 * 60);

        std::vector<uint8_t> expected = deep; // only the background is masked to the depth: 17 to 1
        std::replace(expected.begin(), expected.end(), (uint8_t)17, (uint8_t)1);
        EXPECT_TRUE(same_picture(bytes, expected, 60));
    }
}

TEST(DrawBar, HeightZeroClearsLineZero)
{
    for (const int32_t height : {INT_MIN, -1, 0}) {
        const std::vector<uint8_t> bytes = painted_bar(rect_of(0, height, 20), 50, 2 * 20);

        EXPECT_EQ(picture_of(bytes, 20), "....................\n"
                                         "????????????????????\n");
    }
}

TEST(DrawBar, PitchZeroPaintsNothing)
{
    EXPECT_EQ(painted_bar(rect_of(720, 108, 0), 50, 100), std::vector<uint8_t>(100, JUNK));
}

// Every percent at every eleventh pitch, each time other ones, at the smallest height that shows
// two lines of the interior. tests/exhaustive tries all by the bounds of the bar's parts.
class DrawBarWhole : public testing::TestWithParam<uint32_t>
{
};

TEST_P(DrawBarWhole, EqualsTheReferenceForEveryPercent)
{
    static constexpr int32_t FRAMES[] = {5, 4, 3, 2, 0};
    const int32_t height = 2 * FRAMES[GetParam()] + 2;
    const GuardedMemory memory((size_t)(800 * height));
    std::vector<uint8_t> expected;

    for (int32_t percent = -10; percent <= 300; percent++) {
        for (int32_t pitch = (percent + 10) % 11; pitch <= 800; pitch += 11 * STRIDE) {
            DrawRect rect = rect_of(720, height, pitch);
            rect.resolution = GetParam();
            const size_t size = (size_t)(pitch * height);
            uint8_t *target = memory.data() + memory.size() - size;
            std::fill_n(target, size, JUNK);
            expected.assign(size, JUNK);

            draw_rectangle_bitmap(target, &rect, percent, (uint32_t)size);

            reference::paint_bar(expected, rect, percent);
            if (!std::equal(expected.begin(), expected.end(), target))
                FAIL() << "percent " << percent << " pitch " << pitch
                       << same_picture({target, size}, expected, (size_t)pitch).message();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Resolutions, DrawBarWhole, testing::Values(0u, 1u, 2u, 3u, 4u));

TEST(DrawBar, EqualsTheReferenceForWidePitches)
{
    const GuardedMemory memory(11 * 8192);
    std::vector<uint8_t> expected;
    for (uint32_t resolution = 0; resolution <= 4; resolution++) {
        for (int32_t pitch = 801; pitch <= 8192; pitch += 97 * STRIDE) {
            for (const int32_t percent : {-10, 0, 1, 29, 57, 58, reference::THRESHOLD - 1,
                                          reference::THRESHOLD, 99, 100, 300}) {
                DrawRect rect = rect_of(720, 11, pitch);
                rect.resolution = resolution;
                const size_t size = (size_t)(11 * pitch);
                uint8_t *target = memory.data() + memory.size() - size;
                std::fill_n(target, size, JUNK);
                expected.assign(size, JUNK);

                draw_rectangle_bitmap(target, &rect, percent, (uint32_t)size);

                reference::paint_bar(expected, rect, percent);
                ASSERT_TRUE(same_picture({target, size}, expected, (size_t)pitch))
                    << "resolution " << resolution << " pitch " << pitch << " percent " << percent;
            }
        }
    }
}

TEST(DrawBar, EqualsTheReferenceForEveryHeightAndSize)
{
    const GuardedMemory memory(1000);
    std::vector<uint8_t> expected;
    for (uint32_t resolution = 0; resolution <= 4; resolution++) {
        for (int32_t height = -2; height <= 30; height++) {
            for (const int32_t pitch : {-7, 0, 1, 3, 9, 10, 11, 12, 33, 101}) {
                for (const int32_t percent : {-10, 0, 43, reference::THRESHOLD, 100}) {
                    DrawRect rect = rect_of(720, height, pitch);
                    rect.resolution = resolution;
                    const size_t full = (size_t)std::max(0, height * pitch);
                    for (const size_t size : {full, full / 2, full / 3 + 1, (size_t)1000}) {
                        if (size > 1000)
                            continue;
                        uint8_t *target = memory.data() + 1000 - size;
                        std::fill_n(memory.data(), 1000, JUNK);
                        expected.assign(1000, JUNK);

                        draw_rectangle_bitmap(target, &rect, percent, (uint32_t)size);

                        reference::paint_bar({&expected[0] + 1000 - size, size}, rect, percent);
                        ASSERT_TRUE(same_picture(memory.bytes(), expected, 100))
                            << "resolution " << resolution << " height " << height << " pitch "
                            << pitch << " percent " << percent << " size " << size;
                    }
                }
            }
        }
    }
}

TEST(DrawBar, ExtremeBarsStayInTheMemory)
{
    for (const int32_t pitch : {INT_MIN, -1, 0, 1, 64, INT_MAX}) {
        for (const int32_t height : {INT_MIN, 0, 1, 108, INT_MAX}) {
            for (const int32_t percent : {INT_MIN, 0, INT_MAX}) {
                for (uint32_t resolution = 0; resolution <= 4; resolution++) {
                    DrawRect rect = rect_of(INT_MAX, height, pitch);
                    rect.resolution = resolution;
                    (void)painted_bar(rect, percent, 200); // the guards detect an access
                }
            }
        }
    }
}

TEST(DrawBar, NullMemoryIsNotTouched)
{
    const DrawRect rect = rect_of(720, 108, 720);

    draw_rectangle_bitmap(nullptr, &rect, 50, 0); // crashes on an access
}

TEST(DrawBar, InvalidDepthIsLoggedAndPaintsNothing)
{
    for (const uint32_t depth : INVALID_DEPTHS) {
        DrawRect rect = rect_of(0, 12, 60);
        rect.depth = depth;
        std::vector<uint8_t> bytes;

        const Captured captured = capture([&] { bytes = painted_bar(rect, 50, 12 * 60); });

        EXPECT_EQ(captured.err, error_line("invalid mask", "draw_rectangle_bitmap"));
        EXPECT_EQ(captured.out, "");
        EXPECT_EQ(bytes, std::vector<uint8_t>(12 * 60, JUNK)) << "depth " << depth;
    }
}

TEST(DrawBar, DoesNotChangeItsRectangle)
{
    DrawRect rect = rect_of(0, 12, 60);
    const std::vector<uint8_t> plain = painted_bar(rect, 50, 12 * 60);
    rect.width = -5; // the bar spans the pitch, whatever the width
    rect.x = 99;
    rect.y = 98;
    rect.fg_color = 97;
    rect.cell_width = 96;
    const DrawRect before = rect;

    const std::vector<uint8_t> bytes = painted_bar(rect, 50, 12 * 60);

    EXPECT_EQ(bytes, plain);
    EXPECT_EQ(memcmp(&rect, &before, sizeof rect), 0);
}

TEST(DrawDepth, OnlyTwoFourAndEightAreValid)
{
    for (const uint32_t depth : {2u, 4u, 8u})
        EXPECT_TRUE(draw_depth_is_valid(depth)) << depth;
    for (const uint32_t depth : INVALID_DEPTHS)
        EXPECT_FALSE(draw_depth_is_valid(depth)) << depth;
}

// ---- sizes beyond 32 bits ----------------------------------------------------------------------

TEST(DrawRectangle, AreaBeyond32BitsFillsTheWholeMemory)
{
    std::vector<uint8_t> memory(3 * 65536, 0xA5);
    DrawRect rect = {};
    rect.width = 65536;
    rect.height = 65536; // 2^32 bytes
    rect.depth = 8;
    rect.bg_color = 17;
    rect.pitch = 65536;

    draw_rectangle(memory.data(), &rect, (uint32_t)memory.size());

    EXPECT_EQ(memory, std::vector<uint8_t>(3 * 65536, 17));
}

TEST(DrawBar, InteriorBeyond32BitsFillsTheWholeMemory)
{
    std::vector<uint8_t> memory(10 * 65536, 0xA5);
    // The interior ends 2^32 bytes behind the start.
    DrawRect rect = {};
    rect.height = 65536 + 5;
    rect.depth = 8;
    rect.bg_color = 17;
    rect.pitch = 65536;
    rect.resolution = 0;

    draw_rectangle_bitmap(memory.data(), &rect, 0, (uint32_t)memory.size());

    EXPECT_EQ(memory[4 * 65536 + 5], 11);  // the last line of the frame
    EXPECT_EQ(memory[5 * 65536 + 4], 11);  // its left edge
    EXPECT_EQ(memory[5 * 65536 + 5], 17);  // the first line within
    EXPECT_EQ(memory[10 * 65536 - 6], 17); // the last byte of the memory
    EXPECT_EQ(memory[10 * 65536 - 5], 11);
}

TEST(DrawBar, FrameBeyond32BitsFillsTheWholeMemory)
{
    for (const int32_t height : {4, 100}) {
        std::vector<uint8_t> memory(64, 0xA5);
        DrawRect rect = {};
        rect.height = height;
        rect.depth = 8;
        rect.bg_color = 17;
        rect.pitch = 0x40000000; // four lines of frame: 2^32 bytes
        rect.resolution = 1;

        draw_rectangle_bitmap(memory.data(), &rect, 0, (uint32_t)memory.size());

        EXPECT_EQ(memory, std::vector<uint8_t>(64, 11));
    }
}
