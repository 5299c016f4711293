// The focus measurement: the window that the device is configured for, and the value and peak that
// the overlay process makes of its readings.
#pragma once

#include <cstdint>
#include <optional>

namespace simcam
{

// In pixels of the frame that the configuration names; width 0: not configured.
struct FocusWindow {
    int x = 0, y = 0;
    int width = 0, height = 0;
};

// Decodes words 0 (columns) and 1 (lines) of the configuration: the low halves are the frame's last
// column and line, the high halves the window's width and height. The window is centered in the
// frame. Nothing for a window that is empty or larger than the frame.
std::optional<FocusWindow> focus_window(uint32_t columns, uint32_t lines);

// What the overlay process on an open device computes, followed reading by reading. The peak is
// held at 0 until the value has moved by more than 4 since the process started.
struct OverlayFocus {
    bool running = false; // a process has the device open
    uint32_t current = 0;
    uint32_t peak = 0;
    bool held = true;
};

// The display value of a raw one.
constexpr uint32_t focus_value(uint32_t raw)
{
    return raw / 100;
}

// Applies the overlay's rule to one reading that it was given. A failed reading needs no call: the
// overlay then takes its previous value again, which changes neither value nor peak.
void overlay_focus_read(OverlayFocus *overlay, uint32_t raw);
// The current value in percent of the peak; 0 without a peak.
uint32_t overlay_focus_percent(const OverlayFocus &overlay);

} // namespace simcam
