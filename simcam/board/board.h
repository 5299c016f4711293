// The camera's board: posts, OSD planes, color table, the device's measurements, the sessions of
// its clients and the armed faults. It uses no sockets, threads or pictures.
//
// One lock guards a board and all its sessions. Functions take it themselves unless their comment
// says that the caller holds it.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "board/focus.h"
#include "board/records.h"
#include "board/shared_memory.h"
#include "board/state.h"

namespace simcam
{

constexpr uint32_t PALETTE_BYTES = 1024; // 256 entries of Y, Cb, Cr and opacity

// A post's start or stop, to be sent to a session.
struct PostReport {
    int post = 0;
    uint32_t res_id = 0;
    bool running = false;
};

// One client: the codec library of a process, or an open device.
struct Session {
    uint64_t id = 0; // never 0 on a board
    int pid = 0;
    bool initialized = false;
    bool device_open = false; // the library's device
    bool callback = false;
    uint32_t mask = 0;               // a bit for each post whose reports it gets
    std::vector<PostReport> reports; // still to be sent, oldest first; at most two of each post
    bool camera_open = false;        // /dev/cam
    uint64_t last_reading = 0;       // number of the measurement handed out last
    OverlayFocus overlay;            // of the readings handed out
};

struct PlaneBuffer {
    SharedMemory shared;
    uint64_t lent_to = 0; // a session's id; 0: not lent
    uint32_t osd_id = 0;
};

struct Plane {
    PlaneState state;
    uint32_t epoch = 0;
    int shown = -1; // index of the buffer on the screen
    std::vector<PlaneBuffer> buffers;
};

struct Post {
    PostState state; // without its planes' states, which are in plane
    std::array<Plane, PLANE_COUNT> plane;
};

struct Board {
    std::mutex lock;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    uint32_t pitch_align = 0; // this and seed: set by board_init
    uint64_t seed = 0;

    std::array<Post, POST_COUNT> post;
    uint32_t osd_serial = 0;
    uint32_t epochs = 0;
    SharedMemory color;
    std::vector<uint8_t> palette; // as applied last

    FocusWindow window;
    Measurement latest;

    std::vector<Session *> sessions; // oldest first
    // Called, with the lock held, when sessions have a new measurement or report; set by the
    // server.
    std::function<void()> wake = [] {};
    uint64_t session_count = 0;
    uint64_t merged_reports = 0;

    std::vector<Fault> faults;
    Records<CallRecord> calls;
};

// Returns false if the system has no memory for the color table.
bool board_init(Board &board, uint64_t seed, uint32_t pitch_align);
double board_time(const Board &board);

// ---- clients

void board_add_session(Board &board, Session &session, int pid);
// Returns the buffers lent to it; planes stay open and shown.
void board_remove_session(Board &board, Session &session);

// ---- parts of calls; the caller holds the lock

// Takes one hit of the fault that is armed for the call of that name. Its error is 0 for none.
Fault board_take_fault(Board &board, const std::string &call);
// Whether a read request of session has a measurement to return.
bool board_reading_ready(const Board &board, const Session &session);
// The running post of that id, or null.
Post *board_find_post(Board &board, uint32_t res_id);
void board_open_plane(Board &board, Plane &plane, const PlaneState &request);
void board_close_plane(Plane &plane);
// Finds a buffer that session may draw into: the one that it already has, one that is neither shown
// nor lent, or a new one. Null where all are in use or the system has no memory.
PlaneBuffer *board_lend_buffer(Board &board, const Session &session, Plane &plane);
void board_take_back_buffers(Board &board, const Session &session);
// Queues a report of the post's state for session if its mask selects the post. A report that would
// be the third of its post replaces the other two (a start and a stop cancel each other out), so
// the last state always arrives; both are counted in merged_reports.
void board_queue_report(Board &board, Session &session, int post);

// ---- the camera's own side

void board_publish(Board &board, const Measurement &measurement);
FocusWindow board_window(Board &board);
// The overlay on the device that was opened last.
OverlayFocus board_overlay(Board &board);
// Starts a post; stops it first if it runs. Size 0x0 is the size it had last. keep_same leaves a
// post alone that already runs at that size.
std::string board_start_post(Board &board, int post, Size size, bool keep_same = false);
std::string board_stop_post(Board &board, int post);
std::string board_set_fault(Board &board, const Fault &fault);

// A copy of what can change on a board.
struct BoardState {
    uint32_t pitch_align = 0;
    uint64_t seed = 0;
    bool focus_configured = false; // /dev/cam got its configuration
    bool attached = false;         // a process has initialized the library
    Measurement latest;
    OverlayFocus overlay;
    std::array<PostState, POST_COUNT> post;
    std::vector<Fault> faults;
    uint64_t merged_reports = 0;
};
BoardState board_state(Board &board);
// The size and state of one post.
PostState board_post(Board &board, int post);
// A post, with_planes with copies of its shown planes and of the color table.
struct PostImage {
    PostState state;
    std::array<PlaneImage, PLANE_COUNT> plane;
    std::vector<uint8_t> palette;
};
PostImage board_post_image(Board &board, int post, bool with_planes);
PlaneImage board_plane_image(Board &board, int post, int plane);

} // namespace simcam
