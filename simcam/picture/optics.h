// The picture side of the simulated camera: scenes, the lens, the sensor and the measurement of
// sharpness. Pure but for the files that a scene reads; one thread at a time may use a record.
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

// Opens "photo", "chart", or the path of a picture, a video file or a /dev/video*. Null with *error
// filled on failure.
std::shared_ptr<Scene> scene_open(const std::string &name, std::string *error);
// The sharp picture at time_s, 8-bit BGR, SENSOR_WIDTH x SENSOR_HEIGHT. *changed tells whether it
// differs from the one before.
const cv::Mat &scene_picture(Scene &scene, double time_s, bool *changed);

// Diameter of the blur disc at a ring position (0..1), in pixels of the sensor picture: circle of
// confusion of a thin lens and a small fixed blur, in quadrature.
double lens_blur_px(double ring);
// The ring position of best focus for the built-in scenes' distance.
double lens_best_ring();

// Blurs sharp with an anti-aliased disc of blur_px (up to 40), 8-bit BGR to 8-bit BGR; its edges
// are continued outwards. The width has to be a multiple of 16, the height even.
void lens_blur(const cv::Mat &sharp, double blur_px, cv::Mat *blurred);

// The scene as the lens at blur_px shows it: scene_picture and lens_blur, made again only where one
// of them changes.
const cv::Mat &scene_through_lens(Scene &scene, double time_s, double blur_px);

// Makes the sensor's picture: gain, then noise from seed and picture number (same arguments, same
// picture).
void sensor_expose(const cv::Mat &blurred, double gain, uint64_t seed, uint64_t number,
                   cv::Mat *picture);

// The window that the first two words of the measurement's configuration name: the low halves are
// the frame's last column and last line, the high halves the window's width and height; it lies in
// the middle. The whole sensor picture where that does not fit, and so before any configuration.
cv::Rect sharpness_window(uint32_t columns, uint32_t lines);

// Mean squared Sobel gradient of the luma over the pixels whose eight neighbors lie inside window
// too, times 16: the raw value of /dev/cam (display value = raw / 100; about 290 at the peak on the
// default scene). 0 for less than 3 x 3.
uint32_t sharpness_measure(const cv::Mat &picture, const cv::Rect &window);

// One shown plane, for the compositor: one palette index per byte at depth code 2, packed from the
// low bits below.
struct ShownPlane {
    const uint8_t *bytes = nullptr;
    size_t size = 0;
    uint32_t width = 0, height = 0, pitch = 0, depth_code = 2, x = 0, y = 0;
};
// Lays plane over picture (8-bit BGR). Palette: 256 entries of full-range BT.601 Y, Cb, Cr and
// opacity in eighths (8 and above opaque).
void compose_plane(const ShownPlane &plane, const std::vector<uint8_t> &palette, cv::Mat *picture);

} // namespace simcam
