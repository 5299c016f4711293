#include <atomic>
#include <cerrno>
#include <thread>
#include <type_traits>

#include <gtest/gtest.h>

#include "capture.h"
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

    // The palette's bytes as they lie in a color memory of 1024 bytes.
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
    "qm7_cl_post_notify_callback(callback)",
    "qm7_cl_post_set_notify(15)",
    "qm7_cl_post_get_osd_color_mem()",
    "qm7_cl_post_set_osd_color()",
};

// ---- OSD_Library_Process -----------------------------------------------------------------------

TEST_F(OsdSession, OpensInOrderAndIsLeftOpen)
{
    int32_t result = 1;

    const Captured captured = capture([&] { result = OSD_Library_Process(); });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(codec.calls, OPENING);
    EXPECT_EQ(codec.callback, &osd_post_notify);
    EXPECT_EQ(captured.out + captured.err, "");
}

TEST_F(OsdSession, AppliesThePaletteFileWithTheForcedBytes)
{
    EXPECT_EQ(OSD_Library_Process(), 0);

    EXPECT_EQ(codec.applied_color, table(0x5A));
    EXPECT_EQ(codec.color(), table(0x5A));
    EXPECT_TRUE(codec.surroundings_are_whole());
}

TEST_F(OsdSession, MissingPaletteFileIsNoFailure)
{
    files.fail_open(PALETTE, ENOENT);

    const Captured captured = capture([] { EXPECT_EQ(OSD_Library_Process(), 0); });

    EXPECT_EQ(codec.calls, OPENING);
    EXPECT_EQ(codec.applied_color, table(0));
    EXPECT_EQ(captured.err, std::string(PALETTE) + ": No such file or directory\n");
}

TEST_F(OsdSession, UnreadablePaletteFileIsNoFailure)
{
    files.read_error = EIO;

    const Captured captured = capture([] { EXPECT_EQ(OSD_Library_Process(), 0); });

    EXPECT_EQ(codec.calls, OPENING);
    EXPECT_EQ(codec.applied_color, table(0));
    EXPECT_EQ(captured.err, std::string(PALETTE) + ": Input/output error\n");
}

TEST_F(OsdSession, PaletteFileLargerThanTheColorMemoryIsNoFailure)
{
    files.put(PALETTE, Bytes(1025, 0x5A));

    const Captured captured = capture([] { EXPECT_EQ(OSD_Library_Process(), 0); });

    EXPECT_EQ(codec.calls, OPENING);
    EXPECT_EQ(codec.applied_color, table(0));
    EXPECT_EQ(captured.out, "size=1025\nbuffer_len=1024\nfile too large\n");
}

TEST_F(OsdSession, ColorMemoryTooShortForTheForcedEntriesIsNotOverrun)
{
    codec.color_size = 70;

    const Captured captured = capture([] { EXPECT_EQ(OSD_Library_Process(), 0); });

    Bytes expected(70, 0);
    expected[67] = 0x08;
    expected[68] = 0xEF;
    expected[69] = 0x28;
    EXPECT_EQ(codec.applied_color, expected);
    EXPECT_TRUE(codec.surroundings_are_whole());
}

TEST_F(OsdSession, ColorMemoryAtNullIsNotWritten)
{
    codec.no_color_memory = true;
    files.put(PALETTE, {});

    EXPECT_EQ(OSD_Library_Process(), 0);

    EXPECT_EQ(codec.calls, OPENING);
}

// A step of the opening that fails, and what is called to undo those before it.
struct FailedStep {
    size_t step; // index in OPENING
    const char *function;
    Calls undo;
};

static const Calls UNDO = {"qm7_cl_sys_close_device()", "qm7_cl_library_exit()"};

class OsdSessionFailure : public OsdSession, public testing::WithParamInterface<FailedStep>
{
  protected:
    Calls expected_calls() const
    {
        Calls expected(OPENING.begin(), OPENING.begin() + (std::ptrdiff_t)GetParam().step + 1);
        expected.insert(expected.end(), GetParam().undo.begin(), GetParam().undo.end());
        return expected;
    }

    std::string expected_line(const char *code) const
    {
        return std::string("ERR:#qm7osd:[(null)]=") + GetParam().function + "() failed. errno=0x" +
               code + "(OSD_Library_Process)\n";
    }
};

TEST_P(OsdSessionFailure, IsLoggedWithItsCodeAndUndone)
{
    codec.fail(GetParam().function, 0x81E0ABCD);
    int32_t result = 0;

    const Captured captured = capture([&] { result = OSD_Library_Process(); });

    EXPECT_EQ(result, -14);
    EXPECT_EQ(codec.calls, expected_calls());
    EXPECT_EQ(captured.err, expected_line("81E0ABCD"));
    EXPECT_EQ(captured.out, "");
}

