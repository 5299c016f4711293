// The picture of a color table, decoded by a PNG reader.

#include "swatch.h"

#include <png.h>

#include <gtest/gtest.h>

namespace
{

struct Picture {
    unsigned width = 0, height = 0;
    std::vector<uint8_t> rgb;
};

Picture read_png(const std::vector<uint8_t> &bytes)
{
    Picture picture;
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, bytes.data(), bytes.size())) {
        ADD_FAILURE() << image.message;
        return picture;
    }
    image.format = PNG_FORMAT_RGB;
    picture.width = image.width;
    picture.height = image.height;
    picture.rgb.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, picture.rgb.data(), 0, nullptr) ||
        image.warning_or_error != 0)
        ADD_FAILURE() << image.message;
    return picture;
}

std::array<int, 3> pixel(const Picture &picture, unsigned x, unsigned y)
{
    const size_t at = (size_t{y} * picture.width + x) * 3;
    return {picture.rgb[at], picture.rgb[at + 1], picture.rgb[at + 2]};
}

} // namespace

TEST(PaletteSwatch, CellShowsTheColorOfItsEntry)
{
    palette::Table table;
    table[17] = {{0xEF, 0x28, 0x6D}, 8, "", "", 0};
    table[255] = {{255, 128, 128}, 200, "", "", 0}; // 200 counts as opaque

    const Picture picture = read_png(palette::swatch_png(table));

    ASSERT_EQ(picture.width, 640u);
    ASSERT_EQ(picture.height, 640u);
    EXPECT_EQ(pixel(picture, 40 + 39, 40 + 39), (std::array{212, 255, 83}));
    EXPECT_EQ(pixel(picture, 639, 639), (std::array{255, 255, 255}));
}

TEST(PaletteSwatch, BackgroundShowsThroughAccordingToTheOpacity)
{
    palette::Table table;
    table[0] = {{0, 128, 128}, 0, "", "", 0};
    table[1] = {{0, 128, 128}, 4, "", "", 0};

    const Picture picture = read_png(palette::swatch_png(table));

    EXPECT_EQ(pixel(picture, 32, 32), (std::array{0x60, 0x60, 0x60}));
    EXPECT_EQ(pixel(picture, 39, 31), (std::array{0xC0, 0xC0, 0xC0}));
    EXPECT_EQ(pixel(picture, 72, 32), (std::array{0x60, 0x60, 0x60}));
    EXPECT_EQ(pixel(picture, 72, 31), (std::array{0x30, 0x30, 0x30})) << "a missing entry is clear";
}

TEST(PaletteSwatch, IndexIsWrittenIntoTheCell)
{
    palette::Table table;
    for (palette::Entry &entry : table)
        entry = {{255, 128, 128}, 8, "", "", 0};

    const Picture picture = read_png(palette::swatch_png(table));

    // Entry 17: each pixel of a digit is 2 by 2; the number begins 3 pixels inside the cell.
    std::string drawn;
    for (unsigned y = 0; y < 5; ++y) {
        for (unsigned x = 0; x < 7; ++x)
            drawn += pixel(picture, 40 + 3 + 2 * x, 40 + 3 + 2 * y)[0] == 0 ? '#' : '.';
        drawn += '\n';
    }
    EXPECT_EQ(drawn, ".#..###\n"
                     "##....#\n"
                     ".#....#\n"
                     ".#....#\n"
                     "###...#\n");
}
