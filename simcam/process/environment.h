// How the overlay process is started: its path and its environment.
#pragma once

#include <string>
#include <vector>

namespace simcam
{

struct ProcessOptions {
    std::vector<std::string> program; // may be empty: nothing to start
    std::string run_directory;
    std::string library;     // libqm7codec.so.2.0
    std::string preload;     // libsimcam_preload.so
    double kill_after_s = 2; // from SIGTERM to SIGKILL when the process is destroyed
};

// The path of the program that execvp would start; name itself if there is none.
std::string program_find(const std::string &name);
// simcam's own environment, with the variables that connect the program to the camera.
std::vector<std::string> environment_make(const ProcessOptions &options);

} // namespace simcam
