// Every fault of the camera: the messages of the overlay process, and its recovery without help.

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>

#include "picture/lens.h"
#include "overlay.h"

using namespace simcam;

static void arm(const Overlay &overlay, const std::string &call, uint32_t error,
                uint32_t count = FAULT_FOREVER, uint32_t delay_ms = 0)
{
    ASSERT_EQ(camera_set_fault(*overlay, {call, error, count, delay_ms, 0}), "");
}

// Restarts the process with the fault armed, on a restarted post.
static void restart_with(const Overlay &overlay, const std::string &call, uint32_t error,
                         uint32_t count)
{
    overlay.wait_redraws(0);
    EXPECT_EQ(camera_process_kill(*overlay), "");
    overlay.wait_process_end();
    overlay.wait("the end of its calls", [&] { return !overlay.state().attached; });
    arm(overlay, call, error, count);
    EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
    EXPECT_EQ(camera_process_start(*overlay), "");
}

static void expect_recovery(const Overlay &overlay)
{
    overlay.wait_redraws(0, 2);
    const Readout readout = overlay.readout(0);
    EXPECT_TRUE(readout.valid) << readout.problem;
}

// ---- the session

struct SessionFault {
    const char *call;
    const char *undo; // first call of the undo; null: none
};

static void PrintTo(const SessionFault &fault, std::ostream *stream)
{
    *stream << fault.call;
}

class OverlaySession : public testing::TestWithParam<SessionFault>
{
};

TEST_P(OverlaySession, AFailureIsReportedUndoneAndGoneAfterARestart)
{
    const Overlay overlay(overlay_options());
    restart_with(overlay, GetParam().call, 0x81E0ABCD, 1);
    const std::string line = std::string("ERR:#qm7osd:[(null)]=") + GetParam().call +
                             "() failed. errno=0x81E0ABCD(OSD_Library_Process)\n";
    overlay.wait_output(2, line);
    if (GetParam().undo) {
        overlay.wait("the undo", [&] { return overlay.calls("qm7_cl_library_exit", 0) == 1; });
        EXPECT_EQ(overlay.calls(GetParam().undo, 0), 1u);
    }
    EXPECT_TRUE(overlay.state().process.running); // keeps running, draws nothing
    EXPECT_FALSE(overlay.state().post[0].plane[0].open);

    EXPECT_EQ(camera_process_kill(*overlay), "");
    overlay.wait_process_end();
    EXPECT_EQ(camera_process_start(*overlay), "");
    expect_recovery(overlay);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, OverlaySession,
    testing::Values(SessionFault{"qm7_cl_library_init", nullptr},
                    SessionFault{"qm7_cl_sys_open_device", "qm7_cl_library_exit"},
                    SessionFault{"qm7_cl_post_notify_callback", "qm7_cl_sys_close_device"},
                    SessionFault{"qm7_cl_post_set_notify", "qm7_cl_sys_close_device"},
                    SessionFault{"qm7_cl_post_get_osd_color_mem", "qm7_cl_sys_close_device"},
                    SessionFault{"qm7_cl_post_set_osd_color", "qm7_cl_sys_close_device"}),
    [](const auto &its) { return std::string(its.param.call); });

TEST(OverlayFault, AFailingUndoIsIgnoredSilently)
{
    const Overlay overlay(overlay_options());
    arm(overlay, "qm7_cl_sys_close_device", 0x81E0ABCE, 1);
    arm(overlay, "qm7_cl_library_exit", 0x81E0ABCF, 1);
    restart_with(overlay, "qm7_cl_post_set_notify", 0x81E0ABCD, 1);
    overlay.wait("the undo", [&] { return overlay.calls("qm7_cl_library_exit", 0x81E0ABCF) == 1; });
    EXPECT_EQ(overlay.calls("qm7_cl_sys_close_device", 0x81E0ABCE), 1u);

    EXPECT_EQ(camera_process_kill(*overlay), "");
    overlay.wait_process_end(); // its whole output has arrived
    EXPECT_EQ(overlay.output(2), "ERR:#qm7osd:[(null)]=qm7_cl_post_set_notify() failed. "
                                 "errno=0x81E0ABCD(OSD_Library_Process)\n");
    EXPECT_EQ(camera_process_start(*overlay), "");
    expect_recovery(overlay);
}

// ---- planes

