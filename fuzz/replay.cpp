// Runs a fuzz target on the files and folders named on the command line, each once.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; i++) {
        if (!std::filesystem::is_directory(argv[i])) {
            inputs.push_back(argv[i]);
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(argv[i]))
            inputs.push_back(entry.path());
    }
    std::sort(inputs.begin(), inputs.end());

    for (const std::filesystem::path &path : inputs) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
        fprintf(stderr, "%s\n", path.c_str());
        (void)LLVMFuzzerTestOneInput((const uint8_t *)bytes.data(), bytes.size());
    }
    printf("%zu inputs replayed\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
