// Connections, and the checks of their requests' form and origin.
#include "web/server.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>

#include <sys/resource.h>
#include <strings.h>
#include <unistd.h>

#include <microhttpd.h>

#include "web/json.h"
#include "web/listen.h"
#include "web/routes.h"
#include "web/web.h"

namespace simcam
{

static constexpr size_t TARGET_MAX = 8192; // bytes of a request's path and query
static constexpr size_t STREAM_BLOCK = 64 * 1024;
static constexpr int HTTP_NICENESS = 5; // added to that of the process

struct HttpServer {
    Web web;
    Listener listener; // its socket is handed to daemon
    std::string machine_name;
    int process_niceness = getpriority(PRIO_PROCESS, 0); // of the thread that starts the server
    MHD_Daemon *daemon = nullptr;

    explicit HttpServer(Camera &camera) : web(camera)
    {
    }
};

// ---- connections ----

// A request that is being received.
struct Arrival {
    std::string target;
    std::string body;
    bool too_long = false;
    bool seen = false; // on_request was called for the headers
};

static void add_headers(MHD_Response *response, const Answer &answer)
{
    const std::string version = std::to_string(API_VERSION);
    const std::pair<const char *, const char *> fixed[] = {
        // With a tag a copy may be kept, but must be revalidated before each use.
        {"Cache-Control", answer.etag.empty() ? "no-store" : "no-cache"},
        {"X-Api-Version", version.c_str()},
        {"X-Content-Type-Options", "nosniff"},
        {"X-Frame-Options", "DENY"},
        {"Referrer-Policy", "no-referrer"},
        {"Cross-Origin-Resource-Policy", "same-origin"},
        {"Content-Security-Policy",
         "default-src 'self'; img-src 'self' blob: data:; frame-ancestors 'none'; base-uri 'none'; "
         "form-action 'self'"},
    };
    MHD_add_response_header(response, "Content-Type", answer.type.c_str());
    for (const auto &[name, value] : fixed)
        MHD_add_response_header(response, name, value);
    for (const auto &[name, value] : answer.headers)
        MHD_add_response_header(response, name.c_str(), value.c_str());
}

static MHD_Result send_response(MHD_Connection *connection, unsigned status, MHD_Response *response,
                                const Answer &answer)
{
    if (!response)
        return MHD_NO;
    add_headers(response, answer);
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

static void drop_body(void *body)
{
    delete static_cast<std::shared_ptr<const std::string> *>(body);
}

static MHD_Result send_answer(MHD_Connection *connection, const Answer &answer)
{
    // The response holds a reference to the body instead of a copy.
    auto *body = new std::shared_ptr<const std::string>(answer.body);
    MHD_Response *response = MHD_create_response_from_buffer_with_free_callback_cls(
        (*body)->size(), const_cast<char *>((*body)->data()), drop_body, body);
    if (!response)
        drop_body(body);
    return send_response(connection, answer.status, response, answer);
}

static std::string header(MHD_Connection *connection, const char *name)
{
    const char *value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value ? value : "";
}

// Called on the connection's own thread, so it may block.
static ssize_t on_room(void *context, uint64_t, char *buffer, size_t size)
{
    const ssize_t count = stream_read(*static_cast<HttpStream *>(context), buffer, size);
    return count < 0 ? MHD_CONTENT_READER_END_OF_STREAM : count;
}

static void on_stream_end(void *context)
{
    delete static_cast<HttpStream *>(context);
}

static MHD_Result send_stream(HttpServer &server, MHD_Connection *connection, bool is_head,
                              Answer answer)
{
    if (server.web.streams > HTTP_STREAMS_MAX) { // including this one
        Answer refusal = answer_error(503, "all " + std::to_string(HTTP_STREAMS_MAX) +
                                               " streams are in use; close one");
        refusal.headers.emplace_back("Retry-After", "5");
        return send_answer(connection, refusal);
    }
    const MHD_ConnectionInfo *info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    answer.stream->socket = info ? info->connect_fd : -1;
    MHD_Response *response = MHD_create_response_from_callback(
        MHD_SIZE_UNKNOWN, STREAM_BLOCK, on_room, answer.stream.get(), on_stream_end);
    if (response)
        (void)answer.stream.release(); // the response deletes it
    // Otherwise libmicrohttpd ends the headers with the last chunk of a body.
    if (response && is_head)
        MHD_set_response_options(response, MHD_RF_HTTP_VERSION_1_0_ONLY, MHD_RO_END);
    return send_response(connection, 200, response, answer);
}

struct Framing {
    std::vector<std::string> lengths; // values of Content-Length
    unsigned hosts = 0;
};

static MHD_Result on_header(void *context, MHD_ValueKind, const char *name, const char *value)
{
    auto *framing = static_cast<Framing *>(context);
    if (strcasecmp(name, "Content-Length") == 0)
        framing->lengths.emplace_back(value ? value : "");
    if (strcasecmp(name, "Host") == 0)
        ++framing->hosts;
    return MHD_YES;
}

// Returns an empty string, or why it is not certain where the request ends or what its host is.
// libmicrohttpd itself refuses an HTTP/1.1 request without Host.
static std::string refuse_framing(MHD_Connection *connection)
{
    Framing framing;
    MHD_get_connection_values(connection, MHD_HEADER_KIND, on_header, &framing);
    if (framing.hosts > 1)
        return "Host is given twice";
    const auto &lengths = framing.lengths;
    if (std::adjacent_find(lengths.begin(), lengths.end(), std::not_equal_to<>()) != lengths.end())
        return "Content-Length is given twice, with different values";
    if (!lengths.empty() && !header(connection, "Transfer-Encoding").empty())
        return "Content-Length and Transfer-Encoding exclude each other";
    return "";
}

// Returns an empty string, or why the origin of the request is refused.
static std::string refuse_origin(const HttpServer &server, MHD_Connection *connection,
                                 const std::string &target)
{
    const std::string named = http_target_host(target);
    const std::string host = named.empty() ? header(connection, "Host") : named;
    if (!http_host_is_ours(host, server.machine_name))
        return "Host \"" + host + "\" does not name this server";
    const std::string origin = header(connection, "Origin");
    if (!origin.empty() && !http_origin_is_ours(origin, host))
        return "requests from another site are refused";
    return "";
}

static Answer answer_refusal(const RoutedRequest &request)
{
    Answer answer = answer_error(static_cast<unsigned>(request.status), request.error);
    if (request.status == 405)
        answer.headers.emplace_back("Allow", request.allow);
    return answer;
}

static MHD_Result handle(HttpServer &server, MHD_Connection *connection, const char *method,
                         Arrival &arrival)
{
    // Of this thread: the sensor's comes first.
    (void)setpriority(PRIO_PROCESS, 0, server.process_niceness + HTTP_NICENESS);
    const std::string foreign = refuse_origin(server, connection, arrival.target);
    if (!foreign.empty())
        return send_answer(connection, answer_error(403, foreign));
    if (arrival.target.size() > TARGET_MAX)
        return send_answer(connection, answer_error(414, "the path is too long"));
    if (arrival.too_long) {
        // In a single expression GCC 14 warns about array bounds in the C++ library.
        std::string reason = "the body is longer than ";
        reason += std::to_string(HTTP_BODY_MAX) + " bytes";
        return send_answer(connection, answer_error(413, reason));
    }

    const RoutedRequest request =
        http_route(http_routes(), {method, arrival.target, header(connection, "Content-Type"),
                                   std::move(arrival.body), header(connection, "Last-Event-ID")});
    if (request.status != 200)
        return send_answer(connection, answer_refusal(request));
    // Another site's <img> sends no Origin but would make the camera encode pictures.
    if (request.route != &http_routes().front() &&
        header(connection, "Sec-Fetch-Site") == "cross-site")
        return send_answer(connection, answer_error(403, "requests from another site are refused"));
    Answer answer = request.route->handle(server.web, request);
    const bool is_head = strcmp(method, "HEAD") == 0;
    if (answer.stream)
        return send_stream(server, connection, is_head, std::move(answer));
    if (!answer.etag.empty())
        answer_reduce({header(connection, "If-None-Match"),
                       is_head ? "" : header(connection, "Range"), header(connection, "If-Range")},
                      &answer);
    return send_answer(connection, answer);
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
        const std::string reason = refuse_framing(connection);
        if (reason.empty())
            return MHD_YES;
        Answer refusal = answer_error(400, reason);
        refusal.headers.emplace_back("Connection",
                                     "close"); // where the next request starts is unknown
        return send_answer(connection, refusal);
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

// ---- start and stop ----

HttpServerPtr http_start(Camera &camera, const std::string &listen, std::string *error,
                         unsigned idle_s)
{
    HttpServerPtr server(new HttpServer(camera));
    server->listener = listen_on(listen, error);
    const int listener = server->listener.socket.get();
    if (listener < 0)
        return nullptr;
    char name[256] = "";
    if (gethostname(name, sizeof name - 1) == 0)
        server->machine_name = name;
    server->web.session = std::to_string(std::random_device()());
    server->daemon =
        MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION |
                             MHD_USE_POLL | MHD_USE_ERROR_LOG,
                         0, nullptr, nullptr, on_request, server.get(),     //
                         MHD_OPTION_EXTERNAL_LOGGER, log_nothing, nullptr,  //
                         MHD_OPTION_LISTEN_SOCKET, listener,                //
                         MHD_OPTION_STRICT_FOR_CLIENT, 1,                   // requires Host
                         MHD_OPTION_CONNECTION_LIMIT, HTTP_CONNECTIONS_MAX, //
                         MHD_OPTION_CONNECTION_TIMEOUT, idle_s,             //
                         MHD_OPTION_URI_LOG_CALLBACK, on_target, nullptr,   //
                         MHD_OPTION_NOTIFY_COMPLETED, on_completed, nullptr, MHD_OPTION_END);
    if (!server->daemon) {
        *error = "cannot start the web server on " + listen;
        return nullptr;
    }
    (void)server->listener.socket.release(); // the daemon closes it
    return server;
}

std::string http_address(const HttpServer &server)
{
    return server.listener.address;
}

std::string http_warning(const HttpServer &server)
{
    if (!server.listener.exposed)
        return "";
    std::string text = "warning: there is no password. Whoever can reach this address can\n"
                       "  - watch the pictures, and read the state and the output of the program\n";
    for (const Route &route : http_routes()) {
        const std::string line =
            route.text.allows ? "  - " + std::string(route.text.allows) + "\n" : "";
        if (text.find(line) == std::string::npos)
            text += line;
    }
    return text + "Without --listen only this machine reaches it.";
}

void HttpServerDelete::operator()(HttpServer *server) const
{
    server->web.stopping = true;
    server->web.frames.closed = true;
    if (server->daemon)
        MHD_stop_daemon(server->daemon);
    delete server;
}

} // namespace simcam
