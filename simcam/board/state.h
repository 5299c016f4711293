// The records that a board is described by: posts, planes, measurements, faults, calls.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "board/focus.h"
#include "board/limits.h"

namespace simcam
{

constexpr uint32_t FAULT_FOREVER = 0xFFFFFFFF;

// One reading of the sharpness. raw is what /dev/cam hands out; value is what the readout shows.
struct Measurement {
    uint64_t number = 0; // 1 for the first
    double time_s = 0;   // since the camera's start
    uint32_t raw = 0;
    uint32_t value = 0; // focus_value(raw)
    double ring = 0;
    double blur_px = 0;     // diameter of the blur disc, pixels of the sensor picture
    OverlayFocus overlay{}; // as this measurement was published, before the overlay could read it
};

struct PlaneState {
    bool open = false;
    bool shown = false;
    uint32_t width = 0, height = 0, depth_code = 0, pitch = 0; // pixels, lines, code, bytes
    uint32_t x = 0, y = 0;
    uint32_t osd_id = 0;
    uint64_t shows = 0; // buffers shown since it was opened
};

struct PostState {
    bool running = false;
    uint32_t width = 0, height = 0; // kept while off: the size of its next start
    uint32_t res_id = 0;
    uint64_t starts = 0;
    std::array<PlaneState, PLANE_COUNT> plane;
};

// The memory of a plane as it is shown; bytes are empty while nothing is shown.
struct PlaneImage {
    PlaneState state;
    std::vector<uint8_t> bytes;
};

// An armed fault. call is a library function's name, or "open", "CAM_FOCUS_CONFIG",
// "CAM_FOCUS_READ" of the device.
struct Fault {
    std::string call;
    uint32_t error = 0;     // errno code; 0: the call succeeds and is only slow
    uint32_t remaining = 0; // calls still to hit; FAULT_FOREVER
    uint32_t delay_ms = 0;
    uint64_t hits = 0;
};

struct CallRecord {
    uint64_t number = 0; // 1 for the first
    double time_s = 0;   // since the camera's start
    int pid = 0;
    std::string call;
    std::string arguments; // as text: "postResId=0x51000000, OSD num=0"
    int32_t result = 0;
    uint32_t error = 0;
};

} // namespace simcam
