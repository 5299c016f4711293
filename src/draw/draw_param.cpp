// Drawing parameters of a post.
//
// State: open_param, the request that make_osd_open_param returns; display thread only.

#include "draw/draw_param.h"

#include "error_log.h"
#include "palette_index.h"
#include "resolution.h"
#include "status.h"

struct RegionSize {
    uint16_t width;  // pixels
    uint16_t height; // lines
};

static const RegionSize REGION_SIZES[RESOLUTION_COUNT] = {
    {720, 108}, {480, 72}, {280, 48}, {132, 24}};

static OsdOpenParam open_param;

static uint32_t resolution_of_width(uint32_t width)
{
    switch (width) {
    case 1920:
        return RESOLUTION_1920;
    case 1280:
        return RESOLUTION_1280;
    case 720:
        return RESOLUTION_720;
    case 352:
        return RESOLUTION_352;
    default:
        return RESOLUTION_INVALID;
    }
}

void init_osd_region(OsdRegion *region, uint32_t resolution)
{
    if (resolution < RESOLUTION_COUNT) {
        region->width = REGION_SIZES[resolution].width;
        region->height = REGION_SIZES[resolution].height;
    }
    region->depth_code = DEPTH_CODE_8_BITS;
    region->color = PALETTE_BOX;
}

int32_t init_draw_param(DrawParams *params, const PostGeometry *geometry, const char *font_path,
                        uint32_t spare, OsdRegion regions[OSD_PLANE_COUNT])
{
    (void)font_path; // the engines have opened the font already
    (void)spare;     // not used yet

    if (params->initialized != 0)
        return STATUS_OK;

    params->font_size = font_pixel_size(geometry->height);

    const uint32_t resolution = resolution_of_width(geometry->width);
    if (resolution == RESOLUTION_INVALID)
        log_error(__func__, "invalid resolution");

    for (uint32_t k = 0; k < OSD_PLANE_COUNT; k++) {
        OsdRegion *region = &regions[k];
        region->resolution = resolution;
        init_osd_region(region, resolution);
        region->x = (geometry->width - region->width) / 2;
        region->y = geometry->height * 4 / 5;
    }

    if (resolution != RESOLUTION_INVALID)
        params->engine = font_engines[resolution];
    params->cell_width = font_cell_width(&params->engine);

    params->initialized = 1;
    return STATUS_OK;
}

void font_release_slot(DrawParams *slot)
{
    if (slot->initialized == 0)
        return;
    (void)font_clear_engine(&slot->engine); // this function returns no status
    slot->initialized = 0;
}

const OsdOpenParam *make_osd_open_param(uint32_t osd_number, const OsdRegion *region)
{
    open_param.number = osd_number;
    open_param.width = region->width;
    open_param.height = region->height;
    open_param.depth_code = region->depth_code;
    return &open_param;
}
