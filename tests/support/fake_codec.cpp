#include "fake_codec.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "product_state.h"

static constexpr int32_t FAILED = 3;                 // any result but 0 means failure
static constexpr uint32_t NO_REASON = 0x7E57C0DE;    // errno after a call that worked
static constexpr uint32_t UNKNOWN_POST = 0x81E0FFFF; // reason of a status query for no known post
static constexpr uint32_t UNUSED_OUTPUT = 0xDEADBEEF;

static FakeCodec *active;

static FakeCodec &codec()
{
    if (!active) {
        fprintf(stderr, "a codec library call, and no FakeCodec to answer it\n");
        abort();
    }
    return *active;
}

static std::string list(std::initializer_list<int64_t> values)
{
    std::string text;
    for (const int64_t value : values)
        text += (text.empty() ? "" : ", ") + std::to_string(value);
    return text;
}

template <typename Record> static bool is_zero(const Record *record)
{
    const uint8_t *bytes = (const uint8_t *)record;
    return std::all_of(bytes, bytes + sizeof *record, [](uint8_t byte) { return byte == 0; });
}

static const char *note(bool zeroed)
{
    return zeroed ? "" : ", not zeroed";
}

FakeCodec::FakeCodec()
{
    if (active)
        throw std::logic_error("a second FakeCodec");
    reset_product_state();
    active = this;
}

FakeCodec::~FakeCodec()
{
    active = nullptr;
    reset_product_state();
}

// ---- faults ------------------------------------------------------------------------------------

void FakeCodec::fail(const std::string &name, uint32_t code)
{
    fail_nth(name, 1, code);
}

void FakeCodec::fail_nth(const std::string &name, int n, uint32_t code)
{
    faults.push_back({name, n, code});
}

void FakeCodec::fail_always(const std::string &name, uint32_t code)
{
    faults.push_back({name, 0, code});
}

void FakeCodec::fail_nth_call(int n, uint32_t code)
{
    faults.push_back({"", n, code});
}

void FakeCodec::heal()
{
    faults.clear();
}

int32_t FakeCodec::answer(const char *name, const std::string &arguments)
{
    const std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(std::string(name) + "(" + arguments + ")");

    errno = (int)NO_REASON;
    int32_t result = 0;
    for (Fault &fault : faults) {
        if (!fault.name.empty() && fault.name != name)
            continue;
        fault.seen++;
        if (fault.nth == 0 || fault.nth == fault.seen) {
            errno = (int)fault.code;
            result = FAILED;
        }
    }
    return result;
}

// ---- the camera's side -------------------------------------------------------------------------

FakePlane &FakeCodec::plane(uint32_t postResId, int32_t number)
{
    return planes[{postResId, number}];
}

void FakeCodec::set_status(uint32_t postResId, uint16_t width, uint16_t height)
{
    statuses[postResId] = {width, height};
}

void FakeCodec::start(uint32_t post, uint32_t postResId)
{
    callback({UNUSED_OUTPUT, postResId, post, 1});
}

void FakeCodec::stop(uint32_t post, uint32_t postResId)
{
    callback({UNUSED_OUTPUT, postResId, post, 0});
}

// ---- what happened -----------------------------------------------------------------------------

Calls FakeCodec::take_calls()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(calls, {});
}

std::vector<uint8_t> FakeCodec::color() const
{
    return color_memory ? color_memory->bytes() : std::vector<uint8_t>();
}

bool FakeCodec::surroundings_are_whole() const
{
    return !damage_seen && (!color_memory || color_memory->surroundings_are_whole()) &&
           std::all_of(planes.begin(), planes.end(), [](const auto &entry) {
               const FakePlane &plane = entry.second;
               return !plane.memory || plane.memory->surroundings_are_whole();
           });
}

// ---- the library's functions -------------------------------------------------------------------

int32_t FakeCodec::get_color_mem(OsdMem *mem)
{
    if (answer("qm7_cl_post_get_osd_color_mem", is_zero(mem) ? "" : "not zeroed") != 0)
        return FAILED;
    color_memory = std::make_unique<GuardedMemory>(color_size);
    mem->addr = no_color_memory ? nullptr : color_memory->data();
    mem->size = color_size;
    return 0;
}

void FakeCodec::apply_color()
{
    applied_color = color();
}

int32_t FakeCodec::get_status(uint32_t postResId, PostStatus *status)
{
    const std::string arguments = list({postResId}) + note(is_zero(status));
    if (answer("qm7_cl_post_thread_get_status", arguments) != 0)
        return FAILED;
    if (statuses.count(postResId) == 0) {
        errno = (int)UNKNOWN_POST;
        return FAILED;
    }
    memset((void *)status, GuardedMemory::JUNK, sizeof *status);
    status->width = statuses[postResId].first;
    status->height = statuses[postResId].second;
    return 0;
}

