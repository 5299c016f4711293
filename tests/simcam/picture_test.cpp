// Scenes, lens, sensor, measurement and compositor against literal references.
#include "picture/compose.h"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <sys/stat.h>
#if SIMCAM_VIDEO
#include <opencv2/videoio.hpp>
#endif

#include "picture/lens.h"
#include "picture/osd_color.h"
#include "picture/scene.h"
#include "picture/sensor.h"
#include "picture/sharpness.h"
#include "test_directory.h"

using namespace simcam;

namespace
{

cv::Mat random_picture(int width, int height, uint64_t seed)
{
    cv::Mat picture(height, width, CV_8UC3);
    cv::RNG random(seed);
    random.fill(picture, cv::RNG::UNIFORM, 0, 256);
    return picture;
}

double largest_difference(const cv::Mat &one, const cv::Mat &two)
{
    return cv::norm(one, two, cv::NORM_INF);
}

#if SIMCAM_VIDEO
bool reading_throws = false;

// A video of five frames of growing brightness, ten a second. Its file exists no longer.
std::shared_ptr<Scene> open_steps()
{
    const TestDirectory directory;
    const std::string path = directory.file("steps.avi");
    cv::VideoWriter writer(path, cv::CAP_OPENCV_MJPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'),
                           10, {320, 180});
    EXPECT_TRUE(writer.isOpened());
    for (int i = 0; i < 5; i++)
        writer.write(cv::Mat(180, 320, CV_8UC3, cv::Scalar::all(40.0 + 40 * i)));
    writer.release();
    std::string error;
    std::shared_ptr<Scene> scene = scene_open(path, &error);
    EXPECT_TRUE(scene) << error;
    return scene;
}

} // namespace

// Replaces the function of the shared library; behaves the same unless a test requests an error.
bool cv::VideoCapture::read(cv::OutputArray image)
{
    if (reading_throws)
        CV_Error(cv::Error::StsError, "trouble");
    return grab() && retrieve(image);
}

