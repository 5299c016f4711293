// Starts the camera with the overlay process, waits for conditions and reads what is shown.

#include "overlay.h"

#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sstream>
#include <thread>

using namespace simcam;

constexpr int PATIENCE_S = 60; // enough for a busy machine

// The overlay process of this build, or the tab-separated words of FOCUS_TEST_PROGRAM: an emulator
// and a program for the camera's architecture.
static void choose_program(CameraOptions *options)
{
    options->program = {FOCUS_ASSIST};
    const char *program = std::getenv("FOCUS_TEST_PROGRAM");
    const char *platform = std::getenv("FOCUS_TEST_PLATFORM");
    if (!program || !platform)
        return;
    std::istringstream words(program);
    options->program.clear();
    for (std::string word; std::getline(words, word, '\t');)
        options->program.push_back(word);
    options->platform_directory = platform;
}

FastSleep::FastSleep()
{
    setenv("LD_PRELOAD", FAST_SLEEP, 1);
    setenv("LD_LIBRARY_PATH", FAST_SLEEP_FOLDER, 1);
}

FastSleep::~FastSleep()
{
    unsetenv("LD_PRELOAD");
    unsetenv("LD_LIBRARY_PATH");
}

CameraOptions overlay_options(const std::string &post0)
{
    CameraOptions options;
    options.scene = "chart";
    options.post_size[0] = post0;
    choose_program(&options);
    return options;
}

CameraOptions overlay_options_all_posts()
{
    CameraOptions options = overlay_options();
    options.post_size = {"1920x1080", "1280x720", "720x480", "352x240"};
    return options;
}

Overlay::Overlay(const CameraOptions &options)
{
    std::string error;
    // cppcheck-suppress useInitializationList ; error must exist first
    camera = camera_start(options, &error);
    if (!camera)
        throw std::runtime_error(error);
}

Overlay::~Overlay()
{
    const std::string words = everything();
    for (const char *report : {"Sanitizer: ", "runtime error: "})
        EXPECT_EQ(words.find(report), words.npos) << "the process was built with a sanitizer";
    if (testing::Test::HasFailure())
        std::fprintf(stderr, "%s", words.c_str());
}

CameraState Overlay::state() const
{
    return camera_state(*camera);
}

void Overlay::wait(const char *what, const std::function<bool()> &condition) const
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(PATIENCE_S);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error(std::string("never came: ") + what + "\n" + everything());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void Overlay::wait_redraws(int post, uint64_t count) const
{
    const auto shows = [&](size_t plane) {
        return state().post[static_cast<size_t>(post)].plane[plane].shows;
    };
    const uint64_t bar = shows(0), text = shows(1);
    wait("a redraw", [&] { return shows(0) >= bar + count && shows(1) >= text + count; });
}

void Overlay::wait_process_end() const
{
    wait("the end of the process", [&] {
        const ProcessState process = state().process;
        return process.starts > 0 && !process.running;
    });
}

void Overlay::wait_output(int stream, const std::string &text) const
{
    wait(text.c_str(), [&] { return output(stream).find(text) != std::string::npos; });
}

Readout Overlay::readout(int post) const
{
    const PostState now = state().post[static_cast<size_t>(post)];
    return readout_read(static_cast<int>(now.width), static_cast<int>(now.height),
                        camera_plane(*camera, post, 0), camera_plane(*camera, post, 1));
}

std::string Overlay::output(int stream) const
{
    std::string text;
    for (const OutputChunk &chunk : camera_output(*camera, 0, 100000))
        if (chunk.stream == stream)
            text += chunk.bytes;
    return text;
}

std::string Overlay::everything() const
{
    return "standard output: " + output(1) + "\nstandard error: " + output(2) + "\n";
}

size_t Overlay::calls(const std::string &name, uint32_t error) const
{
    size_t count = 0;
    for (const CallRecord &call : camera_calls(*camera, 0, 100000))
        count += call.call == name && call.error == error ? 1u : 0u;
    return count;
}
