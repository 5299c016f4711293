// The open files of the device.
//
// Each open of the device makes a connection to simcam and an epoll instance that watches this
// connection. The program gets the descriptor of the epoll instance, for three reasons:
// - read and write on it fail with EINVAL, as on a device without these operations;
// - poll works: the epoll instance is readable whenever the connection is;
// - EPOLL_CTL_MOD of the connection succeeds on this epoll instance only. This tells which device a
//   descriptor belongs to, even one made by dup.

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include "device.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "c_library.h"
#include "client/client.h"

constexpr uint32_t CAM_FOCUS_CONFIG = 0x405C7000;
constexpr uint32_t CAM_FOCUS_READ = 0x80F47001;

// Duration of a read without a camera: programs read in a loop that only the device slows down.
constexpr useconds_t LOST_CAMERA_PAUSE_US = 33333;

// ---- descriptors

constexpr int DEVICE_COUNT = 16;

// An open file of the device; several descriptors may refer to it.
struct Device {
    uint64_t inode;       // of the connection
    int connection;       // 0: unused
    int users;            // calls under way
    bool closed;          // no descriptor refers to it any more
    pid_t process;        // that made the connection
    bool dead;            // this and the following fields are guarded by lock
    bool asked;           // a measurement is under way that no call has taken yet
    uint32_t number;      // of that request
    pthread_mutex_t lock; // held during a request
};

// Guards inode, connection, users, closed of all devices, and process. May be taken while a
// device's lock is held, not the other way round. Recursive: fork holds it while it runs the
// handlers of other libraries, which may close files.
static pthread_mutex_t table_lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
static Device devices[DEVICE_COUNT];
static bool table_used; // false spares processes without a device the lock
// The owner of this memory; set before table_used. It differs from getpid() between vfork and exec,
// where the table must not change, and in the child of a fork until after_fork_in_child has run,
// where table_lock is still held.
static pid_t process;

// Disables the cancellation of the calling thread, which would leave locks held. Returns the state
// to restore.
static int disable_cancellation()
{
    int before = 0;
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    return before;
}

static void restore_cancellation(int before)
{
    (void)pthread_setcancelstate(before, nullptr);
}

// Returns the device that fd refers to, or null. Preserves errno. The caller holds table_lock.
static Device *device_find(int fd)
{
    const int code = errno;
    Device *found = nullptr;
    for (Device &device : devices) {
        if (device.connection == 0 || device.closed)
            continue;
        epoll_event event = {EPOLLIN, {}};
        if (epoll_ctl(fd, EPOLL_CTL_MOD, device.connection, &event) == 0)
            found = &device;
        if (found || errno == EINVAL) // EINVAL: no epoll instance, so no device
            break;
    }
    errno = code;
    return found;
}

// Returns the device that fd refers to and counts a user of it; null for other files.
static Device *device_take(int fd)
{
    if (!__atomic_load_n(&table_used, __ATOMIC_ACQUIRE) || process != getpid())
        return nullptr;
    pthread_mutex_lock(&table_lock);
    Device *found = device_find(fd);
    if (found)
        found->users++;
    pthread_mutex_unlock(&table_lock);
    return found;
}

// The inode number of a socket, unique among the open ones; 0 for everything else.
static uint64_t socket_inode(int fd)
{
    struct statx status = {};
    const bool known = statx_next(fd, "", AT_EMPTY_PATH, STATX_TYPE | STATX_INO, &status) == 0;
    return known && S_ISSOCK(status.stx_mode) ? status.stx_ino : 0;
}

// Closes the device's connection unless the program has closed it by number and its descriptor is
// unused or another file. Preserves errno.
static void close_connection(const Device *device)
{
    const int code = errno;
    if (socket_inode(device->connection) == device->inode)
        close_next(device->connection);
    errno = code;
}

// Ends the connection of a closed device. The caller holds table_lock.
static void device_end(Device *device)
{
    if (!device->closed || device->users > 0)
        return;
    close_connection(device);
    device->connection = 0;
}

static void device_release(Device *device)
{
    pthread_mutex_lock(&table_lock);
    device->users--;
    device_end(device);
    pthread_mutex_unlock(&table_lock);
}

