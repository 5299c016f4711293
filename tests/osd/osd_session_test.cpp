#include <atomic>
#include <cerrno>
#include <thread>
#include <type_traits>

#include <gtest/gtest.h>

#include "capture.h"
#include "difference.h"
#include "fake_codec.h"
#include "fake_files.h"
#include "osd/osd_session.h"

using Bytes = std::vector<uint8_t>;

static const char PALETTE[] = "/usr/local/morvel/app/conf/data/osd/osd_def_color.plt";

// A codec library and a palette file of 1024 equal bytes.
class OsdSession : public testing::Test
{
  protected:
    OsdSession()
    {
        files.put(PALETTE, Bytes(1024, 0x5A));
    }

    // The bytes of the color memory for this palette.
    static Bytes table(uint8_t value)
    {
        Bytes bytes(1024, value);
        const uint8_t forced[] = {0xEF, 0x28,  0x6D, value, 0x4C, 0x54,
                                  0xFF, value, 0xB2, 0xAA,  0x00, value};
        bytes[67] = 0x08;
        std::copy(std::begin(forced), std::end(forced), bytes.begin() + 68);
        return bytes;
    }

    FakeCodec codec;
    FakeFiles files;
};

static const Calls OPENING = {
    "qm7_cl_library_init()",
    "qm7_cl_sys_open_device()",
    "qm7_cl_post_notify_callback(osd_post_notify)",
    "qm7_cl_post_set_notify(15)",
    "qm7_cl_post_get_osd_color_mem()",
    "qm7_cl_post_set_osd_color()",
};

// ---- OSD_Library_Process -----------------------------------------------------------------------

TEST_F(OsdSession, OpensInOrderAndStaysOpen)
{
    int32_t result = 1;

    const Captured captured = capture([&] { result = OSD_Library_Process(); });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(codec.calls, OPENING);
    EXPECT_EQ(captured.out + captured.err, "");
}

TEST_F(OsdSession, AppliesThePaletteFileWithTheForcedBytes)
{
    EXPECT_EQ(OSD_Library_Process(), 0);

    EXPECT_EQ(table_difference(codec.applied_color, table(0x5A)), "");
    EXPECT_EQ(table_difference(codec.color(), table(0x5A)), "");
    EXPECT_TRUE(codec.surroundings_are_whole());
}

// ---- osd_close_codec_lib -----------------------------------------------------------------------

static const Calls CLOSING = {"qm7_cl_sys_close_device()", "qm7_cl_library_exit()"};

TEST_F(OsdSession, ClosesDeviceThenLibrary)
{
    const Captured captured = capture([] { osd_close_codec_lib(); });

    EXPECT_EQ(codec.calls, CLOSING);
    EXPECT_EQ(captured.out + captured.err, "");
}

// ---- get_post_geometry -------------------------------------------------------------------------

TEST_F(OsdSession, GeometryComesFromTheStatusOfThePost)
{
    codec.set_status(0x81234567, 1280, 720);
    PostGeometry geometry = {0, 0xDEAD, 0xDEAD};

    EXPECT_EQ(get_post_geometry(&geometry, 0x81234567), 0);

    EXPECT_EQ(codec.calls, Calls({"qm7_cl_post_thread_get_status(2166572391)"}));
    EXPECT_EQ(geometry.valid, 1u);
    EXPECT_EQ(geometry.width, 1280u);
    EXPECT_EQ(geometry.height, 720u);
}

TEST_F(OsdSession, GeometryIsWidenedUnsigned)
{
    codec.set_status(7, 0xFFFF, 0x8000);
    PostGeometry geometry = {};

    EXPECT_EQ(get_post_geometry(&geometry, 7), 0);

    EXPECT_EQ(geometry.width, 0xFFFFu);
    EXPECT_EQ(geometry.height, 0x8000u);
}

TEST_F(OsdSession, ValidGeometryIsNotAskedForAgain)
{
    codec.set_status(7, 1920, 1080);
    PostGeometry geometry = {1, 1280, 720};

    EXPECT_EQ(get_post_geometry(&geometry, 7), 0);

    EXPECT_EQ(codec.calls, Calls());
    EXPECT_EQ(geometry.width, 1280u);
    EXPECT_EQ(geometry.height, 720u);
}

TEST_F(OsdSession, FailedStatusLeavesTheGeometryAndPrintsNothing)
{
    codec.fail("qm7_cl_post_thread_get_status", 0x81E00001);
    PostGeometry geometry = {0, 11, 22};
    int32_t result = 0;

    const Captured captured = capture([&] { result = get_post_geometry(&geometry, 7); });

    EXPECT_EQ(result, -14);
    EXPECT_EQ(geometry.valid, 0u);
    EXPECT_EQ(geometry.width, 11u);
    EXPECT_EQ(geometry.height, 22u);
    EXPECT_EQ(captured.out + captured.err, "");
}

// ---- reports -----------------------------------------------------------------------------------

static_assert(std::is_same_v<decltype(PostNotifyState::started_mask), std::atomic<uint16_t>>);
static_assert(std::is_same_v<decltype(PostNotifyState::stopped_mask), std::atomic<uint16_t>>);
// Before ARMv6 the kernel's cmpxchg helper replaces an instruction; it needs no lock either.
#if !defined(__ARM_ARCH) || __ARM_ARCH >= 6
static_assert(std::atomic<uint16_t>::is_always_lock_free, "no lock in the process");
static_assert(std::atomic<uint32_t>::is_always_lock_free, "no lock in the process");
#endif

