// Stands in for the camera codec library. Every call fails until there is a camera behind it.

#include <errno.h>
#include <stdint.h>

extern "C" {
#define REFUSE(name) int32_t name(void); int32_t name(void) { errno = (int)0x81E00001u; return -1; }
REFUSE(qm7_cl_library_init)
REFUSE(qm7_cl_library_exit)
REFUSE(qm7_cl_sys_open_device)
REFUSE(qm7_cl_sys_close_device)
REFUSE(qm7_cl_post_notify_callback)
REFUSE(qm7_cl_post_set_notify)
REFUSE(qm7_cl_post_get_osd_color_mem)
REFUSE(qm7_cl_post_set_osd_color)
REFUSE(qm7_cl_post_thread_get_status)
REFUSE(qm7_cl_post_open_osd)
REFUSE(qm7_cl_post_clear_osd)
REFUSE(qm7_cl_post_close_osd)
REFUSE(qm7_cl_post_get_osd_mem)
REFUSE(qm7_cl_post_set_osd)
}
