// The overlay process: starting it on the camera, its output, its end.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "process/environment.h"

namespace simcam
{

struct ProcessState {
    bool configured = false; // a program was named
    bool running = false;
    int pid = 0;
    uint64_t starts = 0;
    double cpu_percent = 0;
    uint64_t resident_bytes = 0;
    std::string last_end; // "", "exit status 1", "signal 9 (Killed)"
};

// A piece of what the overlay process wrote, as it was read.
struct OutputChunk {
    uint64_t number = 0; // 1 for the first
    double time_s = 0;   // since the camera's start
    int stream = 1;      // 1 standard output, 2 standard error
    std::string bytes;
};

struct Process;
// Sends the process SIGTERM, then SIGKILL after kill_after_s, and reaps it.
struct ProcessDelete {
    void operator()(Process *process) const;
};
using ProcessPtr = std::unique_ptr<Process, ProcessDelete>;

// Starts the thread that will own the process, but not the process.
ProcessPtr process_make(const ProcessOptions &options);

// Both return an empty string, or why it could not be done. The signal goes to the process and to
// its children.
std::string process_start(Process &process);
std::string process_signal(Process &process, int signal);
ProcessState process_state(Process &process);
std::vector<OutputChunk> process_output(Process &process, uint64_t after, size_t limit);
uint64_t process_newest_output(Process &process); // the number of the newest chunk; 0: none

} // namespace simcam
