// Puts the camera together: the sensor's thread, the board, the server and the overlay process.
//
// Locks, each a leaf: the board's own; control (lens, scene, gain), and pictures (the sensor's
// latest picture and the measurements), which the sensor's thread takes one after another.

#include "camera/camera.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>
#include <unistd.h>

#include <opencv2/imgproc.hpp>

#include "board/board.h"
#include "picture/optics.h"
#include "process/process.h"
#include "process/run_directory.h"
#include "link/server.h"

namespace simcam
{

using Clock = std::chrono::steady_clock;
using Picture = std::shared_ptr<cv::Mat>;

constexpr double FLASH_GAIN = 3.0;
constexpr double GAIN_MIN = 0.1, GAIN_MAX = 8.0;
constexpr double RATE_MIN_HZ = 1.0, RATE_MAX_HZ = 240.0;
constexpr double SWEEP_MIN_S = 0.5, SWEEP_MAX_S = 3600.0;

struct Lens {
    double ring = 0;
    bool sweep = false;
    double sweep_period_s = 12.0;
    double sweep_phase = 0; // in periods, at sweep_from_s; the way up is 0 to 0.5
    double sweep_from_s = 0;
};

struct Camera {
    CameraOptions options;
    RunDirectory run_directory;
    std::string platform; // the folder of the program's libraries
    Board board;
    std::shared_ptr<Server> server;
    std::shared_ptr<Process> process;
    std::thread sensor;
    std::atomic<bool> ending = false;

    std::mutex control;
    Lens lens;
    double gain = 1.0;
    bool flash = false;
    std::string scene_name;
    std::shared_ptr<Scene> scene;

    std::mutex pictures;
    std::condition_variable measured;
    Picture picture; // replaced, never changed
    std::deque<Measurement> measurements;
};

// ---- sensor

static double sweep_ring(const Lens &lens, double time_s)
{
    const double phase = lens.sweep_phase + (time_s - lens.sweep_from_s) / lens.sweep_period_s;
    const double part = phase - std::floor(phase);
    return part < 0.5 ? 2 * part : 2 - 2 * part;
}

// The clock of scenes and sweeps follows the number of the picture, not the wall's: a machine that
// is late shows the same pictures later.
static double picture_time(const Camera &camera, uint64_t number)
{
    return static_cast<double>(number) / camera.options.rate_hz;
}

// A picture that nobody looks at any more, or a new one.
static Picture take_picture(std::vector<Picture> &pool)
{
    for (const Picture &picture : pool)
        if (picture.use_count() == 1)
            return picture;
    pool.push_back(std::make_shared<cv::Mat>());
    return pool.back();
}

static Measurement expose(Camera &camera, uint64_t number, cv::Mat *picture)
{
    const double time_s = picture_time(camera, number);
    Measurement measurement;
    measurement.number = number;

    std::shared_ptr<Scene> scene;
    double gain = 1.0;
    {
        const std::lock_guard guard(camera.control);
        if (camera.lens.sweep)
            camera.lens.ring = sweep_ring(camera.lens, time_s);
        measurement.ring = camera.lens.ring;
        gain = camera.gain * (camera.flash ? FLASH_GAIN : 1.0);
        camera.flash = false;
        scene = camera.scene;
    }
    uint32_t words[2];
    {
        const std::lock_guard guard(camera.board.lock);
        std::copy_n(camera.board.focus_words, 2, words);
    }

    measurement.blur_px = lens_blur_px(measurement.ring);
    sensor_expose(scene_through_lens(*scene, time_s, measurement.blur_px), gain,
                  camera.options.seed, number, picture);
    measurement.raw = sharpness_measure(*picture, sharpness_window(words[0], words[1]));
    measurement.value = measurement.raw / 100;
    measurement.time_s = board_time(camera.board);
    return measurement;
}

static void publish(Camera &camera, const Measurement &measurement, Picture picture)
{
    {
        const std::lock_guard guard(camera.pictures);
        camera.picture = std::move(picture);
        records_add(camera.measurements, measurement);
    }
    board_publish(camera.board, measurement);
    camera.measured.notify_all();
    server_wake(*camera.server);
}

static void run_sensor(Camera &camera)
{
    const auto period = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(1.0 / camera.options.rate_hz));
    std::vector<Picture> pool;
    Clock::time_point next = Clock::now();
    for (uint64_t number = 1; !camera.ending; number++) {
        Picture picture = take_picture(pool);
        const Measurement measurement = expose(camera, number, picture.get());
        publish(camera, measurement, std::move(picture));
        next = std::max(next + period, Clock::now() - 3 * period); // what is lost is not made up
        std::this_thread::sleep_until(next);
    }
}

