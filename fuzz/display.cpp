// A camera controlled by the input: reports, outputs, answers, memory and focus values between and
// during passes of the display thread. Every pass must match the model.

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include "input.h"
#include "reference.h"
#include "scene.h"

using namespace world;

static constexpr int PASSES = 3;
static constexpr uint32_t MEMORY_MAX = 1u << 16;

// The engines are built once: they do not change while the readout is drawn.
static Scene &scene()
{
    static Scene *const made = [] {
        Scene *fresh = new Scene;
        fresh->check_start();
        return fresh;
    }();
    return *made;
}

template <typename Value, size_t N>
static Value pick(Input *input, const std::array<Value, N> &values)
{
    return values[input->byte() % N];
}

static uint32_t post_id(Input *input)
{
    return 0x51000000 + input->byte() % 16;
}

// A boundary value, or any value.
static uint32_t number(Input *input)
{
    static const std::array<uint32_t, 16> VALUES = {0,
                                                    1,
                                                    2,
                                                    reference::THRESHOLD - 1,
                                                    reference::THRESHOLD,
                                                    100,
                                                    999,
                                                    1000,
                                                    720,
                                                    65535,
                                                    39768216,
                                                    0x40000000,
                                                    0x7FFFFFFF,
                                                    0x80000000,
                                                    0xFFFFFFFF,
                                                    42949673};
    const uint8_t kind = input->byte();
    return kind < 128 ? VALUES[kind % VALUES.size()] : kind < 192 ? input->half() : input->word();
}

static void set_output(Input *input)
{
    static const std::array<uint16_t, 6> WIDTHS = {1920, 1280, 720, 352, 640, 0};
    static const std::array<uint16_t, 8> HEIGHTS = {1080, 720, 480, 240, 576, 288, 0, 2200};
    const size_t post = input->byte() % 4;
    script.width[post] = pick(input, WIDTHS);
    script.height[post] = pick(input, HEIGHTS);
    if (input->byte() > 200) {
        script.width[post] = input->half();
        script.height[post] = input->half();
    }
}

static void set_plane(Input *input)
{
    Plane &plane = script.planes[input->byte() % 4][input->byte() % 2];
    const uint8_t what = input->byte();
    plane.no_memory = (what & 1) != 0;
    plane.guard = (what & 2) != 0 ? Guard::BEFORE : Guard::BEHIND;
    if ((what & 32) != 0)
        plane.pitch.reset();
    plane.size.reset();
    plane.failed_pitch.reset();
    if ((what & 4) != 0)
        plane.pitch = number(input);
    if ((what & 8) != 0)
        plane.size = number(input) % MEMORY_MAX;
    if ((what & 16) != 0)
        plane.failed_pitch = number(input);
    // Without an explicit size the memory has pitch x height bytes; the pitch may be that of a
    // plane opened before.
    const uint32_t pitch = std::max(plane.pitch.value_or(0), plane.opened_pitch);
    if (pitch > 2000 && !plane.size)
        plane.size = pitch % MEMORY_MAX;
}

static int code(Input *input)
{
    static const std::array<uint32_t, 8> CODES = {0x81E03204, 0x81E04507, 0x81003209, 0x81E0250C,
                                                  0x81E03246, 0x81E03201, 12,         0};
    return (int)pick(input, CODES);
}

static void one_pass(Input *input)
{
    static const std::array<Fn, 12> FUNCTIONS = {
        GET_STATUS,      OPEN_OSD,       OPEN_OSD,       GET_OSD_MEM, SET_OSD, FONT_CHAR_INDEX,
        FONT_LOAD_GLYPH, FONT_GET_GLYPH, FONT_TO_BITMAP, GET_OSD_MEM, SET_OSD, GET_STATUS};
    const uint8_t what = input->byte();
    script.fails = nullptr;
    if ((what & 1) != 0) {
        const Fn fn = pick(input, FUNCTIONS);
        const uint64_t first = 1 + input->byte() % 9;
        const bool for_ever = (what & 2) != 0;
        script.code = code(input);
        script.failed_osd_id = input->byte();
        script.fails = [=](Fn called, uint64_t index) {
            return called == fn && (index == first || (for_ever && index > first));
        };
    }

    script.during = nullptr;
    if ((what & 4) != 0) {
        int calls_until = input->byte() % 24;
        const uint32_t id = post_id(input);
        const uint32_t post = input->byte() % 6;
        const uint8_t running = input->byte() % 3;
        const uint32_t current = number(input);
        const uint32_t peak = number(input);
        script.during = [=](Fn) mutable {
            if (calls_until-- != 0)
                return;
            if (running < 2)
                scene().report_beside(id, post, running);
            else
                scene().report_beside(id, post, 0), scene().report_beside(id, post, 1);
            scene().set_focus_beside(current, peak);
        };
    }
    scene().check_pass();
    script.fails = nullptr;
    script.during = nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input = {data, size};
    scene().forget_posts();
    scene().set_focus(0, 0);
    const std::string font = script.font_path;
    script = Script();
    script.font_path = font;
    // Small pictures, so that many fit into a run; inputs can request larger ones. The pitch has
    // room for the text of the smallest output.
    for (size_t post = 0; post < 4; post++) {
        script.width[post] = 352;
        script.height[post] = 240;
        script.planes[post][0].pitch = 64;
        script.planes[post][1].pitch = 192;
    }

    try {
        for (int passes = 0; passes < PASSES && !input.empty();) {
            switch (input.byte() % 6) {
            case 0:
            case 1:
                one_pass(&input);
                passes++;
                break;
            case 2: {
                const uint32_t id = post_id(&input);
                const uint32_t post = input.byte();
                scene().report(id, post > 250 ? number(&input) : post % 4, input.byte() % 4);
                break;
            }
            case 3: {
                const uint32_t current = number(&input);
                scene().set_focus(current, number(&input));
                break;
            }
            case 4:
                set_plane(&input);
                break;
            case 5:
                set_output(&input);
                break;
            }
        }
        one_pass(&input);
    } catch (const model::Mismatch &mismatch) {
        fprintf(stderr, "differs from the model: %s\n", mismatch.what());
        abort();
    }
    if (objects_alive() != 4 * (1 + 1 + 1 + 65)) { // libraries, faces, arrays, glyphs
        fprintf(stderr, "%zu objects left\n", objects_alive());
        abort();
    }
    return 0;
}
