// Tests the behavior of /dev/cam, whoever serves it: run under the preload object or in the guest
// of a whole emulated camera, in front of a running simulated camera. Prints a line for each claim;
// its exit status is the number of claims that do not hold.

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

constexpr unsigned long CAM_FOCUS_CONFIG = 0x405C7000;
constexpr unsigned long CAM_FOCUS_READ = 0x80F47001;

static int failures;

static void claim(const char *what, bool holds)
{
    const int code = errno;
    printf("%s: %s%s%s\n", holds ? "ok" : "FAILED", what, holds ? "" : ", errno ",
           holds ? "" : strerror(code));
    failures += holds ? 0 : 1;
}

static bool configure(int fd)
{
    uint32_t words[23] = {0x028004FF, 0x016802CF};
    return ioctl(fd, CAM_FOCUS_CONFIG, words) == 0;
}

static bool measure(int fd)
{
    uint8_t stats[244] = {};
    return ioctl(fd, CAM_FOCUS_READ, stats) == 0 && stats[0] == 0xA5;
}

static bool fails(int result, int error)
{
    return result == -1 && errno == error;
}

static int open_camera(int flags)
{
    return open("/dev/cam", O_RDWR | flags);
}

static void test_addresses(int fd)
{
    void *page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    claim("EFAULT for a configuration at a bad address",
          fails(ioctl(fd, CAM_FOCUS_CONFIG, page), EFAULT));
    claim("EFAULT for a read to a bad address", fails(ioctl(fd, CAM_FOCUS_READ, page), EFAULT));
    claim("EFAULT for a null pointer", fails(ioctl(fd, CAM_FOCUS_READ, nullptr), EFAULT));
    claim("EFAULT for poll at a bad address", fails(poll((pollfd *)page, 1, 0), EFAULT));
    claim("a read after them succeeds", measure(fd));
    munmap(page, 4096);
}

static void test_requests(int fd)
{
    uint8_t bytes[244] = {};
    claim("ENOTTY for another request", fails(ioctl(fd, 0x80047002ul, bytes), ENOTTY));
    claim("EINVAL for a plain read", fails((int)read(fd, bytes, sizeof bytes), EINVAL));
    claim("EINVAL for a plain write", fails((int)write(fd, bytes, sizeof bytes), EINVAL));
    iovec part = {bytes, sizeof bytes};
    claim("EINVAL for a vectored write", fails((int)writev(fd, &part, 1), EINVAL));
    claim("a read after the writes succeeds", measure(fd));
}

static bool is_device(const struct stat *status)
{
    return S_ISCHR(status->st_mode) && status->st_rdev != 0;
}

static void test_path(int fd)
{
    claim("access grants reading and writing", access("/dev/cam", R_OK | W_OK) == 0);
    claim("access refuses execution", fails(access("/dev/cam", X_OK), EACCES));
    claim("faccessat grants reading", faccessat(AT_FDCWD, "/dev/cam", R_OK, 0) == 0);
    struct stat named = {}, linked = {}, opened = {}, found = {};
    claim("stat shows a character device", stat("/dev/cam", &named) == 0 && is_device(&named));
    claim("lstat shows the same one",
          lstat("/dev/cam", &linked) == 0 && is_device(&linked) && linked.st_rdev == named.st_rdev);
    claim("fstat of an open one does, too",
          fstat(fd, &opened) == 0 && is_device(&opened) && opened.st_rdev == named.st_rdev);
    claim("fstatat of the open one does, too", fstatat(fd, "", &found, AT_EMPTY_PATH) == 0 &&
                                                   is_device(&found) &&
                                                   found.st_rdev == named.st_rdev);
    claim("EEXIST for an exclusive creation", fails(open_camera(O_CREAT | O_EXCL), EEXIST));
    claim("ENOTDIR for an open as a directory", fails(open_camera(O_DIRECTORY), ENOTDIR));
    const int other = openat(AT_FDCWD, "/dev/cam", O_RDWR);
    claim("openat opens it", other >= 0 && measure(other));
    close(other);
}

static void test_stream()
{
    FILE *stream = fopen("/dev/cam", "r+");
    claim("fopen opens it", stream != nullptr);
    if (!stream)
        return;
    setvbuf(stream, nullptr, _IONBF, 0);
    claim("a measurement is read from the stream's descriptor", measure(fileno(stream)));
    errno = 0;
    claim("EINVAL for reading the stream", fgetc(stream) == EOF && errno == EINVAL);
    errno = 0;
    claim("EINVAL for writing the stream", fputc('x', stream) == EOF && errno == EINVAL);
    claim("a measurement after them is read", measure(fileno(stream)));
    const int fd = fileno(stream);
    (void)fclose(stream); // its result depends on what the C library does with the failed write
    uint8_t stats[244];
    claim("EBADF after fclose", fails(ioctl(fd, CAM_FOCUS_READ, stats), EBADF));
}

