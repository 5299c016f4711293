// The directory that stands behind the fixed paths of a camera while a simulated one runs.
#pragma once

#include <string>

namespace simcam
{

struct RunDirectory {
    std::string path;
    bool made = false;    // for this run: removed after it
    int lock = -1;        // of one that was made: a descriptor that holds it while its camera lives
    std::string platform; // the name in it of the folder of the program's libraries; empty: none
};

// Makes the directory (a fresh one where path is empty) and in it the folders, the font and the
// color table that a camera has. Files that are there already are kept. False with *error on
// failure. Fresh ones that cameras left behind which were killed are removed first.
//
// Its path goes into the lists of the program's loader. One with a character that separates there
// is refused.
bool run_directory_make(const std::string &path, RunDirectory *directory, std::string *error);
void run_directory_remove(const RunDirectory &directory);

// Gives the folder of the program's libraries a name in the directory, which the loader's lists can
// hold whatever the folder's own name is. Replaces one that a killed camera left. False with *error
// on failure.
bool run_directory_link(const std::string &platform, RunDirectory *directory, std::string *error);
void run_directory_unlink(RunDirectory *directory);

// Where the codec library and the preload object are: directory if not empty, else beside this
// program, else where they were built.
std::string platform_directory_find(const std::string &directory);

} // namespace simcam
