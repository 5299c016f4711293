// The overlay process on a camera without faults: start, posts that start and stop, restarts, the
// sweep.

#include <cerrno>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "camera/pictures.h"
#include "difference.h"
#include "picture/lens.h"
#include "overlay.h"

using namespace simcam;

static void expect_place(const PlaneState &plane, uint32_t width, uint32_t height, uint32_t x,
                         uint32_t y)
{
    EXPECT_TRUE(plane.shown);
    EXPECT_EQ(plane.width, width);
    EXPECT_EQ(plane.height, height);
    EXPECT_EQ(plane.x, x);
    EXPECT_EQ(plane.y, y);
    EXPECT_EQ(plane.depth_code, 2u);
}

TEST(OverlayProcess, DrawsOnAllFourSizesAtOnce)
{
    const Overlay overlay(overlay_options_all_posts());
    for (int post = 0; post < 4; post++)
        overlay.wait_redraws(post, 2);

    const CameraState state = overlay.state();
    expect_place(state.post[0].plane[0], 720, 108, 600, 864);
    expect_place(state.post[1].plane[0], 480, 72, 400, 576);
    expect_place(state.post[2].plane[0], 280, 48, 220, 384);
    expect_place(state.post[3].plane[0], 132, 24, 110, 192);
    expect_place(state.post[2].plane[1], 280, 48, 221, 384 - 28);
    expect_place(state.post[3].plane[1], 132, 24, 111, 192 - 14);
    EXPECT_EQ(state.post[0].plane[1].y, 864u - 63);
    EXPECT_EQ(state.post[1].plane[1].y, 576u - 42);
    for (int post = 0; post < 4; post++) {
        const Readout readout = overlay.readout(post);
        EXPECT_TRUE(readout.valid) << post << ": " << readout.problem;
        EXPECT_EQ(readout.peak, 0); // the value has not changed: "---"
        EXPECT_EQ(readout.percent, 0);
        EXPECT_FALSE(readout.highlight);
        const reference::Plane text =
            readout_text_plane(static_cast<int>(state.post[static_cast<size_t>(post)].width),
                               static_cast<int>(state.post[static_cast<size_t>(post)].height),
                               state.post[static_cast<size_t>(post)].plane[1].pitch, "", false);
        // Truncated to 16 bits like the position.
        EXPECT_EQ(state.post[static_cast<size_t>(post)].plane[1].x, text.x & 0xFFFF);
        EXPECT_FALSE(state.post[static_cast<size_t>(post)].plane[2].open);
        EXPECT_FALSE(state.post[static_cast<size_t>(post)].plane[3].open);
    }
    EXPECT_EQ(overlay.output(2), "");
}

TEST(OverlayProcess, ShowsTheLatestValue)
{
    const Overlay overlay(overlay_options());
    ASSERT_TRUE(camera_wait(*overlay, 0, 60)); // it also draws before the first measurement
    overlay.wait_redraws(0, 2);
    const auto measured = camera_measurements(*overlay, 0, 4096);
    const auto [low, high] =
        std::minmax_element(measured.begin(), measured.end(),
                            [](const auto &a, const auto &b) { return a.value < b.value; });

    const Readout readout = overlay.readout(0);

    ASSERT_TRUE(readout.valid) << readout.problem;
    EXPECT_GE(readout.current, static_cast<int>(low->value));
    EXPECT_LE(readout.current, static_cast<int>(high->value));
}

TEST(OverlayProcess, WritesItsPidFileIntoTheRunDirectory)
{
    const Overlay overlay(overlay_options());
    overlay.wait_redraws(0);

    std::ifstream file(overlay.state().run_directory + "/var/run/focus_assist.pid");
    int pid = 0;
    file >> pid;
    EXPECT_EQ(pid, overlay.state().process.pid);
    EXPECT_TRUE(overlay.state().attached);
    // By another thread than the one that draws.
    overlay.wait("the configuration of the device",
                 [&] { return overlay.state().focus_configured; });
}

