// A scripted codec library. It defines the library's functions at link time; a test makes one
// FakeCodec, which answers them for as long as it lives and begins with the product's state reset.
//
//     FakeCodec codec;
//     codec.fail("qm7_cl_post_open_osd", 0x81E03204);
//     ... calls of the product ...
//     EXPECT_EQ(codec.calls, Calls({"qm7_cl_post_open_osd(7, {0, 720, 108, 2})"}));
//
// It is strict: memory comes full of junk and is guarded, results of failed calls say nothing (the
// code is in errno), a record that the caller should have zeroed and has not is noted in the log.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "guarded_memory.h"
#include "osd/qm7_codec.h"

using Calls = std::vector<std::string>;

// What a plane's open and memory calls answer. The defaults are those of a kind library.
struct FakePlane {
    std::optional<uint32_t> pitch;        // bytes a line; else the width of the request, at 16s
    std::optional<uint32_t> failed_pitch; // stored by an open that fails; else nothing is
    std::optional<uint32_t> size;         // bytes of memory; else pitch x height of the request
    bool no_memory = false;               // hand out NULL, with size all the same
    Guard guard = Guard::BEHIND;

    uint32_t opened_pitch = 0;  // of the last open that worked
    uint32_t opened_height = 0; // of its request
    std::unique_ptr<GuardedMemory> memory;
};

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
    void fail_always(const std::string &name, uint32_t code);     // until heal()
    void fail_nth_call(int n, uint32_t code);                     // the n-th call of all
    void heal();                                                  // forgets all faults
    std::optional<uint32_t> failed_osd_id; // stored by a get_osd_mem that fails; else nothing is

    // ---- the camera's side ----
    FakePlane &plane(uint32_t postResId, int32_t number);
    void set_status(uint32_t postResId, uint16_t width, uint16_t height);
    uint32_t color_size = 1024;   // bytes of color memory
    bool no_color_memory = false; // hand out NULL, with color_size all the same

    // Calls the registered callback, as the library does when a post starts or stops.
    void start(uint32_t post, uint32_t postResId);
    void stop(uint32_t post, uint32_t postResId);

    // ---- what happened ----
    Calls calls;              // each as "name(arguments)", records in braces
    Calls take_calls();       // the calls so far, and forgets them
    std::vector<Shown> shown; // in the order of showing
    PostNotifyCallback callback = nullptr;
    std::vector<uint8_t> color() const;  // the color memory as it stands
    std::vector<uint8_t> applied_color;  // as it stood when it was applied
    bool surroundings_are_whole() const; // of all memory handed out

    // ---- for the library functions ----
    int32_t answer(const char *name, const std::string &arguments);
    int32_t get_color_mem(OsdMem *mem);
    int32_t get_status(uint32_t postResId, PostStatus *status);
    int32_t open_osd(uint32_t postResId, const OsdOpenParam *param, uint32_t *extra_out,
                     uint32_t *pitch);
    int32_t get_osd_mem(uint32_t postResId, int32_t number, uint32_t *osdId, OsdMem *mem);
    int32_t set_osd(uint32_t postResId, uint32_t osdId, OsdPosition position);
    void apply_color();

  private:
    struct Fault {
        std::string name; // empty: any
        int nth;          // call of that name from now on, 1: the next; 0: every
        uint32_t code;
        int seen = 0; // calls of that name since
    };
    using PlaneKey = std::pair<uint32_t, int32_t>;

    std::mutex mutex;
    std::vector<Fault> faults;
    std::map<PlaneKey, FakePlane> planes;
    std::map<uint32_t, std::pair<uint16_t, uint16_t>> statuses;
    std::map<uint32_t, PlaneKey> handed_out; // by osdId
    uint32_t next_osd_id = 1001;
    std::unique_ptr<GuardedMemory> color_memory;
    bool damage_seen = false; // beside memory that is no longer handed out
};
