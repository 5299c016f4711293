// A camera that answers at once: its codec library with posts that start and stop at random, and
// its device with readings that come and go.
#pragma once

#include <atomic>
#include <cstdint>

// Readings handed out by the device.
extern std::atomic<uint64_t> camera_readings;
// The highest of them, in display units.
constexpr uint32_t CAMERA_HIGHEST = 1234;
// Planes shown.
extern std::atomic<uint64_t> camera_shown;

// Where the device's read request ends: a reading after the last one calls this.
extern void (*camera_after_last)();
extern std::atomic<uint64_t> camera_last_reading; // 0: there is no last

// Random numbers of one thread.
struct Random {
    uint64_t state;
    uint32_t next();
    uint32_t below(uint32_t bound)
    {
        return next() % bound;
    }
};

// One report of the library, a start or a stop of some post, to the callback that is registered.
void camera_report(Random *random);
