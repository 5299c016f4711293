// The display loop's state of a post. Display thread only.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "draw/draw_param.h"
#include "osd/osd_plane.h"
#include "osd/osd_session.h"
#include "posts.h"

// All zero except the numbers of the planes: no report of the post yet.
struct PostState {
    PostGeometry geometry;            // valid while the post runs
    DrawParams params;                // of the first run, kept for all later runs
    uint32_t spare;                   // argument of init_draw_param, which ignores it
    OsdPlane planes[OSD_PLANE_COUNT]; // by OSD number: 0 the bar, 1 the text, 2 and 3 unused
};
static_assert(sizeof(void *) != 4 || sizeof(PostState) == 92, "23 words");
static_assert(sizeof(void *) != 4 || offsetof(PostState, params) == 12, "23 words");
static_assert(sizeof(void *) != 4 || offsetof(PostState, spare) == 40, "23 words");
static_assert(sizeof(void *) != 4 || offsetof(PostState, planes) == 44, "23 words");
