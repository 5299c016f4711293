// Compares pictures of palette indices and prints them as characters if they differ.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// The bytes as lines of pitch characters: '.' cleared, '#' frame, 'T' text, '-' box, '=' fill,
// '|' marker, 'H' highlight, '?' memory as it was handed out, '*' any other.
std::string picture_of(std::span<const uint8_t> bytes, size_t pitch);

// Compares two pictures byte by byte. The failure message names line, column and index of the first
// difference and shows both pictures.
testing::AssertionResult same_picture(std::span<const uint8_t> actual,
                                      std::span<const uint8_t> expected, size_t pitch);

// Compares a picture with tests/golden/NAME.png; a missing image is a failure. The actual picture
// is written to golden_actual/ in the build folder.
testing::AssertionResult same_as_golden(std::span<const uint8_t> actual, size_t pitch,
                                        const std::string &name);

// Whether tests/golden has NAME.png.
bool has_golden(const std::string &name);

// Writes a picture as a palette image whose pixels are the bytes themselves.
void write_image(const std::string &path, std::span<const uint8_t> bytes, size_t pitch);
