// The part of the camera codec library, libqm7codec.so.2.0, that the program uses: records,
// functions, error codes. Layouts and names are the library's. Every function returns 0 on success;
// otherwise errno holds a 32-bit library code. Memory that the library returns belongs to it.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Argument of the notify callback, passed by value.
struct PostNotifyInfo {
    uint32_t word0;      // not used here
    uint32_t postResId;  // resource id of the post
    uint32_t post_index; // 0..3
    uint32_t running;    // not 0: the post runs now; 0: it stopped
};
static_assert(sizeof(PostNotifyInfo) == 16, "library record");
static_assert(offsetof(PostNotifyInfo, postResId) == 4, "library record");
static_assert(offsetof(PostNotifyInfo, post_index) == 8, "library record");
static_assert(offsetof(PostNotifyInfo, running) == 12, "library record");

// Status of a post, zeroed by the caller.
struct PostStatus {
    uint16_t reserved0;
    uint16_t width;  // of the output, pixels
    uint16_t height; // of the output, lines
    uint8_t reserved6[42];
};
static_assert(sizeof(PostStatus) == 48, "library record");
static_assert(offsetof(PostStatus, width) == 2, "library record");
static_assert(offsetof(PostStatus, height) == 4, "library record");

// A piece of library memory, zeroed by the caller.
struct OsdMem {
    void *addr;
    uint32_t size; // bytes
};
static_assert(sizeof(void *) != 4 || sizeof(OsdMem) == 8, "library record");
static_assert(offsetof(OsdMem, addr) == 0, "library record");
static_assert(offsetof(OsdMem, size) == sizeof(void *), "library record");

// Request for opening a plane.
struct OsdOpenParam {
    uint32_t number;     // OSD number on its post, 0..3
    uint16_t width;      // pixels
    uint16_t height;     // lines
    uint32_t depth_code; // bits per pixel = 2 << depth_code
};
static_assert(sizeof(OsdOpenParam) == 12, "library record");
static_assert(offsetof(OsdOpenParam, width) == 4, "library record");
static_assert(offsetof(OsdOpenParam, height) == 6, "library record");
static_assert(offsetof(OsdOpenParam, depth_code) == 8, "library record");

// Top-left corner of a plane on the post's output, passed by value.
struct OsdPosition {
    uint16_t x; // pixels
    uint16_t y; // lines
};
static_assert(sizeof(OsdPosition) == 4, "library record");
static_assert(offsetof(OsdPosition, y) == 2, "library record");

// Tolerated codes: a failed open counts as open, a failed clear does not stop a close.
constexpr uint32_t QM7_TOLERATED_1 = 0x81E03204;
constexpr uint32_t QM7_TOLERATED_2 = 0x81E04507;
constexpr uint32_t QM7_TOLERATED_3 = 0x81003209;
constexpr uint32_t QM7_TOLERATED_4 = 0x81E0250C;
// The only failed open that osd_open_osd returns as a failure.
constexpr uint32_t QM7_OPEN_REFUSED = 0x81E03246;

typedef void (*PostNotifyCallback)(PostNotifyInfo info);

extern "C" {

int32_t qm7_cl_library_init(void);
int32_t qm7_cl_library_exit(void);
int32_t qm7_cl_sys_open_device(void);
int32_t qm7_cl_sys_close_device(void);

// Registers the callback; the library calls it from its own thread.
int32_t qm7_cl_post_notify_callback(PostNotifyCallback callback);
int32_t qm7_cl_post_set_notify(uint32_t mask);

int32_t qm7_cl_post_get_osd_color_mem(OsdMem *mem);
int32_t qm7_cl_post_set_osd_color(void);
int32_t qm7_cl_post_thread_get_status(uint32_t postResId, PostStatus *status);

int32_t qm7_cl_post_open_osd(uint32_t postResId, const OsdOpenParam *param, uint32_t *extra_out,
                             uint32_t *pitch);
int32_t qm7_cl_post_clear_osd(uint32_t postResId, uint32_t osd_number);
int32_t qm7_cl_post_close_osd(uint32_t postResId, uint32_t osd_number);
int32_t qm7_cl_post_get_osd_mem(uint32_t postResId, int32_t osd_number, uint32_t *osdId,
                                OsdMem *mem);
int32_t qm7_cl_post_set_osd(uint32_t postResId, uint32_t osdId, OsdPosition position);

} // extern "C"
