// The readout: what the bar plane and the text plane are painted from, and the update of the text.
// Display thread only.
#pragma once

#include <stdint.h>

#include "draw/draw_param.h"
#include "draw/painter.h"

struct PostState;

// Fill the one bar target (the one text target) of the process and return it: to be drawn from
// before the next call. pitch is that of the bar's plane; the text's is that of the post's plane
// osd_number.
const DrawRect *make_bar_rect(const OsdRegion *region, uint32_t pitch);
const DrawRect *make_string_rect(const OsdRegion *region, const PostState *post,
                                 uint32_t osd_number);

// The update of the text: fetches a buffer of the plane, clears it, draws "FOCUS ASSIST cur/best"
// into it and shows it at the place that target names; a peak of 0 is "---". percent decides the
// color. What does not fit the buffer is not drawn. A glyph of engine's cache that cannot be drawn
// is released.
//
// Returns 0 or STATUS_FAULT. Failures of the library are printed on standard output, those of
// drawing logged; a fetched buffer is not handed back.
int32_t show_string(uint32_t postResId, uint32_t osd_number, FontEngine *engine,
                    const DrawRect *target, int32_t current, int32_t peak, int32_t percent);