bool device_is(int fd)
{
    Device *device = device_take(fd);
    if (device)
        device_release(device);
    return device != nullptr;
}

// Counts the descriptors of the device; returns -1 if they cannot be listed. Makes all of them
// refer to replacement unless it is -1. The caller holds table_lock.
static int device_descriptors(const Device *device, int replacement)
{
    DIR *list = opendir("/proc/self/fd");
    if (!list)
        return -1;
    int count = 0;
    for (const dirent64 *entry; (entry = readdir64(list));) {
        char *end = nullptr;
        const int fd = (int)strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || device_find(fd) != device)
            continue;
        count++;
        if (replacement < 0)
            continue;
        (void)fcntl(replacement, F_SETFL, fcntl(fd, F_GETFL) & O_NONBLOCK);
        (void)dup3(replacement, fd, fcntl(fd, F_GETFD) & FD_CLOEXEC ? O_CLOEXEC : 0);
    }
    closedir(list);
    return count;
}

void device_close_unused()
{
    const int code = errno;
    const int cancellation = disable_cancellation();
    pthread_mutex_lock(&table_lock);
    for (Device &device : devices) {
        if (device.connection == 0)
            continue;
        device.closed = device.closed || device_descriptors(&device, -1) == 0;
        device_end(&device);
    }
    pthread_mutex_unlock(&table_lock);
    restore_cancellation(cancellation);
    errno = code;
}

// Keeps other threads from changing the table during a fork.
static void before_fork()
{
    pthread_mutex_lock(&table_lock);
}

static void after_fork_in_parent()
{
    pthread_mutex_unlock(&table_lock);
}

// The child has one thread: calls in progress in other threads do not continue in it.
static void after_fork_in_child()
{
    table_lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    process = getpid();
    for (Device &device : devices) {
        device.lock = PTHREAD_MUTEX_INITIALIZER;
        device.users = 0;
    }
}

// Opens the camera: a connection and the epoll instance that holds it. Returns 0 or an errno
// number.
static int connect_device(int *fd, int *connection)
{
    // Programs choose the low descriptor numbers themselves: used only if the limit is low.
    constexpr int FIRST_NUMBER = 64, FIRST_LOW_NUMBER = 3;
    *connection = -1;
    *fd = epoll_create1(EPOLL_CLOEXEC);
    if (*fd < 0)
        return errno;
    uint32_t error = 0;
    const int low = client_connect();
    epoll_event event = {EPOLLIN, {}};
    if (low < 0)
        error = ENOENT;
    else if (client_call(low, WIRE_DEVICE_OPEN, nullptr, nullptr, nullptr, &error) != 0)
        error = EIO;
    else if (error == 0 && (((*connection = fcntl(low, F_DUPFD_CLOEXEC, FIRST_NUMBER)) < 0 &&
                             (*connection = fcntl(low, F_DUPFD_CLOEXEC, FIRST_LOW_NUMBER)) < 0) ||
                            epoll_ctl(*fd, EPOLL_CTL_ADD, *connection, &event) != 0))
        error = EMFILE;
    if (low >= 0)
        close_next(low);
    if (error == 0)
        return 0;
    if (*connection >= 0)
        close_next(*connection);
    close_next(*fd);
    return (int)error;
}

// Gives the device a connection of this process if it was inherited by a fork: two processes cannot
// share one. The caller holds the device's lock.
static void connect_inherited(Device *device)
{
    if (device->process == process)
        return;
    device->process = process;
    device->asked = false;
    int fd = -1, connection = -1;
    device->dead = connect_device(&fd, &connection) != 0;
    if (device->dead)
        return;
    pthread_mutex_lock(&table_lock);
    (void)device_descriptors(device, fd);
    close_connection(device);
    device->connection = connection;
    device->inode = socket_inode(connection);
    pthread_mutex_unlock(&table_lock);
    close_next(fd);
}

