// OSD planes of a post. No state: the planes are records of the caller.

#include "osd/osd_plane.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "draw/painter.h"
#include "error_log.h"
#include "palette_index.h"
#include "posts.h"
#include "status.h"

// ---- open and close ----------------------------------------------------------------------------

int32_t osd_is_benign_error(uint32_t code)
{
    switch (code) {
    case QM7_TOLERATED_1:
    case QM7_TOLERATED_2:
    case QM7_TOLERATED_3:
    case QM7_TOLERATED_4:
        return -1;
    default:
        return 0;
    }
}

int32_t osd_open_osd(uint32_t postResId, OsdPlane *plane, const OsdOpenParam *param)
{
    if (plane->opened != 0)
        return STATUS_OK;

    uint32_t extra_out = 0; // an output of the library that nothing uses
    if (qm7_cl_post_open_osd(postResId, param, &extra_out, &plane->pitch) == 0) {
        plane->opened = 1;
        return STATUS_OK;
    }

    const uint32_t code = (uint32_t)errno;
    if (osd_is_benign_error(code) != 0) {
        plane->pitch = 0;
        plane->opened = 1;
        return STATUS_OK;
    }

    log_error(__func__, "qm7_cl_post_open_osd() failed. errno=0x%08X", code);
    return code == QM7_OPEN_REFUSED ? STATUS_FAULT : STATUS_OK;
}

int32_t osd_close_osd(OsdPlane *plane, uint32_t postResId)
{
    if (plane->opened == 0)
        return STATUS_OK;

    if (qm7_cl_post_clear_osd(postResId, plane->number) != 0) {
        const uint32_t code = (uint32_t)errno;
        if (osd_is_benign_error(code) == 0) {
            log_error(__func__, "qm7_cl_post_clear_osd() failed. errno=0x%08X", code);
            log_error(__func__, "postResId=0x%08lX, Number=0x%08X", (unsigned long)postResId,
                      plane->number);
            return STATUS_FAULT; // still open; the next close begins with the clear again
        }
    }

    if (qm7_cl_post_close_osd(postResId, plane->number) != 0) {
        log_error(__func__, "qm7_cl_post_close_osd() failed. errno=0x%08X", (uint32_t)errno);
        return STATUS_FAULT;
    }

    plane->opened = 0;
    return STATUS_OK;
}

// ---- frame update of the bar -------------------------------------------------------------------

// Clears mem from byte begin on, at most its size. Returns the number of bytes of mem.
static uint32_t clear_from(const OsdMem *mem, uint32_t begin)
{
    if (!mem->addr)
        return 0;
    memset((uint8_t *)mem->addr + begin, PALETTE_CLEAR, mem->size - begin);
    return mem->size;
}

uint32_t osd_clear_mem(const OsdMem *mem)
{
    return clear_from(mem, 0);
}

int32_t show_bar(uint32_t postResId, int32_t osd_number, const DrawRect *rect, int32_t percent)
{
    const OsdPosition position = {(uint16_t)rect->x, (uint16_t)rect->y};

    if (osd_number > (int32_t)OSD_PLANE_COUNT - 1) { // the library refuses negative numbers
        printf("invalid osd number %d", osd_number);
        return STATUS_FAULT;
    }

    uint32_t osdId = 0;
    OsdMem mem = {};
    if (qm7_cl_post_get_osd_mem(postResId, osd_number, &osdId, &mem) != 0) {
        const uint32_t code = (uint32_t)errno;
        printf("qm7_cl_post_get_osd_mem() failed. errno=0x%08X", code);
        printf("postResId=0x%08lX, OSD num=%d, osdId=0x%08lx", (unsigned long)postResId, osd_number,
               (unsigned long)osdId);
        return STATUS_FAULT;
    }

    // 32-bit arithmetic that may wrap; the painter never writes beyond mem.size, whatever the
    // result.
    const uint32_t lines = (uint32_t)rect->pitch * (uint32_t)rect->height;
    if (mem.size < lines) {
        printf("osd memory over: mem.size=%ld pitch=%d height=%d", (long)(int32_t)mem.size,
               rect->pitch, rect->height);
        return STATUS_FAULT;
    }

    if (!draw_depth_is_valid(rect->depth)) {
        printf("invalid depth %d", (int)rect->depth);
        return STATUS_INVALID;
    }

    // The painter sets every byte of the lines, so only the rest must be cleared.
    const bool has_lines = rect->pitch > 0 && rect->height > 0;
    const uint32_t paintable = clear_from(&mem, has_lines ? lines : 0);
    draw_rectangle_bitmap((uint8_t *)mem.addr, rect, percent, paintable);

    if (qm7_cl_post_set_osd(postResId, osdId, position) != 0) {
        const uint32_t code = (uint32_t)errno;
        printf("qm7_cl_post_set_osd() failed. errno=0x%08X", code);
        printf("postResId=0x%08lX", (unsigned long)postResId);
        return STATUS_FAULT;
    }
    return STATUS_OK;
}
