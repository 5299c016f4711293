// Finding the route of a request and reading its parameters. Uses no socket and no camera: a
// request goes in, a route with checked values or a refusal comes out.
#pragma once

#include <span>
#include <string>

#include "web/answer.h"
#include "web/parameters.h"

namespace simcam
{

struct Web;
struct RoutedRequest;

// A row of the table of routes. The parameters of GET and DELETE come in the query, those of POST
// as members of a JSON object in the body.
struct Route {
    RouteText text;
    Answer (*handle)(Web &web, const RoutedRequest &request);
};

struct HttpRequest {
    std::string method;
    std::string target; // as received: path and query, percent-encoded; or "http://host/path"
    std::string content_type;
    std::string body;
    std::string last_event_id = {}; // header Last-Event-ID
};

// An accepted request (status 200), or a refusal (another status and a sentence for the user).
struct RoutedRequest {
    int status = 200;
    std::string error;
    std::string allow; // the path's methods, with status 405
    const Route *route = nullptr;
    std::string path; // decoded
    Values values;
    std::string last_event_id;
};

// A path outside /api without a route of its own belongs to the first route, the page.
RoutedRequest http_route(std::span<const Route> routes, const HttpRequest &request);

// The host of a target in absolute form, "http://host:port/path", which counts instead of the Host
// header; empty for a path.
std::string http_target_host(const std::string &target);

// Whether a Host header names a server of this machine: a loopback name, a numeric address, or
// machine_name. Ports are ignored, since a tunnel changes them. Rejects foreign host names (DNS
// rebinding).
bool http_host_is_ours(const std::string &host, const std::string &machine_name);
// Whether an Origin header names the page that host served.
bool http_origin_is_ours(const std::string &origin, const std::string &host);

} // namespace simcam
