// Resolution index: the class of an output by its width. It selects the font engine, the size of
// the readout and the thickness of the bar's frame.
#pragma once

#include <stdint.h>

constexpr uint32_t RESOLUTION_1920 = 0;
constexpr uint32_t RESOLUTION_1280 = 1;
constexpr uint32_t RESOLUTION_720 = 2;
constexpr uint32_t RESOLUTION_352 = 3;
constexpr uint32_t RESOLUTION_COUNT = 4;
constexpr uint32_t RESOLUTION_INVALID = 4; // any other width
