// Scenes: pictures and videos in front of the lens. One thread at a time may use a scene.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace simcam
{

struct Scene;

// The built-in scenes.
std::vector<std::string> scene_names();
// Opens a built-in scene, or the path of a picture, a video file or a /dev/video*. Returns null
// with *error set on failure.
std::shared_ptr<Scene> scene_open(const std::string &name, std::string *error);
// The sharp picture at time_s, 8-bit BGR, SENSOR_WIDTH x SENSOR_HEIGHT. *changed tells whether it
// differs from the previous one.
const cv::Mat &scene_picture(Scene &scene, double time_s, bool *changed);
// The picture at time_s, blurred by blur_px; computed again only if one of them changed.
const cv::Mat &scene_through_lens(Scene &scene, double time_s, double blur_px);

} // namespace simcam
