// The command line: output and exit status.

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "test_directory.h"

namespace
{

struct Outcome {
    int status = -1;
    std::string text; // both streams
};

Outcome simcam(const std::string &arguments)
{
    Outcome outcome;
    FILE *pipe = popen(("'" SIMCAM "' " + arguments + " 2>&1").c_str(), "r");
    if (!pipe) {
        ADD_FAILURE() << "popen";
        return outcome;
    }
    char bytes[4096];
    for (size_t length; (length = fread(bytes, 1, sizeof bytes, pipe)) > 0;)
        outcome.text.append(bytes, length);
    outcome.status = WEXITSTATUS(pclose(pipe));
    return outcome;
}

void expect_refused(const std::string &arguments, const std::string &words)
{
    const Outcome outcome = simcam(arguments);
    EXPECT_EQ(outcome.status, 2) << arguments;
    EXPECT_EQ(outcome.text.find("simcam: "), 0u) << outcome.text;
    EXPECT_NE(outcome.text.find(words), std::string::npos) << outcome.text;
}

} // namespace

TEST(CommandLine, WrongUsageIsExplainedAndExitsWithTwo)
{
    expect_refused("--post 4=1280x720", "--post 4=1280x720");
    expect_refused("--post 1280x720", "must be an output 0 to 3");
    expect_refused("--post 0=big", "\"big\" is not a size");
    expect_refused("--post 0=8x8", "must be 16 to 4096");
    expect_refused("--pitch-align 5", "1, 8, 16, 32 or 64");
    expect_refused("--ring 2", "must be 0 to 1");
    expect_refused("--ring left", "left");
    expect_refused("--rate 0", "must be 1 to 240");
    expect_refused("--scene /no/such/picture.png", "/no/such/picture.png");
    expect_refused("--unknown", "--unknown");
    expect_refused("-- /no/such/program", "/no/such/program");
    expect_refused("--seed -1", "--seed: must be 0 or more");
    expect_refused("--platform /no/such/folder -- /bin/true", "/no/such/folder/libqm7codec.so.2.0");
}

TEST(CommandLine, HelpNamesEveryOptionAndExitsWithZero)
{
    const Outcome outcome = simcam("--help");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.text.find("Usage: simcam [options] [-- PROGRAM ARGS...]"), std::string::npos);
    for (const char *option :
         {"--scene NAME", "--post N=WIDTHxHEIGHT", "--ring X", "--sweep ", "--sweep-period SECONDS",
          "--seed N", "--pitch-align BYTES", "--rate HZ", "--listen ADDRESS:PORT",
          "--snapshot DIRECTORY", "--run-dir DIRECTORY", "--platform DIRECTORY"})
        EXPECT_NE(outcome.text.find(option), std::string::npos) << option;
    for (const char *word : {"N=off", "0.5 to 3600", "1 to 240"})
        EXPECT_NE(outcome.text.find(word), std::string::npos) << word;
    for (const char *jargon : {"UINT", "INT", "FLOAT", "TEXT", "NONNEGATIVE", "..."})
        EXPECT_EQ(outcome.text.find(std::string(" ") + jargon), std::string::npos) << jargon;
}

// Mean squared difference of neighboring pixels, which the lens's blur reduces.
static double steps(const std::filesystem::path &file)
{
    cv::Mat picture;
    cv::imread(file, cv::IMREAD_GRAYSCALE).convertTo(picture, CV_64F);
    if (picture.cols < 2)
        return 0;
    const cv::Mat step = picture.colRange(1, picture.cols) - picture.colRange(0, picture.cols - 1);
    return cv::mean(step.mul(step))[0];
}

TEST(CommandLine, WritesASnapshotOfEachRunningPostAndExits)
{
    const TestDirectory temporary;
    const std::filesystem::path &directory = temporary.path;

    const Outcome outcome = simcam("--scene chart --post 0=352x240 --post 2=720x480 --snapshot " +
                                   (directory / "new").string());

    EXPECT_EQ(outcome.status, 0) << outcome.text;
    std::map<std::string, double> post0, post2; // sharpness by name, in the order of the stops
    for (const auto &file : std::filesystem::directory_iterator(directory / "new")) {
        const std::string base = file.path().filename().string();
        EXPECT_EQ(file.path().extension(), ".png");
        EXPECT_NE(outcome.text.find(base), std::string::npos);
        ASSERT_TRUE(base.starts_with("post0-") || base.starts_with("post2-")) << base;
        (base.starts_with("post0-") ? post0 : post2)[base] = steps(file.path());
    }
    for (const auto &post : {post0, post2}) {
        std::vector<double> sharpness;
        for (const auto &[base, value] : post)
            sharpness.push_back(value);
        ASSERT_EQ(sharpness.size(), 5u);
        EXPECT_LT(1.2 * sharpness[0], sharpness[1]);
        EXPECT_LT(1.2 * sharpness[1], sharpness[2]);
        EXPECT_GT(sharpness[2], 1.2 * sharpness[3]);
        EXPECT_GT(sharpness[3], 1.2 * sharpness[4]);
    }
}

