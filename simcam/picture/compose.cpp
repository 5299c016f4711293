// Unpacking, colors and mixing.
#include "picture/compose.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "picture/osd_color.h"
#include "wire.h"

namespace simcam
{

// Entries beyond the end of the palette are invisible.
static std::array<BgrColor, PALETTE_ENTRIES> palette_to_bgr(const std::vector<uint8_t> &palette)
{
    std::array<BgrColor, PALETTE_ENTRIES> table{};
    for (size_t i = 0; i < table.size(); i++) {
        const size_t offset = i * PALETTE_ENTRY_BYTES;
        if (offset + PALETTE_ENTRY_BYTES > palette.size())
            break;
        OsdColor color;
        std::memcpy(&color, palette.data() + offset, sizeof(color));
        table[i] = osd_color_to_bgr(color);
    }
    return table;
}

static uint8_t mix(uint32_t below, uint32_t above, uint32_t opacity)
{
    return static_cast<uint8_t>(
        (below * (OSD_OPAQUE - opacity) + above * opacity + OSD_OPAQUE / 2) / OSD_OPAQUE);
}

uint32_t plane_unpack(const ShownPlane &plane, uint32_t line, uint32_t width, uint8_t *indices)
{
    if (!plane.bytes || plane.depth_code > DEPTH_CODE_MAX)
        return 0;
    const uint64_t start = uint64_t{line} * plane.pitch;
    if (start >= plane.size)
        return 0;
    const uint32_t depth = depth_bits(plane.depth_code);
    const uint32_t mask = (1U << depth) - 1;
    const uint64_t bytes = std::min<uint64_t>(plane.pitch, plane.size - start);
    const auto count = static_cast<uint32_t>(std::min<uint64_t>(width, bytes * 8 / depth));
    const uint8_t *from = plane.bytes + start;
    for (uint32_t n = 0; n < count; n++) {
        const uint32_t bit = n * depth;
        indices[n] = static_cast<uint8_t>((uint32_t{from[bit / 8]} >> (bit % 8)) & mask);
    }
    return count;
}

void compose_plane(const ShownPlane &plane, const std::vector<uint8_t> &palette, cv::Mat *picture)
{
    CV_Assert(picture->type() == CV_8UC3);
    const auto columns = static_cast<uint32_t>(picture->cols);
    const auto lines = static_cast<uint32_t>(picture->rows);
    if (plane.x >= columns || plane.y >= lines)
        return;
    const std::array<BgrColor, PALETTE_ENTRIES> table = palette_to_bgr(palette);
    const uint32_t width = std::min(plane.width, columns - plane.x);
    const uint32_t height = std::min(plane.height, lines - plane.y);
    std::vector<uint8_t> indices(width);
    for (uint32_t line = 0; line < height; line++) {
        const uint32_t count = plane_unpack(plane, line, width, indices.data());
        uint8_t *out =
            picture->ptr<uint8_t>(static_cast<int>(plane.y + line)) + size_t{plane.x} * 3;
        for (uint32_t n = 0; n < count; n++, out += 3) {
            const BgrColor &color = table[indices[n]];
            out[0] = mix(out[0], color.b, color.opacity);
            out[1] = mix(out[1], color.g, color.opacity);
            out[2] = mix(out[2], color.r, color.opacity);
        }
    }
}

static bool has_pixels(const ShownPlane &plane)
{
    return plane.bytes && plane.size > 0 && plane.width > 0 && plane.height > 0 &&
           plane.depth_code <= DEPTH_CODE_MAX;
}

cv::Mat plane_indices(const ShownPlane &plane)
{
    if (!has_pixels(plane))
        return {};
    cv::Mat indices =
        cv::Mat::zeros(static_cast<int>(plane.height), static_cast<int>(plane.width), CV_8UC1);
    for (uint32_t line = 0; line < plane.height; line++)
        (void)plane_unpack(plane, line, plane.width, indices.ptr<uint8_t>(static_cast<int>(line)));
    return indices;
}

cv::Mat plane_colors(const ShownPlane &plane, const std::vector<uint8_t> &palette)
{
    if (!has_pixels(plane))
        return {};
    const std::array<BgrColor, PALETTE_ENTRIES> table = palette_to_bgr(palette);
    cv::Mat colors =
        cv::Mat::zeros(static_cast<int>(plane.height), static_cast<int>(plane.width), CV_8UC4);
    std::vector<uint8_t> indices(plane.width);
    for (uint32_t line = 0; line < plane.height; line++) {
        const uint32_t count = plane_unpack(plane, line, plane.width, indices.data());
        auto *out = colors.ptr<cv::Vec4b>(static_cast<int>(line));
        for (uint32_t n = 0; n < count; n++) {
            const BgrColor &color = table[indices[n]];
            out[n] = {color.b, color.g, color.r,
                      static_cast<uint8_t>(color.opacity * 255 / OSD_OPAQUE)};
        }
    }
    return colors;
}

} // namespace simcam
