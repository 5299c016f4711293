// The program's records of the display thread and the model beside them, led through the same
// operations.
#pragma once

#include <cstdint>
#include <functional>

#include "app/display_loop.h"
#include "app/focus_state.h"
#include "model.h"

struct Scene {
    DisplayState display = {};
    FocusState state = {};
    model::Model model;

    // A new world: world::reset().
    Scene();

    // Runs the operation of the program and compares it with that of the model; a difference throws
    // model::Mismatch.
    void check(const std::function<void()> &product, const std::function<void()> &expected);
    void check_start();
    void check_pass();

    // Posts as in a new process; the font engines stay.
    void forget_posts();

    void report(uint32_t post_res_id, uint32_t post, uint32_t running);
    void set_focus(uint32_t current, uint32_t peak);

    // The same while a call of the codec library is under way (world::script.during).
    void report_beside(uint32_t post_res_id, uint32_t post, uint32_t running);
    void set_focus_beside(uint32_t current, uint32_t peak);
};
