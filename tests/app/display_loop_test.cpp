// Passes of the display thread on a scripted codec library, with the real font. Wrappers record the
// drawing calls; that of init_draw_param can fail, which the function itself never does.

#include "app/display_loop.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "app/focus_measure.h"
#include "capture.h"
#include "draw/painter.h"
#include "fake_codec.h"
#include "fake_files.h"
#include "font/font_engine.h"
#include "osd/osd_session.h"
#include "picture.h"
#include "product_state.h"

using Bytes = std::vector<uint8_t>;
using Strings = std::vector<std::string>;

static const char PALETTE[] = "/usr/local/morvel/app/conf/data/osd/osd_def_color.plt";
static const char FONT[] = "/usr/local/morvel/import/font/dejavu/font/DejaVuSansMono.ttf";

static constexpr uint32_t OTHER = 0x81E0ABCD;

// ---- recorded calls ----------------------------------------------------------------------------

struct BarCall {
    uint32_t postResId;
    int32_t number;
    DrawRect rect;
    int32_t percent;
};

struct StringCall {
    uint32_t postResId;
    uint32_t number;
    FontEngine *engine;
    DrawRect target;
    int32_t current;
    int32_t peak;
    int32_t percent;
};

struct ParamCall {
    const DrawParams *params;
    const PostGeometry *geometry;
    std::string font_path;
    uint32_t spare;
    const OsdRegion *regions;
};

struct Script {
    std::vector<BarCall> bars;
    std::vector<StringCall> strings;
    std::vector<ParamCall> params;
    const DrawParams *failing_params = nullptr;
    std::function<void()> after_bar; // between the two drawing calls
    int looks = 0;                   // calls of osd_take_started and osd_take_stopped
    std::function<void(int)> after_look;

    std::vector<useconds_t> sleeps;
    std::vector<size_t> library_calls_at_sleep;
    size_t sleeps_allowed = 0;
    jmp_buf leave;

    FakeCodec *codec = nullptr;
};

static Script *script;

extern "C" {

int __wrap_usleep(useconds_t microseconds);
int __wrap_ioctl(int device, unsigned long number, uint32_t *record);

// The linker's names of the C++ functions. The build fails if one of them is not called.
#define INIT_DRAW_PARAM _Z15init_draw_paramP10DrawParamsPK12PostGeometryPKcjP9OsdRegion
#define SHOW_BAR _Z8show_barjiPK8DrawRecti
#define SHOW_STRING _Z11show_stringjjP10FontEnginePK8DrawRectiii
#define TAKE_STARTED _Z16osd_take_startedj
#define TAKE_STOPPED _Z16osd_take_stoppedj
#define REAL(name) REAL_2(name)
#define REAL_2(name) __real_##name
#define WRAP(name) WRAP_2(name)
#define WRAP_2(name) __wrap_##name

bool REAL(TAKE_STARTED)(uint32_t);
bool WRAP(TAKE_STARTED)(uint32_t);
bool REAL(TAKE_STOPPED)(uint32_t);
bool WRAP(TAKE_STOPPED)(uint32_t);
int32_t REAL(INIT_DRAW_PARAM)(DrawParams *, const PostGeometry *, const char *, uint32_t,
                              OsdRegion *);
int32_t WRAP(INIT_DRAW_PARAM)(DrawParams *, const PostGeometry *, const char *, uint32_t,
                              OsdRegion *);
int32_t REAL(SHOW_BAR)(uint32_t, int32_t, const DrawRect *, int32_t);
int32_t WRAP(SHOW_BAR)(uint32_t, int32_t, const DrawRect *, int32_t);
int32_t REAL(SHOW_STRING)(uint32_t, uint32_t, FontEngine *, const DrawRect *, int32_t, int32_t,
                          int32_t);
int32_t WRAP(SHOW_STRING)(uint32_t, uint32_t, FontEngine *, const DrawRect *, int32_t, int32_t,
                          int32_t);

int __wrap_usleep(useconds_t microseconds)
{
    script->sleeps.push_back(microseconds);
    script->library_calls_at_sleep.push_back(script->codec->calls.size());
    if (script->sleeps.size() > script->sleeps_allowed)
        longjmp(script->leave, 1);
    return 0;
}

// The camera device: values that change by more than the peak's hold.
int __wrap_ioctl(int, unsigned long number, uint32_t *record)
{
    static uint32_t readings;
    if (number == 0x80F47001)
        record[16] = 10000 + readings++ % 100 * 500; // 100 to 595
    return 0;
}

static bool looked(bool reported)
{
    script->looks++;
    if (script->after_look)
        script->after_look(script->looks);
    return reported;
}

bool WRAP(TAKE_STARTED)(uint32_t post)
{
    return looked(REAL(TAKE_STARTED)(post));
}

bool WRAP(TAKE_STOPPED)(uint32_t post)
{
    return looked(REAL(TAKE_STOPPED)(post));
}

int32_t WRAP(INIT_DRAW_PARAM)(DrawParams *params, const PostGeometry *geometry,
                              const char *font_path, uint32_t spare, OsdRegion *regions)
{
    script->params.push_back({params, geometry, font_path, spare, regions});
    if (params == script->failing_params)
        return -14;
    return REAL(INIT_DRAW_PARAM)(params, geometry, font_path, spare, regions);
}

int32_t WRAP(SHOW_BAR)(uint32_t postResId, int32_t number, const DrawRect *rect, int32_t percent)
{
    script->bars.push_back({postResId, number, *rect, percent});
    const int32_t result = REAL(SHOW_BAR)(postResId, number, rect, percent);
    if (script->after_bar)
        script->after_bar();
    return result;
}

int32_t WRAP(SHOW_STRING)(uint32_t postResId, uint32_t number, FontEngine *engine,
                          const DrawRect *target, int32_t current, int32_t peak, int32_t percent)
{
    script->strings.push_back({postResId, number, engine, *target, current, peak, percent});
    return REAL(SHOW_STRING)(postResId, number, engine, target, current, peak, percent);
}

} // extern "C"

