#include "allocations.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <dlfcn.h>

bool (*allocation_fails)(bool is_realloc);
bool (*allocation_counts)();

static std::atomic<int64_t> calls;
static std::atomic<int64_t> blocks;

AllocationCounts allocations()
{
    return {calls, blocks};
}

// dlsym allocates before the real malloc is known; these bytes serve it and are never freed.
static char early_memory[65536];
static size_t early_used;

static void *early_malloc(size_t size)
{
    void *memory = early_memory + early_used;
    early_used += (size + 15) / 16 * 16;
    return early_used <= sizeof early_memory ? memory : nullptr;
}

static bool is_early(const void *memory)
{
    return (uintptr_t)memory - (uintptr_t)early_memory < sizeof early_memory;
}

static void *(*real_malloc)(size_t);
static void *(*real_calloc)(size_t, size_t);
static void *(*real_realloc)(void *, size_t);
static void (*real_free)(void *);
static bool looking;

template <typename Function> static void find(Function *function, const char *name)
{
    void *const found = dlsym(RTLD_NEXT, name);
    memcpy(function, &found, sizeof found);
}

static bool found()
{
    if (!real_free && !looking) {
        looking = true;
        find(&real_malloc, "malloc");
        find(&real_calloc, "calloc");
        find(&real_realloc, "realloc");
        find(&real_free, "free");
        looking = false;
    }
    return real_free != nullptr;
}

static void count(int64_t call, int64_t block)
{
    if (allocation_counts && !allocation_counts())
        return;
    calls.fetch_add(call, std::memory_order_relaxed);
    blocks.fetch_add(block, std::memory_order_relaxed);
}

static bool refused(bool is_realloc)
{
    if (!allocation_fails || !allocation_fails(is_realloc))
        return false;
    errno = ENOMEM;
    return true;
}

extern "C" {

void *malloc(size_t size)
{
    if (!found())
        return early_malloc(size);
    if (refused(false))
        return nullptr;
    void *memory = real_malloc(size);
    count(1, memory ? 1 : 0);
    return memory;
}

void *calloc(size_t number, size_t size)
{
    if (!found())
        return early_malloc(number * size);
    void *memory = real_calloc(number, size);
    count(1, memory ? 1 : 0);
    return memory;
}

void *realloc(void *memory, size_t size)
{
    if (!found() || is_early(memory)) {
        void *moved = malloc(size);
        if (moved && memory)
            memcpy(moved, memory, size);
        return moved;
    }
    if (refused(true))
        return nullptr;
    void *moved = real_realloc(memory, size);
    count(1, !memory && moved ? 1 : 0);
    return moved;
}

void free(void *memory)
{
    if (!memory || is_early(memory) || !found())
        return;
    count(0, -1);
    real_free(memory);
}

} // extern "C"
