// What the display loop keeps of a post. Display thread only.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "draw/draw_param.h"
#include "osd/osd_plane.h"
#include "osd/osd_session.h"
#include "posts.h"

// All zero but the numbers of the planes: the post has not been seen yet.
struct PostState {
    PostGeometry geometry;            // valid while the post runs
    DrawParams params;                // of its first run, kept for all later ones
    uint32_t spare;                   // handed to init_draw_param, which ignores it
    OsdPlane planes[OSD_PLANE_COUNT]; // by OSD number: 0 the bar, 1 the text, 2 and 3 unused
};
static_assert(sizeof(void *) != 4 || sizeof(PostState) == 92, "23 words");
static_assert(sizeof(void *) != 4 || offsetof(PostState, params) == 12, "23 words");
static_assert(sizeof(void *) != 4 || offsetof(PostState, spare) == 40, "23 words");
static_assert(sizeof(void *) != 4 || offsetof(PostState, planes) == 44, "23 words");
