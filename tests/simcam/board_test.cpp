// The board and the calls on it, without sockets: posts, planes, colors, measurements, faults.

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "code.h"
#include "link/calls.h"

using namespace simcam;

namespace
{

// The words of a configuration for a 1280 x 720 frame with the middle half as window.
constexpr uint32_t FRAME_WORDS[2] = {0x028004FF, 0x016802CF};

struct TestClient {
    Board &board;
    Session session;
    Reply reply;

    explicit TestClient(Board &its_board, int pid = 100) : board(its_board)
    {
        board_add_session(board, session, pid);
    }
    ~TestClient()
    {
        board_remove_session(board, session);
    }

    // Returns the error code, 0 for success.
    template <typename Record> uint32_t call(uint32_t wire_call, const Record &record)
    {
        Request request;
        request.header = {WIRE_VERSION, wire_call, 5};
        std::memcpy(request.payload, &record, sizeof record);
        return run(request);
    }
    uint32_t call(uint32_t wire_call)
    {
        return call(wire_call, WireWord{0});
    }
    uint32_t run(const Request &request)
    {
        const std::lock_guard guard(board.lock);
        calls_execute(board, session, request, 0, &reply);
        EXPECT_EQ(reply.head.result, reply.head.error ? -1 : 0);
        return reply.head.error;
    }
    template <typename Record> Record result() const
    {
        Record record;
        std::memcpy(&record, reply.payload, sizeof record);
        return record;
    }

    void open_session()
    {
        EXPECT_CODE(call(WIRE_LIBRARY_INIT), 0u);
        EXPECT_CODE(call(WIRE_SYS_OPEN_DEVICE), 0u);
    }
    // Opens the plane, draws value into its memory and shows it. Returns the osdId.
    uint32_t show(uint32_t res_id, uint32_t number, uint8_t value)
    {
        EXPECT_CODE(call(WIRE_POST_GET_OSD_MEM, WirePlane{res_id, number}), 0u);
        const auto mem = result<WireOsdMem>();
        fill(mem.memory, value);
        EXPECT_CODE(call(WIRE_POST_SET_OSD, WireSetOsd{res_id, mem.osd_id, 10, 20}), 0u);
        return mem.osd_id;
    }
    void fill(const WireMemory &memory, uint8_t value) const
    {
        void *base =
            mmap(nullptr, memory.map_size, PROT_READ | PROT_WRITE, MAP_SHARED, reply.fd, 0);
        ASSERT_NE(base, MAP_FAILED);
        std::memset(static_cast<uint8_t *>(base) + memory.offset, value, memory.size);
        munmap(base, memory.map_size);
    }
    // Takes the oldest report; post 99 if there is none.
    PostReport report()
    {
        const std::lock_guard guard(board.lock);
        if (session.reports.empty())
            return {99, 0, false};
        const PostReport first = session.reports.front();
        session.reports.erase(session.reports.begin());
        return first;
    }
    void listen(uint32_t mask)
    {
        open_session();
        EXPECT_CODE(call(WIRE_POST_NOTIFY_CALLBACK, WireWord{1}), 0u);
        EXPECT_CODE(call(WIRE_POST_SET_NOTIFY, WireWord{mask}), 0u);
    }
};

struct BoardTest : testing::Test {
    Board board;

    BoardTest()
    {
        EXPECT_TRUE(board_init(board, 1, 16));
    }
    uint32_t start(int post, uint32_t width = 1280, uint32_t height = 720)
    {
        EXPECT_EQ(board_start_post(board, post, {width, height}), "");
        return board.post[static_cast<size_t>(post)].state.res_id;
    }
};

constexpr WireOpenOsd bar(uint32_t res_id, uint32_t number = 0)
{
    return {res_id, number, 480, 72, 2};
}

} // namespace

TEST_F(BoardTest, CallsBeforeInitializationFail)
{
    TestClient client(board);
    const uint32_t res_id = start(0);

    for (uint32_t call = WIRE_LIBRARY_EXIT; call < WIRE_DEVICE_OPEN; call++)
        EXPECT_CODE(client.call(call, bar(res_id)), CODEC_NOT_INITIALIZED) << call;
}

