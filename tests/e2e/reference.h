// The readout worked out a second time, pixel by pixel and straight from its description, and read
// back from plane memory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "board/camera_types.h"

// What is the same for every output of one width.
struct ReferenceLayout {
    int index = 0;                     // 0: 1920, 1: 1280, 2: 720, 3: 352 pixels wide
    int bar_width = 0, bar_height = 0; // of both planes
    int bar_x = 0, bar_y = 0;
    int font_size = 0; // lines of the text box
    int cell_width = 0;
    int text_x = 0, text_y = 0;
};

// The layout for an output of one of the four widths.
ReferenceLayout reference_layout(int width, int height);

// The bar's plane memory: pitch bytes a line.
std::vector<uint8_t> reference_bar(const ReferenceLayout &layout, int pitch, int percent);
// The text's plane memory.
std::vector<uint8_t> reference_text(const ReferenceLayout &layout, int pitch,
                                    const std::string &text, bool highlight);

struct Readout {
    bool valid = false;          // every pixel is as some readout has it
    std::string text;            // "FOCUS ASSIST  42/ 97"
    int current = -1, peak = -1; // peak 0 where the text has "---"
    bool highlight = false;
    int percent = -1;    // one whose bar it is: the lowest
    std::string problem; // why it is not valid
};

// Reads a readout from what is shown on planes 0 and 1 of a post of the given size.
Readout readout_read(int width, int height, const simcam::PlaneImage &bar,
                     const simcam::PlaneImage &text);
