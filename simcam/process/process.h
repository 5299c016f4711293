// The overlay process: starting it on the camera, its output, its end.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "board/camera_types.h"

namespace simcam
{

struct ProcessOptions {
    std::vector<std::string> program; // may be empty: nothing to start
    std::string run_directory;
    std::string library; // libqm7codec.so.2.0
    std::string preload; // libsimcam_preload.so
};

struct Process;

// What it returns has a thread: it must see process_finish before its last owner lets go of it.
std::shared_ptr<Process> process_make(const ProcessOptions &options);
// Ends the process if it runs, kindly at first, and reaps it. Takes two seconds where it is deaf.
void process_finish(Process &process);

// Both return an empty string, or in a sentence why it could not be done. The signal goes to the
// process and to what it started.
std::string process_start(Process &process);
std::string process_signal(Process &process, int signal);
void process_state(Process &process, ProcessState *state); // all but attached
std::vector<OutputChunk> process_output(Process &process, uint64_t after, size_t limit);

} // namespace simcam
