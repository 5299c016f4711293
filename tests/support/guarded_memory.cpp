#include "guarded_memory.h"

#include <algorithm>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

static constexpr uint8_t SURROUNDINGS = 0xC3;

#if defined __arm__ && defined __SANITIZE_ADDRESS__
// The address sanitizer of 32-bit ARM covers 3 GiB of addresses, but the user-mode emulator first
// hands out addresses of the fourth. This mapping takes the fourth, and the last page of the third
// as well, since the sanitizer also looks at the address after freed memory.
static const void *const fourth_gigabyte =
    mmap((void *)0xBFFFF000u, 0x3FFF1000u, PROT_NONE,
         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
#endif

static size_t page_size()
{
    return (size_t)sysconf(_SC_PAGESIZE);
}

// Mappings to use again, inaccessible until then: a fuzzer makes and drops thousands a second, and
// the kernel clears each page of a new one.
static constexpr size_t SPARES = 32;
static constexpr size_t SPARE_BYTES = 1u << 20;
struct Spare {
    uint8_t *pages;
    size_t bytes;
};
static thread_local Spare spares[SPARES];
static thread_local size_t next_spare;

static uint8_t *take_spare(size_t bytes)
{
    for (Spare &spare : spares) {
        if (spare.pages && spare.bytes == bytes) {
            uint8_t *const pages = spare.pages;
            spare = {};
            return pages;
        }
    }
    return nullptr;
}

GuardedMemory::GuardedMemory(size_t size, Guard guard) : memory_size(size)
{
    const size_t page = page_size();
    const size_t inner = (size + page - 1) / page * page;
    page_bytes = inner + 2 * page;

    pages = take_spare(page_bytes);
    if (!pages) {
        void *mapping = mmap(nullptr, page_bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapping == MAP_FAILED)
            throw std::runtime_error("mmap");
        pages = (uint8_t *)mapping;
    }
    if (inner > 0 && mprotect(pages + page, inner, PROT_READ | PROT_WRITE) != 0)
        throw std::runtime_error("mprotect");

    std::fill_n(pages + page, inner, SURROUNDINGS);
    memory = pages + page + (guard == Guard::BEHIND ? inner - size : 0);
    fill_with_junk();
}

GuardedMemory::~GuardedMemory()
{
    Spare &spare = spares[next_spare++ % SPARES];
    if (page_bytes > SPARE_BYTES || mprotect(pages, page_bytes, PROT_NONE) != 0) {
        munmap(pages, page_bytes);
        return;
    }
    if (spare.pages)
        munmap(spare.pages, spare.bytes);
    spare = {pages, page_bytes};
}

uint8_t *GuardedMemory::data() const
{
    return memory;
}

size_t GuardedMemory::size() const
{
    return memory_size;
}

std::vector<uint8_t> GuardedMemory::bytes() const
{
    return {memory, memory + memory_size};
}

void GuardedMemory::fill_with_junk()
{
    std::fill_n(memory, memory_size, JUNK);
}

bool GuardedMemory::surroundings_are_whole() const
{
    const uint8_t *begin = pages + page_size();
    const uint8_t *end = pages + page_bytes - page_size();
    const auto whole = [](uint8_t byte) { return byte == SURROUNDINGS; };
    return std::all_of(begin, (const uint8_t *)memory, whole) &&
           std::all_of((const uint8_t *)memory + memory_size, end, whole);
}