TEST_F(BoardTest, CallsOnAClosedDeviceFail)
{
    TestClient client(board);
    const uint32_t res_id = start(0);
    EXPECT_CODE(client.call(WIRE_LIBRARY_INIT), 0u);

    for (uint32_t call = WIRE_SYS_CLOSE_DEVICE; call < WIRE_DEVICE_OPEN; call++)
        EXPECT_CODE(client.call(call, bar(res_id)), CODEC_DEVICE_CLOSED) << call;
    EXPECT_CODE(client.call(WIRE_LIBRARY_INIT), CODEC_INITIALIZED);
    EXPECT_CODE(client.call(WIRE_SYS_OPEN_DEVICE), 0u);
    EXPECT_CODE(client.call(WIRE_SYS_OPEN_DEVICE), CODEC_DEVICE_OPEN);
    EXPECT_CODE(client.call(WIRE_SYS_CLOSE_DEVICE), 0u);
    EXPECT_CODE(client.call(WIRE_POST_GET_OSD_COLOR_MEM), CODEC_DEVICE_CLOSED);
    EXPECT_CODE(client.call(WIRE_LIBRARY_EXIT), 0u);
    EXPECT_CODE(client.call(WIRE_SYS_OPEN_DEVICE), CODEC_NOT_INITIALIZED);
}

TEST_F(BoardTest, NotificationReportsRunningPostsAndThenChanges)
{
    TestClient client(board);
    client.open_session();
    const uint32_t res_id = start(2);
    EXPECT_CODE(client.call(WIRE_POST_SET_NOTIFY, WireWord{15}), CODEC_NO_CALLBACK);
    EXPECT_CODE(client.call(WIRE_POST_NOTIFY_CALLBACK, WireWord{1}), 0u);
    EXPECT_EQ(client.report().post, 99); // nothing yet

    EXPECT_CODE(client.call(WIRE_POST_SET_NOTIFY, WireWord{15}), 0u);
    const PostReport first = client.report();
    EXPECT_EQ(first.post, 2);
    EXPECT_EQ(first.res_id, res_id);
    EXPECT_TRUE(first.running);
    EXPECT_EQ(client.report().post, 99); // the other posts are off

    EXPECT_EQ(board_stop_post(board, 2), "");
    const PostReport stop = client.report();
    EXPECT_EQ(stop.post, 2);
    EXPECT_FALSE(stop.running);
    EXPECT_EQ(board_stop_post(board, 2), ""); // already stopped: no report
    EXPECT_EQ(client.report().post, 99);

    const uint32_t again = start(2);
    EXPECT_NE(again, res_id);
    EXPECT_EQ(client.report().res_id, again);
}

TEST_F(BoardTest, MaskSelectsThePostsThatAreReported)
{
    TestClient client(board);
    client.open_session();
    EXPECT_CODE(client.call(WIRE_POST_NOTIFY_CALLBACK, WireWord{1}), 0u);
    EXPECT_CODE(client.call(WIRE_POST_SET_NOTIFY, WireWord{16}), CODEC_BAD_ARGUMENT);
    EXPECT_CODE(client.call(WIRE_POST_SET_NOTIFY, WireWord{2}), 0u);

    start(0);
    start(1);

    EXPECT_EQ(client.report().post, 1);
    EXPECT_EQ(client.report().post, 99);
    EXPECT_CODE(client.call(WIRE_POST_SET_NOTIFY, WireWord{3}), 0u); // post 0 is new, post 1 is not
    EXPECT_EQ(client.report().post, 0);
    EXPECT_EQ(client.report().post, 99);
}

TEST_F(BoardTest, PendingReportsAreMergedIntoTheLastState)
{
    TestClient client(board);
    client.listen(15);

    start(0); // start
    start(0); // stop, start: the third report replaces the first two
    EXPECT_EQ(client.session.reports.size(), 1u);
    start(3);
    start(0); // stop, start
    EXPECT_EQ(board.merged_reports, 4u);
    EXPECT_EQ(board_stop_post(board, 0), ""); // stop, start, stop: only the last is left
    EXPECT_EQ(board.merged_reports, 4u);

    EXPECT_EQ(client.report().post, 3);
    const PostReport start_report = client.report();
    EXPECT_TRUE(start_report.running);
    const PostReport stop_report = client.report();
    EXPECT_EQ(stop_report.post, 0);
    EXPECT_FALSE(stop_report.running);
    EXPECT_EQ(client.report().post, 99);
}

TEST_F(BoardTest, ANullCallbackIsRefusedAndChangesNothing)
{
    TestClient client(board);
    client.listen(1);

    EXPECT_CODE(client.call(WIRE_POST_NOTIFY_CALLBACK, WireWord{0}), CODEC_BAD_ARGUMENT);

    EXPECT_CODE(client.call(WIRE_POST_SET_NOTIFY, WireWord{3}), 0u);
}