namespace
{
#endif

// ---- Lens -------------------------------------------------------------------------------------

TEST(Lens, BestFocusLeavesTheFixedBlurOnly)
{
    EXPECT_NEAR(lens_blur_px(lens_best_ring()), 1.6, 1e-9);
}

TEST(Lens, StopsBlurByTheCircleOfConfusionOfAThinLens)
{
    // f = 25 mm at F1.8, subject at 2.2 m: its image lies 25.287356 mm behind the lens.
    // Far stop: 13.888889 * 0.287356 / 25.287356 = 0.157829 mm, of 0.0056 mm pixels.
    EXPECT_NEAR(lens_blur_px(1), std::hypot(28.1838, 1.6), 0.001);
    // Near stop, 1 m: 25.641026 mm; 13.888889 * 0.353670 / 25.287356 = 0.194251 mm.
    EXPECT_NEAR(lens_blur_px(0), std::hypot(34.6876, 1.6), 0.001);
}

TEST(Lens, RingBeyondItsStopsStaysAtThem)
{
    EXPECT_EQ(lens_blur_px(-1), lens_blur_px(0));
    EXPECT_EQ(lens_blur_px(2), lens_blur_px(1));
}

// Share of each pixel inside the disc, by counting points on a fine grid.
cv::Mat disc_by_counting(double diameter)
{
    const int reach = static_cast<int>(std::ceil(diameter / 2 + 0.5));
    constexpr int GRID = 40;
    cv::Mat disc = cv::Mat::zeros(2 * reach + 1, 2 * reach + 1, CV_64F);
    for (int row = -reach; row <= reach; row++)
        for (int column = -reach; column <= reach; column++)
            for (int i = 0; i < GRID * GRID; i++) {
                const double x = column - 0.5 + (i % GRID + 0.5) / GRID;
                const double y = row - 0.5 + (i / GRID + 0.5) / GRID;
                if (std::hypot(x, y) <= diameter / 2)
                    disc.at<double>(row + reach, column + reach) += 1;
            }
    return disc / cv::sum(disc)[0];
}

cv::Mat blur_pixel_by_pixel(const cv::Mat &sharp, double diameter)
{
    const cv::Mat disc = disc_by_counting(diameter);
    const int reach = disc.rows / 2;
    cv::Mat blurred(sharp.size(), CV_8UC3);
    for (int y = 0; y < sharp.rows; y++)
        for (int x = 0; x < sharp.cols; x++) {
            cv::Vec3d sum(0, 0, 0);
            for (int dy = -reach; dy <= reach; dy++)
                for (int dx = -reach; dx <= reach; dx++) {
                    const int from_x = std::clamp(x + dx, 0, sharp.cols - 1);
                    const int from_y = std::clamp(y + dy, 0, sharp.rows - 1);
                    const double weight = disc.at<double>(dy + reach, dx + reach);
                    sum += weight * cv::Vec3d(sharp.at<cv::Vec3b>(from_y, from_x));
                }
            blurred.at<cv::Vec3b>(y, x) = sum;
        }
    return blurred;
}

class DiscBlur : public testing::TestWithParam<double>
{
};

TEST_P(DiscBlur, IsTheMeanUnderTheDiscAtEveryPixel)
{
    const cv::Mat sharp = random_picture(48, 40, 7);

    cv::Mat blurred;
    lens_blur(sharp, GetParam(), &blurred);

    EXPECT_LE(largest_difference(blurred, blur_pixel_by_pixel(sharp, GetParam())), 1);
}

INSTANTIATE_TEST_SUITE_P(Diameters, DiscBlur,
                         testing::Values(1.0, 1.6, 2.0, 3.3, 5.0, 7.2, 8.4, 10.0));

class LargeDiscBlur : public testing::TestWithParam<double>
{
};

TEST_P(LargeDiscBlur, ComesCloseToTheMeanUnderTheDisc)
{
    cv::Mat sharp(96, 128, CV_8UC3, cv::Scalar(20, 40, 60));
    sharp(cv::Rect(40, 30, 30, 22)).setTo(cv::Scalar(240, 220, 200));
    sharp(cv::Rect(90, 60, 3, 30)).setTo(cv::Scalar(0, 255, 0));

    cv::Mat blurred;
    lens_blur(sharp, GetParam(), &blurred);

    const cv::Mat expected = blur_pixel_by_pixel(sharp, GetParam());
    EXPECT_LE(largest_difference(blurred, expected), 10);
    EXPECT_LE(cv::norm(blurred, expected, cv::NORM_L1) / (128 * 96 * 3), 0.6);
}

INSTANTIATE_TEST_SUITE_P(Diameters, LargeDiscBlur, testing::Values(10.1, 13.0, 24.0, 34.7, 40.0));

TEST(LargeDiscBlur, SpreadsAStripeByTheDiscsVariance)
{
    cv::Mat stripe(64, 128, CV_8UC3, cv::Scalar(0, 0, 0));
    stripe(cv::Rect(60, 0, 8, 64)).setTo(cv::Scalar(240, 240, 240));
    for (const double diameter : {10.5, 14.0, 20.0}) {
        cv::Mat blurred;
        lens_blur(stripe, diameter, &blurred);

        double weight = 0;
        double moment = 0;
        for (int x = 0; x < stripe.cols; x++) {
            const double level = blurred.at<cv::Vec3b>(32, x)[0];
            weight += level;
            moment += level * (x - 63.5) * (x - 63.5);
        }
        // Eight columns of a stripe have (64 - 1) / 12, a disc has its diameter squared / 16.
        EXPECT_NEAR(moment / weight, 5.25 + diameter * diameter / 16, 0.4) << diameter;
    }
}

TEST(DiscBlur, LeavesAnEvenPictureAsItIs)
{
    const cv::Mat even(64, 64, CV_8UC3, cv::Scalar(255, 128, 1));
    for (double diameter = 0; diameter <= 40; diameter += 0.7) {
        cv::Mat blurred;
        lens_blur(even, diameter, &blurred);
        EXPECT_EQ(largest_difference(blurred, even), 0) << diameter;
    }
}

// ---- Sensor -----------------------------------------------------------------------------------

static const SensorNoise NOISE = sensor_noise(2.0);

TEST(Sensor, SameSeedAndNumberMakeTheSamePicture)
{
    const cv::Mat blurred = random_picture(SENSOR_WIDTH, SENSOR_HEIGHT, 1);
    cv::Mat one, again, other_number, other_seed;
    sensor_expose(blurred, 1.0, NOISE, 5, 77, &one);
    sensor_expose(blurred, 1.0, NOISE, 5, 77, &again);
    sensor_expose(blurred, 1.0, NOISE, 5, 78, &other_number);
    sensor_expose(blurred, 1.0, NOISE, 6, 77, &other_seed);

    EXPECT_EQ(largest_difference(one, again), 0);
    EXPECT_GT(largest_difference(one, other_number), 0);
    EXPECT_GT(largest_difference(one, other_seed), 0);
}

TEST(Sensor, NoiseHasNoMeanAndADeviationOfTwoLevels)
{
    const cv::Mat gray(SENSOR_HEIGHT, SENSOR_WIDTH, CV_8UC3, cv::Scalar(128, 128, 128));
    cv::Mat picture;
    sensor_expose(gray, 1.0, NOISE, 1, 1, &picture);

    cv::Scalar mean, deviation;
    cv::meanStdDev(picture, mean, deviation);
    for (int channel = 0; channel < 3; channel++) {
        EXPECT_NEAR(mean[channel], 128, 0.05);
        EXPECT_NEAR(deviation[channel], 2.0, 0.1);
    }
}

TEST(Sensor, NoiseHasTheDeviationAskedFor)
{
    const cv::Mat gray(SENSOR_HEIGHT, SENSOR_WIDTH, CV_8UC3, cv::Scalar(128, 128, 128));
    for (const double asked : {0.5, 4.0, 16.0}) {
        cv::Mat picture;
        sensor_expose(gray, 1.0, sensor_noise(asked), 1, 1, &picture);

        cv::Scalar mean, deviation;
        cv::meanStdDev(picture, mean, deviation);
        EXPECT_NEAR(mean[0], 128, 0.1) << asked;
        // Rounding to whole levels adds a variance of 1/12.
        EXPECT_NEAR(deviation[0], std::sqrt(asked * asked + 1.0 / 12), 0.03 * asked) << asked;
    }
}

TEST(Sensor, WithoutNoiseThePictureIsTheSceneTimesTheGain)
{
    const cv::Mat blurred = random_picture(SENSOR_WIDTH, SENSOR_HEIGHT, 1);
    const cv::Mat black = cv::Mat::zeros(SENSOR_HEIGHT, SENSOR_WIDTH, CV_8UC3);
    cv::Mat picture;

    sensor_expose(blurred, 1.0, sensor_noise(0), 1, 1, &picture);
    EXPECT_EQ(largest_difference(picture, blurred), 0);

    sensor_expose(blurred, 2.0, sensor_noise(0), 1, 1, &picture);
    for (int x = 0; x < SENSOR_WIDTH; x++)
        EXPECT_EQ(picture.at<cv::Vec3b>(3, x)[1],
                  std::min(255, 2 * blurred.at<cv::Vec3b>(3, x)[1]));

    sensor_expose(black, 8.0, sensor_noise(0), 1, 1, &picture);
    EXPECT_EQ(sharpness_measure(picture, {0, 0, SENSOR_WIDTH, SENSOR_HEIGHT}), 0U);
}

TEST(Sensor, NoiseOfTwoPicturesIsUnrelated)
{
    const cv::Mat gray(SENSOR_HEIGHT, SENSOR_WIDTH, CV_8UC3, cv::Scalar(128, 128, 128));
    cv::Mat one, two, difference;
    sensor_expose(gray, 1.0, NOISE, 1, 1, &one);
    sensor_expose(gray, 1.0, NOISE, 1, 2, &two);

    cv::subtract(one, two, difference, cv::noArray(), CV_16S);
    cv::Scalar mean, deviation;
    cv::meanStdDev(difference, mean, deviation);
    EXPECT_NEAR(deviation[0], 2.0 * std::sqrt(2.0), 0.15); // variances add up
}

TEST(Sensor, GainMultipliesAndBothEndsSaturate)
{
    cv::Mat halves(32, 64, CV_8UC3, cv::Scalar(0, 0, 0));
    halves(cv::Rect(32, 0, 32, 32)).setTo(cv::Scalar(200, 200, 200));
    cv::Mat picture;

    sensor_expose(halves, 2.0, NOISE, 1, 1, &picture);
    EXPECT_LT(cv::mean(picture(cv::Rect(0, 0, 32, 32)))[0], 3);
    EXPECT_GT(cv::mean(picture(cv::Rect(32, 0, 32, 32)))[0], 252);

    sensor_expose(halves, 0.5, NOISE, 1, 1, &picture);
    EXPECT_NEAR(cv::mean(picture(cv::Rect(32, 0, 32, 32)))[0], 100, 0.3);
}

// ---- Measurement ------------------------------------------------------------------------------

TEST(Sharpness, OfAStepEdgeIsItsSquaredGradient)
{
    cv::Mat edge(8, 8, CV_8UC3, cv::Scalar(0, 0, 0));
    edge(cv::Rect(4, 0, 4, 8)).setTo(cv::Scalar(100, 100, 100));

    // The gradient is (1 + 2 + 1) * 100 in the two columns at the edge, of six: 160000 * 2 / 6
    // * 16.
    EXPECT_EQ(sharpness_measure(edge, {0, 0, 8, 8}), 853333U);
}

TEST(Sharpness, IsTheMeanSquaredGradientOverTheWindow)
{
    const cv::Mat color = random_picture(40, 30, 3);
    cv::Mat gray(color.size(), CV_8UC3);
    for (int y = 0; y < gray.rows; y++)
        for (int x = 0; x < gray.cols; x++)
            gray.at<cv::Vec3b>(y, x) = cv::Vec3b::all(color.at<cv::Vec3b>(y, x)[0]);
    const cv::Rect window(5, 4, 20, 17);

    double sum = 0;
    for (int y = window.y + 1; y < window.y + window.height - 1; y++)
        for (int x = window.x + 1; x < window.x + window.width - 1; x++) {
            const auto level = [&](int dx, int dy) {
                return static_cast<double>(gray.at<cv::Vec3b>(y + dy, x + dx)[0]);
            };
            const double across = level(1, -1) + 2 * level(1, 0) + level(1, 1) - level(-1, -1) -
                                  2 * level(-1, 0) - level(-1, 1);
            const double down = level(-1, 1) + 2 * level(0, 1) + level(1, 1) - level(-1, -1) -
                                2 * level(0, -1) - level(1, -1);
            sum += across * across + down * down;
        }
    EXPECT_EQ(sharpness_measure(gray, window), std::lround(sum / (18 * 15) * 16));
}

TEST(Sharpness, WeighsColorsAsLuma)
{
    const cv::Scalar colors[3] = {{200, 0, 0}, {0, 200, 0}, {0, 0, 200}};
    const int luma[3] = {23, 117, 60}; // 0.114, 0.587, 0.299 of 200, rounded
    for (int i = 0; i < 3; i++) {
        cv::Mat edge(8, 8, CV_8UC3, cv::Scalar(0, 0, 0));
        edge(cv::Rect(4, 0, 4, 8)).setTo(colors[i]);
        const double gradient = 4.0 * luma[i];
        EXPECT_EQ(sharpness_measure(edge, {0, 0, 8, 8}),
                  std::lround(gradient * gradient * 2 / 6 * 16));
    }
}

TEST(Sharpness, OfTooSmallAWindowIsZero)
{
    const cv::Mat picture = random_picture(16, 16, 1);
    EXPECT_EQ(sharpness_measure(picture, {0, 0, 2, 16}), 0U);
    EXPECT_EQ(sharpness_measure(picture, {20, 20, 8, 8}), 0U);
}

TEST(SharpnessWindow, IsTheConfiguredOneInsideTheSensorAndElseTheWholePicture)
{
    const cv::Rect whole(0, 0, SENSOR_WIDTH, SENSOR_HEIGHT);
    const cv::Rect inside[] = {{320, 180, 640, 360}, whole, {0, 0, 3, 3}, {1277, 717, 3, 3}};
    for (const cv::Rect &window : inside)
        EXPECT_EQ(sharpness_window(window), window);
    const cv::Rect other[] = {{},
                              {0, 0, 2, 3},
                              {0, 0, 3, 2},
                              {-1, 0, 10, 10},
                              {0, -1, 10, 10},
                              {1271, 0, 10, 10},
                              {0, 711, 10, 10},
                              {2240, 180, 640, 360}};
    for (const cv::Rect &window : other)
        EXPECT_EQ(sharpness_window(window), whole);
}

// The raw value of the default window, with the noise of the picture of this number.
uint32_t measure_through_lens(Scene &scene, double ring, uint64_t number)
{
    cv::Mat picture;
    sensor_expose(scene_through_lens(scene, 0, lens_blur_px(ring)), 1.0, NOISE, 1, number,
                  &picture);
    return sharpness_measure(picture, {320, 180, 640, 360});
}

class BuiltInScene : public testing::TestWithParam<std::string>
{
  protected:
    std::shared_ptr<Scene> scene;
    std::string error;

