// The web interface of the simulated camera: the page, and everything the page does for scripts and
// tests.
//
// One thread a connection, at most HTTP_CONNECTIONS_MAX; a reader that stalls holds up its own
// thread only. The address must be one of this machine; a request is answered only where its Host
// names this server by a loopback name, an address or the machine's name, and where no other site
// sent it.
#pragma once

#include <memory>
#include <string>

#include "camera/camera.h"

namespace simcam
{

constexpr unsigned HTTP_CONNECTIONS_MAX = 48;
constexpr unsigned HTTP_STREAMS_MAX = 16;   // of those, endless ones: pictures and events
constexpr unsigned HTTP_IDLE_S = 15;        // a connection without progress is closed after it
constexpr size_t HTTP_BODY_MAX = 16 * 1024; // bytes of a request's body
constexpr const char *HTTP_LISTEN_DEFAULT = "127.0.0.1:8080";

struct HttpServer;
// Ends every stream and connection.
struct HttpServerDelete {
    void operator()(HttpServer *server) const;
};
using HttpServerPtr = std::unique_ptr<HttpServer, HttpServerDelete>;

// Listens on "127.0.0.1:8080", "[::1]:8080", "localhost:0" (port 0: any free one), or a port alone,
// and serves camera, which must outlive it. Returns null with *error set on failure.
HttpServerPtr http_start(Camera &camera, const std::string &listen, std::string *error);
// "http://127.0.0.1:8080/", with the actual port.
std::string http_address(const HttpServer &server);

} // namespace simcam