TEST(OverlayProcess, FollowsPostsThatStopAndStart)
{
    const Overlay overlay(overlay_options());
    overlay.wait_redraws(0);
    EXPECT_EQ(camera_start_post(*overlay, 2, {720, 480}), "");
    overlay.wait_redraws(2);

    EXPECT_EQ(camera_stop_post(*overlay, 0), "");
    EXPECT_FALSE(overlay.state().post[0].plane[0].open);
    overlay.wait_redraws(2, 3);
    EXPECT_FALSE(overlay.state().post[0].plane[0].open); // not opened again

    EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
    overlay.wait_redraws(0, 2);
    EXPECT_TRUE(overlay.readout(0).valid) << overlay.readout(0).problem;
    EXPECT_TRUE(overlay.readout(2).valid) << overlay.readout(2).problem;
}

TEST(OverlayProcess, ARestartBetweenTwoRedrawsReopensThePlanes)
{
    const Overlay overlay(overlay_options());
    overlay.wait_redraws(0);
    const size_t opened = overlay.calls("qm7_cl_post_open_osd", 0);

    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(camera_stop_post(*overlay, 0), "");
        EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
        overlay.wait_redraws(0);
        EXPECT_TRUE(overlay.readout(0).valid);
    }
    EXPECT_EQ(overlay.calls("qm7_cl_post_open_osd", 0), opened + 6);
}

TEST(OverlayProcess, APostThatReturnsSmallerKeepsItsFirstLayout)
{
    const Overlay overlay(overlay_options("1920x1080"));
    overlay.wait_redraws(0);

    EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
    overlay.wait_redraws(0, 2);

    // Still at its place for 1920 x 1080, below the last line of the smaller picture.
    expect_place(overlay.state().post[0].plane[0], 720, 108, 600, 864);
    const cv::Mat picture = camera_picture(*overlay, 0, true);
    EXPECT_EQ(picture.size(), cv::Size(1280, 720));
    EXPECT_EQ(overlay.output(2), "");
}

TEST(OverlayProcess, AnUnsupportedSizeIsReportedOnceAndAffectsNoOtherPost)
{
    CameraOptions options = overlay_options("1280x720");
    options.post_size[1] = "640x480";
    const Overlay overlay(options);
    const std::string line = "ERR:#qm7osd:[(null)]=invalid resolution(init_draw_param)\n";
    overlay.wait_output(2, line);
    overlay.wait_redraws(0, 4);

    const std::string errors = overlay.output(2);
    EXPECT_EQ(errors.find(line), errors.rfind(line)) << errors;
    EXPECT_TRUE(overlay.readout(0).valid) << overlay.readout(0).problem;
}

TEST(OverlayProcess, WithoutPostsItMakesNoCalls)
{
    const Overlay overlay(overlay_options(""));
    overlay.wait("the session", [&] { return overlay.calls("qm7_cl_post_set_osd_color", 0) == 1; });
    const uint64_t calls = camera_calls(*overlay, 0, 100000).back().number;
    camera_wait(*overlay, overlay.state().latest.number + 40, 60); // more than two passes

    // Only the measurement loop may open its device later.
    for (const CallRecord &call : camera_calls(*overlay, calls, 100))
        EXPECT_TRUE(call.call == "open" || call.call.find("CAM_") == 0) << call.call;
    EXPECT_EQ(camera_start_post(*overlay, 3, {352, 240}), "");
    overlay.wait_redraws(3);
    EXPECT_TRUE(overlay.readout(3).valid);
}

