// Makes every outside call of the display thread fail: the first, the second, ... of each function,
// once or forever, until the operation runs without meeting the fault. The model then checks the
// program's calls, results, messages and every byte of memory, and that nothing leaks. The number
// of faults is compared with a count made in a second way, from the steps listed below.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <csignal>
#include <memory>
#include <numeric>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <ft2build.h>

#include FT_MODULE_H
#include FT_SYSTEM_H

#include "font/font_engine.h"
#include "allocations.h"
#include "osd/osd_plane.h"
#include "osd/osd_session.h"
#include "reference.h"
#include "scene.h"
#include "world.h"

using namespace world;

namespace
{

constexpr uint32_t WIDTHS[] = {1920, 1280, 720, 352};
constexpr uint32_t HEIGHTS[] = {1080, 720, 480, 240};
constexpr uint32_t CURRENT = 43;
constexpr uint32_t PEAK = 50;
constexpr int32_t PERCENT = 86;
constexpr bool HIGHLIGHT = true;
const char TEXT[] = "FOCUS ASSIST  43/ 50";

constexpr uint32_t id_of_post(uint32_t post)
{
    return 0x1000 + post;
}

// A scene with a palette file, focus values and the pictures expected from them.
struct SweptScene : Scene {
    const int64_t blocks_before = allocations().blocks; // FreeType's: see inner_calls.cpp

    SweptScene()
    {
        script.palette_path = palette(); // two entries
        for (auto &post : script.planes) {
            for (Plane &plane : post)
                plane.failed_pitch = 640; // a failed open may store anything
        }
        set_focus(CURRENT, PEAK);
    }

    static const std::string &palette()
    {
        static const std::string path = [] {
            const std::string name =
                testing::TempDir() + "sweep_palette." + std::to_string(getpid());
            std::ofstream(name) << "12345678";
            return name;
        }();
        return path;
    }

    void report(uint32_t post, uint32_t running)
    {
        Scene::report(id_of_post(post), post, running);
    }

    // Whether the last pass showed the reference's planes on the post.
    bool draws(uint32_t post) const
    {
        const auto expected = pictures();
        size_t shown = 0;
        for (const Event &event : record) {
            if (event.fn == SET_OSD && !event.failed && event.in[0] == id_of_post(post) &&
                event.bytes == expected[post * 2 + shown].bytes)
                shown++;
        }
        return shown == 2;
    }

    static const std::vector<reference::Plane> &pictures()
    {
        static const std::vector<reference::Plane> planes = [] {
            const std::vector<Event> kept = std::move(record);
            record.clear();
            std::vector<reference::Plane> made;
            for (uint32_t p = 0; p < 4; p++) {
                const uint32_t pitch = (reference::region_width(p) + 15) / 16 * 16;
                made.push_back(reference::bar_plane(WIDTHS[p], HEIGHTS[p], pitch, PERCENT));
                made.push_back(reference::text_plane(WIDTHS[p], HEIGHTS[p], pitch, TEST_FONT_PATH,
                                                     TEXT, HIGHLIGHT));
            }
            record = kept;
            return made;
        }();
        return planes;
    }

