// Speaks the CUSE protocol of linux/fuse.h with the kernel: requests are read from /dev/cuse and
// answered in any order by their unique number.
//
// The host answers one call of a client at a time, so calls of several threads on one open file
// queue up here. A measurement whose reader no longer waits (it was interrupted, or reads without
// blocking) is kept: it answers the next read, and poll() reports it.

#include "device.h"

#include <deque>
#include <errno.h>
#include <fcntl.h>
#include <linux/fuse.h>
#include <map>
#include <optional>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "wire.h"

using Clock = std::chrono::steady_clock;

constexpr uint32_t CAM_FOCUS_CONFIG = 0x405C7000;
constexpr uint32_t CAM_FOCUS_READ = 0x80F47001;
// Without a camera, reads fail only after this time: nothing else limits the rate of the overlay's
// loop.
constexpr std::chrono::milliseconds LOST_CAMERA_PAUSE(33);

struct Answer {
    int error; // 0, or a positive errno number
    WireFocusStats stats;
};

struct Config {
    uint64_t unique;
    WireFocusConfig words;
};

struct File {
    bool waits = true;              // false: opened with O_NONBLOCK
    bool dead = false;              // the connection to the camera is closed
    uint32_t busy = 0;              // the WireCall that the host has not answered yet
    uint64_t opening = 0;           // unique of the open request, until it is answered
    std::deque<uint64_t> readers;   // uniques of waiting reads
    std::deque<Config> configs;     // the first one is under way if busy is WIRE_FOCUS_CONFIG
    std::optional<Answer> answer;   // a measurement not yet handed out
    std::optional<uint64_t> poller; // handle of a poll() to wake
};

static int cuse = -1;
static std::map<uint16_t, File> files; // by client number, which is the file's handle
static std::deque<std::pair<Clock::time_point, uint64_t>> late; // reads that fail at that time

// ---- answers to the kernel

static void answer_bytes(uint64_t unique, const void *first, size_t first_size,
                         const void *second = nullptr, size_t second_size = 0)
{
    const size_t size = sizeof(fuse_out_header) + first_size + second_size;
    fuse_out_header head = {static_cast<uint32_t>(size), 0, unique};
    const iovec parts[3] = {{&head, sizeof head},
                            {const_cast<void *>(first), first_size},
                            {const_cast<void *>(second), second_size}};
    (void)!writev(cuse, parts, 3); // fails if the request was given up
}

static void answer_error(uint64_t unique, int error)
{
    fuse_out_header head = {sizeof head, -error, unique};
    (void)!write(cuse, &head, sizeof head); // as above
}

static void answer_ioctl(uint64_t unique, const Answer &answer, bool with_stats)
{
    if (answer.error) {
        answer_error(unique, answer.error);
        return;
    }
    const fuse_ioctl_out out = {};
    answer_bytes(unique, &out, sizeof out, &answer.stats, with_stats ? sizeof answer.stats : 0);
}

static void wake_poller(File &file)
{
    if (!file.poller)
        return;
    struct {
        fuse_out_header head;
        fuse_notify_poll_wakeup_out wakeup;
    } notice = {{sizeof notice, FUSE_NOTIFY_POLL, 0}, {*file.poller}};
    file.poller.reset();
    (void)!write(cuse, &notice, sizeof notice); // fails if no process polls any more
}

// ---- calls to the host

static void call(uint16_t client, File &file, uint32_t number, const void *payload, size_t size)
{
    const WireHeader header = {WIRE_VERSION, number, 0};
    file.busy = number;
    port_send(LINK_CALL, client, &header, sizeof header, payload, size);
}

static void fail_late(uint64_t unique)
{
    late.emplace_back(Clock::now() + LOST_CAMERA_PAUSE, unique);
}

// Does the next possible step for the file.
static void advance(uint16_t client, File &file)
{
    if (file.dead) {
        for (const Config &config : file.configs)
            answer_error(config.unique, EIO);
        file.configs.clear();
        for (const uint64_t reader : file.readers)
            fail_late(reader);
        file.readers.clear();
        wake_poller(file);
        return;
    }
    if (file.busy)
        return;
    if (!file.configs.empty()) {
        file.answer.reset(); // measured with the previous window
        call(client, file, WIRE_FOCUS_CONFIG, &file.configs.front().words, sizeof(WireFocusConfig));
        return;
    }
    if (!file.readers.empty() && file.answer) {
        answer_ioctl(file.readers.front(), *file.answer, true);
        file.readers.pop_front();
        file.answer.reset();
    }
    if (!file.readers.empty() || (file.poller && !file.answer))
        call(client, file, WIRE_FOCUS_READ, nullptr, 0);
}

