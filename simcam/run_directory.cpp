// Lays out the run directory.

#include "run_directory.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace simcam
{

namespace fs = std::filesystem;

// Where the distribution's package of the font puts it.
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

// A file or folder of the build: beside the program where that was copied as a whole, else in
// place.
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
                "the font is missing, install the package " + std::string(FONT_PACKAGE), FONT,
                std::make_error_code(std::errc::no_such_file_or_directory));
        fs::create_symlink(FONT, root / FONT_PLACE);
    }
    if (!fs::exists(root / PALETTE_PLACE))
        fs::copy_file(built("data", PALETTE_NAME, SIMCAM_DATA_DIR), root / PALETTE_PLACE);
}

bool run_directory_make(const std::string &path, RunDirectory *directory, std::string *error)
{
    try {
        if (path.empty()) {
            std::string name = (fs::temp_directory_path() / "simcam-XXXXXX").string();
            if (!mkdtemp(name.data())) {
                *error = name + ": no run directory can be made there";
                return false;
            }
            *directory = {name, true};
        } else {
            fs::create_directories(path);
            *directory = {fs::absolute(path).lexically_normal().string(), false};
        }
        fill(directory->path);
        return true;
    } catch (const fs::filesystem_error &failure) {
        *error = failure.what();
        run_directory_remove(*directory);
        return false;
    }
}

void run_directory_remove(const RunDirectory &directory)
{
    std::error_code ignored;
    if (directory.made)
        fs::remove_all(directory.path, ignored);
}

} // namespace simcam
