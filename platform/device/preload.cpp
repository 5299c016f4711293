// Loaded into an overlay process in front of the C library: serves the camera device /dev/cam and
// keeps the fixed paths of a camera inside the run directory of the simulated one.
//
// An open device is a connection to simcam. Everything that is not the camera's goes to the C
// library untouched. Needs the C library only, so that it can be loaded into any program, of either
// word size.

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
// The plain names are defined here side by side with their 64-bit variants.
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "client/client.h"

#define EXPORT extern "C" __attribute__((visibility("default")))

static const char DEVICE_PATH[] = "/dev/cam";
static const char *const FIXED_PATHS[] = {"/usr/local/morvel/", "/var/run/"};

constexpr uint32_t CAM_FOCUS_CONFIG = 0x405C7000;
constexpr uint32_t CAM_FOCUS_READ = 0x80F47001;

// How long a read takes that the camera does not answer any more: programs read in a loop that only
// the device paces.
constexpr useconds_t LOST_CAMERA_PAUSE_US = 33333;

// ---- the C library's own functions, looked up when first used

template <typename Function> static Function *next(Function **slot, const char *name)
{
    Function *function = __atomic_load_n(slot, __ATOMIC_RELAXED);
    if (!function) {
        function = (Function *)dlsym(RTLD_NEXT, name);
        __atomic_store_n(slot, function, __ATOMIC_RELAXED);
    }
    return function;
}

static int poll_next(pollfd *entries, nfds_t count, int timeout)
{
    static int (*slot)(pollfd *, nfds_t, int);
    return next(&slot, "poll")(entries, count, timeout);
}

// ---- open devices

constexpr int DEVICE_COUNT = 16;

struct Device {
    int fd;               // as the program sees it; 0 once it is closed
    int connection;       // a duplicate: a call goes on while another thread closes fd; 0: unused
    int users;            // calls under way
    bool waits;           // false: opened with O_NONBLOCK
    bool dead;            // guarded by lock, as is what follows
    bool asked;           // a measurement is under way that no call has taken yet
    uint32_t number;      // of that request
    pthread_mutex_t lock; // held during a request
};

// Guards fd, connection and users of all devices. Never held while a device's lock is taken.
static pthread_mutex_t table_lock = PTHREAD_MUTEX_INITIALIZER;
static Device devices[DEVICE_COUNT];
static bool table_used; // false spares processes without a device the lock

// Finds the device that the program knows by fd, and counts its user. Null for other files.
static Device *device_take(int fd)
{
    if (fd <= 0 || !__atomic_load_n(&table_used, __ATOMIC_ACQUIRE))
        return nullptr;
    Device *found = nullptr;
    pthread_mutex_lock(&table_lock);
    for (Device &device : devices)
        if (device.fd == fd)
            found = &device;
    if (found)
        found->users++;
    pthread_mutex_unlock(&table_lock);
    return found;
}

static void device_release(Device *device)
{
    static int (*slot)(int);
    pthread_mutex_lock(&table_lock);
    device->users--;
    int unused = 0;
    if (device->users == 0 && device->fd == 0) {
        unused = device->connection;
        device->connection = 0;
    }
    pthread_mutex_unlock(&table_lock);
    const int code = errno;
    if (unused)
        next(&slot, "close")(unused);
    errno = code;
}

static bool is_device_fd(int fd)
{
    Device *device = device_take(fd);
    if (device)
        device_release(device);
    return device != nullptr;
}

