// The readout: the records that its planes are painted from, the update of the text with a scripted
// codec library, and both whole planes on every output.

#include "draw/readout.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/post_state.h"
#include "capture.h"
#include "fake_codec.h"
#include "golden.h"
#include "painting.h"
#include "picture.h"
#include "reference.h"
#include "status.h"

static constexpr uint32_t POST = 0x80000007; // resource id; prints with eight digits

// ---- descriptors -------------------------------------------------------------------------------

TEST(MakeBarRect, IsTheWholeRegion)
{
    const OsdRegion region = {480, 72, 2, 400, 576, 17, 1};

    const DrawRect *rect = make_bar_rect(&region, 496);

    EXPECT_EQ(rect->width, 480);
    EXPECT_EQ(rect->height, 72);
    EXPECT_EQ(rect->depth, 8u);
    EXPECT_EQ(rect->x, 400u);
    EXPECT_EQ(rect->y, 576u);
    EXPECT_EQ(rect->fg_color, 0u);
    EXPECT_EQ(rect->bg_color, 17u);
    EXPECT_EQ(rect->cell_width, 0);
    EXPECT_EQ(rect->pitch, 496);
    EXPECT_EQ(rect->resolution, 1u);
}

TEST(MakeBarRect, DepthFollowsTheCodeUnchecked)
{
    for (uint32_t code = 0; code < 4; code++) {
        const OsdRegion region = {65535, 65535, code, 0xFFFFFFFF, 0x80000000, 99, 4};

        const DrawRect *rect = make_bar_rect(&region, 0x80000000);

        EXPECT_EQ(rect->depth, 2u << code);
        EXPECT_EQ(rect->width, 65535);
        EXPECT_EQ(rect->height, 65535);
        EXPECT_EQ(rect->x, 0xFFFFFFFF);
        EXPECT_EQ(rect->y, 0x80000000);
        EXPECT_EQ(rect->bg_color, 99u);
        EXPECT_EQ(rect->pitch, INT_MIN); // the same 32 bits
        EXPECT_EQ(rect->resolution, 4u);
    }
}

// A post with the parameters that make_string_rect reads.
static PostState post_of(uint32_t font_size, int32_t cell_width, uint32_t pitch)
{
    PostState post = {};
    post.params.font_size = font_size;
    post.params.cell_width = cell_width;
    post.planes[1].pitch = pitch;
    return post;
}

TEST(MakeStringRect, IsABoxOf21CellsThatEndsWhereTheBarBegins)
{
    const struct {
        OsdRegion region;
        uint32_t font_size;
        int32_t cell_width;
        int32_t width;
        uint32_t x, y;
    } table[] = {
        {{720, 108, 2, 600, 864, 17, 0}, 63, 33, 693, 613, 801}, // centered: (720 - 693) / 2
        {{480, 72, 2, 400, 576, 17, 1}, 42, 22, 462, 409, 534},
        {{280, 48, 2, 220, 384, 17, 2}, 28, 14, 294, 221, 356}, // one to the right of the bar
        {{280, 48, 2, 220, 460, 17, 2}, 33, 14, 294, 221, 427},
        {{132, 24, 2, 110, 192, 17, 3}, 14, 7, 147, 111, 178},
        {{132, 24, 2, 110, 230, 17, 3}, 16, 7, 147, 111, 214},
        {{480, 72, 2, 400, 576, 17, 1}, 42, 23, 483, 399, 534}, // wider by 3: -3 / 2 is -1
        {{480, 72, 2, 400, 576, 17, 0}, 42, 24, 504, 388, 534},
        {{480, 72, 2, 3, 10, 17, 0}, 42, 24, 504, 0xFFFFFFF7, 0xFFFFFFE0}, // words wrap
    };
    for (const auto &row : table) {
        const PostState post = post_of(row.font_size, row.cell_width, 500);

        const DrawRect *target = make_string_rect(&row.region, &post, 1);

        EXPECT_EQ(target->width, row.width);
        EXPECT_EQ(target->height, (int32_t)row.font_size);
        EXPECT_EQ(target->depth, 8u);
        EXPECT_EQ(target->x, row.x);
        EXPECT_EQ(target->y, row.y);
        EXPECT_EQ(target->fg_color, 16u);
        EXPECT_EQ(target->bg_color, 17u);
        EXPECT_EQ(target->cell_width, row.cell_width);
        EXPECT_EQ(target->pitch, 500);
        EXPECT_EQ(target->resolution, 0u); // never written
    }
}

