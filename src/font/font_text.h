// Drawing a string into a palette-indexed bitmap, given as a DrawRect and its memory.
// Display thread only.
#pragma once

#include <stdint.h>

#include "draw/painter.h"
#include "font/font_engine.h"

// Draws text into buffer, of buffer_size bytes: the background of target, then the characters in
// cells of target->cell_width on one baseline, in target->fg_color or, with highlight not 0, in
// PALETTE_HIGHLIGHT. A character that is not cached is rendered and released again. Pixels outside
// buffer are dropped.
//
// Returns 0; STATUS_INVALID for a null argument or an invalid depth; STATUS_FAULT if the text is
// wider than a line (nothing is drawn then) or a character fails (those before it stay drawn).
// Failures are logged.
int32_t font_get_target_bitmap(FontEngine *engine, const char *text, const DrawRect *target,
                               uint8_t *buffer, uint8_t highlight, uint32_t buffer_size);

// Draws one bitmap glyph into buffer; its origin is column x_origin on row target->height +
// baseline_offset. Clear bits of the glyph leave the buffer unchanged.
//
// Returns 0, or STATUS_INVALID (logged) for a glyph without one bit per pixel or an invalid depth.
int32_t font_draw_target(uint8_t *buffer, const DrawRect *target, FT_Glyph glyph,
                         int32_t baseline_offset, int32_t x_origin, uint8_t highlight,
                         uint32_t buffer_size);