    void SetUp() override
    {
        scene = scene_open(GetParam(), &error);
        ASSERT_TRUE(scene) << error;
    }

    uint32_t measure(double ring, uint64_t number)
    {
        return measure_through_lens(*scene, ring, number);
    }
};

TEST_P(BuiltInScene, GrowsSharperTowardsBestFocusFromBothSides)
{
#ifdef __SANITIZE_THREAD__
    constexpr int STEPS = 10; // 50 would take a minute; only one thread runs
#else
    constexpr int STEPS = 50;
#endif
    const double best = lens_best_ring();
    uint32_t from_near = 0;
    uint32_t from_far = 0;
    for (int i = 0; i <= STEPS; i++) {
        const double share = static_cast<double>(i) / STEPS;
        const uint32_t near_side = measure(share * best, static_cast<uint64_t>(i));
        const uint32_t far_side = measure(1 - share * (1 - best), static_cast<uint64_t>(i) + 100);
        EXPECT_GT(near_side, from_near) << "ring " << share * best;
        EXPECT_GT(far_side, from_far) << "ring " << 1 - share * (1 - best);
        from_near = near_side;
        from_far = far_side;
    }
}

// Under a disc of diameter d, the mean squared gradient of a single edge is proportional to 1 / d;
// finer structure loses more. The width of the Sobel kernel and the noise, which is not blurred,
// reduce the ratio between best focus and a stop: a third of it must remain.
TEST_P(BuiltInScene, IsMuchSharperAtBestFocusThanAtTheStops)
{
    const double best = lens_best_ring();
    const double peak = measure(best, 1);
    for (const double stop : {0.0, 1.0}) {
        const double ratio = lens_blur_px(stop) / lens_blur_px(best) / 3;
        EXPECT_GE(peak, ratio * measure(stop, 2)) << "ring " << stop;
    }
}

// The readout shows hundredths of the measured value and has room for three digits.
TEST_P(BuiltInScene, IsOneToThreeDigitsOnTheReadout)
{
    EXPECT_LT(measure(lens_best_ring(), 1), 100000U);
    EXPECT_GE(measure(0, 2), 100U);
    EXPECT_GE(measure(1, 2), 100U);
}

TEST_P(BuiltInScene, IsAsLargeAsTheSensorAndDoesNotChange)
{
    bool changed = false;
    EXPECT_EQ(scene_picture(*scene, 0, &changed).size(), cv::Size(SENSOR_WIDTH, SENSOR_HEIGHT));
    EXPECT_TRUE(changed);
    EXPECT_EQ(scene_picture(*scene, 1, &changed).type(), CV_8UC3);
    EXPECT_FALSE(changed);
}

INSTANTIATE_TEST_SUITE_P(Scenes, BuiltInScene, testing::ValuesIn(scene_names()),
                         [](const auto &scene) { return scene.param; });

// The chart is drawn, so its numbers depend on no other package.
TEST(Chart, ShowsHundredsAtThePeakAndTensAtTheNearStop)
{
    std::string error;
    const std::shared_ptr<Scene> chart = scene_open("chart", &error);
    ASSERT_TRUE(chart) << error;
    const uint32_t peak = measure_through_lens(*chart, lens_best_ring(), 1) / 100;
    const uint32_t near_stop = measure_through_lens(*chart, 0, 2) / 100;

    EXPECT_GE(peak, 200U);
    EXPECT_LE(peak, 980U);
    EXPECT_GE(near_stop, 10U);
    EXPECT_LE(near_stop, peak / 8);
}

TEST(ThroughLens, IsMadeAgainWhenTheBlurChanges)
{
    std::string error;
    const std::shared_ptr<Scene> scene = scene_open("chart", &error);
    ASSERT_TRUE(scene);
    bool changed = false;
    const cv::Mat sharp = scene_picture(*scene, 0, &changed).clone();
    for (const double blur : {3.0, 9.0, 3.0}) {
        cv::Mat expected;
        lens_blur(sharp, blur, &expected);
        EXPECT_EQ(largest_difference(scene_through_lens(*scene, 0, blur), expected), 0);
        EXPECT_EQ(largest_difference(scene_through_lens(*scene, 0, blur), expected), 0);
    }
}

// ---- Files as scenes --------------------------------------------------------------------------

std::string error_of(const std::string &name)
{
    std::string error;
    EXPECT_FALSE(scene_open(name, &error));
    return error;
}

TEST(SceneFile, ThatIsMissingIsRefusedByName)
{
    EXPECT_EQ(scene_names(), (std::vector<std::string>{"photo", "chart"}));
    EXPECT_EQ(error_of("/no/such/file.jpg"),
              "scene /no/such/file.jpg: no such file; the built-in scenes are photo, chart");
    EXPECT_NE(error_of(""), "");
}

TEST(SceneFile, ThatIsADirectoryIsRefused)
{
    const TestDirectory folder;
    EXPECT_EQ(error_of(folder.path.string()),
              "scene " + folder.path.string() + ": a directory, not a picture or a video");
}

TEST(SceneFile, ThatIsAPipeIsRefusedInsteadOfWaitedFor)
{
    const TestDirectory folder;
    const std::string pipe = folder.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(error_of(pipe), "scene " + pipe + ": neither a file nor a video device");
}

TEST(SceneFile, ThatIsADeviceWithoutPicturesIsRefused)
{
    EXPECT_NE(error_of("/dev/null").find("/dev/null: "), std::string::npos);
    EXPECT_EQ(error_of("/dev/video999"),
              "scene /dev/video999: no such file; the built-in scenes are photo, chart");
}

TEST(SceneFile, ThatIsNoPictureIsRefused)
{
    const TestDirectory folder;
    const std::string text = folder.file("text.jpg");
    std::ofstream(text) << "not a picture\n";
    EXPECT_NE(error_of(text).find("text.jpg"), std::string::npos);
    const std::string empty = folder.file("empty.png");
    std::ofstream{empty};
    EXPECT_NE(error_of(empty).find("empty.png"), std::string::npos);
}

TEST(SceneFile, ThatBreaksOffInItsHeaderIsRefused)
{
    const TestDirectory folder;
    const std::string broken = folder.file("broken.png");
    std::ofstream(broken, std::ios::binary) << std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
    EXPECT_EQ(error_of(broken), "scene " + broken + ": the picture cannot be decoded");
}

TEST(SceneFile, ThatIsTallerThanTheSensorLosesItsTopAndBottomEvenly)
{
    const TestDirectory folder;
    cv::Mat tall(2160, SENSOR_WIDTH, CV_8UC3, cv::Scalar(0, 0, 255));
    tall(cv::Rect(0, 720, SENSOR_WIDTH, 720)).setTo(cv::Scalar(10, 200, 30));
    cv::imwrite(folder.file("tall.png"), tall);

    std::string error;
    const std::shared_ptr<Scene> scene = scene_open(folder.file("tall.png"), &error);
    ASSERT_TRUE(scene) << error;
    bool changed = false;
    EXPECT_EQ(largest_difference(scene_picture(*scene, 0, &changed),
                                 tall(cv::Rect(0, 720, SENSOR_WIDTH, 720))),
              0);
}

TEST(SceneFile, OfAnySizeAndKindFillsTheSensor)
{
    const TestDirectory folder;
    const std::string gray = folder.file("gray.png");
    cv::imwrite(gray, cv::Mat(9, 5, CV_8UC1, cv::Scalar(90)));
    const std::string deep = folder.file("deep.png");
    cv::imwrite(deep, cv::Mat(3, 4000, CV_16UC4, cv::Scalar(1000, 2000, 3000, 4000)));
    for (const std::string &path : {gray, deep}) {
        std::string error;
        const std::shared_ptr<Scene> scene = scene_open(path, &error);
        ASSERT_TRUE(scene) << error;
        bool changed = false;
        const cv::Mat &picture = scene_picture(*scene, 0, &changed);
        EXPECT_EQ(picture.size(), cv::Size(SENSOR_WIDTH, SENSOR_HEIGHT));
        EXPECT_EQ(picture.type(), CV_8UC3);
    }
}

#if SIMCAM_VIDEO
TEST(SceneVideo, KeepsItsPictureWhileReadingThrows)
{
    const std::shared_ptr<Scene> scene = open_steps();
    ASSERT_TRUE(scene);
    bool changed = false;
    EXPECT_NEAR(cv::mean(scene_picture(*scene, 0.0, &changed))[0], 40, 3);

    reading_throws = true;
    EXPECT_NO_THROW(EXPECT_NEAR(cv::mean(scene_picture(*scene, 0.25, &changed))[0], 40, 3));
    EXPECT_FALSE(changed);
    reading_throws = false;
    EXPECT_GT(cv::mean(scene_picture(*scene, 0.35, &changed))[0], 70);
    EXPECT_TRUE(changed);
}

TEST(SceneVideo, PlaysAtItsOwnRateAndStartsAgainAtItsEnd)
{
    const std::shared_ptr<Scene> scene = open_steps();
    ASSERT_TRUE(scene);
    const auto brightness = [&](double time_s, bool *changed) {
        return cv::mean(scene_picture(*scene, time_s, changed))[0];
    };
    bool changed = false;
    EXPECT_NEAR(brightness(10.0, &changed), 40, 3);
    EXPECT_TRUE(changed);
    EXPECT_NEAR(brightness(10.05, &changed), 40, 3);
    EXPECT_FALSE(changed);
    EXPECT_NEAR(brightness(10.15, &changed), 80, 3);
    EXPECT_TRUE(changed);
    EXPECT_NEAR(brightness(10.45, &changed), 200, 3); // two frames left out
    EXPECT_NEAR(brightness(10.55, &changed), 40, 3);
    EXPECT_TRUE(changed);
    EXPECT_NEAR(brightness(10.70, &changed), 80, 3);
}
#endif

// ---- Compositor -------------------------------------------------------------------------------

std::vector<uint8_t> palette_of(std::initializer_list<OsdColor> entries)
{
    std::vector<uint8_t> palette;
    for (const OsdColor &entry : entries)
        palette.insert(palette.end(), {entry.y, entry.cb, entry.cr, entry.opacity});
    palette.resize(1024);
    return palette;
}

const cv::Vec3b BLACK(0, 0, 0);
const cv::Vec3b WHITE(255, 255, 255);
const cv::Vec3b GRAY(100, 100, 100);
// 0 invisible, 1 black, 2 white, 3 gray, all without color.
const std::vector<uint8_t> GRAYS =
    palette_of({{50, 9, 9, 0}, {0, 128, 128, 8}, {255, 128, 128, 8}, {100, 128, 128, 8}});
const cv::Scalar BEHIND(7, 8, 9);

cv::Mat picture_behind(int width, int height)
{
    return {height, width, CV_8UC3, BEHIND};
}

TEST(Compose, ColorsAreFullRangeYCbCr)
{
    const std::vector<uint8_t> palette = palette_of(
        {{0xEF, 0x28, 0x6D, 8}, {0x4C, 0x54, 0xFF, 8}, {0xB2, 0xAA, 0x00, 8}, {16, 128, 128, 8}});
    const uint8_t bytes[4] = {0, 1, 2, 3};
    cv::Mat picture = picture_behind(4, 1);

    compose_plane({bytes, 4, 4, 1, 4, 2, 0, 0}, palette, &picture);

    // 239 + 1.772 * -88; 239 + 0.344136 * 88 + 0.714136 * 19, above 255; 239 + 1.402 * -19
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 0), cv::Vec3b(83, 255, 212));
    // below 0; 76 + 15.14 - 90.70; 76 + 178.05
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 1), cv::Vec3b(0, 0, 254));
    // 178 + 74.42; 178 - 14.45 + 91.41; below 0
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 2), cv::Vec3b(252, 255, 0));
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 3), cv::Vec3b(16, 16, 16));
}

