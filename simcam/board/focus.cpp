// The window's decoding and the overlay's rule.

#include "board/focus.h"

namespace simcam
{

constexpr uint32_t HOLD_THRESHOLD = 4; // display units

std::optional<FocusWindow> focus_window(uint32_t columns, uint32_t lines)
{
    const auto frame_width = static_cast<int>(columns & 0xFFFF) + 1;
    const auto frame_height = static_cast<int>(lines & 0xFFFF) + 1;
    const auto width = static_cast<int>(columns >> 16);
    const auto height = static_cast<int>(lines >> 16);
    if (width == 0 || width > frame_width || height == 0 || height > frame_height)
        return std::nullopt;
    return FocusWindow{(frame_width - width) / 2, (frame_height - height) / 2, width, height};
}

void overlay_focus_read(OverlayFocus *overlay, uint32_t raw)
{
    const uint32_t value = focus_value(raw);
    const uint32_t previous = overlay->current;
    const uint32_t change = value > previous ? value - previous : previous - value;
    if (previous != 0 && change > HOLD_THRESHOLD)
        overlay->held = false;
    overlay->current = value;
    if (!overlay->held && value > overlay->peak)
        overlay->peak = value;
}

uint32_t overlay_focus_percent(const OverlayFocus &overlay)
{
    return overlay.peak == 0 ? 0 : overlay.current * 100 / overlay.peak;
}

} // namespace simcam
