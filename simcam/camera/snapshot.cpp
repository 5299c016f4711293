// The ring positions and the files.

#include "camera/snapshot.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <thread>

#include <opencv2/imgcodecs.hpp>

#include "camera/pictures.h"
#include "picture/lens.h"

namespace simcam
{

using Clock = std::chrono::steady_clock;

// Offsets from best focus: toward it, on it, past it.
static const double STOPS[] = {-0.20, -0.08, 0.0, 0.08, 0.20};

// Whether the bar and the text (planes 0 and 1) of every running post have been redrawn that many
// times since before.
static bool redrawn_since(const CameraState &before, const CameraState &now, uint64_t times)
{
    for (size_t post = 0; post < POST_COUNT; post++) {
        if (!now.post[post].running)
            continue;
        for (size_t plane = 0; plane < 2; plane++)
            if (now.post[post].plane[plane].shows < before.post[post].plane[plane].shows + times)
                return false;
    }
    return true;
}

// Waits until every readout was redrawn, at most timeout_s: a post of a size without a readout
// never is. Returns an empty string, or why the snapshot must end.
static std::string wait_for_readout(Camera &camera, double timeout_s,
                                    const std::function<bool()> &interrupted)
{
    const CameraState before = camera_state(camera);
    const auto deadline = Clock::now() + std::chrono::duration<double>(timeout_s);
    do {
        if (interrupted())
            return "interrupted";
        const CameraState now = camera_state(camera);
        if (now.process.configured && !now.process.running)
            return "the program has ended: " + now.process.last_end;
        if (!now.process.configured || redrawn_since(before, now, 2))
            return {};
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (Clock::now() < deadline);
    return {};
}

std::string snapshot_write(Camera &camera, const std::string &directory,
                           const std::function<bool()> &interrupted)
{
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error)
        return directory + ": " + error.message();
    std::string problem = wait_for_readout(camera, 10, interrupted); // the process is starting
    if (!problem.empty())
        return problem;

    int stop = 0;
    for (const double offset : STOPS) {
        const double ring = std::fmin(1.0, std::fmax(0.0, lens_best_ring() + offset));
        camera_set_ring(camera, ring);
        const uint64_t number = camera_latest(camera).number;
        camera_wait(camera, number + 2, 10); // one picture may have been made for the old position
        problem = wait_for_readout(camera, 5, interrupted);
        if (!problem.empty())
            return problem;

        stop++;
        for (int post = 0; post < POST_COUNT; post++) {
            const cv::Mat picture = camera_picture(camera, post, true);
            if (picture.empty())
                continue;
            char name[64];
            std::snprintf(name, sizeof name, "post%d-%d-ring-%.3f.png", post, stop, ring);
            const std::string path = (std::filesystem::path(directory) / name).string();
            if (!cv::imwrite(path, picture))
                return path + ": cannot be written";
            std::printf("%s\n", path.c_str());
        }
    }
    return {};
}

} // namespace simcam
