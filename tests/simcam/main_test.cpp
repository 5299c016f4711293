// The command line: what it says, how it ends.

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

struct Outcome {
    int status = -1;
    std::string text; // both streams
};

Outcome simcam(const std::string &arguments)
{
    Outcome outcome;
    FILE *pipe = popen((SIMCAM " " + arguments + " 2>&1").c_str(), "r");
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

TEST(CommandLine, WrongUseIsExplainedWithStatusTwo)
{
    expect_refused("--post 4=1280x720", "--post 4=1280x720");
    expect_refused("--post 1280x720", "give a post 0 to 3");
    expect_refused("--post 0=big", "\"big\" is no size");
    expect_refused("--post 0=8x8", "between 16 and 4096");
    expect_refused("--pitch-align 5", "1, 8, 16, 32 or 64");
    expect_refused("--ring 2", "between 0 and 1");
    expect_refused("--ring left", "left");
    expect_refused("--rate 0", "between 1 and 240");
    expect_refused("--scene /no/such/picture.png", "/no/such/picture.png");
    expect_refused("--unknown", "--unknown");
    expect_refused("-- /no/such/program", "/no/such/program");
    expect_refused("--seed -1", "--seed");
    expect_refused("--platform /no/such/folder -- /bin/true", "/no/such/folder/libqm7codec.so.2.0");
}

TEST(CommandLine, HelpNamesEveryOptionAndEndsWell)
{
    const Outcome outcome = simcam("--help");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.text.find("Usage: simcam [options] [-- PROGRAM ARGS...]"), std::string::npos);
    for (const char *option : {"--scene", "--post", "--ring", "--sweep", "--seed", "--pitch-align",
                               "--rate", "--listen", "--snapshot", "--run-dir"})
        EXPECT_NE(outcome.text.find(option), std::string::npos) << option;
}

TEST(CommandLine, SnapshotsComeOneARunningPostAndStop)
{
    std::string name = (std::filesystem::temp_directory_path() / "main-XXXXXX").string();
    const std::filesystem::path directory = mkdtemp(name.data());

    const Outcome outcome = simcam("--scene chart --post 0=352x240 --post 2=720x480 --snapshot " +
                                   (directory / "new").string());

    EXPECT_EQ(outcome.status, 0) << outcome.text;
    size_t post0 = 0, post2 = 0;
    for (const auto &file : std::filesystem::directory_iterator(directory / "new")) {
        const std::string base = file.path().filename().string();
        EXPECT_EQ(file.path().extension(), ".png");
        EXPECT_NE(outcome.text.find(base), std::string::npos);
        post0 += base.starts_with("post0-") ? 1u : 0u;
        post2 += base.starts_with("post2-") ? 1u : 0u;
    }
    EXPECT_EQ(post0, 5u);
    EXPECT_EQ(post2, 5u);
    std::filesystem::remove_all(directory);
}

TEST(CommandLine, SnapshotsOfAProgramThatEndsAreRefusedWithItsStatus)
{
    std::string name = (std::filesystem::temp_directory_path() / "main-XXXXXX").string();
    const std::filesystem::path directory = mkdtemp(name.data());

    const Outcome outcome = simcam("--scene chart --post 0=352x240 --snapshot " +
                                   directory.string() + " -- /bin/sh -c 'exit 3'");

    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.text, "simcam: the program has ended: exit status 3\n");
    std::filesystem::remove_all(directory);
}

TEST(CommandLine, AnInterruptEndsSnapshotsThatWaitForAReadout)
{
    std::string name = (std::filesystem::temp_directory_path() / "main-XXXXXX").string();
    const std::filesystem::path directory = mkdtemp(name.data());
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
        EXPECT_EQ(file.path().filename(), "started"); // it did not go through its stops first
    std::filesystem::remove_all(directory);
}

TEST(CommandLine, AnInterruptEndsItAndItsProgram)
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
        EXPECT_EQ(read(out[0], &first, 1), 1); // its line: it is up

        EXPECT_EQ(kill(child, signal), 0);
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
        char rest[256];
        while (read(out[0], rest, sizeof rest) > 0) {
        } // ends when nobody, a left over program neither, holds the other end
        close(out[0]);
    }
}