// ---- the scene ---------------------------------------------------------------------------------

// Four outputs that can start, ids 100 to 103: 1920 x 1080, 1280 x 720, 720 x 480 and 352 x 240.
class DisplayLoop : public testing::Test
{
  protected:
    DisplayLoop()
    {
        script = &noted;
        noted.codec = &codec;
        files.put(PALETTE, Bytes(1024, 0x5A));
        codec.set_status(100, 1920, 1080);
        codec.set_status(101, 1280, 720);
        codec.set_status(102, 720, 480);
        codec.set_status(103, 352, 240);
    }

    ~DisplayLoop() override
    {
        EXPECT_TRUE(codec.surroundings_are_whole());
        script = nullptr;
    }

    // Starts the display thread and clears the recorded calls.
    void start_display()
    {
        display_start(display.get());
        codec.take_calls();
    }

    Captured pass()
    {
        noted.bars.clear();
        noted.strings.clear();
        noted.params.clear();
        codec.shown.clear();
        return capture([&] { display_pass(&state, display.get()); });
    }

    // Runs a pass that must print nothing. Returns its library calls.
    Calls quiet_pass()
    {
        codec.take_calls();
        const Captured captured = pass();
        EXPECT_EQ(captured.out, "");
        EXPECT_EQ(captured.err, "");
        return codec.take_calls();
    }

    // Ids of the posts whose bar, or text, was drawn in the last pass.
    std::vector<uint32_t> bars_drawn() const
    {
        std::vector<uint32_t> ids;
        for (const BarCall &bar : noted.bars)
            ids.push_back(bar.postResId);
        return ids;
    }

    std::vector<uint32_t> texts_drawn() const
    {
        std::vector<uint32_t> ids;
        for (const StringCall &text : noted.strings)
            ids.push_back(text.postResId);
        return ids;
    }

    FakeCodec codec;
    FakeFiles files;
    Script noted;
    FocusState state = {};
    std::unique_ptr<DisplayState> display = std::make_unique<DisplayState>();
};

using Ids = std::vector<uint32_t>;

