// The readout: the draw targets of the bar and the text, and the update of the text plane.
// Display thread only.
#pragma once

#include <stdint.h>

#include "draw/draw_param.h"
#include "draw/painter.h"

struct PostState;

// Fills the process-wide bar target (text target) and returns it; valid until the next call. pitch
// is the pitch of the bar's plane; the text's is the pitch of the post's plane osd_number.
const DrawRect *make_bar_rect(const OsdRegion *region, uint32_t pitch);
const DrawRect *make_string_rect(const OsdRegion *region, const PostState *post,
                                 uint32_t osd_number);

// Updates the text: fetches a buffer of the plane, clears it, draws "FOCUS ASSIST cur/best" into it
// and shows it at target's position; a peak of 0 is drawn as "---". percent selects the color.
// Pixels outside the buffer are dropped. A glyph of engine's cache that cannot be drawn is
// released.
//
// Returns 0 or STATUS_FAULT. Failures of the library are printed on standard output, failures of
// drawing are logged; a fetched buffer is not returned to the library.
int32_t show_string(uint32_t postResId, uint32_t osd_number, FontEngine *engine,
                    const DrawRect *target, int32_t current, int32_t peak, int32_t percent);
