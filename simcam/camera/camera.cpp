// Puts the camera together: the sensor's thread, the board, the server and the overlay process.
//
// No lock is taken while another one is held: the board's own; control (ring, scene, gain, noise);
// pictures (the sensor's latest picture and the measurements).

#include "camera/camera.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <thread>
#include <unistd.h>

#include <opencv2/imgproc.hpp>

#include "camera/pictures.h"
#include "link/request.h"
#include "link/server.h"
#include "picture/lens.h"
#include "picture/osd_color.h"
#include "picture/scene.h"
#include "picture/sensor.h"
#include "picture/sharpness.h"
#include "process/run_directory.h"

namespace simcam
{

using Clock = std::chrono::steady_clock;
using Picture = std::shared_ptr<cv::Mat>;

constexpr double FLASH_GAIN = 3.0;
static_assert(PALETTE_BYTES == PALETTE_ENTRIES * PALETTE_ENTRY_BYTES, "the whole color table");

// The focus ring, turned by hand or sweeping.
struct Ring {
    double position = 0;
    bool sweep = false;
    double sweep_period_s = SWEEP_DEFAULT_S;
    double sweep_phase = 0; // in periods, at sweep_from_s; the way up is 0 to 0.5
    double sweep_from_s = 0;
};

struct Camera {
    CameraOptions options;
    // Destroyed from the last to the first; CameraDelete ends the threads before.
    RunDirectory run_directory;
    std::string platform; // the folder of the program's libraries
    Board board;
    ServerPtr server;
    ProcessPtr process;
    std::thread sensor;
    std::atomic<bool> ending = false;

    std::mutex control;
    Ring ring;
    double gain = 1.0;
    std::shared_ptr<const SensorNoise> noise; // replaced, never changed
    bool flash = false;
    std::string scene_name;
    std::shared_ptr<Scene> scene;

    std::mutex pictures;
    std::condition_variable measured;
    Picture picture; // replaced, never changed
    Records<Measurement> measurements;
};

// ---- sensor

static double sweep_position(const Ring &ring, double time_s)
{
    const double phase = ring.sweep_phase + (time_s - ring.sweep_from_s) / ring.sweep_period_s;
    const double part = phase - std::floor(phase);
    return part < 0.5 ? 2 * part : 2 - 2 * part;
}

// Scenes and sweeps follow the number of the picture, not the wall clock: a slow machine shows the
// same pictures, later.
static double picture_time(const Camera &camera, uint64_t number)
{
    return static_cast<double>(number) / camera.options.rate_hz;
}

// Memory of the pictures: one is shown and one exposed; more are made while readers hold some.
struct PicturePool {
    std::vector<Picture> pictures;
    int last_unused = 0; // pictures taken since the last of the pool was in use
};

// A picture that nobody holds, or a new one. Frees the pool's last one when it was not needed for
// PICTURES_KEPT calls.
static Picture take_picture(PicturePool &pool)
{
    std::vector<Picture> &pictures = pool.pictures;
    auto taken = std::find_if(pictures.begin(), pictures.end(),
                              [](const Picture &picture) { return picture.use_count() == 1; });
    if (taken == pictures.end())
        taken = pictures.insert(taken, std::make_shared<cv::Mat>());
    Picture picture = *taken;
    pool.last_unused = pictures.back().use_count() == 1 ? pool.last_unused + 1 : 0;
    if (pool.last_unused == PICTURES_KEPT) {
        pictures.pop_back();
        pool.last_unused = 0;
    }
    return picture;
}

static cv::Rect measured_window(Camera &camera)
{
    const FocusWindow window = board_window(camera.board);
    return sharpness_window(cv::Rect(window.x, window.y, window.width, window.height));
}

static Measurement expose(Camera &camera, uint64_t number, cv::Mat *picture)
{
    const double time_s = picture_time(camera, number);
    Measurement measurement;
    measurement.number = number;

    std::shared_ptr<Scene> scene;
    double gain = 1.0;
    std::shared_ptr<const SensorNoise> noise;
    {
        const std::lock_guard guard(camera.control);
        if (camera.ring.sweep)
            camera.ring.position = sweep_position(camera.ring, time_s);
        measurement.ring = camera.ring.position;
        gain = camera.gain * (camera.flash ? FLASH_GAIN : 1.0);
        camera.flash = false;
        noise = camera.noise;
        scene = camera.scene;
    }
    measurement.blur_px = lens_blur_px(measurement.ring);
    sensor_expose(scene_through_lens(*scene, time_s, measurement.blur_px), gain, *noise,
                  camera.options.seed, number, picture);
    measurement.raw = sharpness_measure(*picture, measured_window(camera));
    measurement.value = focus_value(measurement.raw);
    measurement.overlay = board_overlay(camera.board);
    measurement.time_s = board_time(camera.board);
    return measurement;
}

static void publish(Camera &camera, const Measurement &measurement, Picture picture)
{
    {
        const std::lock_guard guard(camera.pictures);
        camera.picture = std::move(picture);
        records_add(&camera.measurements, measurement);
    }
    board_publish(camera.board, measurement);
    camera.measured.notify_all();
}

static void run_sensor(Camera &camera)
{
    const auto period = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(1.0 / camera.options.rate_hz));
    PicturePool pool;
    Clock::time_point next = Clock::now();
    for (uint64_t number = 1; !camera.ending; number++) {
        Picture picture = take_picture(pool);
        const Measurement measurement = expose(camera, number, picture.get());
        publish(camera, measurement, std::move(picture));
        next = std::max(next + period, Clock::now() - 3 * period); // skips what was missed
        std::this_thread::sleep_until(next);
    }
}

