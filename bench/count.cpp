// Runs each step of the program once for an instruction counter: scripts/bench-baseline runs this
// under callgrind, which counts only while a step runs. Prints the allocations of each step.
//
// Argument: the font.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <valgrind/callgrind.h>

#include "allocations.h"
#include "app/display_loop.h"
#include "app/focus_state.h"
#include "draw/readout.h"
#include "font/font_text.h"
#include "null_codec.h"
#include "osd/osd_session.h"

struct Size {
    const char *name;
    uint16_t width;
    uint16_t height;
};

static const Size SIZES[POST_COUNT] = {{"1920x1080", 1920, 1080},
                                       {"1280x720", 1280, 720},
                                       {"720x480", 720, 480},
                                       {"352x240", 352, 240}};

// ---- steps -------------------------------------------------------------------------------------

// Runs step once, counted under name.
template <typename Step> static void count(const std::string &name, Step step)
{
    const int64_t before = allocations().calls;
    CALLGRIND_ZERO_STATS;
    CALLGRIND_TOGGLE_COLLECT;
    step();
    CALLGRIND_TOGGLE_COLLECT;
    const long made = (long)(allocations().calls - before);
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
        null_codec_set_post(post, SIZES[post].width, SIZES[post].height);
        osd_post_notify({0, post, post, 1});
        display_pass(&state, &display); // opens the planes; the loader binds the functions it calls
        count(std::string("pass-") + SIZES[post].name, [&] { display_pass(&state, &display); });
        osd_post_notify({0, post, post, 0});
        PostState *drawn = &display.posts[post];
        const OsdRegion *regions = display.regions[post];
        const std::span<uint8_t> bar_memory = null_codec_plane(post, 0);
        const std::span<uint8_t> text_memory = null_codec_plane(post, 1);

        const DrawRect *bar = make_bar_rect(&regions[0], drawn->planes[0].pitch);
        count(std::string("bar-") + SIZES[post].name, [&] {
            draw_rectangle_bitmap(bar_memory.data(), bar, 72, (uint32_t)bar_memory.size());
        });
        const DrawRect *text = make_string_rect(&regions[1], drawn, 1);
        count(std::string("text-") + SIZES[post].name, [&] {
            status |= font_get_target_bitmap(&drawn->params.engine, "FOCUS ASSIST  72/100", text,
                                             text_memory.data(), 0, (uint32_t)text_memory.size());
        });
        count(std::string("draw_rectangle-") + SIZES[post].name,
              [&] { draw_rectangle(text_memory.data(), text, (uint32_t)text_memory.size()); });
    }
    return status == 0 ? 0 : 1;
}
