// Pictures without a browser.
#pragma once

#include <functional>
#include <string>

#include "camera/camera.h"

namespace simcam
{

// Turns the ring through the peak in steps, waits at each until the overlay process (if there is
// one) has redrawn its readout, and writes a PNG of every running post into directory. Ends early
// once interrupted() is true or the process has ended. Returns an empty string, or what went wrong.
std::string snapshot_write(Camera &camera, const std::string &directory,
                           const std::function<bool()> &interrupted);

} // namespace simcam
