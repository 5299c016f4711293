// A palette file with any content and color memory of any size; the read may be short, and any
// call of the session may fail.

#include <cstdio>
#include <cstdlib>

#include "input.h"
#include "memory_file.h"
#include "osd/osd_session.h"
#include "scene.h"

using namespace world;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input = {data, size};
    Scene scene;
    const uint8_t what = input.byte();
    script.no_color_memory = (what & 1) != 0;
    script.color_size = (what & 2) != 0 ? input.half() : 1024;
    script.short_read = (what & 4) != 0 ? input.byte() : 0;
    if ((what & 8) != 0) {
        const Fn fn = (Fn)(input.byte() % HEAP_CALLOC);
        script.code = (int)input.word();
        script.fails = [=](Fn called, uint64_t) { return called == fn; };
    }
    const MemoryFile file(input.data, input.size);
    script.palette_path = (what & 16) != 0 ? "/proc/self/fd" : file.path();

    try {
        int32_t result = 1;
        int32_t expected = 2;
        scene.check([&] { result = OSD_Library_Process(); },
                    [&] { expected = scene.model.library_process(); });
        if (result != expected)
            throw model::Mismatch("result " + std::to_string(result));
    } catch (const model::Mismatch &mismatch) {
        fprintf(stderr, "differs from the model: %s\n", mismatch.what());
        abort();
    }
    if (objects_alive() != 0) {
        fprintf(stderr, "a descriptor is still open\n");
        abort();
    }
    return 0;
}
