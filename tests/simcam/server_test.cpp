// The socket: misbehaving clients, and other clients that they must not affect.

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "code.h"
#include "link/server.h"
#include "test_directory.h"

using namespace simcam;

namespace
{

constexpr int PATIENCE_MS = 20000; // for a machine under load; the waits are much shorter otherwise

size_t open_descriptors()
{
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        count += entry.path().empty() ? 0u : 1u;
    return count;
}

struct ServerTest : testing::Test {
    TestDirectory directory;
    std::string path = directory.file("socket");
    Board board;
    ServerPtr server;

    ServerTest()
    {
        EXPECT_TRUE(board_init(board, 1, 16));
        std::string error;
        server = server_start(board, path, &error);
        EXPECT_TRUE(server) << error;
    }

    int connect_client() const
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        return fd;
    }
    size_t sessions()
    {
        const std::lock_guard guard(board.lock);
        return board.sessions.size();
    }
};

bool send_call(int fd, uint32_t call, uint32_t number)
{
    const WireHeader header = {WIRE_VERSION, call, number};
    return send(fd, &header, sizeof header, MSG_NOSIGNAL) == sizeof header;
}

// Waits for an answer. Returns false if the connection ends instead.
bool receive(int fd, WireReply *reply)
{
    pollfd entry = {fd, POLLIN, 0};
    uint8_t packet[WIRE_REPLY_MAX];
    if (poll(&entry, 1, PATIENCE_MS) != 1 ||
        recv(fd, packet, sizeof packet, 0) < static_cast<ssize_t>(sizeof *reply))
        return false;
    std::memcpy(reply, packet, sizeof *reply);
    return true;
}

bool answers(int fd)
{
    WireReply reply;
    return send_call(fd, WIRE_LIBRARY_EXIT, 31) && receive(fd, &reply) && reply.number == 31;
}

// Waits until the other side has closed the connection.
bool is_closed(int fd)
{
    pollfd entry = {fd, POLLIN, 0};
    char byte;
    return poll(&entry, 1, PATIENCE_MS) == 1 && recv(fd, &byte, 1, 0) <= 0;
}

} // namespace

