// The sensor: its size, its gain and its noise.
#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

namespace simcam
{

constexpr int SENSOR_WIDTH = 1280;
constexpr int SENSOR_HEIGHT = 720;

// Makes the sensor's picture: gain, then noise that depends on seed and picture number only.
void sensor_expose(const cv::Mat &blurred, double gain, uint64_t seed, uint64_t number,
                   cv::Mat *picture);

} // namespace simcam
