#include "allocations.h"

#include <stddef.h>

static long allocations;

long allocations_made()
{
    return allocations;
}

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);

void *malloc(size_t size)
{
    allocations++;
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    allocations++;
    return __libc_calloc(count, size);
}

void *realloc(void *memory, size_t size)
{
    allocations++;
    return __libc_realloc(memory, size);
}
}