TEST(OverlayFault, FaultsOfClearAndCloseAreNeverTriggered)
{
    const Overlay overlay(overlay_options());
    overlay.wait_redraws(0);
    arm(overlay, "qm7_cl_post_clear_osd", 0x81E0ABCD);
    arm(overlay, "qm7_cl_post_close_osd", 0x81E0ABCD);

    EXPECT_EQ(camera_stop_post(*overlay, 0), ""); // closes the planes
    EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
    expect_recovery(overlay);
    EXPECT_EQ(overlay.calls("qm7_cl_post_clear_osd", 0x81E0ABCD), 0u);
    EXPECT_EQ(overlay.calls("qm7_cl_post_close_osd", 0x81E0ABCD), 0u);
    EXPECT_EQ(overlay.output(2), "");
}

TEST(OverlayFault, AFailedStatusIsRequestedAgainAtTheNextStartOfThePost)
{
    const Overlay overlay(overlay_options());
    restart_with(overlay, "qm7_cl_post_thread_get_status", 0x81E0ABCD, 1);
    overlay.wait_output(1, "POST0 get_post_geometry() failed");
    EXPECT_FALSE(overlay.state().post[0].plane[0].open);

    EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
    expect_recovery(overlay);
}

TEST(OverlayFault, AFailedOpenIsRetriedInEveryPass)
{
    for (const uint32_t code : {0x81E03246u, 0x81E0ABCDu}) {
        const Overlay overlay(overlay_options());
        restart_with(overlay, "qm7_cl_post_open_osd", code, 4); // at least two passes of two planes
        char line[128];
        std::snprintf(line, sizeof line,
                      "ERR:#qm7osd:[(null)]=qm7_cl_post_open_osd() failed. errno=0x%08X"
                      "(osd_open_osd)\n",
                      code);
        expect_recovery(overlay);
        overlay.wait_output(2, line);
        EXPECT_EQ(overlay.calls("qm7_cl_post_open_osd", code), 4u);
    }
}

class OverlayToleratedCode : public testing::TestWithParam<uint32_t>
{
};

TEST_P(OverlayToleratedCode, CountsAsOpenUntilThePostStartsAgain)
{
    const Overlay overlay(overlay_options());
    restart_with(overlay, "qm7_cl_post_open_osd", GetParam(), 1);
    // The process counts the plane as open; the camera has not opened it and refuses its memory.
    overlay.wait("a second pass without a bar",
                 [&] { return overlay.calls("qm7_cl_post_get_osd_mem", 0x81003209) >= 2; });
    EXPECT_EQ(overlay.calls("qm7_cl_post_open_osd", GetParam()), 1u); // not retried
    overlay.wait_output(1, "show_bar() failed");
    EXPECT_EQ(overlay.output(2), "");

    EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
    expect_recovery(overlay);
}

INSTANTIATE_TEST_SUITE_P(Codes, OverlayToleratedCode,
                         testing::Values(0x81E03204u, 0x81E04507u, 0x81003209u, 0x81E0250Cu),
                         [](const auto &its) {
                             char code[16];
                             snprintf(code, sizeof code, "0x%08X", its.param);
                             return std::string(code);
                         });

TEST(OverlayFault, WithoutPlaneMemoryTheLastReadoutStaysShown)
{
    const Overlay overlay(overlay_options());
    overlay.wait_redraws(0);
    arm(overlay, "qm7_cl_post_get_osd_mem", 0x81E0ABCD);
    overlay.wait_output(1, "qm7_cl_post_get_osd_mem() failed. errno=0x81E0ABCD");
    const uint64_t shows = overlay.state().post[0].plane[0].shows;
    overlay.wait("another try",
                 [&] { return overlay.calls("qm7_cl_post_get_osd_mem", 0x81E0ABCD) >= 3; });
    EXPECT_EQ(overlay.state().post[0].plane[0].shows, shows);
    EXPECT_TRUE(overlay.readout(0).valid) << overlay.readout(0).problem;
    overlay.wait_output(1, "show_bar() failed");

    camera_clear_faults(*overlay);
    expect_recovery(overlay);
}

TEST(OverlayFault, AfterAFailedShowTheLastReadoutStaysShown)
{
    const Overlay overlay(overlay_options());
    overlay.wait_redraws(0);
    arm(overlay, "qm7_cl_post_set_osd", 0x81E0ABCD);
    overlay.wait("two tries",
                 [&] { return overlay.calls("qm7_cl_post_set_osd", 0x81E0ABCD) >= 2; });
    EXPECT_TRUE(overlay.readout(0).valid) << overlay.readout(0).problem;
    overlay.wait_output(1, "qm7_cl_post_set_osd() failed. errno=0x81E0ABCD");

    camera_clear_faults(*overlay);
    expect_recovery(overlay);
}

