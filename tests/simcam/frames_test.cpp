// Pictures of views and planes, and the sharing of frames.
#include "web/frames.h"

#include <future>
#include <thread>

#include <gmock/gmock.h>

#include <opencv2/imgcodecs.hpp>

#include "fake_camera.h"
#include "web/streams.h"
#include "web/web.h"

using namespace simcam;

static CameraPtr camera_with(const std::string &size_of_post_1)
{
    CameraOptions options;
    options.post_size[1] = size_of_post_1;
    std::string error;
    return camera_start(options, &error);
}

static cv::Mat decode(const std::shared_ptr<const std::string> &png)
{
    if (!png)
        return {};
    return cv::imdecode(std::vector<uchar>(png->begin(), png->end()), cv::IMREAD_UNCHANGED);
}

static cv::Mat indices_of(const PlaneImage &plane)
{
    const auto camera = camera_with("");
    FrameCache cache(*camera);
    return decode(frame_plane_indices(cache, plane));
}

static cv::Mat colors_of(const PlaneImage &plane, const std::vector<uint8_t> &palette)
{
    const auto camera = camera_with("");
    FrameCache cache(*camera);
    return decode(frame_plane_colors(cache, plane, palette));
}

static cv::Mat picture_of(Camera &camera, const FrameRequest &request)
{
    uint64_t number = 0;
    return frame_picture(camera, request, &number);
}

static std::shared_ptr<const std::string> next_of(FrameCache &cache, Frame &frame, uint64_t number,
                                                  FrameClock::time_point asked)
{
    return frame_next(cache, frame, &number, asked);
}

static void measure_times(Camera &camera, int count)
{
    for (int i = 0; i < count; ++i)
        fake_measure(camera, 1);
}

static cv::Vec3b at(const cv::Mat &picture, int x, int y)
{
    return picture.at<cv::Vec3b>(y, x);
}

TEST(PictureView, APostKeepsItsSize)
{
    const auto camera = camera_with("720x576");

    const cv::Mat picture = picture_of(*camera, {.view = 1});

    EXPECT_EQ(picture.size(), cv::Size(720, 576));
    EXPECT_EQ(at(picture, 100, 100), cv::Vec3b(80, 80, 80));
    EXPECT_EQ(at(picture, 2, 2), cv::Vec3b(255, 255, 255)) << "with its planes";
}

TEST(PictureView, AWidthOnlyShrinksThePicture)
{
    const auto camera = camera_with("1280x720");

    EXPECT_EQ(picture_of(*camera, {.view = 1, .width = 320}).size(), cv::Size(320, 180));
    EXPECT_EQ(picture_of(*camera, {.view = 1, .width = 2000}).size(), cv::Size(1280, 720));
}

TEST(PictureView, APostThatIsOffShowsAMessage)
{
    const auto camera = camera_with("");

    const cv::Mat picture = picture_of(*camera, {.view = 1});

    ASSERT_FALSE(picture.empty());
    double darkest = 0;
    double brightest = 0;
    cv::minMaxLoc(picture.reshape(1), &darkest, &brightest);
    EXPECT_LT(darkest, 40);
    EXPECT_GT(brightest, 120) << "it contains text";
}

TEST(PictureView, TheFourPostsFillTheQuarters)
{
    const auto camera = camera_with("1280x720");
    camera_start_post(*camera, 2, {360, 360}); // square: bars at its sides

    const cv::Mat picture = picture_of(*camera, {.view = VIEW_ALL});

    EXPECT_EQ(picture.size(), cv::Size(1280, 720));
    EXPECT_EQ(at(picture, 640 + 320, 180), cv::Vec3b(80, 80, 80));    // post 1, top right
    EXPECT_EQ(at(picture, 320, 360 + 180), cv::Vec3b(120, 120, 120)); // post 2, bottom left
    EXPECT_NE(at(picture, 60, 360 + 180), cv::Vec3b(120, 120, 120)) << "not stretched";
}

