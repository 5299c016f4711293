// DrawRect and the two painters: a solid rectangle and the focus bar. Both paint from the start of
// the given memory, on the display thread, and have no state.
//
// Packing: pixel n of a line is in byte n * depth / 8 of that line, in the depth bits from bit
// n * depth mod 8 upward:
//
//     depth 2   byte 0: bits 7 6 | 5 4 | 3 2 | 1 0
//                       pixel 3  | 2   | 1   | 0
#pragma once

#include <stddef.h>
#include <stdint.h>

// A painted area and the memory it is painted on.
struct DrawRect {
    int32_t width;       // pixels of the painted area
    int32_t height;      // lines of the painted area
    uint32_t depth;      // bits per pixel: 2, 4 or 8
    uint32_t x;          // left edge of the plane on the output, pixels
    uint32_t y;          // top edge of the plane on the output, lines
    uint32_t fg_color;   // palette index of text
    uint32_t bg_color;   // palette index of the background
    int32_t cell_width;  // width of a character cell, pixels
    int32_t pitch;       // bytes per line of the memory; signed, the painters use the sign
    uint32_t resolution; // resolution index; used by the bar's painter only
};
static_assert(sizeof(DrawRect) == 40, "ten words");
static_assert(offsetof(DrawRect, height) == 4, "ten words");
static_assert(offsetof(DrawRect, depth) == 8, "ten words");
static_assert(offsetof(DrawRect, x) == 12, "ten words");
static_assert(offsetof(DrawRect, y) == 16, "ten words");
static_assert(offsetof(DrawRect, fg_color) == 20, "ten words");
static_assert(offsetof(DrawRect, bg_color) == 24, "ten words");
static_assert(offsetof(DrawRect, cell_width) == 28, "ten words");
static_assert(offsetof(DrawRect, pitch) == 32, "ten words");
static_assert(offsetof(DrawRect, resolution) == 36, "ten words");

// Whether depth is valid: 2, 4 or 8.
bool draw_depth_is_valid(uint32_t depth);

// Fills width x height pixels of target with bg_color and the rest of these lines with 0. Lines
// from height on stay unchanged; line 0 is always painted. Fills whole bytes only: an incomplete
// last byte stays 0. A width beyond the pitch continues in the next line and is then overwritten by
// that line's copy of line 0.
//
// Never writes beyond target_size bytes. An invalid depth is logged and nothing is painted.
void draw_rectangle(uint8_t *target, const DrawRect *rect, uint32_t target_size);

// Paints the bar: a frame, an interior that is filled up to percent of its width and has bg_color
// from there on, and a marker at FOCUS_THRESHOLD_PERCENT. percent is limited to 0 .. 100. Paints
// one byte per pixel at every depth, over the whole pitch; width is not read.
//
// Never writes beyond target_size bytes. An invalid depth is logged and nothing is painted.
void draw_rectangle_bitmap(uint8_t *target, const DrawRect *rect, int32_t percent,
                           uint32_t target_size);
