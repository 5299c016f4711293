// The two forms of a color table.

#include "palette.h"

#include <gtest/gtest.h>

using palette::Table;

// 256 lines of the same color; line i + 1 is entry i.
static std::string plain_table(const std::string &color = "#808080")
{
    std::string text;
    for (int i = 0; i < 256; ++i)
        text += std::to_string(i) + " name-" + std::to_string(i) + " " + color + " 8\n";
    return text;
}

static std::string with_line(int number, const std::string &line)
{
    std::string text = plain_table();
    size_t start = 0;
    for (int i = 1; i < number; ++i)
        start = text.find('\n', start) + 1;
    return text.replace(start, text.find('\n', start) - start, line);
}

static void expect_refused(const std::string &text, int line, const std::string &reason)
{
    Table table;
    const auto refusal = palette::parse_table(text, &table);
    ASSERT_TRUE(refusal.has_value()) << "accepted, expected: " << reason;
    EXPECT_EQ(refusal->line, line);
    EXPECT_EQ(refusal->reason, reason);
}

TEST(PaletteColor, PrimariesHaveTheirFullRangeBytes)
{
    using Bytes = std::array<uint8_t, 3>;

    EXPECT_EQ(palette::ycc_of({0, 0, 0}), (Bytes{0, 128, 128}));
    EXPECT_EQ(palette::ycc_of({255, 255, 255}), (Bytes{255, 128, 128}));
    EXPECT_EQ(palette::ycc_of({255, 0, 0}), (Bytes{76, 85, 255}));
    EXPECT_EQ(palette::ycc_of({0, 255, 0}), (Bytes{150, 44, 21}));
    EXPECT_EQ(palette::ycc_of({0, 0, 255}), (Bytes{29, 255, 107}));
}

TEST(PaletteColor, BytesOutsideTheRgbCubeAreClamped)
{
    const palette::Rgb box = palette::rgb_of({0xEF, 0x28, 0x6D});

    EXPECT_EQ(box.r, 212); // 239 - 1.402 * 19
    EXPECT_EQ(box.g, 255); // 282.9, clamped
    EXPECT_EQ(box.b, 83);  // 239 - 1.772 * 88
}

TEST(PaletteTable, EntryIsReadWithAllItsColumns)
{
    const std::string text = with_line(18, " 17\tbox  ycc:EF286d  7   text box, and more \r");

    Table table;
    ASSERT_FALSE(palette::parse_table(text, &table).has_value());

    EXPECT_EQ(table[17].name, "box");
    EXPECT_EQ(table[17].ycc, (std::array<uint8_t, 3>{0xEF, 0x28, 0x6D}));
    EXPECT_EQ(table[17].opacity, 7);
    EXPECT_EQ(table[17].use, "text box, and more");
    EXPECT_EQ(table[17].line, 18);
}

TEST(PaletteTable, CommentsAndBlankLinesOnlyCountAsLines)
{
    Table table;
    ASSERT_FALSE(palette::parse_table("# head\n\n#\n  \n" + plain_table(), &table).has_value());

    EXPECT_EQ(table[0].line, 5);
}

TEST(PaletteTable, LastLineNeedsNoLineEnd)
{
    std::string text = plain_table();
    text.pop_back();

    Table table;
    EXPECT_FALSE(palette::parse_table(text, &table).has_value());
}