TEST(PictureView, TheSensorPictureIsUnchanged)
{
    const auto camera = camera_with("");

    const cv::Mat picture = picture_of(*camera, {.view = VIEW_SENSOR});

    EXPECT_EQ(picture.size(), cv::Size(1280, 720));
    EXPECT_EQ(at(picture, 7, 7), cv::Vec3b(99, 99, 99));
}

TEST(PictureFiles, APngHasEveryPixelOfThePicture)
{
    const auto camera = camera_with("352x288");
    const cv::Mat picture = picture_of(*camera, {.view = 1});
    const std::string bytes = frame_png(picture);

    const cv::Mat read =
        cv::imdecode(std::vector<uchar>(bytes.begin(), bytes.end()), cv::IMREAD_COLOR);

    ASSERT_EQ(read.size(), picture.size());
    EXPECT_EQ(cv::norm(read, picture, cv::NORM_INF), 0);
}

TEST(PicturePlane, EightBitPixelsAreCopiedWithoutThePaddingOfTheLines)
{
    PlaneState state;
    state.width = 3;
    state.height = 2;
    state.pitch = 4;
    state.depth_code = 2;
    const PlaneImage plane = {state, {11, 16, 17, 99, 18, 19, 20, 99}};

    const cv::Mat indices = indices_of(plane);

    EXPECT_THAT(std::vector<uint8_t>(indices.begin<uint8_t>(), indices.end<uint8_t>()),
                testing::ElementsAre(11, 16, 17, 18, 19, 20));
}

TEST(PicturePlane, PixelsOfFewerBitsStartAtTheLowestBitsOfAByte)
{
    PlaneState state;
    state.width = 4;
    state.height = 1;
    state.pitch = 2;
    state.depth_code = 1;
    EXPECT_THAT(cv::Mat_<uint8_t>(indices_of({state, {0x21, 0xF3}})),
                testing::ElementsAre(1, 2, 3, 15));

    state.depth_code = 0;
    EXPECT_THAT(cv::Mat_<uint8_t>(indices_of({state, {0xE4, 0}})),
                testing::ElementsAre(0, 1, 2, 3));
}

TEST(PicturePlane, MemoryThatEndsEarlyLeavesZeros)
{
    PlaneState state;
    state.width = 4;
    state.height = 2;
    state.pitch = 2; // narrower than the plane
    state.depth_code = 2;

    const cv::Mat indices = indices_of({state, {1, 2, 3}});

    EXPECT_THAT(std::vector<uint8_t>(indices.begin<uint8_t>(), indices.end<uint8_t>()),
                testing::ElementsAre(1, 2, 0, 0, 3, 0, 0, 0));
}

TEST(PicturePlane, APlaneThatIsNotShownHasNoPicture)
{
    EXPECT_TRUE(indices_of({}).empty());
    EXPECT_TRUE(colors_of({}, {}).empty());
}

TEST(PicturePlane, ColorsComeFromThePalette)
{
    const auto camera = camera_with("");
    PlaneState state;
    state.width = 3;
    state.height = 1;
    state.pitch = 3;
    state.depth_code = 2;

    const cv::Mat colors = colors_of({state, {0, 18, 200}}, camera_palette(*camera));

    EXPECT_EQ(colors.at<cv::Vec4b>(0, 0)[3], 0) << "entry 0 is invisible";
    // Y 76, Cb 84, Cr 255: red = 76 + 1.402 * 127 = 254, green = 76 + 15.1 - 90.7 = 0, blue = 76 -
    // 78 = 0
    EXPECT_EQ(colors.at<cv::Vec4b>(0, 1), cv::Vec4b(0, 0, 254, 255));
    EXPECT_EQ(colors.at<cv::Vec4b>(0, 2), cv::Vec4b(200, 200, 200, 255));
}

static const std::chrono::steady_clock::time_point ASKED{std::chrono::hours(1)};