static int device_open(int flags)
{
    const int fd = client_connect();
    if (fd < 0) {
        errno = ENOENT;
        return -1;
    }
    uint32_t error = 0;
    if (client_call(fd, WIRE_DEVICE_OPEN, nullptr, nullptr, nullptr, &error) != 0)
        error = EIO;
    const int connection = error ? -1 : fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (connection < 0) {
        close(fd);
        errno = error ? (int)error : EMFILE;
        return -1;
    }

    bool placed = false;
    pthread_mutex_lock(&table_lock);
    for (Device &device : devices) {
        if (device.connection != 0)
            continue;
        device.fd = fd;
        device.connection = connection;
        device.waits = !(flags & O_NONBLOCK);
        device.dead = device.asked = false; // nobody else knows this place yet
        __atomic_store_n(&table_used, true, __ATOMIC_RELEASE);
        placed = true;
        break;
    }
    pthread_mutex_unlock(&table_lock);
    if (placed)
        return fd;
    close(connection);
    close(fd);
    errno = EMFILE;
    return -1;
}

// Copies to or from memory that the program named, by way of a pipe: where the memory is not the
// program's, the system call fails with EFAULT as a driver's does.
static bool copy(const void *from, void *to, size_t size)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    const bool copied =
        write(ends[1], from, size) == (ssize_t)size && read(ends[0], to, size) == (ssize_t)size;
    const int code = errno;
    close(ends[0]);
    close(ends[1]);
    errno = code;
    return copied;
}

static bool ask_measurement(Device *device)
{
    if (!device->asked && !device->dead) {
        device->asked =
            client_send(device->connection, WIRE_FOCUS_READ, nullptr, &device->number) == 0;
        device->dead = !device->asked;
    }
    return device->asked;
}

// Receives the measurement that was asked for. Returns 0 or an errno number.
static int take_measurement(Device *device, int timeout_ms, WireFocusStats *stats)
{
    pollfd entry = {device->connection, POLLIN, 0};
    const int ready = ask_measurement(device) ? poll_next(&entry, 1, timeout_ms) : 0;
    if (ready < 0 && errno == EINTR)
        return EINTR; // the next read takes what was asked for
    if (ready == 0 && timeout_ms == 0 && !device->dead)
        return EAGAIN;
    uint32_t error = 0;
    device->asked = false;
    if (ready == 1 && client_receive(device->connection, WIRE_FOCUS_READ, device->number, stats,
                                     nullptr, &error) == 0)
        return (int)error;
    if (ready != 1)
        client_lost();
    device->dead = true;
    return EIO;
}

static int read_focus(Device *device, void *argument)
{
    WireFocusStats stats;
    const int error = take_measurement(device, device->waits ? CLIENT_TIMEOUT_MS : 0, &stats);
    if (error == EIO && device->dead)
        usleep(LOST_CAMERA_PAUSE_US);
    return error ? error : copy(&stats, argument, sizeof stats) ? 0 : errno;
}

static int configure_focus(Device *device, const void *argument)
{
    WireFocusConfig config;
    if (!copy(argument, &config, sizeof config))
        return errno;
    while (device->asked) { // measured with the window before
        WireFocusStats ignored;
        (void)take_measurement(device, CLIENT_TIMEOUT_MS, &ignored);
    }
    uint32_t error = 0;
    if (device->dead || client_call(device->connection, WIRE_FOCUS_CONFIG, &config, nullptr,
                                    nullptr, &error) != 0) {
        device->dead = true;
        return EIO;
    }
    return (int)error;
}

static int device_ioctl(Device *device, uint32_t request, void *argument)
{
    if (request != CAM_FOCUS_READ && request != CAM_FOCUS_CONFIG) {
        errno = ENOTTY;
        return -1;
    }
    pthread_mutex_lock(&device->lock);
    const int error = request == CAM_FOCUS_READ ? read_focus(device, argument)
                                                : configure_focus(device, argument);
    pthread_mutex_unlock(&device->lock);
    if (error == 0)
        return 0;
    errno = error;
    return -1;
}

// What poll() waits for is the answer to a read, so one is sent for each device in the list.
static void prepare_poll(const pollfd *entries, nfds_t count)
{
    for (nfds_t i = 0; i < count; i++) {
        Device *device = entries[i].events & POLLIN ? device_take(entries[i].fd) : nullptr;
        if (!device)
            continue;
        if (pthread_mutex_trylock(&device->lock) == 0) { // else a read is under way
            (void)ask_measurement(device);
            pthread_mutex_unlock(&device->lock);
        }
        device_release(device);
    }
}

