// The program's steps, each once, for an instruction counter: scripts/bench-baseline runs this
// under callgrind, which collects only between begin and end. Prints the allocations of each step.
//
// Argument: the font.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <valgrind/callgrind.h>

#include "app/display_loop.h"
#include "app/focus_state.h"
#include "draw/readout.h"
#include "font/font_text.h"
#include "osd/osd_session.h"

static long allocations; // of the whole process, FreeType's too

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);

void *malloc(size_t size)
{
    allocations++;
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    allocations++;
    return __libc_calloc(count, size);
}

void *realloc(void *memory, size_t size)
{
    allocations++;
    return __libc_realloc(memory, size);
}
}

// ---- a codec library of four outputs, one plane buffer each ------------------------------------

struct Size {
    const char *name;
    uint16_t width;
    uint16_t height;
};

static const Size SIZES[POST_COUNT] = {{"1920x1080", 1920, 1080},
                                       {"1280x720", 1280, 720},
                                       {"720x480", 720, 480},
                                       {"352x240", 352, 240}};

static uint8_t plane[POST_COUNT][2][720 * 108];
static uint32_t plane_bytes[POST_COUNT][2];

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
    status->width = SIZES[post].width;
    status->height = SIZES[post].height;
    return 0;
}

int32_t qm7_cl_post_open_osd(uint32_t post, const OsdOpenParam *param, uint32_t *, uint32_t *pitch)
{
    *pitch = (param->width + 15u) / 16 * 16;
    plane_bytes[post][param->number] = *pitch * param->height;
    return plane_bytes[post][param->number] > sizeof plane[0][0];
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
    *mem = {plane[post][number], plane_bytes[post][number]};
    return 0;
}

int32_t qm7_cl_post_set_osd(uint32_t, uint32_t, OsdPosition)
{
    return 0;
}

} // extern "C"

// ---- steps -------------------------------------------------------------------------------------

// Does step once, counted under name.
template <typename Step> static void count(const std::string &name, Step step)
{
    const long before = allocations;
    CALLGRIND_ZERO_STATS;
    CALLGRIND_TOGGLE_COLLECT;
    step();
    CALLGRIND_TOGGLE_COLLECT;
    const long made = allocations - before;
    CALLGRIND_DUMP_STATS_AT(name.c_str());
    printf("%s %ld\n", name.c_str(), made);
}

int main(int argc, char **argv)
{
    if (argc != 2)
        return 2;
    const char *font = argv[1];

    int32_t status = 0;
    count("start-up", [&] {
        status = OSD_Library_Process();
        status |= osd_init_font(font, font_engines);
    });
    if (status != 0)
        return 1;

    static FocusState state;
    state.current.store(72);
    state.peak.store(100);
    static DisplayState display;
    for (PostState &post : display.posts) {
        for (uint32_t j = 0; j < OSD_PLANE_COUNT; j++)
            post.planes[j].number = j;
    }

    for (uint32_t post = 0; post < POST_COUNT; post++) {
        osd_post_notify({0, post, post, 1});
        display_pass(&state, &display); // opens the planes; binds what is bound at a first call
        count(std::string("pass-") + SIZES[post].name, [&] { display_pass(&state, &display); });
        osd_post_notify({0, post, post, 0});
        PostState *drawn = &display.posts[post];
        const OsdRegion *regions = display.regions[post];

        const DrawRect *bar = make_bar_rect(&regions[0], drawn->planes[0].pitch);
        count(std::string("bar-") + SIZES[post].name,
              [&] { draw_rectangle_bitmap(plane[post][0], bar, 72, plane_bytes[post][0]); });
        const DrawRect *text = make_string_rect(&regions[1], drawn, 1);
        count(std::string("text-") + SIZES[post].name, [&] {
            status |= font_get_target_bitmap(&drawn->params.engine, "FOCUS ASSIST  72/100", text,
                                             plane[post][1], 0, plane_bytes[post][1]);
        });
        count(std::string("draw_rectangle-") + SIZES[post].name,
              [&] { draw_rectangle(plane[post][1], text, plane_bytes[post][1]); });
    }
    return status == 0 ? 0 : 1;
}
