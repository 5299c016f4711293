// Entries of the OSD color table that the readout draws with. Their colors come from the palette
// file; of 16 to 19 the program forces some bytes (osd_palette.h).
#pragma once

#include <stdint.h>

constexpr uint8_t PALETTE_CLEAR = 0;      // cleared plane memory
constexpr uint8_t PALETTE_FRAME = 11;     // frame of the bar
constexpr uint8_t PALETTE_TEXT = 16;      // text below the threshold
constexpr uint8_t PALETTE_BOX = 17;       // box behind the text, unfilled part of the bar
constexpr uint8_t PALETTE_FILL = 18;      // filled part of the bar
constexpr uint8_t PALETTE_MARKER = 19;    // marker at the threshold
constexpr uint8_t PALETTE_HIGHLIGHT = 20; // text from the threshold on

// Percent of the peak from which the text is highlighted, and at which the bar's marker stands.
constexpr int32_t FOCUS_THRESHOLD_PERCENT = 85;