TEST_F(ServerTest, AMalformedPacketEndsThatClientOnly)
{
    const int good = connect_client();
    EXPECT_TRUE(answers(good));
    const std::string packets[] = {
        "",
        "x",
        std::string(11, '\0'),
        std::string(12, '\0'),
        std::string(104, '\xFF'),
        std::string(105, '\0'),
        std::string(60000, 'y'),
    };
    for (const std::string &packet : packets) {
        const int bad = connect_client();
        ASSERT_EQ(send(bad, packet.data(), packet.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(packet.size()));
        EXPECT_TRUE(is_closed(bad)) << packet.size();
        close(bad);
        EXPECT_TRUE(answers(good)) << packet.size();
    }
    close(good);
}

TEST_F(ServerTest, AnswersCarryTheNumberOfTheirRequest)
{
    const int fd = connect_client();
    for (uint32_t number : {0u, 1u, 0xFFFFFFFFu, 5u}) {
        WireReply reply;
        ASSERT_TRUE(send_call(fd, WIRE_SYS_OPEN_DEVICE, number));
        ASSERT_TRUE(receive(fd, &reply));
        EXPECT_EQ(reply.version, WIRE_VERSION);
        EXPECT_EQ(reply.number, number);
        EXPECT_EQ(reply.call, uint32_t{WIRE_SYS_OPEN_DEVICE});
        EXPECT_CODE(reply.error, CODEC_NOT_INITIALIZED);
    }
    close(fd);
}

TEST_F(ServerTest, AClientThatNeverReadsItsAnswersIsDroppedAndDelaysNobody)
{
    const int stalled = connect_client();
    const int good = connect_client();
    bool dropped = false;
    for (int i = 0; i < 100000 && !dropped; i++) {
        const WireHeader header = {WIRE_VERSION, WIRE_LIBRARY_EXIT, 1};
        const ssize_t sent = send(stalled, &header, sizeof header, MSG_NOSIGNAL | MSG_DONTWAIT);
        dropped = sent < 0 && errno == EPIPE;
        if (i % 500 == 0) {
            ASSERT_TRUE(answers(good));
        }
        if (sent < 0 && !dropped)
            usleep(100); // its queue is full for now
    }
    EXPECT_TRUE(dropped);
    EXPECT_TRUE(answers(good));
    close(stalled);
    close(good);
}

TEST_F(ServerTest, ASlowCallDelaysItsOwnClientOnly)
{
    const int slow = connect_client();
    const int quick = connect_client();
    EXPECT_EQ(board_set_fault(board, {"qm7_cl_sys_open_device", 0, 1, 300, 0}), "");
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(send_call(slow, WIRE_SYS_OPEN_DEVICE, 1));

    for (int i = 0; i < 20; i++)
        EXPECT_TRUE(answers(quick));
    pollfd entry = {slow, POLLIN, 0};
    if (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(200)) {
        EXPECT_EQ(poll(&entry, 1, 0), 0); // twenty calls were done meanwhile
    }

    WireReply reply;
    EXPECT_TRUE(receive(slow, &reply));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    close(slow);
    close(quick);
}

TEST_F(ServerTest, ASlowCallThatIsDueWhileAnotherIsServedWaitsNoLonger)
{
    const int slow = connect_client();
    const int quick = connect_client();
    constexpr std::chrono::milliseconds delay(300);
    EXPECT_EQ(board_set_fault(board, {"qm7_cl_sys_open_device", 0, 1, delay.count(), 0}), "");
    ASSERT_TRUE(send_call(slow, WIRE_SYS_OPEN_DEVICE, 1));
    ASSERT_TRUE(answers(quick)); // the server has read the slow request before this one
    {
        const std::lock_guard guard(board.lock);
        ASSERT_TRUE(send_call(quick, WIRE_LIBRARY_EXIT, 2)); // delayed until the slow call is due
        std::this_thread::sleep_for(delay + std::chrono::milliseconds(50));
    }

    WireReply reply;
    EXPECT_TRUE(receive(quick, &reply));
    EXPECT_TRUE(receive(slow, &reply)); // the test makes no measurements
    EXPECT_EQ(reply.number, 1u);
    close(slow);
    close(quick);
}

TEST_F(ServerTest, AReadWaitsForTheNextMeasurement)
{
    const int fd = connect_client();
    WireReply reply;
    ASSERT_TRUE(send_call(fd, WIRE_DEVICE_OPEN, 1));
    ASSERT_TRUE(receive(fd, &reply));
    ASSERT_TRUE(send_call(fd, WIRE_FOCUS_READ, 2));
    pollfd entry = {fd, POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, 100), 0);

    board_publish(board, Measurement{.number = 1});

    ASSERT_TRUE(receive(fd, &reply));
    EXPECT_EQ(reply.error, uint32_t{EINVAL}); // never configured
    close(fd);
}

// The two sockets of a client that is told about post 0.
struct Listener {
    int fd = -1;
    int events = -1;
};

