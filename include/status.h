// Results of operations: 0 or the negative of the best fitting system error number.
#pragma once

#include <stdint.h>

constexpr int32_t STATUS_OK = 0;
constexpr int32_t STATUS_FILE = -1;     // a file could not be opened, measured or read whole
constexpr int32_t STATUS_NOMEM = -12;   // ENOMEM: an allocation failed
constexpr int32_t STATUS_FAULT = -14;   // EFAULT: a library call or a drawing step failed
constexpr int32_t STATUS_INVALID = -22; // EINVAL: an argument is invalid