// ---- start and stop

static std::string check(const CameraOptions &options)
{
    if (std::find(PITCH_ALIGNS.begin(), PITCH_ALIGNS.end(), options.pitch_align) ==
        PITCH_ALIGNS.end())
        return "the pitch alignment must be " + pitch_aligns_text();
    for (const std::string &refusal :
         {range_refuse("the rate", RATE_RANGE_HZ, options.rate_hz),
          range_refuse("the ring", RING_RANGE, options.ring),
          range_refuse("the sweep's period", SWEEP_RANGE_S, options.sweep_period_s),
          range_refuse("the noise", NOISE_RANGE, options.noise)})
        if (!refusal.empty())
            return refusal;
    return {};
}

static std::string start_posts(Camera &camera)
{
    for (int post = 0; post < POST_COUNT; post++) {
        const std::string &text = camera.options.post_size[static_cast<size_t>(post)];
        if (text.empty())
            continue;
        const std::optional<Size> size = size_parse(text);
        if (!size)
            return "post " + std::to_string(post) + ": \"" + text +
                   "\" is not a size; give WIDTHxHEIGHT, such as 1280x720";
        const std::string refusal = board_start_post(camera.board, post, *size);
        if (!refusal.empty())
            return refusal;
    }
    return {};
}

// Everything up to the sensor's thread. On failure the caller deletes the camera.
static std::string prepare(Camera &camera)
{
    const CameraOptions &options = camera.options;
    std::string error = check(options);
    if (!error.empty())
        return error;
    if (!board_init(camera.board, options.seed, options.pitch_align))
        return "there is no memory for the color table";
    camera.ring.position = options.ring;
    camera.ring.sweep = options.sweep;
    camera.ring.sweep_period_s = options.sweep_period_s;
    camera.ring.sweep_phase = options.ring / 2;
    camera.noise = std::make_shared<const SensorNoise>(sensor_noise(options.noise));
    camera.scene_name = options.scene;
    camera.scene = scene_open(options.scene, &error);
    if (!camera.scene)
        return error;
    error = start_posts(camera);
    if (!error.empty())
        return error;
    camera.platform = platform_directory_find(options.platform_directory);
    if (!options.program.empty())
        for (const char *name : {"/libqm7codec.so.2.0", "/libsimcam_preload.so"})
            if (access((camera.platform + name).c_str(), R_OK) != 0)
                return camera.platform + name + ": " + std::strerror(errno) +
                       "; the program needs it to reach the camera";
    if (!run_directory_make(options.run_directory, &camera.run_directory, &error))
        return error;
    camera.server =
        server_start(camera.board, camera.run_directory.path + "/" SIMCAM_SOCKET_NAME, &error);
    if (camera.server) // so no other camera uses the directory
        run_directory_link(camera.platform, &camera.run_directory, &error);
    return error;
}