    void tear_down()
    {
        for (size_t i = 0; i < 4; i++) {
            check([i] { (void)font_clear_engine(&font_engines[i]); },
                  [this, i] { model.clear_engine(&model.engines[i]); });
        }
    }
};

// prepare sets the scene without faults; run performs the operation and checks it.
struct Operation {
    std::string name;
    std::function<void(SweptScene &)> prepare;
    std::function<void(SweptScene &)> run;
    std::function<void(SweptScene &, Fn fn, int code, bool for_ever)> afterwards;
    bool closing_fails = false; // the calls that close device and library fail in addition
};

std::vector<int> codes_of(Fn fn)
{
    switch (fn) {
    case OPEN_OSD:
    case CLEAR_OSD:
    case CLOSE_OSD:
        return {(int)0x81E03204, (int)0x81E04507, (int)0x81003209, (int)0x81E0250C,
                (int)0x81E03246, (int)0x81E03201, ENOMEM};
    default:
        return fn <= SET_OSD ? std::vector<int>{(int)0x81E00001, ENOMEM} : std::vector<int>{EIO};
    }
}

bool is_tolerated(int code)
{
    const std::vector<int> codes = codes_of(OPEN_OSD);
    return std::find(codes.begin(), codes.begin() + 4, code) != codes.begin() + 4;
}

// Makes the n-th call of fn fail. Returns false if the operation made no such call.
bool try_point(const Operation &operation, Fn fn, uint64_t n, int code, bool for_ever)
{
    SweptScene scene;
    operation.prepare(scene);

    bool met = false;
    script.code = code;
    script.fails = [&](Fn called, uint64_t index) {
        const bool fails = called == fn && (index == n || (for_ever && index > n));
        met = met || fails;
        return fails ||
               (operation.closing_fails && (called == CLOSE_DEVICE || called == LIBRARY_EXIT));
    };
    operation.run(scene);
    script.fails = nullptr;
    if (met && operation.afterwards)
        operation.afterwards(scene, fn, code, for_ever);

    scene.tear_down();
    EXPECT_EQ(objects_alive(), 0u);
    EXPECT_EQ(allocations().blocks, scene.blocks_before) << "FreeType leaks";
    return met;
}

// The same in a child process, for calls that FreeType makes: FreeType crashes when certain of its
// allocations fail. Such a crash is distinguished from one of the program.
enum class Point { NOT_MET, PASSED, FAILED, FREETYPE_CRASHED };
constexpr int CRASHED = 77;

void crash_handler(int)
{
    _exit(inside_freetype > 0 ? CRASHED : (int)Point::FAILED);
}

Point try_inner_point(const Operation &operation, Fn fn, uint64_t n, int code, bool for_ever)
{
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGSEGV, crash_handler);
        Point result = Point::FAILED;
        try {
            const bool met = try_point(operation, fn, n, code, for_ever);
            result = !met ? Point::NOT_MET : Point::PASSED;
        } catch (const model::Mismatch &mismatch) {
            fprintf(stderr, "%s\n", mismatch.what());
        }
        _exit(testing::Test::HasFailure() ? (int)Point::FAILED : (int)result);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return Point::FAILED;
    return WEXITSTATUS(status) == CRASHED ? Point::FREETYPE_CRASHED : (Point)WEXITSTATUS(status);
}

using Counts = std::array<uint64_t, FN_COUNT>;

Point try_one(const Operation &operation, Fn fn, uint64_t n, int code, bool for_ever)
{
    if (fn >= CALL_COUNT)
        return try_inner_point(operation, fn, n, code, for_ever);
    try {
        return try_point(operation, fn, n, code, for_ever) ? Point::PASSED : Point::NOT_MET;
    } catch (const model::Mismatch &mismatch) {
        ADD_FAILURE() << mismatch.what();
        return Point::FAILED;
    }
}

// FreeType 2.12.1 ends with a segmentation fault where one of two certain allocations of a face's
// first FT_Load_Glyph fails, once or forever.
constexpr uint64_t CRASHES_OF_AN_ENGINE = 2;

#ifdef __SANITIZE_ADDRESS__
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

// Whether every call fails in turn (FOCUS_LONG=1 in the environment), or where there are many alike
// a sample: of FreeType's allocations, each of which needs a process of its own, and with
// sanitizers, which make all slow, also of the glyphs, the codes and more of the allocations.
bool is_long()
{
    const char *wanted = getenv("FOCUS_LONG");
    return wanted && *wanted == '1';
}

// The call to fail after the n-th of so many: the next, or one of a sample with first and last.
uint64_t next_call(Fn fn, uint64_t n, uint64_t count)
{
    const bool inner = fn == INNER_MALLOC || fn == INNER_REALLOC;
    const uint64_t step = inner && SANITIZED ? 37 : 7; // no divisors of 65, the glyphs of an engine
    const bool sampled = (inner || SANITIZED) && count > 100 && !is_long();
    return sampled && n < count ? std::min(n + step, count) : n + 1;
}

// The error codes to try for a function: all, or with sanitizers the first.
std::vector<int> tried_codes_of(Fn fn)
{
    const std::vector<int> codes = codes_of(fn);
    return SANITIZED && !is_long() && fn != OPEN_OSD ? std::vector<int>{codes.front()} : codes;
}

