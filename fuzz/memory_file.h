// A file in memory that can be opened by its path while this object exists.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

// Bypasses the wrapper, which records the program's calls only.
extern "C" int __real_close(int file);

struct MemoryFile {
    int file;

    MemoryFile(const uint8_t *data, size_t size) : file(memfd_create("input", 0))
    {
        for (size_t done = 0; done < size;) {
            const ssize_t bytes = write(file, data + done, size - done);
            if (bytes <= 0)
                break;
            done += (size_t)bytes;
        }
    }
    ~MemoryFile()
    {
        __real_close(file);
    }
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;

    std::string path() const
    {
        return "/proc/self/fd/" + std::to_string(file);
    }
};