// ---- start -------------------------------------------------------------------------------------

TEST_F(DisplayLoop, StartZeroesTheRecordsAndNumbersThePlanes)
{
    memset((void *)display.get(), 0xA5, sizeof *display);

    display_start(display.get());

    auto expected = std::make_unique<DisplayState>();
    memset((void *)expected.get(), 0, sizeof *expected);
    for (PostState &post : expected->posts) {
        for (uint32_t number = 0; number < 4; number++)
            post.planes[number].number = number;
    }
    EXPECT_EQ(memcmp(display.get(), expected.get(), sizeof *display), 0);
}

TEST_F(DisplayLoop, StartOpensTheSessionBeforeTheFontEngines)
{
    const Captured captured = capture([&] { display_start(display.get()); });

    EXPECT_EQ(codec.calls,
              Calls({"qm7_cl_library_init()", "qm7_cl_sys_open_device()",
                     "qm7_cl_post_notify_callback(osd_post_notify)", "qm7_cl_post_set_notify(15)",
                     "qm7_cl_post_get_osd_color_mem()", "qm7_cl_post_set_osd_color()"}));
    Strings fonts;
    for (const world::Event &event : world::record) {
        if (event.fn == world::FONT_NEW_FACE)
            fonts.push_back(event.text + ", " + std::to_string(event.in[1]));
        EXPECT_TRUE(event.fn > world::SET_OSD || fonts.empty()) << "after a font engine";
    }
    EXPECT_EQ(fonts, Strings(4, std::string(FONT) + ", 0"));
    EXPECT_EQ(captured.out + captured.err, "");
}

// ---- a pass ------------------------------------------------------------------------------------

TEST_F(DisplayLoop, IdlePassCallsNothingAndPrintsNothing)
{
    start_display();

    EXPECT_EQ(quiet_pass(), Calls());

    EXPECT_EQ(noted.params.size(), 0u);
}

TEST_F(DisplayLoop, PostThatStartedIsDrawnInTheSamePassBarBeforeText)
{
    start_display();
    codec.start(1, 101);

    const Calls calls = quiet_pass();

    // The text is 42 lines above the bar, its 21 cells of 22 pixels centered: 400 + (480 - 462)
    // / 2.
    EXPECT_EQ(
        calls,
        Calls({"qm7_cl_post_thread_get_status(101)", "qm7_cl_post_open_osd(101, {0, 480, 72, 2})",
               "qm7_cl_post_get_osd_mem(101, 0)", "qm7_cl_post_set_osd(101, 1001, {400, 576})",
               "qm7_cl_post_open_osd(101, {1, 480, 72, 2})", "qm7_cl_post_get_osd_mem(101, 1)",
               "qm7_cl_post_set_osd(101, 1002, {409, 534})"}));
    EXPECT_EQ(display->posts[1].geometry.valid, 1u);
    EXPECT_EQ(display->posts[1].geometry.width, 1280u);
    EXPECT_EQ(display->posts[1].geometry.height, 720u);
    EXPECT_EQ(post_notify_state.started_mask, 0);
}

TEST_F(DisplayLoop, LaterPassesFetchAndShowEachPlaneAgainWithoutOpeningIt)
{
    start_display();
    codec.start(1, 101);
    quiet_pass();

    for (uint32_t id = 1003; id < 1009; id += 2) {
        EXPECT_EQ(quiet_pass(),
                  Calls({"qm7_cl_post_get_osd_mem(101, 0)",
                         "qm7_cl_post_set_osd(101, " + std::to_string(id) + ", {400, 576})",
                         "qm7_cl_post_get_osd_mem(101, 1)",
                         "qm7_cl_post_set_osd(101, " + std::to_string(id + 1) + ", {409, 534})"}));
    }
}

