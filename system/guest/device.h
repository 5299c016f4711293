// /dev/cam: a character device served through /dev/cuse. Every open file is a client of the link,
// numbered by its handle.
#pragma once

#include <chrono>
#include <stdint.h>

#include "port.h"

// Makes the device. Returns once /dev/cam exists; on failure prints a message and returns false.
bool device_add();
// Removes it: calls on open files fail from now on.
void device_remove();
// Returns the descriptor to poll for requests; -1 while there is no device.
int device_fd();
// Serves pending requests.
void device_serve();
// Handles a record from the host if its client is an open file; returns whether it is.
bool device_record(const Record &record);
// Answers the delayed reads of files without a camera that are due. Returns the milliseconds until
// the next one, or -1.
int device_due();
