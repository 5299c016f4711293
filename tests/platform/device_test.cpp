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
#include <sys/time.h>
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
    claim("a read after them succeeds", measure(fd));
    munmap(page, 4096);
}

static void test_requests(int fd)
{
    uint8_t bytes[244] = {};
    claim("ENOTTY for another request", fails(ioctl(fd, 0x80047002ul, bytes), ENOTTY));
    claim("EINVAL for a plain read", fails((int)read(fd, bytes, sizeof bytes), EINVAL));
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
    test_signals(fd);
    test_poll(fd);
    test_nonblocking();
    test_several(fd);
    test_close_while_reading();
    close(fd);
    return failures;
}
