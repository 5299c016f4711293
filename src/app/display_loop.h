// The display thread: takes in the posts' reports and redraws the readout on every running post,
// twice a second.
#pragma once

#include <stdint.h>

#include "app/focus_state.h"
#include "app/post_state.h"
#include "draw/draw_param.h"

constexpr uint32_t DISPLAY_PERIOD_US = 500000;

// What the display thread keeps from pass to pass.
struct DisplayState {
    PostState posts[POST_COUNT];
    OsdRegion regions[POST_COUNT][OSD_PLANE_COUNT]; // by post and OSD number
};

// current as a percentage of peak, 0 without a peak. Calculates in 32 bits and may exceed 100.
uint32_t focus_percent_of(uint32_t current, uint32_t peak);

// Prepares display, opens the codec session and builds the font engines. Failures are logged;
// drawing goes on with what there is.
void display_start(DisplayState *display);

// One pass over the four posts. A failed step is printed and tried again at the next pass; a post
// whose geometry cannot be had ends the pass and waits for its next start report.
void display_pass(const FocusState *state, DisplayState *display);

// The body of the display thread. Never returns.
void osd_Focus_Assist_run(const FocusState *state);
