// Streams of pictures and of server-sent events.
#include "web/streams.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include <poll.h>

#include "web/json.h"
#include "web/web.h"

namespace simcam
{

using Clock = std::chrono::steady_clock;

static constexpr double WAIT_SLICE_S = 0.25; // after which a stream checks its reader
static constexpr auto STATE_EVERY = std::chrono::milliseconds(200);
static constexpr auto STATE_AT_LEAST_EVERY = std::chrono::seconds(1);
static constexpr size_t EVENT_BATCH = 256; // records of a kind at once

// ---- streams ----

HttpStream::HttpStream(Web *of) : web(of)
{
    ++web->streams;
}

HttpStream::~HttpStream()
{
    --web->streams;
}

static bool reader_left(int socket)
{
    pollfd waiting = {socket, POLLRDHUP, 0};
    return poll(&waiting, 1, 0) > 0 && (waiting.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

ssize_t stream_read(HttpStream &stream, char *buffer, size_t size)
{
    while (stream.sent == stream.pending.size()) {
        if (stream.web->stopping || reader_left(stream.socket))
            return -1;
        stream.pending = stream.next();
        stream.sent = 0;
    }
    const size_t count = std::min(size, stream.pending.size() - stream.sent);
    stream.pending.copy(buffer, count, stream.sent);
    stream.sent += count;
    return static_cast<ssize_t>(count);
}

// ---- pictures ----

struct PictureStream {
    Web *web;
    std::shared_ptr<Frame> frame;
    Clock::duration pause;
    uint64_t number = 0; // of the last picture sent
    Clock::time_point due = Clock::now();

    std::string next()
    {
        const Clock::time_point start = Clock::now();
        if (start < due) {
            std::this_thread::sleep_for(
                std::min<Clock::duration>(due - start, std::chrono::milliseconds(250)));
            return {};
        }
        // Without measurements the stream continues slowly, since posts and planes still change.
        camera_wait(web->camera, number, WAIT_SLICE_S * 2);
        if (web->stopping)
            return {};
        number = camera_latest(web->camera).number;
        const auto jpeg = frame_next(web->frames, *frame, &number, Clock::now());
        // From the time it was due, so that delays do not add up; from now on after a long stall.
        due = std::max(due + pause, Clock::now() - pause);
        return "--frame\r\nContent-Type: image/jpeg\r\nContent-Length: " +
               std::to_string(jpeg->size()) + "\r\nX-Measurement: " + std::to_string(number) +
               "\r\n\r\n" + *jpeg + "\r\n";
    }
};

std::unique_ptr<HttpStream> stream_pictures(Web &web, const FrameRequest &request, double fps)
{
    auto stream = std::make_unique<HttpStream>(&web);
    stream->type = "multipart/x-mixed-replace; boundary=frame";
    auto pictures = std::make_shared<PictureStream>();
    pictures->web = &web;
    pictures->frame = frame_enter(web.frames, request);
    pictures->pause =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1 / fps));
    stream->next = [pictures] { return pictures->next(); };
    return stream;
}

// ---- events ----

struct EventStream {
    Web *web;
    bool states = false, measurements = false, outputs = false, calls = false;
    uint64_t measurement = 0, output = 0, call = 0; // numbers of the last records sent
    bool greeted = false;
    std::string state_sent;
    Clock::time_point state_time{};
    Clock::time_point anything_time{};

    std::string event(const char *name, const std::string &data) const
    {
        return "event: " + std::string(name) + "\nid: " + web->session + "-" +
               std::to_string(measurement) + "-" + std::to_string(output) + "-" +
               std::to_string(call) + "\ndata: " + data + "\n\n";
    }

    std::string state_event()
    {
        const Clock::time_point now = Clock::now();
        if (now - state_time < STATE_EVERY && !state_sent.empty())
            return {};
        const CameraState state = camera_state(web->camera);
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
            text += "retry: 1000\n" + event("hello", json_hello(web->session));
        }
        if (states)
            text += state_event();
        if (outputs) {
            for (const OutputChunk &chunk : camera_output(web->camera, output, EVENT_BATCH)) {
                output = chunk.number;
                text += event("output", json_output(chunk));
            }
        }
        if (calls) {
            for (const CallRecord &record : camera_calls(web->camera, call, EVENT_BATCH)) {
                call = record.number;
                text += event("call", json_call(record));
            }
        }
        if (measurements) {
            for (const Measurement &m :
                 camera_measurements(web->camera, measurement, EVENT_BATCH)) {
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
            text = ": still here\n\n"; // detects readers that are gone
        if (!text.empty()) {
            anything_time = now;
            return text;
        }
        if (measurements)
            camera_wait(web->camera, measurement, WAIT_SLICE_S / 2);
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return {};
    }
};

static bool has_kind(const std::string &kinds, const std::string &kind)
{
    return ("," + kinds + ",").find("," + kind + ",") != std::string::npos;
}

// Continues after the event last_id if this run of the server sent it; ids of another run are
// ignored.
static void resume_events(const std::string &last_id, EventStream *events)
{
    const std::string prefix = events->web->session + "-";
    unsigned long long m = 0, o = 0, c = 0;
    if (last_id.rfind(prefix, 0) != 0 ||
        sscanf(last_id.c_str() + prefix.size(), "%19llu-%19llu-%19llu", &m, &o, &c) != 3)
        return;
    events->measurement = m;
    events->output = o;
    events->call = c;
}

std::unique_ptr<HttpStream> stream_events(Web &web, const std::string &kinds, bool backlog,
                                          const std::string &last_id)
{
    auto stream = std::make_unique<HttpStream>(&web);
    stream->type = "text/event-stream";
    auto events = std::make_shared<EventStream>();
    events->web = &web;
    events->states = has_kind(kinds, "state");
    events->measurements = has_kind(kinds, "measurement");
    events->outputs = has_kind(kinds, "output");
    events->calls = has_kind(kinds, "call");
    if (!backlog) {
        const CameraNewest newest = camera_newest(web.camera);
        events->measurement = newest.measurement;
        events->output = newest.output;
        events->call = newest.call;
    }
    resume_events(last_id, events.get());
    stream->next = [events] { return events->next(); };
    return stream;
}

} // namespace simcam
