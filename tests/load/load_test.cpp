// A year of passes, thousands of starts, and the measurement loop at full speed, while posts start
// and stop at random and calls fail at random. Resident memory, open descriptors and allocated
// blocks must not grow.
//
//     load_test [--long]     half a minute, or a year's number of passes
//     load_test --process    used by the test itself: the program until it is killed

#include <atomic>
#include <chrono>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "allocations.h"
#include "app/display_loop.h"
#include "app/focus_measure.h"
#include "app/focus_state.h"
#include "camera.h"
#include "font/font_engine.h"
#include "osd/osd_session.h"

int focus_assist_main(int argc, char **argv);

using Clock = std::chrono::steady_clock;

namespace
{

constexpr uint64_t YEAR_OF_PASSES = 63072000; // two a second
constexpr uint64_t STARTS = 10000;
constexpr uint64_t PROCESSES = 500;
constexpr uint64_t RESIDENT_SLACK = 1u << 20; // bytes; pages touched for the first time

#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__
constexpr bool FREED_IS_FREE = false; // a sanitizer keeps freed memory for a while
#else
constexpr bool FREED_IS_FREE = true;
#endif

struct Usage {
    uint64_t resident; // bytes
    uint64_t files;
    int64_t heap; // blocks allocated and not freed
};

Usage usage()
{
    Usage now = {};
    now.heap = allocations().blocks;
    std::ifstream statm("/proc/self/statm");
    uint64_t pages = 0;
    statm >> pages >> now.resident;
    now.resident *= (uint64_t)sysconf(_SC_PAGESIZE);
    statm.close();
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        now.files += entry.path().empty() ? 0u : 1u;
    return now;
}

int failures;
FILE *report; // standard error of the test; the program's is discarded

void compare(const char *what, uint64_t done, const Usage &before, const Usage &after)
{
    const bool flat = after.files == before.files && after.heap == before.heap &&
                      (!FREED_IS_FREE || after.resident <= before.resident + RESIDENT_SLACK);
    fprintf(report,
            "%-22s %9llu: resident %+lld bytes, descriptors %+lld, allocated %+lld blocks%s\n",
            what, (unsigned long long)done, (long long)(after.resident - before.resident),
            (long long)(after.files - before.files), (long long)(after.heap - before.heap),
            flat ? "" : "  NOT FLAT");
    failures += flat ? 0 : 1;
}

// Limits a run by steps in the long form, by time in the short form.
class Limit
{
  public:
    Limit(bool is_long, uint64_t steps, int seconds)
        : limit(is_long ? steps : UINT64_MAX), end(Clock::now() + std::chrono::seconds(seconds)),
          timed(!is_long)
    {
    }

    bool reached(uint64_t done) const
    {
        return done >= limit || (timed && Clock::now() >= end);
    }

  private:
    uint64_t limit;
    Clock::time_point end;
    bool timed;
};

// A thread that reports at random times, as the library does.
class Reporter
{
  public:
    explicit Reporter(uint32_t pause_us)
        : thread([this, pause_us] {
              Random random = {pause_us};
              while (!ended) {
                  camera_report(&random);
                  std::this_thread::sleep_for(std::chrono::microseconds(random.below(pause_us)));
              }
          })
    {
    }
    ~Reporter()
    {
        ended = true;
        thread.join();
    }
    Reporter(const Reporter &) = delete;
    Reporter &operator=(const Reporter &) = delete;