TEST(OverlayProcess, AfterASweepTheReadoutIsThatOfTheMeasuredValues)
{
    CameraOptions options = overlay_options();
    options.sweep = true;
    options.sweep_period_s = 6;
    const Overlay overlay(options);
    overlay.wait_redraws(0);
    const uint64_t first = overlay.state().latest.number;
    camera_wait(*overlay, first + 30, 60);
    EXPECT_EQ(camera_set_fault(*overlay, {"CAM_FOCUS_READ", EIO, 25, 0, 0}), "");
    camera_wait(*overlay, first + 6 * 30, 120); // once back and forth
    EXPECT_EQ(camera_set_ring(*overlay, lens_best_ring() + 0.05), "");
    const uint64_t settled = overlay.state().latest.number + 2;
    camera_wait(*overlay, settled + 10, 60);
    overlay.wait_redraws(0, 2);

    const Readout readout = overlay.readout(0);
    const auto measured = camera_measurements(*overlay, 0, 4096);
    int best = 0, low = 1000, high = 0;
    for (const Measurement &m : measured) {
        const int value = static_cast<int>(m.value);
        best = std::max(best, value);
        if (m.number > settled) {
            low = std::min(low, value);
            high = std::max(high, value);
        }
    }
    ASSERT_TRUE(readout.valid) << readout.problem;
    EXPECT_GT(best, 100);
    EXPECT_EQ(readout.peak, static_cast<int>(overlay.state().overlay.peak));
    EXPECT_GT(readout.peak, best / 2); // the failed readings may have been the best ones
    EXPECT_LE(readout.peak, best);
    EXPECT_GE(readout.current, low);
    EXPECT_LE(readout.current, high);
    // Bar and text may be of two passes with different values. Beside the marker two percentages
    // can have the same pixels; the lower one is read.
    EXPECT_GE(readout.percent, low * 100 / readout.peak - 2);
    EXPECT_LE(readout.percent, high * 100 / readout.peak);
    EXPECT_EQ(readout.highlight, readout.current * 100 / readout.peak >= reference::THRESHOLD);
}

// ---- restarts of the process

TEST(OverlayProcess, AfterAKillThePlanesStayOpenAndTheNextProcessCannotOpenThem)
{
    const Overlay overlay(overlay_options());
    overlay.wait_redraws(0, 2);
    EXPECT_EQ(camera_process_kill(*overlay), "");
    overlay.wait_process_end();
    EXPECT_EQ(overlay.state().process.last_end, "signal 9 (Killed)");
    overlay.wait("the end of its session", [&] { return !overlay.state().attached; });
    const Readout left = overlay.readout(0);
    ASSERT_TRUE(left.valid) << left.problem; // its last readout is still shown completely
    const PlaneImage text = camera_plane(*overlay, 0, 1);

    EXPECT_EQ(camera_process_start(*overlay), "");
    overlay.wait("a redraw of the bar", [&] {
        return overlay.state().post[0].plane[0].shows > 4 && overlay.output(2).size() > 0;
    });

    // The library reports with a tolerated code that the planes are open and returns no pitch. The
    // new process shows an empty bar and no text; the old text stays.
    EXPECT_EQ(overlay.calls("qm7_cl_post_open_osd", 0x81E03204), 2u);
    overlay.wait_output(2, "target width is too small(font_get_target_bitmap)\n");
    overlay.wait("an empty bar", [&] {
        const auto bar = camera_plane(*overlay, 0, 0).bytes;
        return std::count(bar.begin(), bar.end(), 0) == static_cast<long>(bar.size());
    });
    EXPECT_EQ(difference(camera_plane(*overlay, 0, 1).bytes, text.bytes, text.state.pitch), "");

    // A restart of the post closes the planes; the next pass opens them again.
    EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
    overlay.wait_redraws(0, 2);
    EXPECT_TRUE(overlay.readout(0).valid) << overlay.readout(0).problem;
}

// ---- several processes

TEST(OverlayProcess, TwoCamerasWithAProcessEachAreIndependent)
{
    CameraOptions sharp = overlay_options();
    sharp.ring = 0.55;
    const Overlay near_focus(sharp);
    auto far_off = std::make_unique<Overlay>(overlay_options("1920x1080"));
    // The readout shows 0 until the first measurement.
    const auto wait_for_a_value = [](const Overlay &overlay) {
        overlay.wait("a measured value", [&] { return overlay.readout(0).current > 0; });
    };
    wait_for_a_value(near_focus);
    wait_for_a_value(*far_off);

    EXPECT_NE(near_focus.state().run_directory, far_off->state().run_directory);
    EXPECT_NE(near_focus.state().process.pid, far_off->state().process.pid);
    const Readout high = near_focus.readout(0), low = far_off->readout(0);
    ASSERT_TRUE(high.valid) << high.problem;
    ASSERT_TRUE(low.valid) << low.problem;
    EXPECT_GT(high.current, 2 * low.current);

    far_off.reset();
    near_focus.wait_redraws(0, 2);
    EXPECT_TRUE(near_focus.readout(0).valid) << near_focus.readout(0).problem;
}