static void test_duplicates()
{
    const int fd = open_camera(0);
    const int copies[] = {dup(fd), fcntl(fd, F_DUPFD, 100), dup2(fd, 110),
                          dup3(fd, 111, O_CLOEXEC)};
    bool all = true;
    for (const int copy : copies)
        all = all && measure(copy);
    claim("every kind of duplicate reads", all);
    claim("close of the first descriptor", close(fd) == 0);
    all = true;
    for (const int copy : copies)
        all = all && configure(copy) && measure(copy);
    claim("the duplicates read on", all);
    claim("fcntl has set the descriptor's flag", fcntl(copies[3], F_GETFD) == FD_CLOEXEC);
    for (const int copy : copies)
        close(copy);
    uint8_t stats[244];
    claim("EBADF once all are closed", fails(ioctl(copies[3], CAM_FOCUS_READ, stats), EBADF));

    const int file = open("/dev/null", O_RDONLY);
    const int over = open_camera(0);
    claim("dup2 of another file closes the device",
          dup2(file, over) == over && fails(ioctl(over, CAM_FOCUS_READ, stats), ENOTTY));
    close(over);
    close(file);
}

// Runs a part of a test in a child and returns whether it holds there.
static bool holds_in_child(bool (*part)(int), int fd)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(part(fd) ? 0 : 1);
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

static bool measure_twice(int fd)
{
    const bool first = measure(fd);
    return measure(fd) && first;
}

static bool wait_and_measure(int fd)
{
    pollfd entry = {fd, POLLIN, 0};
    return poll(&entry, 1, 5000) == 1 && measure(fd) && configure(dup(fd));
}

static bool close_only(int fd)
{
    uint8_t stats[244];
    return close(fd) == 0 && fails(ioctl(fd, CAM_FOCUS_READ, stats), EBADF);
}

static bool open_another(int)
{
    const int fd = open_camera(0);
    return configure(fd) && measure(fd);
}

static bool keeps_flags(int fd)
{
    pollfd entry = {fd, POLLIN, 0};
    return poll(&entry, 1, 5000) == 1 && measure(fd) && (fcntl(fd, F_GETFL) & O_NONBLOCK) &&
           fcntl(fd, F_GETFD) == FD_CLOEXEC;
}

static bool keeps_no_flags(int fd)
{
    return measure(fd) && !(fcntl(fd, F_GETFL) & O_NONBLOCK) && fcntl(fd, F_GETFD) == 0;
}

static void test_flags_after_fork()
{
    const int set = open_camera(O_NONBLOCK), clear = open_camera(0);
    fcntl(set, F_SETFD, FD_CLOEXEC);
    fcntl(clear, F_SETFD, 0);
    claim("a child's descriptor keeps O_NONBLOCK and FD_CLOEXEC", holds_in_child(keeps_flags, set));
    claim("or their absence", holds_in_child(keeps_no_flags, clear));
    close(set);
    close(clear);
}

static void test_fork(int fd)
{
    claim("a child reads the parent's device", holds_in_child(measure_twice, fd));
    claim("the parent reads on after the child's end", measure(fd));
    claim("poll, duplicate and configuration work in a child",
          holds_in_child(wait_and_measure, fd));
    claim("a close in a child", holds_in_child(close_only, fd));
    claim("the parent reads on after that close", measure(fd));
    claim("a child opens the device itself", holds_in_child(open_another, fd));
    claim("the parent reads on after that", measure(fd));

    const pid_t child = fork();
    if (child == 0) {
        for (int i = 0; i < 10; i++)
            if (!measure(fd))
                _exit(1);
        _exit(0);
    }
    bool all = true;
    for (int i = 0; i < 10; i++)
        all = measure(fd) && all;
    int status = -1;
    waitpid(child, &status, 0);
    claim("parent and child read at the same time", all && status == 0);
}

static void ignore(int)
{
}

