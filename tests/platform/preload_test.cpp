// The preload object: the camera device and the fixed paths, as a program uses them.

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>

#include "camera/camera.h"
#include "test_directory.h"

using namespace simcam;

namespace
{

constexpr const char *PALETTE = "/usr/local/morvel/app/conf/data/osd/osd_def_color.plt";
constexpr const char *FONT = "/usr/local/morvel/import/font/dejavu/font/DejaVuSansMono.ttf";

struct Line {
    std::string action;
    int result = -99;
    int error = 0;
    long extra = -1;
};

std::vector<Line> parse(const std::string &text)
{
    std::vector<Line> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        Line parsed;
        std::istringstream words(line);
        words >> parsed.action >> parsed.result >> parsed.error >> parsed.extra;
        lines.push_back(parsed);
    }
    return lines;
}

struct Outcome {
    std::vector<Line> lines; // printed by the probe
    std::string errors;
};

// Runs the probe on the camera and waits for its end.
struct ProbeCamera {
    std::string error;
    CameraPtr camera;

    explicit ProbeCamera(const std::vector<std::string> &actions,
                         const std::vector<Fault> &faults = {})
    {
        CameraOptions options;
        options.scene = "chart";
        options.program = {PROBE};
        const char *program = getenv("FOCUS_TEST_PROGRAM"); // words separated by tabs: an emulator
        const char *platform = getenv("FOCUS_TEST_PLATFORM");
        if (program && platform) {
            std::istringstream words(program);
            options.program.clear();
            for (std::string word; std::getline(words, word, '\t');)
                options.program.push_back(word);
            options.platform_directory = platform;
        }
        options.program.insert(options.program.end(), actions.begin(), actions.end());
        camera = camera_start(options, &error);
        EXPECT_TRUE(camera) << error;
        if (!faults.empty()) { // restart with the faults armed
            wait();
            for (const Fault &fault : faults)
                EXPECT_EQ(camera_set_fault(*camera, fault), "");
            EXPECT_EQ(camera_process_start(*camera), "");
        }
    }
    void wait() const
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (camera_state(*camera).process.running) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    Outcome outcome(size_t skip = 0) const
    {
        wait();
        Outcome outcome;
        std::string out;
        for (const OutputChunk &chunk : camera_output(*camera, 0, 10000))
            (chunk.stream == 1 ? out : outcome.errors) += chunk.bytes;
        outcome.lines = parse(out);
        outcome.lines.erase(outcome.lines.begin(),
                            outcome.lines.begin() + static_cast<std::ptrdiff_t>(skip));
        return outcome;
    }
};

// Runs the probe without a camera; returns both streams in one text.
std::string run_alone(const std::string &environment, const std::string &actions)
{
    const std::string command =
        // The loader takes no path with a space in LD_PRELOAD.
        environment +
        " LD_PRELOAD=" PRELOAD " LD_LIBRARY_PATH='" PRELOAD_FOLDER
        "' ASAN_OPTIONS=verify_asan_link_order=0 '" PROBE "' " +
        actions + " 2>&1";
    FILE *pipe = popen(command.c_str(), "r");
    if (!pipe) {
        ADD_FAILURE() << "popen";
        return {};
    }
    std::string text;
    char bytes[4096];
    for (size_t length; (length = fread(bytes, 1, sizeof bytes, pipe)) > 0;)
        text.append(bytes, length);
    EXPECT_EQ(WEXITSTATUS(pclose(pipe)), 0);
    return text;
}

size_t count_of(const std::string &text, const std::string &words)
{
    size_t count = 0;
    for (size_t at = text.find(words); at != std::string::npos; at = text.find(words, at + 1))
        count++;
    return count;
}

} // namespace

TEST(Preload, ReadingsAreConsecutiveMeasurementsOfTheCamera)
{
    const ProbeCamera probe({"open", "config", "read", "read", "read", "read", "read"});
    const Outcome outcome = probe.outcome();

    ASSERT_EQ(outcome.lines.size(), 7u);
    for (const Line &line : outcome.lines)
        EXPECT_EQ(line.result, 0) << line.action;
    // The camera measured the five values in this order.
    const auto measured = camera_measurements(*probe.camera, 0, 4096);
    size_t at = 0;
    for (size_t i = 2; i < 7; i++) {
        while (at < measured.size() && measured[at].raw != outcome.lines[i].extra)
            at++;
        ASSERT_LT(at, measured.size()) << "reading " << i - 2;
        at++;
    }
    EXPECT_TRUE(camera_state(*probe.camera).focus_configured);
}

