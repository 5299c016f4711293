// Makes the pictures of docs/operator.md with the real overlay process on the simulated camera.
//
//     readout_pictures DIRECTORY FOCUS_ASSIST
//
// Prints the process's output in each situation, for the quotations in that page.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "camera/camera.h"
#include "camera/pictures.h"
#include "picture/lens.h"
#include "picture/osd_color.h"

using namespace simcam;

static std::string directory;
static std::string program;

// ---- Driving the camera -----------------------------------------------------------------------

static void fail(const std::string &what)
{
    std::fprintf(stderr, "readout_pictures: %s\n", what.c_str());
    std::exit(1);
}

static void check(const std::string &refusal)
{
    if (!refusal.empty())
        fail(refusal);
}

static void pause_s(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// Waits for two further updates of the post's bar, and long enough for the text to follow.
static void wait_for_readout(Camera &camera, size_t post)
{
    const uint64_t before = camera_state(camera).post[post].plane[0].shows;
    for (int i = 0; i < 100; i++) {
        const PostState now = camera_state(camera).post[post];
        if (now.plane[0].shows >= before + 3 || now.plane[0].shows < before)
            break;
        pause_s(0.05);
    }
    pause_s(0.1);
}

static CameraPtr start(const std::string &size, uint32_t pitch_align = 16,
                       const std::string &scene = "photo")
{
    CameraOptions options;
    options.scene = scene;
    options.post_size[0] = size;
    options.pitch_align = pitch_align;
    options.program = {program};
    std::string error;
    CameraPtr camera = camera_start(options, &error);
    if (!camera)
        fail(error);
    for (int i = 0; i < 100 && camera_state(*camera).post[0].plane[0].shows == 0; i++)
        pause_s(0.05);
    return camera;
}

// Turns the ring and returns the first value measured there.
static uint32_t turn(Camera &camera, double ring)
{
    check(camera_set_ring(camera, ring));
    camera_wait(camera, camera_state(camera).latest.number + 2, 5);
    return camera_state(camera).latest.value;
}

// Turns from the near stop to best focus, which becomes the process's peak.
static uint32_t turn_to_peak(Camera &camera)
{
    turn(camera, 0);
    const uint32_t peak = turn(camera, lens_best_ring());
    wait_for_readout(camera, 0);
    return peak;
}

// Turns beyond best focus, to where the value is this share of the peak.
static void turn_to_percent(Camera &camera, uint32_t peak, uint32_t percent)
{
    double sharp = lens_best_ring();
    double blurred = 1;
    for (int i = 0; i < 12; i++) {
        const double middle = (sharp + blurred) / 2;
        if (turn(camera, middle) * 100 >= peak * percent)
            sharp = middle;
        else
            blurred = middle;
    }
    wait_for_readout(camera, 0);
}

static void print_output(Camera &camera, const std::string &title)
{
    std::string text;
    for (const OutputChunk &chunk : camera_output(camera, 0, 4096))
        text += chunk.bytes;
    if (text.size() > 1200)
        text.replace(800, text.size() - 1200, "\n[...]\n");
    std::printf("---- %s\n%s\n", title.c_str(), text.c_str());
}

// ---- Pictures ---------------------------------------------------------------------------------

static cv::Mat output_picture(Camera &camera)
{
    cv::Mat picture = camera_picture(camera, 0, true);
    if (picture.empty())
        fail("the output is off");
    return picture;
}

static void save(const std::string &name, const cv::Mat &picture, double scale = 1)
{
    cv::Mat scaled;
    const int method = scale < 1 ? cv::INTER_AREA : cv::INTER_NEAREST;
    cv::resize(picture, scaled, {}, scale, scale, method);
    const std::string path = directory + "/" + name + ".png";
    if (!cv::imwrite(path, scaled, {cv::IMWRITE_PNG_COMPRESSION, 9}))
        fail(path + ": cannot be written");
}

// The readout with a margin, for an output of this size.
static cv::Rect readout_place(const cv::Mat &picture)
{
    const int margin = picture.cols / 24;
    const int width = picture.cols * 3 / 8 + 2 * margin;
    const int bottom = picture.rows * 4 / 5 + picture.rows / 10 + margin / 2;
    const int top = picture.rows * 4 / 5 - picture.rows / 17 - margin / 2;
    const cv::Rect place((picture.cols - width) / 2, top, width, bottom - top);
    return place & cv::Rect({0, 0}, picture.size());
}

static void save_readout(const std::string &name, Camera &camera, double scale = 1)
{
    const cv::Mat picture = output_picture(camera);
    save(name, picture(readout_place(picture)), scale);
}

// ---- Sections of the page ---------------------------------------------------------------------

static void make_title()
{
    const CameraPtr camera = start("1280x720");
    turn_to_percent(*camera, turn_to_peak(*camera), 72);
    save("../readout", output_picture(*camera), 0.5);
}

static void make_outputs()
{
    struct Output {
        const char *size;
        double scale;
    };
    for (const Output &output :
         {Output{"1920x1080", 0.5}, Output{"1280x720", 1}, Output{"720x480", 1},
          Output{"720x576", 1}, Output{"352x240", 2}, Output{"352x288", 2}}) {
        const CameraPtr camera = start(output.size);
        turn_to_percent(*camera, turn_to_peak(*camera), 72);
        save_readout(output.size, *camera, output.scale);
    }
}

static void make_states()
{
    const CameraPtr camera = start("720x480");
    wait_for_readout(*camera, 0);
    save_readout("state-start", *camera);
    const uint32_t peak = turn_to_peak(*camera);
    save_readout("state-peak", *camera);
    turn_to_percent(*camera, peak, 90);
    save_readout("state-near", *camera);
    turn_to_percent(*camera, peak, 40);
    save_readout("state-far", *camera);

    const std::vector<uint8_t> palette = camera_palette(*camera);
    for (const size_t index : {11U, 16U, 17U, 18U, 19U, 20U}) {
        const uint8_t *entry = palette.data() + index * PALETTE_ENTRY_BYTES;
        const BgrColor color = osd_color_to_bgr({entry[0], entry[1], entry[2], entry[3]});
        const cv::Mat swatch(16, 40, CV_8UC3, cv::Scalar(color.b, color.g, color.r));
        save("color-" + std::to_string(index), swatch);
    }
}

// Every pixel of the lines, shown or not, with a line where the shown part ends.
static cv::Mat whole_lines(Camera &camera, int plane)
{
    const PlaneImage image = camera_plane(camera, 0, plane);
    const std::vector<uint8_t> palette = camera_palette(camera);
    cv::Mat picture(static_cast<int>(image.state.height), static_cast<int>(image.state.pitch),
                    CV_8UC3, cv::Scalar(96, 96, 96));
    ShownPlane all;
    all.bytes = image.bytes.data();
    all.size = image.bytes.size();
    all.width = image.state.pitch;
    all.height = image.state.height;
    all.pitch = image.state.pitch;
    compose_plane(all, palette, &picture);
    cv::Mat magnified;
    cv::resize(picture, magnified, {}, 4, 4, cv::INTER_NEAREST);
    const int end = static_cast<int>(image.state.width) * 4;
    cv::line(magnified, {end, 0}, {end, magnified.rows}, cv::Scalar(255, 0, 255), 2);
    return magnified;
}

static void make_pitches()
{
    for (const uint32_t align : {1U, 8U, 16U, 64U}) {
        const CameraPtr camera = start("352x240", align);
        turn_to_percent(*camera, turn_to_peak(*camera), 72);
        save_readout("pitch-352-" + std::to_string(align), *camera, 2);
        if (align == 16)
            save("pitch-352-lines", whole_lines(*camera, 0));
        print_output(*camera, "352x240, lines rounded up to " + std::to_string(align));
    }
    for (const uint32_t align : {8U, 16U}) {
        const CameraPtr camera = start("720x480", align);
        turn_to_percent(*camera, turn_to_peak(*camera), 72);
        const cv::Mat picture = output_picture(*camera);
        save("pitch-720-" + std::to_string(align), picture(cv::Rect(440, 376, 80, 64)), 3);
    }
}

// With the exposure raised, the chart gives values above 999.
static void make_digits()
{
    struct Output {
        const char *size;
        double scale;
    };
    for (const Output &output : {Output{"1280x720", 1}, Output{"352x240", 2}}) {
        const CameraPtr camera = start(output.size, 16, "chart");
        const std::string name = std::string("digits-") + output.size;
        const uint32_t three_digits = turn_to_peak(*camera);
        save_readout(name + "-1", *camera, output.scale);
        check(camera_set_gain(*camera, 1.3));
        const uint32_t four_digits = turn_to_peak(*camera);
        save_readout(name + "-2", *camera, output.scale);
        turn_to_percent(*camera, four_digits, 40);
        save_readout(name + "-3", *camera, output.scale);
        std::printf("peak %u, then %u\n", three_digits, four_digits);
        print_output(*camera, name);
    }
}

static void restart_post(Camera &camera, uint32_t width, uint32_t height)
{
    check(camera_stop_post(camera, 0));
    pause_s(1.2); // a pass sees the stop
    check(camera_start_post(camera, 0, {width, height}));
    pause_s(1.2);
    wait_for_readout(camera, 0);
}

static void make_other_sizes()
{
    struct Change {
        const char *from;
        uint32_t width, height;
        double scale;
    };
    for (const Change &change :
         {Change{"720x576", 720, 480, 0.5}, Change{"1280x720", 720, 480, 0.5},
          Change{"720x480", 1920, 1080, 0.25}}) {
        const CameraPtr camera = start(change.from);
        turn_to_percent(*camera, turn_to_peak(*camera), 72);
        restart_post(*camera, change.width, change.height);
        const std::string name =
            std::string("size-") + change.from + "-to-" + std::to_string(change.width);
        save(name, output_picture(*camera), change.scale);
        print_output(*camera, name);
    }
    const CameraPtr camera = start("640x480");
    pause_s(2);
    print_output(*camera, "640x480");
}

static void make_left_open()
{
    const CameraPtr camera = start("720x480");
    turn_to_percent(*camera, turn_to_peak(*camera), 72);
    check(camera_process_kill(*camera));
    pause_s(1.0);
    save_readout("open-1-killed", *camera);
    check(camera_process_start(*camera));
    pause_s(3.0);
    turn_to_peak(*camera);
    save_readout("open-2-restarted", *camera);
    print_output(*camera, "restarted with its planes open");
    restart_post(*camera, 720, 480);
    turn_to_percent(*camera, turn_to_peak(*camera), 72);
    save_readout("open-3-output-restarted", *camera);
}

static void make_flash()
{
    const CameraPtr camera = start("720x480");
    turn_to_peak(*camera);
    save_readout("flash-before", *camera);
    camera_flash(*camera);
    pause_s(1.0);
    wait_for_readout(*camera, 0);
    save_readout("flash-after", *camera);
}

int main(int argc, char **argv)
{
    if (argc < 3)
        fail("usage: readout_pictures DIRECTORY FOCUS_ASSIST [PAGE]");
    directory = argv[1];
    program = std::filesystem::absolute(argv[2]).string();
    std::filesystem::create_directories(directory);

    struct Page {
        const char *name;
        void (*make)();
    };
    for (const Page &page :
         {Page{"title", make_title}, Page{"outputs", make_outputs}, Page{"states", make_states},
          Page{"pitches", make_pitches}, Page{"digits", make_digits},
          Page{"sizes", make_other_sizes}, Page{"open", make_left_open}, Page{"flash", make_flash}})
        if (argc == 3 || std::string(argv[3]) == page.name)
            page.make();
    return 0;
}
