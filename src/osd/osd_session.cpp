// The session with the codec library.
//
// State: post_notify_state, written by the library's thread in osd_post_notify and read and cleared
// by the display thread.

#include "osd/osd_session.h"

#include <errno.h>
#include <string.h>

#include "error_log.h"
#include "osd/osd_palette.h"
#include "status.h"

PostNotifyState post_notify_state;

// ---- reports -----------------------------------------------------------------------------------

// Four bits per post: post 0 has bit 0, post 3 has bit 12.
static uint16_t post_bit(uint32_t post)
{
    return (uint16_t)(1u << (4 * post));
}

void osd_post_notify(PostNotifyInfo info)
{
    if (info.post_index >= POST_COUNT)
        return;

    const uint16_t bit = post_bit(info.post_index);
    if (info.running != 0) {
        post_notify_state.post_res_id[info.post_index].store(info.postResId,
                                                             std::memory_order_relaxed);
        // Release: a reader that sees the bit reads the id stored above or a later one.
        post_notify_state.started_mask.fetch_or(bit, std::memory_order_release);
    } else {
        post_notify_state.stopped_mask.fetch_or(bit, std::memory_order_release);
    }
}

static bool take_bit(std::atomic<uint16_t> *mask, uint32_t post)
{
    const uint16_t bit = post_bit(post);
    if ((mask->load(std::memory_order_relaxed) & bit) == 0)
        return false;
    // Acquire with the clear, not with the test: a report between the two is then taken completely.
    mask->fetch_and((uint16_t)~bit, std::memory_order_acquire);
    return true;
}

bool osd_take_started(uint32_t post)
{
    return take_bit(&post_notify_state.started_mask, post);
}

bool osd_take_stopped(uint32_t post)
{
    return take_bit(&post_notify_state.stopped_mask, post);
}

uint32_t osd_post_res_id(uint32_t post)
{
    return post_notify_state.post_res_id[post].load(std::memory_order_relaxed);
}

// ---- session -----------------------------------------------------------------------------------

static int32_t start_failed(const char *call, uint32_t code)
{
    log_error("OSD_Library_Process", "%s() failed. errno=0x%08X", call, code);
    return STATUS_FAULT;
}

// Closes device and library; failures are ignored.
static void undo_device()
{
    (void)qm7_cl_sys_close_device();
    (void)qm7_cl_library_exit();
}

int32_t OSD_Library_Process()
{
    OsdMem color_mem = {};

    if (qm7_cl_library_init() != 0)
        return start_failed("qm7_cl_library_init", (uint32_t)errno);

    if (qm7_cl_sys_open_device() != 0) {
        const int32_t status = start_failed("qm7_cl_sys_open_device", (uint32_t)errno);
        (void)qm7_cl_library_exit(); // a failure has no remedy
        return status;
    }

    if (qm7_cl_post_notify_callback(osd_post_notify) != 0) {
        const int32_t status = start_failed("qm7_cl_post_notify_callback", (uint32_t)errno);
        undo_device();
        return status;
    }

    if (qm7_cl_post_set_notify(OSD_NOTIFY_MASK) != 0) {
        const int32_t status = start_failed("qm7_cl_post_set_notify", (uint32_t)errno);
        undo_device();
        return status;
    }

    if (qm7_cl_post_get_osd_color_mem(&color_mem) != 0) {
        const int32_t status = start_failed("qm7_cl_post_get_osd_color_mem", (uint32_t)errno);
        undo_device();
        return status;
    }

    osd_fill_color_mem(&color_mem);

    if (qm7_cl_post_set_osd_color() != 0) {
        const int32_t status = start_failed("qm7_cl_post_set_osd_color", (uint32_t)errno);
        undo_device();
        return status;
    }
    return STATUS_OK;
}

void osd_close_codec_lib()
{
    if (qm7_cl_sys_close_device() != 0)
        log_error(__func__, "qm7_cl_sys_close_device() failed. errno=0x%08X", (uint32_t)errno);
    if (qm7_cl_library_exit() != 0)
        log_error(__func__, "qm7_cl_library_exit() failed. errno=0x%08X", (uint32_t)errno);
}

// ---- geometry ----------------------------------------------------------------------------------

int32_t get_post_geometry(PostGeometry *geometry, uint32_t postResId)
{
    if (geometry->valid != 0)
        return STATUS_OK;

    PostStatus status;
    memset(&status, 0, sizeof status);
    if (qm7_cl_post_thread_get_status(postResId, &status) != 0)
        return STATUS_FAULT; // the display loop reports it with the post's number

    geometry->width = status.width;
    geometry->height = status.height;
    geometry->valid = 1;
    return STATUS_OK;
}