int device_open(int flags)
{
    const int refusal = (flags & O_CREAT) && (flags & O_EXCL) ? EEXIST
                        : flags & O_DIRECTORY                 ? ENOTDIR
                                                              : 0;
    // First, because a connection that the program closed by number would pass for the new one if
    // both had the same number.
    device_close_unused();
    int fd = -1, connection = -1;
    const int error = refusal ? refusal : connect_device(&fd, &connection);
    if (error) {
        errno = error;
        return -1;
    }
    if (flags & O_NONBLOCK)
        (void)fcntl(fd, F_SETFL, O_NONBLOCK);

    bool placed = false;
    pthread_mutex_lock(&table_lock);
    if (process == 0) { // the first device
        process = getpid();
        // Fails only for lack of memory.
        (void)pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    }
    for (Device &device : devices) {
        if (device.connection != 0)
            continue;
        device.connection = connection;
        device.inode = socket_inode(connection);
        device.process = process;
        device.closed = device.dead = device.asked = false; // not in use yet: needs no device.lock
        __atomic_store_n(&table_used, true, __ATOMIC_RELEASE);
        placed = true;
        break;
    }
    pthread_mutex_unlock(&table_lock);
    if (placed)
        return fd;
    close_next(connection);
    close_next(fd);
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
    close_next(ends[0]);
    close_next(ends[1]);
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

static int read_focus(Device *device, bool waits, void *argument)
{
    WireFocusStats stats;
    const int error = take_measurement(device, waits ? CLIENT_TIMEOUT_MS : 0, &stats);
    if (error == EIO && device->dead)
        usleep(LOST_CAMERA_PAUSE_US);
    return error ? error : copy(&stats, argument, sizeof stats) ? 0 : errno;
}

static int configure_focus(Device *device, const void *argument)
{
    WireFocusConfig config;
    if (!copy(argument, &config, sizeof config))
        return errno;
    while (device->asked) { // discard: measured with the old window
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

static bool is_camera_request(uint32_t request)
{
    return request == CAM_FOCUS_READ || request == CAM_FOCUS_CONFIG;
}

static int serve_request(Device *device, bool waits, uint32_t request, void *argument)
{
    if (!is_camera_request(request)) {
        errno = ENOTTY;
        return -1;
    }
    pthread_mutex_lock(&device->lock);
    connect_inherited(device);
    const int error = request == CAM_FOCUS_READ ? read_focus(device, waits, argument)
                                                : configure_focus(device, argument);
    pthread_mutex_unlock(&device->lock);
    if (error == 0)
        return 0;
    errno = error;
    return -1;
}

bool device_ioctl(int fd, unsigned long request, void *argument, int *result)
{
    // The kernel serves these requests for every file.
    const bool general = request == FIONBIO || request == FIOCLEX || request == FIONCLEX;
    Device *device = general ? nullptr : device_take(fd);
    if (!device && !is_camera_request((uint32_t)request))
        return false;
    if (!device) { // answered here: an emulator refuses requests that it does not know
        *result = -1;
        if (fcntl(fd, F_GETFD) >= 0)
            errno = ENOTTY;
        return true;
    }
    const int cancellation = disable_cancellation();
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0) // closed by another thread; errno is EBADF
        *result = -1;
    else // a request given as a negative int arrives sign-extended
        *result = serve_request(device, !(flags & O_NONBLOCK), (uint32_t)request, argument);
    const int code = errno;
    device_release(device);
    restore_cancellation(cancellation);
    errno = code;
    return true;
}

void device_prepare_poll(pollfd *entries, nfds_t count)
{
    if (!__atomic_load_n(&table_used, __ATOMIC_ACQUIRE))
        return;
    // Fails for a bad address, which the program's own call then reports.
    if (poll_next(entries, count, 0) < 0 && errno != EINTR)
        return;
    const int cancellation = disable_cancellation();
    for (nfds_t i = 0; i < count; i++) {
        Device *device = entries[i].events & POLLIN ? device_take(entries[i].fd) : nullptr;
        if (!device)
            continue;
        if (pthread_mutex_trylock(&device->lock) == 0) { // else a read is under way
            connect_inherited(device);
            (void)ask_measurement(device);
            pthread_mutex_unlock(&device->lock);
        }
        device_release(device);
    }
    restore_cancellation(cancellation);
}
