// JSON in and out of the web interface; the only source that includes the JSON library.
#include "web/json.h"

#include <cstdio>
#include <set>

#include <nlohmann/json.hpp>

namespace simcam
{

using nlohmann::json;

static std::string text_of(const json &value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

bool json_read_object(const std::string &text, std::vector<JsonField> *fields, std::string *error)
{
    fields->clear();
    std::set<std::string> names;
    const auto refuse_twice = [&](int depth, json::parse_event_t event, const json &value) {
        if (depth == 1 && event == json::parse_event_t::key && !names.insert(value).second)
            *error = value.get<std::string>() + " is given twice";
        return true;
    };
    error->clear();
    const json object = json::parse(text, refuse_twice, false);
    if (!error->empty())
        return false;
    if (!object.is_object()) {
        *error = object.is_discarded() ? "the body is not JSON" : "the body must be a JSON object";
        return false;
    }
    for (const auto &[name, value] : object.items()) {
        JsonField field;
        field.name = name;
        if (value.is_number()) {
            field.kind = JsonField::NUMBER;
            field.number = value.get<double>();
        } else if (value.is_string()) {
            field.kind = JsonField::TEXT;
            field.text = value.get<std::string>();
        } else if (value.is_boolean()) {
            field.kind = JsonField::FLAG;
            field.number = value.get<bool>() ? 1 : 0;
        }
        fields->push_back(std::move(field));
    }
    return true;
}

std::string json_error(int status, const std::string &message)
{
    return text_of({{"status", status}, {"error", message}});
}

std::string json_done()
{
    return "{\"ok\":true}";
}

std::string json_constants(int threshold_percent, const std::vector<std::string> &scenes)
{
    json codes = json::array();
    codes.push_back({{"code", "0x81E03246"}, {"tolerated", false}});
    for (const char *code : {"0x81E03204", "0x81E04507", "0x81003209", "0x81E0250C"})
        codes.push_back({{"code", code}, {"tolerated", true}});
    return text_of(
        {{"threshold_percent", threshold_percent},
         {"codes", std::move(codes)},
         {"sizes", {{1920, 1080}, {1280, 720}, {720, 576}, {720, 480}, {352, 288}, {352, 240}}},
         {"planes", {"bar", "text", nullptr, nullptr}}, // what the overlay draws on each
         {"gain", {{"least", GAIN_RANGE.least}, {"most", GAIN_RANGE.most}}},
         {"noise",
          {{"least", NOISE_RANGE.least}, {"most", NOISE_RANGE.most}, {"default", NOISE_DEFAULT}}},
         {"records_kept", RECORDS_KEPT},
         {"scenes", scenes}});
}

std::string json_hello(const std::string &session)
{
    return text_of({{"session", session}});
}

// ---- routes ----

std::string json_routes(const std::vector<const RouteText *> &routes)
{
    json list = json::array();
    for (const RouteText *route : routes) {
        json parameters = json::array();
        for (const Parameter &parameter : route->parameters) {
            json item = {
                {"name", parameter.name},          {"kind", parameter_kind_name(parameter.kind)},
                {"least", parameter.least},        {"most", parameter.most},
                {"required", !parameter.fallback}, {"help", parameter.help}};
            if (parameter.fallback && !parameter.fallback->empty())
                item["default"] = *parameter.fallback;
            if (!parameter.choices.empty())
                item["choices"] = parameter.choices;
            parameters.push_back(std::move(item));
        }
        json row = {{"method", route->method},
                    {"path", route->path},
                    {"answer", route->answer},
                    {"help", route->help},
                    {"parameters", std::move(parameters)}};
        if (route->allows)
            row["allows"] = route->allows;
        list.push_back(std::move(row));
    }
    return text_of({{"api_version", API_VERSION}, {"routes", std::move(list)}});
}

// ---- records ----

static std::string code_text(uint32_t code)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08X", code);
    return text;
}

static json overlay_of(const OverlayFocus &o)
{
    return {{"running", o.running},
            {"current", o.current},
            {"peak", o.peak},
            {"percent", overlay_focus_percent(o)}};
}

static json measurement_of(const Measurement &m)
{
    return {{"number", m.number},
            {"time_s", m.time_s},
            {"raw", m.raw},
            {"value", m.value},
            {"ring", m.ring},
            {"blur_px", m.blur_px},
            {"overlay", overlay_of(m.overlay)}};
}

static json call_of(const CallRecord &c)
{
    return {{"number", c.number},
            {"time_s", c.time_s},
            {"pid", c.pid},
            {"call", c.call},
            {"arguments", c.arguments},
            {"result", c.result},
            {"error", code_text(c.error)}};
}

static json plane_of(const PlaneState &p)
{
    return {{"open", p.open},
            {"shown", p.shown},
            {"width", p.width},
            {"height", p.height},
            {"depth_code", p.depth_code},
            {"depth", p.open ? depth_bits(p.depth_code) : 0},
            {"pitch", p.pitch},
            {"x", p.x},
            {"y", p.y},
            {"osd_id", p.osd_id}};
}

static json post_of(const PostState &p, bool with_time)
{
    json planes = json::array();
    for (const PlaneState &plane : p.plane) {
        planes.push_back(plane_of(plane));
        if (with_time)
            planes.back()["shows"] = plane.shows;
    }
    return {{"running", p.running}, {"width", p.width},   {"height", p.height},
            {"res_id", p.res_id},   {"starts", p.starts}, {"planes", std::move(planes)}};
}

static json process_of(const CameraState &s, bool with_time)
{
    const ProcessState &p = s.process;
    json process = {{"configured", p.configured}, {"running", p.running},
                    {"attached", s.attached},     {"pid", p.pid},
                    {"starts", p.starts},         {"last_end", p.last_end}};
    if (with_time) {
        process["cpu_percent"] = p.cpu_percent;
        process["resident_bytes"] = p.resident_bytes;
    }
    return process;
}

static json fault_of(const Fault &f)
{
    json fault = {{"call", f.call},
                  {"error", code_text(f.error)},
                  {"remaining", f.remaining},
                  {"delay_ms", f.delay_ms},
                  {"hits", f.hits}};
    if (f.remaining == FAULT_FOREVER)
        fault["remaining"] = "forever";
    return fault;
}

template <typename Record, typename Of>
static json list_of(const std::vector<Record> &records, Of of)
{
    json list = json::array();
    for (const Record &record : records)
        list.push_back(of(record));
    return list;
}

std::string json_state(const CameraState &s, bool with_time)
{
    json posts = json::array();
    for (const PostState &post : s.post)
        posts.push_back(post_of(post, with_time));
    json state = {{"api_version", API_VERSION},
                  {"sweep", s.sweep},
                  {"sweep_period_s", s.sweep_period_s},
                  {"scene", s.scene},
                  {"gain", s.gain},
                  {"noise", s.noise},
                  {"rate_hz", s.rate_hz},
                  {"pitch_align", s.pitch_align},
                  {"seed", s.seed},
                  {"focus_configured", s.focus_configured},
                  {"posts", std::move(posts)},
                  {"process", process_of(s, with_time)},
                  {"faults", list_of(s.faults, fault_of)},
                  {"run_directory", s.run_directory},
                  {"merged_reports", s.merged_reports}};
    if (with_time) {
        state["time_s"] = s.time_s;
        state["ring"] = s.ring;
        state["measured_rate_hz"] = s.measured_rate_hz;
        state["latest"] = measurement_of(s.latest);
        state["overlay"] = overlay_of(s.overlay);
    }
    return text_of(state);
}

std::string json_measurement(const Measurement &measurement)
{
    return text_of(measurement_of(measurement));
}

std::string json_measurements(const std::vector<Measurement> &measurements)
{
    return text_of({{"measurements", list_of(measurements, measurement_of)}});
}

std::string json_call(const CallRecord &call)
{
    return text_of(call_of(call));
}

std::string json_calls(const std::vector<CallRecord> &calls)
{
    return text_of({{"calls", list_of(calls, call_of)}});
}

std::string json_output(const OutputChunk &chunk)
{
    return text_of({{"number", chunk.number},
                    {"time_s", chunk.time_s},
                    {"stream", chunk.stream},
                    {"text", chunk.bytes}});
}

std::string json_faults(const std::vector<Fault> &faults, const std::vector<std::string> &calls)
{
    return text_of({{"faults", list_of(faults, fault_of)}, {"calls", calls}});
}

std::string json_plane(const PlaneState &plane, size_t size)
{
    json value = plane_of(plane);
    value["shows"] = plane.shows;
    value["size"] = size;
    return text_of(value);
}

std::string json_palette(const std::vector<uint8_t> &palette)
{
    json entries = json::array();
    for (size_t i = 0; i + 4 <= palette.size(); i += 4)
        entries.push_back({palette[i], palette[i + 1], palette[i + 2], palette[i + 3]});
    return text_of({{"format", "full-range BT.601 Y, Cb, Cr, opacity in eighths"},
                    {"entries", std::move(entries)}});
}

std::string json_process(const CameraState &state)
{
    return text_of(process_of(state, true));
}

} // namespace simcam
