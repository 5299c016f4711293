// Posts, planes, sessions and faults.

#include "board/board.h"

#include <algorithm>

namespace simcam
{

// postResId: a mark, the post, and how often it has been started; ids of earlier runs are refused.
constexpr uint32_t RES_ID_MARK = 0x51000000;
// osdId: a mark and a number that changes with every buffer that is lent.
constexpr uint32_t OSD_ID_MARK = 0x40000000;

bool board_init(Board &board, uint64_t seed, uint32_t pitch_align)
{
    board.seed = seed;
    board.pitch_align = pitch_align;
    board.palette.assign(PALETTE_BYTES, 0);
    return shared_memory_make(PALETTE_BYTES, seed, &board.color);
}

double board_time(const Board &board)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - board.start).count();
}

// ---- clients

void board_add_session(Board &board, Session &session, int pid)
{
    const std::lock_guard guard(board.lock);
    session.id = ++board.session_count;
    session.pid = pid;
    board.sessions.push_back(&session);
}

void board_remove_session(Board &board, Session &session)
{
    const std::lock_guard guard(board.lock);
    board_take_back_buffers(board, session);
    std::erase(board.sessions, &session);
}

// ---- parts of calls

Fault board_take_fault(Board &board, const std::string &call)
{
    const auto found = std::find_if(board.faults.begin(), board.faults.end(),
                                    [&](const Fault &f) { return f.call == call; });
    if (found == board.faults.end())
        return {};
    found->hits++;
    if (found->remaining != FAULT_FOREVER)
        found->remaining--;
    const Fault taken = *found;
    if (taken.remaining == 0)
        board.faults.erase(found);
    return taken;
}

bool board_reading_ready(const Board &board, const Session &session)
{
    return board.latest.number > session.last_reading;
}

Post *board_find_post(Board &board, uint32_t res_id)
{
    for (Post &post : board.post)
        if (post.state.running && post.state.res_id == res_id)
            return &post;
    return nullptr;
}

void board_open_plane(Board &board, Plane &plane, const PlaneState &request)
{
    const uint32_t line = (request.width * depth_bits(request.depth_code) + 7) / 8;
    const uint32_t align = board.pitch_align;
    plane.state = {};
    plane.state.open = true;
    plane.state.width = request.width;
    plane.state.height = request.height;
    plane.state.depth_code = request.depth_code;
    plane.state.pitch = (line + align - 1) / align * align;
    plane.epoch = ++board.epochs;
}

void board_close_plane(Plane &plane)
{
    plane.state = {};
    plane.shown = -1;
    plane.buffers.clear();
}

// One client alone never needs more than two buffers of a plane.
PlaneBuffer *board_lend_buffer(Board &board, const Session &session, Plane &plane)
{
    PlaneBuffer *idle = nullptr;
    for (PlaneBuffer &buffer : plane.buffers) {
        if (buffer.lent_to == session.id)
            return &buffer;
        if (buffer.lent_to == 0 && &buffer - plane.buffers.data() != plane.shown)
            idle = &buffer;
    }
    if (!idle) {
        if (plane.buffers.size() == WIRE_BUFFERS)
            return nullptr;
        PlaneBuffer fresh;
        const uint64_t seed = board.seed + plane.epoch * WIRE_BUFFERS + plane.buffers.size();
        if (!shared_memory_make(plane.state.pitch * plane.state.height, seed, &fresh.shared))
            return nullptr;
        plane.buffers.push_back(std::move(fresh));
        idle = &plane.buffers.back();
    }
    idle->lent_to = session.id;
    idle->osd_id = OSD_ID_MARK | (++board.osd_serial & 0x00FFFFFF);
    return idle;
}

void board_take_back_buffers(Board &board, const Session &session)
{
    for (Post &post : board.post)
        for (Plane &plane : post.plane)
            for (PlaneBuffer &buffer : plane.buffers)
                if (buffer.lent_to == session.id)
                    buffer.lent_to = 0;
}

void board_queue_report(Board &board, Session &session, int post)
{
    if (!(session.mask >> post & 1))
        return;
    const auto same_post = [&](const PostReport &report) { return report.post == post; };
    if (std::count_if(session.reports.begin(), session.reports.end(), same_post) >= 2)
        board.merged_reports += std::erase_if(session.reports, same_post);
    const PostState &state = board.post[static_cast<size_t>(post)].state;
    session.reports.push_back({post, state.res_id, state.running});
}

// ---- the camera's own side

void board_publish(Board &board, const Measurement &measurement)
{
    const std::lock_guard guard(board.lock);
    board.latest = measurement;
    board.wake();
}

FocusWindow board_window(Board &board)
{
    const std::lock_guard guard(board.lock);
    return board.window;
}

