// OSD planes as pixels: unpacking them, and laying them over a picture.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

namespace simcam
{

// The memory of a plane. Depth code 2 is one palette index a byte; at codes 0 and 1 the first pixel
// is in the lowest bits.
struct ShownPlane {
    const uint8_t *bytes = nullptr;
    size_t size = 0;
    uint32_t width = 0, height = 0, pitch = 0, depth_code = 2, x = 0, y = 0;
};

// Unpacks one line into palette indices, at most width of them. Returns how many pixels of the line
// are in the memory: a line ends with its pitch, and the memory may end before the plane does.
uint32_t plane_unpack(const ShownPlane &plane, uint32_t line, uint32_t width, uint8_t *indices);

// Lays plane over picture (8-bit BGR). Palette: 256 entries of full-range BT.601 Y, Cb, Cr and
// opacity in eighths (8 and above opaque).
void compose_plane(const ShownPlane &plane, const std::vector<uint8_t> &palette, cv::Mat *picture);

// The indices of all pixels, 8-bit; 0 for pixels without memory. Empty without memory or size.
cv::Mat plane_indices(const ShownPlane &plane);
// The pixels in their colors, 8-bit BGRA; transparent for pixels without memory.
cv::Mat plane_colors(const ShownPlane &plane, const std::vector<uint8_t> &palette);

} // namespace simcam
