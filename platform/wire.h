// The records between simcam and its clients, the codec library of a process or an open device.
//
// A client connects to the sequenced-packet Unix socket named "socket" in the run directory. A
// packet is one record: a request is a WireHeader and the record of the call; an answer is a
// WireReply and, if the call succeeded, the record of its result. A client has one request under
// way at a time. All words are little-endian and of fixed width, without pointers or padding, so
// that 32-bit clients work with a 64-bit simcam.
#pragma once

#include <stddef.h>
#include <stdint.h>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the records are little-endian");

constexpr uint32_t WIRE_VERSION = 0x514D3701;

// Longest delay that a fault can add to a call. A client waits twice as long for its answer.
constexpr uint32_t WIRE_DELAY_MAX_MS = 10000;

// The environment variable that names the run directory of the camera to use.
#define SIMCAM_RUN_DIR_VARIABLE "SIMCAM_RUN_DIR"
// The socket's name in that directory.
#define SIMCAM_SOCKET_NAME "socket"

enum WireCall : uint32_t {
    WIRE_LIBRARY_INIT = 1, // the answer brings a socket that WireNotify records arrive on
    WIRE_LIBRARY_EXIT,
    WIRE_SYS_OPEN_DEVICE,
    WIRE_SYS_CLOSE_DEVICE,
    WIRE_POST_NOTIFY_CALLBACK, // word: 1 where a callback is given, 0 for a null pointer
    WIRE_POST_SET_NOTIFY,      // word: mask
    WIRE_POST_GET_OSD_COLOR_MEM,
    WIRE_POST_SET_OSD_COLOR,
    WIRE_POST_THREAD_GET_STATUS, // word: postResId
    WIRE_POST_OPEN_OSD,
    WIRE_POST_CLEAR_OSD,
    WIRE_POST_CLOSE_OSD,
    WIRE_POST_GET_OSD_MEM,
    WIRE_POST_SET_OSD,
    WIRE_DEVICE_OPEN,
    WIRE_FOCUS_CONFIG,
    WIRE_FOCUS_READ,
    WIRE_CALL_END,
};

struct WireHeader {
    uint32_t version; // WIRE_VERSION
    uint32_t call;    // a WireCall
    uint32_t number;  // chosen by the client, repeated in the answer
};
static_assert(sizeof(WireHeader) == 12, "wire record");

struct WireWord {
    uint32_t word;
};
static_assert(sizeof(WireWord) == 4, "wire record");

// The depth codes 0, 1 and 2 stand for 2, 4 and 8 bits per pixel.
constexpr uint32_t DEPTH_CODE_MAX = 2;
constexpr uint32_t depth_bits(uint32_t depth_code)
{
    return 2U << depth_code;
}

struct WireOpenOsd {
    uint32_t post_res_id;
    uint32_t number;
    uint16_t width;  // pixels
    uint16_t height; // lines
    uint32_t depth_code;
};
static_assert(sizeof(WireOpenOsd) == 16, "wire record");

// One plane of a post: to clear it, to close it, to fetch its memory.
struct WirePlane {
    uint32_t post_res_id;
    uint32_t number;
};
static_assert(sizeof(WirePlane) == 8, "wire record");

struct WireSetOsd {
    uint32_t post_res_id;
    uint32_t osd_id;
    uint16_t x; // pixels from the left of the post
    uint16_t y; // lines from its top
};
static_assert(sizeof(WireSetOsd) == 12, "wire record");

constexpr uint32_t WIRE_FOCUS_CONFIG_SIZE = 92;
struct WireFocusConfig {
    uint8_t bytes[WIRE_FOCUS_CONFIG_SIZE];
};
static_assert(sizeof(WireFocusConfig) == 92, "device record");

// ---- answers

struct WireReply {
    uint32_t version;
    uint32_t call;
    uint32_t number;
    int32_t result; // 0, or -1
    uint32_t error; // the errno code where result is not 0
};
static_assert(sizeof(WireReply) == 20, "wire record");

// A piece of shared memory; its descriptor comes with the packet. The client gets the size bytes at
// offset; they end where the mapping ends, so that the next page can be left unmapped.
struct WireMemory {
    uint32_t map_size; // bytes to map, a multiple of WIRE_PAGE
    uint32_t offset;   // of the first byte
    uint32_t size;     // bytes; offset + size == map_size
};
static_assert(sizeof(WireMemory) == 12, "wire record");
constexpr uint32_t WIRE_PAGE = 4096;

struct WirePostStatus {
    uint8_t bytes[48]; // width: 16 bits at 2, height: 16 bits at 4
};
static_assert(sizeof(WirePostStatus) == 48, "library record");

struct WireOpenedOsd {
    uint32_t extra; // bytes of a buffer
    uint32_t pitch; // bytes a line
};
static_assert(sizeof(WireOpenedOsd) == 8, "wire record");

