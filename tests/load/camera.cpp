#include "camera.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>

#include "app/focus_measure.h"
#include "font/font_engine.h"
#include "freetype_wrap.h"
#include "osd/osd_palette.h"
#include "osd/qm7_codec.h"

std::atomic<uint64_t> camera_readings;
std::atomic<uint64_t> camera_shown;
void (*camera_after_last)();
std::atomic<uint64_t> camera_last_reading;

static constexpr int DEVICE = 10000;
static constexpr uint32_t POSTS = 4;
static std::atomic<PostNotifyCallback> registered;
static Random library_random = {12345}; // of the display thread
static uint8_t color_table[1024];
static uint8_t planes[POSTS][2][1u << 17];
static uint32_t sizes[POSTS][2];

uint32_t Random::next()
{
    state = state * 6364136223846793005u + 1442695040888963407u;
    return (uint32_t)(state >> 33);
}

void camera_report(Random *random)
{
    const PostNotifyCallback callback = registered;
    if (!callback)
        return;
    const uint32_t post = random->below(POSTS + 1); // one more than there are
    callback({random->next(), 0x51000000 + 8 * random->below(1000) + post, post,
              random->below(3) == 0 ? 0u : 1u});
}

// Now and then a call fails.
static int32_t answer()
{
    static const uint32_t CODES[] = {0x81E03204, 0x81E04507, 0x81003209,
                                     0x81E0250C, 0x81E03246, 0x81E03201};
    if (library_random.below(1000) != 0)
        return 0;
    errno = (int)CODES[library_random.below(6)];
    return -1;
}

static uint32_t plane_of(uint32_t postResId)
{
    return postResId % 8 % POSTS;
}

extern "C" {

int32_t qm7_cl_library_init(void)
{
    return 0;
}

int32_t qm7_cl_library_exit(void)
{
    registered = nullptr;
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

int32_t qm7_cl_post_notify_callback(PostNotifyCallback callback)
{
    registered = callback;
    return 0;
}

int32_t qm7_cl_post_set_notify(uint32_t)
{
    return 0;
}

int32_t qm7_cl_post_get_osd_color_mem(OsdMem *mem)
{
    *mem = {color_table, sizeof color_table};
    return 0;
}

int32_t qm7_cl_post_set_osd_color(void)
{
    return 0;
}

int32_t qm7_cl_post_thread_get_status(uint32_t postResId, PostStatus *status)
{
    static const uint16_t SIZES[][2] = {{1920, 1080}, {1280, 720}, {720, 480},
                                        {352, 240},   {720, 576},  {640, 480}};
    const uint16_t *size = SIZES[postResId / 8 % 6];
    status->width = size[0];
    status->height = size[1];
    return answer();
}

int32_t qm7_cl_post_open_osd(uint32_t postResId, const OsdOpenParam *param, uint32_t *extra_out,
                             uint32_t *pitch)
{
    *extra_out = 0;
    const int32_t result = answer();
    if (result == 0) {
        *pitch = (param->width + 15u) / 16 * 16;
        sizes[plane_of(postResId)][param->number] = *pitch * param->height;
    }
    return result;
}

int32_t qm7_cl_post_clear_osd(uint32_t, uint32_t)
{
    return 0;
}

int32_t qm7_cl_post_close_osd(uint32_t, uint32_t)
{
    return 0;
}

int32_t qm7_cl_post_get_osd_mem(uint32_t postResId, int32_t osd_number, uint32_t *osdId,
                                OsdMem *mem)
{
    const uint32_t post = plane_of(postResId);
    *osdId = post * 2 + (uint32_t)osd_number;
    *mem = {planes[post][osd_number], sizes[post][osd_number]};
    return answer();
}

int32_t qm7_cl_post_set_osd(uint32_t, uint32_t, OsdPosition)
{
    camera_shown++;
    return answer();
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...);
int __wrap_ioctl(int file, unsigned long request, ...);

int __wrap_open(const char *path, int flags, ...)
{
    if (strcmp(path, CAM_DEVICE_PATH) == 0)
        return DEVICE;
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return __real_open(strcmp(path, OSD_PALETTE_PATH) == 0 ? "/dev/null" : path, flags, mode);
}

// Never blocks. Readings rise from 0 to CAMERA_HIGHEST and begin again.
int __wrap_ioctl(int file, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    CamFocusStats *const stats = va_arg(arguments, CamFocusStats *);
    va_end(arguments);
    if (file != DEVICE || (uint32_t)request != CAM_FOCUS_READ)
        return 0;
    const uint64_t number = camera_readings.fetch_add(1, std::memory_order_relaxed) + 1;
    const uint64_t last = camera_last_reading.load(std::memory_order_relaxed);
    if (last != 0 && number > last)
        camera_after_last();
    stats->focus_value = (uint32_t)(number % (CAMERA_HIGHEST + 1)) * 100;
    return 0;
}

FT_Error __wrap_FT_New_Face(FT_Library library, const char *path, FT_Long index, FT_Face *face)
{
    return __real_FT_New_Face(library, strcmp(path, FONT_PATH) == 0 ? TEST_FONT_PATH : path, index,
                              face);
}

} // extern "C"
