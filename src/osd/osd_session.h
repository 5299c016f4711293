// The session with the codec library, and what its notify callback reports of the posts.
//
// Everything belongs to the display thread but osd_post_notify, which the library calls from a
// thread of its own.
#pragma once

#include <atomic>
#include <stddef.h>
#include <stdint.h>

#include "osd/qm7_codec.h"
#include "posts.h"

constexpr uint32_t OSD_NOTIFY_MASK = 15; // the library's bits; only ever this value

// Reports of the library that the display loop has not looked at yet. Bit 4 * post of a mask is
// post's; the other bits stay 0.
struct PostNotifyState {
    std::atomic<uint32_t> post_res_id[POST_COUNT]; // last reported while running
    std::atomic<uint16_t> started_mask;            // set by the callback, cleared by the loop
    std::atomic<uint16_t> stopped_mask;            // likewise
};
static_assert(sizeof(PostNotifyState) == 20, "four words and two halves");
static_assert(offsetof(PostNotifyState, started_mask) == 16, "four words and two halves");
static_assert(offsetof(PostNotifyState, stopped_mask) == 18, "four words and two halves");

// Output size of a post. All zero: not known.
struct PostGeometry {
    uint32_t valid;  // 0 or 1
    uint32_t width;  // pixels
    uint32_t height; // lines
};
static_assert(sizeof(PostGeometry) == 12, "three words");
static_assert(offsetof(PostGeometry, width) == 4, "three words");
static_assert(offsetof(PostGeometry, height) == 8, "three words");

extern PostNotifyState post_notify_state;

// Opens the session: library, device, notify callback and mask, color table. A palette file that
// cannot be loaded is no failure.
//
// Returns 0, or STATUS_FAULT with an error line written and everything undone.
int32_t OSD_Library_Process();

// Closes device and library, both in any case; failures are only logged. Open planes are the
// caller's to close first.
void osd_close_codec_lib();

// Asks the library for the post's output size, once per run of the post: a valid geometry is left
// as it is.
//
// Returns 0, or STATUS_FAULT with geometry untouched and nothing logged.
int32_t get_post_geometry(PostGeometry *geometry, uint32_t postResId);

// The notify callback: records a start or a stop. A post index beyond 3 is ignored.
void osd_post_notify(PostNotifyInfo info);

// Whether post (0..3) reported a start (a stop) since the last call. After a true osd_take_started
// osd_post_res_id gives the id of that start or of a later one.
bool osd_take_started(uint32_t post);
bool osd_take_stopped(uint32_t post);

// The id that post (0..3) last reported while running.
uint32_t osd_post_res_id(uint32_t post);