TEST(MakeStringRect, TakesDepthColorAndPitchFromRegionAndPlane)
{
    PostState post = post_of(14, 7, 0);
    for (uint32_t number = 0; number < OSD_PLANE_COUNT; number++)
        post.planes[number].pitch = 100 + number;
    const OsdRegion region = {132, 24, 1, 110, 192, 5, 3};

    for (uint32_t number = 0; number < OSD_PLANE_COUNT; number++) {
        const DrawRect *target = make_string_rect(&region, &post, number);

        EXPECT_EQ(target->pitch, (int32_t)(100 + number));
        EXPECT_EQ(target->depth, 4u);
        EXPECT_EQ(target->bg_color, 5u);
        EXPECT_EQ(target->fg_color, 16u);
    }
}

TEST(Targets, AreTwoSharedRecords)
{
    const OsdRegion wide = {720, 108, 2, 600, 864, 17, 0};
    const OsdRegion narrow = {132, 24, 2, 110, 192, 17, 3};
    const PostState first = post_of(63, 33, 720);
    const PostState second = post_of(14, 7, 144);

    const DrawRect *bar = make_bar_rect(&wide, 720);
    const DrawRect *text = make_string_rect(&wide, &first, 1);
    EXPECT_NE(bar, text);
    EXPECT_EQ(bar->height, 108); // the text's target is another record
    EXPECT_EQ(make_bar_rect(&narrow, 144), bar);
    EXPECT_EQ(make_string_rect(&narrow, &second, 1), text);

    EXPECT_EQ(bar->height, 24);
    EXPECT_EQ(text->height, 14);
}

// ---- update of the text ------------------------------------------------------------------------

// A codec library, the four engines, and one post of 352 x 240 whose text plane is open with room
// for 25 characters a line.
class ShowString : public testing::Test
{
  protected:
    static constexpr uint32_t PITCH = 176;
    static constexpr uint32_t HEIGHT = 24;

    void SetUp() override
    {
        ASSERT_EQ(osd_init_font(TEST_FONT_PATH, font_engines), STATUS_OK);
        codec.plane(POST, 1).size = PITCH * HEIGHT;
        target.width = 21 * 7;
        target.height = 14;
        target.depth = 8;
        target.x = 111;
        target.y = 178;
        target.fg_color = 16;
        target.bg_color = 17;
        target.cell_width = 7;
        target.pitch = PITCH;
    }

    // Updates the text. Returns what it printed; the result is in status.
    Captured show(int32_t current, int32_t peak, int32_t percent)
    {
        codec.calls.clear();
        codec.shown.clear();
        return capture([&] {
            status = show_string(POST, number, &font_engines[3], &target, current, peak, percent);
        });
    }

    // The plane with text on it, drawn by the reference.
    std::vector<uint8_t> plane_with(const std::string &text, bool highlight)
    {
        std::vector<uint8_t> bytes(PITCH * HEIGHT, 0);
        reference::paint_text(bytes, target, font, text, highlight);
        return bytes;
    }

    void expect_shown(const std::vector<uint8_t> &expected)
    {
        EXPECT_EQ(status, STATUS_OK);
        ASSERT_EQ(codec.shown.size(), 1u);
        EXPECT_TRUE(same_picture(codec.shown[0].bytes, expected, PITCH));
        EXPECT_TRUE(codec.surroundings_are_whole());
    }

    FakeCodec codec;
    reference::Font font{TEST_FONT_PATH, 14};
    DrawRect target = {};
    uint32_t number = 1;
    int32_t status = 1;
};

TEST_F(ShowString, WithoutAPeakShowsDashesWithoutHighlight)
{
    for (const int32_t percent :
         {0, reference::THRESHOLD - 1, reference::THRESHOLD, 100, INT_MAX}) {
        const Captured captured = show(7, 0, percent);

        EXPECT_EQ(captured.out + captured.err, "");
        expect_shown(plane_with("FOCUS ASSIST   7/---", false));
    }
}