// Fails every call from function first up to last, one at a time, and expects as many calls of each
// function as counted, and as many faults that crash FreeType itself as are known of this version.
void sweep_functions(int first, int last, const Operation &operation, const Counts &counts,
                     uint64_t known_crashes)
{
    (void)SweptScene::pictures();
    uint64_t points = 0;
    uint64_t crashes = 0;
    uint64_t expected_points = 0;
    for (int f = first; f < last; f++) {
        const Fn fn = (Fn)f;
        if (fn == HEAP_FREE || fn == FONT_DONE_GLYPH)
            continue; // without a result
        for (const int code : tried_codes_of(fn)) {
            for (const bool for_ever : {false, true}) {
                uint64_t n = 1;
                for (;; n = next_call(fn, n, counts[fn])) {
                    const Point point = try_one(operation, fn, n, code, for_ever);
                    ASSERT_NE(point, Point::FAILED)
                        << operation.name << ", " << name_of(fn) << " call " << n
                        << (for_ever ? " and all later" : " once") << ", errno 0x" << std::hex
                        << (unsigned)code;
                    crashes += point == Point::FREETYPE_CRASHED ? 1 : 0;
                    if (point == Point::NOT_MET)
                        break;
                }
                EXPECT_EQ(n - 1, counts[fn]) << operation.name << ": calls of " << name_of(fn);
                points += n - 1;
                expected_points += counts[fn];
            }
        }
    }
    EXPECT_EQ(points, expected_points);
    if (FREETYPE_MAJOR == 2 && FREETYPE_MINOR == 12 && FREETYPE_PATCH == 1) {
        EXPECT_LE(crashes, known_crashes);
        if (is_long()) {
            EXPECT_EQ(crashes, known_crashes);
        }
    }
    testing::Test::RecordProperty("points", std::to_string(points)); // of the last operation
}

// The calls that the program makes.
void sweep(const Operation &operation, const Counts &counts)
{
    sweep_functions(0, CALL_COUNT, operation, counts, 0);
}

// The calls that FreeType makes in turn: memory and files.
void sweep_freetype(const Operation &operation, const Counts &counts, uint64_t known_crashes = 0)
{
    sweep_functions(CALL_COUNT, FN_COUNT, operation, counts, known_crashes);
}

// ---- counting a second way ---------------------------------------------------------------------

struct Allocations {
    uint64_t allocated = 0;
    uint64_t moved = 0;
};

// Allocations that FreeType asks of its own memory interface, for building engines and for
// rendering single characters.
class CountedFont
{
  public:
    explicit CountedFont(uint32_t pixel_size)
    {
        memory.user = this;
        memory.alloc = [](FT_Memory m, long size) {
            ((CountedFont *)m->user)->count.allocated++;
            return ::malloc((size_t)size);
        };
        memory.free = [](FT_Memory, void *block) { ::free(block); };
        memory.realloc = [](FT_Memory m, long, long size, void *block) {
            ((CountedFont *)m->user)->count.moved++;
            return ::realloc(block, (size_t)size);
        };
        count.allocated++; // the interface itself, in the program's case
        EXPECT_EQ(FT_New_Library(&memory, &library), 0);
        FT_Add_Default_Modules(library);
        FT_Set_Default_Properties(library);
        EXPECT_EQ(FT_New_Face(library, TEST_FONT_PATH, 0, &face), 0);
        FT_Size_RequestRec request = {FT_SIZE_REQUEST_TYPE_REAL_DIM, 0, (FT_Long)pixel_size * 64, 0,
                                      0};
        EXPECT_EQ(FT_Request_Size(face, &request), 0);
        for (const char character :
             std::string("1234567890: -abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"))
            glyphs.push_back(render(character));
    }

    ~CountedFont()
    {
        for (FT_Glyph glyph : glyphs)
            FT_Done_Glyph(glyph);
        FT_Done_Face(face);
        FT_Done_Library(library);
    }

    FT_Glyph render(char character)
    {
        FT_Glyph glyph = nullptr;
        EXPECT_EQ(FT_Load_Glyph(face, FT_Get_Char_Index(face, (FT_ULong)character), 0), 0);
        EXPECT_EQ(FT_Get_Glyph(face->glyph, &glyph), 0);
        EXPECT_EQ(FT_Glyph_To_Bitmap(&glyph, FT_RENDER_MODE_MONO, nullptr, 1), 0);
        return glyph;
    }

    Allocations count;

  private:
    FT_MemoryRec_ memory = {};
    FT_Library library = nullptr;
    FT_Face face = nullptr;
    std::vector<FT_Glyph> glyphs;
};

constexpr uint32_t PIXEL_SIZES[] = {63, 42, 28, 14};

Counts session_counts()
{
    Counts counts = {};
    for (const Fn fn : {LIBRARY_INIT, OPEN_DEVICE, NOTIFY_CALLBACK, SET_NOTIFY, GET_COLOR_MEM,
                        SET_COLOR, FILE_OPEN, FILE_FSTAT, FILE_READ, FILE_CLOSE})
        counts[fn] = 1;
    return counts;
}

