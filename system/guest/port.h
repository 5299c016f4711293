// The guest's end of the link: whole records over the virtio-serial port.
#pragma once

#include <stdint.h>
#include <string>
#include <vector>

#include "link.h"

struct Record {
    LinkHead head;
    std::vector<uint8_t> bytes;
};

// Opens the port, waiting up to ten seconds for its driver. Returns the descriptor or -1.
int port_open();
// Waits for a record and reads it. Returns false if the port failed.
bool port_receive(Record *record);
// Writes a record made of up to two pieces. Exits if the port failed: the server cannot work
// without it.
void port_send(uint16_t type, uint16_t client, const void *first = nullptr, size_t first_size = 0,
               const void *second = nullptr, size_t second_size = 0);
