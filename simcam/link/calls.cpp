// One function for each call; each returns 0 or an error code.

#include "link/calls.h"

#include <cerrno>
#include <cstring>

namespace simcam
{

static_assert(POST_COUNT == WIRE_POSTS && PLANE_COUNT == WIRE_PLANES);

static void log_call(Board &board, const Session &session, const Request &request,
                     const WireReply &head)
{
    CallRecord record;
    record.time_s = board_time(board);
    record.pid = session.pid;
    record.call = request_name(request.header.call);
    record.arguments = request_arguments(request);
    record.result = head.result;
    record.error = head.error;
    records_add(&board.calls, std::move(record));
}

template <typename Record> static void put(Reply *reply, const Record &record)
{
    static_assert(sizeof record <= sizeof reply->payload);
    std::memcpy(reply->payload, &record, sizeof record);
}

// ---- session

static void close_device(Board &board, Session &session)
{
    board_take_back_buffers(board, session);
    session.device_open = session.callback = false;
    session.mask = 0;
    session.reports.clear();
}

static uint32_t library_init(Session &session)
{
    if (session.initialized)
        return CODEC_INITIALIZED;
    session.initialized = true;
    return 0;
}

static uint32_t library_exit(Board &board, Session &session)
{
    close_device(board, session);
    session.initialized = false;
    return 0;
}

static uint32_t sys_open_device(Session &session)
{
    if (session.device_open)
        return CODEC_DEVICE_OPEN;
    session.device_open = true;
    return 0;
}

static uint32_t sys_close_device(Board &board, Session &session)
{
    if (!session.device_open)
        return CODEC_DEVICE_CLOSED;
    close_device(board, session);
    return 0;
}

static uint32_t notify_callback(Session &session, bool given)
{
    if (!given)
        return CODEC_BAD_ARGUMENT;
    session.callback = true;
    return 0;
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
            board_queue_report(board, session, i);
    return 0;
}

// ---- colors and posts

static uint32_t get_colors(const Board &board, Reply *reply)
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
    const Post *post = board_find_post(board, res_id);
    if (!post)
        return CODEC_POST_NOT_RUNNING;
    WirePostStatus status;
    std::memset(status.bytes, 0xA5, sizeof status.bytes); // exposes programs that read other bytes
    const uint16_t size[2] = {static_cast<uint16_t>(post->state.width),
                              static_cast<uint16_t>(post->state.height)};
    std::memcpy(status.bytes + 2, size, sizeof size);
    put(reply, status);
    return 0;
}

// ---- planes

static uint32_t index_of(const Board &board, const Post &post)
{
    return static_cast<uint32_t>(&post - board.post.data());
}

