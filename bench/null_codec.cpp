#include "null_codec.h"

#include "osd/osd_session.h"
#include "osd/qm7_codec.h"

static uint16_t post_width[POST_COUNT];
static uint16_t post_height[POST_COUNT];
static uint8_t plane_memory[POST_COUNT][OSD_PLANE_COUNT][1024 * 256];
static uint32_t plane_bytes[POST_COUNT][OSD_PLANE_COUNT];

void null_codec_set_post(uint32_t post, uint16_t width, uint16_t height)
{
    post_width[post] = width;
    post_height[post] = height;
}

std::span<uint8_t> null_codec_plane(uint32_t post, uint32_t number)
{
    return {plane_memory[post][number], plane_bytes[post][number]};
}

extern "C" {

int32_t qm7_cl_library_init(void)
{
    return 0;
}

int32_t qm7_cl_library_exit(void)
{
    return 0;
}

int32_t qm7_cl_sys_open_device(void)
{
    return 0;
}

int32_t qm7_cl_sys_close_device(void)
{
    return 0;
}

int32_t qm7_cl_post_notify_callback(PostNotifyCallback)
{
    return 0;
}

int32_t qm7_cl_post_set_notify(uint32_t)
{
    return 0;
}

int32_t qm7_cl_post_get_osd_color_mem(OsdMem *mem)
{
    static uint8_t table[1024];
    *mem = {table, sizeof table};
    return 0;
}

int32_t qm7_cl_post_set_osd_color(void)
{
    return 0;
}

int32_t qm7_cl_post_thread_get_status(uint32_t post, PostStatus *status)
{
    status->width = post_width[post];
    status->height = post_height[post];
    return 0;
}

int32_t qm7_cl_post_open_osd(uint32_t post, const OsdOpenParam *param, uint32_t *, uint32_t *pitch)
{
    *pitch = (param->width + 15u) & ~15u; // a common alignment of display hardware
    plane_bytes[post][param->number] = *pitch * param->height;
    return plane_bytes[post][param->number] > sizeof plane_memory[0][0];
}

int32_t qm7_cl_post_clear_osd(uint32_t, uint32_t)
{
    return 0;
}

int32_t qm7_cl_post_close_osd(uint32_t, uint32_t)
{
    return 0;
}

int32_t qm7_cl_post_get_osd_mem(uint32_t post, int32_t number, uint32_t *osdId, OsdMem *mem)
{
    *osdId = (uint32_t)number;
    *mem = {plane_memory[post][number], plane_bytes[post][number]};
    return 0;
}

int32_t qm7_cl_post_set_osd(uint32_t, uint32_t, OsdPosition)
{
    return 0;
}

} // extern "C"
