// Pictures of the simulated camera, made by camera.cpp. Callable from any thread; a result
// never changes. Not in camera.h, which needs no picture library.
#pragma once

#include <cstdint>
#include <memory>

#include <opencv2/core.hpp>

#include "board/state.h"
#include "picture/compose.h"

namespace simcam
{

struct Camera;

// The sensor's newest picture, 8-bit BGR, and the number of its measurement; null and 0 before the
// first measurement.
struct SensorPicture {
    std::shared_ptr<const cv::Mat> pixels;
    uint64_t number = 0;
};
// The sensor frees the memory of a picture that it did not need again for this many pictures.
constexpr int PICTURES_KEPT = 60;
SensorPicture camera_sensor_picture(Camera &camera);

// What a post's output shows of a sensor's picture, 8-bit BGR at the post's size, with or without
// the planes as they are now; empty while the post is off.
cv::Mat camera_picture(Camera &camera, const SensorPicture &sensor, int post, bool with_planes);
inline cv::Mat camera_picture(Camera &camera, int post, bool with_planes)
{
    return camera_picture(camera, camera_sensor_picture(camera), post, with_planes);
}

// The memory of plane, which must outlive the result, and how its pixels lie in it.
inline ShownPlane shown_plane(const PlaneImage &plane)
{
    const PlaneState &state = plane.state;
    return {plane.bytes.data(), plane.bytes.size(), state.width, state.height,
            state.pitch,        state.depth_code,   state.x,     state.y};
}

} // namespace simcam