TEST(Compose, OpacityCountsInEighthsUpToEight)
{
    for (int opacity = 0; opacity <= 12; opacity++) {
        const auto eighths = static_cast<uint8_t>(opacity);
        const std::vector<uint8_t> palette = palette_of({{200, 128, 128, eighths}});
        const uint8_t bytes[1] = {0};
        cv::Mat picture(1, 1, CV_8UC3, cv::Scalar(41, 87, 199));

        compose_plane({bytes, 1, 1, 1, 1, 2, 0, 0}, palette, &picture);

        const double share = std::min(opacity, 8) / 8.0;
        const cv::Vec3b shown = picture.at<cv::Vec3b>(0, 0);
        EXPECT_EQ(shown[0], std::floor(41 + 159 * share + 0.5)) << opacity;
        EXPECT_EQ(shown[1], std::floor(87 + 113 * share + 0.5)) << opacity;
        EXPECT_EQ(shown[2], std::floor(199 + share + 0.5)) << opacity;
    }
}

TEST(Compose, FirstPixelOfAByteIsInItsLowestBits)
{
    cv::Mat two_bits = picture_behind(5, 1);
    const uint8_t quarters[2] = {0b00111001, 0b11111110}; // 1, 2, 3, 0 and then 2
    compose_plane({quarters, 2, 5, 1, 2, 0, 0, 0}, GRAYS, &two_bits);
    EXPECT_EQ(two_bits.at<cv::Vec3b>(0, 0), BLACK);
    EXPECT_EQ(two_bits.at<cv::Vec3b>(0, 1), WHITE);
    EXPECT_EQ(two_bits.at<cv::Vec3b>(0, 2), GRAY);
    EXPECT_EQ(two_bits.at<cv::Vec3b>(0, 3), cv::Vec3b(7, 8, 9));
    EXPECT_EQ(two_bits.at<cv::Vec3b>(0, 4), WHITE);

    cv::Mat four_bits = picture_behind(3, 1);
    const uint8_t halves[2] = {0x21, 0x43};
    compose_plane({halves, 2, 3, 1, 2, 1, 0, 0}, GRAYS, &four_bits);
    EXPECT_EQ(four_bits.at<cv::Vec3b>(0, 0), BLACK);
    EXPECT_EQ(four_bits.at<cv::Vec3b>(0, 1), WHITE);
    EXPECT_EQ(four_bits.at<cv::Vec3b>(0, 2), GRAY);
}

