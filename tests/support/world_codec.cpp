// The codec library of the world. It is strict: memory is full of junk and guarded, unused output
// parameters get a meaningless value, and calls that succeed set errno to a meaningless code.

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "osd/osd_session.h"
#include "world.h"

using namespace world;

static constexpr int32_t FAILED = 3;         // any result but 0 means failure
static constexpr int NO_REASON = 0x7E57C0DE; // errno after calls that worked
static constexpr uint32_t UNUSED_OUTPUT = 0xDEADBEEF;

static Event &begin_codec_call(Fn fn, std::initializer_list<int64_t> in = {})
{
    Event &event = begin(fn, in);
    if (script.begun)
        script.begun(event);
    return event;
}

// Ends a call and returns its result. Takes an index, as the event moves when the record grows.
static int32_t end_codec_call(size_t index)
{
    const Fn fn = record[index].fn;
    const bool failed = record[index].failed;
    record[index].error = failed ? script.code : NO_REASON;
    if (script.ended)
        script.ended(record[index]);
    if (script.during)
        script.during(fn);
    errno = failed ? script.code : NO_REASON;
    return failed ? FAILED : 0;
}

static int32_t codec_call(Fn fn, std::initializer_list<int64_t> in = {})
{
    (void)begin_codec_call(fn, in);
    return end_codec_call(record.size() - 1);
}

template <typename Record> static bool is_zero(const Record *bytes)
{
    const uint8_t *first = (const uint8_t *)bytes;
    return std::all_of(first, first + sizeof *bytes, [](uint8_t byte) { return byte == 0; });
}

extern "C" {

int32_t qm7_cl_library_init(void)
{
    return codec_call(LIBRARY_INIT);
}

int32_t qm7_cl_library_exit(void)
{
    return codec_call(LIBRARY_EXIT);
}

int32_t qm7_cl_sys_open_device(void)
{
    return codec_call(OPEN_DEVICE);
}

int32_t qm7_cl_sys_close_device(void)
{
    return codec_call(CLOSE_DEVICE);
}

int32_t qm7_cl_post_notify_callback(PostNotifyCallback callback)
{
    const int32_t result = codec_call(NOTIFY_CALLBACK, {callback == osd_post_notify});
    if (result == 0)
        world::callback = callback;
    return result;
}

int32_t qm7_cl_post_set_notify(uint32_t mask)
{
    return codec_call(SET_NOTIFY, {mask});
}

int32_t qm7_cl_post_get_osd_color_mem(OsdMem *mem)
{
    Event &event = begin_codec_call(GET_COLOR_MEM, {is_zero(mem)});
    if (!event.failed) {
        mem->size = script.color_size;
        script.color_memory.reset();
        if (!script.no_color_memory) {
            script.color_memory = std::make_shared<GuardedMemory>(script.color_size);
            mem->addr = script.color_memory->data();
            event.memory = script.color_memory;
        }
        event.out = {mem->size};
    }
    return end_codec_call(record.size() - 1);
}

int32_t qm7_cl_post_set_osd_color(void)
{
    Event &event = begin_codec_call(SET_COLOR);
    if (script.color_memory)
        event.bytes = script.color_memory->bytes();
    return end_codec_call(record.size() - 1);
}

int32_t qm7_cl_post_thread_get_status(uint32_t postResId, PostStatus *status)
{
    Event &event = begin_codec_call(GET_STATUS, {postResId, is_zero(status)});
    if (!event.failed) {
        memset((void *)status, 0xA5, sizeof *status);
        status->width = script.width[postResId % 4];
        status->height = script.height[postResId % 4];
        event.out = {status->width, status->height};
    }
    return end_codec_call(record.size() - 1);
}

int32_t qm7_cl_post_open_osd(uint32_t postResId, const OsdOpenParam *param, uint32_t *extra_out,
                             uint32_t *pitch)
{
    Plane &plane = script.planes[postResId % 4][param->number % 4];
    Event &event = begin_codec_call(OPEN_OSD, {postResId, param->number, param->width,
                                               param->height, param->depth_code, *extra_out});
    if (event.failed) {
        *pitch = plane.failed_pitch.value_or(*pitch);
    } else {
        *extra_out = UNUSED_OUTPUT;
        *pitch = plane.pitch.value_or((param->width + 15u) / 16 * 16);
        plane.opened_pitch = *pitch;
        plane.opened_height = param->height;
    }
    event.out = {*pitch};
    return end_codec_call(record.size() - 1);
}

int32_t qm7_cl_post_clear_osd(uint32_t postResId, uint32_t osd_number)
{
    return codec_call(CLEAR_OSD, {postResId, osd_number});
}

int32_t qm7_cl_post_close_osd(uint32_t postResId, uint32_t osd_number)
{
    return codec_call(CLOSE_OSD, {postResId, osd_number});
}

int32_t qm7_cl_post_get_osd_mem(uint32_t postResId, int32_t osd_number, uint32_t *osdId,
                                OsdMem *mem)
{
    Plane &plane = script.planes[postResId % 4][(uint32_t)osd_number % 4];
    Event &event = begin_codec_call(GET_OSD_MEM, {postResId, osd_number, *osdId, is_zero(mem)});
    if (event.failed) {
        *osdId = script.failed_osd_id;
    } else {
        *osdId = script.next_osd_id++;
        mem->size = plane.size.value_or(plane.opened_pitch * plane.opened_height);
        const bool reused = !script.records && plane.memory && plane.memory->size() == mem->size;
        if (plane.no_memory)
            plane.memory.reset();
        else if (!reused)
            plane.memory = std::make_shared<GuardedMemory>(mem->size, plane.guard);
        mem->addr = plane.memory ? plane.memory->data() : nullptr;
        event.memory = plane.memory;
        plane.osd_id = *osdId;
    }
    event.out = {*osdId, mem->size};
    return end_codec_call(record.size() - 1);
}

int32_t qm7_cl_post_set_osd(uint32_t postResId, uint32_t osdId, OsdPosition position)
{
    Event &event = begin_codec_call(SET_OSD, {postResId, osdId, position.x, position.y});
    event.out = {-1};
    Plane *const planes = script.planes[postResId % 4];
    for (int64_t number = 0; number < 4; number++) {
        if (planes[number].osd_id != osdId)
            continue;
        event.out = {number};
        if (script.records && planes[number].memory)
            event.bytes = planes[number].memory->bytes();
        planes[number].osd_id = 0; // each fetch is shown once
    }
    return end_codec_call(record.size() - 1);
}

} // extern "C"
