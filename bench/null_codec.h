// A codec library that hands out static memory and does nothing else, so that only the
// program itself is counted or timed. A post's index is its resource id.
#pragma once

#include <span>
#include <stdint.h>

// Sets the size that a post reports from now on.
void null_codec_set_post(uint32_t post, uint16_t width, uint16_t height);

// The memory of a plane that has been opened.
std::span<uint8_t> null_codec_plane(uint32_t post, uint32_t number);
