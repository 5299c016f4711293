#include <cstring>

#include <gtest/gtest.h>

#include "capture.h"
#include "draw/painter.h"
#include "fake_codec.h"
#include "osd/osd_plane.h"

using Bytes = std::vector<uint8_t>;

static const uint32_t TOLERATED[] = {0x81E03204, 0x81E04507, 0x81003209, 0x81E0250C};
static constexpr uint32_t OTHER = 0x81E0ABCD;

static const OsdOpenParam PARAM = {1, 720, 108, 2};

// ---- osd_open_osd ------------------------------------------------------------------------------

TEST(OsdOpenOsd, OpensAndStoresThePitch)
{
    FakeCodec codec;
    codec.plane(7, 1).pitch = 736;
    OsdPlane plane = {1, 0, 0};

    const Captured captured = capture([&] { EXPECT_EQ(osd_open_osd(7, &plane, &PARAM), 0); });

    EXPECT_EQ(codec.calls, Calls({"qm7_cl_post_open_osd(7, {1, 720, 108, 2})"}));
    EXPECT_EQ(plane.number, 1u);
    EXPECT_EQ(plane.opened, 1u);
    EXPECT_EQ(plane.pitch, 736u);
    EXPECT_EQ(captured.out + captured.err, "");
}

TEST(OsdOpenOsd, ToleratedCodeCountsAsOpenWithoutAPitch)
{
    FakeCodec codec;
    for (const uint32_t code : TOLERATED) {
        OsdPlane plane = {1, 0, 123};
        codec.fail("qm7_cl_post_open_osd", code);

        EXPECT_EQ(osd_open_osd(7, &plane, &PARAM), 0) << std::hex << code;

        EXPECT_EQ(plane.opened, 1u) << std::hex << code;
        EXPECT_EQ(plane.pitch, 0u) << std::hex << code;
    }
}

TEST(OsdOpenOsd, OpenPlaneIsLeftAlone)
{
    FakeCodec codec;
    OsdPlane plane = {1, 1, 123};

    EXPECT_EQ(osd_open_osd(7, &plane, &PARAM), 0);

    EXPECT_EQ(codec.calls, Calls());
    EXPECT_EQ(plane.opened, 1u);
    EXPECT_EQ(plane.pitch, 123u);
}

// ---- osd_close_osd -----------------------------------------------------------------------------

TEST(OsdCloseOsd, ClearsThenClosesAndKeepsThePitch)
{
    FakeCodec codec;
    OsdPlane plane = {3, 1, 123};

    const Captured captured = capture([&] { EXPECT_EQ(osd_close_osd(&plane, 7), 0); });

    EXPECT_EQ(codec.calls, Calls({"qm7_cl_post_clear_osd(7, 3)", "qm7_cl_post_close_osd(7, 3)"}));
    EXPECT_EQ(plane.opened, 0u);
    EXPECT_EQ(plane.pitch, 123u);
    EXPECT_EQ(captured.out + captured.err, "");
}

TEST(OsdCloseOsd, ClosedPlaneIsLeftAlone)
{
    FakeCodec codec;
    OsdPlane plane = {3, 0, 123};

    EXPECT_EQ(osd_close_osd(&plane, 7), 0);

    EXPECT_EQ(codec.calls, Calls());
    EXPECT_EQ(plane.pitch, 123u);
}

TEST(OsdCloseOsd, RetryAfterAFailedCloseClearsAgain)
{
    FakeCodec codec;
    codec.fail("qm7_cl_post_close_osd", OTHER);
    OsdPlane plane = {3, 1, 123};
    capture([&] { (void)osd_close_osd(&plane, 7); });
    codec.take_calls();

    EXPECT_EQ(osd_close_osd(&plane, 7), 0);

    EXPECT_EQ(codec.calls, Calls({"qm7_cl_post_clear_osd(7, 3)", "qm7_cl_post_close_osd(7, 3)"}));
    EXPECT_EQ(plane.opened, 0u);
}

// ---- osd_clear_mem -----------------------------------------------------------------------------

TEST(OsdClearMem, ZeroesExactlyTheMemory)
{
    for (const uint32_t size : {0u, 1u, 77u, 4096u}) {
        const GuardedMemory memory(size);
        const OsdMem mem = {memory.data(), size};

        EXPECT_EQ(osd_clear_mem(&mem), size);

        EXPECT_EQ(memory.bytes(), Bytes(size, 0));
        EXPECT_TRUE(memory.surroundings_are_whole());
    }
}

