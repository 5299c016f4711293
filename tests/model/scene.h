// The program's display thread and the model, run through the same operations.
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

    // Calls world::reset().
    Scene();

    // Runs the program's operation, then the model's. Throws model::Mismatch if they differ.
    void check(const std::function<void()> &product, const std::function<void()> &expected);
    void check_start();
    void check_pass();

    // Resets the posts, keeps the font engines.
    void forget_posts();

    void report(uint32_t post_res_id, uint32_t post, uint32_t running);
    void set_focus(uint32_t current, uint32_t peak);

    // The same while a call of the codec library is under way (world::script.during).
    void report_beside(uint32_t post_res_id, uint32_t post, uint32_t running);
    void set_focus_beside(uint32_t current, uint32_t peak);
};
