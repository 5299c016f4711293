// The records that describe a simulated camera from outside: what it is started with, what state it
// is in, what it has done. Plain data, without any picture library.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace simcam
{

constexpr int POST_COUNT = 4;
constexpr int PLANE_COUNT = 4;
constexpr uint32_t FAULT_FOREVER = 0xFFFFFFFF;

struct CameraOptions {
    // "photo", "chart", or the path of a picture, a video file or a /dev/video*
    std::string scene = "photo";
    std::array<std::string, POST_COUNT> post_size; // "1920x1080", or empty: off
    double ring = 0.0;                             // 0 (near stop) .. 1 (far stop)
    bool sweep = false;                            // the lens racks through focus and back
    double sweep_period_s = 12.0;
    uint64_t seed = 1;         // same seed, same numbers
    uint32_t pitch_align = 16; // bytes: 1, 8, 16, 32 or 64
    double rate_hz = 30.0;     // measurements a second
    // The socket and the files behind the fixed paths; empty: made for the run and removed after
    // it. Files that stand in a named one already (another palette, another font) are kept.
    std::string run_directory;
    std::vector<std::string> program; // the overlay process and its arguments; may be empty
    // The codec library and the preload object for the program; empty: those built with simcam.
    std::string platform_directory;
};

// One reading of the sharpness. raw is what /dev/cam hands out; value = raw / 100 is what the
// readout shows.
struct Measurement {
    uint64_t number = 0; // 1 for the first
    double time_s = 0;   // since the camera's start
    uint32_t raw = 0;
    uint32_t value = 0;
    double ring = 0;
    double blur_px = 0; // diameter of the blur disc, pixels of the sensor picture
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
    uint32_t width = 0, height = 0; // kept while off: what it starts with next
    uint32_t res_id = 0;
    uint64_t starts = 0;
    std::array<PlaneState, PLANE_COUNT> plane;
};

struct ProcessState {
    bool configured = false; // a program was named
    bool running = false;
    bool attached = false; // an overlay process (ours or another) has initialized the library
    int pid = 0;
    uint64_t starts = 0;
    double cpu_percent = 0;
    uint64_t resident_bytes = 0;
    std::string last_end; // "", "exit status 1", "signal 9 (Killed)"
};

// A fault that is armed. call is a library function's name, or "open", "CAM_FOCUS_CONFIG",
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
    double time_s = 0;
    int pid = 0;
    std::string call;
    std::string arguments; // as text: "postResId=0x51000000, OSD num=0"
    int32_t result = 0;
    uint32_t error = 0;
};

// A piece of what the overlay process wrote, as it came.
struct OutputChunk {
    uint64_t number = 0; // 1 for the first
    double time_s = 0;
    int stream = 1; // 1 standard output, 2 standard error
    std::string bytes;
};

struct CameraState {
    double time_s = 0;
    double ring = 0;
    bool sweep = false;
    double sweep_period_s = 0;
    std::string scene;
    double gain = 1.0; // multiplies the picture
    double rate_hz = 0;
    double measured_rate_hz = 0; // over the last second
    uint32_t pitch_align = 0;
    uint64_t seed = 0;
    bool focus_configured = false; // /dev/cam got its configuration
    Measurement latest;
    std::array<PostState, POST_COUNT> post;
    ProcessState process;
    std::vector<Fault> faults;
    std::string run_directory;
    uint64_t dropped_reports = 0;
};

// Raw memory of a plane as it is shown now; empty bytes while nothing is.
struct PlaneImage {
    PlaneState state;
    std::vector<uint8_t> bytes;
};

} // namespace simcam