TEST_F(DisplayLoop, PostsAreDrawnInOrderWhateverTheOrderOfTheirReports)
{
    start_display();
    for (const uint32_t post : {2u, 0u, 3u, 1u})
        codec.start(post, 100 + post);

    const Calls calls = quiet_pass();

    EXPECT_EQ(bars_drawn(), Ids({100, 101, 102, 103}));
    EXPECT_EQ(texts_drawn(), Ids({100, 101, 102, 103}));
    Calls opens;
    for (const std::string &call : calls) {
        if (call.rfind("qm7_cl_post_open_osd", 0) == 0)
            opens.push_back(call);
    }
    EXPECT_EQ(opens, Calls({"qm7_cl_post_open_osd(100, {0, 720, 108, 2})",
                            "qm7_cl_post_open_osd(100, {1, 720, 108, 2})",
                            "qm7_cl_post_open_osd(101, {0, 480, 72, 2})",
                            "qm7_cl_post_open_osd(101, {1, 480, 72, 2})",
                            "qm7_cl_post_open_osd(102, {0, 280, 48, 2})",
                            "qm7_cl_post_open_osd(102, {1, 280, 48, 2})",
                            "qm7_cl_post_open_osd(103, {0, 132, 24, 2})",
                            "qm7_cl_post_open_osd(103, {1, 132, 24, 2})"}));
    EXPECT_EQ(codec.shown.size(), 8u);
}

TEST_F(DisplayLoop, OnlyPostsThatReportedAreDrawn)
{
    start_display();
    codec.start(2, 102);

    quiet_pass();

    EXPECT_EQ(bars_drawn(), Ids({102}));
}

TEST_F(DisplayLoop, DrawingStepsGetThePostsOwnRecords)
{
    start_display();
    codec.plane(102, 0).pitch = 304;
    codec.plane(102, 1).pitch = 336;
    codec.start(2, 102);
    state.current = 42;
    state.peak = 97;

    quiet_pass();

    const PostState &post = display->posts[2];
    ASSERT_EQ(noted.params.size(), 4u); // once for each OSD number
    for (const ParamCall &call : noted.params) {
        EXPECT_EQ(call.params, &post.params);
        EXPECT_EQ(call.geometry, &post.geometry);
        EXPECT_EQ(call.font_path, FONT);
        EXPECT_EQ(call.spare, 0u);
        EXPECT_EQ(call.regions, display->regions[2]);
    }

    ASSERT_EQ(noted.bars.size(), 1u);
    const BarCall &bar = noted.bars[0];
    EXPECT_EQ(bar.number, 0);
    EXPECT_EQ(bar.percent, 43);
    EXPECT_EQ(bar.rect.pitch, 304);
    EXPECT_EQ(bar.rect.width, 280);
    EXPECT_EQ(bar.rect.height, 48);
    EXPECT_EQ(bar.rect.resolution, 2u);

    ASSERT_EQ(noted.strings.size(), 1u);
    const StringCall &text = noted.strings[0];
    EXPECT_EQ(text.number, 1u);
    EXPECT_EQ(text.engine, &post.params.engine);
    EXPECT_EQ(text.engine->face, font_engines[2].face);
    EXPECT_EQ(text.current, 42);
    EXPECT_EQ(text.peak, 97);
    EXPECT_EQ(text.percent, 43);
    EXPECT_EQ(text.target.pitch, 336);
    EXPECT_EQ(text.target.height, 28);
}

TEST_F(DisplayLoop, PlanesTwoAndThreeAreNeitherOpenedNorDrawn)
{
    start_display();
    codec.start(0, 100);

    quiet_pass();

    const OsdPlane *planes = display->posts[0].planes;
    EXPECT_EQ(planes[0].opened, 1u);
    EXPECT_EQ(planes[1].opened, 1u);
    EXPECT_EQ(planes[2].opened, 0u);
    EXPECT_EQ(planes[3].opened, 0u);
    EXPECT_EQ(planes[2].pitch, 0u);
    EXPECT_EQ(planes[3].pitch, 0u);
}

// ---- values ------------------------------------------------------------------------------------

TEST_F(DisplayLoop, WithoutAPeakThePercentageIsZero)
{
    start_display();
    codec.start(0, 100);
    state.current = 50;

    quiet_pass();

    EXPECT_EQ(noted.bars[0].percent, 0);
    EXPECT_EQ(noted.strings[0].percent, 0);
    EXPECT_EQ(noted.strings[0].current, 50);
    EXPECT_EQ(noted.strings[0].peak, 0);
}