static void test_signals(int fd)
{
    struct sigaction action = {};
    action.sa_handler = ignore;
    sigaction(SIGALRM, &action, nullptr);
    bool interrupted = false;
    for (int tries = 0; tries < 50 && !interrupted; tries++) {
        measure(fd); // the next one is a thirtieth of a second away
        itimerval timer = {};
        timer.it_value.tv_usec = 3000 + 500 * tries;
        setitimer(ITIMER_REAL, &timer, nullptr);
        uint8_t stats[244];
        interrupted = fails(ioctl(fd, CAM_FOCUS_READ, stats), EINTR);
        timer.it_value.tv_usec = 0;
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    claim("EINTR for a signal while a read waits", interrupted);
    claim("a read after it succeeds", measure(fd));
}

static void test_nonblocking()
{
    const int fd = open_camera(O_NONBLOCK);
    claim("open with O_NONBLOCK", fd >= 0);
    bool again = false;
    for (int tries = 0; tries < 50 && !again; tries++)
        again = !measure(fd) && errno == EAGAIN;
    claim("EAGAIN where there is no new measurement", again);
    pollfd entry = {fd, POLLIN, 0};
    claim("poll reports the next measurement",
          poll(&entry, 1, 5000) == 1 && (entry.revents & POLLIN));
    claim("which is then read without waiting", measure(fd));
    close(fd);
}

static void test_poll(int fd)
{
    measure(fd);
    pollfd entry = {fd, POLLIN, 0};
    claim("poll waits for a measurement of a blocking open",
          poll(&entry, 1, 5000) == 1 && (entry.revents & POLLIN));
    claim("which is then read", measure(fd));
}

static void test_several(int fd)
{
    const int other = open_camera(0);
    claim("a second open", other >= 0);
    claim("both read", measure(fd) && measure(other) && measure(fd) && measure(other));
    claim("close of the second", close(other) == 0);
    claim("the first reads on", measure(fd));
}

static int shared;
static int results[2];

static void *read_in_thread(void *)
{
    for (int i = 0; i < 1000; i++)
        if (!measure(shared)) {
            results[0] = errno;
            return nullptr;
        }
    return nullptr;
}

static void test_close_while_reading()
{
    shared = open_camera(0);
    pthread_t thread;
    pthread_create(&thread, nullptr, read_in_thread, nullptr);
    usleep(100000);
    claim("close while another thread reads", close(shared) == 0);
    timespec end;
    clock_gettime(CLOCK_REALTIME, &end);
    end.tv_sec += 10;
    claim("the thread's read ends", pthread_timedjoin_np(thread, nullptr, &end) == 0);
    claim("its next one fails with EBADF", results[0] == EBADF);
    const int fd = open_camera(0);
    claim("the device opens again", fd >= 0 && measure(fd));
    close(fd);
    uint8_t stats[244];
    claim("EBADF after the close", fails(ioctl(fd, CAM_FOCUS_READ, stats), EBADF));
}

static void *read_until_canceled(void *)
{
    for (;;) {
        measure(shared);
        pthread_testcancel();
    }
    return nullptr;
}

static void test_cancellation(int fd)
{
    shared = fd;
    pthread_t thread;
    pthread_create(&thread, nullptr, read_until_canceled, nullptr);
    usleep(100000);
    pthread_cancel(thread);
    claim("a reading thread ends once canceled", pthread_join(thread, nullptr) == 0);
    claim("the device can be read after that", measure(fd));
}

static void test_few_descriptors()
{
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few = {32, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    const int fd = open_camera(0);
    claim("the device opens where 32 descriptors are allowed", fd >= 0 && measure(fd));
    close(fd);
    setrlimit(RLIMIT_NOFILE, &before);
}

static void test_without_free_descriptors(int fd)
{
    const int copies[] = {dup(fd), dup(fd)};
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    claim("close of a duplicate while no descriptor is free", close(copies[0]) == 0);
    setrlimit(RLIMIT_NOFILE, &before);
    claim("the other duplicate reads on", measure(copies[1]));
    close(copies[1]);
    claim("so does the first descriptor", measure(fd));
}

// Ends every open device.
static void test_close_range()
{
    const int before = open_camera(0);
    claim("close_range of all descriptors", close_range(3, 1000, 0) == 0);
    uint8_t stats[244];
    claim("EBADF after it", fails(ioctl(before, CAM_FOCUS_READ, stats), EBADF));
    const int fd = open_camera(0);
    claim("an open after it can be read", fd >= 0 && measure(fd));
    claim("so can a second open", measure(open_camera(0)));
    claim("the first reads on", measure(fd));
    // More opens than the driver's substitute has places for.
    bool all = true;
    for (int i = 0; i < 20; i++) {
        close_range(3, 1000, 0);
        const int file = open("/dev/null", O_RDONLY);
        all = measure(open_camera(0)) && fcntl(file, F_GETFD) == 0 && all;
    }
    claim("20 times close_range and open", all);
    // A file of the program in place of everything that was open.
    for (int i = 3; i < 100; i++)
        dup2(STDOUT_FILENO, i);
    const int last = open_camera(0);
    claim("an open after dup2 over all descriptors can be read", measure(last));
    all = true;
    for (int i = 3; i < 100; i++)
        all = fcntl(i, F_GETFD) >= 0 && all;
    claim("it closes none of them", all);
    close_range(3, 1000, 0);
}

int main()
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int fd = open_camera(0);
    claim("open", fd >= 0);
    if (fd < 0)
        return failures;
    claim("configure", configure(fd));
    claim("read", measure(fd));
    test_addresses(fd);
    test_requests(fd);
    test_path(fd);
    test_stream();
    test_duplicates();
    test_fork(fd);
    test_flags_after_fork();
    test_signals(fd);
    test_poll(fd);
    test_nonblocking();
    test_several(fd);
    test_close_while_reading();
    test_cancellation(fd);
    test_few_descriptors();
    test_without_free_descriptors(fd);
    close(fd);
    test_close_range();
    return failures;
}