TEST_F(BoardTest, StatusHasTheSizeAndJunkInItsOtherFields)
{
    TestClient client(board);
    client.open_session();
    const uint32_t res_id = start(3, 352, 240);

    ASSERT_CODE(client.call(WIRE_POST_THREAD_GET_STATUS, WireWord{res_id}), 0u);
    const auto status = client.result<WirePostStatus>();
    EXPECT_EQ(status.bytes[2] | status.bytes[3] << 8, 352);
    EXPECT_EQ(status.bytes[4] | status.bytes[5] << 8, 240);
    EXPECT_EQ(status.bytes[0], 0xA5);
    EXPECT_EQ(status.bytes[6], 0xA5);
    EXPECT_EQ(status.bytes[47], 0xA5);
}

TEST_F(BoardTest, IdsOfStoppedPostsAreRefused)
{
    TestClient client(board);
    client.open_session();
    const uint32_t old_id = start(0);
    start(0, 720, 480); // stops the first run

    EXPECT_CODE(client.call(WIRE_POST_THREAD_GET_STATUS, WireWord{old_id}), CODEC_POST_NOT_RUNNING);
    EXPECT_CODE(client.call(WIRE_POST_OPEN_OSD, bar(old_id)), CODEC_POST_NOT_RUNNING);
    EXPECT_CODE(client.call(WIRE_POST_GET_OSD_MEM, WirePlane{old_id, 0}), CODEC_POST_NOT_RUNNING);
    EXPECT_CODE(client.call(WIRE_POST_SET_OSD, WireSetOsd{old_id, 1, 0, 0}),
                CODEC_POST_NOT_RUNNING);
    EXPECT_CODE(client.call(WIRE_POST_CLEAR_OSD, WirePlane{old_id, 0}), CODEC_POST_NOT_RUNNING);
    EXPECT_CODE(client.call(WIRE_POST_CLOSE_OSD, WirePlane{old_id, 0}), CODEC_POST_NOT_RUNNING);
    EXPECT_CODE(client.call(WIRE_POST_THREAD_GET_STATUS, WireWord{0}), CODEC_POST_NOT_RUNNING);
}

TEST_F(BoardTest, PitchIsTheLineRoundedUpToTheAlignment)
{
    // width, depth code, alignment, pitch: bits a line over 8, rounded up by hand
    const struct {
        uint16_t width;
        uint32_t depth_code, align, pitch;
    } cases[] = {
        {132, 2, 16, 144}, {132, 2, 1, 132},  {132, 2, 8, 136},  {132, 2, 32, 160},
        {132, 2, 64, 192}, {480, 2, 64, 512}, {720, 2, 16, 720}, {133, 1, 1, 67},
        {133, 0, 1, 34},   {133, 0, 16, 48},
    };
    TestClient client(board);
    client.open_session();
    for (const auto &c : cases) {
        const uint32_t res_id = start(0);
        board.pitch_align = c.align;
        ASSERT_CODE(
            client.call(WIRE_POST_OPEN_OSD, WireOpenOsd{res_id, 1, c.width, 24, c.depth_code}), 0u);
        EXPECT_EQ(client.result<WireOpenedOsd>().pitch, c.pitch) << c.width << " " << c.align;
        ASSERT_CODE(client.call(WIRE_POST_GET_OSD_MEM, WirePlane{res_id, 1}), 0u);
        EXPECT_EQ(client.result<WireOsdMem>().memory.size, c.pitch * 24);
    }
}

TEST_F(BoardTest, MemoryEndsAtAPageEndAndIsFullOfJunk)
{
    TestClient client(board);
    client.open_session();
    const uint32_t res_id = start(0);
    client.call(WIRE_POST_OPEN_OSD, bar(res_id));
    ASSERT_CODE(client.call(WIRE_POST_GET_OSD_MEM, WirePlane{res_id, 0}), 0u);
    const auto memory = client.result<WireOsdMem>().memory;

    EXPECT_EQ(memory.size, 480u * 72);
    EXPECT_EQ(memory.offset + memory.size, memory.map_size);
    EXPECT_EQ(memory.map_size % 4096, 0u);
    EXPECT_LT(memory.offset, 4096u);
    auto *base = static_cast<uint8_t *>(
        mmap(nullptr, memory.map_size, PROT_READ, MAP_SHARED, client.reply.fd, 0));
    ASSERT_NE(base, MAP_FAILED);
    for (uint32_t i = 0; i < memory.size; i++)
        ASSERT_NE(base[memory.offset + i], 0) << i;
    EXPECT_NE(std::memcmp(base + memory.offset, base + memory.offset + 480, 480), 0);
    munmap(base, memory.map_size);
    EXPECT_NE(ftruncate(client.reply.fd, 1), 0); // clients cannot shrink the camera's memory
}

