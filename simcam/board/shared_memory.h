// Memory shared with other processes: an anonymous file, sealed so that its size cannot change.
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

    // The memory.size bytes that clients use.
    uint8_t *bytes() const
    {
        return base + memory.offset;
    }
};

// Makes memory of size bytes, filled with junk that depends on seed. Returns false if the system
// has no memory left.
bool shared_memory_make(uint32_t size, uint64_t seed, SharedMemory *made);

} // namespace simcam