int32_t FakeCodec::open_osd(uint32_t postResId, const OsdOpenParam *param, uint32_t *extra_out,
                            uint32_t *pitch)
{
    const std::string record =
        "{" + list({param->number, param->width, param->height, param->depth_code}) + "}";
    FakePlane &opened = plane(postResId, (int32_t)param->number);
    if (answer("qm7_cl_post_open_osd", list({postResId}) + ", " + record) != 0) {
        *pitch = opened.failed_pitch.value_or(*pitch);
        return FAILED;
    }
    *extra_out = UNUSED_OUTPUT;
    *pitch = opened.pitch.value_or((param->width + 15u) / 16 * 16);
    opened.opened_pitch = *pitch;
    opened.opened_height = param->height;
    return 0;
}

int32_t FakeCodec::get_osd_mem(uint32_t postResId, int32_t number, uint32_t *osdId, OsdMem *mem)
{
    const std::string arguments = list({postResId, number}) + note(is_zero(mem) && *osdId == 0);
    if (answer("qm7_cl_post_get_osd_mem", arguments) != 0) {
        *osdId = failed_osd_id.value_or(*osdId);
        return FAILED;
    }
    FakePlane &drawn = plane(postResId, number);
    const uint32_t size = drawn.size.value_or(drawn.opened_pitch * drawn.opened_height);
    damage_seen = damage_seen || (drawn.memory && !drawn.memory->surroundings_are_whole());
    if (drawn.no_memory)
        drawn.memory.reset();
    else
        drawn.memory = std::make_unique<GuardedMemory>(size, drawn.guard);
    mem->addr = drawn.no_memory ? nullptr : drawn.memory->data();
    mem->size = size;
    *osdId = next_osd_id++;
    handed_out[*osdId] = {postResId, number};
    return 0;
}

int32_t FakeCodec::set_osd(uint32_t postResId, uint32_t osdId, OsdPosition position)
{
    const std::string record = "{" + list({position.x, position.y}) + "}";
    if (answer("qm7_cl_post_set_osd", list({postResId, osdId}) + ", " + record) != 0)
        return FAILED;
    const PlaneKey key = handed_out.at(osdId); // an id that was never handed out ends the test
    const FakePlane &drawn = planes.at(key);
    shown.push_back({postResId, key.second, osdId, position.x, position.y,
                     drawn.memory ? drawn.memory->bytes() : std::vector<uint8_t>()});
    return 0;
}

extern "C" {

int32_t qm7_cl_library_init(void)
{
    return codec().answer(__func__, "");
}

int32_t qm7_cl_library_exit(void)
{
    return codec().answer(__func__, "");
}

int32_t qm7_cl_sys_open_device(void)
{
    return codec().answer(__func__, "");
}

int32_t qm7_cl_sys_close_device(void)
{
    return codec().answer(__func__, "");
}

int32_t qm7_cl_post_notify_callback(PostNotifyCallback callback)
{
    const int32_t result = codec().answer(__func__, callback ? "callback" : "NULL");
    if (result == 0)
        codec().callback = callback;
    return result;
}

int32_t qm7_cl_post_set_notify(uint32_t mask)
{
    return codec().answer(__func__, list({mask}));
}

int32_t qm7_cl_post_get_osd_color_mem(OsdMem *mem)
{
    return codec().get_color_mem(mem);
}

int32_t qm7_cl_post_set_osd_color(void)
{
    codec().apply_color();
    return codec().answer(__func__, "");
}

int32_t qm7_cl_post_thread_get_status(uint32_t postResId, PostStatus *status)
{
    return codec().get_status(postResId, status);
}

int32_t qm7_cl_post_open_osd(uint32_t postResId, const OsdOpenParam *param, uint32_t *extra_out,
                             uint32_t *pitch)
{
    return codec().open_osd(postResId, param, extra_out, pitch);
}

int32_t qm7_cl_post_clear_osd(uint32_t postResId, uint32_t osd_number)
{
    return codec().answer(__func__, list({postResId, osd_number}));
}

int32_t qm7_cl_post_close_osd(uint32_t postResId, uint32_t osd_number)
{
    return codec().answer(__func__, list({postResId, osd_number}));
}

int32_t qm7_cl_post_get_osd_mem(uint32_t postResId, int32_t osd_number, uint32_t *osdId,
                                OsdMem *mem)
{
    return codec().get_osd_mem(postResId, osd_number, osdId, mem);
}

int32_t qm7_cl_post_set_osd(uint32_t postResId, uint32_t osdId, OsdPosition position)
{
    return codec().set_osd(postResId, osdId, position);
}

} // extern "C"
