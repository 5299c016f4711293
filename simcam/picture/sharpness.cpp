// The measurement of sharpness.
#include "picture/sharpness.h"

#include <cmath>

#include <opencv2/imgproc.hpp>

#include "picture/sensor.h"

namespace simcam
{

// Raw value for each unit of mean squared gradient; brings the default scene's peak to about 300
// in display values.
static constexpr double RAW_PER_ENERGY = 16.0;

cv::Rect sharpness_window(const cv::Rect &configured)
{
    const cv::Rect whole(0, 0, SENSOR_WIDTH, SENSOR_HEIGHT);
    const bool fits =
        configured.width >= 3 && configured.height >= 3 && (configured & whole) == configured;
    return fits ? configured : whole;
}

uint32_t sharpness_measure(const cv::Mat &picture, const cv::Rect &window)
{
    CV_Assert(picture.type() == CV_8UC3);
    const cv::Rect inside = window & cv::Rect({0, 0}, picture.size());
    if (inside.width < 3 || inside.height < 3)
        return 0;
    cv::Mat luma, across, down;
    cv::cvtColor(picture(inside), luma, cv::COLOR_BGR2GRAY);
    cv::spatialGradient(luma, across, down);
    // Only where all eight neighbors lie inside the window.
    const cv::Rect inner(1, 1, inside.width - 2, inside.height - 2);
    const double energy =
        cv::norm(across(inner), cv::NORM_L2SQR) + cv::norm(down(inner), cv::NORM_L2SQR);
    return static_cast<uint32_t>(std::lround(energy / inner.area() * RAW_PER_ENERGY));
}

} // namespace simcam