// ---- requests of the kernel

// Numbers from 0x8000; those below belong to processes.
static uint16_t free_number()
{
    static uint16_t last;
    do
        last = static_cast<uint16_t>((last + 1) | 0x8000);
    while (files.count(last));
    return last;
}

static void serve_open(uint64_t unique, const fuse_open_in &in)
{
    const uint16_t client = free_number();
    File &file = files[client];
    file.waits = !(in.flags & O_NONBLOCK);
    file.opening = unique;
    port_send(LINK_OPEN, client);
    call(client, file, WIRE_DEVICE_OPEN, nullptr, 0);
}

static void serve_ioctl(uint64_t unique, const fuse_ioctl_in &in, const uint8_t *data, size_t size)
{
    const auto found = files.find(static_cast<uint16_t>(in.fh));
    if (found == files.end()) {
        answer_error(unique, EBADF);
        return;
    }
    const uint16_t client = found->first;
    File &file = found->second;
    if (in.cmd == CAM_FOCUS_CONFIG && size >= sizeof(WireFocusConfig)) {
        Config config = {unique, {}};
        memcpy(config.words.bytes, data, sizeof config.words.bytes);
        file.configs.push_back(config);
    } else if (in.cmd == CAM_FOCUS_READ) {
        if (!file.waits && !file.dead && !(file.answer && file.readers.empty())) {
            answer_error(unique, EAGAIN);
            if (!file.busy && file.configs.empty())
                call(client, file, WIRE_FOCUS_READ, nullptr, 0);
            return;
        }
        file.readers.push_back(unique);
    } else {
        answer_error(unique, ENOTTY);
        return;
    }
    advance(client, file);
}

static void serve_poll(uint64_t unique, const fuse_poll_in &in)
{
    fuse_poll_out out = {};
    const auto found = files.find(static_cast<uint16_t>(in.fh));
    if (found == files.end() || found->second.dead) {
        out.revents = POLLERR | POLLIN | POLLRDNORM;
        answer_bytes(unique, &out, sizeof out);
        return;
    }
    File &file = found->second;
    if (file.answer)
        out.revents = POLLIN | POLLRDNORM;
    else
        file.poller = in.kh;
    answer_bytes(unique, &out, sizeof out);
    advance(found->first, file); // asks for a measurement if none is under way
    if (!(in.flags & FUSE_POLL_SCHEDULE_NOTIFY))
        file.poller.reset();
}

// The thread that made the request received a signal. Requests that were already answered are
// ignored.
static void serve_interrupt(const fuse_interrupt_in &in)
{
    for (auto &[client, file] : files) {
        for (auto reader = file.readers.begin(); reader != file.readers.end(); ++reader) {
            if (*reader != in.unique)
                continue;
            file.readers.erase(reader);
            answer_error(in.unique, EINTR);
            return;
        }
    }
}

static void close_file(uint16_t client)
{
    files.erase(client);
    port_send(LINK_CLOSE, client);
}

template <typename Record> static Record body(const uint8_t *request)
{
    Record record;
    memcpy(&record, request + sizeof(fuse_in_header), sizeof record);
    return record;
}

static void serve_request(const uint8_t *request, size_t size)
{
    fuse_in_header head;
    memcpy(&head, request, sizeof head);
    switch (head.opcode) {
    case FUSE_OPEN:
        serve_open(head.unique, body<fuse_open_in>(request));
        return;
    case FUSE_RELEASE:
        close_file(static_cast<uint16_t>(body<fuse_release_in>(request).fh));
        answer_error(head.unique, 0);
        return;
    case FUSE_IOCTL: {
        const size_t offset = sizeof head + sizeof(fuse_ioctl_in);
        serve_ioctl(head.unique, body<fuse_ioctl_in>(request), request + offset, size - offset);
        return;
    }
    case FUSE_POLL:
        serve_poll(head.unique, body<fuse_poll_in>(request));
        return;
    case FUSE_INTERRUPT:
        serve_interrupt(body<fuse_interrupt_in>(request));
        return;
    default: // plain reads and writes: measurements come by request only
        answer_error(head.unique, EINVAL);
    }
}