TEST_F(BoardTest, OpenRefusesInvalidSizesDepthsAndNumbers)
{
    TestClient client(board);
    client.open_session();
    const uint32_t id = start(0);
    const auto open = [&](uint32_t number, uint16_t width, uint16_t height, uint32_t depth) {
        return client.call(WIRE_POST_OPEN_OSD, WireOpenOsd{id, number, width, height, depth});
    };

    EXPECT_CODE(open(4, 100, 10, 2), CODEC_BAD_ARGUMENT);
    EXPECT_CODE(open(0xFFFFFFFF, 100, 10, 2), CODEC_BAD_ARGUMENT);
    EXPECT_CODE(open(0, 0, 10, 2), CODEC_PLANE_REFUSED);
    EXPECT_CODE(open(0, 100, 0, 2), CODEC_PLANE_REFUSED);
    EXPECT_CODE(open(0, 4097, 10, 2), CODEC_PLANE_REFUSED);
    EXPECT_CODE(open(0, 100, 10, 3), CODEC_PLANE_REFUSED);
    EXPECT_CODE(open(0, 100, 10, 2), 0u);
    EXPECT_CODE(open(0, 100, 10, 2), CODEC_PLANE_OPEN);
    EXPECT_CODE(open(1, 100, 10, 2), 0u);
}

TEST_F(BoardTest, ClosedPlanesAcceptOnlyOpen)
{
    TestClient client(board);
    client.open_session();
    const uint32_t id = start(0);
    EXPECT_CODE(client.call(WIRE_POST_GET_OSD_MEM, WirePlane{id, 0}), CODEC_PLANE_CLOSED);
    EXPECT_CODE(client.call(WIRE_POST_CLEAR_OSD, WirePlane{id, 0}), CODEC_PLANE_CLOSED);
    EXPECT_CODE(client.call(WIRE_POST_CLOSE_OSD, WirePlane{id, 0}), CODEC_PLANE_CLOSED);
    EXPECT_CODE(client.call(WIRE_POST_OPEN_OSD, bar(id)), 0u);
    client.show(id, 0, 7);

    EXPECT_CODE(client.call(WIRE_POST_CLEAR_OSD, WirePlane{id, 0}), 0u);
    EXPECT_TRUE(board_plane_image(board, 0, 0).bytes.empty());
    EXPECT_TRUE(board_plane_image(board, 0, 0).state.open);
    EXPECT_CODE(client.call(WIRE_POST_CLOSE_OSD, WirePlane{id, 0}), 0u);
    EXPECT_FALSE(board_plane_image(board, 0, 0).state.open);
    EXPECT_CODE(client.call(WIRE_POST_OPEN_OSD, bar(id)), 0u);
}

TEST_F(BoardTest, TheShownBufferIsNeverHandedOut)
{
    TestClient client(board);
    client.open_session();
    const uint32_t id = start(0);
    client.call(WIRE_POST_OPEN_OSD, bar(id));

    for (uint32_t i = 0; i < 50; i++) {
        ASSERT_CODE(client.call(WIRE_POST_GET_OSD_MEM, WirePlane{id, 0}), 0u);
        const auto mem = client.result<WireOsdMem>();
        EXPECT_NE(static_cast<int>(mem.buffer), board.post[0].plane[0].shown);
        EXPECT_LT(mem.buffer, 2u); // one client needs two
        client.fill(mem.memory, static_cast<uint8_t>(i));
        ASSERT_CODE(client.call(WIRE_POST_GET_OSD_MEM, WirePlane{id, 0}), 0u);
        EXPECT_EQ(client.result<WireOsdMem>().osd_id, mem.osd_id); // the same one until it is shown
        if (i) {
            EXPECT_EQ(board_plane_image(board, 0, 0).bytes.front(), i - 1);
        }
        ASSERT_CODE(client.call(WIRE_POST_SET_OSD, WireSetOsd{id, mem.osd_id, 1, 2}), 0u);
        EXPECT_EQ(board_plane_image(board, 0, 0).bytes.back(), i);
    }
    const PlaneImage image = board_plane_image(board, 0, 0);
    EXPECT_EQ(image.state.shows, 50u);
    EXPECT_EQ(image.state.x, 1u);
    EXPECT_EQ(image.state.y, 2u);
}

