// The display thread: handles the reports of the posts and redraws the readout on every running
// post, twice a second.
#pragma once

#include <stdint.h>

#include "app/focus_state.h"
#include "app/post_state.h"
#include "draw/draw_param.h"

constexpr uint32_t DISPLAY_PERIOD_US = 500000;

// State of the display thread between passes.
struct DisplayState {
    PostState posts[POST_COUNT];
    OsdRegion regions[POST_COUNT][OSD_PLANE_COUNT]; // by post and OSD number
};

// current as a percentage of peak, 0 without a peak. 32-bit arithmetic; the result may exceed 100.
uint32_t focus_percent_of(uint32_t current, uint32_t peak);

// Initializes display, opens the codec session and builds the font engines. Failures are logged and
// do not stop the display thread.
void display_start(DisplayState *display);

// One pass over the four posts. A failed step is printed and retried in the next pass. A post whose
// geometry cannot be read ends the pass and is not drawn until its next start report.
void display_pass(const FocusState *state, DisplayState *display);

// The body of the display thread. Never returns.
void osd_Focus_Assist_run(const FocusState *state);
