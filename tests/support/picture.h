// Pictures of palette indices in tests: compared whole, printed as characters when they differ.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// The bytes as lines of pitch characters: '.' cleared, '#' frame, 'T' text, '-' box, '=' fill,
// '|' marker, 'H' highlight, '?' memory as it was handed out, '*' any other.
std::string picture_of(std::span<const uint8_t> bytes, size_t pitch);

// Whether the pictures are equal to the byte; where not, the message names the first difference
// and shows both.
testing::AssertionResult same_picture(std::span<const uint8_t> actual,
                                      std::span<const uint8_t> expected, size_t pitch);

// Whether the picture is that of tests/golden/NAME.png. A missing image is a difference. What was
// drawn is left in the build folder under golden_actual/.
testing::AssertionResult same_as_golden(std::span<const uint8_t> actual, size_t pitch,
                                        const std::string &name);

// Writes a picture as an image with a palette; its pixels are the bytes as they stand.
void write_image(const std::string &path, std::span<const uint8_t> bytes, size_t pitch);
