// Makes every outside call of main and of the measurement loop fail: the first, the second, ...,
// once or forever. The expected values are computed here from the rule that a failed request
// repeats the record's last content.

#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <pthread.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/focus_measure.h"
#include "app/focus_state.h"
#include "capture.h"
#include "product_state.h"

int focus_assist_main(int argc, char **argv);

namespace
{

enum Fn { PID, THREAD, OPEN, CONFIG, READ, FN_COUNT };

// Raw readings. The hold ends with the fifth unless a request fails.
const std::vector<uint32_t> RAW = {5000, 5300, 5600, 5999, 6400,      4000,
                                   0,    800,  6500, 6599, 4294967295};

struct Value {
    uint32_t current;
    uint32_t peak;
    bool operator==(const Value &) const = default;
};

Fn failing_fn;
uint64_t failing_call;
bool for_ever;
bool met;
uint64_t calls[FN_COUNT];
int exit_status; // of _exit, -1: not called
const FocusState *state;
std::vector<Value> seen; // before each read request: the result of the request before
std::jmp_buf loop_left;

bool fails(Fn fn)
{
    calls[fn]++;
    const bool failing =
        fn == failing_fn && (calls[fn] == failing_call || (for_ever && calls[fn] > failing_call));
    met = met || failing;
    return failing;
}

// The values that follow from the readings.
std::vector<Value> expected_values()
{
    std::vector<Value> values;
    uint32_t raw = 0;
    Value value = {0, 0};
    bool hold = true;
    for (size_t i = 0; i < RAW.size(); i++) {
        values.push_back(value);
        const bool failed =
            failing_fn == READ && (i + 1 == failing_call || (for_ever && i + 1 > failing_call));
        if (!failed)
            raw = RAW[i];
        const uint32_t reading = raw / 100;
        const int64_t change = (int64_t)value.current - (int64_t)reading;
        if (value.current != 0 && (change > 4 || change < -4))
            hold = false;
        value.current = reading;
        if (!hold && reading > value.peak)
            value.peak = reading;
    }
    values.push_back(value);
    return values;
}

struct Ran {
    int result; // of main; 1000: after the last reading, 2000: after _exit
    Captured streams;
};

Ran run_main(Fn fn, uint64_t n, bool ever)
{
    reset_product_state();
    failing_fn = fn;
    failing_call = n;
    for_ever = ever;
    met = false;
    std::fill(std::begin(calls), std::end(calls), 0);
    exit_status = -1;
    seen.clear();

    static Ran run;
    run.streams = capture([] {
        char name[] = "focus_assist";
        char *arguments[] = {name, nullptr};
        const int left = setjmp(loop_left);
        run.result = left != 0 ? left : focus_assist_main(1, arguments);
    });
    return run;
}

uint64_t sweep(Fn fn, void (*check)(const Ran &))
{
    uint64_t points = 0;
    for (const bool ever : {false, true}) {
        for (uint64_t n = 1;; n++) {
            const Ran run = run_main(fn, n, ever);
            if (!met)
                break;
            points++;
            SCOPED_TRACE("call " + std::to_string(n) + (ever ? " and all later" : ""));
            check(run);
        }
    }
    return points;
}

void measures(const Ran &run)
{
    EXPECT_EQ(run.result, 1000);
    EXPECT_EQ(run.streams.out, "");
    EXPECT_EQ(run.streams.err, "");
    EXPECT_TRUE(seen == expected_values());
}

TEST(MainSweep, FailedPidFileIsIgnored)
{
    EXPECT_EQ(sweep(PID, measures), 2u);
}

TEST(MainSweep, WithoutDisplayThreadNothingIsMeasured)
{
    EXPECT_EQ(sweep(THREAD,
                    [](const Ran &run) {
                        EXPECT_EQ(run.result, -1);
                        EXPECT_EQ(run.streams.out, "");
                        EXPECT_EQ(run.streams.err, "OSD Process Thread returns: 11\n");
                        EXPECT_EQ(calls[PID], 1u);
                        EXPECT_EQ(calls[OPEN], 0u);
                    }),
              2u);
}

TEST(MainSweep, WithoutDeviceTheProcessEndsSilently)
{
    EXPECT_EQ(sweep(OPEN,
                    [](const Ran &run) {
                        EXPECT_EQ(run.result, 2000);
                        EXPECT_EQ(exit_status, 1);
                        EXPECT_EQ(run.streams.out, "");
                        EXPECT_EQ(run.streams.err, "");
                        EXPECT_EQ(calls[THREAD], 1u);
                        EXPECT_EQ(calls[CONFIG], 0u);
                    }),
              2u);
}

TEST(MainSweep, ConfigurationIsSentOnceEvenIfItFails)
{
    EXPECT_EQ(sweep(CONFIG,
                    [](const Ran &run) {
                        measures(run);
                        EXPECT_EQ(calls[CONFIG], 1u);
                    }),
              2u);
}

TEST(MainSweep, FailedReadingRepeatsTheLastValue)
{
    EXPECT_EQ(sweep(READ, measures), 2 * RAW.size());
}

} // namespace

extern "C" {

int32_t cgi_set_pid(const char *path);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                          void *(*start)(void *), void *argument);
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...);
int __wrap_ioctl(int file, unsigned long request, ...);
void __wrap__exit(int status);

int32_t cgi_set_pid(const char *path)
{
    EXPECT_STREQ(path, "/var/run/focus_assist.pid");
    return fails(PID) ? -1 : 0;
}

// Reports a display thread as created without running it.
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*)(void *),
                          void *argument)
{
    EXPECT_EQ(attributes, nullptr);
    state = (const FocusState *)argument;
    *thread = pthread_self();
    return fails(THREAD) ? EAGAIN : 0;
}

int __wrap_open(const char *path, int flags, ...)
{
    if (strcmp(path, "/dev/cam") != 0) {
        va_list arguments;
        va_start(arguments, flags);
        const mode_t mode = va_arg(arguments, mode_t);
        va_end(arguments);
        return __real_open(path, flags, mode);
    }
    errno = EBUSY;
    return fails(OPEN) ? -1 : 12345;
}

int __wrap_ioctl(int file, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *const record = va_arg(arguments, void *);
    va_end(arguments);

    EXPECT_EQ(file, 12345);
    errno = EIO;
    if ((uint32_t)request == CAM_FOCUS_CONFIG)
        return fails(CONFIG) ? -1 : 0;

    EXPECT_EQ((uint32_t)request, CAM_FOCUS_READ);
    seen.push_back({state->current, state->peak});
    if (seen.size() > RAW.size())
        std::longjmp(loop_left, 1000);
    if (fails(READ))
        return -1;
    memcpy((uint8_t *)record + 64, &RAW[seen.size() - 1], sizeof RAW[0]);
    return 0;
}

void __wrap__exit(int status)
{
    exit_status = status;
    std::longjmp(loop_left, 2000);
}

} // extern "C"