// ---- start and stop

static bool parse_size(const std::string &text, uint32_t *width, uint32_t *height)
{
    char rest = 0;
    return text.find_first_not_of("0123456789x") == std::string::npos &&
           std::sscanf(text.c_str(), "%9ux%9u%c", width, height, &rest) == 2;
}

static std::string check(const CameraOptions &options)
{
    const uint32_t aligns[] = {1, 8, 16, 32, 64};
    if (std::find(std::begin(aligns), std::end(aligns), options.pitch_align) == std::end(aligns))
        return "pitch alignment " + std::to_string(options.pitch_align) +
               ": it is 1, 8, 16, 32 or 64";
    if (!(options.rate_hz >= RATE_MIN_HZ && options.rate_hz <= RATE_MAX_HZ))
        return "rate: it lies between 1 and 240 measurements a second";
    if (!(options.ring >= 0 && options.ring <= 1))
        return "ring: it lies between 0 and 1";
    if (!(options.sweep_period_s >= SWEEP_MIN_S && options.sweep_period_s <= SWEEP_MAX_S))
        return "sweep: its period lies between 0.5 and 3600 seconds";
    return {};
}

static std::string start_posts(Camera &camera)
{
    for (int post = 0; post < POST_COUNT; post++) {
        const std::string &text = camera.options.post_size[static_cast<size_t>(post)];
        if (text.empty())
            continue;
        uint32_t width = 0, height = 0;
        if (!parse_size(text, &width, &height))
            return "post " + std::to_string(post) + ": \"" + text +
                   "\" is no size; give width x height, such as 1280x720";
        const std::string refusal = board_start_post(camera.board, post, width, height);
        if (!refusal.empty())
            return refusal;
    }
    return {};
}

// Everything up to the first thread. What is made is undone by camera_stop.
static std::string prepare(Camera &camera)
{
    const CameraOptions &options = camera.options;
    std::string error = check(options);
    if (!error.empty())
        return error;
    if (!board_init(camera.board, options.seed, options.pitch_align))
        return "there is no memory for the color table";
    camera.lens.ring = options.ring;
    camera.lens.sweep = options.sweep;
    camera.lens.sweep_period_s = options.sweep_period_s;
    camera.lens.sweep_phase = options.ring / 2;
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
                       "; it stands between the program and the camera";
    if (!run_directory_make(options.run_directory, &camera.run_directory, &error))
        return error;
    camera.server =
        server_start(camera.board, camera.run_directory.path + "/" SIMCAM_SOCKET_NAME, &error);
    if (camera.server) // the directory is no other camera's
        run_directory_link(camera.platform, &camera.run_directory, &error);
    return error;
}

std::shared_ptr<Camera> camera_start(const CameraOptions &options, std::string *error)
{
    auto camera = std::make_shared<Camera>();
    camera->options = options;
    *error = prepare(*camera);
    if (!error->empty()) {
        camera_stop(*camera);
        return nullptr;
    }

    camera->process = process_make({options.program, camera->run_directory.path,
                                    camera->run_directory.platform + "/libqm7codec.so.2.0",
                                    camera->run_directory.platform + "/libsimcam_preload.so"});
    camera->sensor = std::thread([camera = camera.get()] { run_sensor(*camera); });
    if (!options.program.empty()) {
        *error = process_start(*camera->process);
        if (!error->empty()) {
            camera_stop(*camera);
            return nullptr;
        }
    }
    return camera;
}

void camera_stop(Camera &camera)
{
    if (camera.process)
        process_finish(*camera.process);
    camera.ending = true;
    if (camera.sensor.joinable())
        camera.sensor.join();
    run_directory_unlink(&camera.run_directory); // before another camera can take the directory
    if (camera.server)
        server_stop(*camera.server);
    run_directory_remove(camera.run_directory);
}

