// The display thread and the measurement loop without a camera, for counting what they cost:
//
//   measure_target pass CURRENT PEAK WIDTHxHEIGHT...   one pass over posts of these sizes between
//                                                      the marks measure_begin and measure_end
//   measure_target memory                              heap, allocations and stack, as text
//
// The codec library is a few lines here that hand out static memory. Linked statically, so that
// every instruction belongs to a name.

#include <malloc.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include "app/display_loop.h"
#include "app/focus_measure.h"
#include "osd/osd_session.h"
#include "osd/qm7_codec.h"

// ---- a codec library that does nothing

static uint16_t post_width[POST_COUNT], post_height[POST_COUNT];
static uint32_t plane_size[POST_COUNT][OSD_PLANE_COUNT];
static uint8_t plane_memory[POST_COUNT][OSD_PLANE_COUNT][1024 * 256];
static uint8_t colour_memory[1024];

extern "C" {

int32_t qm7_cl_library_init(void)
{
    return 0;
}
int32_t qm7_cl_library_exit(void)
{
    return 0;
}
int32_t qm7_cl_sys_open_device(void)
{
    return 0;
}
int32_t qm7_cl_sys_close_device(void)
{
    return 0;
}
int32_t qm7_cl_post_notify_callback(PostNotifyCallback)
{
    return 0;
}
int32_t qm7_cl_post_set_notify(uint32_t)
{
    return 0;
}
int32_t qm7_cl_post_get_osd_color_mem(OsdMem *mem)
{
    *mem = {colour_memory, sizeof colour_memory};
    return 0;
}
int32_t qm7_cl_post_set_osd_color(void)
{
    return 0;
}
int32_t qm7_cl_post_thread_get_status(uint32_t postResId, PostStatus *status)
{
    status->width = post_width[postResId];
    status->height = post_height[postResId];
    return 0;
}
int32_t qm7_cl_post_open_osd(uint32_t postResId, const OsdOpenParam *param, uint32_t *,
                             uint32_t *pitch)
{
    *pitch = (param->width + 15u) & ~15u; // lines as most display hardware wants them
    plane_size[postResId][param->number] = *pitch * param->height;
    return 0;
}
int32_t qm7_cl_post_clear_osd(uint32_t, uint32_t)
{
    return 0;
}
int32_t qm7_cl_post_close_osd(uint32_t, uint32_t)
{
    return 0;
}
int32_t qm7_cl_post_get_osd_mem(uint32_t postResId, int32_t osd_number, uint32_t *osdId,
                                OsdMem *mem)
{
    *osdId = 1;
    *mem = {plane_memory[postResId][osd_number], plane_size[postResId][osd_number]};
    return 0;
}
int32_t qm7_cl_post_set_osd(uint32_t, uint32_t, OsdPosition)
{
    return 0;
}

// ---- counting of allocations

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *memory, size_t size);
static unsigned allocations;

void *__wrap_malloc(size_t size)
{
    allocations++;
    return __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size)
{
    allocations++;
    return __real_calloc(count, size);
}
void *__wrap_realloc(void *memory, size_t size)
{
    allocations++;
    return __real_realloc(memory, size);
}

// ---- marks in the emulator's log

__attribute__((noinline)) void measure_begin(void)
{
    __asm__ volatile("nop");
}
__attribute__((noinline)) void measure_end(void)
{
    __asm__ volatile("nop");
}

} // extern "C"

static FocusState state;
static DisplayState display;

static void start_post(uint32_t post, unsigned width, unsigned height)
{
    post_width[post] = (uint16_t)width;
    post_height[post] = (uint16_t)height;
    osd_post_notify({0, post, post, 1});
}

static void set_values(uint32_t current, uint32_t peak)
{
    state.current.store(current, std::memory_order_relaxed);
    state.peak.store(peak, std::memory_order_relaxed);
}

static int measure_pass(int count, char **words)
{
    display_start(&display);
    set_values((uint32_t)atoi(words[0]), (uint32_t)atoi(words[1]));
    for (int i = 2; i < count; i++) {
        unsigned width = 0, height = 0;
        if (i - 2 >= (int)POST_COUNT || sscanf(words[i], "%ux%u", &width, &height) != 2)
            return 2;
        start_post((uint32_t)i - 2, width, height);
    }
    display_pass(&state, &display); // opens the planes
    measure_begin();
    display_pass(&state, &display);
    measure_end();
    return 0;
}

// ---- memory

constexpr size_t STACK_BYTES = 256 * 1024;
constexpr unsigned char PAINT = 0xA5;

// Runs body on a stack that was painted before, and returns how many bytes of it were written.
static size_t stack_depth(void *(*body)(void *))
{
    void *memory =
        mmap(nullptr, STACK_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return 0;
    memset(memory, PAINT, STACK_BYTES);

    pthread_attr_t attributes;
    pthread_t thread;
    pthread_attr_init(&attributes);
    if (pthread_attr_setstack(&attributes, memory, STACK_BYTES) != 0 ||
        pthread_create(&thread, &attributes, body, nullptr) != 0)
        return 0;
    pthread_join(thread, nullptr);

    size_t untouched = 0;
    while (untouched < STACK_BYTES && ((unsigned char *)memory)[untouched] == PAINT)
        untouched++;
    return STACK_BYTES - untouched;
}

static void *empty_body(void *)
{
    return nullptr;
}

static void *start_body(void *)
{
    display_start(&display);
    return nullptr;
}

static void *pass_body(void *)
{
    display_pass(&state, &display);
    return nullptr;
}

static void *measure_body(void *)
{
    CamFocusStats stats = {};
    focus_measure_configure(-1);
    for (int i = 0; i < 3; i++)
        focus_measure_step(&state, -1, &stats);
    return nullptr;
}

static int measure_memory()
{
    const size_t empty = stack_depth(empty_body); // what the C library keeps there itself
    const struct mallinfo2 before = mallinfo2();
    const size_t start = stack_depth(start_body);
    const struct mallinfo2 after = mallinfo2();
    printf("live heap after start: %zu bytes\n", after.uordblks - before.uordblks);

    start_post(0, 1920, 1080);
    start_post(1, 1280, 720);
    start_post(2, 720, 480);
    start_post(3, 352, 240);
    set_values(42, 0);
    display_pass(&state, &display);

    allocations = 0;
    display_pass(&state, &display);
    printf("allocations a pass, four posts, no peak yet: %u\n", allocations);
    set_values(42, 97);
    allocations = 0;
    const size_t pass = stack_depth(pass_body);
    // Those of a thread's creation were made before it ran; the rest is the pass's.
    const unsigned in_thread = allocations;
    allocations = 0;
    (void)stack_depth(empty_body);
    printf("allocations a pass, four posts, with a peak: %u\n", in_thread - allocations);
    allocations = 0;
    const size_t measure = stack_depth(measure_body);
    printf("stack of the display thread: start %zu, pass %zu bytes\n", start - empty, pass - empty);
    printf("stack of the measurement loop: %zu bytes\n", measure - empty);
    printf("live heap after passes: %zu bytes\n", mallinfo2().uordblks - before.uordblks);
    return 0;
}

int main(int argc, char **argv)
{
    if (argc >= 5 && strcmp(argv[1], "pass") == 0)
        return measure_pass(argc - 2, argv + 2);
    if (argc == 2 && strcmp(argv[1], "memory") == 0)
        return measure_memory();
    fprintf(stderr, "usage: measure_target pass CURRENT PEAK WIDTHxHEIGHT... | memory\n");
    return 2;
}