TEST_F(BoardTest, APictureOfAPostHasPlanesAndColorsOnlyIfAskedFor)
{
    TestClient client(board);
    client.open_session();
    const uint32_t id = start(0);
    client.call(WIRE_POST_OPEN_OSD, bar(id));
    client.show(id, 0, 7);

    const PostImage with = board_post_image(board, 0, true);
    const PostImage without = board_post_image(board, 0, false);

    EXPECT_EQ(with.plane[0].bytes, std::vector<uint8_t>(480 * 72, 7));
    EXPECT_EQ(with.palette.size(), 1024u);
    EXPECT_TRUE(without.plane[0].bytes.empty());
    EXPECT_TRUE(without.palette.empty());
    EXPECT_EQ(without.state.width, 1280u);
    EXPECT_TRUE(without.state.plane[0].shown);
}

TEST_F(BoardTest, OnlyAFetchedBufferCanBeShown)
{
    TestClient client(board), other(board);
    client.open_session();
    other.open_session();
    const uint32_t id = start(0);
    const uint32_t elsewhere = start(1);
    client.call(WIRE_POST_OPEN_OSD, bar(id));
    const uint32_t osd_id = client.show(id, 0, 1);
    const auto set = [&](TestClient &by, uint32_t res_id, uint32_t buffer) {
        return by.call(WIRE_POST_SET_OSD, WireSetOsd{res_id, buffer, 0, 0});
    };

    EXPECT_CODE(set(client, id, osd_id), CODEC_BUFFER_NOT_LENT); // already shown
    EXPECT_CODE(set(client, id, 0), CODEC_BUFFER_NOT_LENT);
    client.call(WIRE_POST_GET_OSD_MEM, WirePlane{id, 0});
    const uint32_t next = client.result<WireOsdMem>().osd_id;
    EXPECT_CODE(set(other, id, next), CODEC_BUFFER_NOT_LENT);         // lent to another client
    EXPECT_CODE(set(client, elsewhere, next), CODEC_BUFFER_NOT_LENT); // of another post
    EXPECT_CODE(set(client, id, next), 0u);
}

TEST_F(BoardTest, TwoClientsDrawIntoBuffersOfTheirOwn)
{
    TestClient first(board), second(board);
    first.open_session();
    second.open_session();
    const uint32_t id = start(0);
    first.call(WIRE_POST_OPEN_OSD, bar(id));
    EXPECT_CODE(second.call(WIRE_POST_OPEN_OSD, bar(id)), CODEC_PLANE_OPEN);

    first.call(WIRE_POST_GET_OSD_MEM, WirePlane{id, 0});
    const auto mine = first.result<WireOsdMem>();
    first.fill(mine.memory, 1);
    second.show(id, 0, 2);

    EXPECT_EQ(board_plane_image(board, 0, 0).bytes[0], 2);
    EXPECT_CODE(first.call(WIRE_POST_SET_OSD, WireSetOsd{id, mine.osd_id, 0, 0}), 0u);
    EXPECT_EQ(board_plane_image(board, 0, 0).bytes[0], 1);
}

TEST_F(BoardTest, PlanesOutliveTheirClientAndItsBuffersAreFreed)
{
    const uint32_t id = start(0);
    {
        TestClient killed(board);
        killed.open_session();
        killed.call(WIRE_POST_OPEN_OSD, bar(id));
        killed.show(id, 0, 42);
        killed.call(WIRE_POST_GET_OSD_MEM, WirePlane{id, 0}); // never shown
        killed.fill(killed.result<WireOsdMem>().memory, 43);
    }

    EXPECT_EQ(board_plane_image(board, 0, 0).bytes[0], 42);
    TestClient next(board);
    next.open_session();
    EXPECT_CODE(next.call(WIRE_POST_OPEN_OSD, bar(id)), 0x81E03204u); // one of the tolerated codes
    EXPECT_CODE(next.call(WIRE_POST_GET_OSD_MEM, WirePlane{id, 0}), 0u);
    EXPECT_LT(next.result<WireOsdMem>().buffer, 2u);

    const uint32_t fresh = start(0); // a stop and a start of the post close its planes
    EXPECT_TRUE(board_plane_image(board, 0, 0).bytes.empty());
    EXPECT_CODE(next.call(WIRE_POST_OPEN_OSD, bar(fresh)), 0u);
}

