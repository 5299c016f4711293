// Packets pass through unchanged. A descriptor that belongs to an answer cannot cross the port, so
// a replacement is made here: shared memory of this machine, or a socket for reports.

#include "clients.h"

#include <algorithm>
#include <errno.h>
#include <map>
#include <memory>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <tuple>
#include <unistd.h>

#include "wire.h"

static const char RUN_DIRECTORY[] = "/run/simcam";
static const char SOCKET_PATH[] = "/run/simcam/" SIMCAM_SOCKET_NAME;

// Shared memory; its last layout.size bytes are lent.
struct Memory {
    int fd = -1;
    uint8_t *base = nullptr;
    WireMemory layout = {};
    LinkPlane plane = {};
    uint32_t osd_id = 0; // of the current loan

    Memory() = default;
    Memory(const Memory &) = delete;
    Memory &operator=(const Memory &) = delete;
    ~Memory()
    {
        if (base)
            munmap(base, layout.map_size);
        if (fd >= 0)
            close(fd);
    }
};

struct Client {
    int socket = -1;
    int events = -1; // where reports of posts are sent
    std::unique_ptr<Memory> colors;
    std::map<std::tuple<uint32_t, uint32_t, uint32_t>, Memory> planes; // by post, number, buffer
};

static int listener = -1;
static uint16_t last_number;
static std::map<uint16_t, Client> clients;
static std::vector<uint16_t> polled; // the client of each entry after the listener's

// Returns a number from 1 to 0x7FFF; those above belong to the device.
static uint16_t free_number()
{
    do
        last_number = static_cast<uint16_t>(last_number % 0x7FFF + 1);
    while (clients.count(last_number));
    return last_number;
}

bool clients_listen()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, SOCKET_PATH, sizeof SOCKET_PATH);
    mkdir(RUN_DIRECTORY, 0755);
    unlink(SOCKET_PATH);
    listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener >= 0 && bind(listener, (const sockaddr *)&address, sizeof address) == 0 &&
        chmod(SOCKET_PATH, 0666) == 0 && listen(listener, 16) == 0)
        return true;
    fprintf(stderr, "camera-server: %s: %s\n", SOCKET_PATH, strerror(errno));
    return false;
}

static void forget(uint16_t number)
{
    const Client &client = clients[number];
    close(client.socket);
    if (client.events >= 0)
        close(client.events);
    clients.erase(number);
    port_send(LINK_CLOSE, number);
}

void clients_poll(std::vector<pollfd> *entries)
{
    polled.clear();
    entries->push_back({listener, POLLIN, 0});
    for (const auto &[number, client] : clients) {
        entries->push_back({client.socket, POLLIN, 0});
        polled.push_back(number);
    }
}

// ---- memory

static bool make_memory(Memory *memory, const WireMemory &layout)
{
    memory->fd = memfd_create("camera", MFD_CLOEXEC);
    memory->layout = layout;
    if (memory->fd < 0 || ftruncate(memory->fd, static_cast<off_t>(layout.map_size)) != 0)
        return false;
    void *base = mmap(nullptr, layout.map_size, PROT_READ | PROT_WRITE, MAP_SHARED, memory->fd, 0);
    if (base == MAP_FAILED)
        return false;
    memory->base = static_cast<uint8_t *>(base);
    memset(memory->base, 0xA5, layout.map_size); // exposes clients that rely on the initial content
    return true;
}

// Returns the memory that a reply describes, and makes it if it is new. Null if out of memory.
static Memory *plane_memory(Client &client, const WireOsdMem &reply)
{
    std::erase_if(client.planes, [&](const auto &entry) {
        const LinkPlane &plane = entry.second.plane;
        return plane.post == reply.post && plane.number == reply.number &&
               plane.epoch != reply.epoch; // of an earlier opening, which is closed
    });
    const auto [entry, fresh] = client.planes.try_emplace({reply.post, reply.number, reply.buffer});
    Memory &memory = entry->second;
    if (fresh && !make_memory(&memory, reply.memory)) {
        client.planes.erase(entry);
        return nullptr;
    }
    memory.plane = {reply.post, reply.number, reply.epoch, reply.buffer};
    memory.osd_id = reply.osd_id;
    return &memory;
}

static void send_memory(uint16_t type, uint16_t number, const Memory &memory)
{
    const bool plane = type == LINK_PLANE;
    port_send(type, number, &memory.plane, plane ? sizeof memory.plane : 0,
              memory.base + memory.layout.offset, memory.layout.size);
}

// ---- requests of the clients

