// Whether the readout can be read with a color table.
#pragma once

#include "palette.h"

namespace palette
{

constexpr double TEXT_CONTRAST = 4.5;       // least contrast ratio of text on its box
constexpr double GRAPHIC_CONTRAST = 3.0;    // least contrast ratio of a painted area on the box
constexpr double GRAPHIC_DIFFERENCE = 40.0; // color difference that does instead of it

struct Finding {
    bool good = false;
    int index = 0; // the entry it is about
    std::string text;
};

// Ratio of relative luminances, 1 (same) to 21 (black and white), as for text on screens (WCAG 2).
double contrast_ratio(const Rgb &a, const Rgb &b);
// CIE 1976 color difference in L*a*b* under D65.
double color_difference(const Rgb &a, const Rgb &b);

std::vector<Finding> check(const Table &table);

} // namespace palette
