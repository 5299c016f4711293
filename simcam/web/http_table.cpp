// The table of routes with their parameters.
#include "web/http_route.h"

namespace simcam
{

static constexpr const char *JSON = "application/json";
static constexpr const char *PNG = "image/png";
static constexpr const char *MJPEG = "multipart/x-mixed-replace";
static constexpr const char *BYTES = "application/octet-stream";

static RouteParameter post_parameter()
{
    return {"post", ParameterKind::INTEGER, 0, 3, nullptr, "number of the post"};
}

static RouteParameter plane_parameter()
{
    return {"plane", ParameterKind::INTEGER, 0, 3, nullptr, "number of the plane"};
}

static RouteParameter after_parameter()
{
    return {"after", ParameterKind::INTEGER,
            0,       9e15,
            "0",     "only entries with a higher number; simcam keeps the last 4096"};
}

static RouteParameter limit_parameter()
{
    return {"limit", ParameterKind::INTEGER,
            1,       4096,
            "4096",  "maximum number of entries, oldest first"};
}

static RouteParameter download_parameter()
{
    return {
        "download", ParameterKind::FLAG, 0, 1, "0", "makes a browser save the answer as a file"};
}

static std::vector<RouteParameter> frame_parameters(std::vector<RouteParameter> before, bool planes)
{
    if (planes)
        before.push_back(
            {"planes", ParameterKind::FLAG, 0, 1, "1", "draws the OSD planes over the picture"});
    before.push_back({"width", ParameterKind::INTEGER, 0, 8192, "0",
                      "maximum width in pixels; 0: original size"});
    return before;
}

static std::vector<RouteParameter> still_parameters(std::vector<RouteParameter> before, bool planes)
{
    before = frame_parameters(std::move(before), planes);
    before.push_back(download_parameter());
    return before;
}

static std::vector<RouteParameter> stream_parameters(std::vector<RouteParameter> before,
                                                     bool planes)
{
    before = frame_parameters(std::move(before), planes);
    before.push_back({"quality", ParameterKind::INTEGER, 10, 100, "80", "JPEG quality"});
    before.push_back(
        {"fps", ParameterKind::NUMBER, 0.1, 60, "30", "maximum number of pictures per second"});
    return before;
}

static std::vector<Route> make_routes()
{
    using Kind = ParameterKind;
    const RouteParameter post = post_parameter();
    const RouteParameter plane = plane_parameter();
    return {
        {RouteId::PAGE, "GET", "/", "text/html", "the page and its parts", {}},
        {RouteId::API, "GET", "/api", JSON, "this list", {}},
        {RouteId::CONSTANTS,
         "GET",
         "/api/constants",
         JSON,
         "constants of the overlay, and the built-in scenes",
         {}},
        {RouteId::STATE, "GET", "/api/state", JSON, "the current state of the whole camera", {}},
        {RouteId::EVENTS,
         "GET",
         "/api/events",
         "text/event-stream",
         "events as they happen: hello, state, measurement, output, call",
         {{"kinds", Kind::TEXT, 1, 100, "state,measurement,output",
           "which of state, measurement, output, call"},
          {"backlog", Kind::FLAG, 0, 1, "1", "begin with the events that simcam has kept"}}},
        {RouteId::MEASUREMENTS,
         "GET",
         "/api/measurements",
         JSON,
         "readings of the sharpness",
         {after_parameter(), limit_parameter()}},
        {RouteId::MEASUREMENTS_CSV,
         "GET",
         "/api/measurements.csv",
         "text/csv",
         "the same as CSV",
         {after_parameter(), limit_parameter(), download_parameter()}},
        {RouteId::CALLS,
         "GET",
         "/api/calls",
         JSON,
         "calls of the overlay process on the library and the device",
         {after_parameter(), limit_parameter()}},
        {RouteId::OUTPUT,
         "GET",
         "/api/output",
         BYTES,
         "output of the overlay process, byte for byte; X-Last-Number is the next value for after",
         {after_parameter(),
          limit_parameter(),
          {"stream", Kind::INTEGER, 0, 2, "0", "1 standard output, 2 standard error, 0 both"}}},
        {RouteId::POST_FRAME, "GET", "/api/posts/{post}/frame.png", PNG, "the picture of a post",
         still_parameters({post}, true)},
        {RouteId::POST_STREAM, "GET", "/api/posts/{post}/stream.mjpeg", MJPEG,
         "the same as a video stream", stream_parameters({post}, true)},
        {RouteId::ALL_FRAME, "GET", "/api/all/frame.png", PNG, "the four posts in one picture",
         still_parameters({}, true)},
        {RouteId::ALL_STREAM, "GET", "/api/all/stream.mjpeg", MJPEG, "the same as a video stream",
         stream_parameters({}, true)},
        {RouteId::SENSOR_FRAME, "GET", "/api/sensor/frame.png", PNG, "the picture of the sensor",
         still_parameters({}, false)},
        {RouteId::SENSOR_STREAM, "GET", "/api/sensor/stream.mjpeg", MJPEG,
         "the same as a video stream", stream_parameters({}, false)},
        {RouteId::POST_START,
         "POST",
         "/api/posts/{post}/start",
         JSON,
         "starts a post; a running post of another size is stopped first",
         {post, {"size", Kind::SIZE, 16, 4096, "", "WIDTHxHEIGHT; default: its last size"}}},
        {RouteId::POST_STOP, "POST", "/api/posts/{post}/stop", JSON, "stops a post", {post}},
        {RouteId::PLANE,
         "GET",
         "/api/posts/{post}/planes/{plane}",
         JSON,
         "state of a plane",
         {post, plane}},
        {RouteId::PLANE_RAW,
         "GET",
         "/api/posts/{post}/planes/{plane}/raw",
         BYTES,
         "memory of a plane as shown, pitch bytes per line; 404 while nothing is shown",
         {post, plane}},
        {RouteId::PLANE_INDICES,
         "GET",
         "/api/posts/{post}/planes/{plane}/indices.png",
         PNG,
         "palette indices of a plane as gray values",
         {post, plane, download_parameter()}},
        {RouteId::PLANE_COLORS,
         "GET",
         "/api/posts/{post}/planes/{plane}/colors.png",
         PNG,
         "a plane in its colors, with transparency",
         {post, plane, download_parameter()}},
        {RouteId::PALETTE, "GET", "/api/palette", JSON, "the color table last applied", {}},
        {RouteId::PALETTE_RAW,
         "GET",
         "/api/palette/raw",
         BYTES,
         "the same, 4 bytes per entry: Y, Cb, Cr, opacity in eighths",
         {}},
        {RouteId::RING,
         "POST",
         "/api/ring",
         JSON,
         "turns the lens ring; ends a sweep",
         {{"ring", Kind::NUMBER, 0, 1, nullptr, "0 near stop, 1 far stop"}}},
        {RouteId::SWEEP,
         "POST",
         "/api/sweep",
         JSON,
         "turns the ring through focus and back until stopped",
         {{"on", Kind::FLAG, 0, 1, nullptr, "starts or stops it"},
          {"period_s", Kind::NUMBER, 0.5, 3600, "12", "seconds of one turn back and forth"}}},
        {RouteId::SCENE,
         "POST",
         "/api/scene",
         JSON,
         "changes the scene",
         {{"scene", Kind::TEXT, 1, 4096, nullptr,
           "photo, chart, or the path of a picture, a video file or a /dev/video*"}}},
        {RouteId::GAIN,
         "POST",
         "/api/gain",
         JSON,
         "changes the exposure",
         {{"gain", Kind::NUMBER, 0.1, 8, nullptr, "factor of the brightness"}}},
        {RouteId::FLASH, "POST", "/api/flash", JSON, "one bright picture", {}},
        {RouteId::FAULTS,
         "GET",
         "/api/faults",
         JSON,
         "armed faults, and the calls that can have one",
         {}},
        {RouteId::FAULT_SET,
         "POST",
         "/api/faults",
         JSON,
         "makes a call fail or slow; replaces the fault of that call",
         {{"call", Kind::TEXT, 1, 100, nullptr, "name of a call, as listed by GET"},
          {"error", Kind::CODE, 0, 4294967295.0, "0",
           "code in errno; 0: the call succeeds but is slow"},
          {"remaining", Kind::CODE, 0, 4294967295.0, "1",
           "number of calls, or \"forever\"; 0 disarms the fault"},
          {"delay_ms", Kind::INTEGER, 0, 10000, "0", "additional milliseconds per call"}}},
        {RouteId::FAULTS_CLEAR, "DELETE", "/api/faults", JSON, "disarms every fault", {}},
        {RouteId::PROCESS, "GET", "/api/process", JSON, "state of the overlay process", {}},
        {RouteId::PROCESS_START, "POST", "/api/process/start", JSON, "starts the process", {}},
        {RouteId::PROCESS_STOP, "POST", "/api/process/stop", JSON, "sends SIGTERM to it", {}},
        {RouteId::PROCESS_KILL, "POST", "/api/process/kill", JSON, "sends SIGKILL to it", {}},
    };
}

const std::vector<Route> &http_routes()
{
    static const std::vector<Route> routes = make_routes();
    return routes;
}

} // namespace simcam
