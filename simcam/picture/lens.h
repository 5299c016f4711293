// The lens: how much it blurs at a ring position, and the blur itself.
#pragma once

#include <opencv2/core.hpp>

namespace simcam
{

// Diameter of the blur disc at a ring position (0..1), in pixels of the sensor picture: circle of
// confusion of a thin lens and a small fixed blur, added in quadrature.
double lens_blur_px(double ring);
// The ring position of best focus for the built-in scenes' distance.
double lens_best_ring();

// Blurs sharp (8-bit BGR) with an anti-aliased disc of blur_px, at most 40. The pixels of the edges
// are repeated outwards. The width must be a multiple of 16, the height even.
void lens_blur(const cv::Mat &sharp, double blur_px, cv::Mat *blurred);

} // namespace simcam
