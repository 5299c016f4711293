// Any file in place of the font: start-up, three passes on four outputs and teardown fail or draw
// as the model does with FreeType's results, and release every object.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/time.h>

#include "font/font_engine.h"
#include "memory_file.h"
#include "scene.h"

using namespace world;

// Samples of processor time: all, and those taken while FreeType ran.
static volatile sig_atomic_t samples;
static volatile sig_atomic_t samples_in_freetype;

static void take_sample(int)
{
    samples = samples + 1;
    samples_in_freetype = samples_in_freetype + (inside_freetype > 0 ? 1 : 0);
}

static void print_share()
{
    if (samples > 0)
        fprintf(stderr, "FreeType's own time: %d %%\n", samples_in_freetype * 100 / samples);
}

// libFuzzer calls this once before the first input.
extern "C" int LLVMFuzzerInitialize(int *, char ***);
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    struct sigaction action = {};
    action.sa_handler = take_sample;
    action.sa_flags = SA_RESTART;
    const itimerval often = {{0, 10000}, {0, 10000}}; // 100 times a second of processor time
    if (sigaction(SIGPROF, &action, nullptr) != 0 || setitimer(ITIMER_PROF, &often, nullptr) != 0)
        return 1;
    return atexit(print_share);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Scene scene;
    const MemoryFile file(data, size);
    script.font_path = file.path();
    // A font can request 260 glyphs of any size; a camera lacks the memory for large ones.
    script.largest_block = 1 << 20;
    // Narrow planes: drawing on them takes little time compared with FreeType.
    for (size_t post = 0; post < 4; post++) {
        script.planes[post][0].pitch = 32;
        script.planes[post][1].pitch = 192;
    }

    try {
        scene.check_start();
        for (uint32_t post = 0; post < 4; post++)
            scene.report(0x51000000 + post, post, 1);
        scene.check_pass();
        scene.set_focus(90, 100);
        scene.check_pass();
        scene.set_focus(4294967295, 4294967295);
        scene.check_pass();
        for (size_t i = 0; i < 4; i++)
            scene.check([i] { (void)font_clear_engine(&font_engines[i]); },
                        [&scene, i] { scene.model.clear_engine(&scene.model.engines[i]); });
    } catch (const model::Mismatch &mismatch) {
        fprintf(stderr, "differs from the model: %s\n", mismatch.what());
        abort();
    }
    if (objects_alive() != 0) {
        fprintf(stderr, "%zu objects left\n", objects_alive());
        abort();
    }
    return 0;
}
