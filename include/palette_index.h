// Entries of the OSD color table that the readout uses. The palette file defines their colors; the
// program overwrites some bytes of entries 16 to 19 (osd_palette.cpp).
#pragma once

#include <stdint.h>

constexpr uint8_t PALETTE_CLEAR = 0;      // cleared plane memory
constexpr uint8_t PALETTE_FRAME = 11;     // frame of the bar
constexpr uint8_t PALETTE_TEXT = 16;      // text below the threshold
constexpr uint8_t PALETTE_BOX = 17;       // box behind the text, unfilled part of the bar
constexpr uint8_t PALETTE_FILL = 18;      // filled part of the bar
constexpr uint8_t PALETTE_MARKER = 19;    // marker at the threshold
constexpr uint8_t PALETTE_HIGHLIGHT = 20; // text at or above the threshold
