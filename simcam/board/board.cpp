// Posts, planes, colors and measurements, and the calls on them.

#include "board/board.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "picture/osd_color.h"

namespace simcam
{

static_assert(POST_COUNT == WIRE_POSTS && PLANE_COUNT == WIRE_PLANES);

// postResId: a mark, the post, and how often it has been started; an id of an earlier run is
// refused.
constexpr uint32_t RES_ID_MARK = 0x51000000;
// osdId: a mark and a number that changes with every buffer that is lent.
constexpr uint32_t OSD_ID_MARK = 0x40000000;

bool board_init(Board &board, uint64_t seed, uint32_t pitch_align)
{
    board.seed = seed;
    board.pitch_align = pitch_align;
    constexpr uint32_t size = PALETTE_ENTRIES * PALETTE_ENTRY_BYTES;
    board.palette.assign(size, 0);
    return shared_memory_make(size, seed, &board.color);
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

static void take_back_buffers(Board &board, const Session &session)
{
    for (Post &post : board.post)
        for (Plane &plane : post.plane)
            for (PlaneBuffer &buffer : plane.buffers)
                if (buffer.lent_to == session.id)
                    buffer.lent_to = 0;
}

void board_remove_session(Board &board, Session &session)
{
    const std::lock_guard guard(board.lock);
    take_back_buffers(board, session);
    std::erase(board.sessions, &session);
}

// Reports post to session. A client that has left too many reports unread loses this one.
static void report_post(Board &board, const Session &session, int index)
{
    const PostState &post = board.post[static_cast<size_t>(index)].state;
    const uint32_t bit = 1u << index;
    if (!(session.mask & bit) || session.events < 0)
        return;
    const WireNotify record = {bit, post.res_id, static_cast<uint32_t>(index),
                               post.running ? 1u : 0u};
    const ssize_t sent = send(session.events, &record, sizeof record, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && errno == EAGAIN) // anything else: the client has gone
        board.dropped_reports++;
}

// ---- faults and the call log

Fault board_take_fault(Board &board, uint32_t call)
{
    const auto found = std::find_if(board.faults.begin(), board.faults.end(),
                                    [&](const Fault &f) { return f.call == request_name(call); });
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

static void log_call(Board &board, const Session &session, const Request &request,
                     const WireReply &head)
{
    CallRecord record;
    record.number = ++board.call_count;
    record.time_s = board_time(board);
    record.pid = session.pid;
    record.call = request_name(request.header.call);
    record.arguments = request_arguments(request);
    record.result = head.result;
    record.error = head.error;
    records_add(board.calls, std::move(record));
}

// ---- calls; each returns 0 or an error code

static Post *find_post(Board &board, uint32_t res_id)
{
    for (Post &post : board.post)
        if (post.state.running && post.state.res_id == res_id)
            return &post;
    return nullptr;
}

static uint32_t index_of(const Board &board, const Post &post)
{
    return static_cast<uint32_t>(&post - board.post.data());
}

// Finds an open plane of a running post.
static uint32_t find_plane(Board &board, uint32_t res_id, uint32_t number, Post **post,
                           Plane **plane)
{
    *post = find_post(board, res_id);
    if (!*post)
        return CODEC_POST_NOT_RUNNING;
    if (number >= PLANE_COUNT)
        return CODEC_BAD_ARGUMENT;
    *plane = &(*post)->plane[number];
    return (*plane)->state.open ? 0 : CODEC_PLANE_CLOSED;
}

template <typename Record> static void put(Reply *reply, const Record &record)
{
    static_assert(sizeof record <= sizeof reply->payload);
    std::memcpy(reply->payload, &record, sizeof record);
}

static uint32_t set_notify(Board &board, Session &session, uint32_t mask)
{
    if (!session.callback)
        return CODEC_NO_CALLBACK;
    if (mask >> POST_COUNT)
        return CODEC_BAD_ARGUMENT;
    const uint32_t added = mask & ~session.mask;
    session.mask = mask;
    for (int i = 0; i < POST_COUNT; i++)
        if ((added >> i & 1) && board.post[static_cast<size_t>(i)].state.running)
            report_post(board, session, i);
    return 0;
}

static uint32_t get_colors(Board &board, Reply *reply)
{
    put(reply, board.color.memory);
    reply->fd = board.color.fd;
    return 0;
}

static uint32_t apply_colors(Board &board)
{
    board.palette.assign(board.color.bytes(), board.color.bytes() + board.color.memory.size);
    return 0;
}

static uint32_t get_status(Board &board, uint32_t res_id, Reply *reply)
{
    const Post *post = find_post(board, res_id);
    if (!post)
        return CODEC_POST_NOT_RUNNING;
    WirePostStatus status;
    std::memset(status.bytes, 0xA5, sizeof status.bytes); // for who reads more than the size
    const uint16_t size[2] = {static_cast<uint16_t>(post->state.width),
                              static_cast<uint16_t>(post->state.height)};
    std::memcpy(status.bytes + 2, size, sizeof size);
    put(reply, status);
    return 0;
}

static uint32_t open_plane(Board &board, const WireOpenOsd &request, Reply *reply)
{
    Post *post = nullptr;
    Plane *plane = nullptr;
    const uint32_t error = find_plane(board, request.post_res_id, request.number, &post, &plane);
    if (error == 0)
        return CODEC_PLANE_OPEN;
    if (error != CODEC_PLANE_CLOSED)
        return error;
    if (request.width == 0 || request.width > POST_SIZE_MAX || request.height == 0 ||
        request.height > POST_SIZE_MAX || request.depth_code > 2)
        return CODEC_PLANE_REFUSED;

    const uint32_t bits = 2u << request.depth_code;
    const uint32_t line = (request.width * bits + 7) / 8;
    const uint32_t align = board.pitch_align;
    plane->state = {};
    plane->state.open = true;
    plane->state.width = request.width;
    plane->state.height = request.height;
    plane->state.depth_code = request.depth_code;
    plane->state.pitch = (line + align - 1) / align * align;
    plane->epoch = ++board.epochs;
    put(reply, WireOpenedOsd{plane->state.pitch * request.height, plane->state.pitch});
    return 0;
}

static void close_plane(Plane &plane)
{
    plane.state = {};
    plane.shown = -1;
    plane.buffers.clear();
}

static uint32_t clear_plane(Board &board, const WirePlane &request)
{
    Post *post = nullptr;
    Plane *plane = nullptr;
    const uint32_t error = find_plane(board, request.post_res_id, request.number, &post, &plane);
    if (error == 0) {
        plane->shown = -1;
        plane->state.shown = false;
    }
    return error;
}

static uint32_t close_plane_call(Board &board, const WirePlane &request)
{
    Post *post = nullptr;
    Plane *plane = nullptr;
    const uint32_t error = find_plane(board, request.post_res_id, request.number, &post, &plane);
    if (error == 0)
        close_plane(*plane);
    return error;
}

// Finds a buffer that session may draw into: the one it has already, one that is neither shown nor
// lent, or a new one. One client alone never needs more than two.
static PlaneBuffer *lend_buffer(Board &board, const Session &session, Plane &plane)
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

static uint32_t get_plane_memory(Board &board, const Session &session, const WirePlane &request,
                                 Reply *reply)
{
    Post *post = nullptr;
    Plane *plane = nullptr;
    const uint32_t error = find_plane(board, request.post_res_id, request.number, &post, &plane);
    if (error)
        return error;
    const PlaneBuffer *buffer = lend_buffer(board, session, *plane);
    if (!buffer)
        return CODEC_NO_MEMORY;
    put(reply,
        WireOsdMem{buffer->osd_id, index_of(board, *post), request.number, plane->epoch,
                   static_cast<uint32_t>(buffer - plane->buffers.data()), buffer->shared.memory});
    reply->fd = buffer->shared.fd;
    return 0;
}

static uint32_t show_plane(Board &board, const Session &session, const WireSetOsd &request)
{
    Post *post = find_post(board, request.post_res_id);
    if (!post)
        return CODEC_POST_NOT_RUNNING;
    for (Plane &plane : post->plane) {
        for (PlaneBuffer &buffer : plane.buffers) {
            if (buffer.lent_to != session.id || buffer.osd_id != request.osd_id)
                continue;
            buffer.lent_to = 0;
            plane.shown = static_cast<int>(&buffer - plane.buffers.data());
            plane.state.shown = true;
            plane.state.x = request.x;
            plane.state.y = request.y;
            plane.state.osd_id = request.osd_id;
            plane.state.shows++;
            return 0;
        }
    }
    return CODEC_BUFFER_NOT_LENT;
}

// Words 0 and 1 give the frame's last column and line in their low halves and the window's width
// and height in their high halves; the window lies in the frame's middle.
static uint32_t configure_focus(Board &board, const Session &session, const WireFocusConfig &config)
{
    if (!session.camera_open)
        return EBADF;
    uint16_t half[4];
    std::memcpy(half, config.bytes, sizeof half);
    if (half[1] == 0 || half[1] > half[0] + 1u || half[3] == 0 || half[3] > half[2] + 1u)
        return EINVAL;
    std::memcpy(board.focus_words, config.bytes, sizeof board.focus_words);
    board.focus_configured = true;
    return 0;
}

static uint32_t read_focus(Board &board, const Session &session, Reply *reply)
{
    if (!session.camera_open)
        return EBADF;
    if (!board.focus_configured)
        return EINVAL;
    WireFocusStats stats;
    std::memset(stats.bytes, 0xA5, sizeof stats.bytes); // for who reads the wrong word
    std::memcpy(stats.bytes + 64, &board.latest.raw, sizeof board.latest.raw);
    put(reply, stats);
    return 0;
}

// ---- dispatch

static bool needs_library_device(uint32_t call)
{
    return call >= WIRE_POST_NOTIFY_CALLBACK && call <= WIRE_POST_SET_OSD;
}

static uint32_t execute(Board &board, Session &session, const Request &request, Reply *reply)
{
    const uint32_t call = request.header.call;
    if (call == WIRE_LIBRARY_INIT) {
        if (session.initialized)
            return CODEC_INITIALIZED;
        session.initialized = true;
        return 0;
    }
    if (call < WIRE_DEVICE_OPEN && !session.initialized)
        return CODEC_NOT_INITIALIZED;
    if (needs_library_device(call) && !session.device_open)
        return CODEC_DEVICE_CLOSED;

    switch (call) {
    case WIRE_LIBRARY_EXIT:
        take_back_buffers(board, session);
        session.initialized = session.device_open = session.callback = false;
        session.mask = 0;
        return 0;
    case WIRE_SYS_OPEN_DEVICE:
        if (session.device_open)
            return CODEC_DEVICE_OPEN;
        session.device_open = true;
        return 0;
    case WIRE_SYS_CLOSE_DEVICE:
        if (!session.device_open)
            return CODEC_DEVICE_CLOSED;
        take_back_buffers(board, session);
        session.device_open = session.callback = false;
        session.mask = 0;
        return 0;
    case WIRE_POST_NOTIFY_CALLBACK:
        session.callback = request_record<WireWord>(request).word != 0;
        return session.callback ? 0 : CODEC_BAD_ARGUMENT;
    case WIRE_POST_SET_NOTIFY:
        return set_notify(board, session, request_record<WireWord>(request).word);
    case WIRE_POST_GET_OSD_COLOR_MEM:
        return get_colors(board, reply);
    case WIRE_POST_SET_OSD_COLOR:
        return apply_colors(board);
    case WIRE_POST_THREAD_GET_STATUS:
        return get_status(board, request_record<WireWord>(request).word, reply);
    case WIRE_POST_OPEN_OSD:
        return open_plane(board, request_record<WireOpenOsd>(request), reply);
    case WIRE_POST_CLEAR_OSD:
        return clear_plane(board, request_record<WirePlane>(request));
    case WIRE_POST_CLOSE_OSD:
        return close_plane_call(board, request_record<WirePlane>(request));
    case WIRE_POST_GET_OSD_MEM:
        return get_plane_memory(board, session, request_record<WirePlane>(request), reply);
    case WIRE_POST_SET_OSD:
        return show_plane(board, session, request_record<WireSetOsd>(request));
    case WIRE_DEVICE_OPEN:
        session.camera_open = true;
        session.last_reading = board.latest.number;
        return 0;
    case WIRE_FOCUS_CONFIG:
        return configure_focus(board, session, request_record<WireFocusConfig>(request));
    case WIRE_FOCUS_READ:
        return read_focus(board, session, reply);
    default:
        return CODEC_BAD_ARGUMENT;
    }
}

bool board_reading_ready(const Board &board, const Session &session)
{
    return board.latest.number > session.last_reading;
}

void board_execute(Board &board, Session &session, const Request &request, uint32_t forced_error,
                   Reply *reply)
{
    const uint32_t call = request.header.call;
    *reply = {};
    const uint32_t error = forced_error ? forced_error : execute(board, session, request, reply);
    if (call == WIRE_FOCUS_READ)
        session.last_reading = board.latest.number;
    reply->head = {WIRE_VERSION, call, request.header.number, error ? -1 : 0, error};
    if (call != WIRE_FOCUS_READ || error)
        log_call(board, session, request, reply->head);
}

// ---- the camera's own side

void board_publish(Board &board, const Measurement &measurement)
{
    const std::lock_guard guard(board.lock);
    board.latest = measurement;
}

static std::string refuse_post(int post)
{
    return "post " + std::to_string(post) + ": there are only posts 0 to 3";
}

static void report_all(Board &board, int post)
{
    for (const Session *session : board.sessions)
        report_post(board, *session, post);
}

static void stop_post(Board &board, int index)
{
    Post &post = board.post[static_cast<size_t>(index)];
    if (!post.state.running)
        return;
    post.state.running = false;
    for (Plane &plane : post.plane)
        close_plane(plane);
    report_all(board, index);
}

std::string board_start_post(Board &board, int index, uint32_t width, uint32_t height)
{
    if (index < 0 || index >= POST_COUNT)
        return refuse_post(index);
    if (width < POST_SIZE_MIN || width > POST_SIZE_MAX || height < POST_SIZE_MIN ||
        height > POST_SIZE_MAX)
        return "post " + std::to_string(index) + ": " + std::to_string(width) + "x" +
               std::to_string(height) + ": width and height lie between " +
               std::to_string(POST_SIZE_MIN) + " and " + std::to_string(POST_SIZE_MAX);

    const std::lock_guard guard(board.lock);
    stop_post(board, index);
    PostState &post = board.post[static_cast<size_t>(index)].state;
    post.running = true;
    post.width = width;
    post.height = height;
    post.starts++;
    post.res_id = RES_ID_MARK | static_cast<uint32_t>(index) << 16 |
                  (static_cast<uint32_t>(post.starts) & 0xFFFF);
    report_all(board, index);
    return {};
}

std::string board_stop_post(Board &board, int index)
{
    if (index < 0 || index >= POST_COUNT)
        return refuse_post(index);
    const std::lock_guard guard(board.lock);
    stop_post(board, index);
    return {};
}

std::string board_set_fault(Board &board, const Fault &fault)
{
    if (!request_call(fault.call))
        return "fault: there is no call named \"" + fault.call + "\"";
    if (fault.delay_ms > DELAY_MAX_MS)
        return "fault: a delay of more than " + std::to_string(DELAY_MAX_MS) +
               " ms is not to be had";
    const std::lock_guard guard(board.lock);
    std::erase_if(board.faults, [&](const Fault &old) { return old.call == fault.call; });
    if (fault.remaining && (fault.error || fault.delay_ms)) {
        board.faults.push_back(fault);
        board.faults.back().hits = 0;
    }
    return {};
}

static PostState post_state(const Post &post)
{
    PostState state = post.state;
    for (size_t i = 0; i < PLANE_COUNT; i++)
        state.plane[i] = post.plane[i].state;
    return state;
}

void board_state(Board &board, CameraState *state)
{
    const std::lock_guard guard(board.lock);
    state->pitch_align = board.pitch_align;
    state->seed = board.seed;
    state->focus_configured = board.focus_configured;
    state->latest = board.latest;
    for (size_t i = 0; i < POST_COUNT; i++)
        state->post[i] = post_state(board.post[i]);
    state->faults = board.faults;
    state->dropped_reports = board.dropped_reports;
    state->process.attached = false;
    for (const Session *session : board.sessions)
        state->process.attached |= session->initialized;
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

PostImage board_post_image(Board &board, int index)
{
    PostImage image;
    if (index < 0 || index >= POST_COUNT)
        return image;
    const std::lock_guard guard(board.lock);
    const Post &post = board.post[static_cast<size_t>(index)];
    image.state = post_state(post);
    for (size_t i = 0; i < PLANE_COUNT; i++)
        image.plane[i] = plane_image(post.plane[i]);
    image.palette = board.palette;
    return image;
}

PlaneImage board_plane_image(Board &board, int index, int plane)
{
    if (index < 0 || index >= POST_COUNT || plane < 0 || plane >= PLANE_COUNT)
        return {};
    const std::lock_guard guard(board.lock);
    return plane_image(board.post[static_cast<size_t>(index)].plane[static_cast<size_t>(plane)]);
}

} // namespace simcam
