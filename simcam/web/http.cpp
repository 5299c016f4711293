// The server: its address, connections, and who may ask.
#include "web/http.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <microhttpd.h>

#include "web/http_server.h"

namespace simcam
{

static constexpr size_t TARGET_MAX = 8192; // bytes of a request's path and query
static constexpr size_t STREAM_BLOCK = 64 * 1024;

// ---- connections ----

// One request on its way in.
struct Arrival {
    std::string target;
    std::string body;
    bool too_long = false;
    bool seen = false; // the headers were looked at
};

static void add_headers(MHD_Response *response, const HttpReply &reply)
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
                                const HttpReply &reply)
{
    if (!response)
        return MHD_NO;
    add_headers(response, reply);
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

static MHD_Result send_reply(MHD_Connection *connection, HttpReply reply)
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

// Called on the connection's own thread whenever there is room for more: it may wait.
static ssize_t on_room(void *context, uint64_t, char *buffer, size_t size)
{
    const ssize_t count = stream_read(*static_cast<Stream *>(context), buffer, size);
    return count < 0 ? MHD_CONTENT_READER_END_OF_STREAM : count;
}

static void on_stream_end(void *context)
{
    delete static_cast<Stream *>(context);
}

static MHD_Result send_stream(HttpServer &server, MHD_Connection *connection,
                              const RoutedRequest &request)
{
    auto stream = stream_make(server, request, header(connection, "Last-Event-ID"));
    if (server.streams > HTTP_STREAMS_MAX) { // this one counts already
        HttpReply reply = reply_error(503, "all " + std::to_string(HTTP_STREAMS_MAX) +
                                               " streams are taken; close one");
        reply.headers.emplace_back("Retry-After", "5");
        return send_reply(connection, std::move(reply));
    }
    const MHD_ConnectionInfo *info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    stream->socket = info ? info->connect_fd : -1;
    HttpReply reply;
    reply.type = stream->type;
    MHD_Response *response = MHD_create_response_from_callback(
        MHD_SIZE_UNKNOWN, STREAM_BLOCK, on_room, stream.get(), on_stream_end);
    if (response)
        (void)stream.release(); // the response frees it
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

static HttpReply refuse_method(const RoutedRequest &request)
{
    HttpReply reply = reply_error(static_cast<unsigned>(request.status), request.error);
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
    if (arrival.too_long) {
        // One expression of the three makes GCC 14 warn of array bounds in the C++ library.
        std::string reason = "the body is longer than ";
        reason += std::to_string(HTTP_BODY_MAX) + " bytes";
        return send_reply(connection, reply_error(413, reason));
    }

    const RoutedRequest request = http_route(
        {method, arrival.target, header(connection, "Content-Type"), std::move(arrival.body)});
    if (request.status != 200)
        return send_reply(connection, refuse_method(request));
    // A picture on another site would make this camera work without an Origin to tell it by.
    if (request.route->id != RouteId::PAGE && header(connection, "Sec-Fetch-Site") == "cross-site")
        return send_reply(connection, reply_error(403, "requests from another site are refused"));
    if (stream_is(request.route->id))
        return send_stream(server, connection, request);
    return send_reply(connection, reply_answer(server, request));
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

HttpServerPtr http_start(Camera &camera, const std::string &listen, std::string *error)
{
    HttpServerPtr server(new HttpServer(camera));
    const int listener = listen_on(listen, &server->address, error);
    if (listener < 0)
        return nullptr;
    char name[256] = "";
    if (gethostname(name, sizeof name - 1) == 0)
        server->machine_name = name;
    server->session = std::to_string(std::random_device()());
    server->pictures = picture_cache_make(camera);
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

void HttpServerDelete::operator()(HttpServer *server) const
{
    server->stopping = true;
    if (server->daemon)
        MHD_stop_daemon(server->daemon);
    delete server;
}

} // namespace simcam
