// Describes where plane memory differs from what was expected: line, column and palette index by
// name. For failure messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

// "fill (18)", "cleared (0)", "not written (165)"; "index 42" for one that the readout does not
// use.
std::string index_name(uint8_t index);

// The first difference and the number of differing bytes, as in
// "line 5, column 689: marker (19), expected box (17); 34 of 77760 bytes differ". pitch is bytes a
// line; with pitch 0 the message says "byte N". Empty if there is no difference.
std::string difference(std::span<const uint8_t> actual, std::span<const uint8_t> expected,
                       size_t pitch);

// How many bytes differ; those that only one of the two has are counted as well.
size_t differing_bytes(std::span<const uint8_t> actual, std::span<const uint8_t> expected);

// The same for the color table, which has four bytes an entry, as in
// "entry 16, byte 3: 0x08, expected 0x00; 2 of 1024 bytes differ".
std::string table_difference(std::span<const uint8_t> actual, std::span<const uint8_t> expected);
