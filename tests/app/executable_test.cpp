// The executable as a file: the libraries and functions that it needs.

#include <cstdio>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

// The output of readelf for the executable.
static std::string readelf(const std::string &options)
{
    FILE *pipe = popen(("'" READELF "' " + options + " '" FOCUS_ASSIST "'").c_str(), "r");
    if (!pipe) {
        ADD_FAILURE() << "popen";
        return {};
    }
    std::string text;
    for (int byte = fgetc(pipe); byte != EOF; byte = fgetc(pipe))
        text += (char)byte;
    EXPECT_EQ(pclose(pipe), 0);
    return text;
}

TEST(ExecutableFile, NeedsTheCodecLibraryFreeTypeAndTheCLibraryAlone)
{
    std::istringstream lines(readelf("--dynamic --wide"));
    std::set<std::string> needed;
    for (std::string line; std::getline(lines, line);) {
        EXPECT_EQ(line.find("(RPATH)"), std::string::npos) << line;
        if (line.find("(NEEDED)") != std::string::npos)
            needed.insert(line.substr(line.find('[') + 1, line.find(']') - line.find('[') - 1));
    }
    EXPECT_EQ(needed,
              (std::set<std::string>{"libqm7codec.so.2.0", "libfreetype.so.6", "libc.so.6"}));
}

TEST(ExecutableFile, ImportsEveryFunctionOfTheCodecLibrary)
{
    std::istringstream lines(readelf("--dyn-syms --wide"));
    std::set<std::string> undefined;
    for (std::string line; std::getline(lines, line);) {
        const size_t name = line.find("qm7_cl_");
        if (name != std::string::npos && line.find(" UND ") != std::string::npos)
            undefined.insert(line.substr(name, line.find_first_of(" @", name) - name));
    }
    EXPECT_EQ(undefined,
              (std::set<std::string>{"qm7_cl_library_exit", "qm7_cl_library_init",
                                     "qm7_cl_post_clear_osd", "qm7_cl_post_close_osd",
                                     "qm7_cl_post_get_osd_color_mem", "qm7_cl_post_get_osd_mem",
                                     "qm7_cl_post_notify_callback", "qm7_cl_post_open_osd",
                                     "qm7_cl_post_set_notify", "qm7_cl_post_set_osd",
                                     "qm7_cl_post_set_osd_color", "qm7_cl_post_thread_get_status",
                                     "qm7_cl_sys_close_device", "qm7_cl_sys_open_device"}));
}