// Four engines, each with one array and 65 characters.
Counts font_counts()
{
    Counts counts = {};
    for (const Fn fn : {FONT_INIT, FONT_NEW_FACE, FONT_REQUEST_SIZE, HEAP_CALLOC, INNER_OPEN,
                        INNER_FSTAT, INNER_MMAP})
        counts[fn] = 4;
    for (const Fn fn : {FONT_CHAR_INDEX, FONT_LOAD_GLYPH, FONT_GET_GLYPH, FONT_TO_BITMAP})
        counts[fn] = 4 * 65;
    for (const uint32_t pixel_size : PIXEL_SIZES) {
        const CountedFont font(pixel_size);
        counts[INNER_MALLOC] += font.count.allocated;
        counts[INNER_REALLOC] += font.count.moved;
    }
    return counts;
}

// The first pass of a post asks for its size, opens, fetches and shows two planes, and renders "/".
Counts pass_counts(uint32_t post)
{
    Counts counts = {};
    counts[GET_STATUS] = 1;
    counts[OPEN_OSD] = 2;
    counts[GET_OSD_MEM] = 2;
    counts[SET_OSD] = 2;
    for (const Fn fn : {FONT_CHAR_INDEX, FONT_LOAD_GLYPH, FONT_GET_GLYPH, FONT_TO_BITMAP})
        counts[fn] = 1;

    CountedFont font(PIXEL_SIZES[post]);
    const Allocations before = font.count;
    FT_Done_Glyph(font.render('/'));
    counts[INNER_MALLOC] = font.count.allocated - before.allocated;
    counts[INNER_REALLOC] = font.count.moved - before.moved;
    return counts;
}

Counts sum(const std::vector<Counts> &all)
{
    Counts counts = {};
    for (const Counts &one : all)
        std::transform(counts.begin(), counts.end(), one.begin(), counts.begin(), std::plus<>());
    return counts;
}

// ---- operations --------------------------------------------------------------------------------

void start_all_posts(SweptScene &scene)
{
    for (uint32_t post = 0; post < 4; post++)
        scene.report(post, 1);
}

// After a start-up one post, the next in each call, is drawn: the bar always, the text if its
// engine exists.
void draws_what_it_can(SweptScene &scene, Fn fn, int, bool)
{
    static uint32_t turn;
    const uint32_t post = turn++ % 4;
    scene.report(post, 1);
    scene.check_pass();
    if (fn != FONT_CHAR_INDEX) { // boxes for missing glyphs
        EXPECT_EQ(scene.draws(post), font_engines[post].library != nullptr) << post;
    }
}

TEST(Sweep, SessionFailsAtEveryCall)
{
    const auto open_session = [](SweptScene &scene) {
        int32_t result = 1;
        scene.check([&] { result = OSD_Library_Process(); },
                    [&] { EXPECT_EQ(result, scene.model.library_process()); });
        return result;
    };
    Operation session = {
        "session", [](SweptScene &) {}, open_session,
        [&](SweptScene &scene, Fn, int, bool) { EXPECT_EQ(open_session(scene), 0); }};
    sweep(session, session_counts());
    session.closing_fails = true;
    sweep(session, session_counts());
}

const Operation START_UP = {"start-up", [](SweptScene &) {},
                            [](SweptScene &scene) { scene.check_start(); }, draws_what_it_can};

TEST(Sweep, StartUpFailsAtEveryCall)
{
    sweep(START_UP, sum({session_counts(), font_counts()}));
}

TEST(SweepFreeType, StartUpFailsAtEveryCall)
{
    sweep_freetype(START_UP, font_counts(), 4 * CRASHES_OF_AN_ENGINE);
}

// Checks the passes after a fault that happened once.
void recovers(SweptScene &scene, uint32_t post, Fn fn, int code)
{
    scene.check_pass();
    const bool size_unknown = fn == GET_STATUS;                     // until the post starts again
    const bool opened_blind = fn == OPEN_OSD && is_tolerated(code); // likewise
    EXPECT_EQ(scene.draws(post), !size_unknown && !opened_blind)
        << name_of(fn) << " " << std::hex << code;

    scene.report(post, 0);
    scene.report(post, 1);
    scene.check_pass();
    EXPECT_TRUE(scene.draws(post)) << name_of(fn);
}