TEST_P(OsdSessionFailure, SmallCodeIsPrintedWithEightDigits)
{
    codec.fail(GetParam().function, 0xE);

    const Captured captured = capture([] { EXPECT_EQ(OSD_Library_Process(), -14); });

    EXPECT_EQ(captured.err, expected_line("0000000E"));
}

TEST_P(OsdSessionFailure, FailuresOfTheUndoAreNeitherLoggedNorMinded)
{
    codec.fail(GetParam().function, 0x81E0ABCD);
    codec.fail_always("qm7_cl_sys_close_device", 0x81000001);
    codec.fail_always("qm7_cl_library_exit", 0x81000002);

    const Captured captured = capture([] { EXPECT_EQ(OSD_Library_Process(), -14); });

    EXPECT_EQ(codec.calls, expected_calls());
    EXPECT_EQ(captured.err, expected_line("81E0ABCD"));
    EXPECT_EQ(captured.out, "");
}

TEST_P(OsdSessionFailure, LeavesTheNextTryToWork)
{
    codec.fail(GetParam().function, 0x81E0ABCD);
    capture([] { EXPECT_EQ(OSD_Library_Process(), -14); });
    codec.take_calls();

    EXPECT_EQ(OSD_Library_Process(), 0);

    EXPECT_EQ(codec.calls, OPENING);
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, OsdSessionFailure,
    testing::Values(FailedStep{0, "qm7_cl_library_init", {}},
                    FailedStep{1, "qm7_cl_sys_open_device", {"qm7_cl_library_exit()"}},
                    FailedStep{2, "qm7_cl_post_notify_callback", UNDO},
                    FailedStep{3, "qm7_cl_post_set_notify", UNDO},
                    FailedStep{4, "qm7_cl_post_get_osd_color_mem", UNDO},
                    FailedStep{5, "qm7_cl_post_set_osd_color", UNDO}),
    [](const auto &failure) { return std::string(failure.param.function); });

// ---- osd_close_codec_lib -----------------------------------------------------------------------

static const Calls CLOSING = {"qm7_cl_sys_close_device()", "qm7_cl_library_exit()"};

TEST_F(OsdSession, ClosesDeviceThenLibrary)
{
    const Captured captured = capture([] { osd_close_codec_lib(); });

    EXPECT_EQ(codec.calls, CLOSING);
    EXPECT_EQ(captured.out + captured.err, "");
}

TEST_F(OsdSession, ClosingGoesOnAfterADeviceThatDoesNotClose)
{
    codec.fail("qm7_cl_sys_close_device", 0x81E00001);

    const Captured captured = capture([] { osd_close_codec_lib(); });

    EXPECT_EQ(codec.calls, CLOSING);
    EXPECT_EQ(captured.err, "ERR:#qm7osd:[(null)]=qm7_cl_sys_close_device() failed. "
                            "errno=0x81E00001(osd_close_codec_lib)\n");
    EXPECT_EQ(captured.out, "");
}

TEST_F(OsdSession, ClosingLogsEachFailure)
{
    codec.fail("qm7_cl_sys_close_device", 0x81E00001);
    codec.fail("qm7_cl_library_exit", 0x81E00002);

    const Captured captured = capture([] { osd_close_codec_lib(); });

    EXPECT_EQ(codec.calls, CLOSING);
    EXPECT_EQ(captured.err, "ERR:#qm7osd:[(null)]=qm7_cl_sys_close_device() failed. "
                            "errno=0x81E00001(osd_close_codec_lib)\n"
                            "ERR:#qm7osd:[(null)]=qm7_cl_library_exit() failed. "
                            "errno=0x81E00002(osd_close_codec_lib)\n");
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

TEST_F(OsdSession, FailedStatusLeavesTheGeometryAndSaysNothing)
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
static_assert(std::atomic<uint16_t>::is_always_lock_free, "no lock in the process");
static_assert(std::atomic<uint32_t>::is_always_lock_free, "no lock in the process");

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

TEST_F(OsdSession, AnyFlagButZeroMeansRunning)
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

TEST_F(OsdSession, OfTwoStartReportsTheLaterIdCounts)
{
    osd_post_notify({0, 7, 1, 1});
    osd_post_notify({0, 8, 1, 1});

    EXPECT_TRUE(osd_take_started(1));
    EXPECT_EQ(osd_post_res_id(1), 8u);
    EXPECT_FALSE(osd_take_started(1));
}

TEST_F(OsdSession, TwoStopReportsAreOne)
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

TEST_F(OsdSession, StartThatIsSeenComesWithItsIdOrALaterOne)
{
    constexpr uint32_t REPORTS = 20000;
    std::atomic<uint32_t> announced = 0; // ids up to it are reported
    std::thread library([&] {
        for (uint32_t id = 1; id <= REPORTS; id++) {
            osd_post_notify({0, id, 3, 1});
            osd_post_notify({0, id, 2, id % 2}); // beside it, in the same masks
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
