// The measurement of sharpness.
#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

namespace simcam
{

// The part of the sensor picture that is measured for a configured window: the window itself, or
// the whole picture if the window is smaller than 3 x 3 or not completely inside the picture.
cv::Rect sharpness_window(const cv::Rect &configured);

// The raw value of /dev/cam: the mean squared Sobel gradient of the luma, times 16, over the pixels
// whose eight neighbors lie inside window too. About 29000 at the peak of the default scene. 0 for
// a window of less than 3 x 3.
uint32_t sharpness_measure(const cv::Mat &picture, const cv::Rect &window);

} // namespace simcam
