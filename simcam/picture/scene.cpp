// Opening scenes and playing videos.
#include "picture/scene.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#if SIMCAM_VIDEO
#include <opencv2/videoio.hpp>
#endif

#include "picture/chart.h"
#include "picture/lens.h"
#include "picture/sensor.h"
#include "words.h"

namespace simcam
{

static constexpr const char *PHOTO_FILE = "backgrounds/seeding_by_Clements_Engelhardt.jpg";
static constexpr const char *PHOTO_PACKAGE = "lomiri-wallpapers-16.04";
static constexpr double DEFAULT_FRAME_RATE = 25.0;

struct Scene {
    cv::Mat picture; // SENSOR_WIDTH x SENSOR_HEIGHT
    bool fresh = true;
#if SIMCAM_VIDEO
    cv::VideoCapture capture; // not open for still pictures
    bool live = false;        // a device: delivers frames at its own pace
    double frame_rate = DEFAULT_FRAME_RATE;
    double start_s = -1; // when the file's first frame was shown
    uint64_t frames = 0; // taken since then
#endif
    // The last result of scene_through_lens.
    cv::Mat blurred;
    double blurred_px = -1;
};

// Scales the picture to fill the sensor; crops it evenly on both sides where its shape differs.
static cv::Mat cover_sensor(const cv::Mat &picture)
{
    const int width = cvRound(static_cast<double>(picture.rows) * SENSOR_WIDTH / SENSOR_HEIGHT);
    const int height = cvRound(static_cast<double>(picture.cols) * SENSOR_HEIGHT / SENSOR_WIDTH);
    const cv::Size kept(std::clamp(width, 1, picture.cols), std::clamp(height, 1, picture.rows));
    const cv::Point start((picture.cols - kept.width) / 2, (picture.rows - kept.height) / 2);
    const int method = kept.width > SENSOR_WIDTH ? cv::INTER_AREA : cv::INTER_CUBIC;
    cv::Mat filled;
    cv::resize(picture(cv::Rect(start, kept)), filled, {SENSOR_WIDTH, SENSOR_HEIGHT}, 0, 0, method);
    return filled;
}

// The photograph's path in one of the system's data directories, or empty.
static std::string find_photo()
{
    const char *variable = std::getenv("XDG_DATA_DIRS");
    std::string folders = variable ? variable : "";
    folders += ":/usr/local/share:/usr/share";
    std::istringstream list(folders);
    for (std::string folder; std::getline(list, folder, ':');) {
        std::error_code ignored;
        const std::filesystem::path file = std::filesystem::path(folder) / PHOTO_FILE;
        if (!folder.empty() && std::filesystem::is_regular_file(file, ignored))
            return file;
    }
    return {};
}

static std::shared_ptr<Scene> open_picture(const std::string &path, int flags, std::string *error)
{
    cv::Mat picture;
    try {
        picture = cv::imread(path, flags);
    } catch (const cv::Exception &) { // a file that claims an impossible size
    }
    if (picture.empty()) {
        *error = "scene " + path + ": the picture cannot be decoded";
        return nullptr;
    }
    auto scene = std::make_shared<Scene>();
    scene->picture = cover_sensor(picture);
    return scene;
}

static std::shared_ptr<Scene> open_photo(std::string *error)
{
    const std::string path = find_photo();
    if (path.empty()) {
        *error = "scene photo: ";
        *error += PHOTO_FILE;
        *error += " is missing; install the package ";
        *error += PHOTO_PACKAGE;
        *error += " or use the scene chart";
        return nullptr;
    }
    // The file has four times the sensor's lines and columns; decoding a quarter is much faster.
    return open_picture(path, cv::IMREAD_REDUCED_COLOR_4, error);
}

#if SIMCAM_VIDEO
static bool next_frame(Scene &scene)
{
    cv::Mat frame;
    if (!scene.capture.read(frame) || frame.empty())
        return false;
    if (frame.channels() == 1)
        cv::cvtColor(frame, frame, cv::COLOR_GRAY2BGR);
    scene.picture = cover_sensor(frame);
    scene.fresh = true;
    return true;
}

static std::shared_ptr<Scene> open_video(const std::string &path, std::string *error)
{
    auto scene = std::make_shared<Scene>();
    std::error_code ignored;
    scene->live = std::filesystem::is_character_file(path, ignored);
    try {
        scene->capture.open(path, scene->live ? cv::CAP_V4L2 : cv::CAP_FFMPEG);
        const double rate = scene->capture.get(cv::CAP_PROP_FPS);
        if (rate > 0.5 && rate < 1000)
            scene->frame_rate = rate;
        if (scene->capture.isOpened() && next_frame(*scene))
            return scene;
    } catch (const cv::Exception &) {
    }
    *error = "scene " + path + ": neither a picture nor a video that can be decoded";
    return nullptr;
}

// Moves on to the frame that is due. A file starts again at its end; a video that fails keeps its
// last frame.
static void play(Scene &scene, double time_s)
{
    if (scene.live) {
        (void)next_frame(scene);
        return;
    }
    if (scene.start_s < 0 || time_s < scene.start_s)
        scene.start_s = time_s;
    const auto due = static_cast<uint64_t>((time_s - scene.start_s) * scene.frame_rate);
    if (due <= scene.frames)
        return;
    for (; scene.frames + 1 < due; scene.frames++) { // late: skip frames
        if (!scene.capture.grab())
            break;
    }
    scene.frames++;
    if (next_frame(scene))
        return;
    scene.capture.set(cv::CAP_PROP_POS_FRAMES, 0);
    (void)next_frame(scene);
    scene.start_s = time_s;
    scene.frames = 0;
}
#else
static std::shared_ptr<Scene> open_video(const std::string &path, std::string *error)
{
    *error = "scene " + path + ": not a picture, and this simcam is built without video";
    return nullptr;
}
#endif

static std::shared_ptr<Scene> open_chart(std::string *)
{
    auto scene = std::make_shared<Scene>();
    scene->picture = chart_draw(SENSOR_WIDTH, SENSOR_HEIGHT);
    return scene;
}

static constexpr struct {
    const char *name;
    std::shared_ptr<Scene> (*open)(std::string *error);
} BUILT_IN[] = {{"photo", open_photo}, {"chart", open_chart}};

std::vector<std::string> scene_names()
{
    std::vector<std::string> names;
    for (const auto &scene : BUILT_IN)
        names.emplace_back(scene.name);
    return names;
}

std::shared_ptr<Scene> scene_open(const std::string &name, std::string *error)
{
    for (const auto &scene : BUILT_IN)
        if (name == scene.name)
            return scene.open(error);
    std::error_code missing;
    const std::filesystem::file_status status = std::filesystem::status(name, missing);
    if (!std::filesystem::exists(status)) {
        *error = "scene " + name + ": no such file; the built-in scenes are " + join(scene_names());
        return nullptr;
    }
    if (std::filesystem::is_directory(status)) {
        *error = "scene " + name + ": a directory, not a picture or a video";
        return nullptr;
    }
    if (!std::filesystem::is_regular_file(status) && !std::filesystem::is_character_file(status)) {
        // Opening a pipe would block until another program writes to it.
        *error = "scene " + name + ": neither a file nor a video device";
        return nullptr;
    }
    if (std::filesystem::is_regular_file(status) && cv::haveImageReader(name))
        return open_picture(name, cv::IMREAD_COLOR, error);
    return open_video(name, error);
}

const cv::Mat &scene_picture(Scene &scene, double time_s, bool *changed)
{
#if SIMCAM_VIDEO
    try {
        if (scene.capture.isOpened())
            play(scene, time_s);
    } catch (const cv::Exception &) { // the sensor's thread must go on
    }
#else
    (void)time_s;
#endif
    *changed = scene.fresh;
    scene.fresh = false;
    return scene.picture;
}

const cv::Mat &scene_through_lens(Scene &scene, double time_s, double blur_px)
{
    bool changed = false;
    const cv::Mat &sharp = scene_picture(scene, time_s, &changed);
    if (changed || blur_px != scene.blurred_px) {
        lens_blur(sharp, blur_px, &scene.blurred);
        scene.blurred_px = blur_px;
    }
    return scene.blurred;
}

} // namespace simcam
