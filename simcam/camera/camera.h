// The simulated camera put together: what the web interface, the command line and the tests use.
// Pictures are in camera/pictures.h.
//
// Every function may be called from any thread; those that may take longer than one picture say so.
// Results are copies. Functions that can refuse return an empty string on success and otherwise a
// sentence for the user ("gain must be 0.1 to 8").
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "board/board.h"
#include "process/process.h"

namespace simcam
{

struct CameraOptions {
    // A built-in scene, or the path of a picture, a video file or a /dev/video*
    std::string scene = "photo";
    std::array<std::string, POST_COUNT> post_size; // "1920x1080", or empty: off
    double ring = 0.0;                             // RING_RANGE
    bool sweep = false;                            // the ring turns to and fro
    double sweep_period_s = SWEEP_DEFAULT_S;
    double noise = NOISE_DEFAULT; // NOISE_RANGE
    uint64_t seed = 1;            // same seed, same numbers
    uint32_t pitch_align = 16;    // one of PITCH_ALIGNS
    double rate_hz = 30.0;        // measurements a second
    // Holds the socket and the files of the fixed paths; empty: made for the run and removed after
    // it. Existing files of a named one (another palette, another font) are kept.
    std::string run_directory;
    std::vector<std::string> program; // the overlay process and its arguments; may be empty
    // The folder of the codec library and the preload object; empty: those built with simcam.
    std::string platform_directory;
    double kill_after_s = 2; // from SIGTERM to SIGKILL when the camera stops
};

struct CameraState : BoardState {
    double time_s = 0; // since the camera's start
    double ring = 0;
    bool sweep = false;
    double sweep_period_s = 0;
    std::string scene;
    double gain = 1.0; // multiplies the picture
    double noise = 0;
    double rate_hz = 0;
    double measured_rate_hz = 0; // over the last second
    ProcessState process;
    std::string run_directory;
};

struct Camera;
// Stops the camera: ends the overlay process if simcam started it (SIGTERM, then SIGKILL
// after kill_after_s), disconnects every client and ends every thread.
struct CameraDelete {
    void operator()(Camera *camera) const;
};
using CameraPtr = std::unique_ptr<Camera, CameraDelete>;

// Makes and starts a camera. Returns null with *error set for options that it refuses.
CameraPtr camera_start(const CameraOptions &options, std::string *error);

std::vector<std::string> camera_scenes(); // the built-in ones
CameraState camera_state(Camera &camera);
Measurement camera_latest(Camera &camera); // number 0: there is none yet
PostState camera_post(Camera &camera, int post);

std::string camera_set_ring(Camera &camera, double ring); // ends a sweep
// Takes the nearest period within SWEEP_RANGE_S.
void camera_set_sweep(Camera &camera, bool on, double period_s);
// Opens the file or the device and reads its first picture, which may take long.
std::string camera_set_scene(Camera &camera, const std::string &scene);
std::string camera_set_gain(Camera &camera, double gain); // a step of exposure
std::string camera_set_noise(Camera &camera, double noise);
void camera_flash(Camera &camera); // one bright picture
// Starts a post; stops it first if it runs. Size 0x0 is the size it had last. keep_same leaves a
// post alone that already runs at that size.
std::string camera_start_post(Camera &camera, int post, Size size, bool keep_same = false);
std::string camera_stop_post(Camera &camera, int post);

std::vector<std::string> camera_fault_calls();
std::string camera_set_fault(Camera &camera, const Fault &fault); // replaces one of the same call
void camera_clear_faults(Camera &camera);

std::string camera_process_start(Camera &camera);
std::string camera_process_stop(Camera &camera); // SIGTERM to it and its children
std::string camera_process_kill(Camera &camera); // SIGKILL to it and its children

// Waits until a measurement after number exists. Returns false if timeout_s passed before.
bool camera_wait(Camera &camera, uint64_t number, double timeout_s);
// The records after a number, oldest first, at most limit. RECORDS_KEPT of each kind are kept.
std::vector<Measurement> camera_measurements(Camera &camera, uint64_t after, size_t limit);
std::vector<CallRecord> camera_calls(Camera &camera, uint64_t after, size_t limit);
std::vector<OutputChunk> camera_output(Camera &camera, uint64_t after, size_t limit);
// The numbers of the newest record of each kind; 0: none yet.
struct CameraNewest {
    uint64_t measurement = 0, call = 0, output = 0;
};
CameraNewest camera_newest(Camera &camera);

PlaneImage camera_plane(Camera &camera, int post, int plane);
// The color table as applied last: PALETTE_BYTES.
std::vector<uint8_t> camera_palette(Camera &camera);

} // namespace simcam
