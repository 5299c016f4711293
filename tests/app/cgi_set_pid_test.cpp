#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "capture.h"
#include "test_directory.h"

extern "C" int32_t cgi_set_pid(const char *path);

class CgiSetPid : public testing::Test
{
  protected:
    static std::string content(const std::string &path)
    {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    const TestDirectory directory;
    const std::string folder = directory.path.string();
};

TEST_F(CgiSetPid, WritesThePidInDecimalWithALineEnd)
{
    const std::string path = folder + "/focus_assist.pid";

    EXPECT_EQ(cgi_set_pid(path.c_str()), 0);

    EXPECT_EQ(content(path), std::to_string(getpid()) + "\n");
}

TEST_F(CgiSetPid, ReplacesALongerFile)
{
    const std::string path = folder + "/focus_assist.pid";
    std::ofstream(path) << "1234567890 of a process before\n";

    EXPECT_EQ(cgi_set_pid(path.c_str()), 0);

    EXPECT_EQ(content(path), std::to_string(getpid()) + "\n");
}

TEST_F(CgiSetPid, FailsSilentlyIfTheFileCannotBeCreated)
{
    const std::string path = folder + "/missing/focus_assist.pid";
    int32_t result = 0;

    const Captured captured = capture([&] { result = cgi_set_pid(path.c_str()); });

    EXPECT_NE(result, 0);
    EXPECT_EQ(captured.out + captured.err, "");
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(CgiSetPid, FailsIfTheFileCannotBeWritten)
{
    EXPECT_NE(cgi_set_pid("/dev/full"), 0);
}