// Sends the content of the memory that the call shows.
static void send_shown(uint16_t number, const Client &client, const uint8_t *packet, size_t size)
{
    WireHeader header;
    memcpy(&header, packet, sizeof header);
    if (header.call == WIRE_POST_SET_OSD_COLOR && client.colors)
        send_memory(LINK_COLORS, number, *client.colors);
    WireSetOsd request;
    if (header.call != WIRE_POST_SET_OSD || size != sizeof header + sizeof request)
        return;
    memcpy(&request, packet + sizeof header, sizeof request);
    for (const auto &[key, memory] : client.planes)
        if (memory.osd_id == request.osd_id)
            send_memory(LINK_PLANE, number, memory);
}

static void receive(uint16_t number)
{
    uint8_t packet[WIRE_REQUEST_MAX + 1];
    const ssize_t size = recv(clients[number].socket, packet, sizeof packet, MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (size < static_cast<ssize_t>(sizeof(WireHeader))) {
        forget(number);
        return;
    }
    send_shown(number, clients[number], packet, static_cast<size_t>(size));
    port_send(LINK_CALL, number, packet, static_cast<size_t>(size));
}

void clients_serve(const std::vector<pollfd> &entries)
{
    for (size_t i = 0; i < polled.size(); i++)
        if (entries[i + 1].revents && clients.count(polled[i]))
            receive(polled[i]);
    if (!(entries[0].revents & POLLIN))
        return;
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
        return;
    const uint16_t number = free_number();
    clients[number].socket = fd;
    port_send(LINK_OPEN, number);
}

// ---- answers of the camera

// Sends a packet, with the descriptor unless that is -1.
static bool send_packet(int socket, const uint8_t *bytes, size_t size, int fd)
{
    iovec part = {const_cast<uint8_t *>(bytes), size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (fd >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(head), &fd, sizeof fd);
    }
    return sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

template <typename Record> static bool payload(const std::vector<uint8_t> &packet, Record *record)
{
    if (packet.size() < sizeof(WireReply) + sizeof *record)
        return false;
    std::copy_n(packet.data() + sizeof(WireReply), sizeof *record,
                reinterpret_cast<uint8_t *>(record));
    return true;
}

// Returns the descriptor for a successful answer: -1 for none, -2 if it could not be made.
// Stores the size of the client's packet in *size, and in *owned whether to close the descriptor.
static int make_descriptor(Client &client, uint32_t call, const std::vector<uint8_t> &packet,
                           size_t *size, bool *owned)
{
    if (call == WIRE_LIBRARY_INIT) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
            return -2;
        client.events = ends[0];
        *owned = true;
        return ends[1];
    }
    if (call == WIRE_POST_GET_OSD_COLOR_MEM) {
        WireMemory layout;
        if (!payload(packet, &layout))
            return -2;
        *size = sizeof(WireReply) + sizeof layout;
        if (!client.colors) {
            auto colors = std::make_unique<Memory>();
            if (packet.size() != *size + layout.size || !make_memory(colors.get(), layout))
                return -2;
            memcpy(colors->base + layout.offset, packet.data() + *size, layout.size);
            client.colors = std::move(colors);
        }
        return client.colors->fd;
    }
    WireOsdMem reply;
    if (call == WIRE_POST_GET_OSD_MEM && payload(packet, &reply)) {
        const Memory *memory = plane_memory(client, reply);
        return memory ? memory->fd : -2;
    }
    return -1;
}

static bool take_reply(Client &client, const std::vector<uint8_t> &packet)
{
    WireReply reply;
    if (packet.size() < sizeof reply)
        return false;
    memcpy(&reply, packet.data(), sizeof reply);
    size_t size = packet.size();
    bool owned = false;
    const int fd =
        reply.result == 0 ? make_descriptor(client, reply.call, packet, &size, &owned) : -1;
    if (reply.result == 0 && reply.call == WIRE_LIBRARY_EXIT) {
        close(client.events);
        client.events = -1;
        client.colors.reset();
        client.planes.clear();
    }
    const bool sent = fd != -2 && send_packet(client.socket, packet.data(), size, fd);
    if (owned)
        close(fd);
    return sent;
}

bool clients_record(const Record &record)
{
    const auto found = clients.find(record.head.client);
    if (found == clients.end())
        return false;
    Client &client = found->second;
    bool good = record.head.type != LINK_GONE;
    if (record.head.type == LINK_REPLY)
        good = take_reply(client, record.bytes);
    else if (record.head.type == LINK_EVENT && client.events >= 0)
        (void)!send(client.events, record.bytes.data(), record.bytes.size(),
                    MSG_DONTWAIT | MSG_NOSIGNAL); // lost if the client does not read them
    if (!good)
        forget(found->first);
    return true;
}
