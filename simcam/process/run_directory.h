// The directory that replaces the camera's fixed paths.
#pragma once

#include <string>

namespace simcam
{

// Removed when the record is destroyed, if it was made for this run.
struct RunDirectory {
    std::string path;
    bool made = false; // for this run
    int lock = -1;     // of one that was made: a descriptor that holds its lock while simcam runs
    std::string platform; // the link in it to the folder of the program's libraries; empty: none

    RunDirectory() = default;
    RunDirectory(const RunDirectory &) = delete;
    RunDirectory &operator=(const RunDirectory &) = delete;
    ~RunDirectory();
};

// Makes the directory (a fresh one where path is empty), and in it the folders, the font and the
// color table that a camera has. Existing files are kept. Removes fresh run directories left by
// crashed instances first. Returns false with *error set on failure.
//
// Directories are made with mode 0700 whatever the umask. An existing one is refused if its
// owner is neither this user nor root, or if everybody can write to it; its group may, and is then
// trusted.
//
// The path becomes part of the loader's lists, so one with a separator of these lists is refused.
bool run_directory_make(const std::string &path, RunDirectory *directory, std::string *error);

// Links the folder of the program's libraries into the directory, since the loader's lists could
// not hold every folder's name. Replaces a link left by a crashed instance. Returns false with
// *error set on failure.
bool run_directory_link(const std::string &platform, RunDirectory *directory, std::string *error);
void run_directory_unlink(RunDirectory *directory);

// The folder of the codec library and the preload object: directory if not empty, else the one
// beside this program, else the one of the build.
std::string platform_directory_find(const std::string &directory);

} // namespace simcam
