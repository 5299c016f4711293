// What can be asked of the web interface: the table of routes, and the reading of a request into
// checked parameters. No socket, no camera and no state: a request goes in, a route with values or
// a refusal comes out.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace simcam
{

enum class RouteId {
    PAGE,
    API,
    CONSTANTS,
    STATE,
    EVENTS,
    MEASUREMENTS,
    MEASUREMENTS_CSV,
    CALLS,
    OUTPUT,
    POST_FRAME,
    POST_STREAM,
    ALL_FRAME,
    ALL_STREAM,
    SENSOR_FRAME,
    SENSOR_STREAM,
    POST_START,
    POST_STOP,
    PLANE,
    PLANE_RAW,
    PLANE_INDICES,
    PLANE_COLORS,
    PALETTE,
    PALETTE_RAW,
    RING,
    SWEEP,
    SCENE,
    GAIN,
    FLASH,
    FAULTS,
    FAULT_SET,
    FAULTS_CLEAR,
    PROCESS,
    PROCESS_START,
    PROCESS_STOP,
    PROCESS_KILL,
};

enum class ParameterKind {
    INTEGER, // least..most
    NUMBER,  // least..most
    FLAG,    // true or false; in a query also 1 or 0
    TEXT,    // least..most characters
    SIZE, // "1280x720", each side least..most; arrives as two numbers, NAME_width and NAME_height
    CODE, // least..most, also as text: "0x81E03204", or "forever" for 4294967295
};

struct RouteParameter {
    const char *name;
    ParameterKind kind;
    double least, most;
    const char *fallback; // what it is when not given, as in a query; null: must be given
    const char *help;
};

// Parameters in braces of the path are part of the table's parameters. Those of GET and DELETE come
// in the query, those of POST as members of a JSON object in the body.
struct Route {
    RouteId id;
    const char *method;
    const char *path;
    const char *answer; // content type
    const char *help;
    std::vector<RouteParameter> parameters;
};

struct HttpRequest {
    std::string method;
    std::string target; // as it came: path and query, percent-encoded
    std::string content_type;
    std::string body;
};

// A request that was understood (status 200), or the refusal (another status and a sentence for a
// person).
struct RoutedRequest {
    int status = 200;
    std::string error;
    std::string allow; // the methods there are, with status 405
    const Route *route = nullptr;
    std::string path;                     // decoded
    std::map<std::string, double> number; // flags are 0 and 1
    std::map<std::string, std::string> text;
};

const std::vector<Route> &http_routes();

RoutedRequest http_route(const HttpRequest &request);

// Whether a Host header names a server that listens on this machine: a loopback name, an address in
// numbers, or machine_name. Any port, since a tunnel changes it. Names of others are refused: they
// can be made to point here.
bool http_host_is_ours(const std::string &host, const std::string &machine_name);
// Whether the header Origin is that of the page that host served.
bool http_origin_is_ours(const std::string &origin, const std::string &host);

} // namespace simcam
