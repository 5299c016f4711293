// Talking to simcam over its socket. Needs the C library only: it is loaded into any program.

#include "client.h"

#include <atomic>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// Set by the first explanation: one per process is enough. Exported, so that the library and the
// preload object share it.
extern "C" __attribute__((visibility("default"))) std::atomic_flag simcam_explained;
std::atomic_flag simcam_explained;
static std::atomic<uint32_t> last_number;

static void explain(const char *why, const char *detail)
{
    if (simcam_explained.test_and_set())
        return;
    fprintf(stderr,
            "simcam: there is no simulated camera: %s%s. "
            "Start the program with \"simcam -- PROGRAM\", or set " SIMCAM_RUN_DIR_VARIABLE
            " to the run directory of a simcam that runs.\n",
            why, detail);
    fflush(stderr);
}

void client_check()
{
    const char *directory = getenv(SIMCAM_RUN_DIR_VARIABLE);
    if (!directory || !directory[0])
        explain(SIMCAM_RUN_DIR_VARIABLE, " is not set");
}

bool client_path(char *path, size_t size, const char *name)
{
    const char *directory = getenv(SIMCAM_RUN_DIR_VARIABLE);
    if (!directory || !directory[0])
        return false;
    const int length = snprintf(path, size, "%s/%s", directory, name);
    return length > 0 && (size_t)length < size;
}

int client_connect()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (!client_path(address.sun_path, sizeof address.sun_path, SIMCAM_SOCKET_NAME)) {
        const char *directory = getenv(SIMCAM_RUN_DIR_VARIABLE);
        if (directory && directory[0])
            explain(SIMCAM_RUN_DIR_VARIABLE " is too long: ", directory);
        else
            explain(SIMCAM_RUN_DIR_VARIABLE, " is not set");
        return -1;
    }

    const int connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (connection < 0) {
        explain("socket: ", strerror(errno));
        return -1;
    }
    if (connect(connection, (const sockaddr *)&address, sizeof address) != 0) {
        explain("nothing answers at ", address.sun_path);
        close(connection);
        return -1;
    }
    return connection;
}

static int send_whole(int connection, const void *packet, size_t size)
{
    for (;;) {
        const ssize_t sent = send(connection, packet, size, MSG_NOSIGNAL);
        if (sent >= 0)
            return (size_t)sent == size ? 0 : -1;
        if (errno != EINTR)
            return -1;
    }
}

// Waits until the connection is readable; starts again after a signal.
static int wait_readable(int connection)
{
    for (;;) {
        pollfd entry = {connection, POLLIN, 0};
        const int ready = poll(&entry, 1, CLIENT_TIMEOUT_MS);
        if (ready > 0)
            return 0;
        if (ready == 0 || errno != EINTR)
            return -1;
    }
}

// Receives one packet and at most one descriptor. Returns its size, or -1.
static ssize_t receive(int connection, void *packet, size_t size, int *fd)
{
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec part = {packet, size};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;

    ssize_t length;
    do
        length = recvmsg(connection, &message, MSG_CMSG_CLOEXEC);
    while (length < 0 && errno == EINTR);
    if (length < 0)
        return -1;

    *fd = -1;
    const cmsghdr *head = CMSG_FIRSTHDR(&message);
    if (head && head->cmsg_level == SOL_SOCKET && head->cmsg_type == SCM_RIGHTS &&
        head->cmsg_len == CMSG_LEN(sizeof(int)))
        memcpy(fd, CMSG_DATA(head), sizeof(int));
    return (message.msg_flags & MSG_TRUNC) ? -1 : length;
}

int client_send(int connection, uint32_t call, const void *request, uint32_t *number)
{
    uint8_t packet[WIRE_REQUEST_MAX];
    const WireHeader header = {WIRE_VERSION, call, ++last_number};
    memcpy(packet, &header, sizeof header);
    const uint32_t request_size = wire_request_size(call);
    if (request_size)
        memcpy(packet + sizeof header, request, request_size);
    *number = header.number;
    return send_whole(connection, packet, sizeof header + request_size);
}

int client_receive(int connection, uint32_t call, uint32_t number, void *reply, int *fd,
                   uint32_t *error)
{
    uint8_t packet[WIRE_REPLY_MAX];
    int received = -1;
    const ssize_t length = receive(connection, packet, sizeof packet, &received);
    WireReply head = {};
    bool good = length >= (ssize_t)sizeof head;
    if (good) {
        memcpy(&head, packet, sizeof head);
        const size_t payload = head.result == 0 ? wire_reply_size(call) : 0;
        good = head.version == WIRE_VERSION && head.call == call && head.number == number &&
               (size_t)length == sizeof head + payload;
        if (good && payload)
            memcpy(reply, packet + sizeof head, payload);
    }
    if (received >= 0 && (!good || !fd)) {
        close(received);
        received = -1;
    }
    if (fd)
        *fd = received;
    if (!good) {
        client_lost();
        return -1;
    }
    *error = head.result == 0 ? 0 : head.error;
    return 0;
}

void client_lost()
{
    explain("the camera does not answer any more", "");
}

int client_call(int connection, uint32_t call, const void *request, void *reply, int *fd,
                uint32_t *error)
{
    uint32_t number = 0;
    if (fd)
        *fd = -1;
    if (client_send(connection, call, request, &number) != 0 || wait_readable(connection) != 0) {
        client_lost();
        return -1;
    }
    return client_receive(connection, call, number, reply, fd, error);
}
