// Loaded into an overlay process in front of the C library: serves the camera device /dev/cam and
// keeps the fixed paths of a camera inside the run directory of the simulated one.
//
// Everything that is not the camera's goes to the C library untouched. Needs the C library only, so
// that it can be loaded into any program, of either word size.

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
// The plain names are defined here side by side with their 64-bit variants.
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS
#undef _FORTIFY_SOURCE

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "c_library.h"
#include "client/client.h"
#include "device.h"

#define EXPORT extern "C" __attribute__((visibility("default")))

static const char DEVICE_PATH[] = "/dev/cam";
static const char *const FIXED_PATHS[] = {"/usr/local/morvel/", "/var/run/"};

// ---- paths

// Gives the path to use in place of path: itself, or buffer with the path inside the run directory.
// Null with errno ENOENT if there is no run directory, so that the machine's own files are not
// used.
static const char *mapped(const char *path, char *buffer, size_t size)
{
    if (!path) {
        errno = EFAULT;
        return nullptr;
    }
    for (const char *prefix : FIXED_PATHS) {
        if (strncmp(path, prefix, strlen(prefix)) != 0)
            continue;
        if (client_path(buffer, size, path + 1))
            return buffer;
        errno = ENOENT;
        return nullptr;
    }
    return path;
}

static bool is_device(const char *path)
{
    return path && strcmp(path, DEVICE_PATH) == 0;
}

// The path to use where a function does not open the file. The camera's socket exists as long as
// the device does, for the same user, with the same permissions.
static const char *place_of(const char *path, char *buffer, size_t size)
{
    if (!is_device(path))
        return mapped(path, buffer, size);
    if (client_path(buffer, size, SIMCAM_SOCKET_NAME))
        return buffer;
    errno = ENOENT;
    return nullptr;
}

