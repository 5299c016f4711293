// Finding the program and making its environment.

#include "process/environment.h"

#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <fstream>
#include <unistd.h>

#include "wire.h"

extern char **environ;

namespace simcam
{

// Returns the machine (e_machine) of an ELF file; 0 for any other file.
static uint16_t elf_machine(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    Elf32_Ehdr head = {}; // the 32-bit and 64-bit headers agree up to e_machine
    file.read(reinterpret_cast<char *>(&head), sizeof head);
    if (!file || std::memcmp(head.e_ident, ELFMAG, SELFMAG) != 0)
        return 0;
    return head.e_machine;
}

std::string program_find(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return name;
    const char *path = std::getenv("PATH");
    std::string rest = path ? path : "/usr/bin:/bin";
    while (!rest.empty()) {
        const size_t end = rest.find(':');
        const std::string candidate = rest.substr(0, end) + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate;
        rest = end == std::string::npos ? "" : rest.substr(end + 1);
    }
    return name;
}

static void set_variable(std::vector<std::string> *environment, const std::string &name,
                         const std::string &value)
{
    std::erase_if(*environment, [&](const std::string &entry) {
        return entry.compare(0, name.size() + 1, name + "=") == 0;
    });
    environment->push_back(name + "=" + value);
}

// Prepends first to the list in the variable's previous value.
static std::string joined(const std::string &first, const char *rest)
{
    return rest && rest[0] ? first + ":" + rest : first;
}

std::vector<std::string> environment_make(const ProcessOptions &options)
{
    std::vector<std::string> environment;
    for (char **entry = environ; *entry; entry++)
        environment.push_back(*entry);

    const std::string library_directory = options.library.substr(0, options.library.rfind('/'));
    set_variable(&environment, SIMCAM_RUN_DIR_VARIABLE, options.run_directory);
    set_variable(&environment, "SIMCAM_UNBUFFERED", "1");
    const uint16_t program = elf_machine(program_find(options.program[0]));
    const uint16_t preload = elf_machine(options.preload);
    if (program && program != preload) {
        // An emulator for the preload object's machine sets the variables for its program only.
        set_variable(&environment, "QEMU_SET_ENV",
                     "LD_PRELOAD=" + options.preload + ",LD_LIBRARY_PATH=" + library_directory);
    } else {
        set_variable(&environment, "LD_PRELOAD",
                     joined(options.preload, std::getenv("LD_PRELOAD")));
        set_variable(&environment, "LD_LIBRARY_PATH",
                     joined(library_directory, std::getenv("LD_LIBRARY_PATH")));
    }
    // A program built with a sanitizer loads the preload object before the sanitizer's runtime.
    set_variable(&environment, "ASAN_OPTIONS",
                 joined("verify_asan_link_order=0", std::getenv("ASAN_OPTIONS")));
    return environment;
}

} // namespace simcam
