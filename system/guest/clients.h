// Processes that use the codec library: the clients of the socket in the run directory, and the
// memory that they draw into.
#pragma once

#include <poll.h>
#include <stdint.h>
#include <vector>

#include "port.h"

// Listens on the socket. On failure prints a message and returns false.
bool clients_listen();
// Adds the entries to poll, and serves those that are ready.
void clients_poll(std::vector<pollfd> *entries);
void clients_serve(const std::vector<pollfd> &entries);
// Handles a record from the host if its client is one of these; returns whether it is.
bool clients_record(const Record &record);
