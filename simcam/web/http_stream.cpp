// Streams of the web interface: pictures and events that go on until their reader leaves.
#include "web/http_server.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include <poll.h>

#include "web/http_json.h"

namespace simcam
{

using Clock = std::chrono::steady_clock;

static constexpr double WAIT_SLICE_S = 0.25; // how long a stream waits before it looks around
static constexpr auto STATE_EVERY = std::chrono::milliseconds(200);
static constexpr auto STATE_AT_LEAST_EVERY = std::chrono::seconds(1);
static constexpr size_t EVENT_BATCH = 256; // records of a kind in one go

// ---- streams ----

Stream::Stream(HttpServer *of) : server(of)
{
    ++server->streams;
}

Stream::~Stream()
{
    --server->streams;
}

static bool reader_left(int socket)
{
    pollfd waiting = {socket, POLLRDHUP, 0};
    return poll(&waiting, 1, 0) > 0 && (waiting.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

ssize_t stream_read(Stream &stream, char *buffer, size_t size)
{
    while (stream.sent == stream.pending.size()) {
        if (stream.server->stopping || reader_left(stream.socket))
            return -1;
        stream.pending = stream.next();
        stream.sent = 0;
    }
    const size_t count = std::min(size, stream.pending.size() - stream.sent);
    stream.pending.copy(buffer, count, stream.sent);
    stream.sent += count;
    return static_cast<ssize_t>(count);
}

// Pictures, one part each, at most fps a second, and only as fast as the reader takes them.
struct PictureStream {
    HttpServer *server;
    std::shared_ptr<CachedPicture> entry;
    std::chrono::duration<double> pause{};
    uint64_t number = 0;
    Clock::time_point due = Clock::now();

    std::string next()
    {
        const Clock::time_point start = Clock::now();
        if (start < due) {
            std::this_thread::sleep_for(
                std::min<Clock::duration>(due - start, std::chrono::milliseconds(250)));
            return {};
        }
        // Without measurements the pictures go on, slowly: posts and planes change all the same.
        camera_wait(server->camera, number, WAIT_SLICE_S * 2);
        if (server->stopping)
            return {};
        number = camera_latest(server->camera).number;
        const auto jpeg = picture_cache_frame(*server->pictures, *entry, number, Clock::now());
        // Counted from when it was due, so that waiting does not add up; from now after a long
        // stall.
        const auto step = std::chrono::duration_cast<Clock::duration>(pause);
        due = std::max(due + step, Clock::now() - step);
        return "--frame\r\nContent-Type: image/jpeg\r\nContent-Length: " +
               std::to_string(jpeg->size()) + "\r\nX-Measurement: " + std::to_string(number) +
               "\r\n\r\n" + *jpeg + "\r\n";
    }
};

// Server-sent events of several kinds over one connection.
struct EventStream {
    HttpServer *server;
    bool states = false, measurements = false, outputs = false, calls = false;
    uint64_t measurement = 0, output = 0, call = 0; // numbers of what was sent last
    bool greeted = false;
    std::string state_sent;
    Clock::time_point state_time{};
    Clock::time_point anything_time{};

    std::string event(const char *name, const std::string &data) const
    {
        return "event: " + std::string(name) + "\nid: " + server->session + "-" +
               std::to_string(measurement) + "-" + std::to_string(output) + "-" +
               std::to_string(call) + "\ndata: " + data + "\n\n";
    }

    std::string state_event()
    {
        const Clock::time_point now = Clock::now();
        if (now - state_time < STATE_EVERY && !state_sent.empty())
            return {};
        const CameraState state = camera_state(server->camera);
        std::string settled = json_state(state, false);
        if (settled == state_sent && now - state_time < STATE_AT_LEAST_EVERY)
            return {};
        state_sent = std::move(settled);
        state_time = now;
        return event("state", json_state(state, true));
    }

    std::string gather()
    {
        std::string text;
        if (!greeted) {
            greeted = true;
            text += "retry: 1000\n" + event("hello", json_hello(server->session));
        }
        if (states)
            text += state_event();
        if (outputs) {
            for (const OutputChunk &chunk : camera_output(server->camera, output, EVENT_BATCH)) {
                output = chunk.number;
                text += event("output", json_output(chunk));
            }
        }
        if (calls) {
            for (const CallRecord &record : camera_calls(server->camera, call, EVENT_BATCH)) {
                call = record.number;
                text += event("call", json_call(record));
            }
        }
        if (measurements) {
            for (const Measurement &m :
                 camera_measurements(server->camera, measurement, EVENT_BATCH)) {
                measurement = m.number;
                text += event("measurement", json_measurement(m));
            }
        }
        return text;
    }

    std::string next()
    {
        std::string text = gather();
        const Clock::time_point now = Clock::now();
        if (text.empty() && now - anything_time > std::chrono::seconds(2))
            text = ": still here\n\n"; // a reader that is gone shows only when something is sent
        if (!text.empty()) {
            anything_time = now;
            return text;
        }
        if (measurements)
            camera_wait(server->camera, measurement, WAIT_SLICE_S / 2);
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return {};
    }
};

static bool has_kind(const std::string &kinds, const std::string &kind)
{
    return ("," + kinds + ",").find("," + kind + ",") != std::string::npos;
}

// Where a reader that lost its connection was, as the id of its last event says.
static void resume_events(const std::string &last_id, EventStream *events)
{
    const std::string prefix = events->server->session + "-";
    unsigned long long m = 0, o = 0, c = 0;
    if (last_id.rfind(prefix, 0) != 0 ||
        sscanf(last_id.c_str() + prefix.size(), "%19llu-%19llu-%19llu", &m, &o, &c) != 3)
        return;
    events->measurement = m;
    events->output = o;
    events->call = c;
}

static EventStream make_events(HttpServer &server, const RoutedRequest &request,
                               const std::string &last_id)
{
    EventStream events;
    events.server = &server;
    const std::string &kinds = request.text.at("kinds");
    events.states = has_kind(kinds, "state");
    events.measurements = has_kind(kinds, "measurement");
    events.outputs = has_kind(kinds, "output");
    events.calls = has_kind(kinds, "call");
    if (request.number.at("backlog") == 0) {
        const CameraNewest newest = camera_newest(server.camera);
        events.measurement = newest.measurement;
        events.output = newest.output;
        events.call = newest.call;
    }
    resume_events(last_id, &events);
    return events;
}

bool stream_is(RouteId id)
{
    return id == RouteId::EVENTS || id == RouteId::POST_STREAM || id == RouteId::ALL_STREAM ||
           id == RouteId::SENSOR_STREAM;
}

std::unique_ptr<Stream> stream_make(HttpServer &server, const RoutedRequest &request,
                                    const std::string &last_id)
{
    auto stream = std::make_unique<Stream>(&server);
    if (request.route->id == RouteId::EVENTS) {
        stream->type = "text/event-stream";
        auto events = std::make_shared<EventStream>(make_events(server, request, last_id));
        stream->next = [events] { return events->next(); };
        return stream;
    }
    stream->type = "multipart/x-mixed-replace; boundary=frame";
    auto pictures = std::make_shared<PictureStream>();
    pictures->server = &server;
    pictures->entry = picture_cache_enter(*server.pictures, reply_picture_request(request));
    pictures->pause = std::chrono::duration<double>(1 / request.number.at("fps"));
    stream->next = [pictures] { return pictures->next(); };
    return stream;
}

} // namespace simcam
