// JSON in and out of the web interface.
#pragma once

#include <string>
#include <vector>

#include "camera/camera.h"
#include "web/parameters.h"

namespace simcam
{

// Of the web interface: in /api, in the state, and in the header X-Api-Version of answers. Raised
// when a route, a parameter or a member goes or changes its meaning; additions keep it.
constexpr int API_VERSION = 1;

// Reads an object into its members. Returns false with *error set for anything else.
bool json_read_object(const std::string &text, std::vector<JsonField> *fields, std::string *error);

std::string json_error(int status, const std::string &message);
std::string json_done();
// Constants of the overlay and limits of the camera that the page needs, and the built-in scenes.
std::string json_constants(int threshold_percent, const std::vector<std::string> &scenes);
std::string json_routes(const std::vector<const RouteText *> &routes);
// with_time includes the numbers that change with every measurement.
std::string json_state(const CameraState &state, bool with_time);
std::string json_measurement(const Measurement &measurement);
std::string json_measurements(const std::vector<Measurement> &measurements);
std::string json_call(const CallRecord &call);
std::string json_calls(const std::vector<CallRecord> &calls);
// Bytes that are not UTF-8 become replacement characters; the raw route sends them unchanged.
std::string json_output(const OutputChunk &chunk);
std::string json_hello(const std::string &session);
std::string json_faults(const std::vector<Fault> &faults, const std::vector<std::string> &calls);
std::string json_plane(const PlaneState &plane, size_t size);
std::string json_palette(const std::vector<uint8_t> &palette);
std::string json_process(const CameraState &state);

} // namespace simcam
