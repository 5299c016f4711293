#include "handshake.h"

#include <cstring>

#include "app/display_loop.h"
#include "draw/readout.h"
#include "interleaving.h"
#include "osd/osd_plane.h"
#include "osd/osd_session.h"

// ---- what the display loop and the session call ------------------------------------------------

static uint32_t bar_id; // drawn with in the present pass, 0: nothing was drawn
static uint32_t text_id;

int32_t osd_open_osd(uint32_t, OsdPlane *plane, const OsdOpenParam *)
{
    plane->opened = 1;
    return 0;
}

int32_t show_bar(uint32_t postResId, int32_t, const DrawRect *, int32_t)
{
    bar_id = postResId;
    return 0;
}

int32_t show_string(uint32_t postResId, uint32_t, FontEngine *, const DrawRect *, int32_t, int32_t,
                    int32_t)
{
    text_id = postResId;
    return 0;
}

const DrawRect *make_bar_rect(const OsdRegion *, uint32_t)
{
    return nullptr;
}

const DrawRect *make_string_rect(const OsdRegion *, const PostState *, uint32_t)
{
    return nullptr;
}

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
int32_t qm7_cl_post_get_osd_color_mem(OsdMem *)
{
    return 0;
}
int32_t qm7_cl_post_set_osd_color(void)
{
    return 0;
}
int32_t qm7_cl_post_thread_get_status(uint32_t, PostStatus *status)
{
    status->width = 352;
    status->height = 240;
    return 0;
}

} // extern "C"

// ---- the callback ------------------------------------------------------------------------------

namespace handshake
{

void send(const std::vector<Report> &reports)
{
    for (size_t i = 0; i < reports.size(); i++) {
        interleaving::begin_report((int)i);
        osd_post_notify({0, reports[i].id, reports[i].post, reports[i].start});
    }
}

void send_bit_first(const std::vector<Report> &reports)
{
    for (size_t i = 0; i < reports.size(); i++) {
        const Report &report = reports[i];
        interleaving::begin_report((int)i);
        auto &mask = report.start ? post_notify_state.started_mask : post_notify_state.stopped_mask;
        mask.fetch_or((uint16_t)(1u << 4 * report.post), std::memory_order_release);
        if (report.start)
            post_notify_state.post_res_id[report.post].store(report.id, std::memory_order_relaxed);
    }
}

// ---- the display thread's calls ----------------------------------------------------------------

// Which reports have been taken, and what is wrong with a take.
struct Taken {
    const std::vector<Report> &reports;
    std::vector<bool> taken;

    std::string take(uint32_t post, bool start)
    {
        if (!(start ? osd_take_started(post) : osd_take_stopped(post)))
            return "";
        uint32_t oldest_id = 0;
        bool any = false;
        for (size_t i = 0; i < reports.size(); i++) {
            const Report &report = reports[i];
            if (report.post != post || report.start != start ||
                !interleaving::report_is_out((int)i))
                continue;
            any = any || !taken[i];
            taken[i] = true;
            oldest_id = report.id;
        }
        if (!any)
            return "taken, but not reported";
        if (start && osd_post_res_id(post) < oldest_id)
            return "an id older than its report";
        return "";
    }
};

std::string take_all(const std::vector<Report> &reports, int rounds)
{
    Taken taken = {reports, std::vector<bool>(reports.size())};
    for (int round = 0; round <= rounds; round++) {
        if (round == rounds)
            interleaving::settle();
        for (const uint32_t post : {0u, 3u}) {
            for (const bool start : {true, false}) {
                if (const std::string wrong = taken.take(post, start); !wrong.empty())
                    return wrong;
            }
        }
    }
    for (const bool one : taken.taken) {
        if (!one)
            return "a report is lost";
    }
    return "";
}

std::string display_all(const std::vector<Report> &reports, int rounds)
{
    static FocusState focus;
    DisplayState display;
    memset(&display, 0, sizeof display);
    for (int round = 0; round <= rounds; round++) {
        if (round == rounds)
            interleaving::settle();
        bar_id = 0;
        text_id = 0;
        display_pass(&focus, &display);
    }
    if (reports.back().start && bar_id != reports.back().id)
        return bar_id == 0 ? "dark after a start" : "drawn with an older id";
    if (text_id != bar_id)
        return "text and bar on different posts";
    return "";
}

} // namespace handshake