// ---- state

static double measured_rate(const std::deque<Measurement> &measurements, double now_s)
{
    const auto recent = std::count_if(measurements.rbegin(), measurements.rend(),
                                      [&](const Measurement &m) { return m.time_s > now_s - 1; });
    return static_cast<double>(recent);
}

CameraState camera_state(Camera &camera)
{
    CameraState state;
    board_state(camera.board, &state);
    process_state(*camera.process, &state.process);
    state.time_s = board_time(camera.board);
    state.rate_hz = camera.options.rate_hz;
    state.run_directory = camera.run_directory.path;
    {
        const std::lock_guard guard(camera.control);
        state.ring = camera.lens.ring;
        state.sweep = camera.lens.sweep;
        state.sweep_period_s = camera.lens.sweep_period_s;
        state.scene = camera.scene_name;
        state.gain = camera.gain;
    }
    const std::lock_guard guard(camera.pictures);
    state.measured_rate_hz = measured_rate(camera.measurements, state.time_s);
    return state;
}

// ---- lens, scene, posts, faults

std::string camera_set_ring(Camera &camera, double ring)
{
    if (!(ring >= 0 && ring <= 1))
        return "ring: it lies between 0 and 1";
    const std::lock_guard guard(camera.control);
    camera.lens.sweep = false;
    camera.lens.ring = ring;
    return {};
}

void camera_set_sweep(Camera &camera, bool on, double period_s)
{
    double now_s = 0;
    {
        const std::lock_guard guard(camera.pictures);
        if (!camera.measurements.empty())
            now_s = picture_time(camera, camera.measurements.back().number);
    }
    const std::lock_guard guard(camera.control);
    Lens &lens = camera.lens;
    lens.sweep = on;
    lens.sweep_period_s = std::clamp(period_s, SWEEP_MIN_S, SWEEP_MAX_S);
    lens.sweep_phase = lens.ring / 2; // goes on upwards from where it is
    lens.sweep_from_s = now_s;
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
    if (!(gain >= GAIN_MIN && gain <= GAIN_MAX))
        return "gain: it lies between 0.1 and 8";
    const std::lock_guard guard(camera.control);
    camera.gain = gain;
    return {};
}

void camera_flash(Camera &camera)
{
    const std::lock_guard guard(camera.control);
    camera.flash = true;
}

std::string camera_start_post(Camera &camera, int post, uint32_t width, uint32_t height)
{
    return board_start_post(camera.board, post, width, height);
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
    return camera.measured.wait_for(guard, std::chrono::duration<double>(timeout_s), [&] {
        return !camera.measurements.empty() && camera.measurements.back().number > number;
    });
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

// ---- pictures

static Picture latest_picture(Camera &camera)
{
    const std::lock_guard guard(camera.pictures);
    return camera.picture;
}

cv::Mat camera_picture(Camera &camera, int post, bool with_planes)
{
    const PostImage image = board_post_image(camera.board, post);
    if (!image.state.running)
        return {};
    const cv::Size size(static_cast<int>(image.state.width), static_cast<int>(image.state.height));
    const Picture sensor = latest_picture(camera);
    cv::Mat picture;
    if (!sensor)
        picture = cv::Mat::zeros(size, CV_8UC3); // before the first measurement
    else if (sensor->size() == size)
        picture = sensor->clone();
    else
        cv::resize(*sensor, picture, size, 0, 0,
                   size.width < sensor->cols ? cv::INTER_AREA : cv::INTER_LINEAR);
    if (!with_planes)
        return picture;

    for (const PlaneImage &plane : image.plane) {
        if (plane.bytes.empty())
            continue;
        const PlaneState &state = plane.state;
        const ShownPlane shown = {plane.bytes.data(), plane.bytes.size(), state.width, state.height,
                                  state.pitch,        state.depth_code,   state.x,     state.y};
        compose_plane(shown, image.palette, &picture);
    }
    return picture;
}

cv::Mat camera_sensor_picture(Camera &camera)
{
    const Picture sensor = latest_picture(camera);
    return sensor ? sensor->clone() : cv::Mat();
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
