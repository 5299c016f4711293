// The sensor: its size, its gain and its noise.
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

namespace simcam
{

constexpr int SENSOR_WIDTH = 1280;
constexpr int SENSOR_HEIGHT = 720;

// A long row of noise that all pictures share: each line of a picture starts elsewhere in it.
struct SensorNoise {
    double deviation = 0;    // levels of 255, independent for each channel; 0: no noise
    std::vector<int8_t> row; // empty without noise
};

// deviation: 0 to 36 levels of 255; the values of a larger one would saturate.
SensorNoise sensor_noise(double deviation);
// Makes the sensor's picture: gain, then noise that depends on seed and picture number only.
void sensor_expose(const cv::Mat &blurred, double gain, const SensorNoise &noise, uint64_t seed,
                   uint64_t number, cv::Mat *picture);

} // namespace simcam
