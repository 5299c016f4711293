// The simulated camera as one record: what the web interface, the command line and the tests see of
// it.
//
// Every function may be called from any thread; those that may take longer than a picture takes to
// make say so. Results are copies: nothing handed out stays connected to the camera. Functions that
// can refuse return an empty string on success and otherwise a sentence for a person ("post 7:
// there are only posts 0 to 3").
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "board/camera_types.h"

namespace simcam
{

struct Camera;

// Makes and starts a camera. Returns null with *error filled where an option is not to be had. What
// it returns has threads: it must see camera_stop before its last owner lets go of it.
std::shared_ptr<Camera> camera_start(const CameraOptions &options, std::string *error);
// Ends the overlay process if it is ours, every client, every thread; waits for them, two seconds
// for a process that is deaf to SIGTERM. The record is dead afterwards.
void camera_stop(Camera &camera);

CameraState camera_state(Camera &camera);

std::string camera_set_ring(Camera &camera, double ring); // 0..1; stops a sweep
// A period outside of 0.5 to 3600 seconds becomes the nearer of them.
void camera_set_sweep(Camera &camera, bool on, double period_s);
// Opens the file or the device and reads its first picture: takes as long as that takes.
std::string camera_set_scene(Camera &camera, const std::string &scene);
std::string camera_set_gain(Camera &camera, double gain); // 0.1..8: a step of exposure
void camera_flash(Camera &camera);                        // one bright picture, as of a flash light
std::string camera_start_post(Camera &camera, int post, uint32_t width, uint32_t height);
std::string camera_stop_post(Camera &camera, int post);

std::vector<std::string> camera_fault_calls();
std::string camera_set_fault(Camera &camera, const Fault &fault); // replaces one of the same call
void camera_clear_faults(Camera &camera);

std::string camera_process_start(Camera &camera);
std::string camera_process_stop(Camera &camera); // SIGTERM to it and what it started
std::string camera_process_kill(Camera &camera); // SIGKILL to it and what it started

// Waits until a measurement after number exists, at most timeout_s; false where none came.
bool camera_wait(Camera &camera, uint64_t number, double timeout_s);
// What came after number, oldest first, at most limit; old records are dropped (4096 are kept of
// each kind).
std::vector<Measurement> camera_measurements(Camera &camera, uint64_t after, size_t limit);
std::vector<CallRecord> camera_calls(Camera &camera, uint64_t after, size_t limit);
std::vector<OutputChunk> camera_output(Camera &camera, uint64_t after, size_t limit);

// The post's picture, 8-bit BGR at the post's size, as the output shows it now, with or without its
// planes; empty while the post is off.
cv::Mat camera_picture(Camera &camera, int post, bool with_planes);
// The sensor's picture through the lens, 1280 x 720, 8-bit BGR, without planes.
cv::Mat camera_sensor_picture(Camera &camera);
PlaneImage camera_plane(Camera &camera, int post, int plane);
// The color table as applied last: 256 entries of 4 bytes.
std::vector<uint8_t> camera_palette(Camera &camera);

} // namespace simcam
