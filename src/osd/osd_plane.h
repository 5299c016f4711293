// OSD planes of a post: their state, the calls that open and close them, and the frame update of
// the bar. Everything here belongs to the display thread; nothing locks.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "osd/qm7_codec.h"

struct DrawRect;

// The display loop's state of a plane. All zero means closed.
struct OsdPlane {
    uint32_t number; // OSD number 0..3, set once at thread start
    uint32_t opened; // 1 while the plane counts as open
    uint32_t pitch;  // bytes per line of its memory; with 0 nothing is painted
};
static_assert(sizeof(OsdPlane) == 12, "three words");
static_assert(offsetof(OsdPlane, opened) == 4, "three words");
static_assert(offsetof(OsdPlane, pitch) == 8, "three words");

// Returns -1 if code is one of the four tolerated library codes, else 0.
int32_t osd_is_benign_error(uint32_t code);

// Opens plane on the post; an open plane stays unchanged, including its pitch.
//
// After a tolerated code the plane counts as open with pitch 0: nothing is painted and nothing
// retried until the post restarts. Any other failure is logged and leaves the plane closed for the
// next pass; of these, deliberately only QM7_OPEN_REFUSED is returned as a failure.
//
// Returns 0 or STATUS_FAULT.
int32_t osd_open_osd(uint32_t postResId, OsdPlane *plane, const OsdOpenParam *param);

// Clears and closes plane; a closed plane stays unchanged. The order of the arguments is the
// reverse of osd_open_osd's.
//
// Returns 0, or STATUS_FAULT with the reason logged and the plane still open.
int32_t osd_close_osd(OsdPlane *plane, uint32_t postResId);

// Sets the whole of mem to PALETTE_CLEAR.
//
// Returns the number of bytes to paint on: mem->size, or 0 without memory.
uint32_t osd_clear_mem(const OsdMem *mem);

// Updates the bar: fetches a buffer of the plane, clears it, paints the bar for percent and shows
// it at rect's position. Pixels outside the buffer are dropped.
//
// Returns 0, STATUS_FAULT, or STATUS_INVALID for a depth other than 2, 4 or 8. Failures are printed
// on standard output, without line ends; a fetched buffer is not returned to the library.
int32_t show_bar(uint32_t postResId, int32_t osd_number, const DrawRect *rect, int32_t percent);
