// The codec library of world.h for unit tests: calls as text, faults by name. A test makes one
// FakeCodec; it resets the product's state and the world when it begins and when it ends.
//
//     FakeCodec codec;
//     codec.fail("qm7_cl_post_open_osd", 0x81E03246);
//     ... calls of the product ...
//     EXPECT_EQ(codec.calls, Calls({"qm7_cl_post_open_osd(7, {0, 720, 108, 2})"}));
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "world.h"

using Calls = std::vector<std::string>;

// A plane's buffer as it was when it was shown.
struct Shown {
    uint32_t postResId;
    int32_t number; // OSD number
    uint32_t osdId;
    uint32_t x;
    uint32_t y;
    std::vector<uint8_t> bytes;
};

class FakeCodec
{
  public:
    FakeCodec();
    ~FakeCodec();
    FakeCodec(const FakeCodec &) = delete;
    FakeCodec &operator=(const FakeCodec &) = delete;

    // ---- faults: the function of this name fails with code in errno ----
    void fail(const std::string &name, uint32_t code);            // the next time
    void fail_nth(const std::string &name, int n, uint32_t code); // the n-th time, 1 is the next
    void fail_always(const std::string &name, uint32_t code);
    uint32_t &failed_osd_id = world::script.failed_osd_id;

    // ---- the camera's side; posts are told apart by their id modulo 4 ----
    static world::Plane &plane(uint32_t postResId, int32_t number);
    static void set_status(uint32_t postResId, uint16_t width, uint16_t height);

    // Calls the registered callback, as the library does when a post starts or stops.
    static void start(uint32_t post, uint32_t postResId);
    static void stop(uint32_t post, uint32_t postResId);

    // ---- what happened ----
    Calls calls;                         // each as "name(arguments)", records in braces
    Calls take_calls();                  // the calls so far, and forgets them
    std::vector<Shown> shown;            // in the order of showing
    static std::vector<uint8_t> color(); // the colors as they are
    std::vector<uint8_t> applied_color;  // as they were when applied
    bool surroundings_are_whole() const; // of all memory handed out

  private:
    struct Fault {
        std::string name;
        int nth; // call of that name from now on, 1: the next; 0: every
        uint32_t code;
        int seen = 0; // calls of that name since
    };

    bool fails(const char *name);
    void note(const world::Event &event);

    std::vector<Fault> faults;
    std::vector<std::shared_ptr<GuardedMemory>> memories;
};
