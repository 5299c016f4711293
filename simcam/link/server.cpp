// One thread, one poll. Nothing it does waits for a client: requests are whole packets, an answer
// that does not fit a client's socket ends that client, and requests that take time (a measurement
// to come, a fault's delay) are kept beside their client until they are due.

#include "link/server.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <optional>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace simcam
{

using Clock = std::chrono::steady_clock;

struct Pending {
    Request request;
    uint32_t forced_error = 0;
    Clock::time_point due;
    bool waits = false; // is due, and for a measurement
};

struct Client {
    int fd = -1;
    Session session;
    std::optional<Pending> pending;
    bool spoken = false; // has sent a request
    bool gone = false;

    ~Client()
    {
        if (session.events >= 0)
            close(session.events);
        if (fd >= 0)
            close(fd);
    }
};

struct Server {
    Board *board = nullptr;
    std::string path;
    int listener = -1;
    int wake = -1;
    std::atomic<bool> ending = false;
    std::thread thread;
    std::vector<std::unique_ptr<Client>> clients; // the thread's own

    ~Server()
    {
        if (listener >= 0)
            close(listener);
        if (wake >= 0)
            close(wake);
    }
};

// Sends reply and the descriptor it names. False where the client takes no more.
static bool send_reply(int fd, const Reply &reply)
{
    uint8_t packet[WIRE_REPLY_MAX];
    const size_t payload = reply.head.result == 0 ? wire_reply_size(reply.head.call) : 0;
    std::memcpy(packet, &reply.head, sizeof reply.head);
    std::memcpy(packet + sizeof reply.head, reply.payload, payload);

    iovec part = {packet, sizeof reply.head + payload};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (reply.fd >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(head), &reply.fd, sizeof(int));
    }
    return sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(part.iov_len);
}

// Gives the session a way for reports; its other end goes out with the answer.
static int make_events(Session &session)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        return -1;
    session.events = ends[0];
    return ends[1];
}

static void answer(Board &board, Client &client)
{
    const Pending pending = *client.pending;
    client.pending.reset();

    const std::lock_guard guard(board.lock);
    Reply reply;
    board_execute(board, client.session, pending.request, pending.forced_error, &reply);
    int theirs = -1;
    if (reply.head.result == 0 && reply.head.call == WIRE_LIBRARY_INIT)
        reply.fd = theirs = make_events(client.session);
    if (reply.head.result == 0 && reply.head.call == WIRE_LIBRARY_EXIT) {
        close(client.session.events);
        client.session.events = -1;
    }
    if (!send_reply(client.fd, reply))
        client.gone = true;
    if (theirs >= 0)
        close(theirs);
}

// Answers the pending request if its time has come.
static void try_answer(Board &board, Client &client)
{
    if (!client.pending || client.gone || Clock::now() < client.pending->due)
        return;
    if (client.pending->request.header.call == WIRE_FOCUS_READ) {
        const std::lock_guard guard(board.lock);
        client.pending->waits = !board_reading_ready(board, client.session);
        if (client.pending->waits)
            return;
    }
    answer(board, client);
}

static void receive(Board &board, Client &client)
{
    uint8_t packet[WIRE_REQUEST_MAX + 1]; // one more shows packets that are too long
    const ssize_t length = recv(client.fd, packet, sizeof packet, MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    Pending pending;
    if (length <= 0 || !request_decode(packet, static_cast<size_t>(length), &pending.request)) {
        client.gone = true;
        return;
    }
    client.spoken = true;
    {
        const std::lock_guard guard(board.lock);
        const Fault fault = board_take_fault(board, pending.request.header.call);
        pending.forced_error = fault.error;
        pending.due = Clock::now() + std::chrono::milliseconds(fault.delay_ms);
    }
    client.pending = pending;
}

static void remove_gone(Server &server)
{
    for (const auto &client : server.clients)
        if (client->gone)
            board_remove_session(*server.board, client->session);
    std::erase_if(server.clients, [](const auto &client) { return client->gone; });
}

static void accept_client(Server &server)
{
    const int fd = accept4(server.listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0)
        return;
    auto client = std::make_unique<Client>();
    client->fd = fd;

    ucred peer = {};
    socklen_t size = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
        (peer.uid != geteuid() && peer.uid != 0))
        return;

    if (server.clients.size() >= CLIENT_COUNT_MAX) {
        const auto silent = std::find_if(server.clients.begin(), server.clients.end(),
                                         [](const auto &other) { return !other->spoken; });
        if (silent == server.clients.end())
            return;
        (*silent)->gone = true;
        remove_gone(server);
    }
    board_add_session(*server.board, client->session, peer.pid);
    server.clients.push_back(std::move(client));
}

static int poll_timeout(const Server &server)
{
    using std::chrono::milliseconds;
    const Clock::time_point now = Clock::now();
    int64_t timeout = -1;
    for (const auto &client : server.clients) {
        if (!client->pending || client->pending->waits)
            continue; // a measurement wakes the thread
        const int64_t left = std::chrono::ceil<milliseconds>(client->pending->due - now).count();
        const int64_t wait = std::max<int64_t>(left, 0); // became due since it was looked at
        timeout = timeout < 0 ? wait : std::min(timeout, wait);
    }
    return static_cast<int>(timeout);
}

static void serve(Server &server)
{
    std::vector<pollfd> entries;
    while (!server.ending) {
        entries.assign({{server.wake, POLLIN, 0}, {server.listener, POLLIN, 0}});
        for (const auto &client : server.clients) // a busy client's next request can wait
            entries.push_back({client->fd, static_cast<short>(client->pending ? 0 : POLLIN), 0});
        if (poll(entries.data(), entries.size(), poll_timeout(server)) < 0 && errno != EINTR)
            break;

        if (entries[0].revents & POLLIN) {
            uint64_t count;
            (void)!read(server.wake, &count, sizeof count); // only to make it quiet again
        }
        for (size_t i = 0; i < server.clients.size(); i++) {
            Client &client = *server.clients[i];
            const short seen = entries[i + 2].revents;
            if (seen & POLLIN)
                receive(*server.board, client);
            else if (seen & (POLLHUP | POLLERR))
                client.gone = true;
            try_answer(*server.board, client);
        }
        remove_gone(server);
        if (entries[1].revents & POLLIN)
            accept_client(server);
    }
    for (const auto &client : server.clients)
        client->gone = true;
    remove_gone(server);
}

// Whether a live simcam listens at the address.
static bool is_taken(const sockaddr_un &address)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const bool taken =
        connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return taken;
}

std::shared_ptr<Server> server_start(Board &board, const std::string &path, std::string *error)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        *error = "the run directory's name is too long: " + path;
        return nullptr;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

    auto server = std::make_shared<Server>();
    server->board = &board;
    server->path = path;
    if (is_taken(address)) {
        *error = "another simcam uses this run directory: " + path;
        return nullptr;
    }
    unlink(path.c_str()); // left by one that did not end well
    server->listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    server->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (server->listener < 0 || server->wake < 0 ||
        bind(server->listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), 0600) != 0 || listen(server->listener, CLIENT_COUNT_MAX) != 0) {
        *error = path + ": " + std::strerror(errno);
        return nullptr;
    }
    server->thread = std::thread([server = server.get()] { serve(*server); });
    return server;
}

void server_stop(Server &server)
{
    server.ending = true;
    server_wake(server);
    if (server.thread.joinable())
        server.thread.join();
    unlink(server.path.c_str());
}

void server_wake(Server &server)
{
    const uint64_t one = 1;
    (void)!write(server.wake, &one, sizeof one); // full means that it is awake already
}

} // namespace simcam