CameraPtr camera_start(const CameraOptions &options, std::string *error)
{
    CameraPtr camera(new Camera);
    camera->options = options;
    *error = prepare(*camera);
    if (!error->empty())
        return nullptr;

    camera->process = process_make({options.program, camera->run_directory.path,
                                    camera->run_directory.platform + "/libqm7codec.so.2.0",
                                    camera->run_directory.platform + "/libsimcam_preload.so",
                                    options.kill_after_s});
    camera->sensor = std::thread([camera = camera.get()] { run_sensor(*camera); });
    if (!options.program.empty()) {
        *error = process_start(*camera->process);
        if (!error->empty())
            return nullptr;
    }
    return camera;
}

void CameraDelete::operator()(Camera *camera) const
{
    camera->process.reset();
    camera->ending = true;
    if (camera->sensor.joinable())
        camera->sensor.join();
    run_directory_unlink(&camera->run_directory); // while the socket keeps other cameras out
    camera->server.reset();
    delete camera;
}

// ---- state

static double measured_rate(const Records<Measurement> &measurements, double now_s)
{
    double count = 0;
    for (auto m = measurements.kept.rbegin(); m != measurements.kept.rend(); ++m) {
        if (m->time_s <= now_s - 1)
            break;
        count++;
    }
    return count;
}

std::vector<std::string> camera_scenes()
{
    return scene_names();
}

CameraState camera_state(Camera &camera)
{
    CameraState state;
    static_cast<BoardState &>(state) = board_state(camera.board);
    state.process = process_state(*camera.process);
    state.time_s = board_time(camera.board);
    state.rate_hz = camera.options.rate_hz;
    state.run_directory = camera.run_directory.path;
    {
        const std::lock_guard guard(camera.control);
        state.ring = camera.ring.position;
        state.sweep = camera.ring.sweep;
        state.sweep_period_s = camera.ring.sweep_period_s;
        state.scene = camera.scene_name;
        state.gain = camera.gain;
        state.noise = camera.noise->deviation;
    }
    const std::lock_guard guard(camera.pictures);
    state.measured_rate_hz = measured_rate(camera.measurements, state.time_s);
    return state;
}

Measurement camera_latest(Camera &camera)
{
    const std::lock_guard guard(camera.pictures);
    return camera.measurements.newest ? camera.measurements.kept.back() : Measurement{};
}

PostState camera_post(Camera &camera, int post)
{
    return board_post(camera.board, post);
}

// ---- ring, scene, posts, faults

std::string camera_set_ring(Camera &camera, double ring)
{
    std::string refusal = range_refuse("ring", RING_RANGE, ring);
    if (!refusal.empty())
        return refusal;
    const std::lock_guard guard(camera.control);
    camera.ring.sweep = false;
    camera.ring.position = ring;
    return {};
}

void camera_set_sweep(Camera &camera, bool on, double period_s)
{
    const double now_s = picture_time(camera, camera_newest(camera).measurement);
    const std::lock_guard guard(camera.control);
    Ring &ring = camera.ring;
    ring.sweep = on;
    ring.sweep_period_s = std::clamp(period_s, SWEEP_RANGE_S.least, SWEEP_RANGE_S.most);
    ring.sweep_phase = ring.position / 2; // upwards from where it is
    ring.sweep_from_s = now_s;
}

std::string camera_set_scene(Camera &camera, const std::string &name)
{
    std::string error;
    std::shared_ptr<Scene> scene = scene_open(name, &error);
    if (!scene)
        return error;
    const std::lock_guard guard(camera.control);
    camera.scene_name = name;
    camera.scene.swap(scene);
    return {};
}

std::string camera_set_gain(Camera &camera, double gain)
{
    std::string refusal = range_refuse("gain", GAIN_RANGE, gain);
    if (!refusal.empty())
        return refusal;
    const std::lock_guard guard(camera.control);
    camera.gain = gain;
    return {};
}

