// The images of this folder: the two planes of the readout on every output of the four widths, at
// two values. Text images belong to one version of FreeType, whose glyphs they show.
#pragma once

#include <cstdint>
#include <string>

struct GoldenOutput {
    uint32_t width;
    uint32_t height;
};

static constexpr GoldenOutput GOLDEN_OUTPUTS[] = {{1920, 1080}, {1280, 720}, {720, 480},
                                                  {720, 576},   {352, 240},  {352, 288}};

struct GoldenValues {
    int32_t current;
    int32_t peak;
    int32_t percent;
    const char *text;
};

static constexpr GoldenValues GOLDEN_VALUES[] = {{42, 97, 43, "FOCUS ASSIST  42/ 97"},
                                                 {180, 198, 90, "FOCUS ASSIST 180/198"}};

static constexpr char GOLDEN_FREETYPE[] = "2.12.1";

inline std::string golden_size_name(const GoldenOutput &output)
{
    return std::to_string(output.width) + "x" + std::to_string(output.height);
}

inline std::string golden_bar_name(const GoldenOutput &output, const GoldenValues &values)
{
    return "bar_" + golden_size_name(output) + "_" + std::to_string(values.percent);
}

inline std::string golden_text_name(const GoldenOutput &output, const GoldenValues &values)
{
    return "text_" + golden_size_name(output) + "_" + std::to_string(values.percent) +
           "_freetype-" + GOLDEN_FREETYPE;
}
