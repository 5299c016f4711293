// A camera that answers at once: the codec library of world.h, where calls fail at random, and a
// device that never blocks.
#pragma once

#include <atomic>
#include <cstdint>

// Sets world::script. Call this before the program starts.
void camera_prepare();

// Readings handed out by the device.
extern std::atomic<uint64_t> camera_readings;
// The highest of them, in display units.
constexpr uint32_t CAMERA_HIGHEST = 1234;
// Planes shown.
extern std::atomic<uint64_t> camera_shown;

// Called by a read request after the last reading.
extern void (*camera_after_last)();
extern std::atomic<uint64_t> camera_last_reading; // 0: no last reading

// Random numbers of one thread.
struct Random {
    uint64_t state;
    uint32_t next();
    uint32_t below(uint32_t bound)
    {
        return next() % bound;
    }
};

// Reports a start or a stop of a random post to the registered callback.
void camera_report(Random *random);
