// The two painters on memory of any size: every byte must match the pixel-by-pixel reference.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "difference.h"
#include "draw/painter.h"
#include "input.h"
#include "reference.h"

// A number near 0, near the width of memory, or any number.
static int32_t number(Input *input, int kind)
{
    const uint8_t byte = input->byte();
    if (kind < 13)
        return (int8_t)byte;
    return (int32_t)(kind == 13 ? (uint32_t)byte << 24 | input->half() : 5u * byte);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static constexpr uint32_t DEPTHS[] = {2, 4, 8, 8};
    Input input = {data, size};

    const uint8_t what = input.byte();
    const uint16_t kinds = input.half();
    DrawRect rect = {};
    rect.depth = DEPTHS[what % 4];
    rect.resolution = what / 4 % 8;
    rect.width = number(&input, kinds & 15);
    rect.height = number(&input, kinds >> 4 & 15);
    rect.pitch = number(&input, kinds >> 8 & 15);
    rect.bg_color = (uint32_t)number(&input, kinds >> 12);
    const int32_t percent = number(&input, what >> 4);
    const size_t bytes = input.half() % 512;

    // Exact-size heap blocks, so that the sanitizer detects accesses outside them.
    const std::unique_ptr<uint8_t[]> painted(new uint8_t[bytes]);
    const std::unique_ptr<uint8_t[]> expected(new uint8_t[bytes]);
    memset(painted.get(), 0xA5, bytes);
    memset(expected.get(), 0xA5, bytes);

    if ((what & 128) != 0) {
        draw_rectangle(painted.get(), &rect, (uint32_t)bytes);
        reference::paint_rectangle({expected.get(), bytes}, rect);
    } else {
        draw_rectangle_bitmap(painted.get(), &rect, percent, (uint32_t)bytes);
        reference::paint_bar({expected.get(), bytes}, rect, percent);
    }
    if (memcmp(painted.get(), expected.get(), bytes) != 0) {
        const std::string first = difference({painted.get(), bytes}, {expected.get(), bytes},
                                             (size_t)std::max(rect.pitch, 0));
        fprintf(stderr,
                "%s: %s; width %d, height %d, pitch %d, depth %u, color %u, resolution %u, "
                "percent %d\n",
                (what & 128) != 0 ? "draw_rectangle" : "draw_rectangle_bitmap", first.c_str(),
                rect.width, rect.height, rect.pitch, rect.depth, rect.bg_color, rect.resolution,
                percent);
        abort();
    }
    return 0;
}
