// Executes the actions given as arguments on the camera device and the fixed paths, in order, and
// prints "ACTION RESULT ERRNO" for each; errno is 0 after success.

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "codec/qm7codec.h"

#ifdef PROBE_TIME_BITS // built once with each kind of file sizes and times
static_assert(8 * sizeof(time_t) == PROBE_TIME_BITS && 8 * sizeof(off_t) == PROBE_TIME_BITS,
              "the probe is of the other kind");
#endif

static int camera = -1;

static uint32_t word_at(const uint8_t *bytes)
{
    uint32_t word;
    memcpy(&word, bytes, sizeof word);
    return word;
}

static int read_measurement(unsigned long request, uint32_t *raw)
{
    uint8_t stats[244] = {};
    const int result = ioctl(camera, request, stats);
    *raw = word_at(stats + 64);
    return result;
}

// Reads the first byte of a file with open; -1 if it cannot be opened.
static int first_byte(const char *path)
{
    const int file = open(path, O_RDONLY);
    uint8_t byte = 0;
    if (file < 0 || read(file, &byte, 1) != 1)
        return -1;
    close(file);
    return byte;
}

static int first_byte_of_stream(const char *path)
{
    FILE *file = fopen(path, "rb");
    if (!file)
        return -1;
    const int byte = fgetc(file);
    fclose(file);
    return byte;
}

static int write_file(const char *path)
{
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0640);
    const int result = file < 0 || write(file, "written", 7) != 7 ? -1 : 0;
    if (file >= 0)
        close(file);
    return result;
}

// Waits for a child for at most ten seconds. Returns 0 if it has ended with exit status 0.
static int wait_for_child(pid_t child)
{
    int status = -1;
    for (int waited_ms = 0; waited_ms < 10000; waited_ms++) {
        if (waitpid(child, &status, WNOHANG) == child)
            return status == 0 ? 0 : -1;
        usleep(1000);
    }
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return -1;
}

// Forks while other threads read the device and open and close duplicates of it.
static int fork_often()
{
    std::atomic<bool> ends = false;
    std::thread reader([&] {
        for (uint32_t raw = 0; !ends;)
            read_measurement(0x80F47001ul, &raw);
    });
    std::thread closer([&] {
        while (!ends)
            close(dup(camera));
    });
    int result = 0;
    for (int i = 0; i < 200 && result == 0; i++) {
        const pid_t child = fork();
        if (child == 0)
            _exit(0);
        result = wait_for_child(child);
    }
    ends = true;
    reader.join();
    closer.join();
    return result;
}

// Looks at the device as programs built with a C library before 2.33 do. Such a function exists for
// their sake only and has to be looked up.
static int old_stat(const char *name)
{
    struct stat status = {};
    void *function = dlsym(RTLD_DEFAULT, name);
    if (!function)
        return -2;
    const bool takes_descriptor = strncmp(name, "__fx", 4) == 0;
    const int result =
        takes_descriptor
            ? reinterpret_cast<int (*)(int, int, struct stat *)>(function)(1, camera, &status)
            : reinterpret_cast<int (*)(int, const char *, struct stat *)>(function)(1, "/dev/cam",
                                                                                    &status);
    return result == 0 && S_ISCHR(status.st_mode) ? 0 : -1;
}

// Returns the result; *extra is printed after it unless negative.
static int act(const std::string &action, const char *argument, long long *extra)
{
    uint32_t config[23] = {0x028004FF, 0x016802CF};
    uint32_t raw = 0;
    struct stat status = {};
    if (action == "open")
        return (camera = open("/dev/cam", O_RDWR)) < 0 ? -1 : 0;
    if (action == "open64")
        return (camera = open64("/dev/cam", O_RDWR)) < 0 ? -1 : 0;
    if (action == "openat")
        return (camera = openat(AT_FDCWD, "/dev/cam", O_RDWR)) < 0 ? -1 : 0;
    if (action == "config")
        return ioctl(camera, 0x405C7000ul, config);
    if (action == "read" || action == "read-negative") {
        // A request kept in an int arrives sign-extended on 64-bit machines.
        const int negative = static_cast<int>(0x80F47001u);
        const int result = read_measurement(
            action == "read" ? 0x80F47001ul : static_cast<unsigned long>(negative), &raw);
        *extra = raw;
        return result;
    }
    if (action == "set-nonblocking")
        return fcntl(camera, F_SETFL, O_NONBLOCK);
    if (action == "ioctl-other")
        return ioctl(camera, 0x80047002ul, config);
    if (action == "ioctl-null")
        return ioctl(camera, 0x80F47001ul, nullptr);
    if (action == "plain-read")
        return static_cast<int>(read(camera, config, sizeof config));
    if (action == "is-device")
        return fstat(camera, &status) == 0 && S_ISCHR(status.st_mode) ? 0 : -1;
    if (action == "old-stat")
        return old_stat(argument);
    if (action == "close")
        return close(camera);
    if (action == "byte")
        return first_byte(argument);
    if (action == "stream-byte")
        return first_byte_of_stream(argument);
    if (action == "access")
        return access(argument, R_OK);
    if (action == "create")
        return (camera = creat(argument, 0640)) < 0 ? -1 : close(camera);
    if (action == "write")
        return write_file(argument);
    if (action == "init")
        return qm7_cl_library_init();
    if (action == "fork-often")
        return fork_often();
    if (action == "wait-for")
        while (access(argument, F_OK) != 0)
            usleep(10000);
    return 0;
}

int main(int count, char **arguments)
{
    for (int i = 1; i < count; i++) {
        const std::string action = arguments[i];
        const bool takes_path = action == "byte" || action == "stream-byte" || action == "write" ||
                                action == "wait-for" || action == "access" || action == "create" ||
                                action == "old-stat";
        long long extra = -1;
        errno = 0;
        const int result = act(action, takes_path ? arguments[++i] : nullptr, &extra);
        printf("%s %d %d", action.c_str(), result, result < 0 ? errno : 0);
        if (extra >= 0)
            printf(" %lld", extra);
        printf("\n");
        fflush(stdout);
    }
    return 0;
}
