// The lens.
//
// The blur is exact for small discs and computed at half the size for large ones, where the
// difference is invisible. It keeps a running sum down the picture: from one line to the next only
// the disc's rim changes.
#include "picture/lens.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include <opencv2/core/hal/intrin.hpp>
#include <opencv2/imgproc.hpp>

namespace simcam
{

// ---- Lens -------------------------------------------------------------------------------------

// A small fast lens on a small sensor, in millimeters. The ring moves the lens's extension linearly
// from its near stop to infinity.
static constexpr double FOCAL_LENGTH = 25.0;
static constexpr double APERTURE = FOCAL_LENGTH / 1.8;
static constexpr double NEAR_STOP = 1000.0;
static constexpr double SUBJECT = 2200.0;
static constexpr double PIXEL_PITCH = 0.0056;
// Diffraction, aberrations and the sensor's low-pass filter: the blur left at best focus, pixels.
static constexpr double FIXED_BLUR_PX = 1.6;

// How far behind the lens the image of an object at this distance lies.
static constexpr double image_distance(double distance)
{
    return FOCAL_LENGTH * distance / (distance - FOCAL_LENGTH);
}

double lens_blur_px(double ring)
{
    const double position = std::clamp(ring, 0.0, 1.0);
    const double near_extension = image_distance(NEAR_STOP) - FOCAL_LENGTH;
    const double sensor = FOCAL_LENGTH + (1.0 - position) * near_extension;
    const double image = image_distance(SUBJECT);
    const double circle_px = APERTURE * std::abs(sensor - image) / image / PIXEL_PITCH;
    return std::hypot(circle_px, FIXED_BLUR_PX);
}

double lens_best_ring()
{
    const double near_extension = image_distance(NEAR_STOP) - FOCAL_LENGTH;
    return 1.0 - (image_distance(SUBJECT) - FOCAL_LENGTH) / near_extension;
}

// ---- Disc -------------------------------------------------------------------------------------

// Discs above this diameter are computed at half the size.
static constexpr double HALF_SIZE_FROM_PX = 10.0;
static constexpr int CHANNELS = 3;
static constexpr int RADIUS_MAX = 10; // whole pixels beside the middle one
static constexpr int WEIGHT_ONE = 1024;

// One quarter of an anti-aliased disc: the weight of a pixel is how much of it the disc covers,
// in even steps, WEIGHT_ONE for all of it.
struct Disc {
    int radius;
    int sum;                                                            // of the whole disc
    std::array<std::array<int, RADIUS_MAX + 2>, RADIUS_MAX + 2> weight; // [dy][dx]
};

// Pixels of the rim with the same weight, taken in pairs: two weights, two distances.
struct RimPair {
    int dx[2], dy[2];
    int weight[2];
};

// How much of the pixel whose center is (dx, dy) off the disc's lies inside it.
static double disc_coverage(double radius, int dx, int dy)
{
    constexpr int STRIPS = 64;
    double covered = 0;
    for (int i = 0; i < STRIPS; i++) {
        const double y = dy - 0.5 + (i + 0.5) / STRIPS;
        const double chord = std::sqrt(std::max(0.0, radius * radius - y * y));
        covered += std::max(0.0, std::min(dx + 0.5, chord) - std::max(dx - 0.5, -chord));
    }
    return covered / STRIPS;
}

static Disc disc_make(double diameter)
{
    const double radius = diameter / 2;
    Disc disc{};
    disc.radius = std::clamp(static_cast<int>(std::ceil(radius - 0.5)), 0, RADIUS_MAX);
    for (int dy = 0; dy <= disc.radius; dy++) {
        for (int dx = 0; dx <= disc.radius; dx++) {
            const double covered = disc_coverage(radius, dx, dy);
            const int weight = 2 * static_cast<int>(std::lround(covered * WEIGHT_ONE / 2));
            disc.weight[static_cast<size_t>(dy)][static_cast<size_t>(dx)] = weight;
            disc.sum += weight * (dx ? 2 : 1) * (dy ? 2 : 1);
        }
    }
    return disc;
}

// The weights that the sum gains at the lower rim, and loses at the mirrored upper rim, when it
// moves down one line.
static std::vector<RimPair> disc_rim(const Disc &disc)
{
    std::vector<RimPair> rim;
    int filled = 2;
    for (int dy = 0; dy <= disc.radius; dy++) {
        for (int dx = 0; dx <= disc.radius; dx++) {
            const auto row = static_cast<size_t>(dy);
            const auto column = static_cast<size_t>(dx);
            int gain = disc.weight[row][column] - disc.weight[row + 1][column];
            if (gain == 0)
                continue;
            if (dx == 0)
                gain /= 2; // dx and -dx are the same column
            if (filled == 2) {
                rim.push_back({});
                filled = 0;
            }
            rim.back().dx[filled] = dx;
            rim.back().dy[filled] = dy;
            rim.back().weight[filled] = gain;
            filled++;
        }
    }
    return rim;
}

// The whole disc's sums for line 0, from a picture padded by margin.
static void disc_first_line(const cv::Mat &padded, const Disc &disc, int margin,
                            std::vector<int32_t> *sums)
{
    std::fill(sums->begin(), sums->end(), 0);
    for (int dy = -disc.radius; dy <= disc.radius; dy++) {
        const auto *line = padded.ptr<int16_t>(margin + dy) + ptrdiff_t{margin} * CHANNELS;
        for (int dx = -disc.radius; dx <= disc.radius; dx++) {
            const int weight =
                disc.weight[static_cast<size_t>(std::abs(dy))][static_cast<size_t>(std::abs(dx))];
            if (weight == 0)
                continue;
            const int16_t *from = line + ptrdiff_t{dx} * CHANNELS;
            for (size_t i = 0; i < sums->size(); i++)
                (*sums)[i] += weight * from[i];
        }
    }
}

// The four mirrored places of one rim pixel, as pointers to the first value of a line.
struct RimReads {
    const int16_t *low_right, *low_left, *high_right, *high_left;
};

static cv::v_int16x8 rim_change(const RimReads &reads, int i)
{
    return cv::v_load(reads.low_right + i) + cv::v_load(reads.low_left + i) -
           cv::v_load(reads.high_right + i) - cv::v_load(reads.high_left + i);
}

// Moves the sums of one line to the next one.
static void disc_next_line(const std::vector<RimReads> &reads,
                           const std::vector<cv::v_int16x8> &weights, std::vector<int32_t> *sums)
{
    const auto count = static_cast<int>(sums->size());
    for (int i = 0; i < count; i += 8) {
        int32_t *at = sums->data() + i;
        cv::v_int32x4 low = cv::v_load(at);
        cv::v_int32x4 high = cv::v_load(at + 4);
        for (size_t pair = 0; pair < weights.size(); pair++) {
            const cv::v_int16x8 one = rim_change(reads[2 * pair], i);
            const cv::v_int16x8 two = rim_change(reads[2 * pair + 1], i);
            cv::v_int16x8 zipped_low, zipped_high;
            cv::v_zip(one, two, zipped_low, zipped_high);
            low = cv::v_dotprod(zipped_low, weights[pair], low);
            high = cv::v_dotprod(zipped_high, weights[pair], high);
        }
        cv::v_store(at, low);
        cv::v_store(at + 4, high);
    }
}

// Where the rim's pixels lie when the line before `line` moves down to it.
static void disc_rim_reads(const cv::Mat &padded, const std::vector<RimPair> &rim, int margin,
                           int line, std::vector<RimReads> *reads)
{
    const ptrdiff_t left = ptrdiff_t{margin} * CHANNELS;
    for (size_t pair = 0; pair < rim.size(); pair++) {
        for (size_t k = 0; k < 2; k++) {
            const ptrdiff_t dx = ptrdiff_t{rim[pair].dx[k]} * CHANNELS;
            const int dy = rim[pair].dy[k];
            const int16_t *low = padded.ptr<int16_t>(margin + line + dy) + left;
            const int16_t *high = padded.ptr<int16_t>(margin + line - 1 - dy) + left;
            (*reads)[2 * pair + k] = {low + dx, low - dx, high + dx, high - dx};
        }
    }
}

static void disc_store_line(const std::vector<int32_t> &sums, float scale, uint8_t *out)
{
    const cv::v_float32x4 factor = cv::v_setall_f32(scale);
    const auto count = static_cast<int>(sums.size());
    for (int i = 0; i < count; i += 8) {
        const int32_t *at = sums.data() + i;
        const cv::v_int32x4 low = cv::v_round(cv::v_cvt_f32(cv::v_load(at)) * factor);
        const cv::v_int32x4 high = cv::v_round(cv::v_cvt_f32(cv::v_load(at + 4)) * factor);
        cv::v_pack_u_store(out + i, cv::v_pack(low, high));
    }
}

// Edges are continued outwards. The width times three has to be a multiple of eight.
static void disc_blur(const cv::Mat &sharp, double diameter, cv::Mat *blurred)
{
    const Disc disc = disc_make(diameter);
    const int margin = disc.radius + 1;
    cv::Mat bordered, padded;
    cv::copyMakeBorder(sharp, bordered, margin, margin, margin, margin, cv::BORDER_REPLICATE);
    bordered.convertTo(padded, CV_16S);

    const std::vector<RimPair> rim = disc_rim(disc);
    std::vector<cv::v_int16x8> weights;
    for (const RimPair &pair : rim) {
        const auto one = static_cast<short>(pair.weight[0]);
        const auto two = static_cast<short>(pair.weight[1]);
        weights.emplace_back(one, two, one, two, one, two, one, two);
    }
    std::vector<RimReads> reads(rim.size() * 2);
    std::vector<int32_t> sums(static_cast<size_t>(sharp.cols) * CHANNELS);
    const float scale = 1.0F / static_cast<float>(disc.sum);

    blurred->create(sharp.size(), CV_8UC3);
    disc_first_line(padded, disc, margin, &sums);
    disc_store_line(sums, scale, blurred->ptr<uint8_t>(0));
    for (int line = 1; line < sharp.rows; line++) {
        disc_rim_reads(padded, rim, margin, line, &reads);
        disc_next_line(reads, weights, &sums);
        disc_store_line(sums, scale, blurred->ptr<uint8_t>(line));
    }
}

void lens_blur(const cv::Mat &sharp, double blur_px, cv::Mat *blurred)
{
    CV_Assert(sharp.type() == CV_8UC3 && sharp.cols % 16 == 0 && sharp.rows % 2 == 0);
    if (blur_px <= HALF_SIZE_FROM_PX) {
        disc_blur(sharp, std::max(blur_px, 1.0), blurred);
        return;
    }
    // Halving and doubling the size add a blur of their own, of one pixel's variance; a disc's
    // variance is its diameter squared / 16.
    cv::Mat half, half_blurred;
    cv::resize(sharp, half, sharp.size() / 2, 0, 0, cv::INTER_AREA);
    const double diameter = std::sqrt(blur_px * blur_px - 16.0) / 2;
    disc_blur(half, std::min(diameter, 2.0 * RADIUS_MAX), &half_blurred);
    cv::resize(half_blurred, *blurred, sharp.size(), 0, 0, cv::INTER_LINEAR);
}

} // namespace simcam
