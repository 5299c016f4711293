// A picture of a color table.
#pragma once

#include "palette.h"

namespace palette
{

constexpr int SWATCH_CELL = 40; // pixels, both ways; 16 cells a line

// PNG, 640 x 640: one cell an entry with its index, over a checkered ground that shows its opacity.
std::vector<uint8_t> swatch_png(const Table &table);

} // namespace palette
