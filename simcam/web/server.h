// The web server of the simulated camera: the page, and the same for scripts and tests.
//
// One thread for each connection, at most HTTP_CONNECTIONS_MAX; a reader that stalls delays its own
// thread only. A request is refused if its Host is not a loopback name, a numeric address or the
// machine's name, or if another site sent it.
#pragma once

#include <memory>
#include <string>

#include "camera/camera.h"

namespace simcam
{

constexpr unsigned HTTP_CONNECTIONS_MAX = 48;
constexpr unsigned HTTP_STREAMS_MAX = 16;   // of them with a stream of pictures or events
constexpr unsigned HTTP_IDLE_S = 15;        // an idle connection is closed after this, by default
constexpr size_t HTTP_BODY_MAX = 16 * 1024; // bytes of a request
constexpr const char *HTTP_LISTEN_DEFAULT = "127.0.0.1:8080";

struct HttpServer;
// Ends every stream and connection.
struct HttpServerDelete {
    void operator()(HttpServer *server) const;
};
using HttpServerPtr = std::unique_ptr<HttpServer, HttpServerDelete>;

// Listens as listen_on() does and serves camera, which must outlive it. A connection that makes no
// progress for idle_s seconds is closed. Returns null with *error set on failure.
HttpServerPtr http_start(Camera &camera, const std::string &listen, std::string *error,
                         unsigned idle_s = HTTP_IDLE_S);
// An address that a browser can open: "http://127.0.0.1:8080/", with the actual port.
std::string http_address(const HttpServer &server);
// What anybody on another machine may do; empty if only this machine can reach the server.
std::string http_warning(const HttpServer &server);

} // namespace simcam
