#include "picture.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include <png.h>

#include "difference.h"

static constexpr size_t PRINTED_COLUMNS = 200; // wider pictures are cut in messages
static constexpr size_t PRINTED_LINES = 120;

static char character_of(uint8_t byte)
{
    switch (byte) {
    case 0:
        return '.';
    case 11:
        return '#';
    case 16:
        return 'T';
    case 17:
        return '-';
    case 18:
        return '=';
    case 19:
        return '|';
    case 20:
        return 'H';
    case 0xA5:
        return '?';
    default:
        return '*';
    }
}

std::string picture_of(std::span<const uint8_t> bytes, size_t pitch)
{
    std::string text;
    for (size_t i = 0; i < bytes.size(); i++) {
        text += character_of(bytes[i]);
        if (pitch > 0 && (i + 1) % pitch == 0)
            text += '\n';
    }
    if (!text.empty() && text.back() != '\n')
        text += '\n';
    return text;
}

static std::string shown(std::span<const uint8_t> bytes, size_t pitch)
{
    if (pitch > PRINTED_COLUMNS || (pitch > 0 && bytes.size() / pitch > PRINTED_LINES))
        return "(" + std::to_string(bytes.size()) + " bytes, too large to print)\n";
    return picture_of(bytes, pitch);
}

testing::AssertionResult same_picture(std::span<const uint8_t> actual,
                                      std::span<const uint8_t> expected, size_t pitch)
{
    if (std::equal(actual.begin(), actual.end(), expected.begin(), expected.end()))
        return testing::AssertionSuccess();

    return testing::AssertionFailure() << difference(actual, expected, pitch) << "\nactual:\n"
                                       << shown(actual, pitch) << "expected:\n"
                                       << shown(expected, pitch);
}

// ---- images ------------------------------------------------------------------------------------

using File = std::unique_ptr<FILE, int (*)(FILE *)>;

void write_image(const std::string &path, std::span<const uint8_t> bytes, size_t pitch)
{
    // Colors for the eye only; comparisons look at the indices.
    png_color palette[32];
    for (int i = 0; i < 32; i++)
        palette[i] = {(png_byte)(i * 8), (png_byte)(i * 8), (png_byte)(i * 8)};
    palette[0] = {40, 60, 90};
    palette[11] = {255, 255, 255};
    palette[16] = {235, 235, 235};
    palette[17] = {60, 80, 20};
    palette[18] = {220, 40, 40};
    palette[19] = {40, 220, 220};
    palette[20] = {255, 220, 0};

    const File file(fopen(path.c_str(), "wb"), fclose);
    if (!file)
        throw std::runtime_error("cannot write " + path);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, file.get());
    png_set_IHDR(png, info, (png_uint_32)pitch, (png_uint_32)(bytes.size() / pitch), 8,
                 PNG_COLOR_TYPE_PALETTE, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_set_PLTE(png, info, palette, 32);
    png_write_info(png, info);
    for (size_t offset = 0; offset + pitch <= bytes.size(); offset += pitch)
        png_write_row(png, bytes.data() + offset);
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
}

// The indices of an image; empty where there is none.
static std::vector<uint8_t> read_image(const std::string &path, size_t *pitch)
{
    const File file(fopen(path.c_str(), "rb"), [](FILE *f) { return f ? fclose(f) : 0; });
    if (!file)
        return {};
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, file.get());
    png_read_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
    *pitch = png_get_rowbytes(png, info);
    std::vector<uint8_t> bytes;
    png_bytepp rows = png_get_rows(png, info);
    for (size_t row = 0; row < png_get_image_height(png, info); row++)
        bytes.insert(bytes.end(), rows[row], rows[row] + *pitch);
    png_destroy_read_struct(&png, &info, nullptr);
    return bytes;
}

bool has_golden(const std::string &name)
{
    return std::filesystem::exists(std::string(GOLDEN_FOLDER) + "/" + name + ".png");
}

testing::AssertionResult same_as_golden(std::span<const uint8_t> actual, size_t pitch,
                                        const std::string &name)
{
    const std::string path = std::string(GOLDEN_FOLDER) + "/" + name + ".png";
    std::filesystem::create_directories(GOLDEN_ACTUAL_FOLDER);
    write_image(std::string(GOLDEN_ACTUAL_FOLDER) + "/" + name + ".png", actual, pitch);

    size_t golden_pitch = 0;
    const std::vector<uint8_t> golden = read_image(path, &golden_pitch);
    if (golden.empty())
        return testing::AssertionFailure() << "no image " << path;
    if (golden_pitch != pitch)
        return testing::AssertionFailure()
               << pitch << " bytes a line, " << golden_pitch << " in " << path;
    return same_picture(actual, golden, pitch) << path;
}
