// Counts the blocks of the heap: these definitions come before those of the libraries and hand on
// to them.

#include "heap.h"

#include <atomic>
#include <cstddef>
#include <cstring>
#include <dlfcn.h>

static std::atomic<long> blocks;

long heap_blocks()
{
    return blocks;
}

template <typename Function> static Function next_of(const char *name)
{
    void *const found = dlsym(RTLD_NEXT, name);
    Function function;
    memcpy(&function, &found, sizeof function);
    return function;
}

// What is asked for while the next definitions are looked up comes from here and stays.
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
    const char *byte = (const char *)memory;
    return byte >= early_memory && byte < early_memory + sizeof early_memory;
}

static void *(*real_malloc)(size_t);
static void *(*real_calloc)(size_t, size_t);
static void *(*real_realloc)(void *, size_t);
static void (*real_free)(void *);
static bool looking;

static bool found()
{
    if (!real_free && !looking) {
        looking = true;
        real_malloc = next_of<void *(*)(size_t)>("malloc");
        real_calloc = next_of<void *(*)(size_t, size_t)>("calloc");
        real_realloc = next_of<void *(*)(void *, size_t)>("realloc");
        real_free = next_of<void (*)(void *)>("free");
        looking = false;
    }
    return real_free != nullptr;
}

static void *counted(void *memory)
{
    if (memory)
        blocks++;
    return memory;
}

extern "C" {

void *malloc(size_t size)
{
    return found() ? counted(real_malloc(size)) : early_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    return found() ? counted(real_calloc(count, size)) : early_malloc(count * size);
}

void *realloc(void *memory, size_t size)
{
    if (found() && !is_early(memory)) {
        void *const moved = real_realloc(memory, size);
        return memory ? moved : counted(moved);
    }
    void *const moved = malloc(size);
    if (moved && memory)
        memcpy(moved, memory, size);
    return moved;
}

void free(void *memory)
{
    if (!memory || is_early(memory) || !found())
        return;
    blocks--;
    real_free(memory);
}

} // extern "C"