TEST_F(DisplayLoop, ValueAboveThePeakGivesMoreThanAHundred)
{
    start_display();
    codec.start(0, 100);
    state.current = 120;
    state.peak = 100;

    quiet_pass();

    EXPECT_EQ(noted.bars[0].percent, 120);
    EXPECT_EQ(noted.strings[0].percent, 120);
}

TEST_F(DisplayLoop, PercentageAboveTheSignedRangeBecomesNegative)
{
    start_display();
    codec.start(0, 100);
    state.current = 42949672;
    state.peak = 1;

    pass(); // the text is too wide to be drawn

    EXPECT_EQ(noted.bars[0].percent, -96); // 4294967200
}

TEST_F(DisplayLoop, TextShowsCurrentValuesWithThePercentageOfThePass)
{
    start_display();
    codec.start(0, 100);
    codec.start(1, 101);
    state.current = 50;
    state.peak = 100;
    noted.after_bar = [this] {
        state.current = state.current + 10;
        state.peak = state.peak + 100;
    };

    quiet_pass();

    ASSERT_EQ(noted.strings.size(), 2u);
    EXPECT_EQ(noted.strings[0].current, 60);
    EXPECT_EQ(noted.strings[0].peak, 200);
    EXPECT_EQ(noted.strings[1].current, 70);
    EXPECT_EQ(noted.strings[1].peak, 300);
    for (const BarCall &bar : noted.bars)
        EXPECT_EQ(bar.percent, 50);
    for (const StringCall &text : noted.strings)
        EXPECT_EQ(text.percent, 50);

    noted.after_bar = nullptr;
    quiet_pass();
    EXPECT_EQ(noted.bars[0].percent, 23); // 70 of 300
}

TEST_F(DisplayLoop, EveryPassRedrawsBothPlanesWhole)
{
    start_display();
    codec.start(0, 100);
    state.current = 90;
    state.peak = 100;
    quiet_pass();
    const Shown first_bar = codec.shown.at(0);
    const Shown first_text = codec.shown.at(1);

    quiet_pass(); // on new memory, full of junk

    const Bytes &bar = codec.shown.at(0).bytes;
    const Bytes &text = codec.shown.at(1).bytes;
    EXPECT_TRUE(same_picture(bar, first_bar.bytes, 720));
    EXPECT_TRUE(same_picture(text, first_text.bytes, 720));
    EXPECT_EQ(bar.size(), 720u * 108u);
    EXPECT_EQ(std::count(bar.begin(), bar.end(), GuardedMemory::JUNK), 0);
    EXPECT_EQ(std::count(text.begin(), text.end(), GuardedMemory::JUNK), 0);
    EXPECT_GT(std::count(text.begin(), text.end(), 20), 0); // highlighted
    // The frame: 10 whole lines, and 10 columns of the other 98 lines.
    EXPECT_EQ(std::count(bar.begin(), bar.end(), 11), 10 * 720 + 98 * 10);
    // Filled to column 5 + 639 = 644, less the marker's ten columns of 604 to 613.
    EXPECT_EQ(std::count(bar.begin(), bar.end(), 18), 98 * (639 - 10));
    EXPECT_EQ(std::count(bar.begin(), bar.end(), 19), 98 * 10);
    EXPECT_EQ(std::count(bar.begin(), bar.end(), 17), 98 * (710 - 639));
}

// ---- stop and start reports --------------------------------------------------------------------

TEST_F(DisplayLoop, StopEndsTheDrawingWithoutALibraryCall)
{
    start_display();
    codec.start(1, 101);
    codec.start(2, 102);
    quiet_pass();
    display->posts[1].planes[3].opened = 1; // a plane that the program never opens
    codec.stop(1, 101);

    quiet_pass();

    EXPECT_EQ(bars_drawn(), Ids({102}));
    EXPECT_EQ(texts_drawn(), Ids({102}));
    const PostState &post = display->posts[1];
    for (uint32_t number = 0; number < 4; number++) {
        EXPECT_EQ(post.planes[number].opened, 0u);
        EXPECT_EQ(post.planes[number].number, number);
    }
    EXPECT_EQ(post.planes[0].pitch, 480u); // stays as it was
    EXPECT_EQ(post.geometry.valid, 0u);
    EXPECT_EQ(display->posts[2].planes[0].opened, 1u);
    EXPECT_EQ(post_notify_state.stopped_mask, 0);
}

