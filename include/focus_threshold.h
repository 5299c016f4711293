// The percentage of the peak at which the readout changes.
#pragma once

#include <stdint.h>

// The text is highlighted from this percentage on; the bar's marker is at it.
constexpr int32_t FOCUS_THRESHOLD_PERCENT = 85;