TEST(PaletteTable, BadInputIsRefusedWithLineAndReason)
{
    expect_refused(with_line(3, "x name #000000 8"), 3, "index 'x' is not a number from 0 to 255");
    expect_refused(with_line(3, "256 name #000000 8"), 3,
                   "index '256' is not a number from 0 to 255");
    expect_refused(with_line(3, "-1 name #000000 8"), 3,
                   "index '-1' is not a number from 0 to 255");
    expect_refused(with_line(3, "4 name #000000 8"), 3,
                   "index 4 where 2 was expected: every index once, in order");
    expect_refused(with_line(3, "2"), 3, "the name is missing");
    expect_refused(with_line(3, "2 name"), 3, "the color is missing");
    for (const std::string color :
         {"#00000", "#0000000", "#00000G", "#-00001", "ycc:0000", "red", "0x1234"})
        expect_refused(with_line(3, "2 name " + color + " 8"), 3,
                       "color '" + color + "' is neither #RRGGBB nor ycc:YYBBRR");
    expect_refused(with_line(3, "2 name #000000"), 3, "the opacity is missing");
    for (const std::string opacity : {"256", "-1", "8x", "99999999999"})
        expect_refused(with_line(3, "2 name #000000 " + opacity), 3,
                       "opacity '" + opacity + "' is not a number from 0 to 255 (8 is opaque)");
}

TEST(PaletteTable, TooFewAndTooManyEntriesAreRefused)
{
    expect_refused("", 0, "the table ends before entry 0; all 256 are wanted");
    expect_refused("0 clear #000000 0\n", 1, "the table ends before entry 1; all 256 are wanted");
    expect_refused(plain_table() + "256 name #000000 8\n", 257, "more than 256 entries");
}

TEST(PaletteImage, EntryIsFourBytesAtFourTimesItsIndex)
{
    Table table;
    ASSERT_FALSE(palette::parse_table(with_line(18, "17 box ycc:EF286D 9"), &table).has_value());

    const std::vector<uint8_t> image = palette::pack(table);

    ASSERT_EQ(image.size(), 1024u);
    EXPECT_EQ(image[68], 0xEF);
    EXPECT_EQ(image[69], 0x28);
    EXPECT_EQ(image[70], 0x6D);
    EXPECT_EQ(image[71], 9);
}

TEST(PaletteImage, ShortImageLeavesTheRestZero)
{
    Table table;
    table[2].opacity = 8;

    ASSERT_FALSE(palette::unpack({1, 2, 3, 4, 5, 6, 7, 8}, &table).has_value());

    EXPECT_EQ(table[1].ycc, (std::array<uint8_t, 3>{5, 6, 7}));
    EXPECT_EQ(table[1].opacity, 8);
    EXPECT_EQ(table[2].ycc, (std::array<uint8_t, 3>{0, 0, 0}));
    EXPECT_EQ(table[2].opacity, 0);
}

TEST(PaletteImage, ImpossibleSizesAreRefused)
{
    Table table;

    const auto long_one = palette::unpack(std::vector<uint8_t>(1028), &table);
    const auto odd_one = palette::unpack(std::vector<uint8_t>(7), &table);

    ASSERT_TRUE(long_one && odd_one);
    EXPECT_EQ(long_one->reason, "1028 bytes; a color table has at most 1024");
    EXPECT_EQ(odd_one->reason, "7 bytes end in the middle of an entry of 4 bytes");
}

TEST(PaletteImage, EveryByteSurvivesARoundTrip)
{
    std::vector<uint8_t> image(1024);
    uint32_t seed = 1;
    for (int round = 0; round < 50; ++round) {
        for (uint8_t &byte : image)
            byte = static_cast<uint8_t>((seed = seed * 1664525 + 1013904223) >> 24);

        Table first, second;
        ASSERT_FALSE(palette::unpack(image, &first).has_value());
        ASSERT_FALSE(palette::parse_table(palette::format_table(first), &second).has_value());

        ASSERT_EQ(palette::pack(second), image);
    }
}

TEST(PaletteImage, ColorsInsideTheRgbCubeAreWrittenAsRgb)
{
    Table table;
    ASSERT_FALSE(palette::unpack({76, 85, 255, 8, 0xEF, 0x28, 0x6D, 8}, &table).has_value());

    const std::string text = palette::format_table(table);

    EXPECT_NE(text.find("\n  0  clear            #FE0000     8  cleared"), std::string::npos)
        << text.substr(0, 200);
    EXPECT_NE(text.find("\n  1  entry-1          ycc:EF286D  8\n"), std::string::npos);
}
