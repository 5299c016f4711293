// The program's main under the name focus_assist_main. Thread creation, the opening of the device,
// sleep and exit are replaced.

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <pthread.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "app/focus_state.h"
#include "capture.h"
#include "fake_codec.h"
#include "fake_files.h"
#include "osd/osd_session.h"

int focus_assist_main(int argc, char **argv);

static const char PID_CALL[] = "cgi_set_pid(/var/run/focus_assist.pid)";

// What the replaced functions return and what they record.
struct Process {
    std::vector<std::string> calls;
    int pid_result = 0;
    int thread_error = 0;
    bool measurement_returns = false;

    const pthread_attr_t *attributes = nullptr;
    void *(*entry)(void *) = nullptr;
    FocusState *state = nullptr;
    uint32_t current_at_start = 0xDEAD;
    uint32_t peak_at_start = 0xDEAD;

    jmp_buf leave;
    int exit_status = -1;
    int sleeps_left = 0;
};

static Process *process;

static constexpr int EXITED = 1;
static constexpr int SLEPT = 2;

extern "C" {

int32_t cgi_set_pid(const char *path);
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                          void *(*entry)(void *), void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                          void *(*entry)(void *), void *argument);
void __wrap__exit(int status);
int __wrap_usleep(useconds_t microseconds);

// The linker's name of focus_measure_run. The build fails if it is not called.
void __real__Z17focus_measure_runP10FocusState(FocusState *state);
void __wrap__Z17focus_measure_runP10FocusState(FocusState *state);

void __wrap__Z17focus_measure_runP10FocusState(FocusState *state)
{
    EXPECT_EQ(state, process->state);
    if (!process->measurement_returns)
        __real__Z17focus_measure_runP10FocusState(state);
}

int32_t cgi_set_pid(const char *path)
{
    process->calls.push_back(std::string("cgi_set_pid(") + path + ")");
    return process->pid_result;
}

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                          void *(*entry)(void *), void *argument)
{
    process->calls.push_back("pthread_create");
    process->attributes = attributes;
    process->entry = entry;
    process->state = (FocusState *)argument;
    process->current_at_start = process->state->current;
    process->peak_at_start = process->state->peak;
    EXPECT_EQ(thread, &process->state->display_thread);
    EXPECT_EQ(*thread, pthread_t());
    if (process->thread_error == 0)
        *thread = pthread_self();
    return process->thread_error;
}

void __wrap__exit(int status)
{
    process->exit_status = status;
    longjmp(process->leave, EXITED);
}

int __wrap_usleep(useconds_t microseconds)
{
    process->calls.push_back("usleep(" + std::to_string(microseconds) + ")");
    if (--process->sleeps_left <= 0)
        longjmp(process->leave, SLEPT);
    return 0;
}

} // extern "C"

class Main : public testing::Test
{
  protected:
    Main()
    {
        process = &state;
        files.fail_open("/dev/cam", ENODEV); // ends main's endless loop
    }

    ~Main() override
    {
        process = nullptr;
    }

    // Runs main until it returns or calls _exit. Returns main's result, or 1000 after _exit.
    int run(std::vector<std::string> arguments = {"focus_assist"})
    {
        const int count = (int)arguments.size();
        std::vector<char *> pointers;
        for (std::string &argument : arguments)
            pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        if (setjmp(state.leave) != 0)
            return 1000;
        return focus_assist_main(count, pointers.data());
    }

    Process state;
    FakeFiles files;
};

TEST_F(Main, RegistersThePidThenCreatesTheThreadThenMeasures)
{
    EXPECT_EQ(run(), 1000);

    EXPECT_EQ(state.calls, std::vector<std::string>({PID_CALL, "pthread_create"}));
    EXPECT_EQ(files.calls, std::vector<std::string>({"open(/dev/cam, 2)"}));
    EXPECT_EQ(state.attributes, nullptr);
    EXPECT_EQ(state.exit_status, 1);
}

TEST_F(Main, FocusStateIsClearedBeforeTheThreadStarts)
{
    EXPECT_EQ(run(), 1000);
    state.state->current = 120; // of an earlier run
    state.state->peak = 100;

    EXPECT_EQ(run(), 1000); // __wrap_pthread_create checks that the handle is cleared too

    EXPECT_EQ(state.current_at_start, 0u);
    EXPECT_EQ(state.peak_at_start, 0u);
}

TEST_F(Main, ReturnsZeroIfTheMeasurementReturns)
{
    state.measurement_returns = true;

    EXPECT_EQ(run(), 0);
}

TEST_F(Main, ArgumentsAreIgnored)
{
    const Captured captured = capture([&] {
        EXPECT_EQ(run({"focus_assist", "--help", "-x", "/dev/other", ""}), 1000);
        EXPECT_EQ(run({}), 1000);
    });

    EXPECT_EQ(captured.out + captured.err, "");
    EXPECT_EQ(state.exit_status, 1);
    EXPECT_EQ(state.calls,
              std::vector<std::string>({PID_CALL, "pthread_create", PID_CALL, "pthread_create"}));
}

TEST_F(Main, FontSettingsOfTheEnvironmentAreRemoved)
{
    setenv("FREETYPE_PROPERTIES", "truetype:interpreter-version=35", 1);

    EXPECT_EQ(run(), 1000);

    EXPECT_EQ(getenv("FREETYPE_PROPERTIES"), nullptr);
}

TEST_F(Main, ThreadRunsTheDisplayLoopWithTheFocusState)
{
    FakeCodec codec;
    codec.fail("qm7_cl_library_init", 0x81E00001);
    EXPECT_EQ(run(), 1000);
    state.calls.clear();
    state.sleeps_left = 3;

    const Captured captured = capture([&] {
        if (setjmp(state.leave) == 0)
            state.entry(state.state);
    });

    EXPECT_EQ(codec.calls, Calls({"qm7_cl_library_init()"})); // idle passes call nothing
    EXPECT_EQ(state.calls,
              std::vector<std::string>({"usleep(500000)", "usleep(500000)", "usleep(500000)"}));
    EXPECT_EQ(captured.out, "");
    EXPECT_EQ(captured.err.substr(0, captured.err.find('\n') + 1),
              "ERR:#qm7osd:[(null)]=qm7_cl_library_init() failed. "
              "errno=0x81E00001(OSD_Library_Process)\n");
}

TEST_F(Main, DisplayThreadMakesAPassBeforeItSleeps)
{
    FakeCodec codec;
    EXPECT_EQ(run(), 1000);
    osd_post_notify({0, 7, 0, 1});
    codec.calls.clear();
    state.sleeps_left = 1;

    capture([&] {
        if (setjmp(state.leave) == 0)
            state.entry(state.state);
    });

    // Only a pass asks for the size of an output.
    EXPECT_EQ(
        std::count(codec.calls.begin(), codec.calls.end(), "qm7_cl_post_thread_get_status(7)"), 1);
}
