// The measurement loop.
//
// State: peak_hold, main thread only.

#include "app/focus_measure.h"

#include <fcntl.h>
#include <unistd.h>

constexpr uint32_t RAW_PER_DISPLAY_UNIT = 100;
constexpr int32_t HOLD_THRESHOLD = 4; // display units; a change must exceed it

// The type of ioctl's request: unsigned long in glibc and uClibc, int in musl.
#ifdef __GLIBC__
typedef unsigned long IoctlRequest;
#else
typedef int IoctlRequest;
#endif

uint8_t peak_hold = 1;

void focus_measure_configure(int device)
{
    CamFocusConfig config = {};
    config.word[0] = 0x028004FF;  // last column 1279, half of the width 640
    config.word[1] = 0x016802CF;  // last line 719, half of the height 360
    config.word[14] = 0x003FFFFF; // all of 22 bits
    config.word[16] = 0x3FFF3FFF; // all of 14 bits, in each half
    config.word[17] = 0x3FFF3FFF;
    config.word[18] = 0x00003FFF;
    // A failure is ignored: the driver then measures with its own settings.
    (void)ioctl(device, (IoctlRequest)CAM_FOCUS_CONFIG, &config);
}

void focus_measure_step(FocusState *state, int device, CamFocusStats *stats)
{
    stats->byte240 = 0;
    (void)ioctl(device, (IoctlRequest)CAM_FOCUS_READ, stats); // a failure repeats the last value

    const uint32_t value = stats->focus_value / RAW_PER_DISPLAY_UNIT;
    const uint32_t previous = state->current.load(std::memory_order_relaxed);
    if (previous != 0) {
        const int32_t change = (int32_t)(previous - value);
        if (change > HOLD_THRESHOLD || change < -HOLD_THRESHOLD)
            peak_hold = 0;
    }

    state->current.store(value, std::memory_order_relaxed);
    if (value > state->peak.load(std::memory_order_relaxed) && peak_hold == 0)
        state->peak.store(value, std::memory_order_relaxed);
}

void focus_measure_run(FocusState *state)
{
    const int device = open(CAM_DEVICE_PATH, O_RDWR);
    if (device < 0)
        _exit(1);

    focus_measure_configure(device);

    CamFocusStats stats = {};
    for (;;)
        focus_measure_step(state, device, &stats);
}
