#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "app/focus_measure.h"
#include "capture.h"
#include "fake_files.h"
#include "product_state.h"

static_assert(std::is_same_v<decltype(FocusState::current), std::atomic<uint32_t>>);
static_assert(std::is_same_v<decltype(FocusState::peak), std::atomic<uint32_t>>);

using Bytes = std::vector<uint8_t>;

static constexpr unsigned long CONFIG = 0x405C7000;
static constexpr unsigned long READ = 0x80F47001;

// ---- the camera device -------------------------------------------------------------------------

// One answer to a read request: a raw value, or a failure that leaves the record as it is.
struct Reading {
    uint32_t raw;
    bool failed;
};

struct Request {
    unsigned long number;
    void *record;
    Bytes bytes; // of the record, as it was when the request was made
};

struct FakeCamera {
    std::deque<Reading> readings;
    std::vector<Request> requests;
    bool config_fails = false;
    jmp_buf leave; // target of the jump after the last reading
    bool can_leave = false;
    int exit_status = -1;
};

static FakeCamera *camera;
static constexpr int DEVICE = 77; // descriptor in tests that open no device

static constexpr int AT_AN_END = 1;
static constexpr int EXITED = 2;

extern "C" {

int __wrap_ioctl(int device, unsigned long number, ...);
void __wrap__exit(int status);

int __wrap_ioctl(int, unsigned long number, ...)
{
    va_list arguments;
    va_start(arguments, number);
    uint8_t *record = va_arg(arguments, uint8_t *);
    va_end(arguments);

    const size_t size = (number >> 16) & 0x3FFF;
    camera->requests.push_back({number, record, Bytes(record, record + size)});
    if (number != READ)
        return camera->config_fails ? -1 : 0;

    if (camera->readings.empty()) {
        camera->requests.pop_back();
        if (camera->can_leave)
            longjmp(camera->leave, AT_AN_END);
        ADD_FAILURE() << "a read request too many";
        return -1;
    }
    const Reading reading = camera->readings.front();
    camera->readings.pop_front();
    if (reading.failed) {
        errno = EIO;
        return -1;
    }
    memset(record, 0xEE, size); // byte 240 as well
    memcpy(record + 64, &reading.raw, sizeof reading.raw);
    return 0;
}

void __wrap__exit(int status)
{
    camera->exit_status = status;
    longjmp(camera->leave, EXITED);
}

} // extern "C"

static const uint8_t PEAK_HOLD_AT_START = peak_hold; // before any test resets it

class FocusMeasure : public testing::Test
{
  protected:
    FocusMeasure()
    {
        reset_product_state();
        camera = &fake;
    }

    ~FocusMeasure() override
    {
        camera = nullptr;
        reset_product_state();
    }

    // Runs one cycle with this raw value.
    void read(uint32_t raw)
    {
        fake.readings.push_back({raw, false});
        focus_measure_step(&state, DEVICE, &stats);
    }

    void fail_to_read()
    {
        fake.readings.push_back({0, true});
        focus_measure_step(&state, DEVICE, &stats);
    }

    void expect(uint32_t current, uint32_t peak) const
    {
        EXPECT_EQ(state.current.load(), current);
        EXPECT_EQ(state.peak.load(), peak);
    }

    FakeCamera fake;
    FocusState state = {};
    CamFocusStats stats = {};
};

// ---- configuration -----------------------------------------------------------------------------

TEST_F(FocusMeasure, ConfigurationHasTheseWords)
{
    focus_measure_configure(DEVICE);

    ASSERT_EQ(fake.requests.size(), 1u);
    EXPECT_EQ(fake.requests[0].number, CONFIG);
    Bytes expected(92, 0);
    const Bytes head = {0xFF, 0x04, 0x80, 0x02, 0xCF, 0x02, 0x68, 0x01};
    const Bytes limits = {0xFF, 0xFF, 0x3F, 0x00, 0x00, 0x00, 0x00, 0x00, 0xFF, 0x3F,
                          0xFF, 0x3F, 0xFF, 0x3F, 0xFF, 0x3F, 0xFF, 0x3F, 0x00, 0x00};
    std::copy(head.begin(), head.end(), expected.begin());
    std::copy(limits.begin(), limits.end(), expected.begin() + 56);
    EXPECT_EQ(fake.requests[0].bytes, expected);
}

// ---- one cycle ---------------------------------------------------------------------------------

