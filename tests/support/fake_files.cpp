#include "fake_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static FakeFiles *active;

FakeFiles::FakeFiles()
{
    if (active)
        throw std::logic_error("a second FakeFiles");
    active = this;
}

FakeFiles::~FakeFiles()
{
    active = nullptr;
}

void FakeFiles::put(const std::string &path, const std::vector<uint8_t> &bytes)
{
    files[path] = {bytes, 0};
}

void FakeFiles::fail_open(const std::string &path, int error)
{
    files[path] = {{}, error};
}

extern "C" {

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...);
int __real_fstat(int descriptor, struct stat *status);
int __wrap_fstat(int descriptor, struct stat *status);
ssize_t __real_read(int descriptor, void *buffer, size_t bytes);
ssize_t __wrap_read(int descriptor, void *buffer, size_t bytes);
int __real_close(int descriptor);
int __wrap_close(int descriptor);

int __wrap_open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (!active || active->files.count(path) == 0)
        return __real_open(path, flags, mode);

    active->calls.push_back("open(" + std::string(path) + ", " + std::to_string(flags) + ")");
    const FakeFiles::File &file = active->files[path];
    if (file.open_error != 0) {
        errno = file.open_error;
        return -1;
    }
    const int descriptor = memfd_create("fake", MFD_CLOEXEC);
    if (descriptor < 0 ||
        write(descriptor, file.bytes.data(), file.bytes.size()) != (ssize_t)file.bytes.size() ||
        lseek(descriptor, 0, SEEK_SET) != 0)
        throw std::runtime_error("cannot lay down a file");
    active->descriptors.insert(descriptor);
    return descriptor;
}

int __wrap_fstat(int descriptor, struct stat *status)
{
    if (!active || active->descriptors.count(descriptor) == 0)
        return __real_fstat(descriptor, status);

    active->calls.push_back("fstat");
    if (active->fstat_error) {
        errno = *active->fstat_error;
        return -1;
    }
    const int result = __real_fstat(descriptor, status);
    if (active->fstat_size)
        status->st_size = (off_t)*active->fstat_size;
    return result;
}

ssize_t __wrap_read(int descriptor, void *buffer, size_t bytes)
{
    if (!active || active->descriptors.count(descriptor) == 0)
        return __real_read(descriptor, buffer, bytes);

    active->calls.push_back("read(" + std::to_string(bytes) + ")");
    if (active->read_error) {
        errno = *active->read_error;
        return -1;
    }
    if (active->read_at_most) {
        errno = 0;
        bytes = std::min<size_t>(bytes, *active->read_at_most);
    }
    return __real_read(descriptor, buffer, bytes);
}

int __wrap_close(int descriptor)
{
    if (active && active->descriptors.erase(descriptor) != 0) {
        active->calls.push_back("close");
        (void)__real_close(descriptor);
        errno = EBADF; // an earlier failure must not be reported with this code
        return 0;
    }
    return __real_close(descriptor);
}

} // extern "C"
