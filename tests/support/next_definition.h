// For definitions of a test that come before those of the libraries and hand on to them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>

// The definition of name behind that of the test.
template <typename Function> Function next_of(const char *name)
{
    void *const found = dlsym(RTLD_NEXT, name);
    Function function;
    memcpy(&function, &found, sizeof function);
    return function;
}

// What is asked for while malloc itself is looked up comes from here and stays.
inline char early_memory[65536];
inline size_t early_used;

inline void *early_malloc(size_t size)
{
    void *memory = early_memory + early_used;
    early_used += (size + 15) / 16 * 16;
    return early_used <= sizeof early_memory ? memory : nullptr;
}

inline bool is_early(const void *memory)
{
    return (uintptr_t)memory - (uintptr_t)early_memory < sizeof early_memory;
}
