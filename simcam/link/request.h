// Requests of clients: decoding them, and their names and arguments as text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "wire.h"

namespace simcam
{

struct Request {
    WireHeader header{};
    uint8_t payload[sizeof(WireFocusConfig)]{}; // wire_request_size(header.call) bytes are used
};

// Decodes one packet. Returns false for a wrong length, version or call.
bool request_decode(const void *packet, size_t size, Request *request);

// The call's name: a library function's, or "open", "CAM_FOCUS_CONFIG", "CAM_FOCUS_READ".
const char *request_name(uint32_t call);
// The WireCall of a name; 0 for an unknown name.
uint32_t request_call(const std::string &name);
// The names of all calls, in the order of WireCall.
std::vector<std::string> request_names();
// The arguments as text: "postResId=0x51000001, OSD num=0".
std::string request_arguments(const Request &request);

// The payload as the record of its call.
template <typename Record> Record request_record(const Request &request)
{
    static_assert(sizeof(Record) <= sizeof request.payload);
    Record record;
    __builtin_memcpy(&record, request.payload, sizeof record);
    return record;
}

} // namespace simcam
