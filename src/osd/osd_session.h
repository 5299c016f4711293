// The session with the codec library, and the reports of its notify callback about the posts.
//
// Display thread only, except osd_post_notify, which the library calls from its own thread.
#pragma once

#include <atomic>
#include <stddef.h>
#include <stdint.h>

#include "osd/qm7_codec.h"
#include "posts.h"

constexpr uint32_t OSD_NOTIFY_MASK = 15; // the library's bits; only ever this value

// Reports of the library that the display loop has not handled yet. Bit 4 * post of a mask belongs
// to post; the other bits stay 0.
struct PostNotifyState {
    std::atomic<uint32_t> post_res_id[POST_COUNT]; // last reported while running
    std::atomic<uint16_t> started_mask;            // set by the callback, cleared by the loop
    std::atomic<uint16_t> stopped_mask;            // likewise
};
static_assert(sizeof(PostNotifyState) == 20, "four words and two halves");
static_assert(offsetof(PostNotifyState, started_mask) == 16, "four words and two halves");
static_assert(offsetof(PostNotifyState, stopped_mask) == 18, "four words and two halves");

// Output size of a post. All zero: unknown.
struct PostGeometry {
    uint32_t valid;  // 0 or 1
    uint32_t width;  // pixels
    uint32_t height; // lines
};
static_assert(sizeof(PostGeometry) == 12, "three words");
static_assert(offsetof(PostGeometry, width) == 4, "three words");
static_assert(offsetof(PostGeometry, height) == 8, "three words");

extern PostNotifyState post_notify_state;

// Opens the session: library, device, notify callback and mask, color table. A missing palette file
// is not a failure.
//
// Returns 0, or STATUS_FAULT after an error line, with everything undone.
int32_t OSD_Library_Process();

// Closes device and library, always both; failures are only logged. Close all planes first.
void osd_close_codec_lib();

// Reads the post's output size from the library, once per run of the post: a valid geometry stays
// unchanged.
//
// Returns 0, or STATUS_FAULT with geometry untouched and nothing logged.
int32_t get_post_geometry(PostGeometry *geometry, uint32_t postResId);

// The notify callback: records a start or a stop. A post index beyond 3 is ignored.
void osd_post_notify(PostNotifyInfo info);

// Returns whether post (0..3) reported a start (a stop) since the last call. If osd_take_started
// returns true, osd_post_res_id returns the id of that start or of a later one.
bool osd_take_started(uint32_t post);
bool osd_take_stopped(uint32_t post);

// The id in the last start report of post (0..3).
uint32_t osd_post_res_id(uint32_t post);
