// The readout.
//
// State: bar_target and string_target, refilled before every use; display thread only.

#include "draw/readout.h"

#include <errno.h>
#include <stdio.h>

#include "app/post_state.h"
#include "error_log.h"
#include "focus_threshold.h"
#include "font/font_text.h"
#include "osd/osd_plane.h"
#include "palette_index.h"
#include "resolution.h"
#include "status.h"

constexpr int32_t TEXT_CELLS = 21;      // one more than "FOCUS ASSIST 123/456" has
constexpr uint32_t TEXT_BYTES = 25 + 1; // longer texts are truncated

static DrawRect bar_target;
static DrawRect string_target; // resolution stays 0

const DrawRect *make_bar_rect(const OsdRegion *region, uint32_t pitch)
{
    bar_target.width = region->width;
    bar_target.height = region->height;
    bar_target.depth = 2u << region->depth_code;
    bar_target.x = region->x;
    bar_target.y = region->y;
    bar_target.fg_color = 0;
    bar_target.bg_color = region->color;
    bar_target.cell_width = 0;
    bar_target.pitch = (int32_t)pitch;
    bar_target.resolution = region->resolution;
    return &bar_target;
}

const DrawRect *make_string_rect(const OsdRegion *region, const PostState *post,
                                 uint32_t osd_number)
{
    const DrawParams *params = &post->params;

    string_target.width = TEXT_CELLS * params->cell_width;
    string_target.height = (int32_t)params->font_size;
    string_target.depth = 2u << region->depth_code;
    if (region->resolution <= RESOLUTION_1280) // centered over the bar; may be wider than it
        string_target.x = region->x + (uint32_t)((region->width - string_target.width) / 2);
    else
        string_target.x = region->x + 1;
    string_target.y = region->y - params->font_size; // directly above the bar
    string_target.fg_color = PALETTE_TEXT;
    string_target.bg_color = region->color;
    string_target.cell_width = params->cell_width;
    string_target.pitch = (int32_t)post->planes[osd_number].pitch;
    return &string_target;
}

int32_t show_string(uint32_t postResId, uint32_t osd_number, FontEngine *engine,
                    const DrawRect *target, int32_t current, int32_t peak, int32_t percent)
{
    const OsdPosition position = {(uint16_t)target->x, (uint16_t)target->y};

    uint8_t highlight = 0;
    char text[TEXT_BYTES];
    if (peak == 0) {
        snprintf(text, sizeof text, "FOCUS ASSIST %3d/---", current);
    } else {
        snprintf(text, sizeof text, "FOCUS ASSIST %3d/%3d", current, peak);
        highlight = percent >= FOCUS_THRESHOLD_PERCENT ? 1 : 0;
    }

    uint32_t osdId = 0;
    OsdMem mem = {};
    if (qm7_cl_post_get_osd_mem(postResId, (int32_t)osd_number, &osdId, &mem) != 0) {
        const uint32_t code = (uint32_t)errno;
        printf("qm7_cl_post_get_osd_mem() failed. errno=0x%08X\n", code);
        printf("postResId=0x%08lX, OSD num=%d, osdId=0x%08lX\n", (unsigned long)postResId,
               (int)osd_number, (unsigned long)osdId);
        return STATUS_FAULT;
    }

    const uint32_t paintable = osd_clear_mem(&mem);
    if (font_get_target_bitmap(engine, text, target, (uint8_t *)mem.addr, highlight, paintable) !=
        STATUS_OK) {
        log_error(__func__, "get target bitmap failed");
        return STATUS_FAULT;
    }

    if (qm7_cl_post_set_osd(postResId, osdId, position) != 0) {
        const uint32_t code = (uint32_t)errno;
        printf("qm7_cl_post_set_osd() failed. errno=0x%08X", code);
        printf("postResId=0x%08lX", (unsigned long)postResId);
        return STATUS_FAULT;
    }
    return STATUS_OK;
}
