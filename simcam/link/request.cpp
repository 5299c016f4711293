// Decoding, names and arguments of requests.

#include "link/request.h"

#include <cstdio>
#include <cstring>

namespace simcam
{

static const char *const NAMES[] = {
    "",
    "qm7_cl_library_init",
    "qm7_cl_library_exit",
    "qm7_cl_sys_open_device",
    "qm7_cl_sys_close_device",
    "qm7_cl_post_notify_callback",
    "qm7_cl_post_set_notify",
    "qm7_cl_post_get_osd_color_mem",
    "qm7_cl_post_set_osd_color",
    "qm7_cl_post_thread_get_status",
    "qm7_cl_post_open_osd",
    "qm7_cl_post_clear_osd",
    "qm7_cl_post_close_osd",
    "qm7_cl_post_get_osd_mem",
    "qm7_cl_post_set_osd",
    "open",
    "CAM_FOCUS_CONFIG",
    "CAM_FOCUS_READ",
};
static_assert(sizeof NAMES / sizeof NAMES[0] == WIRE_CALL_END);

bool request_decode(const void *packet, size_t size, Request *request)
{
    if (size < sizeof(WireHeader))
        return false;
    std::memcpy(&request->header, packet, sizeof(WireHeader));
    const WireHeader &header = request->header;
    if (header.version != WIRE_VERSION || header.call == 0 || header.call >= WIRE_CALL_END)
        return false;
    const size_t payload = wire_request_size(header.call);
    if (size != sizeof(WireHeader) + payload)
        return false;
    std::memcpy(request->payload, static_cast<const uint8_t *>(packet) + sizeof(WireHeader),
                payload);
    return true;
}

const char *request_name(uint32_t call)
{
    return call < WIRE_CALL_END ? NAMES[call] : "";
}

uint32_t request_call(const std::string &name)
{
    for (uint32_t call = 1; call < WIRE_CALL_END; call++)
        if (name == NAMES[call])
            return call;
    return 0;
}

std::vector<std::string> request_names()
{
    return {NAMES + 1, NAMES + WIRE_CALL_END};
}

std::string request_arguments(const Request &request)
{
    char text[160] = "";
    switch (static_cast<WireCall>(request.header.call)) {
    case WIRE_POST_NOTIFY_CALLBACK:
        std::snprintf(text, sizeof text, "callback=%s",
                      request_record<WireWord>(request).word ? "given" : "null");
        break;
    case WIRE_POST_SET_NOTIFY:
        std::snprintf(text, sizeof text, "mask=0x%08X", request_record<WireWord>(request).word);
        break;
    case WIRE_POST_THREAD_GET_STATUS:
        std::snprintf(text, sizeof text, "postResId=0x%08X",
                      request_record<WireWord>(request).word);
        break;
    case WIRE_POST_OPEN_OSD: {
        const auto record = request_record<WireOpenOsd>(request);
        std::snprintf(text, sizeof text, "postResId=0x%08X, OSD num=%d, %ux%u, depth code=%u",
                      record.post_res_id, static_cast<int32_t>(record.number), record.width,
                      record.height, record.depth_code);
        break;
    }
    case WIRE_POST_CLEAR_OSD:
    case WIRE_POST_CLOSE_OSD:
    case WIRE_POST_GET_OSD_MEM: {
        const auto record = request_record<WirePlane>(request);
        std::snprintf(text, sizeof text, "postResId=0x%08X, OSD num=%d", record.post_res_id,
                      static_cast<int32_t>(record.number));
        break;
    }
    case WIRE_POST_SET_OSD: {
        const auto record = request_record<WireSetOsd>(request);
        std::snprintf(text, sizeof text, "postResId=0x%08X, osdId=0x%08X, x=%u, y=%u",
                      record.post_res_id, record.osd_id, record.x, record.y);
        break;
    }
    case WIRE_FOCUS_CONFIG: {
        uint32_t words[2];
        std::memcpy(words, request.payload, sizeof words);
        std::snprintf(text, sizeof text, "word 0=0x%08X, word 1=0x%08X", words[0], words[1]);
        break;
    }
    case WIRE_LIBRARY_INIT:
    case WIRE_LIBRARY_EXIT:
    case WIRE_SYS_OPEN_DEVICE:
    case WIRE_SYS_CLOSE_DEVICE:
    case WIRE_POST_GET_OSD_COLOR_MEM:
    case WIRE_POST_SET_OSD_COLOR:
    case WIRE_DEVICE_OPEN:
    case WIRE_FOCUS_READ:
    case WIRE_CALL_END:
        break;
    }
    return text;
}

} // namespace simcam