static OverlayFocus newest_overlay(const Board &board)
{
    for (auto session = board.sessions.rbegin(); session != board.sessions.rend(); ++session)
        if ((*session)->camera_open)
            return (*session)->overlay;
    return {};
}

OverlayFocus board_overlay(Board &board)
{
    const std::lock_guard guard(board.lock);
    return newest_overlay(board);
}

static void report_all(Board &board, int post)
{
    for (Session *session : board.sessions)
        board_queue_report(board, *session, post);
    board.wake();
}

static void stop_post(Board &board, int index)
{
    Post &post = board.post[static_cast<size_t>(index)];
    if (!post.state.running)
        return;
    post.state.running = false;
    for (Plane &plane : post.plane)
        board_close_plane(plane);
    report_all(board, index);
}

std::string board_start_post(Board &board, int index, Size size, bool keep_same)
{
    const std::string refusal = post_refuse(index);
    if (!refusal.empty())
        return refusal;
    const std::string name = "post " + std::to_string(index);

    const std::lock_guard guard(board.lock);
    PostState &post = board.post[static_cast<size_t>(index)].state;
    if (size == Size{})
        size = {post.width, post.height};
    if (size == Size{})
        return name + " has had no size yet: give one";
    if (!range_refuse("", POST_SIZE_RANGE, size.width).empty() ||
        !range_refuse("", POST_SIZE_RANGE, size.height).empty())
        return name + ": " + size_text(size) + ": width and height must be " +
               range_text(POST_SIZE_RANGE);
    if (keep_same && post.running && size == Size{post.width, post.height})
        return {};
    stop_post(board, index);
    post.running = true;
    post.width = size.width;
    post.height = size.height;
    post.starts++;
    post.res_id = RES_ID_MARK | static_cast<uint32_t>(index) << 16 |
                  (static_cast<uint32_t>(post.starts) & 0xFFFF);
    report_all(board, index);
    return {};
}

std::string board_stop_post(Board &board, int index)
{
    std::string refusal = post_refuse(index);
    if (!refusal.empty())
        return refusal;
    const std::lock_guard guard(board.lock);
    stop_post(board, index);
    return {};
}

std::string board_set_fault(Board &board, const Fault &fault)
{
    if (fault.delay_ms > DELAY_MAX_MS)
        return "fault: the delay must be at most " + std::to_string(DELAY_MAX_MS) + " ms";
    const std::lock_guard guard(board.lock);
    std::erase_if(board.faults, [&](const Fault &old) { return old.call == fault.call; });
    if (fault.remaining && (fault.error || fault.delay_ms)) {
        board.faults.push_back(fault);
        board.faults.back().hits = 0;
    }
    return {};
}

// ---- copies

static PostState post_state(const Post &post)
{
    PostState state = post.state;
    for (size_t i = 0; i < PLANE_COUNT; i++)
        state.plane[i] = post.plane[i].state;
    return state;
}

BoardState board_state(Board &board)
{
    BoardState state;
    const std::lock_guard guard(board.lock);
    state.pitch_align = board.pitch_align;
    state.seed = board.seed;
    state.focus_configured = board.window.width != 0;
    state.latest = board.latest;
    state.overlay = newest_overlay(board);
    for (size_t i = 0; i < POST_COUNT; i++)
        state.post[i] = post_state(board.post[i]);
    state.faults = board.faults;
    state.merged_reports = board.merged_reports;
    for (const Session *session : board.sessions)
        state.attached |= session->initialized;
    return state;
}

static PlaneImage plane_image(const Plane &plane)
{
    PlaneImage image;
    image.state = plane.state;
    if (plane.shown >= 0) {
        const SharedMemory &shared = plane.buffers[static_cast<size_t>(plane.shown)].shared;
        image.bytes.assign(shared.bytes(), shared.bytes() + shared.memory.size);
    }
    return image;
}

PostState board_post(Board &board, int index)
{
    if (!post_refuse(index).empty())
        return {};
    const std::lock_guard guard(board.lock);
    return post_state(board.post[static_cast<size_t>(index)]);
}

PostImage board_post_image(Board &board, int index, bool with_planes)
{
    PostImage image;
    if (!post_refuse(index).empty())
        return image;
    const std::lock_guard guard(board.lock);
    const Post &post = board.post[static_cast<size_t>(index)];
    image.state = post_state(post);
    if (!with_planes)
        return image;
    for (size_t i = 0; i < PLANE_COUNT; i++)
        image.plane[i] = plane_image(post.plane[i]);
    image.palette = board.palette;
    return image;
}

PlaneImage board_plane_image(Board &board, int index, int plane)
{
    if (!post_refuse(index).empty() || plane < 0 || plane >= PLANE_COUNT)
        return {};
    const std::lock_guard guard(board.lock);
    return plane_image(board.post[static_cast<size_t>(index)].plane[static_cast<size_t>(plane)]);
}

} // namespace simcam
