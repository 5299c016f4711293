// Views, encoding and the sharing of frames.
#include "web/frames.h"

#include <algorithm>
#include <thread>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "camera/camera.h"
#include "camera/pictures.h"

namespace simcam
{

static constexpr int TILE_WIDTH = 640; // of a post in the picture of all four
static constexpr int TILE_HEIGHT = 360;
static const cv::Scalar DARK(26, 22, 20); // blue, green, red
static const cv::Scalar PALE(150, 140, 132);

// ---- views ----

static cv::Mat post_is_off(int post, int width, int height)
{
    cv::Mat picture(height, width, CV_8UC3, DARK);
    const std::string text = "Post " + std::to_string(post) + " is off";
    const double scale = std::max(0.4, width / 640.0);
    const int thickness = std::max(1, width / 640);
    int below = 0;
    const cv::Size size = cv::getTextSize(text, cv::FONT_HERSHEY_SIMPLEX, scale, thickness, &below);
    cv::putText(picture, text, {(width - size.width) / 2, (height + size.height) / 2},
                cv::FONT_HERSHEY_SIMPLEX, scale, PALE, thickness, cv::LINE_AA);
    return picture;
}

static cv::Mat post_picture(Camera &camera, const SensorPicture &sensor, int post, bool planes)
{
    cv::Mat picture = camera_picture(camera, sensor, post, planes);
    return picture.empty() ? post_is_off(post, TILE_WIDTH, TILE_HEIGHT) : picture;
}

// Scales picture into tile, whole and undistorted.
static void fit_into(const cv::Mat &picture, cv::Mat tile)
{
    const double scale = std::min(static_cast<double>(tile.cols) / picture.cols,
                                  static_cast<double>(tile.rows) / picture.rows);
    const int width = std::clamp(static_cast<int>(picture.cols * scale + 0.5), 1, tile.cols);
    const int height = std::clamp(static_cast<int>(picture.rows * scale + 0.5), 1, tile.rows);
    cv::Mat place =
        tile(cv::Rect((tile.cols - width) / 2, (tile.rows - height) / 2, width, height));
    cv::resize(picture, place, place.size(), 0, 0, scale < 1 ? cv::INTER_AREA : cv::INTER_LINEAR);
}

static cv::Mat all_posts(Camera &camera, const SensorPicture &sensor, bool planes)
{
    cv::Mat all(2 * TILE_HEIGHT, 2 * TILE_WIDTH, CV_8UC3, DARK);
    for (int post = 0; post < POST_COUNT; ++post) {
        const cv::Rect place(post % 2 * TILE_WIDTH, post / 2 * TILE_HEIGHT, TILE_WIDTH,
                             TILE_HEIGHT);
        fit_into(post_picture(camera, sensor, post, planes), all(place));
    }
    cv::line(all, {TILE_WIDTH, 0}, {TILE_WIDTH, 2 * TILE_HEIGHT}, DARK, 4);
    cv::line(all, {0, TILE_HEIGHT}, {2 * TILE_WIDTH, TILE_HEIGHT}, DARK, 4);
    return all;
}

cv::Mat frame_picture(Camera &camera, const FrameRequest &request, uint64_t *number)
{
    const SensorPicture sensor = camera_sensor_picture(camera);
    *number = sensor.number;
    cv::Mat picture;
    if (request.view == VIEW_ALL)
        picture = all_posts(camera, sensor, request.planes);
    else if (request.view != VIEW_SENSOR)
        picture = post_picture(camera, sensor, request.view, request.planes);
    else if (sensor.pixels)
        picture = sensor.pixels->clone(); // the sensor uses the memory again
    else
        picture = cv::Mat(TILE_HEIGHT, TILE_WIDTH, CV_8UC3, DARK);
    if (request.width <= 0 || picture.cols <= request.width)
        return picture;
    const int height = std::max(
        1, static_cast<int>(static_cast<int64_t>(picture.rows) * request.width / picture.cols));
    cv::Mat smaller;
    cv::resize(picture, smaller, {request.width, height}, 0, 0, cv::INTER_AREA);
    return smaller;
}

static std::string encode(const char *kind, const cv::Mat &picture, const std::vector<int> &options)
{
    std::vector<uchar> bytes;
    if (!cv::imencode(kind, picture, bytes, options))
        return {};
    return std::string(bytes.begin(), bytes.end());
}

std::string frame_png(const cv::Mat &picture)
{
    return encode(".png", picture, {cv::IMWRITE_PNG_COMPRESSION, 1});
}

// ---- frames for several readers ----

void FairLock::lock()
{
    std::unique_lock guard(mutex_);
    const uint64_t place = asked_++;
    served_.wait(guard, [&] { return place < left_ + holders_max_; });
}

void FairLock::unlock()
{
    {
        const std::lock_guard guard(mutex_);
        left_++;
    }
    served_.notify_all();
}

uint64_t FairLock::waiting()
{
    const std::lock_guard guard(mutex_);
    return asked_ - std::min(asked_, left_ + holders_max_);
}

unsigned frame_encoders()
{
    return std::clamp(std::thread::hardware_concurrency() / 2, 1U, 4U);
}

std::shared_ptr<Frame> frame_enter(FrameCache &cache, const FrameRequest &request)
{
    const std::lock_guard lock(cache.mutex);
    std::erase_if(cache.entries, [](const auto &entry) { return entry.second.expired(); });
    std::shared_ptr<Frame> frame = cache.entries[request].lock();
    if (!frame) {
        frame = std::make_shared<Frame>();
        frame->request = request;
        cache.entries[request] = frame;
    }
    return frame;
}

// The frame's mutex is held.
static void encode_frame(FrameCache &cache, Frame &frame)
{
    const FrameRequest &request = frame.request;
    const cv::Mat picture = frame_picture(cache.camera, request, &frame.number);
    frame.bytes = std::make_shared<const std::string>(
        request.quality == QUALITY_PNG
            ? frame_png(picture)
            : encode(".jpg", picture, {cv::IMWRITE_JPEG_QUALITY, request.quality}));
    ++cache.encoded;
}

std::shared_ptr<const std::string> frame_next(FrameCache &cache, Frame &frame, uint64_t *number,
                                              FrameClock::time_point asked)
{
    const std::lock_guard lock(frame.mutex);
    if (!frame.bytes || frame.number < *number || asked - frame.asked >= FRAME_AGE_MAX) {
        const std::lock_guard encoder(cache.encoders);
        frame.asked = asked;
        frame.begun = FrameClock::now();
        encode_frame(cache, frame);
    }
    *number = frame.number;
    return frame.bytes;
}

std::shared_ptr<const std::string> frame_still(FrameCache &cache, const FrameRequest &request,
                                               uint64_t *number)
{
    const FrameClock::time_point asked = FrameClock::now();
    const std::shared_ptr<Frame> frame = frame_enter(cache, request);
    const std::lock_guard still(cache.still);
    if (cache.closed)
        return nullptr;
    const std::lock_guard lock(frame->mutex);
    if (!frame->bytes || frame->begun < asked) {
        const std::lock_guard encoder(cache.encoders);
        frame->asked = frame->begun = FrameClock::now();
        encode_frame(cache, *frame);
    }
    *number = frame->number;
    return frame->bytes;
}

// ---- planes ----

static std::shared_ptr<const std::string> png_or_null(FrameCache &cache, const cv::Mat &picture)
{
    if (picture.empty())
        return nullptr;
    ++cache.encoded;
    return std::make_shared<const std::string>(frame_png(picture));
}

std::shared_ptr<const std::string> frame_plane_indices(FrameCache &cache, const PlaneImage &plane)
{
    const std::lock_guard encoder(cache.encoders);
    return png_or_null(cache, plane_indices(shown_plane(plane)));
}

std::shared_ptr<const std::string> frame_plane_colors(FrameCache &cache, const PlaneImage &plane,
                                                      const std::vector<uint8_t> &palette)
{
    const std::lock_guard encoder(cache.encoders);
    return png_or_null(cache, plane_colors(shown_plane(plane), palette));
}

} // namespace simcam
