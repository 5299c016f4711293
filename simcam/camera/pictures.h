// Pictures of the simulated camera, made by camera.cpp. Callable from any thread; the results are
// copies. Not in camera.h, which needs no picture library.
#pragma once

#include <opencv2/core.hpp>

#include "board/state.h"
#include "picture/compose.h"

namespace simcam
{

struct Camera;

// The picture that a post's output shows now, 8-bit BGR at the post's size, with or without its
// planes; empty while the post is off.
cv::Mat camera_picture(Camera &camera, int post, bool with_planes);
// The sensor's picture, 8-bit BGR, without planes; empty before the first measurement.
cv::Mat camera_sensor_picture(Camera &camera);

// The memory of plane, which must outlive the result, and how its pixels lie in it.
inline ShownPlane shown_plane(const PlaneImage &plane)
{
    const PlaneState &state = plane.state;
    return {plane.bytes.data(), plane.bytes.size(), state.width, state.height,
            state.pitch,        state.depth_code,   state.x,     state.y};
}

} // namespace simcam
