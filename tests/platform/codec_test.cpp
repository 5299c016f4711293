// The substitute codec library, tested through its functions on a board in the same process.

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "code.h"
#include "codec/qm7codec.h"
#include "link/server.h"
#include "test_directory.h"

using namespace simcam;

namespace
{

// ---- reports of the notify callback

std::mutex told_lock;
std::condition_variable told_more;
std::vector<PostNotifyInfo> told;
std::thread::id told_by;

void remember(PostNotifyInfo info)
{
    const std::lock_guard guard(told_lock);
    told.push_back(info);
    told_by = std::this_thread::get_id();
    told_more.notify_all();
}

// Waits for report number index (0 is the first).
PostNotifyInfo told_at(size_t index)
{
    std::unique_lock guard(told_lock);
    if (!told_more.wait_for(guard, std::chrono::seconds(60), [&] { return told.size() > index; })) {
        ADD_FAILURE() << "report " << index << " did not arrive";
        return {};
    }
    return told[index];
}

size_t lines_with(const char *path, const char *words)
{
    std::ifstream file(path);
    size_t count = 0;
    for (std::string line; std::getline(file, line);)
        count += line.find(words) != std::string::npos ? 1u : 0u;
    return count;
}

size_t threads()
{
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/task"))
        count += entry.path().empty() ? 0u : 1u;
    return count;
}

// The error code of a call; 0 if it succeeds.
template <typename Result> uint32_t code_of(Result result)
{
    return result == 0 ? 0 : static_cast<uint32_t>(errno);
}

#define EXPECT_FAILS(call, code) EXPECT_CODE(code_of(call), code)

// Everything that a call can change on the board, except its log and the armed faults.
std::string contents(Board &board)
{
    std::ostringstream text;
    const std::lock_guard guard(board.lock);
    for (const Post &post : board.post) {
        text << "post " << post.state.running << " " << post.state.res_id << " "
             << post.state.starts << "\n";
        for (const Plane &plane : post.plane) {
            const PlaneState &s = plane.state;
            text << "plane " << s.open << s.shown << " " << s.width << "x" << s.height << " "
                 << s.depth_code << " " << s.pitch << " " << s.x << "," << s.y << " " << s.osd_id
                 << " " << s.shows << " " << plane.epoch << " " << plane.shown;
            for (const PlaneBuffer &buffer : plane.buffers)
                text << " (" << buffer.osd_id << " " << buffer.lent_to << " "
                     << std::hash<std::string>()(
                            {buffer.shared.bytes(),
                             buffer.shared.bytes() + buffer.shared.memory.size})
                     << ")";
            text << "\n";
        }
    }
    text << "palette " << std::hash<std::string>()({board.palette.begin(), board.palette.end()})
         << "\nserial " << board.osd_serial << " " << board.epochs << "\n";
    for (const Session *session : board.sessions)
        text << "session " << session->id << " " << session->initialized << session->device_open
             << session->callback << session->camera_open << " " << session->mask << " "
             << session->last_reading << "\n";
    return text.str();
}

// Runs part in a child and returns its wait status; a part that returns true ends it with 0.
int status_of_child(const std::function<bool()> &part)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(part() ? 0 : 1);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

struct CodecTest : testing::Test {
    TestDirectory temporary;
    std::string directory = temporary.path.string();
    Board board;
    ServerPtr server;