// The same by its plain description, for planes of one byte a pixel.
cv::Mat compose_pixel_by_pixel(const cv::Mat &behind, const ShownPlane &plane)
{
    const cv::Vec3b colors[4] = {{0, 0, 0}, BLACK, WHITE, GRAY};
    cv::Mat picture = behind.clone();
    for (uint32_t y = 0; y < plane.height; y++)
        for (uint32_t x = 0; x < plane.width && x < plane.pitch; x++) {
            const bool inside = plane.x + x < static_cast<uint32_t>(behind.cols) &&
                                plane.y + y < static_cast<uint32_t>(behind.rows);
            const uint32_t at = y * plane.pitch + x;
            if (inside && at < plane.size && plane.bytes[at] != 0)
                picture.at<cv::Vec3b>(static_cast<int>(plane.y + y),
                                      static_cast<int>(plane.x + x)) = colors[plane.bytes[at]];
        }
    return picture;
}

TEST(Compose, ShowsWidthPixelsOfEachLineClippedAtPictureAndMemory)
{
    cv::RNG random(11);
    for (int round = 0; round < 300; round++) {
        // Memory sized to the byte, so that a sanitizer sees a read beyond it.
        std::vector<uint8_t> bytes(static_cast<size_t>(random.uniform(0, 200)));
        for (uint8_t &byte : bytes)
            byte = static_cast<uint8_t>(random.uniform(0, 4));
        ShownPlane plane;
        plane.bytes = bytes.data();
        plane.size = bytes.size();
        plane.width = static_cast<uint32_t>(random.uniform(0, 20));
        plane.height = static_cast<uint32_t>(random.uniform(0, 20));
        plane.pitch = static_cast<uint32_t>(random.uniform(0, 24));
        plane.x = static_cast<uint32_t>(random.uniform(0, 40));
        plane.y = static_cast<uint32_t>(random.uniform(0, 30));
        cv::Mat picture = picture_behind(32, 24);
        const cv::Mat expected = compose_pixel_by_pixel(picture, plane);

        compose_plane(plane, GRAYS, &picture);

        ASSERT_EQ(largest_difference(picture, expected), 0) << "round " << round;
    }
}

