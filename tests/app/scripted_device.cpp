// Preloaded into the process under test: finds the camera's fixed paths under $SCRIPT_ROOT, and
// answers the requests of /dev/cam with the raw values 5000, 9000, 9000 ... The opening of the
// device and its configuration are lines of $SCRIPT_ROOT/device. With $SCRIPT_NO_THREAD no thread
// can be created.

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <unistd.h>

static std::atomic<int> camera = -1;

template <typename Function> static Function *next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

static std::string root()
{
    return getenv("SCRIPT_ROOT");
}

static std::string mapped(const char *path)
{
    for (const char *prefix : {"/dev/cam", "/var/run/", "/usr/local/morvel/"}) {
        if (strncmp(path, prefix, strlen(prefix)) == 0)
            return root() + path;
    }
    return path;
}

static void note(const std::string &line)
{
    FILE *file = fopen((root() + "/device").c_str(), "a");
    fprintf(file, "%s\n", line.c_str());
    fclose(file);
}

static int open_mapped(const char *function, const char *path, int flags, mode_t mode)
{
    const int descriptor =
        next<int(const char *, int, ...)>(function)(mapped(path).c_str(), flags, mode);
    if (strcmp(path, "/dev/cam") == 0) {
        const int error = errno;
        note("open " + std::to_string(flags));
        camera = descriptor;
        errno = error;
    }
    return descriptor;
}

extern "C" {

int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return open_mapped("open", path, flags, mode);
}

int open64(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return open_mapped("open64", path, flags, mode);
}

int ioctl(int device, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    uint8_t *record = va_arg(arguments, uint8_t *);
    va_end(arguments);
    if (device != camera)
        return next<int(int, unsigned long, void *)>("ioctl")(device, request, record);

    if (request == 0x405C7000) {
        std::string line = "configure";
        for (int i = 0; i < 92; i++) {
            char byte[4];
            snprintf(byte, sizeof byte, " %02x", record[i]);
            line += byte;
        }
        note(line);
        return 0;
    }
    if (request == 0x80F47001) {
        static uint32_t raw = 5000;
        memcpy(record + 64, &raw, sizeof raw);
        raw = 9000;
        usleep(1000);
        return 0;
    }
    note("unknown request");
    errno = ENOTTY;
    return -1;
}

int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *),
                   void *argument) noexcept
{
    if (getenv("SCRIPT_NO_THREAD"))
        return EAGAIN;
    return next<decltype(pthread_create)>("pthread_create")(thread, attributes, entry, argument);
}

} // extern "C"
