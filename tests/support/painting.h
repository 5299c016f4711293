// What the tests of everything that paints share.
#pragma once

#include <cstdint>
#include <string>

// Depths that no painter accepts, those among them that a shift or a mask would let through.
static constexpr uint32_t INVALID_DEPTHS[] = {0, 1, 3, 5, 6, 7, 9, 16, 32, 34, 0x80000008};

// An error line of the process, to the byte.
inline std::string error_line(const std::string &message, const std::string &function)
{
    return "ERR:#qm7osd:[(null)]=" + message + "(" + function + ")\n";
}