// Delays every call from the start of the process on; each of them is called.
TEST(OverlayFault, SlowCallsCauseNoFailure)
{
    const Overlay overlay(overlay_options());
    overlay.wait_redraws(0);
    EXPECT_EQ(camera_process_kill(*overlay), "");
    overlay.wait_process_end();
    for (const std::string &call : camera_fault_calls())
        arm(overlay, call, 0, FAULT_FOREVER, 100);
    EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
    EXPECT_EQ(camera_process_start(*overlay), "");
    expect_recovery(overlay);
    EXPECT_EQ(overlay.output(2), "");
    EXPECT_EQ(overlay.output(1), "");
    const auto made = [](const Fault &fault) {
        return fault.call.find("clear_osd") == std::string::npos &&
               fault.call.find("close") == std::string::npos && fault.call != "qm7_cl_library_exit";
    };
    overlay.wait("each of these calls", [&] { // those of the device are another thread's
        const std::vector<Fault> faults = overlay.state().faults;
        return std::ranges::all_of(faults, [&](const Fault &f) { return f.hits > 0 || !made(f); });
    });
    const std::vector<Fault> faults = overlay.state().faults;
    for (const Fault &fault : faults)
        EXPECT_EQ(fault.hits > 0, made(fault)) << fault.call;
}

// Reads this file: every call must be named where one of its tests injects a fault.
TEST(OverlayFault, EveryCallThatCanFailHasATest)
{
    std::ostringstream text;
    text << std::ifstream(FAULT_TESTS).rdbuf();
    const std::string source = text.str();
    ASSERT_NE(source, "") << FAULT_TESTS;
    for (const std::string &call : camera_fault_calls()) {
        const std::regex injected("(\\b(arm|restart_with)\\(overlay,\\s*|SessionFault\\{)\"" +
                                  call + "\"");
        EXPECT_TRUE(std::regex_search(source, injected)) << call;
    }
}

// ---- device

TEST(OverlayFault, ADeviceThatCannotBeOpenedEndsTheProcessWithStatusOne)
{
    const Overlay overlay(overlay_options());
    restart_with(overlay, "open", EACCES, 1);
    overlay.wait_process_end();
    EXPECT_EQ(overlay.state().process.last_end, "exit status 1");

    EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
    EXPECT_EQ(camera_process_start(*overlay), "");
    expect_recovery(overlay);
}

TEST(OverlayFault, AfterFailedReadingsTheLastValueStaysOnTheScreen)
{
    const Overlay overlay(overlay_options());
    overlay.wait_redraws(0, 2);
    arm(overlay, "CAM_FOCUS_READ", EIO);
    overlay.wait("a failed reading", [&] { return overlay.calls("CAM_FOCUS_READ", EIO) > 1; });
    overlay.wait_redraws(0, 2);
    const int kept = overlay.readout(0).current;
    EXPECT_EQ(camera_set_ring(*overlay, lens_best_ring()), "");
    overlay.wait_redraws(0, 2);
    EXPECT_EQ(overlay.readout(0).current, kept);

    camera_clear_faults(*overlay);
    overlay.wait("the new value", [&] {
        const Readout readout = overlay.readout(0);
        return readout.valid && readout.current > kept + 50;
    });
}

TEST(OverlayFault, AFailedConfigurationIsNotRetriedAndNoReadingSucceeds)
{
    CameraOptions options = overlay_options();
    options.program = {
        "/bin/sh", "-c",
        "until [ -e \"$SIMCAM_RUN_DIR/go\" ]; do sleep 0.05; done; exec '" FOCUS_ASSIST "'"};
    const Overlay overlay(options);
    arm(overlay, "CAM_FOCUS_CONFIG", EIO, 1);
    std::ofstream(overlay.state().run_directory + "/go") << "go";

    overlay.wait_redraws(0, 2);
    EXPECT_EQ(overlay.readout(0).text, "FOCUS ASSIST   0/---");
    EXPECT_FALSE(overlay.state().focus_configured);
    overlay.wait("a refused reading", [&] { return overlay.calls("CAM_FOCUS_READ", EINVAL) > 0; });
    EXPECT_EQ(overlay.calls("CAM_FOCUS_CONFIG", EIO), 1u);

    EXPECT_EQ(camera_process_kill(*overlay), "");
    overlay.wait_process_end();
    EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
    EXPECT_EQ(camera_process_start(*overlay), "");
    overlay.wait("a value", [&] { return overlay.readout(0).current > 0; });
    EXPECT_TRUE(overlay.state().focus_configured);
}
