// The table of routes: all that can be asked, with its parameters.
#include "web/http_route.h"

namespace simcam
{

static constexpr const char *JSON = "application/json";
static constexpr const char *PNG = "image/png";
static constexpr const char *MJPEG = "multipart/x-mixed-replace";
static constexpr const char *BYTES = "application/octet-stream";

static RouteParameter post_parameter()
{
    return {"post", ParameterKind::INTEGER, 0, 3, nullptr, "the post's number"};
}

static RouteParameter plane_parameter()
{
    return {"plane", ParameterKind::INTEGER, 0, 3, nullptr, "the plane's number"};
}

static RouteParameter after_parameter()
{
    return {"after", ParameterKind::INTEGER,
            0,       9e15,
            "0",     "only what is newer than this number; 4096 of each kind are kept"};
}

static RouteParameter limit_parameter()
{
    return {"limit", ParameterKind::INTEGER, 1, 4096, "4096", "at most so many, the oldest first"};
}

static RouteParameter download_parameter()
{
    return {"download", ParameterKind::FLAG, 0, 1, "0", "offer it to a browser as a file to keep"};
}

static std::vector<RouteParameter> frame_parameters(std::vector<RouteParameter> before, bool planes)
{
    if (planes)
        before.push_back({"planes", ParameterKind::FLAG, 0, 1, "1", "with the OSD planes on top"});
    before.push_back({"width", ParameterKind::INTEGER, 0, 8192, "0",
                      "make it at most so many pixels wide; 0: as it is"});
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
    before.push_back({"quality", ParameterKind::INTEGER, 10, 100, "80", "of the JPEGs"});
    before.push_back(
        {"fps", ParameterKind::NUMBER, 0.1, 60, "30", "at most so many pictures a second"});
    return before;
}

static std::vector<Route> make_routes()
{
    using Kind = ParameterKind;
    const RouteParameter post = post_parameter();
    const RouteParameter plane = plane_parameter();
    return {
        {RouteId::PAGE, "GET", "/", "text/html", "the page for people, and its parts", {}},
        {RouteId::API, "GET", "/api", JSON, "this list", {}},
        {RouteId::CONSTANTS,
         "GET",
         "/api/constants",
         JSON,
         "constants of the overlay, and the built-in scenes",
         {}},
        {RouteId::STATE,
         "GET",
         "/api/state",
         JSON,
         "everything about the camera, as it is now",
         {}},
        {RouteId::EVENTS,
         "GET",
         "/api/events",
         "text/event-stream",
         "what happens, as it happens: hello, state, measurement, output, call",
         {{"kinds", Kind::TEXT, 1, 100, "state,measurement,output",
           "which of state, measurement, output, call"},
          {"backlog", Kind::FLAG, 0, 1, "1", "begin with what is kept of the past"}}},
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
         "the same as a table",
         {after_parameter(), limit_parameter(), download_parameter()}},
        {RouteId::CALLS,
         "GET",
         "/api/calls",
         JSON,
         "what the overlay process asked of the library and the device",
         {after_parameter(), limit_parameter()}},
        {RouteId::OUTPUT,
         "GET",
         "/api/output",
         BYTES,
         "what the overlay process wrote, byte for byte; X-Last-Number is the number to go on "
         "after",
         {after_parameter(),
          limit_parameter(),
          {"stream", Kind::INTEGER, 0, 2, "0", "1 standard output, 2 standard error, 0 both"}}},
        {RouteId::POST_FRAME, "GET", "/api/posts/{post}/frame.png", PNG, "what a post shows",
         still_parameters({post}, true)},
        {RouteId::POST_STREAM, "GET", "/api/posts/{post}/stream.mjpeg", MJPEG, "the same, moving",
         stream_parameters({post}, true)},
        {RouteId::ALL_FRAME, "GET", "/api/all/frame.png", PNG, "the four posts in one picture",
         still_parameters({}, true)},
        {RouteId::ALL_STREAM, "GET", "/api/all/stream.mjpeg", MJPEG, "the same, moving",
         stream_parameters({}, true)},
        {RouteId::SENSOR_FRAME, "GET", "/api/sensor/frame.png", PNG, "what the sensor sees",
         still_parameters({}, false)},
        {RouteId::SENSOR_STREAM, "GET", "/api/sensor/stream.mjpeg", MJPEG, "the same, moving",
         stream_parameters({}, false)},
        {RouteId::POST_START,
         "POST",
         "/api/posts/{post}/start",
         JSON,
         "starts a post; a running one is stopped first when the size is another",
         {post, {"size", Kind::SIZE, 16, 4096, "", "WIDTHxHEIGHT; left out: the size it had"}}},
        {RouteId::POST_STOP, "POST", "/api/posts/{post}/stop", JSON, "stops a post", {post}},
        {RouteId::PLANE,
         "GET",
         "/api/posts/{post}/planes/{plane}",
         JSON,
         "a plane's state",
         {post, plane}},
        {RouteId::PLANE_RAW,
         "GET",
         "/api/posts/{post}/planes/{plane}/raw",
         BYTES,
         "a plane's memory as it is shown, pitch bytes a line; 404 while nothing is shown",
         {post, plane}},
        {RouteId::PLANE_INDICES,
         "GET",
         "/api/posts/{post}/planes/{plane}/indices.png",
         PNG,
         "a plane's palette indices as gray values",
         {post, plane, download_parameter()}},
        {RouteId::PLANE_COLORS,
         "GET",
         "/api/posts/{post}/planes/{plane}/colors.png",
         PNG,
         "a plane in its colors, transparent where it is",
         {post, plane, download_parameter()}},
        {RouteId::PALETTE, "GET", "/api/palette", JSON, "the color table as applied last", {}},
        {RouteId::PALETTE_RAW,
         "GET",
         "/api/palette/raw",
         BYTES,
         "the same, 4 bytes an entry: Y, Cb, Cr, opacity in eighths",
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
         "lets the lens rack through focus and back",
         {{"on", Kind::FLAG, 0, 1, nullptr, "whether it moves"},
          {"period_s", Kind::NUMBER, 0.5, 3600, "12", "seconds there and back"}}},
        {RouteId::SCENE,
         "POST",
         "/api/scene",
         JSON,
         "what the camera looks at",
         {{"scene", Kind::TEXT, 1, 4096, nullptr,
           "photo, chart, or the path of a picture, a video file or a /dev/video*"}}},
        {RouteId::GAIN,
         "POST",
         "/api/gain",
         JSON,
         "a step of exposure",
         {{"gain", Kind::NUMBER, 0.1, 8, nullptr, "multiplies the picture"}}},
        {RouteId::FLASH, "POST", "/api/flash", JSON, "one bright picture", {}},
        {RouteId::FAULTS,
         "GET",
         "/api/faults",
         JSON,
         "the armed faults and what can be faulted",
         {}},
        {RouteId::FAULT_SET,
         "POST",
         "/api/faults",
         JSON,
         "makes a call fail or slow; replaces the fault of the same call",
         {{"call", Kind::TEXT, 1, 100, nullptr, "one of the calls listed by GET"},
          {"error", Kind::CODE, 0, 4294967295.0, "0",
           "the code in errno; 0: it succeeds and is only slow"},
          {"remaining", Kind::CODE, 0, 4294967295.0, "1", "how many calls, or \"forever\""},
          {"delay_ms", Kind::INTEGER, 0, 10000, "0", "milliseconds that each takes longer"}}},
        {RouteId::FAULTS_CLEAR, "DELETE", "/api/faults", JSON, "disarms every fault", {}},
        {RouteId::PROCESS, "GET", "/api/process", JSON, "the overlay process", {}},
        {RouteId::PROCESS_START, "POST", "/api/process/start", JSON, "starts it", {}},
        {RouteId::PROCESS_STOP, "POST", "/api/process/stop", JSON, "ends it with SIGTERM", {}},
        {RouteId::PROCESS_KILL, "POST", "/api/process/kill", JSON, "ends it with SIGKILL", {}},
    };
}

const std::vector<Route> &http_routes()
{
    static const std::vector<Route> routes = make_routes();
    return routes;
}

} // namespace simcam