// Mean difference of two pictures inside and outside the readout, in levels per channel.
static std::pair<double, double> distances(const cv::Mat &one, const cv::Mat &other,
                                           const cv::Rect &readout)
{
    cv::Mat difference;
    cv::absdiff(one, other, difference);
    const cv::Scalar inside = cv::mean(difference(readout));
    difference(readout) = cv::Scalar();
    const cv::Scalar outside = cv::mean(difference);
    return {(inside[0] + inside[1] + inside[2]) / 3, (outside[0] + outside[1] + outside[2]) / 3};
}

TEST(CommandLine, SnapshotsOfTheOverlayShowItsReadout)
{
    const TestDirectory temporary;
    const std::filesystem::path &directory = temporary.path;
    const std::string options = "--scene chart --post 0=1280x720 --snapshot ";

    const Outcome with = simcam(options + (directory / "with").string() + " -- '" FOCUS_ASSIST "'");
    const Outcome without = simcam(options + (directory / "without").string());

    EXPECT_EQ(with.status, 0) << with.text;
    EXPECT_EQ(without.status, 0) << without.text;
    const cv::Rect readout(400, 576 - 42, 480, 72 + 42); // text, and the bar below it
    size_t pictures = 0;
    for (const auto &file : std::filesystem::directory_iterator(directory / "with")) {
        const cv::Mat one = cv::imread(file.path());
        const cv::Mat other = cv::imread(directory / "without" / file.path().filename());
        ASSERT_EQ(one.size(), cv::Size(1280, 720)) << file.path();
        ASSERT_EQ(other.size(), one.size()) << file.path();
        const auto [inside, outside] = distances(one, other, readout);
        EXPECT_GT(inside, 20) << file.path();
        EXPECT_LT(outside, 6) << file.path(); // the noise of another picture
        pictures++;
    }
    EXPECT_EQ(pictures, 5u);
}

TEST(CommandLine, SnapshotsOfAProgramThatEndsAreRefusedWithItsStatus)
{
    const TestDirectory temporary;
    const std::filesystem::path &directory = temporary.path;

    const Outcome outcome = simcam("--scene chart --post 0=352x240 --snapshot " +
                                   directory.string() + " -- /bin/sh -c 'exit 3'");

    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.text, "simcam: the program has ended: exit status 3\n");
}

TEST(CommandLine, AnInterruptEndsSnapshotsThatWaitForAReadout)
{
    const TestDirectory temporary;
    const std::filesystem::path &directory = temporary.path;
    const std::string started = (directory / "started").string();
    const pid_t child = fork();
    if (child == 0) {
        execl(SIMCAM, SIMCAM, "--scene", "chart", "--snapshot", directory.c_str(), "--", "/bin/sh",
              "-c", "echo >\"$0\"; exec sleep 1000", started.c_str(), nullptr);
        _exit(127);
    }
    while (!std::filesystem::exists(started))
        usleep(10000);

    EXPECT_EQ(kill(child, SIGINT), 0);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    for (const auto &file : std::filesystem::directory_iterator(directory))
        EXPECT_EQ(file.path().filename(), "started"); // it exited before taking any picture
}

TEST(CommandLine, AnInterruptEndsSimcamAndItsProgram)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        int out[2];
        ASSERT_EQ(pipe(out), 0);
        const pid_t child = fork();
        if (child == 0) {
            dup2(out[1], 1);
            execl(SIMCAM, SIMCAM, "--scene", "chart", "--listen", "127.0.0.1:0", "--", "/bin/sleep",
                  "1000", nullptr);
            _exit(127);
        }
        close(out[1]);
        char first = 0;
        EXPECT_EQ(read(out[0], &first, 1), 1); // the first line: it is ready

        EXPECT_EQ(kill(child, signal), 0);
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
        char rest[256];
        while (read(out[0], rest, sizeof rest) > 0) {
        } // ends when no process, not even a leftover program, holds the other end
        close(out[0]);
    }
}
