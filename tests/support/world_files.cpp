// The files of the world: wrappers (--wrap) of open, fstat, read and close.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "osd/osd_palette.h"
#include "world.h"

using namespace world;

// Represents a descriptor as an object, at an address that nothing else has.
static const void *object_of(int file)
{
    return file < 0 ? nullptr : (const void *)(uintptr_t)(file + 1);
}

// Descriptors that the program did not open.
static std::set<int> foreign;

extern "C" {

int __real_open(const char *path, int flags, ...);
int __real_fstat(int file, struct stat *status);
ssize_t __real_read(int file, void *buffer, size_t size);
int __real_close(int file);
int __wrap_open(const char *path, int flags, ...);
int __wrap_fstat(int file, struct stat *status);
ssize_t __wrap_read(int file, void *buffer, size_t size);
int __wrap_close(int file);

int __wrap_open(const char *path, int flags, ...)
{
    if (strcmp(path, OSD_PALETTE_PATH) != 0) { // of gcov or the test itself
        const int file = __real_open(path, flags, 0666);
        foreign.insert(file);
        return file;
    }
    Event &event = begin(FILE_OPEN, {flags});
    event.text = path;
    int file = -1;
    if (event.failed) {
        errno = script.code;
    } else {
        file = __real_open(script.palette_path.c_str(), flags);
        foreign.erase(file);
        event.failed = file < 0;
    }
    event.error = errno;
    if (file >= 0) {
        event.out = {born(object_of(file), FILE_OPEN)};
    }
    return file;
}

int __wrap_fstat(int file, struct stat *status)
{
    if (foreign.count(file) != 0)
        return __real_fstat(file, status);
    Event &event = begin(FILE_FSTAT, {number_of(object_of(file))});
    int result = -1;
    if (event.failed)
        errno = script.code;
    else
        result = __real_fstat(file, status);
    event.error = errno;
    event.failed = result != 0;
    event.out = {event.failed ? 0 : (int64_t)(uint32_t)status->st_size};
    return result;
}

ssize_t __wrap_read(int file, void *buffer, size_t size)
{
    if (foreign.count(file) != 0)
        return __real_read(file, buffer, size);
    Event &event = begin(FILE_READ, {number_of(object_of(file)), (int64_t)size});
    ssize_t result = -1;
    if (event.failed) {
        errno = script.code;
    } else {
        errno = 0; // a short read leaves it as it was
        result = __real_read(file, buffer, size - std::min(size, script.short_read));
    }
    event.error = errno;
    event.failed = result < 0;
    event.out = {result};
    if (result > 0)
        event.bytes.assign((const uint8_t *)buffer, (const uint8_t *)buffer + result);
    return result;
}

int __wrap_close(int file)
{
    if (foreign.erase(file) != 0)
        return __real_close(file);
    Event &event = begin(FILE_CLOSE, {number_of(object_of(file))});
    if (event.in[0] < 0)
        return -1;
    (void)die(object_of(file));
    (void)__real_close(file); // closes even if it is to report a failure
    if (!event.failed)
        return 0;
    errno = script.code;
    return -1;
}

} // extern "C"