TEST_F(DisplayLoop, StopOfTheOnlyPostLeavesAnIdlePass)
{
    start_display();
    codec.start(1, 101);
    quiet_pass();
    codec.stop(1, 101);

    EXPECT_EQ(quiet_pass(), Calls());
    EXPECT_EQ(quiet_pass(), Calls());
}

TEST_F(DisplayLoop, StopOfAPostThatNeverRanChangesNothing)
{
    start_display();
    codec.stop(3, 103);

    EXPECT_EQ(quiet_pass(), Calls());

    EXPECT_EQ(post_notify_state.stopped_mask, 0);
}

TEST_F(DisplayLoop, StopAndStartBetweenPassesReopensThePlanesWithNewPitches)
{
    start_display();
    codec.start(1, 101);
    quiet_pass();
    codec.stop(1, 101);
    codec.start(1, 105);
    codec.plane(105, 0).pitch = 512;

    const Calls calls = quiet_pass();

    EXPECT_EQ(
        calls,
        Calls({"qm7_cl_post_thread_get_status(105)", "qm7_cl_post_open_osd(105, {0, 480, 72, 2})",
               "qm7_cl_post_get_osd_mem(105, 0)", "qm7_cl_post_set_osd(105, 1003, {400, 576})",
               "qm7_cl_post_open_osd(105, {1, 480, 72, 2})", "qm7_cl_post_get_osd_mem(105, 1)",
               "qm7_cl_post_set_osd(105, 1004, {409, 534})"}));
    EXPECT_EQ(noted.bars[0].rect.pitch, 512);
}

TEST_F(DisplayLoop, StartBeforeStopLeavesThePostRunning)
{
    start_display();
    codec.start(1, 101);
    codec.stop(1, 101);

    quiet_pass();

    EXPECT_EQ(bars_drawn(), Ids({101})); // the stop is always taken first
}

TEST_F(DisplayLoop, RestartWithAnotherSizeKeepsTheFirstParameters)
{
    start_display();
    codec.start(1, 101);
    quiet_pass();
    codec.stop(1, 101);
    quiet_pass();
    codec.start(1, 100); // the id of 1920 x 1080

    const Calls calls = quiet_pass();

    EXPECT_EQ(
        calls,
        Calls({"qm7_cl_post_thread_get_status(100)", "qm7_cl_post_open_osd(100, {0, 480, 72, 2})",
               "qm7_cl_post_get_osd_mem(100, 0)", "qm7_cl_post_set_osd(100, 1003, {400, 576})",
               "qm7_cl_post_open_osd(100, {1, 480, 72, 2})", "qm7_cl_post_get_osd_mem(100, 1)",
               "qm7_cl_post_set_osd(100, 1004, {409, 534})"}));
    EXPECT_EQ(display->posts[1].geometry.width, 1920u);
    EXPECT_EQ(noted.strings[0].engine->face, font_engines[1].face);
}

TEST_F(DisplayLoop, SecondStartOfARunningPostOnlyChangesItsId)
{
    start_display();
    codec.start(1, 101);
    quiet_pass();
    codec.plane(100, 0).size = 480 * 72; // as large as its memory under the old id
    codec.plane(100, 1).size = 480 * 72;
    codec.start(1, 100);

    EXPECT_EQ(
        quiet_pass(),
        Calls({"qm7_cl_post_get_osd_mem(100, 0)", "qm7_cl_post_set_osd(100, 1003, {400, 576})",
               "qm7_cl_post_get_osd_mem(100, 1)", "qm7_cl_post_set_osd(100, 1004, {409, 534})"}));
    EXPECT_EQ(display->posts[1].geometry.width, 1280u);
    EXPECT_EQ(post_notify_state.started_mask, 0);
}

