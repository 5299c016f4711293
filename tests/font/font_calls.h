// The record of world.h as the font tests compare it: calls of FreeType and calloc as text.
#pragma once

#include <string>
#include <vector>

#include "world.h"

// The calls since world::clear_record() as "name(arguments)", handles left out.
inline std::vector<std::string> font_calls()
{
    std::vector<std::string> calls;
    for (const world::Event &event : world::record) {
        const auto in = [&event](size_t i) { return std::to_string(event.in[i]); };
        std::string arguments;
        switch (event.fn) {
        case world::FONT_NEW_FACE:
            arguments = event.text + ", " + in(1);
            break;
        case world::FONT_REQUEST_SIZE:
            arguments = (event.in[1] == FT_SIZE_REQUEST_TYPE_REAL_DIM ? "REAL_DIM, " : "?, ") +
                        in(2) + " x " + in(3) + ", at " + in(4) + " x " + in(5);
            break;
        case world::FONT_CHAR_INDEX:
            arguments = in(1);
            break;
        case world::FONT_LOAD_GLYPH:
            arguments = in(1) + ", " + in(2);
            break;
        case world::FONT_TO_BITMAP:
            arguments =
                "mode " + in(1) + (event.in[2] ? ", origin" : ", no origin") + ", destroy " + in(3);
            break;
        case world::HEAP_CALLOC:
            arguments = in(0) + ", " + in(1);
            break;
        case world::HEAP_FREE:
            continue;
        default:
            break;
        }
        calls.push_back(std::string(world::name_of(event.fn)) + "(" + arguments + ")");
    }
    return calls;
}

// The glyphs released since then, in order, by their numbers.
inline std::vector<int64_t> released_glyphs()
{
    std::vector<int64_t> numbers;
    for (const world::Event &event : world::record) {
        if (event.fn == world::FONT_DONE_GLYPH)
            numbers.push_back(event.in[0]);
    }
    return numbers;
}
