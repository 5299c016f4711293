// Controls and observes the fake implementation of simcam/camera/camera.h.
#pragma once

#include <string>
#include <vector>

#include "camera/camera.h"

namespace simcam
{

// Adds a measurement with this display value, 1/32 s after the last one, and wakes waiting threads.
void fake_measure(Camera &camera, uint32_t value);
// Adds output of the overlay process.
void fake_write(Camera &camera, int stream, const std::string &bytes);
// Adds a call of the library.
void fake_call(Camera &camera, const std::string &call, uint32_t error);
// Replaces the state, so that a test can give a member another value than its default. The states
// of planes are those of fake_show().
void fake_set_state(Camera &camera, const CameraState &state);
// Shows bytes on a plane: one palette index a byte.
void fake_show(Camera &camera, int post, int plane, const PlaneState &state,
               const std::vector<uint8_t> &bytes);
// The functions of camera.h that changed something, as text, oldest first: "ring 0.5", "stop 2".
std::vector<std::string> fake_changes(Camera &camera);
// Fills the pictures of posts with noise, which does not compress.
void fake_noise(Camera &camera);
// From now on a measurement follows each call for the latest one or for a picture.
void fake_hurry(Camera &camera);
// The gray level of the corner at the bottom right of the pictures of a measurement, 40 pixels wide
// and high.
constexpr int fake_corner(uint64_t number)
{
    return static_cast<int>(number % 16 * 16);
}
// Number of pictures taken of posts since the start.
int fake_pictures(Camera &camera);

} // namespace simcam
