#include "port.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static const char PORT[] = "/dev/vport0p1"; // the first port of the first virtio-serial device
static int port = -1;

int port_open()
{
    for (int tries = 0; tries < 500 && port < 0; tries++) {
        port = open(PORT, O_RDWR | O_CLOEXEC);
        if (port < 0)
            usleep(20000);
    }
    return port;
}

static bool read_whole(void *bytes, size_t size)
{
    for (size_t done = 0; done < size;) {
        const ssize_t length = read(port, static_cast<uint8_t *>(bytes) + done, size - done);
        if (length > 0)
            done += static_cast<size_t>(length);
        else if (length == 0 || (errno != EINTR && errno != EAGAIN))
            return false;
    }
    return true;
}

bool port_receive(Record *record)
{
    if (!read_whole(&record->head, sizeof record->head) || record->head.size > LINK_SIZE_MAX)
        return false;
    record->bytes.resize(record->head.size);
    return record->bytes.empty() || read_whole(record->bytes.data(), record->bytes.size());
}

static void write_whole(const void *bytes, size_t size)
{
    for (size_t done = 0; done < size;) {
        const ssize_t length = write(port, static_cast<const uint8_t *>(bytes) + done, size - done);
        if (length > 0) {
            done += static_cast<size_t>(length);
        } else if (length == 0 || (errno != EINTR && errno != EAGAIN)) {
            fprintf(stderr, "camera-server: %s: %s\n", PORT, strerror(errno));
            exit(1);
        }
    }
}

void port_send(uint16_t type, uint16_t client, const void *first, size_t first_size,
               const void *second, size_t second_size)
{
    const LinkHead head = {static_cast<uint32_t>(first_size + second_size), type, client};
    if (second_size < 4096) { // saves writes: each is a transfer of the emulated device
        uint8_t packet[sizeof head + 8192];
        if (first_size <= 4096) {
            memcpy(packet, &head, sizeof head);
            if (first_size)
                memcpy(packet + sizeof head, first, first_size);
            if (second_size)
                memcpy(packet + sizeof head + first_size, second, second_size);
            write_whole(packet, sizeof head + first_size + second_size);
            return;
        }
    }
    write_whole(&head, sizeof head);
    write_whole(first, first_size);
    write_whole(second, second_size);
}