TEST_F(FocusMeasure, CycleIsOneReadRequestOfTheGivenRecord)
{
    read(5000);

    ASSERT_EQ(fake.requests.size(), 1u);
    EXPECT_EQ(fake.requests[0].number, READ);
    EXPECT_EQ(fake.requests[0].record, &stats);
}

TEST_F(FocusMeasure, Byte240IsZeroAtEachRequestAndTheOtherBytesStay)
{
    memset((void *)&stats, 0x33, sizeof stats);
    read(5000); // fills the record with 0xEE
    read(5000);

    Bytes first(244, 0x33);
    first[240] = 0;
    EXPECT_EQ(fake.requests[0].bytes, first);
    Bytes second(244, 0xEE);
    second[64] = 5000 & 0xFF;
    second[65] = 5000 >> 8;
    second[66] = second[67] = 0;
    second[240] = 0;
    EXPECT_EQ(fake.requests[1].bytes, second);
}

TEST_F(FocusMeasure, ValueIsTheRawValueDividedBy100RoundedDown)
{
    const std::pair<uint32_t, uint32_t> values[] = {{0, 0},
                                                    {99, 0},
                                                    {100, 1},
                                                    {199, 1},
                                                    {5099, 50},
                                                    {0x80000000, 21474836},
                                                    {0xFFFFFFFF, 42949672}};
    for (const auto &[raw, value] : values) {
        read(raw);
        EXPECT_EQ(state.current.load(), value) << raw;
    }
}

TEST_F(FocusMeasure, ProcessStartsWithThePeakOnHold)
{
    EXPECT_EQ(PEAK_HOLD_AT_START, 1);
}

TEST_F(FocusMeasure, JumpSetsThePeakInTheSameCycle)
{
    read(5000);
    read(5300);
    read(5600);
    read(6200);
    expect(62, 62);
    EXPECT_EQ(peak_hold, 0);
}

TEST_F(FocusMeasure, PeakOnlyRises)
{
    read(5600);
    read(6200);
    read(4000);
    expect(40, 62);
    read(6200);
    expect(62, 62);
    read(6300);
    expect(63, 63);
    read(6299);
    expect(62, 63);
}

// ---- the loop ----------------------------------------------------------------------------------

// Runs the loop until the last reading or _exit.
static int run(FakeCamera *fake, FocusState *state)
{
    fake->can_leave = true;
    const int how = setjmp(fake->leave);
    if (how == 0)
        focus_measure_run(state);
    return how;
}

TEST_F(FocusMeasure, LoopOpensAndConfiguresOnceAndReadsForever)
{
    FakeFiles files;
    files.put("/dev/cam", {});
    fake.config_fails = true;
    fake.readings = {{5000, false}, {0, true}, {6000, false}, {5900, false}};
    int how = 0;

    const Captured captured = capture([&] { how = run(&fake, &state); });

    EXPECT_EQ(how, AT_AN_END);
    EXPECT_EQ(files.calls,
              std::vector<std::string>({"open(/dev/cam, 2)"})); // 2 is O_RDWR; it is never closed
    ASSERT_EQ(fake.requests.size(), 5u);
    EXPECT_EQ(fake.requests[0].number, CONFIG);
    for (size_t i = 1; i < 5; i++) {
        EXPECT_EQ(fake.requests[i].number, READ);
        EXPECT_EQ(fake.requests[i].record, fake.requests[1].record);
        EXPECT_EQ(fake.requests[i].bytes[240], 0);
    }
    expect(59, 60);
    EXPECT_EQ(captured.out + captured.err, "");
}

TEST_F(FocusMeasure, DescriptorZeroIsValid)
{
    const int standard_input = dup(0);
    close(0);
    {
        FakeFiles files;
        files.put("/dev/cam", {}); // gets the lowest free descriptor, 0
        fake.readings = {{5000, false}};

        EXPECT_EQ(run(&fake, &state), AT_AN_END);
    }
    if (standard_input >= 0) {
        EXPECT_EQ(dup2(standard_input, 0), 0);
        close(standard_input);
    }
    expect(50, 0);
}

TEST_F(FocusMeasure, RecordBeginsAsZeros)
{
    FakeFiles files;
    files.put("/dev/cam", {});
    fake.readings = {{0, true}};

    EXPECT_EQ(run(&fake, &state), AT_AN_END);

    EXPECT_EQ(fake.requests[1].bytes, Bytes(244, 0));
    expect(0, 0);
}
