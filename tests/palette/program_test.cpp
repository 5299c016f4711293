// The program focus-palette on its command line, and the shipped table.

#include <sys/wait.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

namespace
{

struct Outcome {
    int status = -1;
    std::string out, err;
};

std::string contents(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

class PaletteProgram : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::string name = (std::filesystem::temp_directory_path() / "palette.XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder = name;
    }
    void TearDown() override
    {
        std::filesystem::remove_all(folder);
    }
    Outcome run(const std::string &arguments) const
    {
        const std::string command =
            "cd '" + folder.string() + "' && '" FOCUS_PALETTE "' " + arguments + " >out 2>err";
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(folder / "out"),
                contents(folder / "err")};
    }
    void write(const std::string &name, const std::string &bytes) const
    {
        std::ofstream(folder / name, std::ios::binary) << bytes;
    }

    std::filesystem::path folder;
};

std::vector<int> entry(const std::string &image, size_t index)
{
    std::vector<int> bytes;
    for (size_t i = 0; i < 4; ++i)
        bytes.push_back(static_cast<uint8_t>(image.at(4 * index + i)));
    return bytes;
}

} // namespace

TEST_F(PaletteProgram, ShippedImageHoldsWhatTheReadoutNeeds)
{
    const std::string image = contents(SHIPPED_IMAGE);

    ASSERT_EQ(image.size(), 1024u);
    EXPECT_EQ(entry(image, 0)[3], 0);
    EXPECT_EQ(entry(image, 11)[3], 8);
    EXPECT_EQ(entry(image, 16)[3], 8);
    EXPECT_EQ(entry(image, 17), (std::vector{0xEF, 0x28, 0x6D, 8}));
    EXPECT_EQ(entry(image, 18), (std::vector{0x4C, 0x54, 0xFF, 8}));
    EXPECT_EQ(entry(image, 19), (std::vector{0xB2, 0xAA, 0x00, 8}));
    EXPECT_EQ(entry(image, 20)[3], 8);
}

TEST_F(PaletteProgram, ShippedTablePassesTheCheck)
{
    const Outcome checked = run("check '" SHIPPED_TABLE "'");

    EXPECT_EQ(checked.status, 0) << checked.err;
    EXPECT_NE(checked.out.find("entry 16 (text): contrast 18.23 on entry 17"), std::string::npos);
    EXPECT_NE(checked.out.find("entry 18 (bar-fill): contrast 3.50 on entry 17"),
              std::string::npos);
    EXPECT_NE(checked.out.find("entry 19 (bar-marker): contrast 1.09 on entry 17"),
              std::string::npos);
}

TEST_F(PaletteProgram, ShippedImageSurvivesARoundTrip)
{
    ASSERT_EQ(run("unpack '" SHIPPED_IMAGE "' table.txt").status, 0);
    ASSERT_EQ(run("pack table.txt again.plt").status, 0);

    EXPECT_EQ(contents(folder / "again.plt"), contents(SHIPPED_IMAGE));
}

TEST_F(PaletteProgram, BadTableIsReportedWithFileLineAndReason)
{
    write("bad.txt", "# a table\n0 clear #00000 0\n");

    const Outcome packed = run("pack bad.txt bad.plt");

    EXPECT_EQ(packed.status, 1);
    EXPECT_EQ(packed.err, "bad.txt:2: color '#00000' is neither #RRGGBB nor ycc:YYBBRR\n");
    EXPECT_FALSE(std::filesystem::exists(folder / "bad.plt"));
}

TEST_F(PaletteProgram, IllegibleTableIsReportedWithTheLineOfTheEntry)
{
    std::string table = contents(SHIPPED_TABLE);
    const size_t at = table.find(" 20  text-highlight   #B00040");
    ASSERT_NE(at, std::string::npos);
    table.replace(at + 22, 7, "#E0E0E0");
    write("pale.txt", table);

    const Outcome checked = run("check pale.txt");

    const auto line = std::count(table.begin(), table.begin() + static_cast<long>(at), '\n') + 1;
    EXPECT_EQ(checked.status, 1);
    EXPECT_EQ(checked.err.find("pale.txt:" + std::to_string(line) +
                               ": entry 20 (text-highlight): "
                               "contrast 1."),
              0u)
        << checked.err;
}

TEST_F(PaletteProgram, UnreadableAndUnwritableFilesAreNamed)
{
    const Outcome missing = run("check missing.plt");
    const Outcome nowhere = run("unpack '" SHIPPED_IMAGE "' no/such/folder.txt");
    const Outcome folder_read = run("check .");
    const Outcome full = run("unpack '" SHIPPED_IMAGE "' /dev/full");

    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "missing.plt: No such file or directory\n");
    EXPECT_EQ(nowhere.status, 1);
    EXPECT_EQ(nowhere.err, "no/such/folder.txt: No such file or directory\n");
    EXPECT_EQ(folder_read.status, 1);
    EXPECT_EQ(folder_read.err, ".: Is a directory\n");
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "/dev/full: No space left on device\n");
}

TEST_F(PaletteProgram, SwatchIsAPngFile)
{
    ASSERT_EQ(run("swatch '" SHIPPED_TABLE "' swatch.png").status, 0);

    EXPECT_EQ(contents(folder / "swatch.png").substr(0, 8), "\x89PNG\r\n\x1A\n");
}

TEST_F(PaletteProgram, WrongUsagePrintsTheUsage)
{
    for (const char *arguments : {"", "pack", "pack a", "check", "check a b", "paint a b"}) {
        const Outcome wrong = run(arguments);
        EXPECT_EQ(wrong.status, 2) << arguments;
        EXPECT_EQ(wrong.err.find("usage: focus-palette pack TABLE IMAGE"), 0u) << arguments;
    }
    EXPECT_EQ(run("--help").status, 0);
}
