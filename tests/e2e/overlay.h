// A simulated camera that runs the overlay process, for tests.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "camera/camera.h"
#include "readout.h"

struct Overlay {
    simcam::CameraPtr camera;

    // All four outputs run unless posts says otherwise.
    explicit Overlay(const simcam::CameraOptions &options);
    ~Overlay();
    Overlay(const Overlay &) = delete;
    Overlay &operator=(const Overlay &) = delete;

    simcam::Camera &operator*() const
    {
        return *camera;
    }
    simcam::CameraState state() const;
    // Waits up to a minute until the condition holds; a failure names what.
    void wait(const char *what, const std::function<bool()> &condition) const;
    // Waits until bar and text of the post have each been shown count more times.
    void wait_redraws(int post, uint64_t count = 1) const;
    void wait_process_end() const;
    // Waits until the process has written the text to a stream. The output comes through a pipe: it
    // may arrive after the effects of later calls.
    void wait_output(int stream, const std::string &text) const;
    // The readout that a post shows now.
    Readout readout(int post) const;
    // The output of the process on a stream so far.
    std::string output(int stream) const;
    std::string everything() const;
    size_t calls(const std::string &name, uint32_t error) const;
};

// While it lives, overlays that start sleep shorter between two redraws. The loader takes no path
// with a space in LD_PRELOAD, so the folder is in LD_LIBRARY_PATH.
struct FastSleep {
    FastSleep();
    ~FastSleep();
};

simcam::CameraOptions overlay_options(const std::string &post0 = "1280x720");
simcam::CameraOptions overlay_options_all_posts();
