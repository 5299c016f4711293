// What FreeType calls in turn: memory and files. These definitions come before those of the
// libraries; outside of FreeType they hand on, inside they count and fail as the world says.

#include "inner_calls.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "world.h"

static long blocks; // allocated inside FreeType and not freed

long inner_blocks()
{
    return blocks;
}

template <typename Function> static Function next_of(const char *name)
{
    const int kept = world::inside_freetype; // what the look-up allocates is not FreeType's
    world::inside_freetype = 0;
    void *const found = dlsym(RTLD_NEXT, name);
    world::inside_freetype = kept;
    Function function;
    memcpy(&function, &found, sizeof function);
    return function;
}

// dlsym may allocate before malloc is found: that comes from here and is never given back.
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
        real_malloc = next_of<Malloc>("malloc");
        real_realloc = next_of<Realloc>("realloc");
        real_free = next_of<Free>("free");
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
    static const auto real = next_of<int (*)(const char *, int, ...)>("open");
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
    static const auto real = next_of<int (*)(int, struct stat *)>("fstat");
    if (world::inner_call_fails(world::INNER_FSTAT)) {
        errno = EIO;
        return -1;
    }
    return real(file, status);
}

void *mmap(void *address, size_t size, int protection, int flags, int file, off_t offset)
{
    using Mmap = void *(*)(void *, size_t, int, int, int, off_t);
    static const Mmap real = next_of<Mmap>("mmap");
    if (world::inner_call_fails(world::INNER_MMAP)) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return real(address, size, protection, flags, file, offset);
}

} // extern "C"
