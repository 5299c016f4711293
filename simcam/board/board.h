// The camera's board: posts, OSD planes, color table, the device's measurements, and what the
// calls of the codec library and the requests of the device do with them. Knows no sockets, threads
// or pictures.
//
// One lock guards a board and all its sessions. Functions take it themselves unless their comment
// says that the caller holds it.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "board/camera_types.h"
#include "link/request.h"
#include "board/shared_memory.h"

namespace simcam
{

constexpr size_t RECORDS_KEPT = 4096;
constexpr uint32_t DELAY_MAX_MS = 10000; // less than a client waits for an answer
constexpr uint32_t POST_SIZE_MIN = 16, POST_SIZE_MAX = 4096;

// One client: the codec library of a process, or an open device.
struct Session {
    uint64_t id = 0; // never 0 on a board
    int pid = 0;
    bool initialized = false;
    bool device_open = false; // the library's device
    bool callback = false;
    uint32_t mask = 0;
    int events = -1;           // where reports go; -1: nowhere. Owned by whoever made the session.
    bool camera_open = false;  // /dev/cam
    uint64_t last_reading = 0; // number of the measurement handed out last
};

struct PlaneBuffer {
    SharedMemory shared;
    uint64_t lent_to = 0; // a session's id; 0: nobody draws into it
    uint32_t osd_id = 0;
};

struct Plane {
    PlaneState state;
    uint32_t epoch = 0;
    int shown = -1; // index of the buffer on the screen
    std::vector<PlaneBuffer> buffers;
};

struct Post {
    PostState state; // its planes' states are kept in plane
    std::array<Plane, PLANE_COUNT> plane;
};

struct Board {
    std::mutex lock;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    uint32_t pitch_align = 16;
    uint64_t seed = 1;

    std::array<Post, POST_COUNT> post;
    uint32_t osd_serial = 0;
    uint32_t epochs = 0;
    SharedMemory color;
    std::vector<uint8_t> palette; // as applied last

    bool focus_configured = false;
    uint32_t focus_words[2] = {0, 0}; // of the configuration: frame and window
    Measurement latest;

    std::vector<Session *> sessions;
    uint64_t session_count = 0;
    uint64_t dropped_reports = 0;

    std::vector<Fault> faults;
    std::deque<CallRecord> calls;
    uint64_t call_count = 0;
};

struct Reply {
    WireReply head{};
    uint8_t payload[sizeof(WireFocusStats)]{}; // wire_reply_size(head.call) bytes where result is 0
    int fd = -1;                               // borrowed from the board: send before unlocking
};

// False where the system has no memory for the color table.
bool board_init(Board &board, uint64_t seed, uint32_t pitch_align);
double board_time(const Board &board);

// ---- clients

void board_add_session(Board &board, Session &session, int pid);
// Buffers lent to it are free again; planes stay open and shown.
void board_remove_session(Board &board, Session &session);

// Takes one hit of the fault that is armed for call. Its error is 0 for none. The lock is held.
Fault board_take_fault(Board &board, uint32_t call);
// Whether a read request of session has a measurement to return. The lock is held.
bool board_reading_ready(const Board &board, const Session &session);
// Does what request says; forced_error not 0 makes it fail with that instead. Everything but a read
// request that succeeds is logged. The lock is held.
void board_execute(Board &board, Session &session, const Request &request, uint32_t forced_error,
                   Reply *reply);

// ---- the camera's own side

void board_publish(Board &board, const Measurement &measurement);
// A running post is stopped first, so a change of size is reported as a stop and a start.
std::string board_start_post(Board &board, int post, uint32_t width, uint32_t height);
std::string board_stop_post(Board &board, int post);
std::string board_set_fault(Board &board, const Fault &fault);

// Fills what a board knows of a camera's state.
void board_state(Board &board, CameraState *state);
// A post with copies of its shown planes, empty bytes where nothing is shown, and the color table.
struct PostImage {
    PostState state;
    std::array<PlaneImage, PLANE_COUNT> plane;
    std::vector<uint8_t> palette;
};
PostImage board_post_image(Board &board, int post);
PlaneImage board_plane_image(Board &board, int post, int plane);

// What came after number, oldest first.
template <typename Record>
std::vector<Record> records_after(const std::deque<Record> &records, uint64_t number, size_t limit)
{
    std::vector<Record> found;
    if (records.empty() || records.back().number <= number)
        return found;
    const uint64_t first = records.front().number; // numbers have no gaps
    for (size_t i = number < first ? 0 : static_cast<size_t>(number - first + 1);
         i < records.size() && found.size() < limit; i++)
        found.push_back(records[i]);
    return found;
}

template <typename Record> void records_add(std::deque<Record> &records, Record record)
{
    records.push_back(std::move(record));
    if (records.size() > RECORDS_KEPT)
        records.pop_front();
}

} // namespace simcam
