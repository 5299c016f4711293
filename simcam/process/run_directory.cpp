// The layout of the run directory, and its removal.

#include "process/run_directory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fcntl.h>
#include <fstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace simcam
{

namespace fs = std::filesystem;

// Installed by the distribution's font package.
static const char FONT[] = "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf";
static const char NO_FONT[] = "the font is missing; install the package fonts-dejavu-core: ";

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

static std::string in_quotes(const fs::path &path)
{
    return "\"" + path.string() + "\"";
}

// Makes the directory, with permissions for its owner only whatever the umask, unless it exists.
// Returns an empty string, or why there is none.
static std::string make_directory(const fs::path &path)
{
    struct stat status;
    const bool made = mkdir(path.c_str(), 0700) == 0;
    if (!made && errno != EEXIST)
        return in_quotes(path) + " cannot be made: " + std::strerror(errno);
    if (stat(path.c_str(), &status) == 0)
        return S_ISDIR(status.st_mode) ? "" : in_quotes(path) + " is not a directory";
    if (errno == ELOOP)
        return in_quotes(path) + " is a symbolic link that leads back to itself";
    if (errno == ENOENT)
        return in_quotes(path) + " is a symbolic link to something that does not exist";
    return in_quotes(path) + ": " + std::strerror(errno);
}

// As make_directory; the directory must belong to the user or root, and may be open to its group,
// as an umask of 002 leaves it, but not to everybody.
static std::string make_private_directory(const fs::path &path)
{
    const std::string refusal = make_directory(path);
    if (!refusal.empty())
        return refusal;
    struct stat status;
    if (stat(path.c_str(), &status) != 0)
        return in_quotes(path) + ": " + std::strerror(errno);
    if (status.st_uid != geteuid() && status.st_uid != 0)
        return in_quotes(path) + " belongs to another user; choose a directory of your own";
    if (status.st_mode & S_IWOTH)
        return in_quotes(path) + " can be changed by every user; take that permission away "
                                 "(chmod o-w) or choose another directory";
    return {};
}

// Makes the directories of path, which is below root or root itself, from root on.
static std::string make_below(const fs::path &root, const fs::path &path)
{
    fs::path part = root;
    std::string refusal = make_private_directory(part);
    for (const fs::path &name : path.lexically_relative(root)) {
        if (!refusal.empty() || name == ".")
            break;
        part /= name;
        refusal = make_private_directory(part);
    }
    return refusal;
}

// Makes the directories that contain path, which is absolute.
static std::string make_parents(const fs::path &path)
{
    fs::path part;
    std::string refusal;
    for (const fs::path &name : path.parent_path()) {
        part /= name;
        refusal = make_directory(part);
        if (!refusal.empty())
            break;
    }
    return refusal;
}

static std::string fill(const fs::path &root)
{
    for (const fs::path &place : {(root / FONT_PLACE).parent_path(),
                                  (root / PALETTE_PLACE).parent_path(), root / "var/run"}) {
        std::string refusal = make_below(root, place);
        if (!refusal.empty())
            return refusal;
    }
    std::error_code failure, ignored;
    if (!fs::exists(fs::symlink_status(root / FONT_PLACE, ignored))) {
        if (!fs::exists(FONT, ignored))
            return NO_FONT + in_quotes(FONT);
        fs::create_symlink(FONT, root / FONT_PLACE, failure);
        if (failure)
            return in_quotes(root / FONT_PLACE) + ": " + failure.message();
    }
    if (!fs::exists(root / PALETTE_PLACE, ignored))
        fs::copy_file(built("data", PALETTE_NAME, SIMCAM_DATA_DIR), root / PALETTE_PLACE, failure);
    return failure ? in_quotes(root / PALETTE_PLACE) + ": " + failure.message() : "";
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

static std::string check_path(const std::string &path)
{
    if (path.find_first_of(SEPARATORS) == std::string::npos)
        return {};
    return in_quotes(path) +
           " must not contain a space, ':', ';' or ',' (separators of the loader's lists)";
}

// Makes a directory with a unique name. Returns an empty string, or why there is none.
static std::string make_fresh(RunDirectory *directory)
{
    std::error_code failure;
    const fs::path where = fs::temp_directory_path(failure);
    if (failure)
        return "TMPDIR: " + in_quotes(where) + " is not a directory";
    remove_left_behind(where);
    std::string name = (where / (std::string(MADE_NAME) + "XXXXXX")).string();
    const std::string refusal = check_path(name);
    if (!refusal.empty())
        return refusal;
    if (!mkdtemp(name.data()))
        return "a directory in " + in_quotes(where) + " cannot be made: " + std::strerror(errno);
    directory->path = name;
    directory->made = true;
    directory->lock = lock_directory(name);
    if (directory->lock >= 0) // without the lock, another instance would remove it
        std::ofstream(fs::path(name) / MARK_NAME).flush();
    return {};
}

static std::string make_named(const std::string &path, RunDirectory *directory)
{
    std::error_code ignored;
    std::string name = fs::absolute(path, ignored).lexically_normal().string();
    if (name.size() > 1 && name.back() == '/')
        name.pop_back();
    std::string refusal = check_path(name);
    if (refusal.empty())
        refusal = make_parents(name);
    if (refusal.empty())
        refusal = make_private_directory(name);
    if (!refusal.empty())
        return refusal;
    fs::remove(fs::path(name) / MARK_NAME, ignored); // a directory that the user names is kept
    directory->path = name;
    return {};
}

bool run_directory_make(const std::string &path, RunDirectory *directory, std::string *error)
{
    std::string refusal = path.empty() ? make_fresh(directory) : make_named(path, directory);
    if (refusal.empty())
        refusal = fill(directory->path);
    if (!refusal.empty())
        *error = "run directory: " + refusal;
    return refusal.empty();
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