TEST_F(ShowString, ValuesAreRightAlignedInThreePlaces)
{
    const struct {
        int32_t current, peak, percent;
        const char *text;
    } table[] = {{42, 97, 43, "FOCUS ASSIST  42/ 97"},
                 {0, 1, 0, "FOCUS ASSIST   0/  1"},
                 {999, 999, 0, "FOCUS ASSIST 999/999"},
                 {-5, -1, 0, "FOCUS ASSIST  -5/ -1"},
                 {1234, 2000, 61, "FOCUS ASSIST 1234/2000"},
                 {123456, 0, 0, "FOCUS ASSIST 123456/---"},
                 {12345, 123456, 10, "FOCUS ASSIST 12345/123456"}, // 25 characters
                 {123456, 123456, 10, "FOCUS ASSIST 123456/12345"},
                 {INT_MIN, INT_MIN, 0, "FOCUS ASSIST -2147483648/"},
                 {INT_MAX, 0, 0, "FOCUS ASSIST 2147483647/-"}};
    for (const auto &row : table) {
        const Captured captured = show(row.current, row.peak, row.percent);

        EXPECT_EQ(captured.out + captured.err, "");
        expect_shown(plane_with(row.text, false));
    }
}

TEST_F(ShowString, TextIsHighlightedFromTheThresholdOn)
{
    for (const int32_t percent :
         {INT_MIN, -1, 0, reference::THRESHOLD - 2, reference::THRESHOLD - 1, reference::THRESHOLD,
          reference::THRESHOLD + 1, 100, 101, INT_MAX}) {
        (void)show(42, 97, percent);

        const bool highlight = percent >= reference::THRESHOLD;
        expect_shown(plane_with("FOCUS ASSIST  42/ 97", highlight));
        const std::vector<uint8_t> &bytes = codec.shown[0].bytes;
        EXPECT_EQ(std::count(bytes.begin(), bytes.end(), highlight ? 16 : 20), 0) << percent;
        EXPECT_GT(std::count(bytes.begin(), bytes.end(), highlight ? 20 : 16), 0) << percent;
    }
}

TEST_F(ShowString, FetchesABufferAndShowsItAtTheTargetsPlace)
{
    (void)show(42, 97, 43);

    EXPECT_EQ(codec.calls, Calls({"qm7_cl_post_get_osd_mem(2147483655, 1)",
                                  "qm7_cl_post_set_osd(2147483655, 1001, {111, 178})"}));
}

TEST_F(ShowString, PlaceIsCutTo16Bits)
{
    target.x = 0x12345;
    target.y = 0xFFFFFFF0;

    (void)show(42, 97, 43);

    ASSERT_EQ(codec.shown.size(), 1u);
    EXPECT_EQ(codec.shown[0].x, 0x2345u);
    EXPECT_EQ(codec.shown[0].y, 0xFFF0u);
}

TEST_F(ShowString, ClearsAllOfTheMemory)
{
    codec.plane(POST, 1).size = 3 * PITCH * HEIGHT + 5;

    (void)show(42, 97, 43);

    std::vector<uint8_t> expected(3 * PITCH * HEIGHT + 5, 0);
    reference::paint_text(expected, target, font, "FOCUS ASSIST  42/ 97", false);
    expect_shown(expected);
}

TEST_F(ShowString, ChecksNeitherTheNumberNorTheSize)
{
    number = 9;
    for (const uint32_t size : {PITCH * 14, PITCH * 14 - 1, PITCH * 5 + 3, 1u}) {
        codec.plane(POST, 9).size = size;

        const Captured captured = show(42, 97, 43);

        EXPECT_EQ(captured.out + captured.err, "");
        std::vector<uint8_t> expected(size, 0);
        reference::paint_text(expected, target, font, "FOCUS ASSIST  42/ 97", false);
        expect_shown(expected);
        EXPECT_EQ(codec.calls[0], "qm7_cl_post_get_osd_mem(2147483655, 9)");
    }
}

TEST_F(ShowString, TextStaysInMemoryThatIsTooSmallOnEitherSide)
{
    for (const Guard guard : {Guard::BEHIND, Guard::BEFORE}) {
        codec.plane(POST, 1).guard = guard;
        for (const int32_t height : {-20, 0, 1, 7, 14, 24, 25, 40}) { // above it, below it
            target.height = height;

            (void)show(180, 198, 90);

            expect_shown(plane_with("FOCUS ASSIST 180/198", true));
        }
    }
}

