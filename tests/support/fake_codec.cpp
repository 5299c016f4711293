#include "fake_codec.h"

#include <algorithm>
#include <utility>

using namespace world;

static constexpr uint32_t UNUSED = 0xDEADBEEF;

static std::string list(const int64_t *first, size_t count)
{
    std::string text;
    for (size_t i = 0; i < count; i++)
        text += (i == 0 ? "" : ", ") + std::to_string(first[i]);
    return text;
}

// The arguments as a test writes them; a record that the program should have zeroed and has not is
// named.
static std::string arguments_of(const Event &event)
{
    const int64_t *const in = event.in.data();
    const auto note = [](bool zeroed) { return zeroed ? "" : ", not zeroed"; };
    switch (event.fn) {
    case NOTIFY_CALLBACK:
        return in[0] ? "osd_post_notify" : "another callback";
    case SET_NOTIFY:
        return list(in, 1);
    case GET_COLOR_MEM:
        return in[0] ? "" : "not zeroed";
    case GET_STATUS:
        return list(in, 1) + note(in[1]);
    case OPEN_OSD:
        return list(in, 1) + ", {" + list(in + 1, 4) + "}";
    case CLEAR_OSD:
    case CLOSE_OSD:
        return list(in, 2);
    case GET_OSD_MEM:
        return list(in, 2) + note(in[2] == 0 && in[3]);
    case SET_OSD:
        return list(in, 2) + ", {" + list(in + 2, 2) + "}";
    default:
        return "";
    }
}

FakeCodec::FakeCodec()
{
    reset();
    script.fails = [this](Fn fn, uint64_t) { return fn <= SET_OSD && fails(name_of(fn)); };
    script.begun = [this](const Event &event) {
        calls.push_back(std::string(name_of(event.fn)) + "(" + arguments_of(event) + ")");
    };
    script.ended = [this](const Event &event) { note(event); };
}

FakeCodec::~FakeCodec()
{
    reset();
}

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
    fail_nth(name, 0, code);
}

bool FakeCodec::fails(const char *name)
{
    bool failed = false;
    for (Fault &fault : faults) {
        if (fault.name != name)
            continue;
        fault.seen++;
        if (fault.nth == 0 || fault.nth == fault.seen) {
            script.code = (int)fault.code;
            failed = true;
        }
    }
    return failed;
}

void FakeCodec::note(const Event &event)
{
    if (event.memory)
        memories.push_back(event.memory);
    if (event.fn == SET_COLOR)
        applied_color = event.bytes;
    if (event.fn == SET_OSD && !event.failed)
        shown.push_back({(uint32_t)event.in[0], (int32_t)event.out[0], (uint32_t)event.in[1],
                         (uint32_t)event.in[2], (uint32_t)event.in[3], event.bytes});
}

Plane &FakeCodec::plane(uint32_t postResId, int32_t number)
{
    return script.planes[postResId % 4][(uint32_t)number % 4];
}

void FakeCodec::set_status(uint32_t postResId, uint16_t width, uint16_t height)
{
    script.width[postResId % 4] = width;
    script.height[postResId % 4] = height;
}

void FakeCodec::start(uint32_t post, uint32_t postResId)
{
    callback.load()({UNUSED, postResId, post, 1});
}

void FakeCodec::stop(uint32_t post, uint32_t postResId)
{
    callback.load()({UNUSED, postResId, post, 0});
}

Calls FakeCodec::take_calls()
{
    return std::exchange(calls, {});
}

std::vector<uint8_t> FakeCodec::color()
{
    return script.color_memory ? script.color_memory->bytes() : std::vector<uint8_t>();
}

bool FakeCodec::surroundings_are_whole() const
{
    return std::all_of(memories.begin(), memories.end(),
                       [](const auto &memory) { return memory->surroundings_are_whole(); });
}
