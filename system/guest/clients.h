// Processes that use the codec library: the clients of the socket in the run directory, and the
// memory that they draw into.
#pragma once

#include <poll.h>
#include <stdint.h>
#include <vector>

#include "port.h"

// Listens on the socket. False with a message where it cannot.
bool clients_listen();
// Adds what to poll, and serves what was found there.
void clients_poll(std::vector<pollfd> *entries);
void clients_serve(const std::vector<pollfd> &entries);
// Whether the client is one of these; then takes its record from the host.
bool clients_record(const Record &record);