TEST(OsdClearMem, NullMemoryHasNoBytes)
{
    const OsdMem mem = {nullptr, 100};

    EXPECT_EQ(osd_clear_mem(&mem), 0u);
}

// ---- show_bar ----------------------------------------------------------------------------------

// A bar of 20 x 6 with a frame of 2. Interior: 16 columns, 16 % of one column a percent; the marker
// is centered at 2 + 13.6 and reaches 2 to each side: columns 14 to 17. 50 % end at column 10.
static constexpr uint32_t PITCH = 20;
static constexpr uint32_t HEIGHT = 6;
static const DrawRect BAR = {999, (int32_t)HEIGHT, 8, 110, 192, 0, 17, 0, (int32_t)PITCH, 3};

// frame #, filled *, unfilled -, marker |, cleared .
static std::string picture(const Bytes &bytes, size_t pitch)
{
    std::string text;
    for (size_t i = 0; i < bytes.size(); i++) {
        switch (bytes[i]) {
        case 0:
            text += '.';
            break;
        case 11:
            text += '#';
            break;
        case 17:
            text += '-';
            break;
        case 18:
            text += '*';
            break;
        case 19:
            text += '|';
            break;
        default:
            text += '?';
        }
        if (i % pitch == pitch - 1)
            text += '\n';
    }
    return text;
}

static const char HALF_FILLED[] = "####################\n"
                                  "####################\n"
                                  "##********----||||##\n"
                                  "##********----||||##\n"
                                  "####################\n"
                                  "####################\n";

class ShowBar : public testing::Test
{
  protected:
    ShowBar()
    {
        codec.plane(7, 0).size = PITCH * HEIGHT;
    }

    // Runs show_bar and checks its result.
    Captured show(int32_t result, const DrawRect &rect, int32_t percent = 50,
                  uint32_t postResId = 7)
    {
        return capture([&] { EXPECT_EQ(show_bar(postResId, 0, &rect, percent), result); });
    }

    std::string shown_picture() const
    {
        return codec.shown.empty() ? "nothing shown" : picture(codec.shown.back().bytes, PITCH);
    }

    FakeCodec codec;
};

TEST_F(ShowBar, FetchesPaintsAndShowsTheBufferAtItsPlace)
{
    const Captured captured = show(0, BAR);

    EXPECT_EQ(codec.calls,
              Calls({"qm7_cl_post_get_osd_mem(7, 0)", "qm7_cl_post_set_osd(7, 1001, {110, 192})"}));
    EXPECT_EQ(shown_picture(), HALF_FILLED);
    EXPECT_EQ(captured.out + captured.err, "");
    EXPECT_TRUE(codec.surroundings_are_whole());
}

TEST_F(ShowBar, ShowsEachBufferByItsId)
{
    show(0, BAR);
    show(0, BAR);

    EXPECT_EQ(codec.calls[3], "qm7_cl_post_set_osd(7, 1002, {110, 192})");
}

TEST_F(ShowBar, PercentIsSigned)
{
    show(0, BAR, -10);

    EXPECT_EQ(shown_picture(), "####################\n"
                               "####################\n"
                               "##------------||||##\n"
                               "##------------||||##\n"
                               "####################\n"
                               "####################\n");
}

TEST_F(ShowBar, MemoryBeyondTheBarIsCleared)
{
    codec.plane(7, 0).size = PITCH * HEIGHT + 25;

    show(0, BAR);

    std::string expected = HALF_FILLED; // in one expression, GCC 12 warns of bounds
    expected += "....................\n.....";
    EXPECT_EQ(shown_picture(), expected);
}

TEST_F(ShowBar, BarWithoutLinesClearsTheMemory)
{
    struct Lines {
        int32_t pitch;
        int32_t height;
    };
    // Pitch times height is 120, the size of the memory, in the third and fourth pair from the end,
    // and wraps to 1 and 61 in the last two.
    for (const auto [pitch, height] :
         {Lines{20, 0}, {0, 6}, {0, 0}, {-20, -6}, {-6, -20}, {-65535, 65537}, {3, -1431655745}}) {
        DrawRect rect = BAR;
        rect.pitch = pitch;
        rect.height = height;

        show(0, rect);

        EXPECT_EQ(codec.shown.back().bytes, Bytes(PITCH * HEIGHT, 0)) << pitch << " x " << height;
    }
}