static Listener listen_to_post_0(int fd)
{
    Listener listener = {fd, -1};
    send_call(fd, WIRE_LIBRARY_INIT, 1);
    pollfd entry = {fd, POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, PATIENCE_MS), 1);
    char packet[WIRE_REPLY_MAX];
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec part = {packet, sizeof packet};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    EXPECT_GT(recvmsg(fd, &message, 0), 0);
    if (const cmsghdr *head = CMSG_FIRSTHDR(&message))
        std::memcpy(&listener.events, CMSG_DATA(head), sizeof(int));

    for (const auto &[call, word] :
         {std::pair(WIRE_SYS_OPEN_DEVICE, 0u), std::pair(WIRE_POST_NOTIFY_CALLBACK, 1u),
          std::pair(WIRE_POST_SET_NOTIFY, 1u)}) {
        const struct {
            WireHeader header;
            uint32_t word;
        } request = {{WIRE_VERSION, call, 2}, word};
        const size_t size = sizeof(WireHeader) + wire_request_size(call);
        EXPECT_EQ(send(fd, &request, size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
        WireReply reply;
        EXPECT_TRUE(receive(fd, &reply));
        EXPECT_EQ(reply.error, 0u);
    }
    return listener;
}

// Reads reports until the only session has sent them all. Checks that starts and stops alternate.
static WireNotify last_report(Board &board, int events)
{
    WireNotify record = {}, last = {};
    for (bool sent = false; !sent;) {
        {
            const std::lock_guard guard(board.lock);
            sent = board.sessions.at(0)->reports.empty();
        }
        pollfd entry = {events, POLLIN, 0};
        while (poll(&entry, 1, sent ? 0 : 10) == 1 && recv(events, &record, sizeof record, 0) > 0) {
            EXPECT_NE(record.running, last.running);
            last = record;
        }
    }
    return last;
}

TEST_F(ServerTest, AClientThatDidNotReadItsReportsGetsTheLastStateOfAPost)
{
    const Listener client = listen_to_post_0(connect_client());
    const auto toggle = [&](int times) {
        for (int i = 0; i < times; i++) {
            EXPECT_EQ(board_start_post(board, 0, {1280, 720}), "");
            EXPECT_EQ(board_stop_post(board, 0), "");
        }
    };

    toggle(2000); // far more than the socket holds
    EXPECT_EQ(last_report(board, client.events).running, 0u);
    toggle(2000);
    EXPECT_EQ(board_start_post(board, 0, {720, 480}), "");
    const WireNotify last = last_report(board, client.events);

    EXPECT_EQ(last.running, 1u);
    EXPECT_EQ(last.post_res_id, board.post[0].state.res_id);
    EXPECT_GT(board.merged_reports, 0u);
    close(client.events);
    close(client.fd);
}

TEST_F(ServerTest, AClientThatClosedItsReportsIsHarmless)
{
    const Listener client = listen_to_post_0(connect_client());
    close(client.events);

    for (int i = 0; i < 500; i++)
        EXPECT_EQ(board_start_post(board, 0, {1280, 720}), "");

    EXPECT_TRUE(answers(client.fd));
    const std::lock_guard guard(board.lock);
    EXPECT_TRUE(board.sessions.at(0)->reports.empty());
    close(client.fd);
}

TEST_F(ServerTest, ClientsThatSendNothingAreReplacedByNewOnes)
{
    const int first = connect_client();
    EXPECT_TRUE(answers(first));
    std::vector<int> silent;
    for (size_t i = 0; i < CLIENT_COUNT_MAX + 20; i++)
        silent.push_back(connect_client());

    const int last = connect_client();
    EXPECT_TRUE(answers(last));
    EXPECT_TRUE(answers(first));
    EXPECT_LE(sessions(), CLIENT_COUNT_MAX);
    for (const int fd : silent)
        close(fd);
    close(first);
    close(last);
}

TEST_F(ServerTest, ClientsAboveTheLimitAreRefused)
{
    std::vector<int> clients;
    for (size_t i = 0; i < CLIENT_COUNT_MAX; i++) {
        clients.push_back(connect_client());
        ASSERT_TRUE(answers(clients.back()));
    }

    const int surplus = connect_client();
    EXPECT_TRUE(is_closed(surplus));
    close(surplus);
    EXPECT_TRUE(answers(clients.front()));
    close(clients.back()); // frees one place
    bool taken = false;
    for (int i = 0; i < 2000 && !taken; i++) { // the server may not have seen the close yet
        clients.back() = connect_client();
        taken = answers(clients.back());
        if (!taken) {
            close(clients.back());
            usleep(10000);
        }
    }
    EXPECT_TRUE(taken);
    for (const int fd : clients)
        close(fd);
}

TEST_F(ServerTest, ThousandsOfConnectionsLeakNothing)
{
    const int good = connect_client();
    EXPECT_TRUE(answers(good));
    const size_t before = open_descriptors();

    for (int i = 0; i < 3000; i++) {
        const int fd = connect_client();
        if (i % 3 == 0)
            send_call(fd, WIRE_LIBRARY_INIT, 1); // its answer is never read
        if (i % 3 == 1)
            (void)!send(fd, "garbage", 7, MSG_NOSIGNAL);
        close(fd);
    }

    EXPECT_TRUE(answers(good));
    const int last = connect_client(); // accepted after all connections still in the queue
    EXPECT_TRUE(answers(last));
    close(last);
    for (int i = 0; i < 2000 && (sessions() > 1 || open_descriptors() != before); i++)
        usleep(10000);
    EXPECT_EQ(sessions(), 1u);
    EXPECT_EQ(open_descriptors(), before);
    close(good);
}

TEST_F(ServerTest, ASecondCameraInADirectoryIsRefused)
{
    Board second;
    std::string error;
    EXPECT_FALSE(server_start(second, path, &error));
    EXPECT_NE(error.find("another simcam"), std::string::npos);
    EXPECT_FALSE(server_start(second, directory.file(std::string(200, 'x')), &error));
    EXPECT_NE(error.find("too long"), std::string::npos);
}
