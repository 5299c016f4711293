#include "camera.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>

#include "app/focus_measure.h"
#include "font/font_engine.h"
#include "freetype_wrap.h"
#include "osd/osd_palette.h"
#include "world.h"

using namespace world;

std::atomic<uint64_t> camera_readings;
std::atomic<uint64_t> camera_shown;
void (*camera_after_last)();
std::atomic<uint64_t> camera_last_reading;

static constexpr int DEVICE = 10000;
static constexpr uint32_t POSTS = 4;
static Random library_random = {12345}; // of the display thread

uint32_t Random::next()
{
    state = state * 6364136223846793005u + 1442695040888963407u;
    return (uint32_t)(state >> 33);
}

void camera_prepare()
{
    static const uint16_t SIZES[][2] = {{1920, 1080}, {1280, 720}, {720, 480},
                                        {352, 240},   {720, 576},  {640, 480}};
    static const uint32_t CODES[] = {0x81E03204, 0x81E04507, 0x81003209,
                                     0x81E0250C, 0x81E03246, 0x81E03201};
    script.records = false;
    script.fails = [](Fn fn, uint64_t) { // one in a thousand of the calls that a pass makes
        if (fn < GET_STATUS || fn > SET_OSD || library_random.below(1000) != 0)
            return false;
        script.code = (int)CODES[library_random.below(6)];
        return true;
    };
    script.begun = [](const Event &event) {
        if (event.fn != GET_STATUS)
            return;
        const uint32_t id = (uint32_t)event.in[0];
        script.width[id % 4] = SIZES[id / 8 % 6][0];
        script.height[id % 4] = SIZES[id / 8 % 6][1];
    };
    script.ended = [](const Event &event) {
        if (event.fn == SET_OSD)
            camera_shown++;
        if (event.fn == LIBRARY_EXIT)
            callback = nullptr;
    };
}

void camera_report(Random *random)
{
    const PostNotifyCallback registered = callback;
    if (!registered)
        return;
    const uint32_t post = random->below(POSTS + 1); // also one that does not exist
    registered({random->next(), 0x51000000 + 8 * random->below(1000) + post, post,
                random->below(3) == 0 ? 0u : 1u});
}

extern "C" {

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

// Never blocks. Readings rise from 0 to CAMERA_HIGHEST, again and again.
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