TEST(Preload, EveryOpenFunctionOpensTheDevice)
{
    for (const char *way : {"open", "open64", "openat"}) {
        const Outcome outcome =
            ProbeCamera({way, "is-device", "config", "read-negative", "close", "config"}).outcome();
        ASSERT_EQ(outcome.lines.size(), 6u) << way;
        for (size_t i = 0; i < 5; i++)
            EXPECT_EQ(outcome.lines[i].result, 0) << way << " " << outcome.lines[i].action;
        EXPECT_EQ(outcome.lines[5].error, EBADF); // closed
    }
}

TEST(Preload, TheDeviceAcceptsItsTwoRequestsOnly)
{
    const Outcome outcome =
        ProbeCamera({"open", "config", "ioctl-other", "ioctl-null", "plain-read", "read"})
            .outcome();
    ASSERT_EQ(outcome.lines.size(), 6u);
    EXPECT_EQ(outcome.lines[2].error, ENOTTY);
    EXPECT_EQ(outcome.lines[3].error, EFAULT);
    EXPECT_EQ(outcome.lines[4].error, EINVAL);
    EXPECT_EQ(outcome.lines[5].result, 0); // still works
}

TEST(Preload, TheDeviceBehavesAsADriverDoes)
{
    CameraOptions options;
    options.scene = "chart";
    options.program = {DEVICE_TEST};
    std::string error;
    const CameraPtr camera = camera_start(options, &error);
    ASSERT_TRUE(camera) << error;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (camera_state(*camera).process.running && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::string text;
    for (const OutputChunk &chunk : camera_output(*camera, 0, 10000))
        text += chunk.bytes;
    EXPECT_EQ(camera_state(*camera).process.last_end, "exit status 0") << text;
    EXPECT_EQ(count_of(text, "ok: "), 76u) << text;
}

TEST(Preload, ForksReturnWhileOtherThreadsUseTheDevice)
{
    const Outcome outcome =
        ProbeCamera({"init", "open", "config", "fork-often", "read", "close"}).outcome();
    ASSERT_EQ(outcome.lines.size(), 6u);
    for (const Line &line : outcome.lines)
        EXPECT_EQ(line.result, 0) << line.action;
}

TEST(Preload, ProgramsBuiltWithAnOlderCLibrarySeeADevice)
{
    std::vector<std::string> actions = {"open"};
    for (const char *name :
         {"__xstat", "__lxstat", "__fxstat", "__xstat64", "__lxstat64", "__fxstat64"})
        actions.insert(actions.end(), {"old-stat", name});
    const Outcome outcome = ProbeCamera(actions).outcome();
    ASSERT_EQ(outcome.lines.size(), 7u);
    for (size_t i = 0; i < outcome.lines.size(); i++)
        EXPECT_EQ(outcome.lines[i].result, 0) << i;
}

TEST(Preload, ReadingsBeforeAConfigurationFailAndWriteNothing)
{
    const Outcome outcome = ProbeCamera({"open", "read", "read", "read"}).outcome();
    ASSERT_EQ(outcome.lines.size(), 4u);
    for (size_t i = 1; i < 4; i++) {
        EXPECT_EQ(outcome.lines[i].error, EINVAL);
        EXPECT_EQ(outcome.lines[i].extra, 0); // the record is unchanged
    }
}

TEST(Preload, FixedPathsAreRedirectedToTheRunDirectory)
{
    const ProbeCamera probe({"byte", PALETTE, "byte", FONT, "stream-byte", FONT, "write",
                             "/var/run/probe.pid", "byte", "/var/run/probe.pid", "byte",
                             "/usr/local/morvel/nothing"});
    const Outcome outcome = probe.outcome();

    ASSERT_EQ(outcome.lines.size(), 6u);
    const std::string root = camera_state(*probe.camera).run_directory;
    std::ifstream palette(root + PALETTE, std::ios::binary);
    EXPECT_EQ(outcome.lines[0].result, palette.get());
    EXPECT_EQ(outcome.lines[1].result, 0); // a TrueType file begins 00 01 00 00
    EXPECT_EQ(outcome.lines[2].result, 0);
    EXPECT_EQ(outcome.lines[3].result, 0);
    EXPECT_EQ(outcome.lines[4].result, 'w');
    EXPECT_EQ(outcome.lines[5].error, ENOENT);
    EXPECT_EQ(std::filesystem::file_size(root + "/var/run/probe.pid"), 7u);
    EXPECT_FALSE(std::filesystem::exists("/var/run/probe.pid"));
}

TEST(Preload, ReadsStopWaitingOnceFcntlSetsNonblocking)
{
    std::vector<std::string> actions = {"open", "config", "read", "set-nonblocking"};
    actions.insert(actions.end(), 20, "read");
    const Outcome outcome = ProbeCamera(actions).outcome();
    ASSERT_EQ(outcome.lines.size(), 24u);
    EXPECT_EQ(outcome.lines[2].error, 0);
    EXPECT_EQ(outcome.lines[3].error, 0);
    const auto fails = std::count_if(outcome.lines.begin() + 4, outcome.lines.end(),
                                     [](const Line &line) { return line.error == EAGAIN; });
    EXPECT_GE(fails, 1); // a thirtieth of a second lies between two measurements
}

TEST(Preload, FixedPathsAreRedirectedForAccessAndCreatToo)
{
    const ProbeCamera probe({"access", FONT, "create", "/var/run/probe.created", "access",
                             "/var/run/probe.created", "access", "/usr/local/morvel/nothing"});
    const Outcome outcome = probe.outcome();
    ASSERT_EQ(outcome.lines.size(), 4u);
    for (size_t i = 0; i < 3; i++)
        EXPECT_EQ(outcome.lines[i].error, 0) << i;
    EXPECT_EQ(outcome.lines[3].error, ENOENT);
    EXPECT_TRUE(std::filesystem::exists(camera_state(*probe.camera).run_directory +
                                        "/var/run/probe.created"));
    EXPECT_FALSE(std::filesystem::exists("/var/run/probe.created"));
}

TEST(Preload, FaultsOfTheDeviceReachTheProgram)
{
    const ProbeCamera probe({"open", "open", "config", "read", "read"},
                            {{"open", EACCES, 1, 0, 0}, {"CAM_FOCUS_READ", EIO, 1, 0, 0}});
    const Outcome outcome = probe.outcome(5);

    ASSERT_EQ(outcome.lines.size(), 5u);
    EXPECT_EQ(outcome.lines[0].error, EACCES);
    EXPECT_EQ(outcome.lines[1].result, 0);
    EXPECT_EQ(outcome.lines[3].error, EIO);
    EXPECT_EQ(outcome.lines[4].result, 0);
    const auto calls = camera_calls(*probe.camera, 0, 4096);
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                            [](const CallRecord &call) { return call.error == EIO; }),
              1);
}

