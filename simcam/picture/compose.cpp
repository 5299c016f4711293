// The compositor: lays OSD planes over a post's picture.
#include "picture/optics.h"

#include <array>
#include <cstring>

#include "picture/osd_color.h"

namespace simcam
{

// Entries that the table is too short for are invisible.
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

void compose_plane(const ShownPlane &plane, const std::vector<uint8_t> &palette, cv::Mat *picture)
{
    CV_Assert(picture->type() == CV_8UC3);
    const auto columns = static_cast<uint32_t>(picture->cols);
    const auto lines = static_cast<uint32_t>(picture->rows);
    if (!plane.bytes || plane.depth_code > 2 || plane.x >= columns || plane.y >= lines)
        return;
    const std::array<BgrColor, PALETTE_ENTRIES> table = palette_to_bgr(palette);
    const uint32_t depth = 2U << plane.depth_code; // bits a pixel
    const uint32_t mask = (1U << depth) - 1;
    // A line never shows more pixels than its pitch holds.
    const uint64_t pitch_pixels = uint64_t{plane.pitch} * 8 / depth;
    const uint64_t inside = std::min<uint64_t>(plane.width, columns - plane.x);
    const auto width = static_cast<uint32_t>(std::min(inside, pitch_pixels));
    const uint32_t height = std::min(plane.height, lines - plane.y);

    for (uint32_t line = 0; line < height; line++) {
        const uint64_t start = uint64_t{line} * plane.pitch;
        uint8_t *out =
            picture->ptr<uint8_t>(static_cast<int>(plane.y + line)) + size_t{plane.x} * 3;
        for (uint32_t n = 0; n < width; n++, out += 3) {
            const uint32_t bit = n * depth;
            const uint64_t at = start + bit / 8;
            if (at >= plane.size)
                return;
            const BgrColor &color = table[(uint32_t{plane.bytes[at]} >> (bit % 8)) & mask];
            out[0] = mix(out[0], color.b, color.opacity);
            out[1] = mix(out[1], color.g, color.opacity);
            out[2] = mix(out[2], color.r, color.opacity);
        }
    }
}

} // namespace simcam