// The program of a camera's process, for a process that the test starts itself: it joins the same
// camera, because it gets the environment of the camera's process with the changes of the test.
class OwnProcess
{
  public:
    // The camera's process must run.
    explicit OwnProcess(const Overlay &overlay)
        : words_(read_words(overlay, "cmdline")), environment_(read_words(overlay, "environ"))
    {
    }
    ~OwnProcess()
    {
        if (pid_ > 0)
            kill();
    }
    OwnProcess(const OwnProcess &) = delete;
    OwnProcess &operator=(const OwnProcess &) = delete;

    void unset(const std::string &name)
    {
        std::erase_if(environment_,
                      [&](const std::string &entry) { return entry.starts_with(name + "="); });
    }

    void set(const std::string &name, const std::string &value)
    {
        unset(name);
        environment_.push_back(name + "=" + value);
    }

    // Its standard output goes to a file, if one is named.
    void start(const std::string &standard_output = "")
    {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (!standard_output.empty())
            posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, standard_output.c_str(),
                                             O_WRONLY | O_CREAT | O_TRUNC, 0600);
        EXPECT_EQ(posix_spawnp(&pid_, words_.at(0).c_str(), &actions, nullptr,
                               pointers(&words_).data(), pointers(&environment_).data()),
                  0);
        posix_spawn_file_actions_destroy(&actions);
    }

    void kill()
    {
        EXPECT_EQ(waitpid(pid_, nullptr, WNOHANG), 0) << "ended by itself";
        ::kill(pid_, SIGKILL);
        EXPECT_EQ(waitpid(pid_, nullptr, 0), pid_);
        pid_ = 0;
    }

  private:
    // The NUL-terminated words of a file of /proc/PID.
    static std::vector<std::string> read_words(const Overlay &overlay, const char *file)
    {
        std::ifstream stream("/proc/" + std::to_string(overlay.state().process.pid) + "/" + file);
        std::vector<std::string> words;
        for (std::string word; std::getline(stream, word, '\0');)
            words.push_back(word);
        return words;
    }

    static std::vector<char *> pointers(std::vector<std::string> *words)
    {
        std::vector<char *> list;
        for (std::string &word : *words)
            list.push_back(word.data());
        list.push_back(nullptr);
        return list;
    }

    std::vector<std::string> words_;
    std::vector<std::string> environment_;
    pid_t pid_ = 0;
};

