// The server: connections, who may ask, answers, and the streams that go on until their reader
// leaves.
#include "http.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <microhttpd.h>

#include "http_json.h"
#include "http_page.h"
#include "http_picture.h"
#include "http_route.h"

namespace simcam
{

using Clock = std::chrono::steady_clock;

static constexpr size_t TARGET_MAX = 8192; // bytes of a request's path and query
static constexpr size_t STREAM_BLOCK = 64 * 1024;
static constexpr double WAIT_SLICE_S = 0.25; // how long a stream waits before it looks around
static constexpr auto STATE_EVERY = std::chrono::milliseconds(200);
static constexpr auto STATE_AT_LEAST_EVERY = std::chrono::seconds(1);
static constexpr size_t EVENT_BATCH = 256; // records of a kind in one go

struct HttpServer {
    std::shared_ptr<Camera> camera;
    std::shared_ptr<PictureCache> pictures;
    std::string address;
    std::string machine_name;
    std::string session; // differs from server to server: numbers of another one mean nothing here
    std::atomic<bool> stopping{false};
    std::atomic<unsigned> streams{0};
    MHD_Daemon *daemon = nullptr;
};

// ---- answers ----

struct Reply {
    unsigned status = 200;
    std::string type = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
};

static Reply reply_json(std::string body)
{
    Reply reply;
    reply.body = std::move(body);
    return reply;
}

static Reply reply_error(unsigned status, const std::string &message)
{
    Reply reply = reply_json(json_error(static_cast<int>(status), message));
    reply.status = status;
    return reply;
}

// What a function that may refuse said.
static Reply reply_outcome(const std::string &refusal)
{
    return refusal.empty() ? reply_json(json_done()) : reply_error(409, refusal);
}

static Reply reply_bytes(std::string type, std::string bytes)
{
    Reply reply;
    reply.type = std::move(type);
    reply.body = std::move(bytes);
    return reply;
}

static std::string as_bytes(const std::vector<uint8_t> &bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

static int number_of(const RoutedRequest &request, const char *name)
{
    return static_cast<int>(request.number.at(name));
}

static void offer_download(const RoutedRequest &request, const std::string &name, Reply *reply)
{
    if (number_of(request, "download"))
        reply->headers.emplace_back("Content-Disposition", "attachment; filename=\"" + name + "\"");
}

static Reply reply_png(const cv::Mat &picture)
{
    return reply_bytes("image/png", picture_png(picture));
}

// ---- single routes ----

static PictureRequest picture_request(const RoutedRequest &request)
{
    PictureRequest picture;
    switch (request.route->id) {
    case RouteId::ALL_FRAME:
    case RouteId::ALL_STREAM:
        picture.view = VIEW_ALL;
        break;
    case RouteId::SENSOR_FRAME:
    case RouteId::SENSOR_STREAM:
        picture.view = VIEW_SENSOR;
        break;
    default:
        picture.view = number_of(request, "post");
        break;
    }
    if (request.number.count("planes"))
        picture.planes = number_of(request, "planes") != 0;
    if (request.number.count("quality"))
        picture.quality = number_of(request, "quality");
    picture.width = number_of(request, "width");
    return picture;
}

static Reply get_frame(Camera &camera, const RoutedRequest &request)
{
    const PictureRequest picture = picture_request(request);
    const CameraState state = camera_state(camera);
    if (picture.view < POST_COUNT && !state.post[static_cast<size_t>(picture.view)].running)
        return reply_error(409, "post " + std::to_string(picture.view) + " is off");
    Reply reply = reply_png(picture_view(camera, picture));
    const std::string view = picture.view == VIEW_ALL      ? "all"
                             : picture.view == VIEW_SENSOR ? "sensor"
                                                           : "post" + std::to_string(picture.view);
    offer_download(request, "simcam-" + view + "-" + std::to_string(state.latest.number) + ".png",
                   &reply);
    return reply;
}

static Reply get_csv(Camera &camera, const RoutedRequest &request)
{
    std::string table = "number,time_s,ring,blur_px,raw,value\r\n";
    for (const Measurement &m :
         camera_measurements(camera, static_cast<uint64_t>(request.number.at("after")),
                             static_cast<size_t>(request.number.at("limit")))) {
        char line[160];
        const int length = snprintf(line, sizeof line, "%llu,%.4f,%.5f,%.3f,%u,%u\r\n",
                                    static_cast<unsigned long long>(m.number), m.time_s, m.ring,
                                    m.blur_px, m.raw, m.value);
        table.append(line, static_cast<size_t>(length));
    }
    Reply reply = reply_bytes("text/csv; charset=utf-8", std::move(table));
    offer_download(request, "simcam-values.csv", &reply);
    return reply;
}

static Reply get_output(Camera &camera, const RoutedRequest &request)
{
    uint64_t last = static_cast<uint64_t>(request.number.at("after"));
    const int stream = number_of(request, "stream");
    Reply reply = reply_bytes("application/octet-stream", "");
    for (const OutputChunk &chunk :
         camera_output(camera, last, static_cast<size_t>(request.number.at("limit")))) {
        last = chunk.number;
        if (stream == 0 || stream == chunk.stream)
            reply.body += chunk.bytes;
    }
    reply.headers.emplace_back("X-Last-Number", std::to_string(last));
    return reply;
}

static Reply get_plane(Camera &camera, const RoutedRequest &request)
{
    const PlaneImage plane =
        camera_plane(camera, number_of(request, "post"), number_of(request, "plane"));
    if (request.route->id == RouteId::PLANE)
        return reply_json(json_plane(plane.state, plane.bytes.size()));
    if (plane.bytes.empty())
        return reply_error(404, "nothing is shown on this plane");
    if (request.route->id == RouteId::PLANE_RAW) {
        Reply reply = reply_bytes("application/octet-stream", as_bytes(plane.bytes));
        reply.headers = {{"X-Width", std::to_string(plane.state.width)},
                         {"X-Height", std::to_string(plane.state.height)},
                         {"X-Pitch", std::to_string(plane.state.pitch)},
                         {"X-Depth", std::to_string(2u << std::min(plane.state.depth_code, 2u))},
                         {"X-Shows", std::to_string(plane.state.shows)}};
        return reply;
    }
    const bool indices = request.route->id == RouteId::PLANE_INDICES;
    const cv::Mat picture = indices ? picture_plane_indices(plane)
                                    : picture_plane_colours(plane, camera_palette(camera));
    if (picture.empty())
        return reply_error(404, "this plane has no pixels");
    Reply reply = reply_png(picture);
    offer_download(request,
                   "simcam-post" + std::to_string(number_of(request, "post")) + "-plane" +
                       std::to_string(number_of(request, "plane")) + ".png",
                   &reply);
    return reply;
}

static Reply start_post(Camera &camera, const RoutedRequest &request)
{
    const int post = number_of(request, "post");
    const PostState now = camera_state(camera).post[static_cast<size_t>(post)];
    uint32_t width = now.width;
    uint32_t height = now.height;
    if (request.number.count("size_width")) {
        width = static_cast<uint32_t>(request.number.at("size_width"));
        height = static_cast<uint32_t>(request.number.at("size_height"));
    }
    if (width == 0 || height == 0)
        return reply_error(400, "this post never had a size: give one");
    if (now.running && now.width == width && now.height == height)
        return reply_json(json_done());
    if (now.running) {
        const std::string refusal = camera_stop_post(camera, post);
        if (!refusal.empty())
            return reply_error(409, refusal);
    }
    return reply_outcome(camera_start_post(camera, post, width, height));
}

static Reply set_fault(Camera &camera, const RoutedRequest &request)
{
    Fault fault;
    fault.call = request.text.at("call");
    fault.error = static_cast<uint32_t>(request.number.at("error"));
    fault.remaining = static_cast<uint32_t>(request.number.at("remaining"));
    fault.delay_ms = static_cast<uint32_t>(request.number.at("delay_ms"));
    return reply_outcome(camera_set_fault(camera, fault));
}

static Reply get_page(const RoutedRequest &request)
{
    const PageFile *file = page_find(request.path);
    if (!file)
        return reply_error(404, "there is nothing at " + request.path + "; see /api");
    return reply_bytes(std::string(file->type), std::string(file->content));
}

// Answers everything that is not a stream.
static Reply answer(HttpServer &server, const RoutedRequest &request)
{
    Camera &camera = *server.camera;
    switch (request.route->id) {
    case RouteId::PAGE:
        return get_page(request);
    case RouteId::API:
        return reply_json(json_routes());
    case RouteId::STATE:
        return reply_json(json_state(camera_state(camera), true));
    case RouteId::MEASUREMENTS:
        return reply_json(json_measurements(
            camera_measurements(camera, static_cast<uint64_t>(request.number.at("after")),
                                static_cast<size_t>(request.number.at("limit")))));
    case RouteId::MEASUREMENTS_CSV:
        return get_csv(camera, request);
    case RouteId::CALLS:
        return reply_json(
            json_calls(camera_calls(camera, static_cast<uint64_t>(request.number.at("after")),
                                    static_cast<size_t>(request.number.at("limit")))));
    case RouteId::OUTPUT:
        return get_output(camera, request);
    case RouteId::POST_FRAME:
    case RouteId::ALL_FRAME:
    case RouteId::SENSOR_FRAME:
        return get_frame(camera, request);
    case RouteId::POST_START:
        return start_post(camera, request);
    case RouteId::POST_STOP:
        return reply_outcome(camera_stop_post(camera, number_of(request, "post")));
    case RouteId::PLANE:
    case RouteId::PLANE_RAW:
    case RouteId::PLANE_INDICES:
    case RouteId::PLANE_COLOURS:
        return get_plane(camera, request);
    case RouteId::PALETTE:
        return reply_json(json_palette(camera_palette(camera)));
    case RouteId::PALETTE_RAW:
        return reply_bytes("application/octet-stream", as_bytes(camera_palette(camera)));
    case RouteId::RING:
        return reply_outcome(camera_set_ring(camera, request.number.at("ring")));
    case RouteId::SWEEP:
        camera_set_sweep(camera, number_of(request, "on") != 0, request.number.at("period_s"));
        return reply_json(json_done());
    case RouteId::SCENE:
        return reply_outcome(camera_set_scene(camera, request.text.at("scene")));
    case RouteId::GAIN:
        return reply_outcome(camera_set_gain(camera, request.number.at("gain")));
    case RouteId::FLASH:
        camera_flash(camera);
        return reply_json(json_done());
    case RouteId::FAULTS:
        return reply_json(json_faults(camera_state(camera).faults, camera_fault_calls()));
    case RouteId::FAULT_SET:
        return set_fault(camera, request);
    case RouteId::FAULTS_CLEAR:
        camera_clear_faults(camera);
        return reply_json(json_done());
    case RouteId::PROCESS:
        return reply_json(json_process(camera_state(camera).process));
    case RouteId::PROCESS_START:
        return reply_outcome(camera_process_start(camera));
    case RouteId::PROCESS_STOP:
        return reply_outcome(camera_process_stop(camera));
    case RouteId::PROCESS_KILL:
        return reply_outcome(camera_process_kill(camera));
    case RouteId::EVENTS:
    case RouteId::POST_STREAM:
    case RouteId::ALL_STREAM:
    case RouteId::SENSOR_STREAM:
        break;
    }
    return reply_error(500, "a stream was answered as a single thing");
}

// ---- streams ----

// An endless answer. next gives the bytes that follow; none when there is nothing new yet.
struct Stream {
    HttpServer *server = nullptr;
    int socket = -1;
    std::function<std::string()> next;
    std::string pending;
    size_t sent = 0;

    explicit Stream(HttpServer *of) : server(of)
    {
        ++server->streams;
    }
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;
    ~Stream()
    {
        --server->streams;
    }
};

static bool reader_left(int socket)
{
    pollfd waiting = {socket, POLLRDHUP, 0};
    return poll(&waiting, 1, 0) > 0 && (waiting.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

// Called on the connection's own thread whenever there is room for more: it may wait.
static ssize_t stream_read(void *context, uint64_t, char *buffer, size_t size)
{
    Stream &stream = *static_cast<Stream *>(context);
    while (stream.sent == stream.pending.size()) {
        if (stream.server->stopping || reader_left(stream.socket))
            return MHD_CONTENT_READER_END_OF_STREAM;
        stream.pending = stream.next();
        stream.sent = 0;
    }
    const size_t count = std::min(size, stream.pending.size() - stream.sent);
    memcpy(buffer, stream.pending.data() + stream.sent, count);
    stream.sent += count;
    return static_cast<ssize_t>(count);
}

static void stream_free(void *context)
{
    delete static_cast<Stream *>(context);
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
        camera_wait(*server->camera, number, WAIT_SLICE_S * 2);
        if (server->stopping)
            return {};
        number = camera_state(*server->camera).latest.number;
        const auto jpeg = picture_cache_frame(*server->pictures, *entry, number);
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
        const CameraState state = camera_state(*server->camera);
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
            for (const OutputChunk &chunk : camera_output(*server->camera, output, EVENT_BATCH)) {
                output = chunk.number;
                text += event("output", json_output(chunk));
            }
        }
        if (calls) {
            for (const CallRecord &record : camera_calls(*server->camera, call, EVENT_BATCH)) {
                call = record.number;
                text += event("call", json_call(record));
            }
        }
        if (measurements) {
            for (const Measurement &m :
                 camera_measurements(*server->camera, measurement, EVENT_BATCH)) {
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
            camera_wait(*server->camera, measurement, WAIT_SLICE_S / 2);
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

template <typename Record> static uint64_t newest(const std::vector<Record> &records)
{
    return records.empty() ? 0 : records.back().number;
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
    if (!number_of(request, "backlog")) {
        events.measurement = camera_state(*server.camera).latest.number;
        events.output = newest(camera_output(*server.camera, 0, SIZE_MAX));
        events.call = newest(camera_calls(*server.camera, 0, SIZE_MAX));
    }
    resume_events(last_id, &events);
    return events;
}

static bool is_stream(RouteId id)
{
    return id == RouteId::EVENTS || id == RouteId::POST_STREAM || id == RouteId::ALL_STREAM ||
           id == RouteId::SENSOR_STREAM;
}

// ---- connections ----

// One request on its way in.
struct Arrival {
    std::string target;
    std::string body;
    bool too_long = false;
    bool seen = false; // the headers were looked at
};

static void add_headers(MHD_Response *response, const Reply &reply)
{
    const std::pair<const char *, const char *> fixed[] = {
        {"Cache-Control", "no-store"},
        {"X-Content-Type-Options", "nosniff"},
        {"X-Frame-Options", "DENY"},
        {"Referrer-Policy", "no-referrer"},
        {"Cross-Origin-Resource-Policy", "same-origin"},
        {"Content-Security-Policy",
         "default-src 'self'; img-src 'self' blob: data:; frame-ancestors 'none'; base-uri 'none'; "
         "form-action 'self'"},
    };
    MHD_add_response_header(response, "Content-Type", reply.type.c_str());
    for (const auto &[name, value] : fixed)
        MHD_add_response_header(response, name, value);
    for (const auto &[name, value] : reply.headers)
        MHD_add_response_header(response, name.c_str(), value.c_str());
}

static MHD_Result send_response(MHD_Connection *connection, unsigned status, MHD_Response *response,
                                const Reply &reply)
{
    if (!response)
        return MHD_NO;
    add_headers(response, reply);
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

static MHD_Result send_reply(MHD_Connection *connection, Reply reply)
{
    // The library copies the body, since the reply ends here.
    MHD_Response *response = MHD_create_response_from_buffer(reply.body.size(), reply.body.data(),
                                                             MHD_RESPMEM_MUST_COPY);
    return send_response(connection, reply.status, response, reply);
}

static std::string header(MHD_Connection *connection, const char *name)
{
    const char *value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value ? value : "";
}

static MHD_Result send_stream(HttpServer &server, MHD_Connection *connection,
                              const RoutedRequest &request)
{
    auto stream = std::make_unique<Stream>(&server);
    if (server.streams > HTTP_STREAMS_MAX) {
        Reply reply = reply_error(503, "all " + std::to_string(HTTP_STREAMS_MAX) +
                                           " streams are taken; close one");
        reply.headers.emplace_back("Retry-After", "5");
        return send_reply(connection, std::move(reply));
    }
    const MHD_ConnectionInfo *info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    stream->socket = info ? info->connect_fd : -1;

    Reply reply;
    if (request.route->id == RouteId::EVENTS) {
        reply.type = "text/event-stream";
        auto events = std::make_shared<EventStream>(
            make_events(server, request, header(connection, "Last-Event-ID")));
        stream->next = [events] { return events->next(); };
    } else {
        reply.type = "multipart/x-mixed-replace; boundary=frame";
        auto pictures = std::make_shared<PictureStream>();
        pictures->server = &server;
        pictures->entry = picture_cache_enter(*server.pictures, picture_request(request));
        pictures->pause = std::chrono::duration<double>(1 / request.number.at("fps"));
        stream->next = [pictures] { return pictures->next(); };
    }
    MHD_Response *response = MHD_create_response_from_callback(
        MHD_SIZE_UNKNOWN, STREAM_BLOCK, stream_read, stream.get(), stream_free);
    if (response)
        stream.release(); // the response frees it
    return send_response(connection, 200, response, reply);
}

// Whether this request may be answered at all; the empty string, or why not.
static std::string refuse_stranger(const HttpServer &server, MHD_Connection *connection)
{
    const std::string host = header(connection, "Host");
    if (!http_host_is_ours(host, server.machine_name))
        return "Host \"" + host + "\" is none of this server's names";
    const std::string origin = header(connection, "Origin");
    if (!origin.empty() && !http_origin_is_ours(origin, host))
        return "requests from another site are refused";
    return "";
}

static Reply refuse_method(const RoutedRequest &request)
{
    Reply reply = reply_error(static_cast<unsigned>(request.status), request.error);
    if (request.status == 405)
        reply.headers.emplace_back("Allow", request.allow);
    return reply;
}

static MHD_Result handle(HttpServer &server, MHD_Connection *connection, const char *method,
                         Arrival &arrival)
{
    const std::string stranger = refuse_stranger(server, connection);
    if (!stranger.empty())
        return send_reply(connection, reply_error(403, stranger));
    if (arrival.target.size() > TARGET_MAX)
        return send_reply(connection, reply_error(414, "the path is too long"));
    if (arrival.too_long)
        return send_reply(connection,
                          reply_error(413, "the body is longer than " +
                                               std::to_string(HTTP_BODY_MAX) + " bytes"));

    const RoutedRequest request = http_route(
        {method, arrival.target, header(connection, "Content-Type"), std::move(arrival.body)});
    if (request.status != 200)
        return send_reply(connection, refuse_method(request));
    // A picture on another site would make this camera work without an Origin to tell it by.
    if (request.route->id != RouteId::PAGE && header(connection, "Sec-Fetch-Site") == "cross-site")
        return send_reply(connection, reply_error(403, "requests from another site are refused"));
    if (is_stream(request.route->id))
        return send_stream(server, connection, request);
    return send_reply(connection, answer(server, request));
}

static void *on_target(void *, const char *target, MHD_Connection *)
{
    auto *arrival = new Arrival;
    arrival->target = target;
    return arrival;
}

static MHD_Result on_request(void *context, MHD_Connection *connection, const char *,
                             const char *method, const char *, const char *data, size_t *size,
                             void **request)
{
    Arrival &arrival = *static_cast<Arrival *>(*request);
    if (!arrival.seen) {
        arrival.seen = true;
        return MHD_YES;
    }
    if (*size > 0) {
        arrival.too_long |= arrival.body.size() + *size > HTTP_BODY_MAX;
        if (!arrival.too_long)
            arrival.body.append(data, *size);
        *size = 0;
        return MHD_YES;
    }
    return handle(*static_cast<HttpServer *>(context), connection, method, arrival);
}

static void on_completed(void *, MHD_Connection *, void **request, MHD_RequestTerminationCode)
{
    delete static_cast<Arrival *>(*request);
    *request = nullptr;
}

static void log_nothing(void *, const char *, va_list)
{
}

// ---- start and end ----

static bool parse_listen(const std::string &listen, sockaddr_storage *address, socklen_t *length)
{
    std::string host = "127.0.0.1";
    std::string port = listen;
    const size_t colon = listen.rfind(':');
    if (colon != std::string::npos) {
        port = listen.substr(colon + 1);
        if (colon > 0)
            host = listen.substr(0, colon);
    }
    if (port.empty() || port.size() > 5 ||
        !std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; }) ||
        std::stoul(port) > 65535)
        return false;
    const uint16_t number = htons(static_cast<uint16_t>(std::stoul(port)));
    if (host == "localhost")
        host = "127.0.0.1";
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);

    *address = {};
    auto *four = reinterpret_cast<sockaddr_in *>(address);
    if (inet_pton(AF_INET, host.c_str(), &four->sin_addr) == 1) {
        four->sin_family = AF_INET;
        four->sin_port = number;
        *length = sizeof *four;
        return true;
    }
    auto *six = reinterpret_cast<sockaddr_in6 *>(address);
    if (inet_pton(AF_INET6, host.c_str(), &six->sin6_addr) == 1) {
        six->sin6_family = AF_INET6;
        six->sin6_port = number;
        *length = sizeof *six;
        return true;
    }
    return false;
}

// A socket that listens, and the address it got. -1 with *error filled on failure.
static int listen_on(const std::string &listen, std::string *address, std::string *error)
{
    sockaddr_storage storage;
    socklen_t length = 0;
    if (!parse_listen(listen, &storage, &length)) {
        *error = "\"" + listen + "\" is no address to listen on; wanted is one like 127.0.0.1:8080";
        return -1;
    }
    auto *generic = reinterpret_cast<sockaddr *>(&storage);
    const int listener = socket(generic->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    if (listener < 0 || setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener, generic, length) != 0 || ::listen(listener, 64) != 0 ||
        getsockname(listener, generic, &length) != 0) {
        const int reason = errno;
        *error = "cannot listen on " + listen + ": " + strerror(reason);
        if (reason == EADDRINUSE)
            *error += " (is another simcam running? --listen 127.0.0.1:0 takes any free port)";
        if (listener >= 0)
            close(listener);
        return -1;
    }
    char text[INET6_ADDRSTRLEN] = "";
    if (generic->sa_family == AF_INET) {
        const auto *four = reinterpret_cast<const sockaddr_in *>(&storage);
        inet_ntop(AF_INET, &four->sin_addr, text, sizeof text);
        *address =
            "http://" + std::string(text) + ":" + std::to_string(ntohs(four->sin_port)) + "/";
    } else {
        const auto *six = reinterpret_cast<const sockaddr_in6 *>(&storage);
        inet_ntop(AF_INET6, &six->sin6_addr, text, sizeof text);
        *address =
            "http://[" + std::string(text) + "]:" + std::to_string(ntohs(six->sin6_port)) + "/";
    }
    return listener;
}

std::unique_ptr<HttpServer> http_start(std::shared_ptr<Camera> camera, const std::string &listen,
                                       std::string *error)
{
    auto server = std::make_unique<HttpServer>();
    const int listener = listen_on(listen, &server->address, error);
    if (listener < 0)
        return nullptr;
    char name[256] = "";
    if (gethostname(name, sizeof name - 1) == 0)
        server->machine_name = name;
    server->session = std::to_string(std::random_device()());
    server->camera = std::move(camera);
    server->pictures = picture_cache_make(server->camera);
    server->daemon =
        MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION |
                             MHD_USE_POLL | MHD_USE_ERROR_LOG,
                         0, nullptr, nullptr, on_request, server.get(),     //
                         MHD_OPTION_EXTERNAL_LOGGER, log_nothing, nullptr,  //
                         MHD_OPTION_LISTEN_SOCKET, listener,                //
                         MHD_OPTION_CONNECTION_LIMIT, HTTP_CONNECTIONS_MAX, //
                         MHD_OPTION_CONNECTION_TIMEOUT, HTTP_IDLE_S,        //
                         MHD_OPTION_URI_LOG_CALLBACK, on_target, nullptr,   //
                         MHD_OPTION_NOTIFY_COMPLETED, on_completed, nullptr, MHD_OPTION_END);
    if (!server->daemon) {
        *error = "cannot start the web server on " + listen;
        close(listener);
        return nullptr;
    }
    return server;
}

std::string http_address(const HttpServer &server)
{
    return server.address;
}

void http_stop(HttpServer &server)
{
    server.stopping = true;
    if (server.daemon)
        MHD_stop_daemon(server.daemon);
    server.daemon = nullptr;
}

} // namespace simcam

void std::default_delete<simcam::HttpServer>::operator()(simcam::HttpServer *server) const
{
    simcam::http_stop(*server);
    delete server;
}
