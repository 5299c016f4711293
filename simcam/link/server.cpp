// One thread with one poll loop, which never blocks on a client: requests are whole packets, a
// client whose socket is too full for its answer is dropped, requests that take time (a read before
// the next measurement, a fault's delay) are kept with their client until they are due, and reports
// wait in their session until the client's socket has room.

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

#include "link/calls.h"

namespace simcam
{

using Clock = std::chrono::steady_clock;

struct Pending {
    Request request;
    uint32_t forced_error = 0;
    Clock::time_point due;
    bool waits = false; // for the next measurement
};

struct Client {
    int fd = -1;
    int events = -1; // the socket for reports, from qm7_cl_library_init to qm7_cl_library_exit
    Session session;
    std::optional<Pending> pending;
    bool spoken = false; // has sent a request
    bool gone = false;

    ~Client()
    {
        if (events >= 0)
            close(events);
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
    std::vector<std::unique_ptr<Client>> clients; // used by the thread only

    Server() = default;
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;
    ~Server()
    {
        if (thread.joinable()) {
            {
                const std::lock_guard guard(board->lock);
                board->wake = [] {};
            }
            ending = true;
            wake_up();
            thread.join();
            unlink(path.c_str());
        }
        if (listener >= 0)
            close(listener);
        if (wake >= 0)
            close(wake);
    }

    void wake_up() const
    {
        const uint64_t one = 1;
        (void)!write(wake, &one, sizeof one); // fails only if many wake-ups wait already
    }
};

// Sends reply and the descriptor it names. Returns false if the client's socket is full or closed.
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

// Creates the socket pair for reports; returns the end that goes to the client with the answer.
static int make_events(Client &client)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        return -1;
    client.events = ends[0];
    return ends[1];
}

// Sends the reports that wait, until the client's socket is full. The caller holds the board's
// lock.
static void send_reports(Client &client)
{
    std::vector<PostReport> &reports = client.session.reports;
    size_t sent = 0;
    for (; sent < reports.size(); sent++) {
        const PostReport &report = reports[sent];
        const WireNotify record = {1u << report.post, report.res_id,
                                   static_cast<uint32_t>(report.post), report.running ? 1u : 0u};
        if (send(client.events, &record, sizeof record, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
            continue;
        if (errno == EAGAIN)
            break;             // poll tells when there is room
        sent = reports.size(); // the client no longer listens
        break;
    }
    reports.erase(reports.begin(), reports.begin() + static_cast<ptrdiff_t>(sent));
}

static void answer(Board &board, Client &client)
{
    const Pending pending = *client.pending;
    client.pending.reset();

    const std::lock_guard guard(board.lock);
    Reply reply;
    calls_execute(board, client.session, pending.request, pending.forced_error, &reply);
    int theirs = -1;
    if (reply.head.result == 0 && reply.head.call == WIRE_LIBRARY_INIT)
        reply.fd = theirs = make_events(client);
    if (reply.head.result == 0 && reply.head.call == WIRE_LIBRARY_EXIT) {
        close(client.events);
        client.events = -1;
    }
    send_reports(client); // those of qm7_cl_post_set_notify arrive before its answer
    if (!send_reply(client.fd, reply))
        client.gone = true;
    if (theirs >= 0)
        close(theirs);
}

// Answers the pending request if it is due.
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
    uint8_t packet[WIRE_REQUEST_MAX + 1]; // one byte more, to detect longer packets
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
        const Fault fault = board_take_fault(board, request_name(pending.request.header.call));
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
            continue; // the next measurement wakes the thread
        const int64_t left = std::chrono::ceil<milliseconds>(client->pending->due - now).count();
        const int64_t wait = std::max<int64_t>(left, 0);
        timeout = timeout < 0 ? wait : std::min(timeout, wait);
    }
    return static_cast<int>(timeout);
}

// Waits until something happens. The clients' entries follow those of wake and the listener, two
// for each: its requests and its reports.
static std::vector<pollfd> wait_for_events(Server &server)
{
    std::vector<pollfd> entries = {{server.wake, POLLIN, 0}, {server.listener, POLLIN, 0}};
    {
        const std::lock_guard guard(server.board->lock);
        for (const auto &client : server.clients) {
            const bool reports = !client->session.reports.empty();
            // A client's next request is read after its pending one was answered.
            entries.push_back({client->fd, static_cast<short>(client->pending ? 0 : POLLIN), 0});
            entries.push_back({reports ? client->events : -1, POLLOUT, 0});
        }
    }
    if (poll(entries.data(), entries.size(), poll_timeout(server)) < 0)
        for (pollfd &entry : entries)
            entry.revents = 0;
    return entries;
}

static void serve(Server &server)
{
    while (!server.ending) {
        const std::vector<pollfd> entries = wait_for_events(server);
        if (entries[0].revents & POLLIN) {
            uint64_t count;
            (void)!read(server.wake, &count, sizeof count); // resets it
        }
        for (size_t i = 0; i < server.clients.size(); i++) {
            Client &client = *server.clients[i];
            const short seen = entries[2 * i + 2].revents;
            if (seen & POLLIN)
                receive(*server.board, client);
            else if (seen & (POLLHUP | POLLERR))
                client.gone = true;
            try_answer(*server.board, client);
            const std::lock_guard guard(server.board->lock);
            send_reports(client);
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

ServerPtr server_start(Board &board, const std::string &path, std::string *error)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        *error = path + ": too long for a socket; choose a shorter run directory";
        return nullptr;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

    ServerPtr server(new Server);
    server->board = &board;
    server->path = path;
    if (is_taken(address)) {
        *error = path + ": another simcam uses this run directory";
        return nullptr;
    }
    unlink(path.c_str()); // left by a simcam that crashed
    server->listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    server->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (server->listener < 0 || server->wake < 0 ||
        bind(server->listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), 0600) != 0 || listen(server->listener, CLIENT_COUNT_MAX) != 0) {
        const int code = errno;
        *error = path + ": " +
                 (code == EADDRINUSE ? "a directory is in the place of the socket; remove it"
                                     : std::strerror(code));
        return nullptr;
    }
    {
        const std::lock_guard guard(board.lock);
        board.wake = [server = server.get()] { server->wake_up(); };
    }
    server->thread = std::thread([server = server.get()] { serve(*server); });
    return server;
}

void ServerDelete::operator()(Server *server) const
{
    delete server;
}

} // namespace simcam
