// The handlers, and below them the table.
#include "web/routes.h"

#include <cstdint>
#include <cstdio>

#include "focus_threshold.h"
#include "web/json.h"
#include "web/page.h"
#include "web/web.h"

namespace simcam
{

// ---- answers ----

static Answer answer_bytes(std::string type, std::string bytes)
{
    Answer answer;
    answer.type = std::move(type);
    answer.body = std::make_shared<const std::string>(std::move(bytes));
    return answer;
}

static Answer answer_json(std::string text)
{
    return answer_bytes("application/json", std::move(text));
}

Answer answer_error(unsigned status, const std::string &message)
{
    Answer answer = answer_json(json_error(static_cast<int>(status), message));
    answer.status = status;
    return answer;
}

// The answer of a command of the camera that returned refusal, empty for success.
static Answer answer_outcome(const std::string &refusal)
{
    return refusal.empty() ? answer_json(json_done()) : answer_error(409, refusal);
}

static Answer answer_stream(std::unique_ptr<HttpStream> stream)
{
    Answer answer;
    answer.type = stream->type;
    answer.stream = std::move(stream);
    return answer;
}

static std::string as_bytes(const std::vector<uint8_t> &bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

static void offer_download(const RoutedRequest &request, const std::string &name, Answer *answer)
{
    if (request.values.flag("download"))
        answer->headers.emplace_back("Content-Disposition",
                                     "attachment; filename=\"" + name + "\"");
}

static uint64_t after(const RoutedRequest &request)
{
    return static_cast<uint64_t>(request.values.number.at("after"));
}

static size_t limit(const RoutedRequest &request)
{
    return static_cast<size_t>(request.values.number.at("limit"));
}

// ---- the page, the list, the state ----

static Answer get_page(Web &, const RoutedRequest &request)
{
    const PageFile *file = page_find(request.path);
    if (!file)
        return answer_error(404, "there is nothing at " + request.path + "; see /api");
    Answer answer = answer_bytes(std::string(file->type), std::string(file->content));
    answer.etag = file->etag;
    return answer;
}

static Answer get_routes(Web &, const RoutedRequest &)
{
    std::vector<const RouteText *> texts;
    const std::span<const Route> routes = http_routes();
    for (const Route &route : routes)
        texts.push_back(&route.text);
    return answer_json(json_routes(texts));
}

static Answer get_constants(Web &, const RoutedRequest &)
{
    return answer_json(json_constants(FOCUS_THRESHOLD_PERCENT, camera_scenes()));
}

static Answer get_state(Web &web, const RoutedRequest &)
{
    return answer_json(json_state(camera_state(web.camera), true));
}

// ---- records ----

static Answer get_events(Web &web, const RoutedRequest &request)
{
    return answer_stream(stream_events(web, request.values.text.at("kinds"),
                                       request.values.flag("backlog"), request.last_event_id));
}

static Answer get_measurements(Web &web, const RoutedRequest &request)
{
    return answer_json(
        json_measurements(camera_measurements(web.camera, after(request), limit(request))));
}

static Answer get_measurements_csv(Web &web, const RoutedRequest &request)
{
    std::string table = "number,time_s,ring,blur_px,raw,value\r\n";
    for (const Measurement &m : camera_measurements(web.camera, after(request), limit(request))) {
        char line[160];
        const int length = snprintf(line, sizeof line, "%llu,%.4f,%.5f,%.3f,%u,%u\r\n",
                                    static_cast<unsigned long long>(m.number), m.time_s, m.ring,
                                    m.blur_px, m.raw, m.value);
        table.append(line, static_cast<size_t>(length));
    }
    Answer answer = answer_bytes("text/csv; charset=utf-8", std::move(table));
    offer_download(request, "simcam-values.csv", &answer);
    return answer;
}

static Answer get_calls(Web &web, const RoutedRequest &request)
{
    return answer_json(json_calls(camera_calls(web.camera, after(request), limit(request))));
}

static Answer get_output(Web &web, const RoutedRequest &request)
{
    uint64_t last = after(request);
    const int stream = request.values.integer("stream");
    std::string bytes;
    for (const OutputChunk &chunk : camera_output(web.camera, last, limit(request))) {
        last = chunk.number;
        if (stream == 0 || stream == chunk.stream)
            bytes += chunk.bytes;
    }
    Answer answer = answer_bytes("application/octet-stream", std::move(bytes));
    answer.headers.emplace_back("X-Last-Number", std::to_string(last));
    return answer;
}

// ---- pictures ----

// The picture of the request: a post, /api/all or /api/sensor.
static FrameRequest frame_request(const RoutedRequest &request)
{
    const Values &values = request.values;
    FrameRequest frame;
    if (values.has("post"))
        frame.view = values.integer("post");
    else
        frame.view = request.path.starts_with("/api/all/") ? VIEW_ALL : VIEW_SENSOR;
    if (values.has("planes"))
        frame.planes = values.flag("planes");
    frame.quality = values.has("quality") ? values.integer("quality") : QUALITY_PNG;
    frame.width = values.integer("width");
    return frame;
}

static Answer get_frame(Web &web, const RoutedRequest &request)
{
    const FrameRequest frame = frame_request(request);
    if (frame.view < POST_COUNT && !camera_post(web.camera, frame.view).running)
        return answer_error(409, "post " + std::to_string(frame.view) + " is off");
    const bool png = frame.quality == QUALITY_PNG;
    uint64_t number = 0;
    Answer answer;
    answer.type = png ? "image/png" : "image/jpeg";
    answer.body = frame_still(web.frames, frame, &number);
    if (!answer.body)
        return answer_error(503, "simcam is ending");
    answer.headers.emplace_back("X-Measurement", std::to_string(number));
    const std::string view = frame.view == VIEW_ALL      ? "all"
                             : frame.view == VIEW_SENSOR ? "sensor"
                                                         : "post" + std::to_string(frame.view);
    offer_download(request,
                   "simcam-" + view + "-" + std::to_string(number) + (png ? ".png" : ".jpg"),
                   &answer);
    return answer;
}

static Answer get_stream(Web &web, const RoutedRequest &request)
{
    return answer_stream(
        stream_pictures(web, frame_request(request), request.values.number.at("fps")));
}

// ---- planes and colors ----

static PlaneImage plane_of(Web &web, const RoutedRequest &request)
{
    return camera_plane(web.camera, request.values.integer("post"),
                        request.values.integer("plane"));
}

static Answer get_plane(Web &web, const RoutedRequest &request)
{
    const PlaneImage plane = plane_of(web, request);
    return answer_json(json_plane(plane.state, plane.bytes.size()));
}

static Answer get_plane_raw(Web &web, const RoutedRequest &request)
{
    const PlaneImage plane = plane_of(web, request);
    if (plane.bytes.empty())
        return answer_error(404, "nothing is shown on this plane");
    Answer answer = answer_bytes("application/octet-stream", as_bytes(plane.bytes));
    answer.headers = {{"X-Width", std::to_string(plane.state.width)},
                      {"X-Height", std::to_string(plane.state.height)},
                      {"X-Pitch", std::to_string(plane.state.pitch)},
                      {"X-Depth", std::to_string(depth_bits(plane.state.depth_code))},
                      {"X-Shows", std::to_string(plane.state.shows)}};
    return answer;
}

static Answer answer_plane(const RoutedRequest &request, std::shared_ptr<const std::string> png)
{
    if (!png)
        return answer_error(404, "nothing is shown on this plane");
    Answer answer;
    answer.type = "image/png";
    answer.body = std::move(png);
    offer_download(request,
                   "simcam-post" + std::to_string(request.values.integer("post")) + "-plane" +
                       std::to_string(request.values.integer("plane")) + ".png",
                   &answer);
    return answer;
}

static Answer get_plane_indices(Web &web, const RoutedRequest &request)
{
    return answer_plane(request, frame_plane_indices(web.frames, plane_of(web, request)));
}

static Answer get_plane_colors(Web &web, const RoutedRequest &request)
{
    return answer_plane(request, frame_plane_colors(web.frames, plane_of(web, request),
                                                    camera_palette(web.camera)));
}

static Answer get_palette(Web &web, const RoutedRequest &)
{
    return answer_json(json_palette(camera_palette(web.camera)));
}

static Answer get_palette_raw(Web &web, const RoutedRequest &)
{
    return answer_bytes("application/octet-stream", as_bytes(camera_palette(web.camera)));
}

// ---- posts, lens, scene ----

static Answer start_post(Web &web, const RoutedRequest &request)
{
    Size size;
    if (request.values.has("size_width"))
        size = {static_cast<uint32_t>(request.values.number.at("size_width")),
                static_cast<uint32_t>(request.values.number.at("size_height"))};
    return answer_outcome(
        camera_start_post(web.camera, request.values.integer("post"), size, true));
}

static Answer stop_post(Web &web, const RoutedRequest &request)
{
    return answer_outcome(camera_stop_post(web.camera, request.values.integer("post")));
}

static Answer set_ring(Web &web, const RoutedRequest &request)
{
    return answer_outcome(camera_set_ring(web.camera, request.values.number.at("ring")));
}

static Answer set_sweep(Web &web, const RoutedRequest &request)
{
    camera_set_sweep(web.camera, request.values.flag("on"), request.values.number.at("period_s"));
    return answer_json(json_done());
}

static Answer set_scene(Web &web, const RoutedRequest &request)
{
    return answer_outcome(camera_set_scene(web.camera, request.values.text.at("scene")));
}

static Answer set_gain(Web &web, const RoutedRequest &request)
{
    return answer_outcome(camera_set_gain(web.camera, request.values.number.at("gain")));
}

static Answer set_noise(Web &web, const RoutedRequest &request)
{
    return answer_outcome(camera_set_noise(web.camera, request.values.number.at("noise")));
}

static Answer flash(Web &web, const RoutedRequest &)
{
    camera_flash(web.camera);
    return answer_json(json_done());
}

// ---- faults and the process ----

static Answer get_faults(Web &web, const RoutedRequest &)
{
    return answer_json(json_faults(camera_state(web.camera).faults, camera_fault_calls()));
}

static Answer set_fault(Web &web, const RoutedRequest &request)
{
    Fault fault;
    fault.call = request.values.text.at("call");
    fault.error = static_cast<uint32_t>(request.values.number.at("error"));
    fault.remaining = static_cast<uint32_t>(request.values.number.at("remaining"));
    fault.delay_ms = static_cast<uint32_t>(request.values.number.at("delay_ms"));
    return answer_outcome(camera_set_fault(web.camera, fault));
}

static Answer clear_faults(Web &web, const RoutedRequest &)
{
    camera_clear_faults(web.camera);
    return answer_json(json_done());
}

static Answer get_process(Web &web, const RoutedRequest &)
{
    return answer_json(json_process(camera_state(web.camera)));
}

static Answer start_process(Web &web, const RoutedRequest &)
{
    return answer_outcome(camera_process_start(web.camera));
}

static Answer stop_process(Web &web, const RoutedRequest &)
{
    return answer_outcome(camera_process_stop(web.camera));
}

static Answer kill_process(Web &web, const RoutedRequest &)
{
    return answer_outcome(camera_process_kill(web.camera));
}

// ---- the table ----

static constexpr const char *JSON = "application/json";
static constexpr const char *PNG = "image/png";
static constexpr const char *JPEG = "image/jpeg";
static constexpr const char *MJPEG = "multipart/x-mixed-replace";
static constexpr const char *BYTES = "application/octet-stream";

// What routes that change something allow; several share a line of the warning.
static constexpr const char *POSTS = "start and stop posts, with any size";
static constexpr const char *LENS = "turn the lens, and let it sweep";
static constexpr const char *LIGHT = "change the gain and the noise, and flash";
static constexpr const char *FAULTS = "make calls of the program slow or fail";
static constexpr const char *PROCESS =
    "start, stop and kill the program, but not choose another one";

using Kind = ParameterKind;
using Parameters = std::vector<Parameter>;

static Parameters record_parameters(Parameters more = {})
{
    Parameters all = {
        {"after", Kind::INTEGER, 0, 9e15, "0", "only entries with a higher number"},
        {"limit", Kind::INTEGER, 1, RECORDS_KEPT, std::to_string(RECORDS_KEPT),
         "maximum number of entries, oldest first; the highest limit is what simcam keeps"}};
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

static Parameters frame_parameters(Parameters before, Parameters more)
{
    before.push_back(
        {"width", Kind::INTEGER, 0, 8192, "0", "maximum width in pixels; 0: original size"});
    before.insert(before.end(), more.begin(), more.end());
    return before;
}

static std::vector<Route> make_routes()
{
    const Parameter post = {"post", Kind::INTEGER, 0, POST_COUNT - 1, {}, "number of the post"};
    const Parameter plane = {"plane", Kind::INTEGER, 0, PLANE_COUNT - 1, {}, "number of the plane"};
    const Parameter download = {
        "download", Kind::FLAG, 0, 1, "0", "makes a browser save the answer as a file"};
    const Parameter planes = {"planes", Kind::FLAG, 0,
                              1,        "1",        "draws the OSD planes over the picture"};
    Parameter post_of_query = post; // of the short names
    post_of_query.fallback = "0";
    const Parameter quality = {"quality", Kind::INTEGER, 10, 100, "80", "JPEG quality"};
    const Parameters moving = {
        quality, {"fps", Kind::NUMBER, 0.1, 60, "30", "maximum number of pictures per second"}};
    const Parameter kinds = {"kinds",
                             Kind::CHOICES,
                             1,
                             100,
                             "state,measurement,output",
                             "which events, separated by commas",
                             {std::begin(EVENT_KINDS), std::end(EVENT_KINDS)}};
    const Parameter size = {"size",
                            Kind::SIZE,
                            POST_SIZE_RANGE.least,
                            POST_SIZE_RANGE.most,
                            "",
                            "WIDTHxHEIGHT; default: its last size"};
    const Parameter scene = {"scene",
                             Kind::TEXT,
                             1,
                             4096,
                             {},
                             "a built-in scene, or the path of a picture, a video or a /dev/video*",
                             camera_scenes()};
    const auto number = [](const char *name, const Range &range, const char *help) {
        return Parameter{name, Kind::NUMBER, range.least, range.most, {}, help};
    };
    Parameter period = number("period_s", SWEEP_RANGE_S, "seconds of one turn back and forth");
    period.fallback = number_text(SWEEP_DEFAULT_S);
    const Parameters fault = {
        {"call", Kind::TEXT, 1, 100, {}, "name of a call, as listed by GET"},
        {"error", Kind::CODE, 0, UINT32_MAX, "0",
         "code in errno; 0: the call succeeds but is slow"},
        {"remaining", Kind::CODE, 0, FAULT_FOREVER, "1",
         "number of calls, or \"forever\"; 0 disarms the fault"},
        {"delay_ms", Kind::INTEGER, 0, DELAY_MAX_MS, "0", "additional milliseconds per call"}};

    return {
        {{"GET", "/", "text/html", "the page and its parts", {}}, get_page},
        {{"GET", "/api", JSON, "this list", {}}, get_routes},
        {{"GET",
          "/api/constants",
          JSON,
          "constants of the overlay, limits, and the built-in scenes",
          {}},
         get_constants},
        {{"GET", "/api/state", JSON, "the current state of the whole camera", {}}, get_state},
        {{"GET",
          "/api/events",
          "text/event-stream",
          "events as they happen",
          {kinds,
           {"backlog", Kind::FLAG, 0, 1, "1", "begin with the events that simcam has kept"}}},
         get_events},
        {{"GET", "/api/measurements", JSON, "readings of the sharpness", record_parameters()},
         get_measurements},
        {{"GET", "/api/measurements.csv", "text/csv", "the same as CSV",
          record_parameters({download})},
         get_measurements_csv},
        {{"GET", "/api/calls", JSON, "calls of the overlay process on the library and the device",
          record_parameters()},
         get_calls},
        {{"GET", "/api/output", BYTES,
          "output of the process, byte for byte; X-Last-Number is the next value of after",
          record_parameters({{"stream", Kind::INTEGER, 0, 2, "0",
                              "1: standard output, 2: standard error, 0: both"}})},
         get_output},
        {{"GET", "/api/posts/{post}/frame.png", PNG, "the picture of a post",
          frame_parameters({post, planes}, {download})},
         get_frame},
        {{"GET", "/api/posts/{post}/frame.jpg", JPEG, "the same as a JPEG",
          frame_parameters({post, planes}, {quality, download})},
         get_frame},
        {{"GET", "/api/posts/{post}/stream.mjpeg", MJPEG, "the same as a video stream",
          frame_parameters({post, planes}, moving)},
         get_stream},
        {{"GET", "/api/all/frame.png", PNG, "all four posts in one picture",
          frame_parameters({planes}, {download})},
         get_frame},
        {{"GET", "/api/all/frame.jpg", JPEG, "the same as a JPEG",
          frame_parameters({planes}, {quality, download})},
         get_frame},
        {{"GET", "/api/all/stream.mjpeg", MJPEG, "the same as a video stream",
          frame_parameters({planes}, moving)},
         get_stream},
        {{"GET", "/api/sensor/frame.png", PNG, "the picture of the sensor",
          frame_parameters({}, {download})},
         get_frame},
        {{"GET", "/api/sensor/frame.jpg", JPEG, "the same as a JPEG",
          frame_parameters({}, {quality, download})},
         get_frame},
        {{"GET", "/api/sensor/stream.mjpeg", MJPEG, "the same as a video stream",
          frame_parameters({}, moving)},
         get_stream},
        {{"GET", "/stream", MJPEG, "short name of a post's video stream",
          frame_parameters({post_of_query, planes}, moving)},
         get_stream},
        {{"GET", "/snapshot", JPEG, "short name of a post's JPEG",
          frame_parameters({post_of_query, planes}, {quality, download})},
         get_frame},
        {{"GET", "/state", JSON, "short name of /api/state", {}}, get_state},
        {{"POST",
          "/api/posts/{post}/start",
          JSON,
          "starts a post; a running post of another size is stopped first",
          {post, size},
          POSTS},
         start_post},
        {{"POST", "/api/posts/{post}/stop", JSON, "stops a post", {post}, POSTS}, stop_post},
        {{"GET", "/api/posts/{post}/planes/{plane}", JSON, "state of a plane", {post, plane}},
         get_plane},
        {{"GET",
          "/api/posts/{post}/planes/{plane}/raw",
          BYTES,
          "memory of a plane as shown, pitch bytes per line; 404 while nothing is shown",
          {post, plane}},
         get_plane_raw},
        {{"GET",
          "/api/posts/{post}/planes/{plane}/indices.png",
          PNG,
          "palette indices of a plane as gray values",
          {post, plane, download}},
         get_plane_indices},
        {{"GET",
          "/api/posts/{post}/planes/{plane}/colors.png",
          PNG,
          "a plane in its colors, with transparency",
          {post, plane, download}},
         get_plane_colors},
        {{"GET", "/api/palette", JSON, "the color table last applied", {}}, get_palette},
        {{"GET",
          "/api/palette/raw",
          BYTES,
          "the same, 4 bytes per entry: Y, Cb, Cr, opacity in eighths",
          {}},
         get_palette_raw},
        {{"POST",
          "/api/ring",
          JSON,
          "turns the lens ring; ends a sweep",
          {number("ring", RING_RANGE, "0 near stop, 1 far stop")},
          LENS},
         set_ring},
        {{"POST",
          "/api/sweep",
          JSON,
          "turns the ring through focus and back until stopped",
          {{"on", Kind::FLAG, 0, 1, {}, "starts or stops it"}, period},
          LENS},
         set_sweep},
        {{"POST",
          "/api/scene",
          JSON,
          "changes the scene",
          {scene},
          "change the scene to any picture, video or device file that you can read"},
         set_scene},
        {{"POST",
          "/api/gain",
          JSON,
          "changes the exposure",
          {number("gain", GAIN_RANGE, "factor of the brightness")},
          LIGHT},
         set_gain},
        {{"POST",
          "/api/noise",
          JSON,
          "changes the noise of the sensor",
          {number("noise", NOISE_RANGE, "standard deviation in levels of 255; 0: no noise")},
          LIGHT},
         set_noise},
        {{"POST", "/api/flash", JSON, "one bright picture", {}, LIGHT}, flash},
        {{"GET", "/api/faults", JSON, "armed faults, and the calls that can have one", {}},
         get_faults},
        {{"POST", "/api/faults", JSON, "makes a call fail or slow; replaces the fault of that call",
          fault, FAULTS},
         set_fault},
        {{"DELETE", "/api/faults", JSON, "disarms every fault", {}, FAULTS}, clear_faults},
        {{"GET", "/api/process", JSON, "state of the overlay process", {}}, get_process},
        {{"POST", "/api/process/start", JSON, "starts the process", {}, PROCESS}, start_process},
        {{"POST", "/api/process/stop", JSON, "sends SIGTERM to it", {}, PROCESS}, stop_process},
        {{"POST", "/api/process/kill", JSON, "sends SIGKILL to it", {}, PROCESS}, kill_process},
    };
}

std::span<const Route> http_routes()
{
    static const std::vector<Route> routes = make_routes();
    return routes;
}

} // namespace simcam
