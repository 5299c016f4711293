// focus-palette: the command line.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "check.h"
#include "swatch.h"

namespace
{

constexpr char USAGE[] =
    "usage: focus-palette pack TABLE IMAGE      readable table to raw color table\n"
    "       focus-palette unpack IMAGE TABLE    raw color table to readable table\n"
    "       focus-palette check FILE            whether the readout can be read with it\n"
    "       focus-palette swatch FILE PICTURE   a PNG picture of it\n"
    "FILE is a raw color table where its name ends in .plt, and a readable table elsewhere.\n"
    "Exit status: 0 done, 1 refused or not to be read with, 2 wrong usage.\n";

bool refuse(const std::string &path, const palette::Refusal &refusal)
{
    if (refusal.line > 0)
        std::fprintf(stderr, "%s:%d: %s\n", path.c_str(), refusal.line, refusal.reason.c_str());
    else
        std::fprintf(stderr, "%s: %s\n", path.c_str(), refusal.reason.c_str());
    return false;
}

bool read_file(const std::string &path, std::string *bytes)
{
    std::FILE *file = std::fopen(path.c_str(), "rb");
    if (file == nullptr)
        return refuse(path, {0, std::strerror(errno)});
    char buffer[4096];
    size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        bytes->append(buffer, count);
    const int failed = std::ferror(file) != 0 ? errno : 0;
    std::fclose(file);
    return failed == 0 || refuse(path, {0, std::strerror(failed)});
}

bool write_file(const std::string &path, const void *bytes, size_t count)
{
    std::FILE *file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        return refuse(path, {0, std::strerror(errno)});
    bool whole = std::fwrite(bytes, 1, count, file) == count;
    whole = std::fclose(file) == 0 && whole;
    if (whole)
        return true;
    const int failed = errno;
    if (std::filesystem::is_regular_file(path))
        std::remove(path.c_str()); // half a color table would be loaded without a word
    return refuse(path, {0, std::strerror(failed)});
}

bool read_table(const std::string &path, palette::Table *table)
{
    std::string text;
    if (!read_file(path, &text))
        return false;
    const auto refusal = palette::parse_table(text, table);
    return !refusal || refuse(path, *refusal);
}

bool read_image(const std::string &path, palette::Table *table)
{
    std::string bytes;
    if (!read_file(path, &bytes))
        return false;
    const auto refusal = palette::unpack({bytes.begin(), bytes.end()}, table);
    return !refusal || refuse(path, *refusal);
}

bool read_either(const std::string &path, palette::Table *table)
{
    return path.ends_with(".plt") ? read_image(path, table) : read_table(path, table);
}

bool pack(const std::string &from, const std::string &to)
{
    palette::Table table;
    if (!read_table(from, &table))
        return false;
    const auto image = palette::pack(table);
    return write_file(to, image.data(), image.size());
}

bool unpack(const std::string &from, const std::string &to)
{
    palette::Table table;
    if (!read_image(from, &table))
        return false;
    const std::string text = palette::format_table(table);
    return write_file(to, text.data(), text.size());
}

bool swatch(const std::string &from, const std::string &to)
{
    palette::Table table;
    if (!read_either(from, &table))
        return false;
    const auto png = palette::swatch_png(table);
    return write_file(to, png.data(), png.size());
}

bool check(const std::string &path)
{
    palette::Table table;
    if (!read_either(path, &table))
        return false;
    bool good = true;
    for (const palette::Finding &finding : palette::check(table)) {
        if (finding.good)
            std::printf("ok: %s\n", finding.text.c_str());
        else
            good = refuse(path, {table[static_cast<size_t>(finding.index)].line, finding.text});
    }
    return good;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    if (argc == 4 && command == "pack")
        return pack(argv[2], argv[3]) ? 0 : 1;
    if (argc == 4 && command == "unpack")
        return unpack(argv[2], argv[3]) ? 0 : 1;
    if (argc == 4 && command == "swatch")
        return swatch(argv[2], argv[3]) ? 0 : 1;
    if (argc == 3 && command == "check")
        return check(argv[2]) ? 0 : 1;
    if (argc == 2 && (command == "--help" || command == "-h")) {
        std::fputs(USAGE, stdout);
        return 0;
    }
    std::fputs(USAGE, stderr);
    return 2;
}
