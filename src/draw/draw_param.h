// Drawing parameters of a post, computed once from the size of its output and used on every redraw.
// Display thread only.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "font/font_engine.h"
#include "osd/osd_session.h"
#include "osd/qm7_codec.h"
#include "posts.h"

// Drawing parameters of one post. All zero: not computed yet.
struct DrawParams {
    uint32_t initialized; // 0 or 1; nothing clears it when the post stops
    uint32_t font_size;   // height of the text box, lines
    int32_t cell_width;   // pixels
    FontEngine engine;    // copy; the handles belong to font_engines
};
static_assert(sizeof(void *) != 4 || sizeof(DrawParams) == 28, "seven words");
static_assert(offsetof(DrawParams, font_size) == 4, "seven words");
static_assert(offsetof(DrawParams, cell_width) == 8, "seven words");
static_assert(sizeof(void *) != 4 || offsetof(DrawParams, engine) == 12, "seven words");

// The place of an OSD plane on the output of its post.
struct OsdRegion {
    uint16_t width;      // pixels
    uint16_t height;     // lines
    uint32_t depth_code; // bits per pixel = 2 << depth_code
    uint32_t x;          // left edge, pixels
    uint32_t y;          // top edge, lines
    uint32_t color;      // palette index of the background
    uint32_t resolution; // resolution index
};
static_assert(sizeof(OsdRegion) == 24, "six words");
static_assert(offsetof(OsdRegion, height) == 2, "six words");
static_assert(offsetof(OsdRegion, depth_code) == 4, "six words");
static_assert(offsetof(OsdRegion, x) == 8, "six words");
static_assert(offsetof(OsdRegion, y) == 12, "six words");
static_assert(offsetof(OsdRegion, color) == 16, "six words");
static_assert(offsetof(OsdRegion, resolution) == 20, "six words");

// Fills params and the post's four regions from geometry. Does nothing if params is already
// initialized, even for another geometry. font_path and spare are ignored.
//
// An unsupported width is logged; width and height of the regions stay unchanged and params has no
// engine, so that drawing the text fails.
//
// Always returns 0.
int32_t init_draw_param(DrawParams *params, const PostGeometry *geometry, const char *font_path,
                        uint32_t spare, OsdRegion regions[OSD_PLANE_COUNT]);

// Tears down slot's engine and marks slot as not initialized; does nothing if it is not.
void font_release_slot(DrawParams *slot);

// Sets size, depth code and color of region; an invalid resolution index leaves the size unchanged.
void init_osd_region(OsdRegion *region, uint32_t resolution);

// Fills the process-wide request record from region and returns it; valid until the next call.
const OsdOpenParam *make_osd_open_param(uint32_t osd_number, const OsdRegion *region);