// The library's thread may report between the pass's two reads of the masks.
TEST_F(DisplayLoop, RestartReportedBetweenTheTwoReadsIsNotLost)
{
    for (int look = 1; look <= 8; look++) { // two reads for each of four posts
        SCOPED_TRACE(look);
        reset_product_state();
        noted.after_look = nullptr;
        start_display();
        codec.start(0, 100);
        codec.start(1, 101);
        quiet_pass();

        noted.looks = 0;
        noted.after_look = [this, look](int count) {
            if (count != look)
                return;
            for (uint32_t post = 0; post < 2; post++) {
                codec.stop(post, 100 + post);
                codec.start(post, 104 + post);
            }
        };
        pass();
        noted.after_look = nullptr;
        quiet_pass();

        EXPECT_EQ(bars_drawn(), Ids({104, 105}));
        EXPECT_EQ(texts_drawn(), Ids({104, 105}));
    }
}

// ---- failures ----------------------------------------------------------------------------------

TEST_F(DisplayLoop, FailedGeometryEndsThePassForLaterPostsToo)
{
    start_display();
    codec.start(2, 102);
    quiet_pass();
    codec.start(0, 100);
    codec.stop(2, 102);
    codec.fail("qm7_cl_post_thread_get_status", OTHER);

    const Captured captured = pass();

    EXPECT_EQ(captured.out, "POST0 get_post_geometry() failed");
    EXPECT_EQ(codec.shown.size(), 0u);
    EXPECT_EQ(post_notify_state.stopped_mask, 0x0100); // not taken either
}

TEST_F(DisplayLoop, FailedParametersAreLoggedAndTheNextPostIsDrawn)
{
    start_display();
    codec.start(2, 102);
    codec.start(3, 103);
    noted.failing_params = &display->posts[2].params;

    for (int i = 0; i < 2; i++) { // tried again at each pass
        const Captured captured = pass();

        EXPECT_EQ(captured.err, "ERR:#qm7osd:[(null)]=POST2 init_font_param() failed"
                                "(osd_Focus_Assist_run)\n");
        EXPECT_EQ(captured.out, "");
        EXPECT_EQ(bars_drawn(), Ids({103}));
        EXPECT_EQ(texts_drawn(), Ids({103}));
    }
}

// ---- the loop ----------------------------------------------------------------------------------

TEST_F(DisplayLoop, RunStartsOnceAndSleepsHalfASecondAfterEachPass)
{
    noted.sleeps_allowed = 2;

    const Captured captured = capture([&] {
        if (setjmp(noted.leave) == 0)
            osd_Focus_Assist_run(&state);
    });

    EXPECT_EQ(noted.sleeps, std::vector<useconds_t>(3, 500000));
    EXPECT_EQ(noted.library_calls_at_sleep, std::vector<size_t>(3, 6)); // those of the start
    EXPECT_EQ(world::calls[world::FONT_NEW_FACE], 4u);
    EXPECT_EQ(captured.out + captured.err, "");
}

TEST_F(DisplayLoop, ReportsAndMeasurementsComeFromOtherThreads)
{
    start_display();
    std::atomic<bool> done = false;
    std::thread library([&] {
        for (uint32_t i = 0; !done; i++) {
            codec.start(i % 4, 100 + i % 4);
            if (i % 3 == 0)
                codec.stop(i % 4, 100 + i % 4);
            std::this_thread::yield();
        }
    });
    std::thread measurement([&] {
        CamFocusStats stats = {};
        while (!done) {
            focus_measure_step(&state, 0, &stats);
            std::this_thread::yield();
        }
    });

    for (int i = 0; i < 50; i++)
        quiet_pass();
    done = true;
    library.join();
    measurement.join();

    for (uint32_t post = 0; post < 4; post++)
        codec.start(post, 100 + post);
    quiet_pass();
    EXPECT_EQ(bars_drawn(), Ids({100, 101, 102, 103}));
}
