// Posts, the outputs of the camera's video post-processor, and the OSD planes of each.
#pragma once

#include <stdint.h>

constexpr uint32_t POST_COUNT = 4;
constexpr uint32_t OSD_PLANE_COUNT = 4; // per post

// Depth code of an OSD plane: bits per pixel = 2 << code.
constexpr uint32_t DEPTH_CODE_8_BITS = 2;
