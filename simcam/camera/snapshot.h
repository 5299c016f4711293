// Pictures without a browser.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "camera/camera.h"

namespace simcam
{

// Turns the ring through the peak, waits at each stop until the overlay process (if one was named)
// has redrawn its readout, and writes one PNG a running post and stop into directory. It is given
// up once interrupted() is true, or the process has ended. Returns an empty string, or what went
// wrong.
std::string snapshot_write(Camera &camera, const std::string &directory,
                           const std::function<bool()> &interrupted);

} // namespace simcam
