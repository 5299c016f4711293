// What the simulated camera accepts. The command line, the web interface and the functions that
// refuse values all take their bounds from here.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "wire.h"

namespace simcam
{

constexpr int POST_COUNT = 4;
constexpr int PLANE_COUNT = 4; // of a post

struct Range {
    double least, most; // both included
};

constexpr Range RING_RANGE = {0, 1}; // near stop, far stop
constexpr Range GAIN_RANGE = {0.1, 8};
constexpr Range NOISE_RANGE = {0, 16}; // levels of 255
constexpr Range SWEEP_RANGE_S = {0.5, 3600};
constexpr Range RATE_RANGE_HZ = {1, 240};
constexpr Range POST_SIZE_RANGE = {16, 4096};                        // width and height
constexpr std::array<uint32_t, 5> PITCH_ALIGNS = {1, 8, 16, 32, 64}; // bytes
constexpr uint32_t DELAY_MAX_MS = WIRE_DELAY_MAX_MS;                 // of a fault
constexpr size_t RECORDS_KEPT = 4096;                                // of each kind

constexpr double SWEEP_DEFAULT_S = 12;
constexpr double NOISE_DEFAULT = 2;

std::string number_text(double value); // the shortest text of a value
// "0.5 to 3600"
std::string range_text(const Range &range);
std::string pitch_aligns_text(); // "1, 8 or 16"
// Returns an empty string, or "NAME must be 0.5 to 3600" for a value outside range or not a number.
std::string range_refuse(const char *name, const Range &range, double value);

struct Size {
    uint32_t width = 0, height = 0;

    bool operator==(const Size &) const = default;
};

// Sizes of the posts that the command line starts without naming them.
constexpr std::array<Size, POST_COUNT> POST_SIZES = {
    {{1280, 720}, {1920, 1080}, {720, 480}, {352, 240}}};

// Reads "1280x720": digits, x, digits, at most nine digits each. Does not check the range.
std::optional<Size> size_parse(std::string_view text);
std::string size_text(const Size &size);

// Returns an empty string, or why there is no such post.
std::string post_refuse(int post);

} // namespace simcam
