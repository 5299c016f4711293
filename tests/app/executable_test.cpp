// The executable as it is installed, on a codec library and a camera device of the tests' own.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

using Strings = std::vector<std::string>;

static const std::string FOLDER_OF_FONT = "/usr/local/morvel/import/font/dejavu/font";
static const std::string FOLDER_OF_PALETTE = "/usr/local/morvel/app/conf/data/osd";

static std::string content(const fs::path &path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

static int occurrences(const std::string &text, const std::string &part)
{
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        count++;
    return count;
}

// The process under test, in a camera's file tree under a folder that goes with the test.
class Executable : public testing::Test
{
  protected:
    Executable()
    {
        std::string pattern = testing::TempDir() + "executable_XXXXXX";
        root = mkdtemp(pattern.data());
        for (const std::string &folder :
             {std::string("/dev"), std::string("/var/run"), FOLDER_OF_FONT, FOLDER_OF_PALETTE})
            fs::create_directories(root.string() + folder);
        fs::create_symlink(TEST_FONT_PATH, root.string() + FOLDER_OF_FONT + "/DejaVuSansMono.ttf");
        std::ofstream(root.string() + FOLDER_OF_PALETTE + "/osd_def_color.plt")
            << std::string(1024, 'Z');
        std::ofstream(root / "dev/cam");
    }

    ~Executable() override
    {
        if (child > 0)
            kill();
        fs::remove_all(root);
    }

    void start(const Strings &arguments = {}, const Strings &environment = {})
    {
        Strings command = {"/usr/bin/env", "-i", "LD_LIBRARY_PATH=" SCRIPTED_CODEC_FOLDER,
                           "LD_PRELOAD=" SCRIPTED_DEVICE, "SCRIPT_ROOT=" + root.string()};
        command.insert(command.end(), environment.begin(), environment.end());
        command.push_back(FOCUS_ASSIST);
        command.insert(command.end(), arguments.begin(), arguments.end());
        std::vector<char *> pointers;
        for (std::string &word : command)
            pointers.push_back(word.data());
        pointers.push_back(nullptr);

        child = fork();
        if (child == 0) {
            if (freopen((root / "out").c_str(), "w", stdout) &&
                freopen((root / "err").c_str(), "w", stderr))
                execv(pointers[0], pointers.data());
            _exit(126);
        }
    }

    // Waits until the library was called this way so many times.
    void await_calls(const std::string &call, int count)
    {
        for (int i = 0; i < 3000 && occurrences(calls(), call) < count; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_GE(occurrences(calls(), call), count) << calls() << content(root / "err");
    }

    // Returns the status that the process exits with by itself.
    int exit_status()
    {
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        child = 0;
        EXPECT_TRUE(WIFEXITED(status));
        return WEXITSTATUS(status);
    }

    void kill()
    {
        EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0) << "ended by itself";
        ::kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        child = 0;
    }

    // Checks the calls but for those of passes that came before the kill.
    void expect_first_calls(const std::string &expected) const
    {
        EXPECT_EQ(calls().substr(0, expected.size()), expected);
    }

    std::string calls() const
    {
        return content(root / "calls");
    }

    std::string out() const
    {
        return content(root / "out");
    }

    std::string err() const
    {
        return content(root / "err");
    }

    fs::path root;
    pid_t child = 0;
};

static const char START[] = "qm7_cl_library_init\n"
                            "qm7_cl_sys_open_device\n"
                            "qm7_cl_post_notify_callback\n"
                            "qm7_cl_post_set_notify 0xF\n"
                            "qm7_cl_post_get_osd_color_mem\n"
                            "qm7_cl_post_set_osd_color\n";

static const char FIRST_PASS[] = "qm7_cl_post_thread_get_status 0x51\n"
                                 "qm7_cl_post_open_osd 0x51 0 480 72 2\n"
                                 "qm7_cl_post_get_osd_mem 0x51 0\n"
                                 "qm7_cl_post_set_osd 0x51 0xB0 400,576\n"
                                 "qm7_cl_post_open_osd 0x51 1 480 72 2\n"
                                 "qm7_cl_post_get_osd_mem 0x51 1\n"
                                 "qm7_cl_post_set_osd 0x51 0xB1 409,534\n";

static const char LATER_PASS[] = "qm7_cl_post_get_osd_mem 0x51 0\n"
                                 "qm7_cl_post_set_osd 0x51 0xB0 400,576\n"
                                 "qm7_cl_post_get_osd_mem 0x51 1\n"
                                 "qm7_cl_post_set_osd 0x51 0xB1 409,534\n";

static const char TEXT_SHOWN[] = "qm7_cl_post_set_osd 0x51 0xB1";

TEST_F(Executable, DrawsThroughAnotherLibraryAndSaysNothing)
{
    start();
    await_calls(TEXT_SHOWN, 3);
    const std::string pid = std::to_string(child) + "\n";
    kill();

    expect_first_calls(std::string(START) + FIRST_PASS + LATER_PASS + LATER_PASS);
    EXPECT_EQ(out(), "");
    EXPECT_EQ(err(), "");
    EXPECT_EQ(content(root / "var/run/focus_assist.pid"), pid); // left behind
    EXPECT_EQ(content(root / "device"),
              "open 2\n"
              "configure ff 04 80 02 cf 02 68 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
              " 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
              " 00 00 00 00 00 ff ff 3f 00 00 00 00 00 ff 3f ff 3f ff 3f ff 3f ff 3f 00 00 00 00"
              " 00 00 00 00 00 00 00 00 00 00 00 00 00 00\n");
}

TEST_F(Executable, ShowsValueAndPeakOfTheDevice)
{
    start();
    await_calls(TEXT_SHOWN, 3);
    kill();

    // 90 of 90, so all columns but frame and marker are filled: the inner width is 472, the marker
    // covers 402 to 408 (405.2 and 4 to each side).
    const std::string bar = content(root / "plane0");
    ASSERT_EQ(bar.size(), 480u * 72u);
    const std::string frame(480, 11);
    const std::string inner = std::string(4, 11) + std::string(398, 18) + std::string(8, 19) +
                              std::string(66, 18) + std::string(4, 11);
    for (size_t line = 0; line < 72; line++)
        EXPECT_EQ(bar.substr(line * 480, 480), line < 4 || line > 67 ? frame : inner) << line;

    const std::string text = content(root / "plane1");
    ASSERT_EQ(text.size(), 480u * 72u);
    EXPECT_GT(std::count(text.begin(), text.end(), 20), 1000); // highlighted
    EXPECT_EQ(std::count(text.begin(), text.end(), 16), 0);
    EXPECT_EQ(text.substr(42 * 480), std::string(30 * 480, 0));
}

TEST_F(Executable, AppliesThePaletteFileWithTheForcedBytes)
{
    start();
    await_calls("qm7_cl_post_set_osd_color", 1);
    kill();

    std::string expected(1024, 'Z');
    expected.replace(
        67, 12,
        {'\x08', '\xEF', '\x28', '\x6D', 'Z', '\x4C', '\x54', '\xFF', 'Z', '\xB2', '\xAA', '\0'});
    EXPECT_EQ(content(root / "colors"), expected);
}

TEST_F(Executable, ArgumentsAndEnvironmentChangeNothing)
{
    start();
    await_calls(TEXT_SHOWN, 2);
    kill();
    const std::string bar = content(root / "plane0");
    const std::string text = content(root / "plane1");
    fs::remove(root / "calls");

    start({"--help", "-v", "/dev/null"}, {"FREETYPE_PROPERTIES=truetype:interpreter-version=35"});
    await_calls(TEXT_SHOWN, 2);
    kill();

    expect_first_calls(std::string(START) + FIRST_PASS + LATER_PASS);
    EXPECT_EQ(content(root / "plane0"), bar);
    EXPECT_EQ(content(root / "plane1"), text);
    EXPECT_EQ(out(), "");
    EXPECT_EQ(err(), "");
}

TEST_F(Executable, ExitsWithOneAndSilentlyWithoutADevice)
{
    fs::remove(root / "dev/cam");

    start();

    EXPECT_EQ(exit_status(), 1);
    EXPECT_EQ(out(), "");
    EXPECT_EQ(err(), "");
    EXPECT_TRUE(fs::exists(root / "var/run/focus_assist.pid"));
}

TEST_F(Executable, ExitsWith255WhereNoThreadCanBeCreated)
{
    start({}, {"SCRIPT_NO_THREAD=1"});

    EXPECT_EQ(exit_status(), 255);
    EXPECT_EQ(out(), "");
    EXPECT_EQ(err(), "OSD Process Thread returns: 11\n");
    EXPECT_EQ(calls(), "");
    EXPECT_EQ(content(root / "device"), ""); // not opened
    EXPECT_TRUE(fs::exists(root / "var/run/focus_assist.pid"));
}

TEST_F(Executable, StartsWithoutAPidFile)
{
    fs::remove_all(root / "var");

    start();
    await_calls(TEXT_SHOWN, 1);
    kill();

    EXPECT_EQ(out(), "");
    EXPECT_EQ(err(), "");
}

TEST_F(Executable, ReportsMissingPaletteAndFontAndDrawsTheBar)
{
    fs::remove_all(root / "usr");

    start();
    await_calls("qm7_cl_post_set_osd 0x51 0xB0", 3);
    kill();

    const std::string expected =
        FOLDER_OF_PALETTE + "/osd_def_color.plt: No such file or directory\n" +
        "ERR:#qm7osd:[(null)]=New_Face error. font file: " + FOLDER_OF_FONT +
        "/DejaVuSansMono.ttf(font_init_engine)\n"
        "ERR:#qm7osd:[(null)]=font_init_engine() failed(osd_init_font)\n"
        "ERR:#qm7osd:[(null)]=osd_init_font() failed\n(osd_Focus_Assist_run)\n";
    EXPECT_EQ(err().substr(0, expected.size()), expected);
    EXPECT_EQ(occurrences(calls(), TEXT_SHOWN), 0);
}

TEST_F(Executable, ReportsASessionThatCannotBeOpenedAndStaysAlive)
{
    start({}, {"SCRIPT_FAIL=qm7_cl_post_set_notify"});
    await_calls("qm7_cl_library_exit", 1);
    kill();

    EXPECT_EQ(calls(), "qm7_cl_library_init\n"
                       "qm7_cl_sys_open_device\n"
                       "qm7_cl_post_notify_callback\n"
                       "qm7_cl_post_set_notify 0xF\n"
                       "qm7_cl_sys_close_device\n"
                       "qm7_cl_library_exit\n");
    EXPECT_EQ(err(), "ERR:#qm7osd:[(null)]=qm7_cl_post_set_notify() failed. "
                     "errno=0x81E0ABCD(OSD_Library_Process)\n");
}

TEST_F(Executable, TextWithoutALineEndStaysInTheBufferOfStandardOutput)
{
    start({}, {"SCRIPT_FAIL=qm7_cl_post_thread_get_status"});
    await_calls("qm7_cl_post_thread_get_status", 3); // so two failures have been printed
    kill();

    EXPECT_EQ(out(), "");
    EXPECT_EQ(err(), "");
    EXPECT_EQ(occurrences(calls(), "qm7_cl_post_open_osd"), 0);
}

// ---- the file ----------------------------------------------------------------------------------

// What readelf prints for the executable.
static std::string readelf(const std::string &options)
{
    FILE *pipe = popen((READELF " " + options + " " FOCUS_ASSIST).c_str(), "r");
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

TEST(ExecutableFile, LeavesAllFunctionsOfTheLibraryToIt)
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
