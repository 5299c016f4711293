// Pictures of the web interface: views, planes, and the frames that viewers share.
#include "web/http_picture.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "camera/pictures.h"
#include "picture/compose.h"

namespace simcam
{

static constexpr int TILE_WIDTH = 640; // a post's share of the picture of all four
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

static cv::Mat post_picture(Camera &camera, int post, bool planes)
{
    cv::Mat picture = camera_picture(camera, post, planes);
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

static cv::Mat all_posts(Camera &camera, bool planes)
{
    cv::Mat all(2 * TILE_HEIGHT, 2 * TILE_WIDTH, CV_8UC3, DARK);
    for (int post = 0; post < POST_COUNT; ++post) {
        const cv::Rect place(post % 2 * TILE_WIDTH, post / 2 * TILE_HEIGHT, TILE_WIDTH,
                             TILE_HEIGHT);
        fit_into(post_picture(camera, post, planes), all(place));
    }
    cv::line(all, {TILE_WIDTH, 0}, {TILE_WIDTH, 2 * TILE_HEIGHT}, DARK, 4);
    cv::line(all, {0, TILE_HEIGHT}, {2 * TILE_WIDTH, TILE_HEIGHT}, DARK, 4);
    return all;
}

cv::Mat picture_view(Camera &camera, const PictureRequest &request)
{
    cv::Mat picture = request.view == VIEW_ALL ? all_posts(camera, request.planes)
                      : request.view == VIEW_SENSOR
                          ? camera_sensor_picture(camera)
                          : post_picture(camera, request.view, request.planes);
    if (picture.empty())
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

std::string picture_png(const cv::Mat &picture)
{
    return encode(".png", picture, {cv::IMWRITE_PNG_COMPRESSION, 1});
}

std::string picture_jpeg(const cv::Mat &picture, int quality)
{
    return encode(".jpg", picture, {cv::IMWRITE_JPEG_QUALITY, quality});
}

// ---- planes ----

static ShownPlane shown_plane(const PlaneImage &plane)
{
    const PlaneState &p = plane.state;
    return {
        plane.bytes.data(), plane.bytes.size(), p.width, p.height, p.pitch, p.depth_code, p.x, p.y};
}

cv::Mat picture_plane_indices(const PlaneImage &plane)
{
    return plane_indices(shown_plane(plane));
}

cv::Mat picture_plane_colors(const PlaneImage &plane, const std::vector<uint8_t> &palette)
{
    return plane_colors(shown_plane(plane), palette);
}

// ---- frames for several viewers ----

struct CachedPicture {
    PictureRequest request;
    // Held while the frame is made: the others wait for it instead of making their own.
    std::mutex mutex;
    uint64_t number = 0;
    std::chrono::steady_clock::time_point asked; // by whoever made the frame
    std::shared_ptr<const std::string> jpeg;
};

struct PictureCache {
    Camera &camera;
    std::mutex mutex; // of entries
    std::map<PictureRequest, std::weak_ptr<CachedPicture>> entries;
    std::atomic<uint64_t> encoded{0};

    explicit PictureCache(Camera &its_camera) : camera(its_camera)
    {
    }
};

std::shared_ptr<PictureCache> picture_cache_make(Camera &camera)
{
    return std::make_shared<PictureCache>(camera);
}

std::shared_ptr<CachedPicture> picture_cache_enter(PictureCache &cache,
                                                   const PictureRequest &request)
{
    const std::lock_guard lock(cache.mutex);
    std::erase_if(cache.entries, [](const auto &entry) { return entry.second.expired(); });
    std::shared_ptr<CachedPicture> entry = cache.entries[request].lock();
    if (!entry) {
        entry = std::make_shared<CachedPicture>();
        entry->request = request;
        cache.entries[request] = entry;
    }
    return entry;
}

std::shared_ptr<const std::string> picture_cache_frame(PictureCache &cache, CachedPicture &entry,
                                                       uint64_t number,
                                                       std::chrono::steady_clock::time_point asked)
{
    const std::lock_guard lock(entry.mutex);
    if (entry.jpeg && entry.number >= number && asked - entry.asked < FRAME_AGE_MAX)
        return entry.jpeg;
    const cv::Mat picture = picture_view(cache.camera, entry.request);
    entry.jpeg = std::make_shared<std::string>(picture_jpeg(picture, entry.request.quality));
    entry.number = number;
    entry.asked = asked;
    ++cache.encoded;
    return entry.jpeg;
}

uint64_t picture_cache_encoded(const PictureCache &cache)
{
    return cache.encoded;
}

} // namespace simcam