static std::string content(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

static std::vector<uint8_t> bytes_of(const std::string &path)
{
    const std::string text = content(path);
    return {text.begin(), text.end()};
}

TEST(OverlayProcess, ASecondProcessOnTheSameCameraClearsTheBarOfTheFirstUntilItEnds)
{
    const Overlay overlay(overlay_options());
    overlay.wait_redraws(0, 2);
    const auto bar_is_empty = [&] {
        const auto bar = camera_plane(*overlay, 0, 0).bytes;
        return std::count(bar.begin(), bar.end(), 0) == static_cast<long>(bar.size());
    };
    ASSERT_FALSE(bar_is_empty());

    const int first = overlay.state().process.pid;
    OwnProcess second(overlay);
    second.start();

    overlay.wait("a bar that the second one cleared", bar_is_empty);
    overlay.wait("a bar that the first one drew", [&] { return !bar_is_empty(); });
    overlay.wait("a bar that was cleared again", bar_is_empty);
    EXPECT_EQ(overlay.calls("qm7_cl_post_open_osd", 0x81E03204), 2u);
    EXPECT_TRUE(overlay.state().process.running);
    EXPECT_EQ(overlay.output(2), ""); // the first process gets no error
    second.kill();

    overlay.wait_redraws(0, 2);
    const Readout readout = overlay.readout(0);
    EXPECT_TRUE(readout.valid) << readout.problem;
    EXPECT_EQ(overlay.state().process.pid, first);
}

// The message of a failed status has no line end. With SIMCAM_UNBUFFERED it appears at once, which
// shows that the process has printed it in the other case, too.
TEST(OverlayProcess, TextWithoutALineEndStaysInTheBufferOfStandardOutput)
{
    CameraOptions options = overlay_options();
    options.post_size[1] = "1920x1080";
    for (const bool unbuffered : {true, false}) {
        const Overlay overlay(options);
        overlay.wait_redraws(0);
        OwnProcess process(overlay);
        if (!unbuffered)
            process.unset("SIMCAM_UNBUFFERED");
        EXPECT_EQ(camera_process_kill(*overlay), "");
        overlay.wait_process_end();
        EXPECT_EQ(
            camera_set_fault(*overlay, {"qm7_cl_post_thread_get_status", 0x81E0ABCD, 1, 0, 0}), "");
        EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
        EXPECT_EQ(camera_start_post(*overlay, 1, {1920, 1080}), "");

        const std::string file = overlay.state().run_directory + "/standard_output";
        process.start(file);
        // The pass in which the status of post 0 fails ends there: post 1 is drawn by a later one.
        overlay.wait_redraws(1);
        process.kill();

        EXPECT_EQ(overlay.calls("qm7_cl_post_thread_get_status", 0x81E0ABCD), 1u);
        EXPECT_EQ(content(file), unbuffered ? "POST0 get_post_geometry() failed" : "");
    }
}

// The library writes each plane into a file of a directory when it is shown.
TEST(OverlayProcess, DrawsThroughAnotherCodecLibrary)
{
    const Overlay overlay(overlay_options());
    overlay.wait_redraws(0);
    OwnProcess process(overlay);
    EXPECT_EQ(camera_process_kill(*overlay), "");
    overlay.wait_process_end();
    overlay.wait("the end of its calls", [&] { return !overlay.state().attached; });
    const std::string directory = overlay.state().run_directory + "/";
    const uint64_t calls = camera_newest(*overlay).call;

    process.set("LD_LIBRARY_PATH", OTHER_CODEC_FOLDER);
    process.set("OTHER_CODEC_FILES", directory);
    process.start(directory + "standard_output");
    overlay.wait("text from a measured value", [&] {
        const PlaneImage bar = {{.pitch = 480}, bytes_of(directory + "plane0")};
        const PlaneImage text = {{.pitch = 480}, bytes_of(directory + "plane1")};
        const Readout readout = readout_read(1280, 720, bar, text);
        return readout.valid && readout.current > 0;
    });
    process.kill();

    for (const CallRecord &call : camera_calls(*overlay, calls, 100))
        EXPECT_TRUE(call.call == "open" || call.call.find("CAM_") == 0) << call.call;
    EXPECT_EQ(content(directory + "standard_output"), "");
}

TEST(OverlayProcess, AHundredRestartsLeaveNothingBehind)
{
    const FastSleep fast_sleep;
    const Overlay overlay(overlay_options());
    for (int i = 1; i <= 100; i++) {
        overlay.wait("a readout", [&] {
            const PostState post = overlay.state().post[0];
            return post.plane[0].shown && post.plane[1].shown;
        });
        EXPECT_EQ(i % 2 ? camera_process_kill(*overlay) : camera_process_stop(*overlay), "");
        overlay.wait_process_end();
        EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
        ASSERT_EQ(camera_process_start(*overlay), "");
    }
    overlay.wait_redraws(0, 2);
    EXPECT_TRUE(overlay.readout(0).valid) << overlay.readout(0).problem;
    EXPECT_EQ(overlay.state().process.starts, 101u);
    EXPECT_EQ(overlay.state().merged_reports, 0u);
}
