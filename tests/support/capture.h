// What a piece of the program writes to standard output and standard error, to the byte.
#pragma once

#include <functional>
#include <string>

struct Captured {
    std::string out;
    std::string err;
};

// Runs action with both standard streams sent elsewhere and returns what reached them. Standard
// output is flushed before and after.
Captured capture(const std::function<void()> &action);