TEST(PictureCache, AFrameIsEncodedOnceForEqualRequests)
{
    const auto camera = camera_with("352x288");
    measure_times(*camera, 5);
    FrameCache cache(*camera);
    const auto first = frame_enter(cache, {.view = 1});
    const auto second = frame_enter(cache, {.view = 1});

    const auto a = next_of(cache, *first, 5, ASKED);
    const auto b = next_of(cache, *second, 5, ASKED);

    EXPECT_EQ(a, b);
    EXPECT_EQ(cache.encoded, 1u);
    fake_measure(*camera, 1);
    EXPECT_NE(next_of(cache, *second, 6, ASKED), a);
    EXPECT_EQ(cache.encoded, 2u);
    EXPECT_NE(next_of(cache, *first, 5, ASKED), a) << "a later frame is accepted";
    EXPECT_EQ(cache.encoded, 2u);
}

TEST(PictureCache, WhileNothingIsMeasuredAFrameLastsFourTenthsOfASecond)
{
    const auto camera = camera_with("352x288");
    measure_times(*camera, 5);
    FrameCache cache(*camera);
    const auto entry = frame_enter(cache, {.view = 1});
    next_of(cache, *entry, 5, ASKED);

    next_of(cache, *entry, 5, ASKED + std::chrono::milliseconds(399));
    EXPECT_EQ(cache.encoded, 1u);
    next_of(cache, *entry, 5, ASKED + std::chrono::milliseconds(400));
    EXPECT_EQ(cache.encoded, 2u);
    next_of(cache, *entry, 5, ASKED + std::chrono::milliseconds(799));
    EXPECT_EQ(cache.encoded, 2u) << "counted from the newest frame";
}

// Viewers that ask while a frame is being encoded get that frame, however long it takes.
TEST(PictureCache, SimultaneousRequestsShareOneFrame)
{
    const auto camera = camera_with("352x288");
    measure_times(*camera, 5);
    FrameCache cache(*camera);
    const auto entry = frame_enter(cache, {.view = 1});
    std::vector<std::shared_ptr<const std::string>> frames(8);
    std::vector<std::thread> viewers;

    for (auto &frame : frames)
        viewers.emplace_back([&] { frame = next_of(cache, *entry, 5, ASKED); });
    for (std::thread &viewer : viewers)
        viewer.join();

    EXPECT_THAT(frames, testing::Each(frames[0]));
    EXPECT_EQ(cache.encoded, 1u);
}

TEST(PictureCache, OtherParametersGetTheirOwnFrame)
{
    const auto camera = camera_with("352x288");
    FrameCache cache(*camera);

    const auto plain = frame_enter(cache, {.view = 1, .planes = false});
    const auto full = frame_enter(cache, {.view = 1});

    EXPECT_NE(plain, full);
    EXPECT_NE(*next_of(cache, *plain, 1, ASKED), *next_of(cache, *full, 1, ASKED));
}

// The level of the corner whose post ends at these coordinates.
static int corner(const cv::Mat &picture, int right, int bottom)
{
    return at(picture, right - 8, bottom - 8)[0];
}

TEST(FrameNumber, IsThatOfThePictureThatIsSent)
{
    const auto camera = camera_with("1280x720");
    for (const int post : {0, 2, 3})
        camera_start_post(*camera, post, {1280, 720});
    FrameCache cache(*camera);
    measure_times(*camera, 3);
    fake_hurry(*camera);

    for (const int view : {1, VIEW_SENSOR}) {
        uint64_t number = 0;
        const cv::Mat picture =
            decode(frame_still(cache, {.view = view, .quality = QUALITY_PNG}, &number));
        EXPECT_EQ(corner(picture, 1280, 720), fake_corner(number)) << view << " " << number;
    }
    uint64_t number = 0;
    const cv::Mat all =
        decode(frame_still(cache, {.view = VIEW_ALL, .quality = QUALITY_PNG}, &number));
    for (const cv::Point end : {cv::Point(640, 360), {1280, 360}, {640, 720}, {1280, 720}})
        EXPECT_EQ(corner(all, end.x, end.y), fake_corner(number)) << end << " " << number;
}

