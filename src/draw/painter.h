// DrawRect and the two painters: a solid rectangle, and the focus bar. Both paint at the start of
// the memory they are given, on the display thread, and keep nothing.
//
// Packing: pixel n of a line lies in byte n * depth / 8 of that line, at bit n * depth mod 8 and
// the depth bits above it:
//
//     depth 2   byte 0: bits 7 6 | 5 4 | 3 2 | 1 0
//                       pixel 3  | 2   | 1   | 0
#pragma once

#include <stddef.h>
#include <stdint.h>

// What is to be painted, and on what.
struct DrawRect {
    int32_t width;       // pixels of the painted area
    int32_t height;      // lines of the painted area
    uint32_t depth;      // bits per pixel: 2, 4 or 8
    uint32_t x;          // left edge of the plane on the output, pixels
    uint32_t y;          // top edge of the plane on the output, lines
    uint32_t fg_color;   // palette index of text
    uint32_t bg_color;   // palette index of the background
    int32_t cell_width;  // width of a character cell, pixels
    int32_t pitch;       // bytes per line of the memory; the painters calculate with its sign
    uint32_t resolution; // resolution index; only the bar's painter reads it
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

// Whether depth is one that can be painted: 2, 4 or 8.
bool draw_depth_is_valid(uint32_t depth);

// Fills width x height pixels of target with bg_color and the rest of these lines with 0; lines
// from height on stay as they are, line 0 is painted in any case. Whole bytes only: a last part of
// a byte stays 0. A width beyond the pitch runs on into the next line, whose copy of line 0 then
// covers it.
//
// Writes nothing beyond target_size bytes. An invalid depth is logged and paints nothing.
void draw_rectangle(uint8_t *target, const DrawRect *rect, uint32_t target_size);

// Paints the bar: a frame, an interior filled up to percent of its width and in bg_color behind it,
// a marker at FOCUS_THRESHOLD_PERCENT. Up to percent 0 nothing is filled, from 100 on all of it.
// One byte a pixel whatever the depth, over the whole pitch; width is not read.
//
// Writes nothing beyond target_size bytes. An invalid depth is logged and paints nothing.
void draw_rectangle_bitmap(uint8_t *target, const DrawRect *rect, int32_t percent,
                           uint32_t target_size);
