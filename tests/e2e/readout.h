// Reads a readout back from the memory of its planes, with the literal reference of the painters.
#pragma once

#include <string>

#include "board/state.h"
#include "reference.h"

struct Readout {
    bool valid = false;          // every pixel is as some readout has it
    std::string text;            // "FOCUS ASSIST  42/ 97"
    int current = -1, peak = -1; // peak 0 where the text has "---"
    bool highlight = false;
    int percent = -1;    // the lowest with this bar
    std::string problem; // why it is not valid
};

// Reads what is shown on planes 0 and 1 of a post whose output has the given size.
Readout readout_read(int width, int height, const simcam::PlaneImage &bar,
                     const simcam::PlaneImage &text);

// The text plane as the reference draws it.
reference::Plane readout_text_plane(int width, int height, uint32_t pitch, const std::string &text,
                                    bool highlight);
