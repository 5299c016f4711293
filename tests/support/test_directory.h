// A directory for the files of one test, removed with them when the object ends.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

struct TestDirectory {
    std::filesystem::path path;

    TestDirectory()
    {
        std::string name = (std::filesystem::temp_directory_path() / "focus-test-XXXXXX").string();
        path = mkdtemp(name.data());
    }
    ~TestDirectory()
    {
        std::filesystem::remove_all(path);
    }
    TestDirectory(const TestDirectory &) = delete;
    TestDirectory &operator=(const TestDirectory &) = delete;

    // The path of a file in it.
    std::string file(const std::string &name) const
    {
        return (path / name).string();
    }
};