// ---- paths

// Gives the path to use in place of path: itself, or buffer with the path inside the run directory.
// Null with errno ENOENT where there is no run directory: the machine's own files stay out of it.
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

EXPORT FILE *fopen(const char *path, const char *mode)
{
    static FILE *(*slot)(const char *, const char *);
    char buffer[PATH_MAX];
    const char *place = mapped(path, buffer, sizeof buffer);
    return place ? next(&slot, "fopen")(place, mode) : nullptr;
}

EXPORT FILE *fopen64(const char *path, const char *mode)
{
    static FILE *(*slot)(const char *, const char *);
    char buffer[PATH_MAX];
    const char *place = mapped(path, buffer, sizeof buffer);
    return place ? next(&slot, "fopen64")(place, mode) : nullptr;
}

using IoctlFunction = int(int, unsigned long, ...);

static int ioctl_any(IoctlFunction **slot, const char *name, int fd, unsigned long request,
                     void *argument)
{
    Device *device = device_take(fd);
    if (device) { // a request given as a negative int arrives sign-extended
        const int result = device_ioctl(device, (uint32_t)request, argument);
        device_release(device);
        return result;
    }
    return next(slot, name)(fd, request, argument);
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

EXPORT ssize_t read(int fd, void *buffer, size_t size)
{
    static ssize_t (*slot)(int, void *, size_t);
    if (is_device_fd(fd)) {
        errno = EINVAL; // measurements are had by request only
        return -1;
    }
    return next(&slot, "read")(fd, buffer, size);
}

EXPORT int poll(pollfd *entries, nfds_t count, int timeout)
{
    prepare_poll(entries, count);
    return poll_next(entries, count, timeout);
}

// What poll becomes in programs built with fortified headers.
EXPORT int __poll_chk(pollfd *entries, nfds_t count, int timeout, size_t)
{
    return poll(entries, count, timeout);
}

EXPORT int close(int fd)
{
    static int (*slot)(int);
    Device *device = device_take(fd);
    if (device) {
        pthread_mutex_lock(&table_lock);
        device->fd = 0;
        pthread_mutex_unlock(&table_lock);
        device_release(device);
    }
    return next(&slot, "close")(fd);
}

static void show_as_device(int fd, int result, mode_t *mode, dev_t *kind)
{
    if (result == 0 && is_device_fd(fd)) {
        *mode = S_IFCHR | 0600;
        *kind = makedev(240, 0);
    }
}

EXPORT int fstat(int fd, struct stat *status)
{
    static int (*slot)(int, struct stat *);
    const int result = next(&slot, "fstat")(fd, status);
    show_as_device(fd, result, &status->st_mode, &status->st_rdev);
    return result;
}

EXPORT int fstat64(int fd, struct stat64 *status)
{
    static int (*slot)(int, struct stat64 *);
    const int result = next(&slot, "fstat64")(fd, status);
    show_as_device(fd, result, &status->st_mode, &status->st_rdev);
    return result;
}

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

// What fstat is called in programs with 64-bit time on 32-bit machines.
EXPORT int __fstat64_time64(int fd, StatTime64 *status)
{
    static int (*slot)(int, StatTime64 *);
    const int result = next(&slot, "__fstat64_time64")(fd, status);
    show_as_device(fd, result, &status->st_mode, &status->st_rdev);
    return result;
}
#endif

// ---- output

// Lets what the program prints be seen as it is printed, where simcam collects it from a pipe.
__attribute__((constructor)) static void unbuffer()
{
    if (getenv("SIMCAM_UNBUFFERED"))
        setvbuf(stdout, nullptr, _IONBF, 0);
}
