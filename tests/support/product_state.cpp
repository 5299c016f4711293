#include "product_state.h"

#include "app/focus_measure.h"
#include "font/font_engine.h"
#include "osd/osd_session.h"

void reset_product_state()
{
    for (std::atomic<uint32_t> &id : post_notify_state.post_res_id)
        id = 0;
    post_notify_state.started_mask = 0;
    post_notify_state.stopped_mask = 0;

    peak_hold = 1;

    for (FontEngine &engine : font_engines) {
        if (engine.library)
            (void)font_clear_engine(&engine);
        engine = {};
    }
}
