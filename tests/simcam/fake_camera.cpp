// A fake camera without threads, pictures of a scene or a process: its state changes only when a
// test changes it, and its time with each measurement.
#include "fake_camera.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sstream>

#include <opencv2/imgproc.hpp>

#include "camera/pictures.h"

namespace simcam
{

struct Camera {
    std::mutex mutex;
    std::condition_variable measured;
    CameraState state;
    std::vector<Measurement> measurements;
    std::vector<CallRecord> calls;
    std::vector<OutputChunk> output;
    std::array<std::array<PlaneImage, PLANE_COUNT>, POST_COUNT> planes;
    std::vector<std::string> changes;
    int pictures = 0;
    bool noise = false;
    bool hurry = false;
};

CameraPtr camera_start(const CameraOptions &options, std::string *error)
{
    CameraPtr camera(new Camera);
    camera->state.scene = options.scene;
    camera->state.ring = options.ring;
    camera->state.rate_hz = options.rate_hz;
    camera->state.seed = options.seed;
    camera->state.pitch_align = options.pitch_align;
    camera->state.sweep_period_s = options.sweep_period_s;
    camera->state.process.configured = !options.program.empty();
    for (size_t post = 0; post < POST_COUNT; ++post) {
        if (const auto size = size_parse(options.post_size[post]))
            camera_start_post(*camera, static_cast<int>(post), *size);
    }
    camera->changes.clear();
    *error = "";
    return camera;
}

void CameraDelete::operator()(Camera *camera) const
{
    delete camera;
}

std::vector<std::string> camera_scenes()
{
    return {"photo", "chart"};
}

CameraState camera_state(Camera &camera)
{
    const std::lock_guard lock(camera.mutex);
    CameraState state = camera.state;
    for (size_t post = 0; post < POST_COUNT; ++post) {
        for (size_t plane = 0; plane < PLANE_COUNT; ++plane)
            state.post[post].plane[plane] = camera.planes[post][plane].state;
    }
    return state;
}

// The camera's mutex is held.
static void measure(Camera &camera, uint32_t value)
{
    Measurement m;
    m.number = camera.measurements.size() + 1;
    m.time_s = static_cast<double>(m.number) / 32;
    m.raw = value * 100;
    m.value = value;
    m.ring = camera.state.ring;
    m.overlay = camera.state.overlay;
    camera.state.overlay.running = true; // simulates a process that reads every measurement
    overlay_focus_read(&camera.state.overlay, m.raw);
    camera.measurements.push_back(m);
    camera.state.latest = m;
    camera.state.time_s = m.time_s;
}

Measurement camera_latest(Camera &camera)
{
    const std::lock_guard lock(camera.mutex);
    const Measurement latest = camera.state.latest;
    if (camera.hurry)
        measure(camera, 1);
    return latest;
}

PostState camera_post(Camera &camera, int post)
{
    return camera_state(camera).post[static_cast<size_t>(post)];
}

template <typename... Parts> static void note(Camera &camera, const Parts &...parts)
{
    std::ostringstream text;
    (text << ... << parts);
    camera.changes.push_back(text.str());
}

std::string camera_set_ring(Camera &camera, double ring)
{
    const std::lock_guard lock(camera.mutex);
    note(camera, "ring ", ring);
    camera.state.ring = ring;
    camera.state.sweep = false;
    return "";
}

void camera_set_sweep(Camera &camera, bool on, double period_s)
{
    const std::lock_guard lock(camera.mutex);
    note(camera, "sweep ", on, " ", period_s);
    camera.state.sweep = on;
    camera.state.sweep_period_s = period_s;
}

std::string camera_set_scene(Camera &camera, const std::string &scene)
{
    const std::lock_guard lock(camera.mutex);
    if (scene == "nowhere")
        return "scene nowhere: no such file";
    note(camera, "scene ", scene);
    camera.state.scene = scene;
    return "";
}

std::string camera_set_gain(Camera &camera, double gain)
{
    const std::lock_guard lock(camera.mutex);
    note(camera, "gain ", gain);
    camera.state.gain = gain;
    return "";
}

std::string camera_set_noise(Camera &camera, double noise)
{
    const std::lock_guard lock(camera.mutex);
    note(camera, "noise ", noise);
    camera.state.noise = noise;
    return "";
}

void camera_flash(Camera &camera)
{
    const std::lock_guard lock(camera.mutex);
    note(camera, "flash");
}

std::string camera_start_post(Camera &camera, int post, Size size, bool keep_same)
{
    const std::lock_guard lock(camera.mutex);
    note(camera, "start ", post, " ", size_text(size), keep_same ? " if another size" : "");
    PostState &state = camera.state.post[static_cast<size_t>(post)];
    if (size == Size{})
        size = {state.width, state.height};
    if (size == Size{})
        return "no size yet";
    state.running = true;
    state.width = size.width;
    state.height = size.height;
    ++state.starts;
    return "";
}

std::string camera_stop_post(Camera &camera, int post)
{
    const std::lock_guard lock(camera.mutex);
    note(camera, "stop ", post);
    camera.state.post[static_cast<size_t>(post)].running = false;
    return "";
}

std::vector<std::string> camera_fault_calls()
{
    return {"open", "qm7_cl_post_open_osd"};
}

std::string camera_set_fault(Camera &camera, const Fault &fault)
{
    const std::lock_guard lock(camera.mutex);
    if (fault.call != "open" && fault.call != "qm7_cl_post_open_osd")
        return fault.call + ": no such call";
    note(camera, "fault ", fault.call, " ", fault.error, " ", fault.remaining, " ", fault.delay_ms);
    std::erase_if(camera.state.faults, [&](const Fault &f) { return f.call == fault.call; });
    camera.state.faults.push_back(fault);
    return "";
}

void camera_clear_faults(Camera &camera)
{
    const std::lock_guard lock(camera.mutex);
    note(camera, "clear");
    camera.state.faults.clear();
}

static std::string process_becomes(Camera &camera, const char *what, bool running)
{
    const std::lock_guard lock(camera.mutex);
    if (camera.state.process.running == running)
        return running ? "it runs already" : "it does not run";
    note(camera, what);
    camera.state.process.running = running;
    camera.state.process.pid = running ? 4242 : 0;
    return "";
}

std::string camera_process_start(Camera &camera)
{
    return process_becomes(camera, "process start", true);
}

std::string camera_process_stop(Camera &camera)
{
    return process_becomes(camera, "process stop", false);
}

std::string camera_process_kill(Camera &camera)
{
    return process_becomes(camera, "process kill", false);
}

bool camera_wait(Camera &camera, uint64_t number, double timeout_s)
{
    std::unique_lock lock(camera.mutex);
    return camera.measured.wait_for(lock, std::chrono::duration<double>(timeout_s),
                                    [&] { return camera.state.latest.number > number; });
}

template <typename Record>
static std::vector<Record> newer(Camera &camera, const std::vector<Record> &records, uint64_t after,
                                 size_t limit)
{
    const std::lock_guard lock(camera.mutex);
    const size_t first = static_cast<size_t>(std::min<uint64_t>(after, records.size()));
    const size_t count = std::min(limit, records.size() - first);
    return {records.begin() + static_cast<ptrdiff_t>(first),
            records.begin() + static_cast<ptrdiff_t>(first + count)};
}

std::vector<Measurement> camera_measurements(Camera &camera, uint64_t after, size_t limit)
{
    return newer(camera, camera.measurements, after, limit);
}

std::vector<CallRecord> camera_calls(Camera &camera, uint64_t after, size_t limit)
{
    return newer(camera, camera.calls, after, limit);
}

std::vector<OutputChunk> camera_output(Camera &camera, uint64_t after, size_t limit)
{
    return newer(camera, camera.output, after, limit);
}

CameraNewest camera_newest(Camera &camera)
{
    const std::lock_guard lock(camera.mutex);
    return {camera.measurements.size(), camera.calls.size(), camera.output.size()};
}

static void mark(uint64_t number, cv::Mat *picture)
{
    cv::rectangle(*picture, {picture->cols - 40, picture->rows - 40, 40, 40},
                  cv::Scalar::all(fake_corner(number)), cv::FILLED);
}

// Gray (post + 1) * 40, with a white spot if planes are requested.
cv::Mat camera_picture(Camera &camera, const SensorPicture &sensor, int post, bool with_planes)
{
    const std::lock_guard lock(camera.mutex);
    const PostState &state = camera.state.post[static_cast<size_t>(post)];
    if (!state.running)
        return {};
    ++camera.pictures;
    cv::Mat picture(static_cast<int>(state.height), static_cast<int>(state.width), CV_8UC3,
                    cv::Scalar::all((post + 1) * 40));
    if (camera.noise)
        cv::randu(picture, 0, 256);
    if (with_planes)
        cv::rectangle(picture, {0, 0, 8, 8}, cv::Scalar::all(255), cv::FILLED);
    mark(sensor.number, &picture);
    if (camera.hurry)
        measure(camera, 1);
    return picture;
}

SensorPicture camera_sensor_picture(Camera &camera)
{
    const std::lock_guard lock(camera.mutex);
    cv::Mat picture(720, 1280, CV_8UC3, cv::Scalar::all(99));
    const uint64_t number = camera.state.latest.number;
    mark(number, &picture);
    if (camera.hurry)
        measure(camera, 1);
    return {std::make_shared<const cv::Mat>(picture), number};
}

PlaneImage camera_plane(Camera &camera, int post, int plane)
{
    const std::lock_guard lock(camera.mutex);
    return camera.planes[static_cast<size_t>(post)][static_cast<size_t>(plane)];
}

// Entry i: Y = i, Cb and Cr without color, opaque; entry 0 transparent, entry 18 red.
std::vector<uint8_t> camera_palette(Camera &)
{
    std::vector<uint8_t> palette;
    for (int i = 0; i < 256; ++i)
        palette.insert(palette.end(),
                       {static_cast<uint8_t>(i), 128, 128, static_cast<uint8_t>(i ? 8 : 0)});
    const uint8_t red[4] = {0x4C, 0x54, 0xFF, 8};
    std::copy(red, red + 4, palette.begin() + 18 * 4);
    return palette;
}

// ---- for tests ----

void fake_measure(Camera &camera, uint32_t value)
{
    {
        const std::lock_guard lock(camera.mutex);
        measure(camera, value);
    }
    camera.measured.notify_all();
}

void fake_write(Camera &camera, int stream, const std::string &bytes)
{
    const std::lock_guard lock(camera.mutex);
    camera.output.push_back({camera.output.size() + 1, camera.state.time_s, stream, bytes});
}

void fake_call(Camera &camera, const std::string &call, uint32_t error)
{
    const std::lock_guard lock(camera.mutex);
    camera.calls.push_back({camera.calls.size() + 1, camera.state.time_s, 4242, call,
                            "postResId=0x51000000", error ? -1 : 0, error});
}

void fake_set_state(Camera &camera, const CameraState &state)
{
    const std::lock_guard lock(camera.mutex);
    camera.state = state;
}

void fake_show(Camera &camera, int post, int plane, const PlaneState &state,
               const std::vector<uint8_t> &bytes)
{
    const std::lock_guard lock(camera.mutex);
    camera.planes[static_cast<size_t>(post)][static_cast<size_t>(plane)] = {state, bytes};
}

std::vector<std::string> fake_changes(Camera &camera)
{
    const std::lock_guard lock(camera.mutex);
    return camera.changes;
}

void fake_noise(Camera &camera)
{
    const std::lock_guard lock(camera.mutex);
    camera.noise = true;
}

void fake_hurry(Camera &camera)
{
    const std::lock_guard lock(camera.mutex);
    camera.hurry = true;
}

int fake_pictures(Camera &camera)
{
    const std::lock_guard lock(camera.mutex);
    return camera.pictures;
}

} // namespace simcam
