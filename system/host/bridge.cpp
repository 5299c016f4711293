#include "bridge.h"

#include <cerrno>
#include <cstring>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

Mapping::~Mapping()
{
    if (base)
        munmap(base, layout.map_size);
}

bool Mapping::map(int fd, const WireMemory &memory)
{
    void *space = mmap(nullptr, memory.map_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (space == MAP_FAILED)
        return false;
    base = static_cast<uint8_t *>(space);
    layout = memory;
    return true;
}

void Mapping::store(const uint8_t *bytes, size_t size) const
{
    if (base)
        std::memcpy(base + layout.offset, bytes, std::min<size_t>(size, layout.size));
}

BridgeClient::~BridgeClient()
{
    for (const int fd : {connection, events})
        if (fd >= 0)
            close(fd);
}

// ---- to the guest

static bool send_record(const Bridge &bridge, uint16_t type, uint16_t client, const void *first,
                        size_t first_size, const void *second = nullptr, size_t second_size = 0)
{
    const LinkHead head = {static_cast<uint32_t>(first_size + second_size), type, client};
    std::vector<uint8_t> bytes(sizeof head + head.size);
    std::memcpy(bytes.data(), &head, sizeof head);
    if (first_size)
        std::memcpy(bytes.data() + sizeof head, first, first_size);
    if (second_size)
        std::memcpy(bytes.data() + sizeof head + first_size, second, second_size);
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t sent =
            send(bridge.link, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR)
            return false;
        done += sent > 0 ? static_cast<size_t>(sent) : 0;
    }
    return true;
}

bool bridge_act(const Bridge &bridge, uint32_t action, const std::string &text)
{
    return send_record(bridge, LINK_ACTION, 0, &action, sizeof action, text.data(), text.size());
}

static void drop(Bridge &bridge, uint16_t number)
{
    bridge.clients.erase(number);
    send_record(bridge, LINK_GONE, number, nullptr, 0);
}

// ---- from simcam

static void take_plane(BridgeClient &client, const WireOsdMem &reply, int fd)
{
    const uint32_t key = reply.post << 16 | reply.number << 8 | reply.buffer;
    const auto found = client.planes.find(key);
    if (found != client.planes.end() && found->second.plane.epoch == reply.epoch)
        return; // already known
    if (found != client.planes.end())
        client.planes.erase(found);
    BridgePlane &plane = client.planes[key];
    plane.plane = {reply.post, reply.number, reply.epoch, reply.buffer};
    plane.memory.map(fd, reply.memory);
}

// Takes the descriptor received with a successful answer.
static void take_descriptor(BridgeClient &client, uint32_t call, const uint8_t *payload, int fd)
{
    if (call == WIRE_LIBRARY_INIT) {
        if (client.events >= 0)
            close(client.events);
        client.events = fd;
        return;
    }
    WireMemory memory;
    WireOsdMem plane;
    if (call == WIRE_POST_GET_OSD_COLOR_MEM && !client.colors.base) {
        std::memcpy(&memory, payload, sizeof memory);
        client.colors.map(fd, memory);
    } else if (call == WIRE_POST_GET_OSD_MEM) {
        std::memcpy(&plane, payload, sizeof plane);
        take_plane(client, plane, fd);
    }
    close(fd);
}

