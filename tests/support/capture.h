// Captures what the program writes to standard output and standard error.
#pragma once

#include <functional>
#include <string>

struct Captured {
    std::string out;
    std::string err;
};

// Runs action and returns what it wrote to both standard streams. Flushes standard output before
// and after.
Captured capture(const std::function<void()> &action);
