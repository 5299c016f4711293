// The picture side of the simulated camera: scenes, the lens, the sensor and the measurement of sharpness.
// Pure but for the files that a scene reads; one thread at a time may use a record.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace simcam
{

constexpr int SENSOR_WIDTH = 1280;
constexpr int SENSOR_HEIGHT = 720;

struct Scene;

// Opens "photo", "chart", or the path of a picture, a video file or a /dev/video*. Null with *error filled on failure.
std::shared_ptr<Scene> scene_open(const std::string &name, std::string *error);
// The sharp picture at time_s, 8-bit BGR, SENSOR_WIDTH x SENSOR_HEIGHT. *changed tells whether it differs from the one before.
const cv::Mat &scene_picture(Scene &scene, double time_s, bool *changed);

// Diameter of the blur disc at a ring position (0..1), in pixels of the sensor picture: circle of confusion of a
// thin lens and a small fixed blur, in quadrature.
double lens_blur_px(double ring);
// The ring position of best focus for the built-in scenes' distance.
double lens_best_ring();

// Blurs sharp with an anti-aliased disc of blur_px, 8-bit BGR to 8-bit BGR.
void lens_blur(const cv::Mat &sharp, double blur_px, cv::Mat *blurred);

// Makes the sensor's picture: gain, then noise from seed and picture number (same arguments, same picture).
void sensor_expose(const cv::Mat &blurred, double gain, uint64_t seed, uint64_t number, cv::Mat *picture);

// Mean squared Sobel gradient of the luma inside window, scaled to the raw value of /dev/cam (display value = raw / 100;
// at most three digits of display value at the peak on the default scene).
uint32_t sharpness_measure(const cv::Mat &picture, const cv::Rect &window);

// One shown plane, for the compositor: one palette index per byte at depth code 2, packed from the low bits below.
struct ShownPlane {
    const uint8_t *bytes = nullptr;
    size_t size = 0;
    uint32_t width = 0, height = 0, pitch = 0, depth_code = 2, x = 0, y = 0;
};
// Lays plane over picture (8-bit BGR). Palette: 256 entries of full-range BT.601 Y, Cb, Cr and opacity in eighths (8 and above opaque).
void compose_plane(const ShownPlane &plane, const std::vector<uint8_t> &palette, cv::Mat *picture);

} // namespace simcam
