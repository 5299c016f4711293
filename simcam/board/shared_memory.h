// Memory that is lent to other processes: anonymous, of a size that nobody can change any more.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wire.h"

namespace simcam
{

struct SharedMemory {
    int fd = -1;
    uint8_t *base = nullptr;
    WireMemory memory{};

    SharedMemory() = default;
    SharedMemory(SharedMemory &&other) noexcept;
    SharedMemory &operator=(SharedMemory &&other) noexcept;
    ~SharedMemory();

    // The bytes that are lent, memory.size of them.
    uint8_t *bytes() const
    {
        return base + memory.offset;
    }
};

// Makes memory of size bytes, full of junk that depends on seed. False where the system has none.
bool shared_memory_make(uint32_t size, uint64_t seed, SharedMemory *made);

} // namespace simcam
