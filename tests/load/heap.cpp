// Counts the blocks of the heap: these definitions come before those of the libraries and hand on
// to them.

#include "heap.h"

#include <atomic>
#include <cstddef>
#include <cstring>

#include "next_definition.h"

static std::atomic<long> blocks;

long heap_blocks()
{
    return blocks;
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
