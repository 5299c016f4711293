// Functions with few enough cases to try them all. Expectations follow from what defines a result,
// not from the program's way of computing it.
//
// Emulators and sanitizers are slow: there only every 37th case is tried.

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/display_loop.h"
#include "app/focus_measure.h"
#include "difference.h"
#include "draw/painter.h"
#include "draw/readout.h"
#include "error_log.h"
#include "font/font_engine.h"
#include "osd/osd_plane.h"
#include "reference.h"

#ifdef FOCUS_TEST_THINNED
static constexpr int STRIDE = 37;
#else
static constexpr int STRIDE = 1;
#endif

// ---- the bar -----------------------------------------------------------------------------------

// reference::paint_bar takes too long for every bar. Here the interior line of a pitch is computed
// once but for its fill, which is all that the percentage changes.
namespace bar
{

static constexpr int PITCH_MAX = 2048;

// The color of column j of an interior line, but for the fill: 0 where percent decides.
static uint8_t fixed_color_at(int j, int pitch, int frame)
{
    if (j < frame || j > pitch - frame - 1)
        return reference::COLOR_FRAME;
    const int width = pitch - 2 * frame;
    const double marker = width * 0.01 * reference::THRESHOLD;
    const double center = frame + marker;
    return j > center - frame && j < center + frame ? reference::COLOR_MARKER : 0;
}

static uint8_t color_at(int j, uint8_t fixed, double filled)
{
    if (fixed != 0)
        return fixed;
    return filled <= j ? reference::COLOR_BOX : reference::COLOR_FILL;
}

} // namespace bar

class ExhaustiveBar : public testing::TestWithParam<uint32_t>
{
};