TEST_F(OsdSession, StartReportKeepsTheIdAndSetsEveryFourthBit)
{
    const uint16_t masks[] = {0x0001, 0x0011, 0x0111, 0x1111};
    for (uint32_t post = 0; post < 4; post++) {
        osd_post_notify({0, 100 + post, post, 1});
        EXPECT_EQ(post_notify_state.started_mask, masks[post]);
        EXPECT_EQ(post_notify_state.post_res_id[post], 100 + post);
    }
    EXPECT_EQ(post_notify_state.stopped_mask, 0);
    EXPECT_EQ(codec.calls, Calls());
}

TEST_F(OsdSession, AnyNonzeroFlagMeansRunning)
{
    osd_post_notify({0, 5, 0, 0x80000000});
    osd_post_notify({0, 6, 1, 256});

    EXPECT_EQ(post_notify_state.started_mask, 0x0011);
    EXPECT_EQ(post_notify_state.stopped_mask, 0);
}

TEST_F(OsdSession, StopReportSetsItsBitAndLeavesTheId)
{
    osd_post_notify({0, 7, 3, 1});
    osd_post_notify({0, 9, 3, 0});

    EXPECT_EQ(post_notify_state.stopped_mask, 0x1000);
    EXPECT_EQ(post_notify_state.started_mask, 0x1000);
    EXPECT_EQ(post_notify_state.post_res_id[3], 7u);
}

TEST_F(OsdSession, StopReportOfAPostThatNeverRanSetsItsBit)
{
    osd_post_notify({0, 9, 2, 0});

    EXPECT_EQ(post_notify_state.stopped_mask, 0x0100);
    EXPECT_EQ(post_notify_state.started_mask, 0);
    EXPECT_EQ(post_notify_state.post_res_id[2], 0u);
}

TEST_F(OsdSession, SecondStartReportReplacesTheId)
{
    osd_post_notify({0, 7, 1, 1});
    osd_post_notify({0, 8, 1, 1});

    EXPECT_TRUE(osd_take_started(1));
    EXPECT_EQ(osd_post_res_id(1), 8u);
    EXPECT_FALSE(osd_take_started(1));
}

TEST_F(OsdSession, TwoStopReportsCountAsOne)
{
    osd_post_notify({0, 7, 1, 0});
    osd_post_notify({0, 7, 1, 0});

    EXPECT_TRUE(osd_take_stopped(1));
    EXPECT_FALSE(osd_take_stopped(1));
}

TEST_F(OsdSession, PostBeyondTheFourthIsIgnored)
{
    const Captured captured = capture([] {
        for (const uint32_t post : {4u, 5u, 8u, 16u, 0x40000000u, 0x80000000u, 0xFFFFFFFFu}) {
            osd_post_notify({0, 7, post, 1});
            osd_post_notify({0, 7, post, 0});
        }
    });

    EXPECT_EQ(post_notify_state.started_mask, 0);
    EXPECT_EQ(post_notify_state.stopped_mask, 0);
    for (uint32_t post = 0; post < 4; post++)
        EXPECT_EQ(osd_post_res_id(post), 0u);
    EXPECT_EQ(codec.calls, Calls());
    EXPECT_EQ(captured.out + captured.err, "");
}

TEST_F(OsdSession, TakingAReportClearsThatBitAlone)
{
    post_notify_state.started_mask = 0x1111;
    post_notify_state.stopped_mask = 0x1111;

    EXPECT_TRUE(osd_take_started(2));
    EXPECT_TRUE(osd_take_stopped(1));

    EXPECT_EQ(post_notify_state.started_mask, 0x1011);
    EXPECT_EQ(post_notify_state.stopped_mask, 0x1101);
    EXPECT_FALSE(osd_take_started(2));
    EXPECT_FALSE(osd_take_stopped(1));
    EXPECT_EQ(post_notify_state.started_mask, 0x1011);
    EXPECT_EQ(post_notify_state.stopped_mask, 0x1101);
}

TEST_F(OsdSession, TakenStartHasItsIdOrALaterOne)
{
    constexpr uint32_t REPORTS = 20000;
    std::atomic<uint32_t> announced = 0; // ids up to it are reported
    std::thread library([&] {
        for (uint32_t id = 1; id <= REPORTS; id++) {
            osd_post_notify({0, id, 3, 1});
            osd_post_notify({0, id, 2, id % 2}); // another post, in the same masks
            announced.store(id, std::memory_order_release);
        }
    });

    uint32_t last = 0;
    for (uint32_t at_least = 0; at_least < REPORTS; std::this_thread::yield()) {
        at_least = announced.load(std::memory_order_acquire);
        if (osd_take_started(3)) {
            const uint32_t id = osd_post_res_id(3);
            EXPECT_GT(id, 0u);
            EXPECT_GE(id, at_least);
            EXPECT_GE(id, last);
            last = id;
        }
        (void)osd_take_stopped(2);
    }
    library.join();

    EXPECT_EQ(last, REPORTS);
}
