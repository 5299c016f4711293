// The record shared by the two threads of the process.
#pragma once

#include <atomic>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

// The measurement loop writes current and peak, the display thread reads them. Each word is atomic
// on its own: a read of both may combine values of different measurements.
struct FocusState {
    std::atomic<uint32_t> current; // focus value in display units: raw / 100
    std::atomic<uint32_t> peak;    // highest value since tracking began; 0: none yet
    pthread_t display_thread;      // written by thread creation, never used
};
static_assert(sizeof(void *) != 4 || sizeof(FocusState) == 12, "three words");
static_assert(offsetof(FocusState, peak) == 4, "three words");
static_assert(offsetof(FocusState, display_thread) == 8, "three words");
