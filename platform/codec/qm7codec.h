// The camera codec library's interface, limited to what an overlay on a post-processor output
// needs.
//
// Every function returns 0, or -1 with the library's code in errno (top byte 0x81). This
// implementation connects to the simulated camera that the environment names.
#pragma once

#include <stddef.h>
#include <stdint.h>

// The argument of a notify callback, passed by value.
struct PostNotifyInfo {
    uint32_t mask_bit;    // the bit of the notify mask that selects this report
    uint32_t post_res_id; // new with every start of the post
    uint32_t post;        // 0..3
    uint32_t running;     // 1 started, 0 stopped
};
static_assert(sizeof(PostNotifyInfo) == 16, "library record");

struct PostStatus {
    uint16_t unknown0;
    uint16_t width;  // pixels
    uint16_t height; // lines
    uint16_t unknown6[21];
};
static_assert(sizeof(PostStatus) == 48, "library record");

// Memory of the library. The caller writes to it and never frees it.
struct OsdMem {
    void *addr;
    uint32_t size; // bytes
};
static_assert(sizeof(void *) != 4 || sizeof(OsdMem) == 8, "library record");

struct OsdOpenParam {
    uint32_t number;     // 0..3
    uint16_t width;      // pixels
    uint16_t height;     // lines
    uint32_t depth_code; // bits per pixel = 2 << depth_code
};
static_assert(sizeof(OsdOpenParam) == 12, "library record");

struct OsdPosition {
    uint16_t x;
    uint16_t y;
};
static_assert(sizeof(OsdPosition) == 4, "library record");

typedef void (*PostNotifyCallback)(PostNotifyInfo info);

#pragma GCC visibility push(default)
extern "C" {
int32_t qm7_cl_library_init();
int32_t qm7_cl_library_exit();
int32_t qm7_cl_sys_open_device();
int32_t qm7_cl_sys_close_device();
// The callback runs on a thread of the library.
int32_t qm7_cl_post_notify_callback(PostNotifyCallback callback);
// Bit p of mask selects the reports of post p. Selected posts that are already running are reported
// at once.
int32_t qm7_cl_post_set_notify(uint32_t mask);
int32_t qm7_cl_post_get_osd_color_mem(OsdMem *mem);
int32_t qm7_cl_post_set_osd_color();
int32_t qm7_cl_post_thread_get_status(uint32_t post_res_id, PostStatus *status);
int32_t qm7_cl_post_open_osd(uint32_t post_res_id, const OsdOpenParam *param, uint32_t *buffer_size,
                             uint32_t *pitch);
int32_t qm7_cl_post_clear_osd(uint32_t post_res_id, uint32_t number);
int32_t qm7_cl_post_close_osd(uint32_t post_res_id, uint32_t number);
// Returns a buffer that is not on the screen; the same one until it is shown.
int32_t qm7_cl_post_get_osd_mem(uint32_t post_res_id, int32_t number, uint32_t *osd_id,
                                OsdMem *mem);
int32_t qm7_cl_post_set_osd(uint32_t post_res_id, uint32_t osd_id, OsdPosition position);
}
#pragma GCC visibility pop