std::string camera_set_noise(Camera &camera, double noise)
{
    std::string refusal = range_refuse("noise", NOISE_RANGE, noise);
    if (!refusal.empty())
        return refusal;
    auto made = std::make_shared<const SensorNoise>(sensor_noise(noise));
    const std::lock_guard guard(camera.control);
    camera.noise = std::move(made);
    return {};
}

void camera_flash(Camera &camera)
{
    const std::lock_guard guard(camera.control);
    camera.flash = true;
}

std::string camera_start_post(Camera &camera, int post, Size size, bool keep_same)
{
    return board_start_post(camera.board, post, size, keep_same);
}

std::string camera_stop_post(Camera &camera, int post)
{
    return board_stop_post(camera.board, post);
}

std::vector<std::string> camera_fault_calls()
{
    return request_names();
}

std::string camera_set_fault(Camera &camera, const Fault &fault)
{
    if (!request_call(fault.call))
        return "fault: there is no call named \"" + fault.call + "\"";
    return board_set_fault(camera.board, fault);
}

void camera_clear_faults(Camera &camera)
{
    const std::lock_guard guard(camera.board.lock);
    camera.board.faults.clear();
}

// ---- overlay process

std::string camera_process_start(Camera &camera)
{
    return process_start(*camera.process);
}

std::string camera_process_stop(Camera &camera)
{
    return process_signal(*camera.process, SIGTERM);
}

std::string camera_process_kill(Camera &camera)
{
    return process_signal(*camera.process, SIGKILL);
}

// ---- records

bool camera_wait(Camera &camera, uint64_t number, double timeout_s)
{
    std::unique_lock guard(camera.pictures);
    return camera.measured.wait_for(guard, std::chrono::duration<double>(timeout_s),
                                    [&] { return camera.measurements.newest > number; });
}

std::vector<Measurement> camera_measurements(Camera &camera, uint64_t after, size_t limit)
{
    const std::lock_guard guard(camera.pictures);
    return records_after(camera.measurements, after, limit);
}

std::vector<CallRecord> camera_calls(Camera &camera, uint64_t after, size_t limit)
{
    const std::lock_guard guard(camera.board.lock);
    return records_after(camera.board.calls, after, limit);
}

std::vector<OutputChunk> camera_output(Camera &camera, uint64_t after, size_t limit)
{
    return process_output(*camera.process, after, limit);
}

CameraNewest camera_newest(Camera &camera)
{
    CameraNewest newest;
    newest.output = process_newest_output(*camera.process);
    {
        const std::lock_guard guard(camera.board.lock);
        newest.call = camera.board.calls.newest;
    }
    const std::lock_guard guard(camera.pictures);
    newest.measurement = camera.measurements.newest;
    return newest;
}

// ---- pictures

SensorPicture camera_sensor_picture(Camera &camera)
{
    const std::lock_guard guard(camera.pictures);
    return {camera.picture, camera.measurements.newest};
}

cv::Mat camera_picture(Camera &camera, const SensorPicture &sensor, int post, bool with_planes)
{
    const PostImage image = board_post_image(camera.board, post, with_planes);
    if (!image.state.running)
        return {};
    const cv::Size size(static_cast<int>(image.state.width), static_cast<int>(image.state.height));
    cv::Mat picture;
    if (!sensor.pixels)
        picture = cv::Mat::zeros(size, CV_8UC3); // before the first measurement
    else if (sensor.pixels->size() == size)
        picture = sensor.pixels->clone();
    else
        cv::resize(*sensor.pixels, picture, size, 0, 0,
                   size.width < sensor.pixels->cols ? cv::INTER_AREA : cv::INTER_LINEAR);
    for (const PlaneImage &plane : image.plane) {
        if (!plane.bytes.empty())
            compose_plane(shown_plane(plane), image.palette, &picture);
    }
    return picture;
}

PlaneImage camera_plane(Camera &camera, int post, int plane)
{
    return board_plane_image(camera.board, post, plane);
}

std::vector<uint8_t> camera_palette(Camera &camera)
{
    const std::lock_guard guard(camera.board.lock);
    return camera.board.palette;
}

} // namespace simcam
