// What tests can do to the fake behind simcam/camera.h, and see of it.
#pragma once

#include <string>
#include <vector>

#include "camera/camera.h"

namespace simcam
{

// Makes one more measurement of this display value; wakes who waits.
void fake_measure(Camera &camera, uint32_t value);
// Adds what an overlay process would have written.
void fake_write(Camera &camera, int stream, const std::string &bytes);
// Adds a call of the library.
void fake_call(Camera &camera, const std::string &call, uint32_t error);
// Shows bytes on a plane: one palette index a byte.
void fake_show(Camera &camera, int post, int plane, const PlaneState &state,
               const std::vector<uint8_t> &bytes);
// The functions of camera.h that changed something, as text, oldest first: "ring 0.5", "stop 2".
std::vector<std::string> fake_changes(Camera &camera);
// Makes the pictures of posts noise, which no format makes small.
void fake_noise(Camera &camera);
// Pictures taken of posts since the start.
int fake_pictures(Camera &camera);

} // namespace simcam
