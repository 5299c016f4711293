// Pictures as the web interface hands them out: what a view shows, encoded once a frame for all who
// look.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include <opencv2/core.hpp>

#include "camera/camera.h"

namespace simcam
{

constexpr int VIEW_ALL = POST_COUNT;        // the four posts in one picture
constexpr int VIEW_SENSOR = POST_COUNT + 1; // the sensor's picture, without planes

struct PictureRequest {
    int view = 0; // a post, VIEW_ALL or VIEW_SENSOR
    bool planes = true;
    int width = 0;    // at most so wide; 0: as it is
    int quality = 80; // of a JPEG

    auto operator<=>(const PictureRequest &) const = default;
};

// 8-bit BGR; a post that is off gives a dark picture that says so.
cv::Mat picture_view(Camera &camera, const PictureRequest &request);
std::string picture_png(const cv::Mat &picture);
std::string picture_jpeg(const cv::Mat &picture, int quality);

// The index of every pixel as its gray value; empty while nothing is shown.
cv::Mat picture_plane_indices(const PlaneImage &plane);
// The pixels in their colors, BGRA.
cv::Mat picture_plane_colors(const PlaneImage &plane, const std::vector<uint8_t> &palette);

// JPEGs of the latest frame, shared by the viewers that asked for the same thing.
struct PictureCache;
struct CachedPicture;
std::shared_ptr<PictureCache> picture_cache_make(Camera &camera);
// One viewer's hold on the frames of request; the last to let go frees them.
std::shared_ptr<CachedPicture> picture_cache_enter(PictureCache &cache,
                                                   const PictureRequest &request);
// How old a frame may be while nothing is measured: posts and planes change all the same.
constexpr std::chrono::milliseconds FRAME_AGE_MAX{400};
// The JPEG of measurement number or a later one, made by whoever comes first. asked is when the
// caller asked: what it then waits for the frame that another one is making does not count.
std::shared_ptr<const std::string> picture_cache_frame(PictureCache &cache, CachedPicture &entry,
                                                       uint64_t number,
                                                       std::chrono::steady_clock::time_point asked);
// Frames encoded since the start.
uint64_t picture_cache_encoded(const PictureCache &cache);

} // namespace simcam
