// The legibility check of a color table.

#include "check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using palette::Table;
using testing::ElementsAre;
using testing::IsEmpty;

// A table without findings.
static Table good_table()
{
    Table table;
    const auto set = [&table](size_t index, std::array<uint8_t, 3> ycc, uint8_t opacity) {
        table[index].ycc = ycc;
        table[index].opacity = opacity;
        table[index].name = "e";
    };
    set(0, {0, 128, 128}, 0);
    set(11, {0, 128, 128}, 8);
    set(16, {0, 128, 128}, 8);
    set(17, {0xEF, 0x28, 0x6D}, 8);
    set(18, {0x4C, 0x54, 0xFF}, 8);
    set(19, {0xB2, 0xAA, 0x00}, 8);
    set(20, {0, 128, 128}, 8);
    return table;
}

static std::vector<std::string> complaints(const Table &table)
{
    std::vector<std::string> texts;
    for (const palette::Finding &finding : palette::check(table))
        if (!finding.good)
            texts.push_back(finding.text);
    return texts;
}

TEST(PaletteCheck, ContrastIsOneToTwentyOne)
{
    EXPECT_DOUBLE_EQ(palette::contrast_ratio({0, 0, 0}, {255, 255, 255}), 21.0);
    EXPECT_DOUBLE_EQ(palette::contrast_ratio({9, 9, 9}, {9, 9, 9}), 1.0);
    // Gray 0x77 on white is just below 4.5, gray 0x76 just above.
    EXPECT_NEAR(palette::contrast_ratio({0x77, 0x77, 0x77}, {255, 255, 255}), 4.478, 0.001);
    EXPECT_NEAR(palette::contrast_ratio({0x76, 0x76, 0x76}, {255, 255, 255}), 4.542, 0.001);
}

TEST(PaletteCheck, ColorDifferenceOfKnownPairs)
{
    EXPECT_NEAR(palette::color_difference({0, 0, 0}, {255, 255, 255}), 100.0, 0.01);
    // Red is L 53.24, a 80.09, b 67.20 and green L 87.73, a -86.18, b 83.18 under D65.
    EXPECT_NEAR(palette::color_difference({255, 0, 0}, {0, 255, 0}), 170.6, 0.1);
}

TEST(PaletteCheck, LegibleTableHasNoComplaint)
{
    EXPECT_THAT(complaints(good_table()), IsEmpty());
}

TEST(PaletteCheck, EachForcedByteIsComparedWithTheProgram)
{
    Table table = good_table();
    table[16].opacity = 9;
    table[17].ycc[0] = 0xEE;
    table[18].ycc[1] = 0x55;
    table[19].ycc[2] = 0x01;

    EXPECT_THAT(complaints(table),
                ElementsAre("entry 16 (e): byte 3 is 09, the overlay process writes 08",
                            "entry 17 (e): byte 0 is EE, the overlay process writes EF",
                            "entry 18 (e): byte 1 is 55, the overlay process writes 54",
                            "entry 19 (e): byte 2 is 01, the overlay process writes 00"));
}

TEST(PaletteCheck, ReadoutMustBeOpaqueAndClearedMemoryTransparent)
{
    Table table = good_table();
    table[0].opacity = 1;
    table[17].opacity = 7;
    table[20].opacity = 0;

    EXPECT_THAT(complaints(table),
                ElementsAre("entry 0 (e): opacity 1, wanted 0: cleared memory must let the "
                            "picture through",
                            "entry 17 (e): opacity 7, wanted 8: it must cover the picture",
                            "entry 20 (e): opacity 0, wanted 8: it must cover the picture"));
}

TEST(PaletteCheck, PaleTextIsReportedForBothTextEntries)
{
    Table table = good_table();
    table[16].ycc = {255, 128, 128}; // white on the pale box
    table[20].ycc = {255, 128, 128};

    const auto texts = complaints(table);

    ASSERT_EQ(texts.size(), 2u);
    EXPECT_THAT(texts[0], testing::MatchesRegex("entry 16 .*contrast 1.15 .*wanted a contrast of "
                                                "4.5"));
    EXPECT_THAT(texts[1], testing::StartsWith("entry 20 "));
}

TEST(PaletteCheck, PaintedAreaNeedsContrastOrAnotherColor)
{
    Table table = good_table();
    EXPECT_THAT(complaints(table), IsEmpty()) << "the cyan marker passes by its color alone";

    table[11].ycc = {230, 60, 110}; // nearly the box

    const auto texts = complaints(table);
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_THAT(texts[0], testing::HasSubstr("wanted a contrast of 3.0 or a difference of 40"));
}
