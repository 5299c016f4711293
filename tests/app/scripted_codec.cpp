// A codec library of the tests' own, put before every other on the library path: one post, index 1,
// id 0x51, of 1280 x 720, that starts as soon as notification is on. Each call is a line of
// $SCRIPT_ROOT/calls; what is shown goes to $SCRIPT_ROOT/plane0 and plane1.
//
// $SCRIPT_FAIL names a function that always fails, with 0x81E0ABCD in errno. Where it is the status
// query, the post reports its start again and again.

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#define LIBRARY_CALL extern "C" __attribute__((visibility("default"))) int32_t

struct Report {
    uint32_t unknown, id, post, running;
};

struct Memory {
    void *address;
    uint32_t size;
};

struct OpenRequest {
    uint32_t number;
    uint16_t width, height;
    uint32_t depth_code;
};

struct Position {
    uint16_t x, y;
};

static constexpr uint32_t WIDTH = 1280;
static constexpr uint32_t HEIGHT = 720;
static constexpr uint32_t PITCH = 480;
static constexpr uint32_t LINES = 72;
static constexpr uint32_t BUFFER_ID = 0xB0; // and the plane's number

static void (*notify)(Report);
static std::vector<uint8_t> planes[2];
static std::vector<uint8_t> colors(1024);

static std::string in_root(const char *name)
{
    return std::string(getenv("SCRIPT_ROOT")) + "/" + name;
}

static void write_file(const char *name, const char *mode, const void *bytes, size_t count)
{
    FILE *file = fopen(in_root(name).c_str(), mode);
    fwrite(bytes, 1, count, file);
    fclose(file);
}

// Notes the call; returns what it is to answer.
__attribute__((format(printf, 2, 3))) static int32_t call(const char *function, const char *format,
                                                          ...)
{
    char text[200];
    const int name = snprintf(text, sizeof text, "%s", function);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text + name, sizeof text - (size_t)name, format, arguments);
    va_end(arguments);
    const std::string line = std::string(text) + "\n";
    write_file("calls", "a", line.data(), line.size());

    const char *failing = getenv("SCRIPT_FAIL");
    if (!failing || strcmp(failing, function) != 0)
        return 0;
    errno = (int)0x81E0ABCD;
    return 5;
}

LIBRARY_CALL qm7_cl_library_init()
{
    return call(__func__, "%s", "");
}

LIBRARY_CALL qm7_cl_library_exit()
{
    return call(__func__, "%s", "");
}

LIBRARY_CALL qm7_cl_sys_open_device()
{
    return call(__func__, "%s", "");
}

LIBRARY_CALL qm7_cl_sys_close_device()
{
    return call(__func__, "%s", "");
}

LIBRARY_CALL qm7_cl_post_notify_callback(void (*callback)(Report))
{
    notify = callback;
    return call(__func__, "%s", "");
}

LIBRARY_CALL qm7_cl_post_set_notify(uint32_t mask)
{
    const int32_t result = call(__func__, " 0x%X", mask);
    if (result == 0)
        std::thread([] {
            do {
                notify({0xFFFFFFFF, 0x51, 1, 1});
                usleep(50000);
            } while (getenv("SCRIPT_FAIL"));
        }).detach();
    return result;
}

LIBRARY_CALL qm7_cl_post_get_osd_color_mem(Memory *memory)
{
    *memory = {colors.data(), (uint32_t)colors.size()};
    return call(__func__, "%s", "");
}

LIBRARY_CALL qm7_cl_post_set_osd_color()
{
    write_file("colors", "w", colors.data(), colors.size());
    return call(__func__, "%s", "");
}

LIBRARY_CALL qm7_cl_post_thread_get_status(uint32_t id, uint16_t *status)
{
    status[1] = (uint16_t)WIDTH;
    status[2] = (uint16_t)HEIGHT;
    return call(__func__, " 0x%X", id);
}

LIBRARY_CALL qm7_cl_post_open_osd(uint32_t id, const OpenRequest *request, uint32_t *unknown,
                                  uint32_t *pitch)
{
    *unknown = 0x12345678;
    *pitch = PITCH;
    return call(__func__, " 0x%X %u %u %u %u", id, request->number, request->width, request->height,
                request->depth_code);
}

LIBRARY_CALL qm7_cl_post_clear_osd(uint32_t id, uint32_t number)
{
    return call(__func__, " 0x%X %u", id, number);
}

LIBRARY_CALL qm7_cl_post_close_osd(uint32_t id, uint32_t number)
{
    return call(__func__, " 0x%X %u", id, number);
}

LIBRARY_CALL qm7_cl_post_get_osd_mem(uint32_t id, int32_t number, uint32_t *buffer, Memory *memory)
{
    std::vector<uint8_t> &plane = planes[number & 1];
    plane.assign(PITCH * LINES, 0xA5);
    *memory = {plane.data(), (uint32_t)plane.size()};
    *buffer = BUFFER_ID + (uint32_t)number;
    return call(__func__, " 0x%X %d", id, number);
}

LIBRARY_CALL qm7_cl_post_set_osd(uint32_t id, uint32_t buffer, Position position)
{
    const std::vector<uint8_t> &plane = planes[buffer & 1];
    write_file(buffer & 1 ? "plane1" : "plane0", "w", plane.data(), plane.size());
    return call(__func__, " 0x%X 0x%X %u,%u", id, buffer, position.x, position.y);
}