TEST_F(ShowString, FailedFetchIsPrintedAndNothingElseDone)
{
    const struct {
        uint32_t number;
        const char *printed;
    } numbers[] = {{1, "1"}, {9, "9"}, {0xFFFFFFFF, "-1"}};
    for (const auto &[osd_number, printed] : numbers) {
        number = osd_number;
        codec.fail("qm7_cl_post_get_osd_mem", 0x81E0ABCD);
        codec.failed_osd_id = 0xBEEF0A01;

        const Captured captured = show(42, 97, 43);

        EXPECT_EQ(captured.out, std::string("qm7_cl_post_get_osd_mem() failed. errno=0x81E0ABCD\n"
                                            "postResId=0x80000007, OSD num=") +
                                    printed + ", osdId=0xBEEF0A01\n");
        EXPECT_EQ(captured.err, "");
        EXPECT_EQ(status, STATUS_FAULT);
        EXPECT_EQ(codec.calls,
                  Calls({"qm7_cl_post_get_osd_mem(2147483655, " + std::string(printed) + ")"}));
    }
}

TEST_F(ShowString, OneDigitTooManyForTheLineFails)
{
    target.pitch = 21 * 7;

    EXPECT_EQ(show(123, 1000, 12).err, "");
    expect_shown([&] {
        std::vector<uint8_t> bytes(PITCH * HEIGHT, 0);
        reference::paint_text(bytes, target, font, "FOCUS ASSIST 123/1000", false);
        return bytes;
    }());

    EXPECT_EQ(show(1234, 2000, 61).err,
              error_line("target width is too small", "font_get_target_bitmap") +
                  error_line("get target bitmap failed", "show_string"));
    EXPECT_EQ(status, STATUS_FAULT);
}

TEST_F(ShowString, InvalidDepthIsReportedByTheTextPainter)
{
    target.depth = 16;

    const Captured captured = show(42, 97, 43);

    EXPECT_EQ(captured.err, error_line("invalid mask", "font_get_target_bitmap") +
                                error_line("get target bitmap failed", "show_string"));
    EXPECT_EQ(status, STATUS_FAULT);
    EXPECT_TRUE(codec.shown.empty());
}

// ---- both planes whole -------------------------------------------------------------------------

class WholeReadout : public testing::TestWithParam<GoldenOutput>
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(osd_init_font(TEST_FONT_PATH, font_engines), STATUS_OK);
        for (uint32_t number = 0; number < OSD_PLANE_COUNT; number++)
            post.planes[number].number = number;
        post.geometry = {1, GetParam().width, GetParam().height};
        ASSERT_EQ(init_draw_param(&post.params, &post.geometry, "", 0, regions), 0);
    }

    // Draws both planes as the display loop does.
    void draw(const GoldenValues &values)
    {
        codec.shown.clear();
        osd_open_osd(POST, &post.planes[0], make_osd_open_param(0, &regions[0]));
        ASSERT_EQ(
            show_bar(POST, 0, make_bar_rect(&regions[0], post.planes[0].pitch), values.percent),
            STATUS_OK);
        osd_open_osd(POST, &post.planes[1], make_osd_open_param(1, &regions[1]));
        const DrawRect *target = make_string_rect(&regions[1], &post, 1);
        ASSERT_EQ(show_string(POST, 1, &post.params.engine, target, values.current, values.peak,
                              values.percent),
                  STATUS_OK);
        ASSERT_EQ(codec.shown.size(), 2u);
        EXPECT_TRUE(codec.surroundings_are_whole());
    }

    FakeCodec codec;
    PostState post = {};
    OsdRegion regions[OSD_PLANE_COUNT] = {};
};

TEST_P(WholeReadout, BarEqualsItsImage)
{
    for (const GoldenValues &values : GOLDEN_VALUES) {
        draw(values);

        EXPECT_TRUE(same_as_golden(codec.shown[0].bytes, post.planes[0].pitch,
                                   golden_bar_name(GetParam(), values)));
    }
}

TEST_P(WholeReadout, TextEqualsItsImage)
{
    // Another FreeType may shape glyphs differently. font_text_test compares the text with the
    // glyphs of any FreeType. The gate fails on a skipped test.
    const std::string version = golden_freetype_version();
    if (!has_golden(golden_text_name(GetParam(), GOLDEN_VALUES[0], version)))
        GTEST_SKIP() << "tests/golden has no images for FreeType " << version
                     << "; build make_golden and run it with that folder to add them";

    for (const GoldenValues &values : GOLDEN_VALUES) {
        draw(values);

        EXPECT_TRUE(same_as_golden(codec.shown[1].bytes, post.planes[1].pitch,
                                   golden_text_name(GetParam(), values, version)));
    }
}

INSTANTIATE_TEST_SUITE_P(Outputs, WholeReadout, testing::ValuesIn(GOLDEN_OUTPUTS),
                         [](const testing::TestParamInfo<GoldenOutput> &output) {
                             return golden_size_name(output.param);
                         });
