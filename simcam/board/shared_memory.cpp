// Sealed memory files.

#include "board/shared_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace simcam
{

SharedMemory::SharedMemory(SharedMemory &&other) noexcept
    : fd(std::exchange(other.fd, -1)), base(std::exchange(other.base, nullptr)),
      memory(std::exchange(other.memory, {}))
{
}

SharedMemory &SharedMemory::operator=(SharedMemory &&other) noexcept
{
    std::swap(fd, other.fd);
    std::swap(base, other.base);
    std::swap(memory, other.memory);
    return *this;
}

SharedMemory::~SharedMemory()
{
    if (base)
        munmap(base, memory.map_size);
    if (fd >= 0)
        close(fd);
}

bool shared_memory_make(uint32_t size, uint64_t seed, SharedMemory *made)
{
    SharedMemory next;
    const uint32_t pages = (size + WIRE_PAGE - 1) / WIRE_PAGE;
    next.memory.map_size = (pages ? pages : 1) * WIRE_PAGE;
    next.memory.size = size;
    next.memory.offset = next.memory.map_size - size;

    next.fd = memfd_create("simcam", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (next.fd < 0 || ftruncate(next.fd, next.memory.map_size) != 0)
        return false;
    // If a client could shrink it, simcam would crash on its next read.
    if (fcntl(next.fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0)
        return false;
    void *base =
        mmap(nullptr, next.memory.map_size, PROT_READ | PROT_WRITE, MAP_SHARED, next.fd, 0);
    if (base == MAP_FAILED)
        return false;
    next.base = static_cast<uint8_t *>(base);

    uint64_t state = seed * 0x9E3779B97F4A7C15u + 0xD1B54A32D192ED03u;
    for (uint32_t i = 0; i < next.memory.map_size; i++) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        next.base[i] = static_cast<uint8_t>(state >> 32) | 1; // never zero
    }
    *made = std::move(next);
    return true;
}

} // namespace simcam
