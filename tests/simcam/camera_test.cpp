// The camera as a whole: sensor, posts, the overlay process, the run directory.

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "camera/camera.h"
#include "camera/pictures.h"
#include "picture/lens.h"
#include "process/run_directory.h"
#include "test_directory.h"

using namespace simcam;

namespace
{

constexpr double PATIENCE_S = 240; // for a loaded machine under a sanitizer; usually less than 1

struct TestCamera {
    std::string error;
    CameraPtr camera; // after the message that its start sets

    explicit TestCamera(const CameraOptions &options) : camera(camera_start(options, &error))
    {
    }
    Camera &operator*() const
    {
        return *camera;
    }
    std::vector<Measurement> measure(size_t count) const
    {
        EXPECT_TRUE(camera_wait(*camera, count - 1, PATIENCE_S));
        return camera_measurements(*camera, 0, count);
    }
    // The first measurement that reflects everything set before this call.
    Measurement next() const
    {
        const uint64_t number = camera_state(*camera).latest.number + 1; // may have started before
        EXPECT_TRUE(camera_wait(*camera, number, PATIENCE_S));
        return camera_measurements(*camera, number, 1).at(0);
    }
};

CameraOptions chart()
{
    CameraOptions options;
    options.scene = "chart";
    return options;
}

CameraOptions shell(const std::string &script)
{
    CameraOptions options = chart();
    options.program = {"/bin/sh", "-c", script};
    return options;
}

bool wait_until(const std::function<bool()> &condition)
{
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(PATIENCE_S);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool wait_for_end(Camera &camera)
{
    return wait_until([&] {
        const ProcessState state = camera_state(camera).process;
        return state.starts > 0 && !state.running;
    });
}

std::string output(Camera &camera, int stream)
{
    std::string text;
    for (const OutputChunk &chunk : camera_output(camera, 0, 100000))
        if (chunk.stream == stream)
            text += chunk.bytes;
    return text;
}

std::vector<uint32_t> raws(const std::vector<Measurement> &measurements)
{
    std::vector<uint32_t> values;
    for (const Measurement &measurement : measurements)
        values.push_back(measurement.raw);
    return values;
}

// Starts two processes, one of which ignores SIGTERM, prints their ids, and waits for both.
constexpr const char *WRAPPER = "sleep 1000 & a=$!; (trap '' TERM; while :; do sleep 1; done) &"
                                " echo $a $!; wait";

void expect_ended(const std::string &pids)
{
    std::istringstream words(pids);
    for (int pid = 0; words >> pid;) {
        // The process that adopted it may reap it late.
        EXPECT_TRUE(wait_until([&] {
            std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
            std::string stat;
            return !std::getline(file, stat) || stat.find(") Z ") != std::string::npos;
        })) << pid;
    }
}

} // namespace

// ---- sensor

TEST(Camera, SameSeedGivesTheSameNumbers)
{
    CameraOptions options = chart();
    options.sweep = true;
    options.sweep_period_s = 2;
    options.seed = 7;
    const auto first = raws(TestCamera(options).measure(12));
    const auto second = raws(TestCamera(options).measure(12));
    options.seed = 8;
    const auto other = raws(TestCamera(options).measure(12));

    EXPECT_EQ(first, second);
    EXPECT_NE(first, other);
}

TEST(Camera, SharpnessIsHighestWhereTheLensIsInFocus)
{
    const TestCamera camera(chart());
    EXPECT_EQ(camera_set_ring(*camera, lens_best_ring()), "");
    const Measurement best = camera.next();
    EXPECT_DOUBLE_EQ(best.ring, lens_best_ring());
    EXPECT_EQ(best.value, best.raw / 100);

    for (const double away : {-0.3, -0.15, 0.15, 0.3}) {
        EXPECT_EQ(camera_set_ring(*camera, lens_best_ring() + away), "");
        EXPECT_LT(camera.next().raw, best.raw) << away;
    }
}

TEST(Camera, SweepTurnsFromTheRingsPositionUpAndBack)
{
    CameraOptions options = chart();
    options.ring = 0.5;
    options.sweep = true;
    options.sweep_period_s = 2; // 60 measurements: 30 up, 30 down
    const auto seen = TestCamera(options).measure(60);

    for (size_t i = 0; i < seen.size(); i++) {
        const double phase = 0.25 + static_cast<double>(i + 1) / 60.0; // starts at 0.5, going up
        const double part = phase - std::floor(phase);
        EXPECT_NEAR(seen[i].ring, part < 0.5 ? 2 * part : 2 - 2 * part, 1e-9) << i;
    }
}

TEST(Camera, TurningTheRingEndsASweep)
{
    CameraOptions options = chart();
    options.sweep = true;
    const TestCamera camera(options);
    EXPECT_TRUE(camera_state(*camera).sweep);
    EXPECT_EQ(camera_set_ring(*camera, 0.25), "");
    EXPECT_FALSE(camera_state(*camera).sweep);
    EXPECT_DOUBLE_EQ(camera.next().ring, 0.25);
}

TEST(Camera, AFlashChangesOneMeasurementOnly)
{
    CameraOptions options = chart();
    options.ring = lens_best_ring();
    const TestCamera camera(options);
    const uint64_t before = camera.next().number;
    camera_flash(*camera);
    const uint64_t after = camera_state(*camera).latest.number + 5;
    EXPECT_TRUE(camera_wait(*camera, after, PATIENCE_S));

    const auto seen = camera_measurements(*camera, before - 1, after - before + 2);
    size_t moved = 0;
    for (const Measurement &measurement : seen)
        moved += std::abs(double{1} * measurement.raw - seen[0].raw) > 0.1 * seen[0].raw ? 1u : 0u;
    EXPECT_EQ(moved, 1u);
}

TEST(Camera, AGainStepChangesSharpnessUntilItIsReset)
{
    CameraOptions options = chart();
    options.ring = lens_best_ring();
    const TestCamera camera(options);
    const double before = camera.next().raw;
    EXPECT_EQ(camera_set_gain(*camera, 0.5), "");
    EXPECT_LT(camera.next().raw, 0.5 * before);
    EXPECT_LT(camera.next().raw, 0.5 * before);
    EXPECT_EQ(camera_set_gain(*camera, 1.0), "");
    EXPECT_NEAR(camera.next().raw, before, 0.05 * before);
}

TEST(Camera, InvalidCommandsAreRefusedWithASentence)
{
    const TestCamera camera(chart());
    EXPECT_NE(camera_set_ring(*camera, 1.01), "");
    EXPECT_NE(camera_set_ring(*camera, std::nan("")), "");
    EXPECT_NE(camera_set_gain(*camera, 0), "");
    EXPECT_NE(camera_set_noise(*camera, -1), "");
    EXPECT_NE(camera_set_scene(*camera, "/nowhere/picture.png"), "");
    EXPECT_EQ(camera_state(*camera).scene, "chart");
    EXPECT_EQ(camera_set_scene(*camera, "photo"), "");
    EXPECT_EQ(camera_state(*camera).scene, "photo");
}

TEST(Camera, InvalidOptionsFailTheStart)
{
    const auto refusal = [](const std::function<void(CameraOptions &)> &change) {
        CameraOptions options = chart();
        change(options);
        const TestCamera camera(options);
        EXPECT_EQ(camera.camera, nullptr);
        return camera.error;
    };
    EXPECT_NE(refusal([](auto &o) { o.pitch_align = 3; }), "");
    EXPECT_NE(refusal([](auto &o) { o.rate_hz = 0; }), "");
    EXPECT_NE(refusal([](auto &o) { o.ring = -1; }), "");
    EXPECT_NE(refusal([](auto &o) { o.scene = "no such file"; }), "");
    EXPECT_NE(refusal([](auto &o) { o.program = {"/no/such/program"}; }), "");
    EXPECT_NE(refusal([](auto &o) { o.run_directory = "/proc/nothing"; }), "");
    for (const char *size : {"x", "1280", "1280x", "1280x720p", "-1280x720", "0x0", "9999x9999",
                             "99999999999x1", " 1280x720"})
        EXPECT_NE(refusal([&](auto &o) { o.post_size[1] = size; }), "") << size;
}

// ---- pictures

TEST(Camera, MemoryOfPicturesThatReadersHeldIsFreed)
{
    CameraOptions options = chart();
    options.rate_hz = 240;
    const TestCamera camera(options);
    std::vector<std::weak_ptr<const cv::Mat>> seen;
    {
        std::vector<SensorPicture> held;
        for (int i = 0; i < 6; i++) {
            camera.next();
            held.push_back(camera_sensor_picture(*camera));
            seen.emplace_back(held.back().pixels);
        }
    }
    const auto in_memory = [&] {
        return std::ranges::count_if(seen, [](const auto &picture) { return !picture.expired(); });
    };
    EXPECT_EQ(in_memory(), 6) << "held pictures are freed before PICTURES_KEPT others";
    EXPECT_TRUE(wait_until([&] { return in_memory() <= 2; })) << in_memory();
    const uint64_t number = camera_state(*camera).latest.number;
    EXPECT_TRUE(camera_wait(*camera, number + PICTURES_KEPT, PATIENCE_S));
    EXPECT_GE(in_memory(), 1) << "the sensor no longer uses its memory again";
}

TEST(Camera, PostsShowTheirPictureAtTheirSizeAndNothingWhileOff)
{
    CameraOptions options = chart();
    options.post_size = {"1280x720", "", "352x240", "1920x1080"};
    const TestCamera camera(options);
    camera.measure(1);

    EXPECT_EQ(camera_picture(*camera, 0, true).size(), cv::Size(1280, 720));
    EXPECT_TRUE(camera_picture(*camera, 1, true).empty());
    EXPECT_EQ(camera_picture(*camera, 2, false).size(), cv::Size(352, 240));
    EXPECT_EQ(camera_picture(*camera, 3, true).size(), cv::Size(1920, 1080));
    EXPECT_TRUE(camera_picture(*camera, 4, true).empty());
    EXPECT_EQ(camera_start_post(*camera, 1, {720, 480}), "");
    EXPECT_EQ(camera_picture(*camera, 1, true).size(), cv::Size(720, 480));
    EXPECT_EQ(camera_stop_post(*camera, 1), "");
    EXPECT_TRUE(camera_picture(*camera, 1, true).empty());
    EXPECT_EQ(camera_state(*camera).post[1].width, 720u); // kept for its next start
}

// ---- process

TEST(Camera, TheProgramsOutputAndExitStatusAreKept)
{
    const TestCamera camera(shell("printf 'no line end'; echo trouble >&2; exit 3"));
    ASSERT_TRUE(wait_for_end(*camera));

    EXPECT_EQ(output(*camera, 1), "no line end");
    EXPECT_EQ(output(*camera, 2), "trouble\n");
    const ProcessState state = camera_state(*camera).process;
    EXPECT_EQ(state.last_end, "exit status 3");
    EXPECT_EQ(state.pid, 0);
    EXPECT_TRUE(state.configured);
}

TEST(Camera, TheProgramsEnvironmentNamesItsCamera)
{
    const TestCamera camera(shell("echo $SIMCAM_RUN_DIR; echo $LD_PRELOAD; echo $LD_LIBRARY_PATH"));
    ASSERT_TRUE(wait_for_end(*camera));

    const std::string text = output(*camera, 1);
    EXPECT_EQ(text.find(camera_state(*camera).run_directory + "\n"), 0u);
    EXPECT_NE(text.find("/libsimcam_preload.so\n"), std::string::npos);
    EXPECT_EQ(output(*camera, 2), ""); // the loader found everything
}

TEST(Camera, TheProgramCanBeStoppedKilledAndStartedAgain)
{
    const TestCamera camera(shell("exec sleep 1000"));
    EXPECT_EQ(camera_process_start(*camera), "the program is already running");

    EXPECT_EQ(camera_process_stop(*camera), "");
    ASSERT_TRUE(wait_for_end(*camera));
    EXPECT_EQ(camera_state(*camera).process.last_end, "signal 15 (Terminated)");
    EXPECT_EQ(camera_process_stop(*camera), "the program is not running");

    EXPECT_EQ(camera_process_start(*camera), "");
    EXPECT_EQ(camera_state(*camera).process.last_end, "");
    EXPECT_EQ(camera_state(*camera).process.starts, 2u);
    EXPECT_EQ(camera_process_kill(*camera), "");
    ASSERT_TRUE(wait_for_end(*camera));
    EXPECT_EQ(camera_state(*camera).process.last_end, "signal 9 (Killed)");
}

TEST(Camera, TheProgramsProcessorTimeAndMemoryAreReported)
{
    const TestCamera camera(shell("while :; do :; done"));
    const auto process = [&] { return camera_state(*camera).process; };
    // The program uses all of one processor if no other process needs it.
    EXPECT_TRUE(wait_until([&] { return process().cpu_percent > 5; }));

    const ProcessState busy = process();
    EXPECT_LT(busy.cpu_percent, 120);
    EXPECT_GT(busy.resident_bytes, 100u << 10);
    EXPECT_LT(busy.resident_bytes, 100u << 20);

    EXPECT_EQ(camera_process_kill(*camera), "");
    ASSERT_TRUE(wait_for_end(*camera));
    EXPECT_EQ(process().cpu_percent, 0);
    EXPECT_EQ(process().resident_bytes, 0u);
}

TEST(Camera, WithoutAProgramThereIsNothingToStart)
{
    const TestCamera camera(chart());
    EXPECT_NE(camera_process_start(*camera), "");
    EXPECT_NE(camera_process_kill(*camera), "");
    EXPECT_FALSE(camera_state(*camera).process.configured);
}

TEST(Camera, StoppingTheCameraEndsAndReapsTheProgram)
{
    int until_sigterm = 0, until_sigkill = 0;
    std::chrono::steady_clock::time_point stopped;
    {
        const TestCamera camera(shell("exec sleep 1000"));
        until_sigterm = camera_state(*camera).process.pid;
    }
    {
        CameraOptions options = shell("trap '' TERM; echo ready; while :; do sleep 1; done");
        options.kill_after_s = 0.1;
        const TestCamera camera(options);
        until_sigkill = camera_state(*camera).process.pid;
        ASSERT_TRUE(wait_until([&] { return output(*camera, 1) == "ready\n"; }));
        stopped = std::chrono::steady_clock::now();
    }
    EXPECT_GE(std::chrono::steady_clock::now() - stopped, std::chrono::milliseconds(100));
    EXPECT_NE(kill(until_sigterm, 0), 0); // kill() succeeds for a zombie
    EXPECT_NE(kill(until_sigkill, 0), 0);
}

TEST(Camera, StoppingTheCameraEndsChildrenOfAWrapper)
{
    std::string pids;
    {
        const TestCamera camera(shell(WRAPPER));
        ASSERT_TRUE(wait_until([&] { return output(*camera, 1).ends_with('\n'); }));
        pids = output(*camera, 1);
    }
    expect_ended(pids);
}

TEST(Camera, KillingTheProgramEndsChildrenOfAWrapper)
{
    const TestCamera camera(shell(WRAPPER));
    ASSERT_TRUE(wait_until([&] { return output(*camera, 1).ends_with('\n'); }));

    EXPECT_EQ(camera_process_kill(*camera), "");
    ASSERT_TRUE(wait_for_end(*camera));
    expect_ended(output(*camera, 1));
}

TEST(Camera, StoppingAWrapperAlsoStopsItsChild)
{
    const TestCamera camera(
        shell("trap : TERM; sh -c 'echo $$; exec sleep 1000' & wait; wait; echo both"));
    ASSERT_TRUE(wait_until([&] { return output(*camera, 1).ends_with('\n'); }));
    const std::string pid = output(*camera, 1);

    EXPECT_EQ(camera_process_stop(*camera), "");
    expect_ended(pid);
    EXPECT_TRUE(wait_until([&] { return output(*camera, 1) == pid + "both\n"; }));
}

TEST(Camera, EndlessOutputIsBounded)
{
    const TestCamera camera(shell("head -c 40000000 /dev/zero; echo; echo end"));
    ASSERT_TRUE(wait_for_end(*camera));

    EXPECT_LE(camera_output(*camera, 0, 1000000).size(), 4096u);
    EXPECT_TRUE(output(*camera, 1).ends_with("\nend\n")); // joined from the pieces that were read
}

// ---- run directory

TEST(Camera, AFreshRunDirectoryIsRemoved)
{
    std::string path;
    {
        const TestCamera camera(chart());
        path = camera_state(*camera).run_directory;
        EXPECT_TRUE(std::filesystem::exists(
            path + "/usr/local/morvel/import/font/dejavu/font/DejaVuSansMono.ttf"));
        const std::string palette = path + "/usr/local/morvel/app/conf/data/osd/osd_def_color.plt";
        EXPECT_GE(std::filesystem::file_size(palette), 84u); // entries 0 to 20
        EXPECT_TRUE(std::filesystem::is_directory(path + "/var/run"));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(Camera, OnlyDirectoriesOfKilledInstancesAreRemoved)
{
    const TestDirectory temporary;
    const auto make = [&](const std::string &name, bool marked) {
        std::filesystem::create_directories(temporary.path / name / "usr/local/morvel");
        if (marked)
            std::ofstream(temporary.path / name / ".made-by-simcam").flush();
        return temporary.path / name;
    };
    const auto left_behind = make("simcam-Dead01", true);
    const auto of_another_name = make("simcam-Dead012", true);
    const auto in_use = make("simcam-Live01", true);
    const auto of_somebody = make("simcam-Mine01", false);
    std::filesystem::create_directory(temporary.path / "simcam-Early1"); // not locked yet
    std::ofstream(temporary.path / "simcam-aFile1") << "mine";
    const int lock = open(in_use.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0);

    const char *const before = getenv("TMPDIR");
    const std::string restored = before ? before : "";
    setenv("TMPDIR", temporary.path.c_str(), 1);
    {
        const TestCamera camera(chart());
        EXPECT_TRUE(camera.camera) << camera.error;
        const TestCamera second(chart()); // does not remove the first one's directory
        EXPECT_TRUE(second.camera) << second.error;
        const std::filesystem::path made = camera_state(*camera).run_directory;
        EXPECT_TRUE(std::filesystem::exists(made / "socket"));
        EXPECT_TRUE(std::filesystem::exists(made / ".made-by-simcam"));
    }
    CameraOptions options = chart();
    options.run_directory = make("simcam-Named1", true); // of a killed instance, now named
    {
        const TestCamera named(options);
        EXPECT_TRUE(named.camera) << named.error;
        EXPECT_TRUE(TestCamera(chart()).camera);
        EXPECT_TRUE(std::filesystem::exists(temporary.path / "simcam-Named1/socket"));
    }
    EXPECT_TRUE(TestCamera(chart()).camera);
    EXPECT_TRUE(std::filesystem::is_directory(temporary.path / "simcam-Named1/usr"));
    if (before)
        setenv("TMPDIR", restored.c_str(), 1);
    else
        unsetenv("TMPDIR");

    EXPECT_FALSE(std::filesystem::exists(left_behind));
    EXPECT_TRUE(std::filesystem::exists(of_another_name));
    EXPECT_TRUE(std::filesystem::exists(in_use));
    EXPECT_TRUE(std::filesystem::exists(of_somebody));
    EXPECT_TRUE(std::filesystem::exists(temporary.path / "simcam-Early1"));
    EXPECT_TRUE(std::filesystem::exists(temporary.path / "simcam-aFile1"));
    close(lock);
}

TEST(Camera, ANamedRunDirectoryStaysWithTheFilesThatWereInIt)
{
    const TestDirectory directory;
    const auto palette = directory.path / "usr/local/morvel/app/conf/data/osd/osd_def_color.plt";
    std::filesystem::create_directories(palette.parent_path());
    std::ofstream(palette) << "mine";

    CameraOptions options = chart();
    options.run_directory = directory.path;
    {
        const TestCamera camera(options);
        ASSERT_TRUE(camera.camera) << camera.error;
        const TestCamera second(options);
        EXPECT_FALSE(second.camera);
        EXPECT_NE(second.error.find("another simcam"), std::string::npos);
        EXPECT_TRUE(std::filesystem::exists(directory.path / "socket")); // the first instance's
    }
    EXPECT_EQ(std::filesystem::file_size(palette), 4u);
    EXPECT_FALSE(std::filesystem::exists(directory.path / "socket"));
    EXPECT_TRUE(TestCamera(options).camera);
}

TEST(Camera, APlatformFolderOfAnyNameReachesTheProgram)
{
    const TestDirectory directory;
    for (const char *name : {"plain", "with a space", "a:b", "a;b", "a,b"}) {
        CameraOptions options =
            shell("exec 3</dev/cam && ls ${LD_LIBRARY_PATH%%:*}/libqm7codec.so.2.0 && echo opened");
        options.platform_directory = directory.path / name;
        std::filesystem::create_directory_symlink(platform_directory_find(""),
                                                  directory.path / name);

        const TestCamera camera(options);
        ASSERT_TRUE(camera.camera) << camera.error;
        ASSERT_TRUE(wait_for_end(*camera)) << name;
        EXPECT_TRUE(output(*camera, 1).ends_with("/libqm7codec.so.2.0\nopened\n")) << name;
        EXPECT_EQ(output(*camera, 2), "") << name;
        const std::vector<CallRecord> calls = camera_calls(*camera, 0, 10);
        ASSERT_EQ(calls.size(), 1u) << name;
        EXPECT_EQ(calls[0].call, "open") << name;
    }
}

TEST(Camera, ARunDirectoryWithSpacesOrSeparatorsIsRefused)
{
    const TestDirectory directory;
    for (const char *name : {"with a space", "a:b", "a;b", "a,b"}) {
        CameraOptions options = chart();
        options.run_directory = directory.path / name;
        const TestCamera camera(options);
        EXPECT_FALSE(camera.camera) << name;
        EXPECT_NE(camera.error.find("must not contain a space, ':', ';' or ','"), std::string::npos)
            << camera.error;
        EXPECT_NE(camera.error.find(name), std::string::npos) << camera.error;
        EXPECT_FALSE(std::filesystem::exists(options.run_directory)) << name;
    }

    const std::filesystem::path fresh_ones = directory.path / "fresh ones";
    std::filesystem::create_directory(fresh_ones);
    const char *const before = getenv("TMPDIR");
    const std::string restored = before ? before : "";
    setenv("TMPDIR", fresh_ones.c_str(), 1);
    EXPECT_NE(TestCamera(chart()).error.find("must not contain a space"), std::string::npos);
    if (before)
        setenv("TMPDIR", restored.c_str(), 1);
    else
        unsetenv("TMPDIR");
    EXPECT_TRUE(std::filesystem::is_empty(fresh_ones));
}

TEST(Camera, NobodyElseCanWriteToARunDirectory)
{
    const TestDirectory directory;
    CameraOptions options = chart();
    options.run_directory = directory.path / "new/deep/";
    const mode_t before = umask(0);
    {
        const TestCamera camera(options);
        EXPECT_TRUE(camera.camera) << camera.error;
    }
    umask(before);
    size_t entries = 0;
    for (const auto &entry :
         std::filesystem::recursive_directory_iterator(directory.path / "new")) {
        entries++;
        if (entry.is_directory()) {
            EXPECT_EQ(entry.status().permissions(), std::filesystem::perms::owner_all) << entry;
        }
    }
    EXPECT_GE(entries, 14u);
    EXPECT_EQ(std::filesystem::status(directory.path / "new").permissions(),
              std::filesystem::perms::owner_all);
    options.run_directory = directory.path / "new/deep/.";
    EXPECT_TRUE(TestCamera(options).camera); // its own directories are accepted
}

TEST(Camera, ARunDirectoryThatEverybodyCanChangeIsRefused)
{
    const TestDirectory directory;
    CameraOptions options = chart();
    options.run_directory = directory.path / "run";
    const auto refusal = [&] {
        const TestCamera camera(options);
        EXPECT_FALSE(camera.camera);
        return camera.error;
    };
    const std::string name = "run directory: \"" + options.run_directory;
    for (const char *place : {"", "/usr/local", "/var/run"}) {
        std::filesystem::create_directories(options.run_directory + place);
        for (const mode_t mode : {0777u, 01777u, 0702u}) {
            ASSERT_EQ(chmod((options.run_directory + place).c_str(), mode), 0);
            EXPECT_EQ(refusal(), name + place +
                                     "\" can be changed by every user; take that permission away "
                                     "(chmod o-w) or choose another directory");
        }
        ASSERT_EQ(chmod((options.run_directory + place).c_str(), 0775), 0); // an umask of 002
    }
    EXPECT_TRUE(TestCamera(options).camera);

    if (geteuid() == 0) { // only root can give a directory away
        ASSERT_EQ(chown((directory.path / "run").c_str(), 65534, 65534), 0);
        EXPECT_EQ(refusal(), name + "\" belongs to another user; choose a directory of your own");
    }
}

TEST(Camera, ARunDirectoryThatCannotBeMadeIsExplained)
{
    const TestDirectory directory;
    const auto refusal = [&](const std::string &place) {
        CameraOptions options = chart();
        options.run_directory = directory.path / place;
        const TestCamera camera(options);
        EXPECT_FALSE(camera.camera) << place;
        const std::string start = "run directory: \"" + directory.path.string() + "/";
        EXPECT_TRUE(camera.error.starts_with(start)) << camera.error;
        return camera.error.substr(std::min(start.size(), camera.error.size()));
    };
    namespace fs = std::filesystem;
    fs::create_symlink("loop", directory.path / "loop");
    fs::create_symlink("nowhere", directory.path / "dangling");
    std::ofstream(directory.path / "file") << "mine";
    fs::create_symlink("file", directory.path / "to-file");
    fs::create_directory(directory.path / "usr-is-a-file");
    std::ofstream(directory.path / "usr-is-a-file/usr") << "mine";
    fs::create_directory(directory.path / "run-is-a-loop");
    fs::create_directory(directory.path / "run-is-a-loop/var");
    fs::create_symlink("run", directory.path / "run-is-a-loop/var/run");

    const std::string loop = "loop\" is a symbolic link that leads back to itself";
    EXPECT_EQ(refusal("loop"), loop);
    EXPECT_EQ(refusal("loop/below"), loop);
    EXPECT_EQ(refusal("dangling"),
              "dangling\" is a symbolic link to something that does not exist");
    EXPECT_EQ(refusal("file"), "file\" is not a directory");
    EXPECT_EQ(refusal("file/below"), "file\" is not a directory");
    EXPECT_EQ(refusal("to-file"), "to-file\" is not a directory");
    EXPECT_EQ(refusal("usr-is-a-file"), "usr-is-a-file/usr\" is not a directory");
    EXPECT_EQ(refusal("run-is-a-loop"),
              "run-is-a-loop/var/run\" is a symbolic link that leads back to itself");
    EXPECT_EQ(fs::file_size(directory.path / "file"), 4u);
}

TEST(Camera, AnEntryNamedPlatformInANamedRunDirectoryIsKept)
{
    const TestDirectory directory;
    const auto place = directory.path / "platform";
    CameraOptions options = chart();
    options.run_directory = directory.path;
    std::filesystem::create_directory(place);
    {
        const TestCamera camera(options);
        EXPECT_FALSE(camera.camera);
        EXPECT_NE(camera.error.find(place.string() + ": "), std::string::npos) << camera.error;
    }
    EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::symlink_status(place)));

    std::filesystem::remove(place);
    std::filesystem::create_directory_symlink("/nowhere", place); // left by a killed instance
    {
        const TestCamera camera(options);
        EXPECT_TRUE(camera.camera) << camera.error;
        EXPECT_TRUE(std::filesystem::exists(place / "libsimcam_preload.so"));
        EXPECT_FALSE(TestCamera(options).camera); // the directory is in use
        EXPECT_TRUE(std::filesystem::exists(place / "libsimcam_preload.so"));
    }
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(place)));
}

TEST(Camera, SeveralRunSideBySide)
{
    const TestCamera first(chart()), second(chart());
    ASSERT_TRUE(first.camera && second.camera);
    EXPECT_NE(camera_state(*first).run_directory, camera_state(*second).run_directory);
    EXPECT_EQ(camera_start_post(*first, 0, {1280, 720}), "");
    EXPECT_FALSE(camera_state(*second).post[0].running);
}
