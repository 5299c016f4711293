// The simulated camera's command line.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <malloc.h>
#include <string>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "camera/camera.h"
#include "web/server.h"
#include "camera/snapshot.h"
#include "words.h"

using namespace simcam;

static constexpr time_t TRIM_INTERVAL_S = 2; // how often freed memory is returned to the system

static const std::string POSTS_TEXT = range_text({0, POST_COUNT - 1}); // "0 to 3"

static const char DESCRIPTION[] =
    "A simulated camera for focus_assist.\n"
    "Shows a scene through a lens that you turn in a browser, measures its sharpness, and draws\n"
    "the planes of the overlay process over the live picture.\n"
    "  simcam -- build/run/focus_assist                    four outputs; prints the address\n"
    "  simcam --post 0=1280x720 --sweep -- PROGRAM         one output, the ring turns by itself\n"
    "  simcam --snapshot pictures -- PROGRAM               five PNGs per output, no browser";

struct HelpFormatter : CLI::Formatter {
    std::string make_usage(const CLI::App *, std::string) const override
    {
        return "Usage: simcam [options] [-- PROGRAM ARGS...]\n\n";
    }
    std::string make_option_opts(const CLI::Option *option) const override
    {
        const std::string type = option->get_type_name();
        return type.empty() ? "" : " " + type;
    }
    std::string make_option_desc(const CLI::Option *option) const override
    {
        const std::string standard = option->get_default_str();
        return option->get_description() + (standard.empty() ? "" : " (default: " + standard + ")");
    }
};

struct Options {
    CameraOptions camera;
    std::vector<std::string> posts;
    std::string listen = HTTP_LISTEN_DEFAULT;
    std::string snapshot;
};

// "0=1280x720, 1=1920x1080"
static std::string standard_posts()
{
    std::vector<std::string> posts;
    for (size_t post = 0; post < POST_SIZES.size(); post++)
        posts.push_back(std::to_string(post) + "=" + size_text(POST_SIZES[post]));
    return join(posts);
}

// Prints the message and exits with status 2, wrong usage.
[[noreturn]] static void refuse(const std::string &message)
{
    std::fprintf(stderr, "simcam: %s\n", message.c_str());
    std::exit(2);
}

static void parse_posts(Options *options)
{
    auto &sizes = options->camera.post_size;
    const bool only_off = std::all_of(options->posts.begin(), options->posts.end(),
                                      [](const auto &post) { return post.ends_with("=off"); });
    if (only_off) // all run but these
        std::transform(POST_SIZES.begin(), POST_SIZES.end(), sizes.begin(), size_text);
    for (const std::string &post : options->posts) {
        if (post.size() < 3 || post[0] < '0' || post[0] >= '0' + POST_COUNT || post[1] != '=')
            refuse("--post " + post + ": must be an output " + POSTS_TEXT +
                   " and its size, such as 0=1280x720");
        sizes[static_cast<size_t>(post[0] - '0')] = post.substr(2) == "off" ? "" : post.substr(2);
    }
}