TEST_F(BoardTest, ColorsApplyOnlyWhenSet)
{
    TestClient client(board);
    client.open_session();
    ASSERT_CODE(client.call(WIRE_POST_GET_OSD_COLOR_MEM), 0u);
    const auto memory = client.result<WireMemory>();
    EXPECT_EQ(memory.size, 1024u);
    client.fill(memory, 0x33);
    EXPECT_EQ(board.palette[0], 0);

    EXPECT_CODE(client.call(WIRE_POST_SET_OSD_COLOR), 0u);
    EXPECT_EQ(board.palette, std::vector<uint8_t>(1024, 0x33));
}

TEST_F(BoardTest, ReadsNeedTheDeviceAndAConfiguration)
{
    TestClient client(board);
    WireFocusConfig config = {};
    std::memcpy(config.bytes, FRAME_WORDS, sizeof FRAME_WORDS);
    EXPECT_CODE(client.call(WIRE_FOCUS_CONFIG, config), uint32_t{EBADF});
    EXPECT_CODE(client.call(WIRE_FOCUS_READ), uint32_t{EBADF});
    EXPECT_CODE(client.call(WIRE_DEVICE_OPEN), 0u);
    EXPECT_CODE(client.call(WIRE_FOCUS_READ), uint32_t{EINVAL});
    const WireFocusConfig empty_window = {};
    EXPECT_CODE(client.call(WIRE_FOCUS_CONFIG, empty_window), uint32_t{EINVAL});
    EXPECT_CODE(client.call(WIRE_FOCUS_READ), uint32_t{EINVAL});

    EXPECT_CODE(client.call(WIRE_FOCUS_CONFIG, config), 0u);
    board_publish(board, Measurement{.number = 1, .raw = 0x01020304});
    ASSERT_CODE(client.call(WIRE_FOCUS_READ), 0u);
    const auto stats = client.result<WireFocusStats>();
    EXPECT_EQ(stats.bytes[64], 4);
    EXPECT_EQ(stats.bytes[65], 3);
    EXPECT_EQ(stats.bytes[66], 2);
    EXPECT_EQ(stats.bytes[67], 1);
    EXPECT_EQ(stats.bytes[63], 0xA5);
    EXPECT_EQ(stats.bytes[68], 0xA5);
    EXPECT_EQ(stats.bytes[243], 0xA5);
}

// A process that reads one measurement after another.
struct OverlayTest : BoardTest {
    TestClient client{board};

    OverlayTest()
    {
        WireFocusConfig config = {};
        std::memcpy(config.bytes, FRAME_WORDS, sizeof FRAME_WORDS);
        EXPECT_CODE(client.call(WIRE_DEVICE_OPEN), 0u);
        EXPECT_CODE(client.call(WIRE_FOCUS_CONFIG, config), 0u);
    }
    void read(uint32_t raw, uint32_t forced_error = 0)
    {
        board_publish(board, Measurement{.number = board.latest.number + 1, .raw = raw});
        Request request;
        request.header = {WIRE_VERSION, WIRE_FOCUS_READ, 1};
        const std::lock_guard guard(board.lock);
        calls_execute(board, client.session, request, forced_error, &client.reply);
    }
    void expect(uint32_t current, uint32_t peak, uint32_t percent)
    {
        const OverlayFocus overlay = board_overlay(board);
        EXPECT_TRUE(overlay.running);
        EXPECT_EQ(overlay.current, current);
        EXPECT_EQ(overlay.peak, peak);
        EXPECT_EQ(overlay_focus_percent(overlay), percent);
    }
};

TEST_F(OverlayTest, ThePeakStaysZeroUntilTheValueChangesByMoreThanFour)
{
    expect(0, 0, 0);
    read(1099); // the first value is never a movement
    expect(10, 0, 0);
    read(1400);
    read(1000);
    expect(10, 0, 0);
    read(1500);
    expect(15, 15, 100);
    read(1600); // small steps count from now on
    expect(16, 16, 100);
    read(700);
    expect(7, 16, 43);
}

TEST_F(OverlayTest, ADecreaseEndsTheHoldToo)
{
    read(5000);
    read(4499);
    expect(44, 44, 100);
}

TEST_F(OverlayTest, AValueAfterZeroDoesNotEndTheHold)
{
    read(99);
    read(30000);
    expect(300, 0, 0);
    read(99); // moved by 300, but a peak of 0 counts as none
    expect(0, 0, 0);
    read(30100);
    expect(301, 301, 100);
}

