// Shared by the tests of everything that paints.
#pragma once

#include <cstdint>
#include <string>

// Depths that no painter accepts; a shift or a mask would accept some of them.
static constexpr uint32_t INVALID_DEPTHS[] = {0, 1, 3, 5, 6, 7, 9, 16, 32, 34, 0x80000008};

// An error line of the process.
inline std::string error_line(const std::string &message, const std::string &function)
{
    return "ERR:#qm7osd:[(null)]=" + message + "(" + function + ")\n";
}
