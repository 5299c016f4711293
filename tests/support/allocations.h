// Counts the heap blocks of the process, those of the libraries included, and can make an
// allocation fail: allocations.cpp defines malloc, calloc, realloc and free in front of the C
// library's.
#pragma once

#include <cstdint>

struct AllocationCounts {
    int64_t calls;  // of malloc, calloc and realloc
    int64_t blocks; // allocated and not freed
};
AllocationCounts allocations();

// If set, is asked before each malloc and realloc; true makes the call fail with ENOMEM.
extern bool (*allocation_fails)(bool is_realloc);

// If set, only what happens while it returns true is counted.
extern bool (*allocation_counts)();