TEST_F(OverlayTest, FailedReadingsChangeNothing)
{
    read(1000);
    read(9000, EIO);
    expect(10, 0, 0);
    read(1400);
    expect(14, 0, 0); // moved by 4 since the last reading that succeeded
}

TEST_F(OverlayTest, FollowsTheDeviceOpenedLastAndStartsAtZero)
{
    read(1000);
    read(2000);
    {
        TestClient later(board);
        EXPECT_CODE(later.call(WIRE_DEVICE_OPEN), 0u);
        expect(0, 0, 0);
    }
    expect(20, 20, 100);
    board_remove_session(board, client.session);
    EXPECT_FALSE(board_overlay(board).running);
}

TEST(FocusWindow, IsInTheMiddleOfItsFrame)
{
    const auto window = focus_window(0x028004FF, 0x016802CF); // 640 x 360 in 1280 x 720
    ASSERT_TRUE(window);
    EXPECT_EQ(window->x, 320);
    EXPECT_EQ(window->y, 180);
    EXPECT_EQ(window->width, 640);
    EXPECT_EQ(window->height, 360);
    EXPECT_TRUE(focus_window(0x050004FF, 0x02D002CF)) << "all of the frame";
    EXPECT_FALSE(focus_window(0x050104FF, 0x016802CF)) << "1281 of 1280 columns";
    EXPECT_FALSE(focus_window(0x028004FF, 0x02D102CF)) << "721 of 720 lines";
    EXPECT_FALSE(focus_window(0x000004FF, 0x016802CF)) << "no columns";
    EXPECT_FALSE(focus_window(0, 0));
}

TEST(Size, IsReadFromDigitsOnly)
{
    EXPECT_EQ(size_parse("1280x720"), (Size{1280, 720}));
    EXPECT_EQ(size_text({1280, 720}), "1280x720");
    for (const char *text :
         {"", "x", "1280", "1280x", "x720", "1280x720x", "1280X720", "-1x7", "+1x7", " 1x7", "1x7 ",
          "1x 7", "1.5x7", "1x9999999999", "9999999999x1"})
        EXPECT_FALSE(size_parse(text)) << text;
}

TEST_F(BoardTest, AReadingIsHandedOutOnceToEachClient)
{
    TestClient client(board), other(board);
    board_publish(board, Measurement{.number = 1});
    client.call(WIRE_DEVICE_OPEN);
    EXPECT_FALSE(board_reading_ready(board, client.session)); // made before it was opened

    board_publish(board, Measurement{.number = 2});
    EXPECT_TRUE(board_reading_ready(board, client.session));
    client.call(WIRE_FOCUS_READ);
    EXPECT_FALSE(board_reading_ready(board, client.session)); // a failed read consumes it, too
    EXPECT_TRUE(board_reading_ready(board, other.session));
}

TEST_F(BoardTest, FaultsHitAsOftenAsConfigured)
{
    EXPECT_EQ(board_set_fault(board, {"qm7_cl_post_set_osd", 0x81E00099, 2, 0, 0}), "");

    EXPECT_CODE(board_take_fault(board, request_name(WIRE_POST_GET_OSD_MEM)).error, 0u);
    EXPECT_CODE(board_take_fault(board, request_name(WIRE_POST_SET_OSD)).error, 0x81E00099u);
    EXPECT_EQ(board.faults.at(0).hits, 1u);
    EXPECT_EQ(board.faults.at(0).remaining, 1u);
    EXPECT_CODE(board_take_fault(board, request_name(WIRE_POST_SET_OSD)).error, 0x81E00099u);
    EXPECT_TRUE(board.faults.empty());
    EXPECT_CODE(board_take_fault(board, request_name(WIRE_POST_SET_OSD)).error, 0u);
}