void device_serve()
{
    static uint8_t request[128 * 1024];
    while (cuse >= 0) {
        const ssize_t size = read(cuse, request, sizeof request);
        if (size < static_cast<ssize_t>(sizeof(fuse_in_header)))
            return;
        serve_request(request, static_cast<size_t>(size));
    }
}

// ---- the device itself

bool device_add()
{
    if (cuse >= 0)
        return true;
    cuse = open("/dev/cuse", O_RDWR | O_CLOEXEC | O_NONBLOCK);
    uint8_t request[FUSE_MIN_READ_BUFFER];
    pollfd entry = {cuse, POLLIN, 0};
    if (cuse < 0 || poll(&entry, 1, 5000) != 1 || read(cuse, request, sizeof request) < 0) {
        fprintf(stderr, "camera-server: /dev/cuse: %s\n", strerror(errno));
        return false;
    }
    fuse_in_header head;
    memcpy(&head, request, sizeof head);
    cuse_init_out out = {};
    out.major = FUSE_KERNEL_VERSION;
    out.minor = FUSE_KERNEL_MINOR_VERSION;
    out.max_read = out.max_write = 64 * 1024;
    static const char name[] = "DEVNAME=cam";
    answer_bytes(head.unique, &out, sizeof out, name, sizeof name);

    struct stat status;
    for (int tries = 0; tries < 500; tries++, usleep(10000))
        if (stat("/dev/cam", &status) == 0 && S_ISCHR(status.st_mode))
            return true;
    fprintf(stderr, "camera-server: /dev/cam does not appear\n");
    return false;
}

void device_remove()
{
    if (cuse >= 0)
        close(cuse);
    cuse = -1;
    late.clear();
    while (!files.empty())
        close_file(files.begin()->first);
}

int device_fd()
{
    return cuse;
}

// ---- answers of the host

static void take_reply(uint16_t client, File &file, const std::vector<uint8_t> &packet)
{
    WireReply reply = {};
    memcpy(&reply, packet.data(), sizeof reply);
    const int error = reply.result == 0 ? 0 : static_cast<int>(reply.error);
    file.busy = 0;
    switch (reply.call) {
    case WIRE_DEVICE_OPEN:
        if (error == 0) {
            const fuse_open_out out = {client, FOPEN_DIRECT_IO | FOPEN_NONSEEKABLE, 0};
            answer_bytes(file.opening, &out, sizeof out);
            file.opening = 0;
        } else {
            answer_error(file.opening, error);
            close_file(client);
        }
        return;
    case WIRE_FOCUS_CONFIG:
        answer_ioctl(file.configs.front().unique, {error, {}}, false);
        file.configs.pop_front();
        return;
    default:
        file.answer = Answer{error, {}};
        if (error == 0 && packet.size() >= sizeof reply + sizeof(WireFocusStats))
            memcpy(&file.answer->stats, packet.data() + sizeof reply, sizeof(WireFocusStats));
        if (file.readers.empty())
            wake_poller(file);
    }
}

bool device_record(const Record &record)
{
    const uint16_t client = record.head.client;
    const auto found = files.find(client);
    if (found == files.end())
        return false;
    File &file = found->second;
    if (record.head.type == LINK_REPLY && record.bytes.size() >= sizeof(WireReply)) {
        take_reply(client, file, record.bytes);
    } else if (record.head.type == LINK_GONE && file.opening) {
        answer_error(file.opening, EIO);
        close_file(client);
    } else if (record.head.type == LINK_GONE) {
        file.dead = true;
    }
    if (files.count(client))
        advance(client, files[client]);
    return true;
}

int device_due()
{
    const Clock::time_point now = Clock::now();
    while (!late.empty() && late.front().first <= now) {
        answer_error(late.front().second, EIO);
        late.pop_front();
    }
    if (late.empty())
        return -1;
    const auto left = late.front().first - now;
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
}