// Finds an open plane of a running post.
static uint32_t find_plane(Board &board, uint32_t res_id, uint32_t number, Post **post,
                           Plane **plane)
{
    *post = board_find_post(board, res_id);
    if (!*post)
        return CODEC_POST_NOT_RUNNING;
    if (number >= PLANE_COUNT)
        return CODEC_BAD_ARGUMENT;
    *plane = &(*post)->plane[number];
    return (*plane)->state.open ? 0 : CODEC_PLANE_CLOSED;
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
    if (request.width == 0 || request.width > POST_SIZE_RANGE.most || request.height == 0 ||
        request.height > POST_SIZE_RANGE.most || request.depth_code > DEPTH_CODE_MAX)
        return CODEC_PLANE_REFUSED;
    PlaneState wanted;
    wanted.width = request.width;
    wanted.height = request.height;
    wanted.depth_code = request.depth_code;
    board_open_plane(board, *plane, wanted);
    put(reply, WireOpenedOsd{plane->state.pitch * request.height, plane->state.pitch});
    return 0;
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

static uint32_t close_plane(Board &board, const WirePlane &request)
{
    Post *post = nullptr;
    Plane *plane = nullptr;
    const uint32_t error = find_plane(board, request.post_res_id, request.number, &post, &plane);
    if (error == 0)
        board_close_plane(*plane);
    return error;
}

static uint32_t get_plane_memory(Board &board, const Session &session, const WirePlane &request,
                                 Reply *reply)
{
    Post *post = nullptr;
    Plane *plane = nullptr;
    const uint32_t error = find_plane(board, request.post_res_id, request.number, &post, &plane);
    if (error)
        return error;
    const PlaneBuffer *buffer = board_lend_buffer(board, session, *plane);
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
    Post *post = board_find_post(board, request.post_res_id);
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

// ---- the device

static uint32_t open_camera(const Board &board, Session &session)
{
    session.camera_open = true;
    session.last_reading = board.latest.number;
    session.overlay = {};
    session.overlay.running = true;
    return 0;
}

static uint32_t configure_focus(Board &board, const Session &session, const WireFocusConfig &config)
{
    if (!session.camera_open)
        return EBADF;
    uint32_t words[2];
    std::memcpy(words, config.bytes, sizeof words);
    const std::optional<FocusWindow> window = focus_window(words[0], words[1]);
    if (!window)
        return EINVAL;
    board.window = *window;
    return 0;
}

static uint32_t read_focus(const Board &board, Session &session, Reply *reply)
{
    if (!session.camera_open)
        return EBADF;
    if (board.window.width == 0)
        return EINVAL;
    WireFocusStats stats;
    std::memset(stats.bytes, 0xA5, sizeof stats.bytes); // exposes programs that read other words
    std::memcpy(stats.bytes + 64, &board.latest.raw, sizeof board.latest.raw);
    put(reply, stats);
    overlay_focus_read(&session.overlay, board.latest.raw);
    return 0;
}

// ---- dispatch

static bool needs_library_device(WireCall call)
{
    return call >= WIRE_POST_NOTIFY_CALLBACK && call <= WIRE_POST_SET_OSD;
}

static uint32_t execute(Board &board, Session &session, const Request &request, Reply *reply)
{
    const auto call = static_cast<WireCall>(request.header.call);
    if (call == WIRE_LIBRARY_INIT)
        return library_init(session);
    if (call < WIRE_DEVICE_OPEN && !session.initialized)
        return CODEC_NOT_INITIALIZED;
    if (needs_library_device(call) && !session.device_open)
        return CODEC_DEVICE_CLOSED;

    switch (call) {
    case WIRE_LIBRARY_INIT:
    case WIRE_CALL_END:
        break;
    case WIRE_LIBRARY_EXIT:
        return library_exit(board, session);
    case WIRE_SYS_OPEN_DEVICE:
        return sys_open_device(session);
    case WIRE_SYS_CLOSE_DEVICE:
        return sys_close_device(board, session);
    case WIRE_POST_NOTIFY_CALLBACK:
        return notify_callback(session, request_record<WireWord>(request).word != 0);
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
        return close_plane(board, request_record<WirePlane>(request));
    case WIRE_POST_GET_OSD_MEM:
        return get_plane_memory(board, session, request_record<WirePlane>(request), reply);
    case WIRE_POST_SET_OSD:
        return show_plane(board, session, request_record<WireSetOsd>(request));
    case WIRE_DEVICE_OPEN:
        return open_camera(board, session);
    case WIRE_FOCUS_CONFIG:
        return configure_focus(board, session, request_record<WireFocusConfig>(request));
    case WIRE_FOCUS_READ:
        return read_focus(board, session, reply);
    }
    return CODEC_BAD_ARGUMENT;
}

void calls_execute(Board &board, Session &session, const Request &request, uint32_t forced_error,
                   Reply *reply)
{
    const uint32_t call = request.header.call;
    *reply = {};
    const uint32_t error = forced_error ? forced_error : execute(board, session, request, reply);
    if (call == WIRE_FOCUS_READ)
        session.last_reading = board.latest.number; // a failed read waits for the next one as well
    reply->head = {WIRE_VERSION, call, request.header.number, error ? -1 : 0, error};
    if (call != WIRE_FOCUS_READ || error)
        log_call(board, session, request, reply->head);
}

} // namespace simcam
