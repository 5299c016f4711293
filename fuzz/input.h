// Reads values from the front of an input; past its end, every byte is zero.
#pragma once

#include <cstddef>
#include <cstdint>

struct Input {
    const uint8_t *data;
    size_t size;

    bool empty() const
    {
        return size == 0;
    }

    uint8_t byte()
    {
        if (size == 0)
            return 0;
        size--;
        return *data++;
    }

    int32_t signed_byte() // -128..127
    {
        const int32_t value = byte();
        return value < 128 ? value : value - 256;
    }

    uint16_t half()
    {
        const uint8_t low = byte();
        return (uint16_t)(low | byte() << 8);
    }

    uint32_t word()
    {
        const uint32_t low = half();
        return low | (uint32_t)half() << 16;
    }
};