    CodecTest()
    {
        setenv("SIMCAM_RUN_DIR", directory.c_str(), 1);
        EXPECT_TRUE(board_init(board, 1, 16));
        start_server();
        told.clear();
    }
    ~CodecTest() override
    {
        (void)qm7_cl_library_exit(); // fails if the test has called it already
    }
    void start_server()
    {
        std::string error;
        server = server_start(board, directory + "/socket", &error);
        ASSERT_TRUE(server) << error;
    }
    uint32_t start_post(int post, uint32_t width = 1280, uint32_t height = 720)
    {
        EXPECT_EQ(board_start_post(board, post, {width, height}), "");
        return board.post[static_cast<size_t>(post)].state.res_id;
    }
    static void open_session()
    {
        ASSERT_EQ(qm7_cl_library_init(), 0);
        ASSERT_EQ(qm7_cl_sys_open_device(), 0);
    }
    // Opens plane 1 of the post, 132 x 24, and returns its memory.
    static OsdMem plane_memory(uint32_t res_id, uint32_t *osd_id)
    {
        const OsdOpenParam param = {1, 132, 24, 2};
        uint32_t size = 0, pitch = 0;
        EXPECT_EQ(qm7_cl_post_open_osd(res_id, &param, &size, &pitch), 0);
        EXPECT_EQ(pitch, 144u);
        EXPECT_EQ(size, 144u * 24);
        OsdMem mem = {};
        EXPECT_EQ(qm7_cl_post_get_osd_mem(res_id, 1, osd_id, &mem), 0);
        return mem;
    }
};

struct CodecDeathTest : CodecTest {
    CodecDeathTest()
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe"); // because the server's thread runs
    }
};

} // namespace

TEST_F(CodecTest, CallsBeforeInitializationFail)
{
    OsdMem mem = {};
    PostStatus status;
    uint32_t word = 0;
    const OsdOpenParam param = {0, 132, 24, 2};
    EXPECT_FAILS(qm7_cl_library_exit(), CODEC_NOT_INITIALIZED);
    EXPECT_FAILS(qm7_cl_sys_open_device(), CODEC_NOT_INITIALIZED);
    EXPECT_FAILS(qm7_cl_sys_close_device(), CODEC_NOT_INITIALIZED);
    EXPECT_FAILS(qm7_cl_post_notify_callback(remember), CODEC_NOT_INITIALIZED);
    EXPECT_FAILS(qm7_cl_post_set_notify(15), CODEC_NOT_INITIALIZED);
    EXPECT_FAILS(qm7_cl_post_get_osd_color_mem(&mem), CODEC_NOT_INITIALIZED);
    EXPECT_FAILS(qm7_cl_post_set_osd_color(), CODEC_NOT_INITIALIZED);
    EXPECT_FAILS(qm7_cl_post_thread_get_status(1, &status), CODEC_NOT_INITIALIZED);
    EXPECT_FAILS(qm7_cl_post_open_osd(1, &param, &word, &word), CODEC_NOT_INITIALIZED);
    EXPECT_FAILS(qm7_cl_post_clear_osd(1, 0), CODEC_NOT_INITIALIZED);
    EXPECT_FAILS(qm7_cl_post_close_osd(1, 0), CODEC_NOT_INITIALIZED);
    EXPECT_FAILS(qm7_cl_post_get_osd_mem(1, 0, &word, &mem), CODEC_NOT_INITIALIZED);
    EXPECT_FAILS(qm7_cl_post_set_osd(1, 0, {0, 0}), CODEC_NOT_INITIALIZED);
}

TEST_F(CodecTest, NullPointersAreRefused)
{
    open_session();
    const uint32_t res_id = start_post(0);
    OsdMem mem = {};
    uint32_t word = 0;
    EXPECT_FAILS(qm7_cl_post_notify_callback(nullptr), CODEC_BAD_ARGUMENT);
    EXPECT_FAILS(qm7_cl_post_get_osd_color_mem(nullptr), CODEC_BAD_ARGUMENT);
    EXPECT_FAILS(qm7_cl_post_thread_get_status(res_id, nullptr), CODEC_BAD_ARGUMENT);
    EXPECT_FAILS(qm7_cl_post_open_osd(res_id, nullptr, &word, &word), CODEC_BAD_ARGUMENT);
    EXPECT_FAILS(qm7_cl_post_get_osd_mem(res_id, 0, nullptr, &mem), CODEC_BAD_ARGUMENT);
    EXPECT_FAILS(qm7_cl_post_get_osd_mem(res_id, 0, &word, nullptr), CODEC_BAD_ARGUMENT);
}

