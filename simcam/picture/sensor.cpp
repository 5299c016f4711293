// Exposure and noise.
#include "picture/sensor.h"

#include <cmath>
#include <vector>

#include <opencv2/core/hal/intrin.hpp>
#include <opencv2/imgproc.hpp>

namespace simcam
{

static constexpr int CHANNELS = 3;
static constexpr size_t NOISE_PERIOD = 1U << 18;
static constexpr size_t NOISE_LINE_MAX = 8192; // longest line, bytes

// A hash: spreads any number over 64 bits.
static uint64_t mixed(uint64_t value)
{
    value += 0x9E3779B97F4A7C15U;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31);
}

SensorNoise sensor_noise(double deviation)
{
    SensorNoise noise;
    if (deviation <= 0)
        return noise;
    noise.deviation = deviation;
    noise.row.resize(NOISE_PERIOD + NOISE_LINE_MAX);
    for (size_t i = 0; i < noise.row.size(); i++) {
        // The sum of four uniform 16-bit numbers is close to normal.
        const uint64_t bits = mixed(i);
        const double sum = static_cast<double>((bits & 0xFFFF) + ((bits >> 16) & 0xFFFF) +
                                               ((bits >> 32) & 0xFFFF) + (bits >> 48));
        const double normal = (sum / 65535.0 - 2.0) * std::sqrt(3.0);
        noise.row[i] = cv::saturate_cast<int8_t>(std::lround(normal * deviation));
    }
    return noise;
}

// in and out may be the same.
static void add_noise(const uint8_t *in, const int8_t *noise, int count, uint8_t *out)
{
    const cv::v_uint8x16 flip =
        cv::v_setall_u8(0x80); // to signed and back, so that adding saturates
    int i = 0;
    for (; i + 16 <= count; i += 16) {
        const cv::v_int8x16 value = cv::v_reinterpret_as_s8(cv::v_load(in + i) ^ flip);
        const cv::v_int8x16 noisy = value + cv::v_load(noise + i);
        cv::v_store(out + i, cv::v_reinterpret_as_u8(noisy) ^ flip);
    }
    for (; i < count; i++)
        out[i] = cv::saturate_cast<uint8_t>(in[i] + noise[i]);
}

void sensor_expose(const cv::Mat &blurred, double gain, const SensorNoise &noise, uint64_t seed,
                   uint64_t number, cv::Mat *picture)
{
    CV_Assert(blurred.type() == CV_8UC3);
    const int count = blurred.cols * CHANNELS;
    CV_Assert(static_cast<size_t>(count) <= NOISE_LINE_MAX);

    if (noise.row.empty()) {
        blurred.convertTo(*picture, -1, gain);
        return;
    }
    cv::Mat exposed = blurred;
    if (gain != 1.0) {
        blurred.convertTo(*picture, -1, gain);
        exposed = *picture;
    } else {
        picture->create(blurred.size(), CV_8UC3);
    }
    const uint64_t key = mixed(mixed(seed) ^ number);
    for (int line = 0; line < exposed.rows; line++) {
        const size_t start = mixed(key + static_cast<uint64_t>(line)) % NOISE_PERIOD;
        add_noise(exposed.ptr<uint8_t>(line), noise.row.data() + start, count,
                  picture->ptr<uint8_t>(line));
    }
}

} // namespace simcam