static ssize_t receive_packet(int connection, uint8_t *packet, size_t size, int *fd)
{
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec part = {packet, size};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t length = recvmsg(connection, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    const cmsghdr *head = length < 0 ? nullptr : CMSG_FIRSTHDR(&message);
    *fd = -1;
    if (head && head->cmsg_level == SOL_SOCKET && head->cmsg_type == SCM_RIGHTS)
        std::memcpy(fd, CMSG_DATA(head), sizeof(int));
    return length;
}

static void serve_reply(Bridge &bridge, uint16_t number, BridgeClient &client)
{
    uint8_t packet[WIRE_REPLY_MAX];
    int fd = -1;
    const ssize_t length = receive_packet(client.connection, packet, sizeof packet, &fd);
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    WireReply reply;
    if (length < static_cast<ssize_t>(sizeof reply)) {
        drop(bridge, number);
        return;
    }
    std::memcpy(&reply, packet, sizeof reply);
    if (fd >= 0)
        take_descriptor(client, reply.call, packet + sizeof reply, fd);
    const bool colors =
        reply.result == 0 && reply.call == WIRE_POST_GET_OSD_COLOR_MEM && client.colors.base;
    send_record(bridge, LINK_REPLY, number, packet, static_cast<size_t>(length),
                colors ? client.colors.base + client.colors.layout.offset : nullptr,
                colors ? client.colors.layout.size : 0);
}

static void serve_event(const Bridge &bridge, uint16_t number, BridgeClient &client)
{
    WireNotify notify;
    const ssize_t length = recv(client.events, &notify, sizeof notify, MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (length == static_cast<ssize_t>(sizeof notify)) {
        send_record(bridge, LINK_EVENT, number, &notify, sizeof notify);
        return;
    }
    close(client.events);
    client.events = -1;
}

// ---- from the guest

static int connect_camera(const std::string &run_directory)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = run_directory + "/" SIMCAM_SOCKET_NAME;
    if (run_directory.empty() || path.size() >= sizeof address.sun_path)
        return -1;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    const int connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (connect(connection, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        return connection;
    close(connection);
    return -1;
}

static void take_plane_bytes(BridgeClient &client, Bridge &bridge, const uint8_t *bytes,
                             size_t size)
{
    LinkPlane plane;
    if (size < sizeof plane)
        return;
    std::memcpy(&plane, bytes, sizeof plane);
    const auto found = client.planes.find(plane.post << 16 | plane.number << 8 | plane.buffer);
    if (found == client.planes.end() || found->second.plane.epoch != plane.epoch)
        return; // the plane was opened again meanwhile; simcam refuses to show this memory
    found->second.memory.store(bytes + sizeof plane, size - sizeof plane);
    bridge.shows++;
    if (plane.post < WIRE_POSTS && plane.number == 1)
        bridge.shown[plane.post] = true;
}

static void take_client_record(Bridge &bridge, const LinkHead &head, const uint8_t *bytes)
{
    if (head.type == LINK_OPEN) {
        bridge.clients.erase(head.client);
        const int connection = connect_camera(bridge.run_directory);
        if (connection < 0)
            send_record(bridge, LINK_GONE, head.client, nullptr, 0);
        else
            bridge.clients[head.client].connection = connection;
        return;
    }
    const auto found = bridge.clients.find(head.client);
    if (found == bridge.clients.end())
        return; // the guest was already told that this client is gone
    if (head.type == LINK_CLOSE)
        bridge.clients.erase(found);
    else if (head.type == LINK_PLANE)
        take_plane_bytes(found->second, bridge, bytes, head.size);
    else if (head.type == LINK_COLORS)
        found->second.colors.store(bytes, head.size);
    else if (send(found->second.connection, bytes, head.size, MSG_NOSIGNAL) < 0)
        drop(bridge, head.client);
}

static void take_record(Bridge &bridge, const LinkHead &head, const uint8_t *bytes)
{
    Bridge::Done done;
    switch (head.type) {
    case LINK_HELLO:
        bridge.up = true;
        return;
    case LINK_OUTPUT:
        bridge.output.append(reinterpret_cast<const char *>(bytes), head.size);
        return;
    case LINK_PROCESS:
        if (head.size == sizeof bridge.process)
            std::memcpy(&bridge.process, bytes, sizeof bridge.process);
        return;
    case LINK_DONE:
        if (head.size == sizeof done) {
            std::memcpy(&done, bytes, sizeof done);
            bridge.done.push_back(done);
        }
        return;
    default:
        take_client_record(bridge, head, bytes);
    }
}

static bool receive_link(Bridge &bridge)
{
    static uint8_t bytes[256 * 1024];
    const ssize_t length = recv(bridge.link, bytes, sizeof bytes, MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return true;
    if (length <= 0)
        return false;
    bridge.received.insert(bridge.received.end(), bytes, bytes + length);
    size_t at = 0;
    while (bridge.received.size() - at >= sizeof(LinkHead)) {
        LinkHead head;
        std::memcpy(&head, bridge.received.data() + at, sizeof head);
        if (head.size > LINK_SIZE_MAX)
            return false;
        if (bridge.received.size() - at - sizeof head < head.size)
            break;
        take_record(bridge, head, bridge.received.data() + at + sizeof head);
        at += sizeof head + head.size;
    }
    bridge.received.erase(bridge.received.begin(),
                          bridge.received.begin() + static_cast<std::ptrdiff_t>(at));
    return true;
}

// ---- both

void bridge_poll(const Bridge &bridge, std::vector<pollfd> *entries)
{
    entries->push_back({bridge.link, POLLIN, 0});
    for (const auto &[number, client] : bridge.clients) {
        entries->push_back({client.connection, POLLIN, 0});
        entries->push_back({client.events, POLLIN, 0});
    }
}

bool bridge_serve(Bridge &bridge, const std::vector<pollfd> &entries)
{
    std::vector<uint16_t> numbers; // in the order of entries; serving may remove clients
    for (const auto &entry : bridge.clients)
        numbers.push_back(entry.first);
    for (size_t i = 0; i < numbers.size(); i++) {
        if (entries[2 * i + 2].revents)
            serve_event(bridge, numbers[i], bridge.clients.at(numbers[i]));
        if (entries[2 * i + 1].revents)
            serve_reply(bridge, numbers[i], bridge.clients.at(numbers[i]));
    }
    return !entries[0].revents || receive_link(bridge);
}