  private:
    std::atomic<bool> ended = false;
    std::thread thread;
};

// ---- a year of passes --------------------------------------------------------------------------

// Called instead of the sleep between passes; unset: a short sleep.
std::function<void()> between_passes;
std::jmp_buf thread_left;

void run_passes(bool is_long)
{
    const Limit limit(is_long, YEAR_OF_PASSES, 12);
    static FocusState state;
    CamFocusStats stats = {};
    Random random = {7};
    const Reporter reporter(2000);

    uint64_t done = 0;
    Usage before = {};
    uint64_t shown = 0;
    constexpr uint64_t FIRST = 2000; // so that every path has run and every buffer exists
    between_passes = [&] {
        done++;
        if (done == FIRST) {
            before = usage();
            shown = camera_shown;
        }
        if (done > FIRST && limit.reached(done - FIRST))
            std::longjmp(thread_left, 1);
        if (is_long && done % 1000000 == 0)
            compare("passes", done - FIRST, before, usage());
        if (random.below(3) == 0)
            camera_report(&random);
        focus_measure_step(&state, 10000, &stats);
    };
    if (setjmp(thread_left) == 0)
        osd_Focus_Assist_run(&state);
    compare("passes", done - FIRST, before, usage());
    between_passes = nullptr;
    fprintf(report, "%-22s %9llu\n", "planes shown", (unsigned long long)(camera_shown - shown));
    failures += camera_shown > shown ? 0 : 1;

    osd_close_codec_lib();
    for (FontEngine &engine : font_engines)
        (void)font_clear_engine(&engine);
}

// ---- starts ------------------------------------------------------------------------------------

void run_starts(bool is_long)
{
    const Limit limit(is_long, STARTS, 5);
    static FocusState state;
    auto display = std::make_unique<DisplayState>();
    const Reporter reporter(200);

    uint64_t done = 0;
    const auto start = [&] {
        display_start(display.get());
        for (int pass = 0; pass < 3; pass++)
            display_pass(&state, display.get());
        osd_close_codec_lib();
        for (FontEngine &engine : font_engines)
            (void)font_clear_engine(&engine);
        done++;
    };
    while (done < 20)
        start();
    const Usage before = usage();
    const uint64_t begun = done;
    while (!limit.reached(done - begun))
        start();
    compare("starts", done - begun, before, usage());
}

// Kills the whole program at random times; nothing but the signal may end it.
void run_processes(bool is_long, const char *self)
{
    const Limit limit(is_long, PROCESSES, 5);
    Random random = {99};
    uint64_t done = 0;
    const Usage before = usage();
    for (; !limit.reached(done); done++) {
        const pid_t child = fork();
        if (child == 0) {
            execl(self, self, "--process", (char *)nullptr);
            _exit(127);
        }
        usleep(random.below(60000));
        (void)kill(child, SIGKILL);
        int status = 0;
        if (waitpid(child, &status, 0) != child || !WIFSIGNALED(status) ||
            WTERMSIG(status) != SIGKILL) {
            fprintf(report, "process %llu ended by itself, status %#x\n", (unsigned long long)done,
                    (unsigned)status);
            failures++;
        }
    }
    compare("process starts", done, before, usage());
}

// ---- measurement loop --------------------------------------------------------------------------

std::jmp_buf loop_left;

// Takes a number of readings while the display thread and the library's thread run.
void measure(FocusState *state, DisplayState *display, uint64_t readings)
{
    const Reporter reporter(1000);
    std::atomic<bool> ended = false;
    std::thread display_thread([&] {
        while (!ended)
            display_pass(state, display);
    });
    camera_last_reading = camera_readings + readings;
    camera_after_last = [] { std::longjmp(loop_left, 1); };
    if (setjmp(loop_left) == 0)
        focus_measure_run(state);
    camera_last_reading = 0;
    ended = true;
    display_thread.join();
}

void run_measurement(bool is_long)
{
    static FocusState state;
    auto display = std::make_unique<DisplayState>();
    display_start(display.get());
    measure(&state, display.get(), 5000000); // so that every buffer exists

    const Usage before = usage();
    const uint64_t begun = camera_readings;
    measure(&state, display.get(), is_long ? 2000000000 : 20000000);
    compare("measurements", camera_readings - begun, before, usage());
    if (state.peak != CAMERA_HIGHEST) {
        fprintf(report, "the peak is %u\n", (unsigned)state.peak);
        failures++;
    }
    for (FontEngine &engine : font_engines)
        (void)font_clear_engine(&engine);
}

int run_as_process()
{
    static Reporter reporter(3000);
    char name[] = "focus_assist";
    char *arguments[] = {name, nullptr};
    return focus_assist_main(1, arguments);
}

} // namespace

// Shortens the half second between passes.
extern "C" int __wrap_usleep(useconds_t microseconds);
extern "C" int __real_usleep(useconds_t microseconds);
extern "C" int __wrap_usleep(useconds_t microseconds)
{
    if (microseconds != DISPLAY_PERIOD_US)
        return __real_usleep(microseconds);
    if (!between_passes)
        return __real_usleep(100);
    between_passes();
    return 0;
}

extern "C" int32_t cgi_set_pid(const char *path);
extern "C" int32_t cgi_set_pid(const char *)
{
    return -1;
}

int main(int argc, char **argv)
{
    const std::string option = argc > 1 ? argv[1] : "";
    if (!freopen("/dev/null", "w", stdout))
        return 1;
    printf(" "); // allocates the stream's buffer
    camera_prepare();
    if (option == "--process") {
        if (!freopen("/dev/null", "w", stderr))
            return 1;
        return run_as_process();
    }

    report = fdopen(dup(STDERR_FILENO), "w");
    if (!report || !freopen("/dev/null", "w", stderr))
        return 1;
    setvbuf(report, nullptr, _IOLBF, 0);

    const bool is_long = option == "--long";
    run_processes(is_long, "/proc/self/exe");
    run_starts(is_long);
    run_measurement(is_long);
    run_passes(is_long);
    fprintf(report, "%s\n", failures == 0 ? "flat" : "not flat");
    return failures == 0 ? 0 : 1;
}
