// The display thread. Its whole state is a DisplayState in its stack frame.

#include "app/display_loop.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "draw/readout.h"
#include "error_log.h"
#include "font/font_engine.h"
#include "osd/osd_plane.h"
#include "osd/osd_session.h"
#include "status.h"

constexpr uint32_t BAR_PLANE = 0;
constexpr uint32_t TEXT_PLANE = 1;

static const char RUN_NAME[] = "osd_Focus_Assist_run"; // name in the error lines of its steps

uint32_t focus_percent_of(uint32_t current, uint32_t peak)
{
    return peak == 0 ? 0 : current * 100u / peak;
}

void display_start(DisplayState *display)
{
    memset(display, 0, sizeof *display);
    for (PostState &post : display->posts) {
        for (uint32_t j = 0; j < OSD_PLANE_COUNT; j++)
            post.planes[j].number = j;
    }

    (void)OSD_Library_Process(); // without a session no post is ever reported as running
    if (osd_init_font(FONT_PATH, font_engines) != STATUS_OK)
        log_error(RUN_NAME, "osd_init_font() failed\n");
}

// Handles the reports of post p since the last pass: first a stop, then a start.
static int32_t take_reports(uint32_t p, PostState *post)
{
    // Read the started bit first, but process the stop first: a restart reported between the two
    // reads then keeps its start for the next pass instead of losing it to its own stop.
    const bool started = osd_take_started(p);
    const bool stopped = osd_take_stopped(p);

    if (stopped) {
        for (OsdPlane &plane : post->planes)
            plane.opened = 0; // closed by the camera together with the post
        post->geometry.valid = 0;
    }

    if (started)
        return get_post_geometry(&post->geometry, osd_post_res_id(p));
    return STATUS_OK;
}

static int32_t draw_bar(uint32_t p, PostState *post, const OsdRegion *region, uint32_t percent)
{
    OsdPlane *plane = &post->planes[BAR_PLANE];

    // If the plane could not be opened, show_bar reports it.
    (void)osd_open_osd(osd_post_res_id(p), plane, make_osd_open_param(BAR_PLANE, region));

    const DrawRect *target = make_bar_rect(region, plane->pitch);
    if (show_bar(osd_post_res_id(p), (int32_t)BAR_PLANE, target, (int32_t)percent) != STATUS_OK) {
        printf("show_bar() failed");
        return STATUS_FAULT;
    }
    return STATUS_OK;
}

static int32_t draw_text(const FocusState *state, uint32_t p, PostState *post,
                         const OsdRegion *region, uint32_t percent)
{
    OsdPlane *plane = &post->planes[TEXT_PLANE];

    if (osd_open_osd(osd_post_res_id(p), plane, make_osd_open_param(TEXT_PLANE, region)) !=
        STATUS_OK) {
        printf("osd_open_osd() failed\n");
        return STATUS_FAULT;
    }

    const DrawRect *target = make_string_rect(region, post, TEXT_PLANE);
    // The current values, which may be newer than those of percent.
    const uint32_t current = state->current.load(std::memory_order_relaxed);
    const uint32_t peak = state->peak.load(std::memory_order_relaxed);
    if (show_string(osd_post_res_id(p), TEXT_PLANE, &post->params.engine, target, (int32_t)current,
                    (int32_t)peak, (int32_t)percent) != STATUS_OK) {
        printf("show_string() failed\n");
        return STATUS_FAULT;
    }
    return STATUS_OK;
}

// Draws the planes of a running post, first the bar, then the text; stops at a failed step.
static void draw_post(const FocusState *state, uint32_t p, PostState *post, OsdRegion *regions,
                      uint32_t percent)
{
    for (uint32_t j = 0; j < OSD_PLANE_COUNT; j++) {
        if (init_draw_param(&post->params, &post->geometry, FONT_PATH, post->spare, regions) !=
            STATUS_OK) {
            log_error(RUN_NAME, "POST%d init_font_param() failed", (int)p);
            return;
        }
        if (j == BAR_PLANE && draw_bar(p, post, &regions[j], percent) != STATUS_OK)
            return;
        if (j == TEXT_PLANE && draw_text(state, p, post, &regions[j], percent) != STATUS_OK)
            return;
    }
}

void display_pass(const FocusState *state, DisplayState *display)
{
    const uint32_t peak = state->peak.load(std::memory_order_relaxed);
    const uint32_t current = state->current.load(std::memory_order_relaxed);
    const uint32_t percent = focus_percent_of(current, peak);

    for (uint32_t p = 0; p < POST_COUNT; p++) {
        PostState *post = &display->posts[p];
        if (take_reports(p, post) != STATUS_OK) {
            printf("POST%d get_post_geometry() failed", (int)p);
            return;
        }
        if (post->geometry.valid != 0)
            draw_post(state, p, post, display->regions[p], percent);
    }
}

void osd_Focus_Assist_run(const FocusState *state)
{
    DisplayState display;
    display_start(&display);
    for (;;) {
        display_pass(state, &display);
        usleep(DISPLAY_PERIOD_US);
    }
}
