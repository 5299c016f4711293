// JSON in and out of the web interface.
#pragma once

#include <string>
#include <vector>

#include "camera/camera.h"
#include "web/http_route.h"

namespace simcam
{

// A member of a flat JSON object.
struct JsonField {
    enum Kind { NUMBER, TEXT, FLAG, OTHER } kind = OTHER;
    std::string name;
    double number = 0; // also of a flag
    std::string text;
};

// Reads an object into its members. Returns false with *error filled for anything else.
bool json_read_object(const std::string &text, std::vector<JsonField> *fields, std::string *error);

std::string json_error(int status, const std::string &message);
std::string json_done();
// Constants of the overlay that the page needs, and the built-in scenes.
std::string json_constants(int threshold_percent, const std::vector<std::string> &scenes);
std::string json_routes();
// With time, the numbers that change with every measurement are in it; without, only what somebody
// changed.
std::string json_state(const CameraState &state, bool with_time);
std::string json_measurement(const Measurement &measurement);
std::string json_measurements(const std::vector<Measurement> &measurements);
std::string json_call(const CallRecord &call);
std::string json_calls(const std::vector<CallRecord> &calls);
// Bytes that are no UTF-8 come as replacement characters; the raw route has them as they were.
std::string json_output(const OutputChunk &chunk);
std::string json_hello(const std::string &session);
std::string json_faults(const std::vector<Fault> &faults, const std::vector<std::string> &calls);
std::string json_plane(const PlaneState &plane, size_t size);
std::string json_palette(const std::vector<uint8_t> &palette);
std::string json_process(const CameraState &state);

} // namespace simcam
