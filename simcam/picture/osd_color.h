// The color format of the simulated camera's OSD: what the four bytes of a palette entry mean.
// Pictures get their colors here. tools/focus-palette has the same formula: the build runs it,
// a cross build for a camera too, so it is a Python script.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace simcam
{

constexpr uint32_t PALETTE_ENTRY_BYTES = 4;
constexpr uint32_t PALETTE_ENTRIES = 256;
constexpr uint32_t OSD_OPAQUE = 8; // eighths; everything above is opaque too

// A palette entry as it lies in the color memory: full-range BT.601 and an opacity.
struct OsdColor {
    uint8_t y;
    uint8_t cb, cr;  // 128: no color
    uint8_t opacity; // eighths: 0 invisible .. 8 opaque
};
static_assert(sizeof(OsdColor) == PALETTE_ENTRY_BYTES, "an entry of the color memory");

struct BgrColor {
    uint8_t b, g, r;
    uint8_t opacity; // 0..OSD_OPAQUE
};

inline uint8_t osd_color_byte(double value)
{
    return static_cast<uint8_t>(std::clamp(std::lround(value), 0L, 255L));
}

inline BgrColor osd_color_to_bgr(const OsdColor &color)
{
    const double y = color.y;
    const double cb = color.cb - 128.0;
    const double cr = color.cr - 128.0;
    return {osd_color_byte(y + 1.772 * cb), osd_color_byte(y - 0.344136 * cb - 0.714136 * cr),
            osd_color_byte(y + 1.402 * cr),
            static_cast<uint8_t>(std::min<uint32_t>(color.opacity, OSD_OPAQUE))};
}

} // namespace simcam
