// What an output shows: complete readouts in every frame, and the correct composition.

#include <cmath>
#include <cstdlib>
#include <gtest/gtest.h>
#include <set>

#include "camera/pictures.h"
#include "picture/lens.h"
#include "overlay.h"

using namespace simcam;

// ---- complete frames

TEST(OverlayPicture, HundredsOfFramesAreComplete)
{
    const FastSleep fast_sleep;
    CameraOptions options = overlay_options_all_posts();
    options.sweep = true;
    options.sweep_period_s = 3; // so that the readout changes with every redraw
    const Overlay overlay(options);
    for (int post = 0; post < 4; post++)
        overlay.wait_redraws(post);

    const int widths[4] = {1920, 1280, 720, 352}, heights[4] = {1080, 720, 480, 240};
    std::set<std::pair<int, uint64_t>> frames;
    std::set<std::string> texts;
    uint64_t next = 0;
    overlay.wait("two hundred frames", [&] {
        const int post = static_cast<int>(next++ % 4);
        // A redraw may happen between the two reads: each plane is checked alone.
        const PlaneImage bar = camera_plane(*overlay, post, 0);
        const PlaneImage text = camera_plane(*overlay, post, 1);
        const Readout readout = readout_read(widths[post], heights[post], bar, text);
        EXPECT_TRUE(readout.valid) << "post " << post << ": " << readout.problem;
        frames.insert({post, bar.state.shows});
        texts.insert(readout.text);
        return frames.size() >= 200 || testing::Test::HasFailure();
    });
    EXPECT_GT(texts.size(), 20u); // the text did change
}

TEST(OverlayPicture, AKillWhileDrawingLeavesCompleteFrames)
{
    const FastSleep fast_sleep;
    const Overlay overlay(overlay_options());
    for (int i = 0; i < 20; i++) {
        overlay.wait_redraws(0, 1 + static_cast<uint64_t>(i) % 3);
        EXPECT_EQ(camera_process_kill(*overlay), "");
        overlay.wait_process_end();
        const Readout readout = overlay.readout(0);
        EXPECT_TRUE(readout.valid) << readout.problem;
        EXPECT_EQ(camera_start_post(*overlay, 0, {1280, 720}), "");
        EXPECT_EQ(camera_process_start(*overlay), "");
    }
}

// ---- composition

namespace
{

struct Rgb {
    int r = 0, g = 0, b = 0;
};

int clamped(double value)
{
    return static_cast<int>(std::fmin(255, std::fmax(0, std::floor(value + 0.5))));
}

// Full-range BT.601, computed from the weights of red and blue.
Rgb color_of(const std::vector<uint8_t> &palette, uint8_t index)
{
    const uint8_t *entry = palette.data() + size_t{4} * index;
    const double kr = 0.299, kb = 0.114, kg = 1 - kr - kb;
    const double y = entry[0], cb = entry[1] - 128.0, cr = entry[2] - 128.0;
    const double r = y + 2 * (1 - kr) * cr;
    const double b = y + 2 * (1 - kb) * cb;
    const double g = (y - kr * r - kb * b) / kg;
    return {clamped(r), clamped(g), clamped(b)};
}

int opacity_of(const std::vector<uint8_t> &palette, uint8_t index)
{
    return std::min<int>(8, palette[size_t{4} * index + 3]);
}

// The expected picture: planes 0 and 1 over the picture without planes.
cv::Mat composed(const Overlay &overlay, int post, const cv::Mat &bare)
{
    const std::vector<uint8_t> palette = camera_palette(*overlay);
    cv::Mat picture = bare.clone();
    for (int number = 0; number < 2; number++) {
        const PlaneImage plane = camera_plane(*overlay, post, number);
        for (uint32_t y = 0; y < plane.state.height; y++) {
            for (uint32_t x = 0; x < plane.state.width; x++) {
                const int px = static_cast<int>(plane.state.x + x);
                const int py = static_cast<int>(plane.state.y + y);
                if (px >= picture.cols || py >= picture.rows)
                    continue;
                const uint8_t index = plane.bytes[size_t{y} * plane.state.pitch + x];
                const Rgb color = color_of(palette, index);
                const int opacity = opacity_of(palette, index);
                cv::Vec3b &pixel = picture.at<cv::Vec3b>(py, px);
                const int parts[3] = {color.b, color.g, color.r};
                for (int c = 0; c < 3; c++)
                    pixel[c] = static_cast<uint8_t>(
                        (parts[c] * opacity + pixel[c] * (8 - opacity) + 4) / 8);
            }
        }
    }
    return picture;
}

} // namespace

TEST(OverlayPicture, IsThePictureUnderThePlanes)
{
    CameraOptions options = overlay_options_all_posts();
    options.rate_hz = 2; // long enough to read both pictures
    const Overlay overlay(options);
    for (int post = 0; post < 4; post++) {
        overlay.wait_redraws(post);
        cv::Mat bare, shown, expected;
        overlay.wait("two looks at the same picture", [&] {
            const CameraState before = overlay.state();
            bare = camera_picture(*overlay, post, false);
            expected = composed(overlay, post, bare);
            shown = camera_picture(*overlay, post, true);
            const CameraState after = overlay.state();
            const auto &was = before.post[static_cast<size_t>(post)];
            const auto &is = after.post[static_cast<size_t>(post)];
            return before.latest.number == after.latest.number &&
                   was.plane[0].shows == is.plane[0].shows &&
                   was.plane[1].shows == is.plane[1].shows;
        });
        ASSERT_EQ(shown.size(), bare.size());
        int differing = 0, covered = 0, worst = 0;
        for (int y = 0; y < shown.rows; y++) {
            for (int x = 0; x < shown.cols; x++) {
                const auto a = shown.at<cv::Vec3b>(y, x), b = expected.at<cv::Vec3b>(y, x);
                covered += b != bare.at<cv::Vec3b>(y, x) ? 1 : 0;
                for (int c = 0; c < 3; c++) {
                    const int difference = std::abs(a[c] - b[c]);
                    worst = std::max(worst, difference);
                    differing += difference > 1 ? 1 : 0; // rounding of the last bit
                }
            }
        }
        EXPECT_EQ(differing, 0) << "post " << post << ", worst by " << worst;
        EXPECT_GT(covered, 1000) << post;
    }
}

TEST(OverlayPicture, ColorsAreTheForcedOnes)
{
    const Overlay overlay(overlay_options());
    overlay.wait_redraws(0, 2);
    const auto palette = camera_palette(*overlay);

    EXPECT_EQ(palette[67], 0x08);
    EXPECT_EQ(palette[68], 0xEF);
    EXPECT_EQ(palette[69], 0x28);
    EXPECT_EQ(palette[70], 0x6D);
    EXPECT_EQ(palette[72], 0x4C);
    EXPECT_EQ(palette[73], 0x54);
    EXPECT_EQ(palette[74], 0xFF);
    EXPECT_EQ(palette[76], 0xB2);
    EXPECT_EQ(palette[77], 0xAA);
    EXPECT_EQ(palette[78], 0x00);
    // The value has not changed, so the bar is empty: a yellow-green box in its frame.
    const cv::Mat picture = camera_picture(*overlay, 0, true);
    const auto box = picture.at<cv::Vec3b>(576 + 36, 400 + 100);
    EXPECT_GT(box[1], 200); // green
    EXPECT_GT(box[2], 180); // red
    EXPECT_LT(box[0], 110); // blue
    const auto frame = picture.at<cv::Vec3b>(576 + 1, 400 + 100);
    EXPECT_LT(frame[1], 60);
}
