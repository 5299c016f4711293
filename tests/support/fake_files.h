// Files and devices that exist only for the product: a path registered with put() is opened from
// memory, every other path as usual. For programs that link test_files.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

class FakeFiles
{
  public:
    FakeFiles();
    ~FakeFiles();
    FakeFiles(const FakeFiles &) = delete;
    FakeFiles &operator=(const FakeFiles &) = delete;

    void put(const std::string &path, const std::vector<uint8_t> &bytes);
    void fail_open(const std::string &path, int error);

    // Results of calls on these files.
    std::optional<int> fstat_error;
    std::optional<int64_t> fstat_size;
    std::optional<int> read_error;
    std::optional<uint32_t> read_at_most; // bytes; a shorter read leaves errno at 0

    // "open(path, flags)", "fstat", "read(bytes)", "close", of these files.
    std::vector<std::string> calls;
    std::set<int> descriptors; // open ones

    // ---- for the wrapped calls ----
    struct File {
        std::vector<uint8_t> bytes;
        int open_error;
    };
    std::map<std::string, File> files;
};