TEST(Preload, WithoutACameraOneLineGivesTheReason)
{
    const std::string text = run_alone("env -u SIMCAM_RUN_DIR", "open open init init");
    EXPECT_EQ(count_of(text, "SIMCAM_RUN_DIR is not set"), 1u) << text;
    EXPECT_EQ(count_of(text, "simcam -- PROGRAM"), 1u) << text;
    EXPECT_EQ(count_of(text, "open -1 " + std::to_string(ENOENT)), 2u) << text;
    EXPECT_EQ(count_of(text, "init -1"), 2u) << text;

    const std::string elsewhere = run_alone("SIMCAM_RUN_DIR=/nowhere", "open");
    EXPECT_EQ(count_of(elsewhere, "nothing answers at /nowhere/socket"), 1u) << elsewhere;
}

TEST(Preload, TheLibraryReportsAMissingCameraWhenItIsLoaded)
{
    const std::string text = run_alone("env -u SIMCAM_RUN_DIR", "byte /etc/passwd");
    EXPECT_EQ(count_of(text, "SIMCAM_RUN_DIR is not set"), 1u) << text;
}

TEST(Preload, WithoutACameraTheFixedPathsDoNotExist)
{
    const std::string text =
        run_alone("env -u SIMCAM_RUN_DIR", "write /var/run/probe.pid byte /etc/passwd");
    EXPECT_EQ(count_of(text, "write -1 " + std::to_string(ENOENT)), 1u) << text;
    EXPECT_EQ(count_of(text, "byte 114 0"), 1u) << text; // "root:...": not redirected
    EXPECT_FALSE(std::filesystem::exists("/var/run/probe.pid"));
}

TEST(Preload, ReadingsFromALostCameraFailAtTheUsualRate)
{
    const TestDirectory temporary;
    const std::string directory = temporary.path.string();
    CameraOptions options;
    options.scene = "chart";
    options.run_directory = directory;
    std::string error;
    CameraPtr camera = camera_start(options, &error);
    ASSERT_TRUE(camera) << error;

    std::string text;
    const auto start = std::chrono::steady_clock::now();
    std::thread probe([&] {
        text = run_alone("SIMCAM_RUN_DIR=" + directory,
                         "open config read wait-for " + directory + "/gone read read read read");
    });
    while (!camera_state(*camera).focus_configured &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(60))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    camera_wait(*camera, camera_state(*camera).latest.number + 1, 60);
    camera.reset();
    const auto gone = std::chrono::steady_clock::now();
    std::ofstream(directory + "/gone") << "now";
    probe.join();

    EXPECT_EQ(count_of(text, "read -1 " + std::to_string(EIO) + " 0"), 4u) << text;
    EXPECT_GE(std::chrono::steady_clock::now() - gone, std::chrono::milliseconds(4 * 33));
}