TEST_F(BoardTest, FaultsWithoutACountStayUntilTheyAreReplaced)
{
    EXPECT_EQ(board_set_fault(board, {"CAM_FOCUS_READ", EIO, FAULT_FOREVER, 0, 0}), "");
    for (int i = 0; i < 100; i++)
        EXPECT_CODE(board_take_fault(board, request_name(WIRE_FOCUS_READ)).error, uint32_t{EIO});
    EXPECT_EQ(board.faults.at(0).remaining, FAULT_FOREVER);
    EXPECT_EQ(board.faults.at(0).hits, 100u);

    EXPECT_EQ(board_set_fault(board, {"CAM_FOCUS_READ", 0, 1, 50, 0}), "");
    ASSERT_EQ(board.faults.size(), 1u);
    const Fault slow = board_take_fault(board, request_name(WIRE_FOCUS_READ));
    EXPECT_CODE(slow.error, 0u);
    EXPECT_EQ(slow.delay_ms, 50u);

    EXPECT_NE(board_set_fault(board, {"open", 1, 1, DELAY_MAX_MS + 1, 0}), "");
    EXPECT_EQ(board_set_fault(board, {"open", 1, 1, 0, 0}), "");
    EXPECT_EQ(board_set_fault(board, {"open", 1, 0, 0, 0}), ""); // none left: disarms it
    EXPECT_TRUE(board.faults.empty());
}

TEST_F(BoardTest, AForcedErrorChangesNothingAndIsLogged)
{
    TestClient client(board, 4711);
    Request request;
    request.header = {WIRE_VERSION, WIRE_LIBRARY_INIT, 9};

    calls_execute(board, client.session, request, 0x81E00099, &client.reply);

    EXPECT_EQ(client.reply.head.result, -1);
    EXPECT_CODE(client.reply.head.error, 0x81E00099u);
    EXPECT_EQ(client.reply.head.number, 9u);
    EXPECT_FALSE(client.session.initialized);
    const auto calls = records_after(board.calls, 0, 10);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].call, "qm7_cl_library_init");
    EXPECT_EQ(calls[0].pid, 4711);
    EXPECT_CODE(calls[0].error, 0x81E00099u);
}

TEST_F(BoardTest, TheCallLogKeepsTheNewestCallsWithoutSuccessfulReads)
{
    TestClient client(board);
    client.call(WIRE_DEVICE_OPEN);
    WireFocusConfig config = {};
    std::memcpy(config.bytes, FRAME_WORDS, sizeof FRAME_WORDS);
    client.call(WIRE_FOCUS_CONFIG, config);
    for (int i = 0; i < 10; i++)
        client.call(WIRE_FOCUS_READ);
    EXPECT_EQ(board.calls.newest, 2u);

    for (int i = 0; i < 5000; i++)
        client.call(WIRE_LIBRARY_EXIT); // fails, and is logged
    EXPECT_EQ(board.calls.kept.size(), RECORDS_KEPT);
    EXPECT_EQ(board.calls.newest, 5002u);
    const auto some = records_after(board.calls, 5000, 10);
    ASSERT_EQ(some.size(), 2u);
    EXPECT_EQ(some[0].number, 5001u);
    EXPECT_EQ(records_after(board.calls, 0, 3).at(0).number, 5002u - RECORDS_KEPT + 1);
    EXPECT_TRUE(records_after(board.calls, 5002, 3).empty());
}

TEST_F(BoardTest, UnknownPostsAndInvalidSizesAreRefused)
{
    EXPECT_EQ(board_start_post(board, 7, {1280, 720}), "post 7: the posts are 0 to 3");
    EXPECT_NE(board_stop_post(board, -1), "");
    EXPECT_NE(board_start_post(board, 0, {15, 720}), "");
    EXPECT_NE(board_start_post(board, 0, {1280, 4097}), "");
    EXPECT_EQ(board_start_post(board, 0, {16, 4096}), "");
    EXPECT_TRUE(board_plane_image(board, 7, 0).bytes.empty());
    EXPECT_FALSE(board_post_image(board, -1, true).state.running);
}

TEST_F(BoardTest, AStartCanKeepAPostThatRunsAtTheSameSize)
{
    EXPECT_EQ(board_start_post(board, 1, {}), "post 1 has had no size yet: give one");
    const uint32_t first = start(1, 720, 480);

    EXPECT_EQ(board_start_post(board, 1, {720, 480}, true), "");
    EXPECT_EQ(board_start_post(board, 1, {}, true), "");
    EXPECT_EQ(board_post(board, 1).res_id, first);

    EXPECT_EQ(board_start_post(board, 1, {352, 240}, true), "");
    EXPECT_NE(board_post(board, 1).res_id, first);
    EXPECT_EQ(board_post(board, 1).width, 352u);
    EXPECT_EQ(board_stop_post(board, 1), "");
    EXPECT_EQ(board_start_post(board, 1, {}, true), "");
    EXPECT_TRUE(board_post(board, 1).running);
    EXPECT_EQ(board_post(board, 1).height, 240u) << "the size it had";
}
