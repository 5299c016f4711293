// Memory between guards: an unmapped page directly after its last byte (or before its first), and
// bytes of known value on the other side, up to the next page.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

enum class Guard { BEHIND, BEFORE }; // the side on which an unmapped page touches the memory

class GuardedMemory
{
  public:
    static constexpr uint8_t JUNK = 0xA5; // initial content of every byte

    explicit GuardedMemory(size_t size, Guard guard = Guard::BEHIND);
    ~GuardedMemory();
    GuardedMemory(const GuardedMemory &) = delete;
    GuardedMemory &operator=(const GuardedMemory &) = delete;

    uint8_t *data() const;
    size_t size() const;
    std::vector<uint8_t> bytes() const; // a copy
    void fill_with_junk();

    // Whether the bytes of known value are unchanged.
    bool surroundings_are_whole() const;

  private:
    uint8_t *pages;
    size_t page_bytes; // all of the mapping
    uint8_t *memory;
    size_t memory_size;
};