TEST(FrameNumber, OfAStreamIsThatOfThePictureThatIsSent)
{
    const auto camera = camera_with("1280x720");
    Web web(*camera);
    measure_times(*camera, 3);
    fake_hurry(*camera);

    const std::string part = stream_pictures(web, {.view = 1}, 30)->next();

    const std::string name = "X-Measurement: ";
    const uint64_t number = std::stoull(part.substr(part.find(name) + name.size()));
    const std::string jpeg = part.substr(part.find("\r\n\r\n") + 4);
    const cv::Mat picture =
        cv::imdecode(std::vector<uchar>(jpeg.begin(), jpeg.end()), cv::IMREAD_COLOR);
    ASSERT_EQ(picture.size(), cv::Size(1280, 720));
    EXPECT_NEAR(corner(picture, 1280, 720), fake_corner(number), 5) << number; // a JPEG
}

static void wait_for_waiting(FairLock &lock, uint64_t count)
{
    const auto deadline = FrameClock::now() + std::chrono::seconds(60);
    while (lock.waiting() < count && FrameClock::now() < deadline)
        std::this_thread::yield();
}

TEST(FrameEncoders, BoundWhatIsEncodedAtATime)
{
    const auto camera = camera_with("352x288");
    FrameCache cache(*camera);
    const auto stream = frame_enter(cache, {.view = 1});
    std::vector<std::thread> readers;

    for (unsigned i = 0; i < frame_encoders(); i++)
        cache.encoders.lock(); // as if other views were being encoded
    readers.emplace_back([&] { next_of(cache, *stream, 5, ASKED); });
    readers.emplace_back([&] {
        uint64_t number = 0;
        frame_still(cache, {.view = 1, .quality = QUALITY_PNG}, &number);
    });
    wait_for_waiting(cache.encoders, readers.size());
    EXPECT_EQ(cache.encoders.waiting(), readers.size());
    EXPECT_EQ(cache.encoded, 0u);
    for (unsigned i = 0; i < frame_encoders(); i++)
        cache.encoders.unlock();
    for (std::thread &reader : readers)
        reader.join();

    EXPECT_EQ(cache.encoded, 2u);
}

// simcam ends without encoding the still pictures that wait for their turn.
TEST(PictureCache, ReadersThatWaitLeaveAClosedCache)
{
    const auto camera = camera_with("352x288");
    FrameCache cache(*camera);
    std::vector<std::shared_ptr<const std::string>> frames(3, std::make_shared<std::string>());
    std::vector<std::thread> readers;

    cache.still.lock(); // as if another still picture were being encoded
    for (auto &frame : frames)
        readers.emplace_back([&] {
            uint64_t number = 0;
            frame = frame_still(cache, {.view = 1, .quality = QUALITY_PNG}, &number);
        });
    const auto deadline = FrameClock::now() + std::chrono::seconds(60);
    while (cache.still.waiting() < readers.size() && FrameClock::now() < deadline)
        std::this_thread::yield();
    cache.closed = true;
    cache.still.unlock();
    for (std::thread &reader : readers)
        reader.join();

    EXPECT_THAT(frames, testing::Each(testing::IsNull()));
    EXPECT_EQ(cache.encoded, 0u);
}

TEST(FrameEncoders, BoundThePlanesThatAreEncodedAtATime)
{
    const auto camera = camera_with("");
    FrameCache cache(*camera);
    PlaneState state;
    state.width = state.pitch = 3;
    state.height = 1;
    state.depth_code = 2;
    const PlaneImage plane = {state, {11, 16, 17}};
    std::vector<std::thread> readers;

    for (unsigned i = 0; i < frame_encoders(); i++)
        cache.encoders.lock();
    readers.emplace_back([&] { frame_plane_indices(cache, plane); });
    readers.emplace_back([&] { frame_plane_colors(cache, plane, camera_palette(*camera)); });
    wait_for_waiting(cache.encoders, readers.size());
    EXPECT_EQ(cache.encoders.waiting(), readers.size());
    EXPECT_EQ(cache.encoded, 0u);
    for (unsigned i = 0; i < frame_encoders(); i++)
        cache.encoders.unlock();
    for (std::thread &reader : readers)
        reader.join();

    EXPECT_EQ(cache.encoded, 2u);
}