struct WireOsdMem {
    uint32_t osd_id;
    uint32_t post;   // 0..3
    uint32_t number; // 0..3
    uint32_t epoch;  // which opening of the plane: memory of earlier ones is gone
    uint32_t buffer; // 0..WIRE_BUFFERS - 1
    WireMemory memory;
};
static_assert(sizeof(WireOsdMem) == 32, "wire record");

constexpr uint32_t WIRE_POSTS = 4;
constexpr uint32_t WIRE_PLANES = 4;
constexpr uint32_t WIRE_BUFFERS = 8;

struct WireFocusStats {
    uint8_t bytes[244]; // raw focus value: 32 bits at 64
};
static_assert(sizeof(WireFocusStats) == 244, "device record");

// A report on the library's second socket: a post started or stopped.
struct WireNotify {
    uint32_t mask_bit; // of the notify mask
    uint32_t post_res_id;
    uint32_t post; // 0..3
    uint32_t running;
};
static_assert(sizeof(WireNotify) == 16, "library record");

constexpr uint32_t WIRE_REQUEST_MAX = sizeof(WireHeader) + sizeof(WireFocusConfig);
constexpr uint32_t WIRE_REPLY_MAX = sizeof(WireReply) + sizeof(WireFocusStats);

// Bytes that follow the header of a request.
constexpr uint32_t wire_request_size(uint32_t call)
{
    switch ((WireCall)call) { // without default: the compiler names a missing call
    case WIRE_POST_NOTIFY_CALLBACK:
    case WIRE_POST_SET_NOTIFY:
    case WIRE_POST_THREAD_GET_STATUS:
        return sizeof(WireWord);
    case WIRE_POST_OPEN_OSD:
        return sizeof(WireOpenOsd);
    case WIRE_POST_CLEAR_OSD:
    case WIRE_POST_CLOSE_OSD:
    case WIRE_POST_GET_OSD_MEM:
        return sizeof(WirePlane);
    case WIRE_POST_SET_OSD:
        return sizeof(WireSetOsd);
    case WIRE_FOCUS_CONFIG:
        return sizeof(WireFocusConfig);
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
    return 0;
}

// Bytes that follow the head of an answer with result 0.
constexpr uint32_t wire_reply_size(uint32_t call)
{
    switch ((WireCall)call) {
    case WIRE_POST_GET_OSD_COLOR_MEM:
        return sizeof(WireMemory);
    case WIRE_POST_THREAD_GET_STATUS:
        return sizeof(WirePostStatus);
    case WIRE_POST_OPEN_OSD:
        return sizeof(WireOpenedOsd);
    case WIRE_POST_GET_OSD_MEM:
        return sizeof(WireOsdMem);
    case WIRE_FOCUS_READ:
        return sizeof(WireFocusStats);
    case WIRE_LIBRARY_INIT:
    case WIRE_LIBRARY_EXIT:
    case WIRE_SYS_OPEN_DEVICE:
    case WIRE_SYS_CLOSE_DEVICE:
    case WIRE_POST_NOTIFY_CALLBACK:
    case WIRE_POST_SET_NOTIFY:
    case WIRE_POST_SET_OSD_COLOR:
    case WIRE_POST_CLEAR_OSD:
    case WIRE_POST_CLOSE_OSD:
    case WIRE_POST_SET_OSD:
    case WIRE_DEVICE_OPEN:
    case WIRE_FOCUS_CONFIG:
    case WIRE_CALL_END:
        break;
    }
    return 0;
}

// ---- error codes of the library; the top byte of each is 0x81

constexpr uint32_t CODEC_NO_CAMERA = 0x81E00001;       // no camera, or the connection failed
constexpr uint32_t CODEC_NOT_INITIALIZED = 0x81E00002; // qm7_cl_library_init comes first
constexpr uint32_t CODEC_INITIALIZED = 0x81E00003;     // is initialized already
constexpr uint32_t CODEC_DEVICE_CLOSED = 0x81E00004;   // qm7_cl_sys_open_device comes first
constexpr uint32_t CODEC_DEVICE_OPEN = 0x81E00005;     // is open already
constexpr uint32_t CODEC_BAD_ARGUMENT = 0x81E00006;    // a null pointer, a number out of range
constexpr uint32_t CODEC_NO_MEMORY = 0x81E00007;
constexpr uint32_t CODEC_NO_CALLBACK = 0x81E00008;      // notification without a callback
constexpr uint32_t CODEC_POST_NOT_RUNNING = 0x81E03201; // no post of that id runs (any more)
constexpr uint32_t CODEC_PLANE_OPEN = 0x81E03204;       // the plane is open already
constexpr uint32_t CODEC_PLANE_CLOSED = 0x81003209;     // the plane is not open
constexpr uint32_t CODEC_BUFFER_NOT_LENT = 0x81E0320A;  // that buffer was not handed out
constexpr uint32_t CODEC_PLANE_REFUSED = 0x81E03246;    // no plane of such a size or depth
