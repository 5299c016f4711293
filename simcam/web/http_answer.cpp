// Answers of the web interface: what each route says and does.
#include "web/http_server.h"

#include <algorithm>
#include <cstdio>

#include "focus_threshold.h"
#include "picture/scene.h"
#include "web/http_json.h"
#include "web/http_page.h"

namespace simcam
{

// ---- answers ----

static HttpReply reply_json(std::string body)
{
    HttpReply reply;
    reply.body = std::move(body);
    return reply;
}

HttpReply reply_error(unsigned status, const std::string &message)
{
    HttpReply reply = reply_json(json_error(static_cast<int>(status), message));
    reply.status = status;
    return reply;
}

// What a function that may refuse said.
static HttpReply reply_outcome(const std::string &refusal)
{
    return refusal.empty() ? reply_json(json_done()) : reply_error(409, refusal);
}

static HttpReply reply_bytes(std::string type, std::string bytes)
{
    HttpReply reply;
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

static void offer_download(const RoutedRequest &request, const std::string &name, HttpReply *reply)
{
    if (number_of(request, "download"))
        reply->headers.emplace_back("Content-Disposition", "attachment; filename=\"" + name + "\"");
}

static HttpReply reply_png(const cv::Mat &picture)
{
    return reply_bytes("image/png", picture_png(picture));
}

// ---- single routes ----

PictureRequest reply_picture_request(const RoutedRequest &request)
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

static HttpReply get_frame(Camera &camera, const RoutedRequest &request)
{
    const PictureRequest picture = reply_picture_request(request);
    if (picture.view < POST_COUNT && !camera_post(camera, picture.view).running)
        return reply_error(409, "post " + std::to_string(picture.view) + " is off");
    HttpReply reply = reply_png(picture_view(camera, picture));
    const std::string view = picture.view == VIEW_ALL      ? "all"
                             : picture.view == VIEW_SENSOR ? "sensor"
                                                           : "post" + std::to_string(picture.view);
    offer_download(request,
                   "simcam-" + view + "-" + std::to_string(camera_latest(camera).number) + ".png",
                   &reply);
    return reply;
}

static HttpReply get_csv(Camera &camera, const RoutedRequest &request)
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
    HttpReply reply = reply_bytes("text/csv; charset=utf-8", std::move(table));
    offer_download(request, "simcam-values.csv", &reply);
    return reply;
}

static HttpReply get_output(Camera &camera, const RoutedRequest &request)
{
    uint64_t last = static_cast<uint64_t>(request.number.at("after"));
    const int stream = number_of(request, "stream");
    HttpReply reply = reply_bytes("application/octet-stream", "");
    for (const OutputChunk &chunk :
         camera_output(camera, last, static_cast<size_t>(request.number.at("limit")))) {
        last = chunk.number;
        if (stream == 0 || stream == chunk.stream)
            reply.body += chunk.bytes;
    }
    reply.headers.emplace_back("X-Last-Number", std::to_string(last));
    return reply;
}

static HttpReply get_plane(Camera &camera, const RoutedRequest &request)
{
    const PlaneImage plane =
        camera_plane(camera, number_of(request, "post"), number_of(request, "plane"));
    if (request.route->id == RouteId::PLANE)
        return reply_json(json_plane(plane.state, plane.bytes.size()));
    if (plane.bytes.empty())
        return reply_error(404, "nothing is shown on this plane");
    if (request.route->id == RouteId::PLANE_RAW) {
        HttpReply reply = reply_bytes("application/octet-stream", as_bytes(plane.bytes));
        reply.headers = {{"X-Width", std::to_string(plane.state.width)},
                         {"X-Height", std::to_string(plane.state.height)},
                         {"X-Pitch", std::to_string(plane.state.pitch)},
                         {"X-Depth", std::to_string(2u << std::min(plane.state.depth_code, 2u))},
                         {"X-Shows", std::to_string(plane.state.shows)}};
        return reply;
    }
    const bool indices = request.route->id == RouteId::PLANE_INDICES;
    const cv::Mat picture = indices ? picture_plane_indices(plane)
                                    : picture_plane_colors(plane, camera_palette(camera));
    if (picture.empty())
        return reply_error(404, "this plane has no pixels");
    HttpReply reply = reply_png(picture);
    offer_download(request,
                   "simcam-post" + std::to_string(number_of(request, "post")) + "-plane" +
                       std::to_string(number_of(request, "plane")) + ".png",
                   &reply);
    return reply;
}

static HttpReply start_post(Camera &camera, const RoutedRequest &request)
{
    Size size;
    if (request.number.count("size_width"))
        size = {static_cast<uint32_t>(request.number.at("size_width")),
                static_cast<uint32_t>(request.number.at("size_height"))};
    return reply_outcome(camera_start_post(camera, number_of(request, "post"), size, true));
}

static HttpReply set_fault(Camera &camera, const RoutedRequest &request)
{
    Fault fault;
    fault.call = request.text.at("call");
    fault.error = static_cast<uint32_t>(request.number.at("error"));
    fault.remaining = static_cast<uint32_t>(request.number.at("remaining"));
    fault.delay_ms = static_cast<uint32_t>(request.number.at("delay_ms"));
    return reply_outcome(camera_set_fault(camera, fault));
}

static HttpReply get_page(const RoutedRequest &request)
{
    const PageFile *file = page_find(request.path);
    if (!file)
        return reply_error(404, "there is nothing at " + request.path + "; see /api");
    return reply_bytes(std::string(file->type), std::string(file->content));
}

HttpReply reply_answer(HttpServer &server, const RoutedRequest &request)
{
    Camera &camera = server.camera;
    switch (request.route->id) {
    case RouteId::PAGE:
        return get_page(request);
    case RouteId::API:
        return reply_json(json_routes());
    case RouteId::CONSTANTS:
        return reply_json(json_constants(FOCUS_THRESHOLD_PERCENT, scene_names()));
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
    case RouteId::PLANE_COLORS:
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
        return reply_json(json_process(camera_state(camera)));
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

} // namespace simcam
