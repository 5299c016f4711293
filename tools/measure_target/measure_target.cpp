// The display thread and the measurement loop without a camera, to measure their cost:
//
//   measure_target pass CURRENT PEAK WIDTHxHEIGHT...   one pass over posts of these sizes between
//                                                      the marks measure_begin and measure_end;
//                                                      its allocations as a number on stderr
//   measure_target memory                              heap and stack, as a table
//
// Linked statically, so that the emulator's log has a function name for every instruction.

#include <malloc.h>
#include <pthread.h>
#include <setjmp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "app/display_loop.h"
#include "app/focus_measure.h"
#include "null_codec.h"
#include "osd/osd_session.h"
#include "osd/qm7_codec.h"

// ---- count of allocations

// Counted by the linker's --wrap: this program is static, and tests/support/allocations.cpp needs
// dlsym.

extern "C" {

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
    null_codec_set_post(post, (uint16_t)width, (uint16_t)height);
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
    const unsigned before = allocations;
    measure_begin();
    display_pass(&state, &display);
    measure_end();
    fprintf(stderr, "%u\n", allocations - before);
    return 0;
}

// ---- memory

constexpr size_t STACK_BYTES = 256 * 1024;
constexpr unsigned char PAINT = 0xA5;

// Fills a stack with a pattern, runs body on it and returns the number of bytes written.
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

// ---- the two endless loops, left by longjmp from a call that waits

static jmp_buf loop_left;
static unsigned waits;
static size_t heap_after_start, heap_after_passes;

extern "C" {

int __real_open(const char *path, int flags, ...);

int __wrap_usleep(useconds_t)
{
    switch (++waits) {
    case 1: // no post runs yet
        heap_after_start = mallinfo2().uordblks;
        start_post(0, 1920, 1080);
        start_post(1, 1280, 720);
        start_post(2, 720, 480);
        start_post(3, 352, 240);
        set_values(42, 0);
        break;
    case 2: // the planes have been opened
        break;
    case 3:
        set_values(42, 97);
        break;
    default:
        heap_after_passes = mallinfo2().uordblks;
        longjmp(loop_left, 1);
    }
    return 0;
}

int __wrap_open(const char *path, int flags, ...)
{
    return strcmp(path, CAM_DEVICE_PATH) == 0 ? 0 : __real_open(path, flags);
}

int __wrap_ioctl(int, unsigned long, ...)
{
    if (++waits == 5)
        longjmp(loop_left, 1);
    return 0;
}

} // extern "C"

static void *display_body(void *)
{
    waits = 0;
    if (setjmp(loop_left) == 0)
        osd_Focus_Assist_run(&state);
    return nullptr;
}

static void *measure_body(void *)
{
    waits = 0;
    if (setjmp(loop_left) == 0)
        focus_measure_run(&state);
    return nullptr;
}

static int measure_memory()
{
    const size_t empty = stack_depth(empty_body); // the C library's own share
    const size_t before = mallinfo2().uordblks;
    const size_t display_stack = stack_depth(display_body);
    printf("| memory | bytes |\n|---|---|\n");
    printf("| live heap after start | %zu |\n", heap_after_start - before);
    printf("| live heap after passes over four posts | %zu |\n", heap_after_passes - before);
    printf("| stack of the display thread, deepest | %zu |\n", display_stack - empty);
    printf("| stack of the measurement loop | %zu |\n", stack_depth(measure_body) - empty);
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
