// The measurement loop on the camera device: publishes the focus value and tracks its peak. Main
// thread only.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/ioctl.h>

#include "app/focus_state.h"

#define CAM_DEVICE_PATH "/dev/cam"

// Configuration of the focus measurement, in the layout of the camera driver; some words hold two
// 16-bit halves.
struct CamFocusConfig {
    uint32_t word[23];
};
static_assert(sizeof(CamFocusConfig) == 92, "driver record");

// One measurement, filled by the driver.
struct CamFocusStats {
    uint8_t reserved0[64];
    uint32_t focus_value; // raw; display units are raw / 100
    uint8_t reserved68[172];
    uint8_t byte240; // set to 0 before every request
    uint8_t reserved241[3];
};
static_assert(sizeof(CamFocusStats) == 244, "driver record");
static_assert(offsetof(CamFocusStats, focus_value) == 64, "driver record");
static_assert(offsetof(CamFocusStats, byte240) == 240, "driver record");

constexpr uint32_t CAM_FOCUS_CONFIG = 0x405C7000; // write a CamFocusConfig
constexpr uint32_t CAM_FOCUS_READ = 0x80F47001;   // read a CamFocusStats
static_assert(CAM_FOCUS_CONFIG == _IOW('p', 0, CamFocusConfig), "driver request");
static_assert(CAM_FOCUS_READ == _IOR('p', 1, CamFocusStats), "driver request");

// Not 0 while the peak is held at 0: from process start until the value first changes by more than
// 4 display units.
extern uint8_t peak_hold;

// Configures the measurement on the open device; a failure is ignored.
void focus_measure_configure(int device);

// One cycle: requests a record, stores its value in state->current and raises state->peak. After a
// failed request the previous content of the record is used again.
void focus_measure_step(FocusState *state, int device, CamFocusStats *stats);

// Opens the device, configures it and measures in an endless loop, paced by the device's read
// request. If the device cannot be opened, ends the process silently with status 1.
void focus_measure_run(FocusState *state);