TEST_F(ShowBar, PositionIsCutTo16Bits)
{
    DrawRect rect = BAR;
    rect.x = 0x12345678;
    rect.y = 0xFFFFFFFF;

    show(0, rect);

    EXPECT_EQ(codec.calls[1], "qm7_cl_post_set_osd(7, 1001, {22136, 65535})");
}

TEST_F(ShowBar, NumberAboveThreeIsRefusedWithoutACall)
{
    for (const int32_t number : {4, 5, INT32_MAX}) {
        const Captured captured = capture([&] { EXPECT_EQ(show_bar(7, number, &BAR, 50), -14); });

        EXPECT_EQ(captured.out, "invalid osd number " + std::to_string(number));
        EXPECT_EQ(captured.err, "");
        EXPECT_EQ(codec.calls, Calls());
    }
}

TEST_F(ShowBar, NumbersUpToThreeArePassedToTheLibrary)
{
    codec.fail_always("qm7_cl_post_get_osd_mem", OTHER);
    capture([] {
        for (const int32_t number : {3, 2, 1, 0, -1, INT32_MIN})
            EXPECT_EQ(show_bar(7, number, &BAR, 50), -14);
    });

    EXPECT_EQ(codec.calls,
              Calls({"qm7_cl_post_get_osd_mem(7, 3)", "qm7_cl_post_get_osd_mem(7, 2)",
                     "qm7_cl_post_get_osd_mem(7, 1)", "qm7_cl_post_get_osd_mem(7, 0)",
                     "qm7_cl_post_get_osd_mem(7, -1)", "qm7_cl_post_get_osd_mem(7, -2147483648)"}));
}

TEST_F(ShowBar, FailedFetchPrintsTheIdLeftByTheLibrary)
{
    codec.fail("qm7_cl_post_get_osd_mem", 0xE);
    codec.failed_osd_id = 0xFEDCBA98;

    const Captured captured = show(-14, BAR);

    EXPECT_EQ(captured.out, "qm7_cl_post_get_osd_mem() failed. errno=0x0000000E"
                            "postResId=0x00000007, OSD num=0, osdId=0xfedcba98");
}

TEST_F(ShowBar, SizesAreComparedUnsignedAndPrintedAs32Bits)
{
    codec.plane(7, 0).no_memory = true;
    codec.plane(7, 0).size = 0x80000000;
    DrawRect rect = BAR;
    rect.pitch = 0x10000;
    rect.height = 0x9000;

    const Captured captured = show(-14, rect);

    EXPECT_EQ(captured.out, "osd memory over: mem.size=-2147483648 pitch=65536 height=36864");
}

TEST_F(ShowBar, OtherDepthsAlsoPaintOneByteAPixel)
{
    for (const uint32_t depth : {2u, 4u}) {
        DrawRect rect = BAR;
        rect.depth = depth; // masks the background, 17, to 1
        const Captured captured = show(0, rect);

        EXPECT_EQ(shown_picture(), "####################\n"
                                   "####################\n"
                                   "##********????||||##\n"
                                   "##********????||||##\n"
                                   "####################\n"
                                   "####################\n");
        ASSERT_FALSE(codec.shown.empty());
        EXPECT_EQ(codec.shown.back().bytes[50], 1);
        EXPECT_EQ(captured.out + captured.err, "");
    }
}

TEST_F(ShowBar, InvalidDepthIsPrintedAfterTheFetchAndNothingShown)
{
    for (const uint32_t depth : {0u, 1u, 3u, 5u, 7u, 9u, 16u, 32u}) {
        DrawRect rect = BAR;
        rect.depth = depth;

        const Captured captured = show(-22, rect);

        EXPECT_EQ(captured.out, "invalid depth " + std::to_string(depth));
        EXPECT_EQ(captured.err, "");
        EXPECT_EQ(codec.take_calls(), Calls({"qm7_cl_post_get_osd_mem(7, 0)"}));
        EXPECT_EQ(codec.plane(7, 0).memory->bytes(), Bytes(120, GuardedMemory::JUNK));
    }
}

TEST_F(ShowBar, SizeIsCheckedBeforeTheDepth)
{
    codec.plane(7, 0).size = 1;
    DrawRect rect = BAR;
    rect.depth = 16;

    const Captured captured = show(-14, rect);

    EXPECT_EQ(captured.out, "osd memory over: mem.size=1 pitch=20 height=6");
}
