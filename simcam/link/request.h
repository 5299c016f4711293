// What arrives from a client, before anything is done about it.
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

// Takes one packet apart. False where it is no request: its length, version or call is none of
// ours.
bool request_decode(const void *packet, size_t size, Request *request);

// The call's name: a library function's, or "open", "CAM_FOCUS_CONFIG", "CAM_FOCUS_READ".
const char *request_name(uint32_t call);
// The WireCall of a name; 0 where there is none.
uint32_t request_call(const std::string &name);
// The names of all calls, in the order of WireCall.
std::vector<std::string> request_names();
// The arguments as a person reads them: "postResId=0x51000001, OSD num=0".
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