TEST_F(CodecTest, TheCallbackRunsOnAThreadOfTheLibrary)
{
    const uint32_t res_id = start_post(2);
    open_session();
    ASSERT_EQ(qm7_cl_post_notify_callback(remember), 0);
    ASSERT_EQ(qm7_cl_post_set_notify(15), 0);

    const PostNotifyInfo running = told_at(0);
    EXPECT_EQ(running.post, 2u);
    EXPECT_EQ(running.post_res_id, res_id);
    EXPECT_EQ(running.running, 1u);
    {
        const std::lock_guard guard(told_lock);
        EXPECT_NE(told_by, std::this_thread::get_id());
    }

    EXPECT_EQ(board_stop_post(board, 2), "");
    EXPECT_EQ(told_at(1).running, 0u);
    const uint32_t again = start_post(2, 720, 480);
    EXPECT_EQ(told_at(2).post_res_id, again);
    PostStatus status = {};
    ASSERT_EQ(qm7_cl_post_thread_get_status(again, &status), 0);
    EXPECT_EQ(status.width, 720);
    EXPECT_EQ(status.height, 480);
    EXPECT_FAILS(qm7_cl_post_thread_get_status(res_id, &status), CODEC_POST_NOT_RUNNING);
}

TEST_F(CodecTest, ASlowCallDelaysNoReport)
{
    const uint32_t res_id = start_post(0);
    open_session();
    ASSERT_EQ(qm7_cl_post_notify_callback(remember), 0);
    ASSERT_EQ(qm7_cl_post_set_notify(15), 0);
    told_at(0);
    EXPECT_EQ(board_set_fault(board, {"qm7_cl_post_thread_get_status", 0, 1, 4000, 0}), "");
    std::atomic<bool> returned = false;
    std::thread slow([&] {
        PostStatus status = {};
        (void)qm7_cl_post_thread_get_status(res_id, &status);
        returned = true;
    });
    const auto taken = [&] {
        const std::lock_guard guard(board.lock);
        return board.faults.empty();
    };
    while (!taken()) // until the call is under way
        std::this_thread::sleep_for(std::chrono::milliseconds(1));

    EXPECT_EQ(board_stop_post(board, 0), "");

    EXPECT_EQ(told_at(1).running, 0u);
    EXPECT_FALSE(returned);
    slow.join();
}

static std::atomic<int32_t> called_back_result = 1;

TEST_F(CodecTest, TheCallbackMayCallTheLibrary)
{
    start_post(0);
    open_session();
    called_back_result = 1;
    const auto ask = [](PostNotifyInfo info) {
        PostStatus status;
        called_back_result = qm7_cl_post_thread_get_status(info.post_res_id, &status);
        remember(info);
    };
    ASSERT_EQ(qm7_cl_post_notify_callback(ask), 0);
    ASSERT_EQ(qm7_cl_post_set_notify(15), 0);

    told_at(0);
    EXPECT_EQ(called_back_result, 0);
}