static void parse(int argc, char **argv, Options *options)
{
    // Arguments after "--" belong to the program.
    int own = argc;
    for (int i = 1; i < argc && own == argc; i++)
        if (std::string(argv[i]) == "--")
            own = i;
    for (int i = own + 1; i < argc; i++)
        options->camera.program.push_back(argv[i]);

    CLI::App app(DESCRIPTION, "simcam");
    app.formatter(std::make_shared<HelpFormatter>());
    app.get_formatter()->column_width(34);
    CameraOptions &camera = options->camera;
    app.add_option("--scene", camera.scene,
                   join(camera_scenes()) + ", or the path of a picture, a video or a\n/dev/video*")
        ->type_name("NAME")
        ->capture_default_str();
    app.add_option("--post", options->posts,
                   "start output N (" + POSTS_TEXT + ") with this size, " +
                       range_text(POST_SIZE_RANGE) +
                       " each\nway; N=off leaves it off. May be repeated: only the named\n"
                       "outputs run, or, if all values are N=off, all others.\n"
                       "Without it all run: " +
                       standard_posts())
        ->type_name("N=WIDTHxHEIGHT")
        ->allow_extra_args(false);
    app.add_option("--ring", camera.ring,
                   "focus ring of the lens, " + range_text(RING_RANGE) + ", near stop to far stop")
        ->type_name("X")
        ->capture_default_str();
    app.add_flag("--sweep", camera.sweep, "turn the ring back and forth");
    app.add_option("--sweep-period", camera.sweep_period_s,
                   "time of one turn back and forth, " + range_text(SWEEP_RANGE_S))
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_option("--noise", camera.noise,
                   "noise of the sensor, standard deviation in levels of\n255, " +
                       range_text(NOISE_RANGE) + "; 0: no noise")
        ->type_name("LEVELS")
        ->capture_default_str();
    app.add_option("--seed", camera.seed, "seed of the noise; same seed, same numbers")
        ->check([](const std::string &text) { return text[0] == '-' ? "must be 0 or more" : ""; })
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--pitch-align", camera.pitch_align,
                   "pad plane lines to a multiple of " + pitch_aligns_text())
        ->type_name("BYTES")
        ->capture_default_str();
    app.add_option("--rate", camera.rate_hz,
                   "measurements per second, " + range_text(RATE_RANGE_HZ))
        ->type_name("HZ")
        ->capture_default_str();
    app.add_option("--listen", options->listen, "address of the page; port 0 chooses a free port")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    app.add_option("--snapshot", options->snapshot,
                   "write PNGs of every output at five ring positions, then exit")
        ->type_name("DIRECTORY");
    app.add_option("--run-dir", camera.run_directory,
                   "directory that replaces the camera's fixed paths\n(default: a new one)")
        ->type_name("DIRECTORY");
    app.add_option("--platform", camera.platform_directory,
                   "directory of the program's libqm7codec.so.2.0 and\nlibsimcam_preload.so "
                   "(default: those built with simcam)")
        ->type_name("DIRECTORY");

    try {
        app.parse(own, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0) { // --help
            std::exit(app.exit(error));
        }
        refuse(std::string(error.what()) + "\nRun with --help for more information.");
    }
    parse_posts(options);
}

// Blocks the signals that end simcam before any thread starts; main waits for them.
static sigset_t block_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return signals;
}

static int run(Camera &camera, const Options &options, const sigset_t &signals)
{
    if (!options.snapshot.empty()) {
        const auto interrupted = [&signals] {
            const timespec at_once = {};
            return sigtimedwait(&signals, nullptr, &at_once) > 0;
        };
        const std::string problem = snapshot_write(camera, options.snapshot, interrupted);
        if (!problem.empty())
            std::fprintf(stderr, "simcam: %s\n", problem.c_str());
        return problem.empty() ? 0 : 1;
    }

    std::string error;
    const HttpServerPtr http = http_start(camera, options.listen, &error);
    if (!http) {
        std::fprintf(stderr, "simcam: %s\n", error.c_str());
        return 2;
    }
    std::printf("simcam: %s\n", http_address(*http).c_str());
    std::fflush(stdout);
    const std::string warning = http_warning(*http);
    if (!warning.empty())
        std::fprintf(stderr, "simcam: %s\n", warning.c_str());
    const timespec interval = {TRIM_INTERVAL_S, 0};
    while (sigtimedwait(&signals, nullptr, &interval) < 0)
        (void)malloc_trim(0);
    return 0;
}

// Returns freed pictures to the system at once. By default every thread of the web server gets an
// arena of its own, and freed memory stays in it; run() returns the rest from time to time.
static void limit_memory()
{
    (void)mallopt(M_ARENA_MAX, 2);
    (void)mallopt(M_MMAP_THRESHOLD, 1 << 20);
    (void)mallopt(M_TRIM_THRESHOLD, 1 << 20);
}

int main(int argc, char **argv)
{
    limit_memory();
    Options options;
    parse(argc, argv, &options);
    const sigset_t signals = block_signals();

    std::string error;
    const CameraPtr camera = camera_start(options.camera, &error);
    if (!camera)
        refuse(error);
    return run(*camera, options, signals);
}
