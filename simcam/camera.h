// The simulated camera as one record: what the web interface, the command line and the tests see of it.
//
// Every function may be called from any thread; none blocks longer than a picture takes to make
// but camera_wait, which says so. Results are copies: nothing handed out stays connected to the
// camera. Functions that can refuse return an empty string on success and otherwise a sentence
// for a person ("post 7: there are only posts 0 to 3").
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace simcam
{

constexpr int POST_COUNT = 4;
constexpr int PLANE_COUNT = 4;
constexpr uint32_t FAULT_FOREVER = 0xFFFFFFFF;

struct CameraOptions {
    std::string scene = "photo"; // "photo", "chart", or the path of a picture, a video file or a /dev/video*
    std::array<std::string, POST_COUNT> post_size; // "1920x1080", or empty: off
    double ring = 0.0;           // 0 (near stop) .. 1 (far stop)
    bool sweep = false;          // the lens racks through focus and back
    double sweep_period_s = 12.0;
    uint64_t seed = 1;           // same seed, same numbers
    uint32_t pitch_align = 16;   // bytes: 1, 8, 16, 32 or 64
    double rate_hz = 30.0;       // measurements a second
    std::string run_directory;   // socket, log and the files behind the fixed paths; empty: made and removed
    std::vector<std::string> program; // the overlay process and its arguments; may be empty
};

// One reading of the sharpness. raw is what /dev/cam hands out; value = raw / 100 is what the readout shows.
struct Measurement {
    uint64_t number = 0; // 1 for the first
    double time_s = 0;   // since the camera's start
    uint32_t raw = 0;
    uint32_t value = 0;
    double ring = 0;
    double blur_px = 0;  // diameter of the blur disc, pixels of the sensor picture
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
    bool attached = false;   // an overlay process (ours or another) has initialised the library
    int pid = 0;
    uint64_t starts = 0;
    double cpu_percent = 0;
    uint64_t resident_bytes = 0;
    std::string last_end; // "", "exit status 1", "signal 9 (Killed)"
};

// A fault that is armed. call is a library function's name, or "open", "CAM_FOCUS_CONFIG", "CAM_FOCUS_READ" of the device.
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
    double gain = 1.0;  // multiplies the picture
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

struct Camera;

// Makes and starts a camera. Returns null with *error filled where an option is not to be had.
std::shared_ptr<Camera> camera_start(const CameraOptions &options, std::string *error);
// Ends the overlay process if it is ours, every client, every thread. The record is dead afterwards.
void camera_stop(Camera &camera);

CameraState camera_state(Camera &camera);

std::string camera_set_ring(Camera &camera, double ring); // 0..1; stops a sweep
void camera_set_sweep(Camera &camera, bool on, double period_s);
std::string camera_set_scene(Camera &camera, const std::string &scene);
std::string camera_set_gain(Camera &camera, double gain); // 0.1..8: a step of exposure
void camera_flash(Camera &camera);                        // one bright picture, as of a flash light
std::string camera_start_post(Camera &camera, int post, uint32_t width, uint32_t height);
std::string camera_stop_post(Camera &camera, int post);

std::vector<std::string> camera_fault_calls();
std::string camera_set_fault(Camera &camera, const Fault &fault); // replaces one of the same call
void camera_clear_faults(Camera &camera);

std::string camera_process_start(Camera &camera);
std::string camera_process_stop(Camera &camera); // SIGTERM
std::string camera_process_kill(Camera &camera); // SIGKILL

// Waits until a measurement after number exists, at most timeout_s; false where none came.
bool camera_wait(Camera &camera, uint64_t number, double timeout_s);
// What came after number, oldest first, at most limit; old records are dropped (4096 are kept of each kind).
std::vector<Measurement> camera_measurements(Camera &camera, uint64_t after, size_t limit);
std::vector<CallRecord> camera_calls(Camera &camera, uint64_t after, size_t limit);
std::vector<OutputChunk> camera_output(Camera &camera, uint64_t after, size_t limit);

// The post's picture, 8-bit BGR at the post's size, as the output shows it now, with or without its planes; empty while the post is off.
cv::Mat camera_picture(Camera &camera, int post, bool with_planes);
// The sensor's picture through the lens, 1280 x 720, 8-bit BGR, without planes.
cv::Mat camera_sensor_picture(Camera &camera);
PlaneImage camera_plane(Camera &camera, int post, int plane);
// The colour table as applied last: 256 entries of 4 bytes.
std::vector<uint8_t> camera_palette(Camera &camera);

} // namespace simcam