TEST_F(CodecTest, ExitEndsTheThreadAndUnmapsTheMemory)
{
    const size_t threads_before = threads();
    for (int i = 0; i < 20; i++) {
        const uint32_t res_id = start_post(0);
        open_session();
        ASSERT_EQ(qm7_cl_post_notify_callback(remember), 0);
        ASSERT_EQ(qm7_cl_post_set_notify(15), 0);
        OsdMem colors = {};
        uint32_t osd_id = 0;
        ASSERT_EQ(qm7_cl_post_get_osd_color_mem(&colors), 0);
        EXPECT_EQ(colors.size, 1024u);
        plane_memory(res_id, &osd_id);
        ASSERT_EQ(qm7_cl_library_exit(), 0);
    }
    // The system lists a thread a moment longer than it takes to join it.
    for (int i = 0; i < 1000 && threads() != threads_before; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(threads(), threads_before);
    // Only the board's mappings are left: its colors and a buffer of the last plane.
    EXPECT_EQ(lines_with("/proc/self/maps", "memfd:simcam"), 2u);
}

TEST_F(CodecTest, ReopeningPlanesLeaksNoMappings)
{
    const uint32_t res_id = start_post(0);
    open_session();
    for (int i = 0; i < 50; i++) {
        uint32_t osd_id = 0;
        const OsdMem mem = plane_memory(res_id, &osd_id);
        std::memset(mem.addr, 1, mem.size);
        EXPECT_EQ(qm7_cl_post_clear_osd(res_id, 1), 0);
        EXPECT_EQ(qm7_cl_post_close_osd(res_id, 1), 0);
    }
    EXPECT_LE(lines_with("/proc/self/maps", "memfd:simcam"),
              3u); // colors, the last buffer twice
}

TEST_F(CodecTest, MemoryIsVisibleOnlyAfterTheShowCall)
{
    const uint32_t res_id = start_post(0);
    open_session();
    uint32_t osd_id = 0;
    const OsdMem mem = plane_memory(res_id, &osd_id);
    EXPECT_EQ(mem.size, 144u * 24);
    std::memset(mem.addr, 17, mem.size);
    EXPECT_TRUE(board_plane_image(board, 0, 1).bytes.empty());

    ASSERT_EQ(qm7_cl_post_set_osd(res_id, osd_id, {30, 40}), 0);
    const PlaneImage image = board_plane_image(board, 0, 1);
    EXPECT_EQ(image.bytes, std::vector<uint8_t>(144 * 24, 17));
    EXPECT_EQ(image.state.x, 30u);
    EXPECT_EQ(image.state.y, 40u);

    OsdMem next = {};
    uint32_t next_id = 0;
    ASSERT_EQ(qm7_cl_post_get_osd_mem(res_id, 1, &next_id, &next), 0);
    EXPECT_NE(next.addr, mem.addr);
    EXPECT_NE(next_id, osd_id);
    std::memset(next.addr, 0, next.size);
    EXPECT_EQ(board_plane_image(board, 0, 1).bytes, std::vector<uint8_t>(144 * 24, 17));
}

TEST_F(CodecDeathTest, TheByteAfterPlaneMemoryFaults)
{
    const uint32_t res_id = start_post(0);
    open_session();
    uint32_t osd_id = 0;
    const OsdMem mem = plane_memory(res_id, &osd_id);
    auto *bytes = static_cast<volatile uint8_t *>(mem.addr);
    bytes[mem.size - 1] = 1;

    EXPECT_DEATH(bytes[mem.size] = 1, "");
}

TEST_F(CodecDeathTest, TheByteAfterTheColorsFaults)
{
    open_session();
    OsdMem mem = {};
    ASSERT_EQ(qm7_cl_post_get_osd_color_mem(&mem), 0);
    auto *bytes = static_cast<volatile uint8_t *>(mem.addr);
    bytes[mem.size - 1] = 1;

    EXPECT_DEATH(bytes[mem.size] = 1, "");
}

TEST_F(CodecTest, EveryCallFailsWithAnInjectedCodeAndThenSucceeds)
{
    OsdMem mem = {};
    uint32_t osd_id = 0, word = 0;
    PostStatus status;
    const uint32_t res_id = start_post(0);
    const OsdOpenParam param = {1, 132, 24, 2};
    const OsdPosition corner = {0, 0};
    const struct {
        const char *name;
        std::function<int32_t()> call;
    } steps[] = {
        {"qm7_cl_library_init", [&] { return qm7_cl_library_init(); }},
        {"qm7_cl_sys_open_device", [&] { return qm7_cl_sys_open_device(); }},
        {"qm7_cl_post_notify_callback", [&] { return qm7_cl_post_notify_callback(remember); }},
        {"qm7_cl_post_set_notify", [&] { return qm7_cl_post_set_notify(15); }},
        {"qm7_cl_post_get_osd_color_mem", [&] { return qm7_cl_post_get_osd_color_mem(&mem); }},
        {"qm7_cl_post_set_osd_color", [&] { return qm7_cl_post_set_osd_color(); }},
        {"qm7_cl_post_thread_get_status",
         [&] { return qm7_cl_post_thread_get_status(res_id, &status); }},
        {"qm7_cl_post_open_osd",
         [&] { return qm7_cl_post_open_osd(res_id, &param, &word, &word); }},
        {"qm7_cl_post_get_osd_mem",
         [&] { return qm7_cl_post_get_osd_mem(res_id, 1, &osd_id, &mem); }},
        {"qm7_cl_post_set_osd", [&] { return qm7_cl_post_set_osd(res_id, osd_id, corner); }},
        {"qm7_cl_post_clear_osd", [&] { return qm7_cl_post_clear_osd(res_id, 1); }},
        {"qm7_cl_post_close_osd", [&] { return qm7_cl_post_close_osd(res_id, 1); }},
        {"qm7_cl_sys_close_device", [&] { return qm7_cl_sys_close_device(); }},
        {"qm7_cl_library_exit", [&] { return qm7_cl_library_exit(); }},
    };
    for (const auto &step : steps) {
        ASSERT_EQ(board_set_fault(board, {step.name, 0x81AB0001, 2, 0, 0}), "");
        EXPECT_FAILS(step.call(), 0x81AB0001u) << step.name;
        EXPECT_FAILS(step.call(), 0x81AB0001u) << step.name;
        EXPECT_EQ(step.call(), 0) << step.name;
    }
}

TEST_F(CodecTest, ARefusedCallChangesNothing)
{
    const uint32_t stopped = start_post(3);
    EXPECT_EQ(board_stop_post(board, 3), "");
    const uint32_t res_id = start_post(0);
    open_session();
    ASSERT_EQ(qm7_cl_post_notify_callback(remember), 0);
    ASSERT_EQ(qm7_cl_post_set_notify(5), 0);
    told_at(0);
    // Plane 1 shows a buffer and has lent another one; plane 2 is open and shows nothing.
    uint32_t shown_id = 0, lent_id = 0;
    OsdMem mem = plane_memory(res_id, &shown_id);
    ASSERT_EQ(qm7_cl_post_set_osd(res_id, shown_id, {3, 4}), 0);
    ASSERT_EQ(qm7_cl_post_get_osd_mem(res_id, 1, &lent_id, &mem), 0);
    const OsdOpenParam second = {2, 16, 16, 2};
    uint32_t size = 0, pitch = 0;
    ASSERT_EQ(qm7_cl_post_open_osd(res_id, &second, &size, &pitch), 0);
    const std::string before = contents(board);

    const OsdMem poison = {this, 77};
    OsdMem out = poison;
    uint32_t id = 77, words[2] = {77, 77};
    PostStatus status;
    std::memset(&status, 77, sizeof status);
    const PostStatus status_before = status;
    const OsdPosition corner = {0, 0};
    OsdOpenParam param = {};
    const auto open_with = [&](uint32_t post, uint32_t number, uint16_t width, uint16_t height,
                               uint32_t depth_code) {
        param = {number, width, height, depth_code};
        return qm7_cl_post_open_osd(post, &param, &words[0], &words[1]);
    };
    const struct {
        const char *what;
        uint32_t code;
        std::function<int32_t()> call;
    } refused[] = {
        {"init twice", CODEC_INITIALIZED, [] { return qm7_cl_library_init(); }},
        {"open_device twice", CODEC_DEVICE_OPEN, [] { return qm7_cl_sys_open_device(); }},
        {"no callback", CODEC_BAD_ARGUMENT, [] { return qm7_cl_post_notify_callback(nullptr); }},
        {"mask of a fifth post", CODEC_BAD_ARGUMENT, [] { return qm7_cl_post_set_notify(16); }},
        {"mask of all bits", CODEC_BAD_ARGUMENT, [] { return qm7_cl_post_set_notify(~0u); }},
        {"colors to null", CODEC_BAD_ARGUMENT,
         [] { return qm7_cl_post_get_osd_color_mem(nullptr); }},
        {"status of a stopped post", CODEC_POST_NOT_RUNNING,
         [&] { return qm7_cl_post_thread_get_status(stopped, &status); }},
        {"status to null", CODEC_BAD_ARGUMENT,
         [&] { return qm7_cl_post_thread_get_status(res_id, nullptr); }},
        {"open on a stopped post", CODEC_POST_NOT_RUNNING,
         [&] { return open_with(stopped, 0, 132, 24, 2); }},
        {"open an open plane", CODEC_PLANE_OPEN, [&] { return open_with(res_id, 1, 64, 64, 1); }},
        {"open a fifth plane", CODEC_BAD_ARGUMENT,
         [&] { return open_with(res_id, 4, 132, 24, 2); }},
        {"open with width 0", CODEC_PLANE_REFUSED, [&] { return open_with(res_id, 0, 0, 24, 2); }},
        {"open with height 0", CODEC_PLANE_REFUSED,
         [&] { return open_with(res_id, 0, 132, 0, 2); }},
        {"open too large", CODEC_PLANE_REFUSED,
         [&] { return open_with(res_id, 0, 65535, 65535, 2); }},
        {"open with depth code 3", CODEC_PLANE_REFUSED,
         [&] { return open_with(res_id, 0, 132, 24, 3); }},
        {"open null", CODEC_BAD_ARGUMENT,
         [&] { return qm7_cl_post_open_osd(res_id, nullptr, &words[0], &words[1]); }},
        {"clear on a stopped post", CODEC_POST_NOT_RUNNING,
         [&] { return qm7_cl_post_clear_osd(stopped, 1); }},
        {"clear a closed plane", CODEC_PLANE_CLOSED,
         [&] { return qm7_cl_post_clear_osd(res_id, 3); }},
        {"clear a fifth plane", CODEC_BAD_ARGUMENT,
         [&] { return qm7_cl_post_clear_osd(res_id, 4); }},
        {"close on a stopped post", CODEC_POST_NOT_RUNNING,
         [&] { return qm7_cl_post_close_osd(stopped, 1); }},
        {"close a closed plane", CODEC_PLANE_CLOSED,
         [&] { return qm7_cl_post_close_osd(res_id, 3); }},
        {"close plane -1", CODEC_BAD_ARGUMENT, [&] { return qm7_cl_post_close_osd(res_id, ~0u); }},
        {"memory of a stopped post", CODEC_POST_NOT_RUNNING,
         [&] { return qm7_cl_post_get_osd_mem(stopped, 1, &id, &out); }},
        {"memory of a closed plane", CODEC_PLANE_CLOSED,
         [&] { return qm7_cl_post_get_osd_mem(res_id, 3, &id, &out); }},
        {"memory of plane -1", CODEC_BAD_ARGUMENT,
         [&] { return qm7_cl_post_get_osd_mem(res_id, -1, &id, &out); }},
        {"memory to null", CODEC_BAD_ARGUMENT,
         [&] { return qm7_cl_post_get_osd_mem(res_id, 2, &id, nullptr); }},
        {"memory id to null", CODEC_BAD_ARGUMENT,
         [&] { return qm7_cl_post_get_osd_mem(res_id, 2, nullptr, &out); }},
        {"show on a stopped post", CODEC_POST_NOT_RUNNING,
         [&] { return qm7_cl_post_set_osd(stopped, lent_id, corner); }},
        {"show the shown buffer", CODEC_BUFFER_NOT_LENT,
         [&] { return qm7_cl_post_set_osd(res_id, shown_id, corner); }},
        {"show an unknown buffer", CODEC_BUFFER_NOT_LENT,
         [&] { return qm7_cl_post_set_osd(res_id, 0, corner); }},
    };
    const auto expect_unchanged = [&](const std::string &what) {
        EXPECT_EQ(contents(board), before) << what;
        EXPECT_EQ(out.addr, poison.addr) << what;
        EXPECT_EQ(out.size, poison.size) << what;
        EXPECT_EQ(id, 77u) << what;
        EXPECT_EQ(words[0], 77u) << what;
        EXPECT_EQ(words[1], 77u) << what;
        EXPECT_EQ(std::memcmp(&status, &status_before, sizeof status), 0) << what;
    };
    for (const auto &step : refused) {
        EXPECT_FAILS(step.call(), step.code) << step.what;
        expect_unchanged(step.what);
    }

    // Calls that would succeed, refused by a fault.
    const struct {
        const char *name;
        std::function<int32_t()> call;
    } valid[] = {
        {"qm7_cl_sys_close_device", [] { return qm7_cl_sys_close_device(); }},
        {"qm7_cl_post_notify_callback",
         [] { return qm7_cl_post_notify_callback([](PostNotifyInfo) {}); }},
        {"qm7_cl_post_set_notify", [] { return qm7_cl_post_set_notify(0); }},
        {"qm7_cl_post_get_osd_color_mem", [&] { return qm7_cl_post_get_osd_color_mem(&out); }},
        {"qm7_cl_post_set_osd_color", [] { return qm7_cl_post_set_osd_color(); }},
        {"qm7_cl_post_thread_get_status",
         [&] { return qm7_cl_post_thread_get_status(res_id, &status); }},
        {"qm7_cl_post_open_osd", [&] { return open_with(res_id, 0, 132, 24, 2); }},
        {"qm7_cl_post_clear_osd", [&] { return qm7_cl_post_clear_osd(res_id, 1); }},
        {"qm7_cl_post_close_osd", [&] { return qm7_cl_post_close_osd(res_id, 1); }},
        {"qm7_cl_post_get_osd_mem", [&] { return qm7_cl_post_get_osd_mem(res_id, 2, &id, &out); }},
        {"qm7_cl_post_set_osd", [&] { return qm7_cl_post_set_osd(res_id, lent_id, corner); }},
        {"qm7_cl_library_exit", [] { return qm7_cl_library_exit(); }},
    };
    for (const auto &step : valid) {
        ASSERT_EQ(board_set_fault(board, {step.name, 0x81AB0001, 1, 0, 0}), "");
        EXPECT_FAILS(step.call(), 0x81AB0001u) << step.name;
        expect_unchanged(step.name);
    }

    // The callback and the lent buffer are still what they were.
    EXPECT_EQ(board_stop_post(board, 0), "");
    EXPECT_EQ(told_at(1).running, 0u);
    EXPECT_FAILS(qm7_cl_post_set_osd(res_id, lent_id, {1, 1}), CODEC_POST_NOT_RUNNING);
}

TEST_F(CodecTest, AChildOfForkLeavesTheParentsSessionAlone)
{
    const uint32_t res_id = start_post(0);
    open_session();
    ASSERT_EQ(qm7_cl_post_notify_callback(remember), 0);
    ASSERT_EQ(qm7_cl_post_set_notify(15), 0);
    told_at(0);
    uint32_t osd_id = 0;
    const OsdMem mem = plane_memory(res_id, &osd_id);
    const std::string before = contents(board);

    const auto all_refused = [&] {
        PostStatus status;
        return code_of(qm7_cl_post_thread_get_status(res_id, &status)) == CODEC_NOT_INITIALIZED &&
               code_of(qm7_cl_post_close_osd(res_id, 1)) == CODEC_NOT_INITIALIZED &&
               code_of(qm7_cl_post_set_notify(0)) == CODEC_NOT_INITIALIZED &&
               code_of(qm7_cl_sys_close_device()) == CODEC_NOT_INITIALIZED &&
               code_of(qm7_cl_library_exit()) == CODEC_NOT_INITIALIZED;
    };
    EXPECT_EQ(status_of_child(all_refused), 0);
    EXPECT_EQ(contents(board), before);

#ifndef __SANITIZE_THREAD__ // it does not support threads started after a fork
    const auto own_session = [&] {
        PostStatus status = {};
        uint32_t own_id = 0;
        OsdMem own = {};
        return qm7_cl_library_init() == 0 && qm7_cl_sys_open_device() == 0 &&
               qm7_cl_post_thread_get_status(res_id, &status) == 0 && status.width == 1280 &&
               qm7_cl_post_get_osd_mem(res_id, 1, &own_id, &own) == 0 && own_id != osd_id &&
               qm7_cl_library_exit() == 0;
    };
    EXPECT_EQ(status_of_child(own_session), 0);
#endif

    const auto draw_into_lent_memory = [&] {
        std::signal(SIGSEGV, SIG_DFL); // a sanitizer would report it
        *static_cast<volatile uint8_t *>(mem.addr) = 1;
        return true;
    };
    EXPECT_EQ(WTERMSIG(status_of_child(draw_into_lent_memory)), SIGSEGV); // not mapped

    // The parent's buffer is still lent to it, and its reports arrive.
    EXPECT_EQ(qm7_cl_post_set_osd(res_id, osd_id, {0, 0}), 0);
    EXPECT_EQ(board_stop_post(board, 0), "");
    EXPECT_EQ(told_at(1).running, 0u);
}

TEST_F(CodecTest, AFailedOpenLeavesThePitchAlone)
{
    const uint32_t res_id = start_post(0);
    open_session();
    const OsdOpenParam param = {1, 132, 24, 2};
    uint32_t size = 5, pitch = 6;
    board_set_fault(board, {"qm7_cl_post_open_osd", 0x81E03246, 1, 0, 0});
    EXPECT_FAILS(qm7_cl_post_open_osd(res_id, &param, &size, &pitch), 0x81E03246u);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(pitch, 6u);
}

TEST_F(CodecTest, WhenTheCameraEndsCallsFailAtOnceAndANewSessionWorks)
{
    const uint32_t res_id = start_post(0);
    open_session();
    uint32_t osd_id = 0;
    const OsdMem mem = plane_memory(res_id, &osd_id);

    server.reset();

    EXPECT_FAILS(qm7_cl_post_set_osd(res_id, osd_id, {0, 0}), CODEC_NO_CAMERA);
    EXPECT_FAILS(qm7_cl_sys_close_device(), CODEC_NO_CAMERA);
    std::memset(mem.addr, 1, mem.size); // plane memory is still mapped
    EXPECT_EQ(qm7_cl_library_exit(), 0);
    EXPECT_FAILS(qm7_cl_library_init(), CODEC_NO_CAMERA);
    start_server();
    open_session();
}

TEST_F(CodecTest, WithoutARunDirectoryInitializationFails)
{
    unsetenv("SIMCAM_RUN_DIR");
    EXPECT_FAILS(qm7_cl_library_init(), CODEC_NO_CAMERA);
    setenv("SIMCAM_RUN_DIR", std::string(200, 'x').c_str(), 1);
    EXPECT_FAILS(qm7_cl_library_init(), CODEC_NO_CAMERA);
    setenv("SIMCAM_RUN_DIR", directory.c_str(), 1);
    EXPECT_EQ(qm7_cl_library_init(), 0);
    EXPECT_FAILS(qm7_cl_library_init(), CODEC_INITIALIZED);
}

TEST_F(CodecTest, ThreadsMayCallConcurrently)
{
    const uint32_t res_id = start_post(0);
    open_session();
    std::atomic<int> failures = 0;
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; i++) {
        callers.emplace_back([&] {
            for (int n = 0; n < 200; n++) {
                PostStatus status = {};
                if (qm7_cl_post_thread_get_status(res_id, &status) != 0 || status.width != 1280)
                    failures++;
            }
        });
    }
    for (std::thread &caller : callers)
        caller.join();
    EXPECT_EQ(failures, 0);
}