TEST(FairLock, ServesInTheOrderOfTheRequests)
{
    FairLock lock;
    std::vector<int> served;
    std::vector<std::thread> waiting;

    lock.lock();
    for (int i = 0; i < 5; i++) {
        waiting.emplace_back([&, i] {
            lock.lock();
            served.push_back(i);
            lock.unlock();
        });
        while (lock.waiting() < static_cast<uint64_t>(i) + 1)
            std::this_thread::yield();
    }
    lock.unlock();
    for (std::thread &thread : waiting)
        thread.join();

    EXPECT_THAT(served, testing::ElementsAre(0, 1, 2, 3, 4));
}

TEST(FairLock, ServesAWaiterBeforeTheHolderThatReturns)
{
    FairLock lock;
    std::vector<int> served;

    lock.lock();
    std::thread waiting([&] {
        lock.lock();
        served.push_back(1);
        lock.unlock();
    });
    while (lock.waiting() < 1)
        std::this_thread::yield();
    lock.unlock();
    lock.lock(); // std::mutex would usually be free here
    served.push_back(2);
    lock.unlock();
    waiting.join();

    EXPECT_THAT(served, testing::ElementsAre(1, 2));
}

TEST(FrameStill, ReadersThatWaitForTheEncoderShareTheNextFrame)
{
    const auto camera = camera_with("352x288");
    FrameCache cache(*camera);
    const FrameRequest request = {.view = 1, .quality = QUALITY_PNG};
    const std::shared_ptr<Frame> frame = frame_enter(cache, request);
    std::vector<std::shared_ptr<const std::string>> stills(8);
    std::vector<std::thread> readers;

    frame->mutex.lock(); // as if another reader were encoding
    for (auto &still : stills)
        readers.emplace_back([&] {
            uint64_t number = 0;
            still = frame_still(cache, request, &number);
        });
    while (frame.use_count() < 9) // until all readers have asked
        std::this_thread::yield();
    frame->mutex.unlock();
    for (std::thread &reader : readers)
        reader.join();

    EXPECT_THAT(stills, testing::Each(stills[0]));
    EXPECT_EQ(cache.encoded, 1u);
}

TEST(FrameStill, ThatWaitsForOthersDoesNotStopAStreamOfTheSameRequest)
{
    const auto camera = camera_with("352x288");
    FrameCache cache(*camera);
    const FrameRequest request = {.view = 1};
    const std::shared_ptr<Frame> frame = frame_enter(cache, request);

    cache.still.lock(); // as if other stills were being encoded
    std::thread reader([&] {
        uint64_t number = 0;
        frame_still(cache, request, &number);
    });
    while (cache.still.waiting() < 1)
        std::this_thread::yield();
    auto stream = std::async(std::launch::async, [&] { return next_of(cache, *frame, 5, ASKED); });
    const auto outcome = stream.wait_for(std::chrono::seconds(10));
    cache.still.unlock();
    reader.join();

    EXPECT_EQ(outcome, std::future_status::ready);
}

TEST(FrameStill, IsNeverOlderThanItsRequest)
{
    const auto camera = camera_with("352x288");
    FrameCache cache(*camera);
    const FrameRequest request = {.view = 1, .quality = QUALITY_PNG};
    const auto hold = frame_enter(cache, request);
    uint64_t number = 0;
    EXPECT_EQ(decode(frame_still(cache, request, &number)).size(), cv::Size(352, 288));

    EXPECT_EQ(camera_start_post(*camera, 1, {720, 480}), "");
    fake_measure(*camera, 3);

    EXPECT_EQ(decode(frame_still(cache, request, &number)).size(), cv::Size(720, 480));
    EXPECT_EQ(number, 1u);
}

TEST(FrameStill, IsFreedByItsLastReader)
{
    const auto camera = camera_with("352x288");
    FrameCache cache(*camera);
    uint64_t number = 0;

    const std::weak_ptr<const std::string> still =
        frame_still(cache, {.view = 1, .quality = QUALITY_PNG}, &number);

    EXPECT_TRUE(still.expired());
}
