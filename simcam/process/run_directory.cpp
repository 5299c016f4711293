// The layout of the run directory, and its removal.

#include "process/run_directory.h"

#include <cstdlib>
#include <filesystem>
#include <fcntl.h>
#include <fstream>
#include <sys/file.h>
#include <unistd.h>

namespace simcam
{

namespace fs = std::filesystem;

// Installed by the distribution's font package.
static const char FONT[] = "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf";
static const char FONT_PACKAGE[] = "fonts-dejavu-core";

static const char FONT_PLACE[] = "usr/local/morvel/import/font/dejavu/font/DejaVuSansMono.ttf";
static const char PALETTE_PLACE[] = "usr/local/morvel/app/conf/data/osd/osd_def_color.plt";
static const char PALETTE_NAME[] = "osd_def_color.plt";

static fs::path program_directory()
{
    std::error_code ignored;
    return fs::read_symlink("/proc/self/exe", ignored).parent_path();
}

// A file or folder of the build: the one beside the program if the build folder was copied, else
// the one where it was built.
static fs::path built(const char *folder, const char *name, const char *fallback)
{
    const fs::path beside = program_directory().parent_path() / folder / name;
    std::error_code ignored;
    return fs::exists(beside, ignored) ? beside : fs::path(fallback) / name;
}

std::string platform_directory_find(const std::string &directory)
{
    if (!directory.empty())
        return fs::absolute(directory).string();
    return built("platform", "libsimcam_preload.so", SIMCAM_PLATFORM_DIR).parent_path().string();
}

static void fill(const fs::path &root)
{
    fs::create_directories((root / FONT_PLACE).parent_path());
    fs::create_directories((root / PALETTE_PLACE).parent_path());
    fs::create_directories(root / "var/run");
    if (!fs::exists(fs::symlink_status(root / FONT_PLACE))) {
        if (!fs::exists(FONT))
            throw fs::filesystem_error(
                "the font is missing; install the package " + std::string(FONT_PACKAGE), FONT,
                std::make_error_code(std::errc::no_such_file_or_directory));
        fs::create_symlink(FONT, root / FONT_PLACE);
    }
    if (!fs::exists(root / PALETTE_PLACE))
        fs::copy_file(built("data", PALETTE_NAME, SIMCAM_DATA_DIR), root / PALETTE_PLACE);
}

static const char MADE_NAME[] = "simcam-"; // followed by six characters
// A file in every directory made here; the directory's name alone does not prove its origin.
static const char MARK_NAME[] = ".made-by-simcam";

static int lock_directory(const fs::path &path)
{
    const int directory = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (directory < 0 || flock(directory, LOCK_EX | LOCK_NB) == 0)
        return directory;
    close(directory);
    return -1;
}

// Removes run directories left by crashed instances: those whose lock is free. A directory
// gets its mark only after its lock, so one that is being made is never removed.
static void remove_left_behind(const fs::path &where)
{
    std::error_code ignored;
    for (const fs::directory_entry &entry : fs::directory_iterator(where, ignored)) {
        const std::string name = entry.path().filename().string();
        if (!name.starts_with(MADE_NAME) || name.size() != sizeof MADE_NAME - 1 + 6 ||
            !fs::is_directory(entry.symlink_status(ignored)) ||
            !fs::is_regular_file(fs::symlink_status(entry.path() / MARK_NAME, ignored)))
            continue;
        const int lock = lock_directory(entry.path());
        if (lock < 0)
            continue;
        fs::remove_all(entry.path(), ignored);
        close(lock);
    }
}

// Separators of the loader's lists (space, colon, semicolon) and of the emulator's list of
// variables (comma).
static const char SEPARATORS[] = " :;,";

static bool check_path(const std::string &path, std::string *error)
{
    if (path.find_first_of(SEPARATORS) == std::string::npos)
        return true;
    *error =
        "run directory \"" + path +
        "\": the path must not contain a space, ':', ';' or ',' (separators of the loader's lists)";
    return false;
}

bool run_directory_make(const std::string &path, RunDirectory *directory, std::string *error)
{
    try {
        if (path.empty()) {
            const fs::path where = fs::temp_directory_path();
            remove_left_behind(where);
            std::string name = (where / (std::string(MADE_NAME) + "XXXXXX")).string();
            if (!check_path(name, error))
                return false;
            if (!mkdtemp(name.data())) {
                *error = name + ": cannot make the run directory";
                return false;
            }
            directory->path = name;
            directory->made = true;
            directory->lock = lock_directory(name);
            if (directory->lock >= 0) // without the lock, another instance would remove it
                std::ofstream(fs::path(name) / MARK_NAME).flush();
        } else {
            const std::string name = fs::absolute(path).lexically_normal().string();
            if (!check_path(name, error))
                return false;
            fs::create_directories(path);
            fs::remove(fs::path(path) / MARK_NAME); // a directory that the user names is kept
            directory->path = name;
        }
        fill(directory->path);
        return true;
    } catch (const fs::filesystem_error &failure) {
        *error = failure.what();
        return false;
    }
}

RunDirectory::~RunDirectory()
{
    std::error_code ignored;
    if (made)
        fs::remove_all(path, ignored);
    if (lock >= 0)
        close(lock);
}

bool run_directory_link(const std::string &platform, RunDirectory *directory, std::string *error)
{
    const fs::path place = fs::path(directory->path) / "platform";
    std::error_code failure;
    if (fs::is_symlink(fs::symlink_status(place, failure)))
        fs::remove(place, failure);
    fs::create_directory_symlink(platform, place, failure);
    if (failure) {
        *error = place.string() + ": " + failure.message() +
                 "; cannot link the camera's libraries there";
        return false;
    }
    directory->platform = place.string();
    return true;
}

void run_directory_unlink(RunDirectory *directory)
{
    if (!directory->platform.empty())
        unlink(directory->platform.c_str());
    directory->platform.clear();
}

} // namespace simcam
