// What all requests to one server share.
#pragma once

#include <atomic>
#include <string>

#include "camera/camera.h"
#include "web/frames.h"

namespace simcam
{

struct Web {
    Camera &camera;
    FrameCache frames;
    std::string session; // differs from server to server; ids of events are valid in one session
    std::atomic<bool> stopping{false};
    std::atomic<unsigned> streams{0}; // that are open

    explicit Web(Camera &its_camera) : camera(its_camera), frames(its_camera)
    {
    }
};

} // namespace simcam