static bool takes_mode(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

// Reads the mode that follows the flags where there is one.
#define READ_MODE(flags, mode)                                                                     \
    mode_t mode = 0;                                                                               \
    if (takes_mode(flags)) {                                                                       \
        va_list arguments;                                                                         \
        va_start(arguments, flags);                                                                \
        mode = (mode_t)va_arg(arguments, unsigned int);                                            \
        va_end(arguments);                                                                         \
    }

using OpenFunction = int(const char *, int, ...);
using OpenAtFunction = int(int, const char *, int, ...);

static int open_path(OpenFunction **slot, const char *name, const char *path, int flags,
                     mode_t mode)
{
    if (is_device(path))
        return device_open(flags);
    char buffer[PATH_MAX];
    const char *place = mapped(path, buffer, sizeof buffer);
    return place ? next(slot, name)(place, flags, mode) : -1;
}

static int open_path_at(OpenAtFunction **slot, const char *name, int directory, const char *path,
                        int flags, mode_t mode)
{
    if (is_device(path))
        return device_open(flags);
    char buffer[PATH_MAX];
    const char *place = mapped(path, buffer, sizeof buffer);
    return place ? next(slot, name)(directory, place, flags, mode) : -1;
}

EXPORT int open(const char *path, int flags, ...)
{
    static OpenFunction *slot;
    READ_MODE(flags, mode)
    return open_path(&slot, "open", path, flags, mode);
}

EXPORT int open64(const char *path, int flags, ...)
{
    static OpenFunction *slot;
    READ_MODE(flags, mode)
    return open_path(&slot, "open64", path, flags, mode);
}

EXPORT int openat(int directory, const char *path, int flags, ...)
{
    static OpenAtFunction *slot;
    READ_MODE(flags, mode)
    return open_path_at(&slot, "openat", directory, path, flags, mode);
}

EXPORT int openat64(int directory, const char *path, int flags, ...)
{
    static OpenAtFunction *slot;
    READ_MODE(flags, mode)
    return open_path_at(&slot, "openat64", directory, path, flags, mode);
}

// What open becomes in programs built with fortified headers.
EXPORT int __open_2(const char *path, int flags)
{
    static OpenFunction *slot;
    return open_path(&slot, "open", path, flags, 0);
}

EXPORT int __open64_2(const char *path, int flags)
{
    static OpenFunction *slot;
    return open_path(&slot, "open64", path, flags, 0);
}

EXPORT int __openat_2(int directory, const char *path, int flags)
{
    static OpenAtFunction *slot;
    return open_path_at(&slot, "openat", directory, path, flags, 0);
}

EXPORT int __openat64_2(int directory, const char *path, int flags)
{
    static OpenAtFunction *slot;
    return open_path_at(&slot, "openat64", directory, path, flags, 0);
}

EXPORT int creat(const char *path, mode_t mode)
{
    static OpenFunction *slot;
    return open_path(&slot, "open", path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}

EXPORT int creat64(const char *path, mode_t mode)
{
    static OpenFunction *slot;
    return open_path(&slot, "open64", path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}

using StreamFunction = FILE *(const char *, const char *);

static FILE *open_stream(StreamFunction **slot, const char *name, const char *path,
                         const char *mode)
{
    if (!is_device(path)) {
        char buffer[PATH_MAX];
        const char *place = mapped(path, buffer, sizeof buffer);
        return place ? next(slot, name)(place, mode) : nullptr;
    }
    const int fd = device_open(strchr(mode, 'x') ? O_CREAT | O_EXCL : 0);
    FILE *stream = fd < 0 ? nullptr : fdopen(fd, mode);
    const int code = errno;
    if (fd >= 0 && !stream) { // an unknown mode
        close(fd);
        errno = code;
    }
    return stream;
}

EXPORT FILE *fopen(const char *path, const char *mode)
{
    static StreamFunction *slot;
    return open_stream(&slot, "fopen", path, mode);
}

EXPORT FILE *fopen64(const char *path, const char *mode)
{
    static StreamFunction *slot;
    return open_stream(&slot, "fopen64", path, mode);
}

using IoctlFunction = int(int, unsigned long, ...);

static int ioctl_any(IoctlFunction **slot, const char *name, int fd, unsigned long request,
                     void *argument)
{
    int result = 0;
    return device_ioctl(fd, request, argument, &result) ? result
                                                        : next(slot, name)(fd, request, argument);
}

#define READ_ARGUMENT(request, argument)                                                           \
    va_list arguments;                                                                             \
    va_start(arguments, request);                                                                  \
    void *argument = va_arg(arguments, void *);                                                    \
    va_end(arguments);

EXPORT int ioctl(int fd, unsigned long request, ...)
{
    static IoctlFunction *slot;
    READ_ARGUMENT(request, argument)
    return ioctl_any(&slot, "ioctl", fd, request, argument);
}

#if __SIZEOF_LONG__ == 4
// What ioctl is called in programs with 64-bit time on 32-bit machines.
EXPORT int __ioctl_time64(int fd, unsigned long request, ...)
{
    static IoctlFunction *slot;
    READ_ARGUMENT(request, argument)
    return ioctl_any(&slot, "__ioctl_time64", fd, request, argument);
}
#endif

EXPORT int poll(pollfd *entries, nfds_t count, int timeout)
{
    device_prepare_poll(entries, count);
    return poll_next(entries, count, timeout);
}

// What poll becomes in programs built with fortified headers.
EXPORT int __poll_chk(pollfd *entries, nfds_t count, int timeout, size_t)
{
    return poll(entries, count, timeout);
}

EXPORT int close(int fd)
{
    const bool device = device_is(fd);
    const int result = close_next(fd);
    if (device)
        device_close_unused();
    return result;
}

EXPORT int fclose(FILE *stream)
{
    static int (*slot)(FILE *);
    const bool device = device_is(fileno(stream));
    const int result = next(&slot, "fclose")(stream);
    if (device)
        device_close_unused();
    return result;
}

// ---- looking at files

#if __SIZEOF_LONG__ == 4
// The C library's record for programs with 64-bit time, as far as it is needed here. These records
// have no public name where time has 32 bits.
struct StatTime64 {
    uint64_t st_dev;
    uint64_t st_ino;
    mode_t st_mode;
    uint32_t st_nlink;
    uint32_t st_uid;
    uint32_t st_gid;
    dev_t st_rdev;
};
static_assert(offsetof(StatTime64, st_mode) == 16 && offsetof(StatTime64, st_rdev) == 32,
              "library record");
#endif

constexpr mode_t DEVICE_MODE = S_IFCHR | 0600;
constexpr unsigned DEVICE_MAJOR = 240;

// Makes the status of a device out of that of the file in its place if is_device.
template <typename Status> static int shown(int result, bool is_device, Status *status)
{
    if (result == 0 && is_device) {
        status->st_mode = DEVICE_MODE;
        status->st_rdev = makedev(DEVICE_MAJOR, 0);
    }
    return result;
}

template <typename Status>
static int stat_path(int (**slot)(const char *, Status *), const char *name, const char *path,
                     Status *status)
{
    char buffer[PATH_MAX];
    const char *place = place_of(path, buffer, sizeof buffer);
    return place ? shown(next(slot, name)(place, status), is_device(path), status) : -1;
}

template <typename Status>
static int stat_fd(int (**slot)(int, Status *), const char *name, int fd, Status *status)
{
    return shown(next(slot, name)(fd, status), device_is(fd), status);
}

// Whether a function that takes a directory and a path is asked about an open device.
static bool is_device_at(int directory, const char *path)
{
    return is_device(path) || (path && !path[0] && device_is(directory));
}

template <typename Status>
static int stat_at(int (**slot)(int, const char *, Status *, int), const char *name, int directory,
                   const char *path, Status *status, int flags)
{
    char buffer[PATH_MAX];
    const char *place = place_of(path, buffer, sizeof buffer);
    if (!place)
        return -1;
    const int result = next(slot, name)(directory, place, status, flags);
    return shown(result, is_device_at(directory, path), status);
}

#define STAT_FUNCTION(name, Status)                                                                \
    EXPORT int name(const char *path, Status *status)                                              \
    {                                                                                              \
        static int (*slot)(const char *, Status *);                                                \
        return stat_path(&slot, #name, path, status);                                              \
    }
#define FSTAT_FUNCTION(name, Status)                                                               \
    EXPORT int name(int fd, Status *status)                                                        \
    {                                                                                              \
        static int (*slot)(int, Status *);                                                         \
        return stat_fd(&slot, #name, fd, status);                                                  \
    }
#define FSTATAT_FUNCTION(name, Status)                                                             \
    EXPORT int name(int directory, const char *path, Status *status, int flags)                    \
    {                                                                                              \
        static int (*slot)(int, const char *, Status *, int);                                      \
        return stat_at(&slot, #name, directory, path, status, flags);                              \
    }

STAT_FUNCTION(stat, struct stat)
STAT_FUNCTION(lstat, struct stat)
STAT_FUNCTION(stat64, struct stat64)
STAT_FUNCTION(lstat64, struct stat64)
FSTAT_FUNCTION(fstat, struct stat)
FSTAT_FUNCTION(fstat64, struct stat64)
FSTATAT_FUNCTION(fstatat, struct stat)
FSTATAT_FUNCTION(fstatat64, struct stat64)

// What these functions are called in programs built with a C library before 2.33. The first
// argument is the version of the record; there is one per machine.
#define OLD_STAT_FUNCTION(name, function, First, Status)                                           \
    EXPORT int name(int, First first, Status *status)                                              \
    {                                                                                              \
        return function(first, status);                                                            \
    }

OLD_STAT_FUNCTION(__xstat, stat, const char *, struct stat)
OLD_STAT_FUNCTION(__lxstat, lstat, const char *, struct stat)
OLD_STAT_FUNCTION(__fxstat, fstat, int, struct stat)
OLD_STAT_FUNCTION(__xstat64, stat64, const char *, struct stat64)
OLD_STAT_FUNCTION(__lxstat64, lstat64, const char *, struct stat64)
OLD_STAT_FUNCTION(__fxstat64, fstat64, int, struct stat64)

EXPORT int __fxstatat(int, int directory, const char *path, struct stat *status, int flags)
{
    return fstatat(directory, path, status, flags);
}

EXPORT int __fxstatat64(int, int directory, const char *path, struct stat64 *status, int flags)
{
    return fstatat64(directory, path, status, flags);
}

#if __SIZEOF_LONG__ == 4
// What these functions are called in programs with 64-bit time on 32-bit machines.
STAT_FUNCTION(__stat64_time64, StatTime64)
STAT_FUNCTION(__lstat64_time64, StatTime64)
FSTAT_FUNCTION(__fstat64_time64, StatTime64)
FSTATAT_FUNCTION(__fstatat64_time64, StatTime64)
#endif

EXPORT int statx(int directory, const char *path, int flags, unsigned mask, struct statx *status)
{
    char buffer[PATH_MAX];
    const char *place = place_of(path, buffer, sizeof buffer);
    if (!place)
        return -1;
    const int result = statx_next(directory, place, flags, mask, status);
    if (result == 0 && is_device_at(directory, path)) {
        status->stx_mode = (uint16_t)DEVICE_MODE;
        status->stx_rdev_major = DEVICE_MAJOR;
        status->stx_rdev_minor = 0;
    }
    return result;
}

using AccessFunction = int(const char *, int);

static int access_path(AccessFunction **slot, const char *name, const char *path, int mode)
{
    char buffer[PATH_MAX];
    const char *place = place_of(path, buffer, sizeof buffer);
    return place ? next(slot, name)(place, mode) : -1;
}

EXPORT int access(const char *path, int mode)
{
    static AccessFunction *slot;
    return access_path(&slot, "access", path, mode);
}

EXPORT int eaccess(const char *path, int mode)
{
    static AccessFunction *slot;
    return access_path(&slot, "eaccess", path, mode);
}

EXPORT int euidaccess(const char *path, int mode)
{
    static AccessFunction *slot;
    return access_path(&slot, "euidaccess", path, mode);
}

EXPORT int faccessat(int directory, const char *path, int mode, int flags)
{
    static int (*slot)(int, const char *, int, int);
    char buffer[PATH_MAX];
    const char *place = place_of(path, buffer, sizeof buffer);
    return place ? next(&slot, "faccessat")(directory, place, mode, flags) : -1;
}

// ---- output

// Makes standard output unbuffered where simcam reads it from a pipe.
__attribute__((constructor)) static void unbuffer()
{
    if (getenv("SIMCAM_UNBUFFERED"))
        setvbuf(stdout, nullptr, _IONBF, 0);
}
