// The images of this folder: the two planes of the readout on every output of the four widths, at
// two values. A text image shows the glyphs of one version of FreeType, which its name ends with; a
// test takes the set of the version that it runs with.
#pragma once

#include <cstdint>
#include <string>

#include <ft2build.h>
#include FT_FREETYPE_H

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

inline std::string golden_size_name(const GoldenOutput &output)
{
    return std::to_string(output.width) + "x" + std::to_string(output.height);
}

inline std::string golden_bar_name(const GoldenOutput &output, const GoldenValues &values)
{
    return "bar_" + golden_size_name(output) + "_" + std::to_string(values.percent);
}

inline std::string golden_text_name(const GoldenOutput &output, const GoldenValues &values,
                                    const std::string &freetype_version)
{
    return "text_" + golden_size_name(output) + "_" + std::to_string(values.percent) +
           "_freetype-" + freetype_version;
}

// The version of the FreeType that is linked, such as "2.12.1".
inline std::string golden_freetype_version()
{
    FT_Library library = nullptr;
    FT_Int major = 0;
    FT_Int minor = 0;
    FT_Int patch = 0;
    FT_Init_FreeType(&library);
    FT_Library_Version(library, &major, &minor, &patch);
    FT_Done_FreeType(library);
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}