TEST(Compose, PositionsAndSizesOutOfBoundsShowNothing)
{
    const std::vector<uint8_t> bytes(16, 2);
    constexpr uint32_t HUGE_NUMBER = 0xFFFFFFFF;
    for (const ShownPlane &plane :
         {ShownPlane{bytes.data(), 16, 4, 4, 4, 2, 8, 0},
          ShownPlane{bytes.data(), 16, 4, 4, 4, 2, 0, 6},
          ShownPlane{bytes.data(), 16, 4, 4, 4, 2, HUGE_NUMBER, HUGE_NUMBER},
          ShownPlane{bytes.data(), 16, 4, 4, 4, 3, 0, 0}, ShownPlane{nullptr, 0, 4, 4, 4, 2, 0, 0},
          ShownPlane{bytes.data(), 0, 4, 4, 4, 2, 0, 0}}) {
        cv::Mat picture = picture_behind(8, 6);
        compose_plane(plane, GRAYS, &picture);
        EXPECT_EQ(largest_difference(picture, picture_behind(8, 6)), 0);
    }
    cv::Mat picture = picture_behind(8, 6);
    compose_plane({bytes.data(), 16, HUGE_NUMBER, HUGE_NUMBER, 8, 2, 0, 0}, GRAYS, &picture);
    EXPECT_EQ(picture.at<cv::Vec3b>(1, 7), WHITE);
    EXPECT_EQ(picture.at<cv::Vec3b>(2, 0), cv::Vec3b(7, 8, 9)); // the memory ends after two lines
}

TEST(Compose, EntriesThatTheTableLacksAreInvisible)
{
    const uint8_t bytes[2] = {0, 1};
    const std::vector<uint8_t> one_entry_and_a_bit = {255, 128, 128, 8, 255, 128, 128};
    cv::Mat picture = picture_behind(2, 1);
    compose_plane({bytes, 2, 2, 1, 2, 2, 0, 0}, one_entry_and_a_bit, &picture);
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 0), WHITE);
    EXPECT_EQ(picture.at<cv::Vec3b>(0, 1), cv::Vec3b(7, 8, 9));
}

} // namespace