TEST_P(ExhaustiveBar, IsRightForEveryPitchAndPercent)
{
    const int frame = reference::frame_thickness(GetParam());
    const int height = 2 * frame + 2;
    static constexpr size_t BEHIND = 8; // bytes that must not be written
    std::vector<uint8_t> memory;
    std::vector<uint8_t> expected;
    std::vector<uint8_t> fixed;

    for (int pitch = 0; pitch <= bar::PITCH_MAX; pitch++) {
        DrawRect rect = {};
        rect.height = height;
        rect.depth = 8;
        rect.bg_color = reference::COLOR_BOX;
        rect.pitch = pitch;
        rect.resolution = GetParam();

        const size_t size = (size_t)(height * pitch);
        memory.resize(size + BEHIND);
        expected.assign(size, reference::COLOR_FRAME);
        expected.resize(size + BEHIND, 0xA5);
        fixed.resize((size_t)pitch);
        for (int j = 0; j < pitch; j++)
            fixed[(size_t)j] = bar::fixed_color_at(j, pitch, frame);
        uint8_t *const line = expected.data() + frame * pitch; // the first of two interior lines

        for (int percent = -30 + pitch % STRIDE; percent <= 330; percent += STRIDE) {
            const double filled = frame + percent * ((pitch - 2 * frame) * 0.01);
            for (int j = 0; j < pitch; j++)
                line[j] = bar::color_at(j, fixed[(size_t)j], filled);
            std::copy_n(line, pitch, line + pitch);
            std::fill(memory.begin(), memory.end(), (uint8_t)0xA5);

            draw_rectangle_bitmap(memory.data(), &rect, percent, (uint32_t)memory.size());

            ASSERT_TRUE(memory == expected)
                << "resolution " << GetParam() << ", height " << height << ", pitch " << pitch
                << ", " << percent << " %: " << difference(memory, expected, (size_t)pitch);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Resolutions, ExhaustiveBar, testing::Values(0u, 1u, 2u, 3u, 4u));

// ---- numbers -----------------------------------------------------------------------------------

TEST(Exhaustive, FontGrowsByAPixelEverySeventeenLinesAndIsAtLeastEight)
{
    uint32_t pixels = 0;
    for (uint32_t lines = 0; lines < 65536; lines++) {
        if (lines > 0 && lines % 17 == 0)
            pixels++;
        ASSERT_EQ(font_pixel_size(lines), std::max(pixels, 8u)) << lines << " lines";
    }
}

// The percentage is the largest number whose product with the peak is within 100 times the current
// value, that taken in 32 bits.
static void expect_percentage(uint32_t current, uint32_t peak)
{
    const uint64_t percent = focus_percent_of(current, peak);
    const uint64_t hundredfold = (uint64_t)current * 100 & 0xFFFFFFFF;
    if (peak == 0 ? percent != 0
                  : percent * peak > hundredfold || (percent + 1) * peak <= hundredfold)
        FAIL() << percent << " % for " << current << " of " << peak;
}

TEST(Exhaustive, PercentageOfEveryPairUpToThreeThousandAndAroundEveryWrap)
{
    for (uint32_t current = 0; current <= 3000; current += STRIDE) {
        for (uint32_t peak = 0; peak <= 3000; peak++)
            ASSERT_NO_FATAL_FAILURE(expect_percentage(current, peak));
    }
    std::vector<uint32_t> values;
    for (uint64_t wraps = 0; wraps <= 100; wraps++) { // the hundredfold passes 2^32 so many times
        for (uint64_t beside = 0; beside < 5; beside++)
            values.push_back((uint32_t)((wraps << 32) / 100 + beside - 2));
    }
    for (const uint32_t current : values) {
        for (const uint32_t peak : values)
            ASSERT_NO_FATAL_FAILURE(expect_percentage(current, peak));
    }
}

TEST(Exhaustive, ExactlyFourCodesAreTolerated)
{
    static constexpr uint32_t TOLERATED[] = {0x81003209, 0x81E0250C, 0x81E03204, 0x81E04507};
    uint64_t tolerated = 0;
    for (uint64_t code = 0; code <= 0xFFFFFFFF; code += STRIDE > 1 ? 65537 : 1)
        tolerated += osd_is_benign_error((uint32_t)code) != 0;
    if (STRIDE == 1) {
        EXPECT_EQ(tolerated, 4u);
    }
    for (const uint32_t code : TOLERATED) {
        EXPECT_EQ(osd_is_benign_error(code), -1);
        for (uint32_t low = 0; low < 65536; low++) {
            const uint32_t other = (code & 0xFFFF0000) | low;
            const bool is_one =
                std::find(std::begin(TOLERATED), std::end(TOLERATED), other) != std::end(TOLERATED);
            ASSERT_EQ(osd_is_benign_error(other), is_one ? -1 : 0) << std::hex << other;
        }
    }
}

// ---- the peak ----------------------------------------------------------------------------------

static constexpr uint32_t FAILED_READING = 0xFFFFFFFF;
static uint32_t next_reading; // in display units

extern "C" int __wrap_ioctl(int device, unsigned long request, ...);
extern "C" int __wrap_ioctl(int, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    CamFocusStats *const stats = va_arg(arguments, CamFocusStats *);
    va_end(arguments);
    if (next_reading == FAILED_READING)
        return -1;
    stats->focus_value = next_reading * 100 + next_reading % 100; // the hundredths are dropped
    return 0;
}

// The first value that differs by more than 4 from one before it that is not 0 starts the tracking;
// the peak is the highest value from then on.
static uint32_t peak_of(const std::vector<uint32_t> &values)
{
    for (size_t i = 1; i < values.size(); i++) {
        const int64_t change = (int64_t)values[i] - values[i - 1];
        if (values[i - 1] != 0 && std::abs(change) > 4)
            return *std::max_element(values.begin() + (ptrdiff_t)i, values.end());
    }
    return 0;
}

TEST(Exhaustive, PeakAfterEverySequenceOfSixReadings)
{
    static constexpr uint32_t READINGS[] = {0, 1, 4, 5, 6, 9, 10, 14, 42949672, FAILED_READING};
    static constexpr size_t COUNT = std::size(READINGS);
    for (size_t number = 0; number < COUNT * COUNT * COUNT * COUNT * COUNT * COUNT;
         number += STRIDE) {
        FocusState state = {};
        CamFocusStats stats = {};
        peak_hold = 1;
        std::vector<uint32_t> values;
        size_t rest = number;
        for (int i = 0; i < 6; i++, rest /= COUNT) {
            next_reading = READINGS[rest % COUNT];
            const uint32_t last = values.empty() ? 0 : values.back();
            values.push_back(next_reading == FAILED_READING ? last : next_reading);

            focus_measure_step(&state, 77, &stats);

            ASSERT_EQ(state.current, values.back()) << "sequence " << number << ", reading " << i;
            ASSERT_EQ(state.peak, peak_of(values)) << "sequence " << number << ", reading " << i;
        }
    }
}

// ---- geometry ----------------------------------------------------------------------------------

// Standard error in memory.
class Errors
{
  public:
    Errors() : real_(stderr), file_(open_memstream(&bytes_, &size_))
    {
        stderr = file_;
    }
    ~Errors()
    {
        stderr = real_;
        fclose(file_);
        free(bytes_);
    }
    Errors(const Errors &) = delete;
    Errors &operator=(const Errors &) = delete;

    // What was written since the last call.
    std::string take()
    {
        fflush(file_);
        std::string text(bytes_, size_);
        rewind(file_);
        return text;
    }

  private:
    FILE *real_;
    char *bytes_ = nullptr;
    size_t size_ = 0;
    FILE *file_;
};

TEST(Exhaustive, PlanesOfEveryWidthAreCenteredAtFourFifthsOfTheHeight)
{
    static constexpr struct {
        uint32_t output, width, height;
    } SIZES[] = {{1920, 720, 108}, {1280, 480, 72}, {720, 280, 48}, {352, 132, 24}};
    static constexpr uint32_t HEIGHTS[] = {0, 4, 240, 576, 1079, 1080, 65535};
    Errors errors;

    for (uint32_t width = 0; width < 65536; width += width < 2000 ? 1 : STRIDE) {
        uint32_t index = 0;
        while (index < 4 && SIZES[index].output != width)
            index++;
        for (const uint32_t height : HEIGHTS) {
            const PostGeometry geometry = {1, width, height};
            PostState post = {};
            OsdRegion regions[OSD_PLANE_COUNT] = {};

            ASSERT_EQ(init_draw_param(&post.params, &geometry, "", 0, regions), 0);

            const uint32_t plane = index < 4 ? SIZES[index].width : 0;
            for (const OsdRegion &region : regions) {
                ASSERT_EQ(region.resolution, index) << width;
                ASSERT_EQ(region.width, plane) << width;
                ASSERT_EQ(region.height, index < 4 ? SIZES[index].height : 0) << width;
                // As much is left of it as right of it, and an odd column is to the right.
                ASSERT_EQ(region.x + plane + region.x + (width - plane) % 2, width);
                ASSERT_LE(5 * region.y, 4 * height);
                ASSERT_GT(5 * region.y + 5, 4 * height);
            }
            ASSERT_EQ(errors.take(), index < 4 ? ""
                                               : "ERR:#qm7osd:[(null)]=invalid resolution("
                                                 "init_draw_param)\n")
                << width;
        }
    }
}

// ---- messages ----------------------------------------------------------------------------------

// A line has 1023 bytes at most, and the name 127 with what encloses it; the message loses its end.
TEST(Exhaustive, ErrorLinesOfEveryLength)
{
    static const std::string BEGIN = "ERR:#qm7osd:[(null)]=";
    Errors errors;
    for (size_t name_length = 0; name_length <= 140; name_length++) {
        const std::string name(name_length, 'n');
        const std::string end = ("(" + name + ")\n").substr(0, 127);
        const size_t room = 1023 - BEGIN.size() - end.size();
        const size_t first = STRIDE > 1 ? room - 3 : 0;
        for (size_t length = first; length <= room + 30; length++) {
            const std::string message(length, 'm');

            log_error(name.c_str(), "%s", message.c_str());

            ASSERT_EQ(errors.take(), BEGIN + message.substr(0, room) + end)
                << "name of " << name_length << ", message of " << length;
        }
    }
}
