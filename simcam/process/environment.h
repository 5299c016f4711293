// How the overlay process is started: its path and its environment.
#pragma once

#include <string>
#include <vector>

#include "process/process.h"

namespace simcam
{

// The path of the program that execvp would start; name itself if there is none.
std::string program_find(const std::string &name);
// simcam's own environment, with the variables that connect the program to the camera.
std::vector<std::string> environment_make(const ProcessOptions &options);

} // namespace simcam