Operation first_pass(uint32_t post)
{
    return {"first pass at " + std::to_string(WIDTHS[post]) + "x" + std::to_string(HEIGHTS[post]),
            [post](SweptScene &scene) {
                scene.check_start();
                scene.report(post, 1);
            },
            [](SweptScene &scene) { scene.check_pass(); },
            [post](SweptScene &scene, Fn fn, int code, bool) { recovers(scene, post, fn, code); }};
}

TEST(Sweep, FirstPassOnEveryResolutionFailsAtEveryCall)
{
    for (uint32_t post = 0; post < 4; post++)
        sweep(first_pass(post), pass_counts(post));
}

TEST(SweepFreeType, FirstPassOnEveryResolutionFailsAtEveryCall)
{
    for (uint32_t post = 0; post < 4; post++)
        sweep_freetype(first_pass(post), pass_counts(post));
}

// Nothing but the "/" is rendered then, as in a first pass, so that FreeType is not swept again.
TEST(Sweep, LaterPassOnEveryResolutionFailsAtEveryCall)
{
    for (uint32_t post = 0; post < 4; post++) {
        const Operation pass = {
            "later pass at " + std::to_string(WIDTHS[post]) + "x" + std::to_string(HEIGHTS[post]),
            [post](SweptScene &scene) {
                scene.check_start();
                scene.report(post, 1);
                scene.check_pass();
            },
            [](SweptScene &scene) { scene.check_pass(); },
            [post](SweptScene &scene, Fn fn, int code, bool) { recovers(scene, post, fn, code); }};
        Counts counts = pass_counts(post);
        counts[GET_STATUS] = 0;
        counts[OPEN_OSD] = 0;
        sweep(pass, counts);
    }
}

TEST(Sweep, PassOfFourPostsFailsAtEveryCall)
{
    const Operation pass = {"first pass of four posts",
                            [](SweptScene &scene) {
                                scene.check_start();
                                start_all_posts(scene);
                            },
                            [](SweptScene &scene) { scene.check_pass(); },
                            [](SweptScene &scene, Fn, int, bool) {
                                for (uint32_t post = 0; post < 4; post++)
                                    scene.report(post, 0);
                                start_all_posts(scene);
                                scene.check_pass();
                                for (uint32_t post = 0; post < 4; post++)
                                    EXPECT_TRUE(scene.draws(post)) << post;
                            }};
    sweep(pass, sum({pass_counts(0), pass_counts(1), pass_counts(2), pass_counts(3)}));
}

TEST(Sweep, TearDownFailsAtEveryCall)
{
    Operation tear_down = {
        "tear-down",
        [](SweptScene &scene) {
            scene.check_start();
            scene.report(0, 1);
            scene.check_pass();
        },
        [](SweptScene &scene) {
            for (uint32_t number = 0; number < 4; number++) {
                PostState &post = scene.display.posts[0];
                int32_t result = 1;
                scene.check([&] { result = osd_close_osd(&post.planes[number], id_of_post(0)); },
                            [&] {
                                EXPECT_EQ(result, scene.model.close_plane(&scene.model.posts[0],
                                                                          id_of_post(0), number));
                            });
                EXPECT_EQ(post.planes[number].opened != 0, scene.model.posts[0].opened[number]);
            }
            scene.check(osd_close_codec_lib, [&] { scene.model.close_library(); });
            scene.tear_down();
        },
        nullptr};
    // The record and the counts of calls begin anew with every plane, so that only the first call
    // of each function is swept, for both open planes.
    Counts counts = {};
    for (const Fn fn :
         {CLEAR_OSD, CLOSE_OSD, CLOSE_DEVICE, LIBRARY_EXIT, FONT_DONE_FACE, FONT_DONE_FREETYPE})
        counts[fn] = 1;
    sweep(tear_down, counts);
    tear_down.closing_fails = true;
    sweep(tear_down, counts);
}

TEST(Sweep, PaletteReadStopsAtEveryByte)
{
    for (size_t left_out = 0; left_out <= 8; left_out++) {
        SweptScene scene;
        script.short_read = left_out;
        EXPECT_NO_THROW(scene.check_start()) << left_out;
    }
}

TEST(Sweep, ColorMemoryOfEverySize)
{
    for (uint32_t size = 0; size <= 100; size++) {
        for (const bool none : {false, true}) {
            SweptScene scene;
            script.color_size = size;
            script.no_color_memory = none;
            int32_t result = 1;
            EXPECT_NO_THROW(scene.check([&] { result = OSD_Library_Process(); },
                                        [&] { EXPECT_EQ(result, scene.model.library_process()); }))
                << size << none;
        }
    }
}

} // namespace
