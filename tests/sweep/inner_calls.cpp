// What FreeType calls in turn: memory and files. While FreeType runs, these calls are counted and
// fail as world::script says; all others go through.

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "allocations.h"
#include "world.h"

static bool inside_freetype()
{
    return world::inside_freetype > 0;
}

static bool allocation_of_freetype_fails(bool is_realloc)
{
    return world::inner_call_fails(is_realloc ? world::INNER_REALLOC : world::INNER_MALLOC);
}

// The definition behind this one. dlsym's own allocations are not FreeType's.
template <typename Function> static Function *next_of(const char *name)
{
    const int kept = world::inside_freetype;
    world::inside_freetype = 0;
    void *const found = dlsym(RTLD_NEXT, name);
    world::inside_freetype = kept;
    Function *function;
    memcpy(&function, &found, sizeof function);
    return function;
}

// Before main, so that nothing of FreeType's is missed.
__attribute__((constructor)) static void watch_allocations()
{
    allocation_counts = inside_freetype;
    allocation_fails = allocation_of_freetype_fails;
}

extern "C" {

int open(const char *path, int flags, ...)
{
    static auto *const real = next_of<int(const char *, int, ...)>("open");
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
    static auto *const real = next_of<int(int, struct stat *)>("fstat");
    if (world::inner_call_fails(world::INNER_FSTAT)) {
        errno = EIO;
        return -1;
    }
    return real(file, status);
}

void *mmap(void *address, size_t size, int protection, int flags, int file, off_t offset)
{
    static auto *const real = next_of<void *(void *, size_t, int, int, int, off_t)>("mmap");
    if (world::inner_call_fails(world::INNER_MMAP)) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return real(address, size, protection, flags, file, offset);
}

} // extern "C"
