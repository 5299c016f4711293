// Pictures as the web interface sends them: views, encoding, and frames that several readers share.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <opencv2/core.hpp>

#include "board/state.h"

namespace simcam
{

struct Camera;

constexpr int VIEW_ALL = POST_COUNT;        // the four posts in one picture
constexpr int VIEW_SENSOR = POST_COUNT + 1; // the sensor's picture, without planes
constexpr int QUALITY_PNG = 0;

struct FrameRequest {
    int view = 0; // a post, VIEW_ALL or VIEW_SENSOR
    bool planes = true;
    int width = 0;    // maximum; 0: the original width
    int quality = 80; // of a JPEG; QUALITY_PNG: a PNG

    auto operator<=>(const FrameRequest &) const = default;
};

// 8-bit BGR, of one picture of the sensor; a post that is off gives a dark picture that says so.
// Sets *number to that of the sensor's measurement.
cv::Mat frame_picture(Camera &camera, const FrameRequest &request, uint64_t *number);
std::string frame_png(const cv::Mat &picture);

using FrameClock = std::chrono::steady_clock;

// A lock that several threads may hold at a time and that serves them in the order in which they
// asked, unlike std::mutex, which a busy reader can take again and again.
class FairLock
{
  public:
    explicit FairLock(unsigned holders_max = 1) : holders_max_(holders_max)
    {
    }
    void lock();
    void unlock();
    uint64_t waiting(); // threads that lock() holds up

  private:
    const unsigned holders_max_;
    std::mutex mutex_;
    std::condition_variable served_;
    uint64_t asked_ = 0;
    uint64_t left_ = 0;
};

// How many pictures may be encoded at a time: an encoder takes several times the memory of its
// picture, and the sensor needs processors too.
unsigned frame_encoders();

// The newest frame of one request.
struct Frame {
    FrameRequest request;
    FairLock mutex;      // held during encoding: others wait for it instead of encoding as well
    uint64_t number = 0; // of the measurement of its picture
    FrameClock::time_point asked; // by the reader that encoded it
    FrameClock::time_point begun; // when its encoding began
    std::shared_ptr<const std::string> bytes;
};

struct FrameCache {
    Camera &camera;
    std::mutex mutex; // of entries
    std::map<FrameRequest, std::weak_ptr<Frame>> entries;
    // Held by the one still picture that is encoded. Taken before the frame's mutex: a stream of
    // the same request does not wait for the stills of others.
    FairLock still;
    FairLock encoders{frame_encoders()}; // taken after the frame's mutex
    std::atomic<uint64_t> encoded{0};
    std::atomic<bool> closed{false}; // no still picture is encoded any more

    explicit FrameCache(Camera &its_camera) : camera(its_camera)
    {
    }
};

// One reader's hold on the frames of request; the last one frees them.
std::shared_ptr<Frame> frame_enter(FrameCache &cache, const FrameRequest &request);
// How old a frame of a stream may get while nothing is measured: posts and planes still change.
constexpr std::chrono::milliseconds FRAME_AGE_MAX{400};
// For streams: the frame of measurement *number or a later one, encoded by the reader that comes
// first. Sets *number to that of the frame. asked is when the caller asked; the time it waits for
// another reader's encode is ignored.
std::shared_ptr<const std::string> frame_next(FrameCache &cache, Frame &frame, uint64_t *number,
                                              FrameClock::time_point asked);
// For still pictures: a frame whose encoding began after the call. Readers that wait for the
// encoder share the next frame. Sets *number to that of its measurement. Null after the cache was
// closed.
std::shared_ptr<const std::string> frame_still(FrameCache &cache, const FrameRequest &request,
                                               uint64_t *number);

// A plane's palette indices as gray values, and a plane in its colors, as PNGs; each encoding takes
// one of the cache's encoders. Null if the plane has no pixels.
std::shared_ptr<const std::string> frame_plane_indices(FrameCache &cache, const PlaneImage &plane);
std::shared_ptr<const std::string> frame_plane_colors(FrameCache &cache, const PlaneImage &plane,
                                                      const std::vector<uint8_t> &palette);

} // namespace simcam
