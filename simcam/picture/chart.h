// The drawn lens chart: something to focus on without any file.
#pragma once

#include <opencv2/core.hpp>

namespace simcam
{

// 8-bit BGR, anti-aliased, the same at every call.
cv::Mat chart_draw(int width, int height);

} // namespace simcam
