// What FreeType calls in turn: memory and files. These definitions come before those of the
// libraries; outside of FreeType they hand on, inside they count and fail as the world says.

#include "inner_calls.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "next_definition.h"
#include "world.h"

static long blocks; // allocated inside FreeType and not freed

long inner_blocks()
{
    return blocks;
}

// What the look-up allocates and frees is not FreeType's.
template <typename Function> static Function next_outside(const char *name)
{
    const int kept = world::inside_freetype;
    world::inside_freetype = 0;
    const auto function = next_of<Function>(name);
    world::inside_freetype = kept;
    return function;
}

using Malloc = void *(*)(size_t);
using Realloc = void *(*)(void *, size_t);
using Free = void (*)(void *);
static Malloc real_malloc;
static Realloc real_realloc;
static Free real_free;
static bool looking;

static bool found()
{
    if (!real_free && !looking) {
        looking = true;
        real_malloc = next_outside<Malloc>("malloc");
        real_realloc = next_outside<Realloc>("realloc");
        real_free = next_outside<Free>("free");
        looking = false;
    }
    return real_free != nullptr;
}

extern "C" {

void *malloc(size_t size)
{
    if (!found())
        return early_malloc(size);
    if (world::inner_call_fails(world::INNER_MALLOC)) {
        errno = ENOMEM;
        return nullptr;
    }
    void *memory = real_malloc(size);
    if (world::inside_freetype > 0 && memory)
        blocks++;
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
    if (world::inner_call_fails(world::INNER_REALLOC)) {
        errno = ENOMEM;
        return nullptr;
    }
    return real_realloc(memory, size);
}

void free(void *memory)
{
    if (!memory || is_early(memory) || !found())
        return;
    if (world::inside_freetype > 0)
        blocks--;
    real_free(memory);
}

int open(const char *path, int flags, ...)
{
    static const auto real = next_outside<int (*)(const char *, int, ...)>("open");
    if (world::inner_call_fails(world::INNER_OPEN)) {
        errno = EMFILE;
        return -1;
    }
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return real(path, flags, mode);
}

int fstat(int file, struct stat *status)
{
    static const auto real = next_outside<int (*)(int, struct stat *)>("fstat");
    if (world::inner_call_fails(world::INNER_FSTAT)) {
        errno = EIO;
        return -1;
    }
    return real(file, status);
}

void *mmap(void *address, size_t size, int protection, int flags, int file, off_t offset)
{
    using Mmap = void *(*)(void *, size_t, int, int, int, off_t);
    static const Mmap real = next_outside<Mmap>("mmap");
    if (world::inner_call_fails(world::INNER_MMAP)) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return real(address, size, protection, flags, file, offset);
}

} // extern "C"
