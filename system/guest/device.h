// /dev/cam: a character device served through /dev/cuse. Every open file of it is a client of the
// link, numbered by its handle.
#pragma once

#include <chrono>
#include <stdint.h>

#include "port.h"

// Makes the device. Returns once /dev/cam exists; false with a message where it cannot be made.
bool device_add();
// Removes it: calls on open files fail from now on.
void device_remove();
// What to poll for requests; -1 while there is no device.
int device_fd();
// Serves the requests that are there.
void device_serve();
// Whether the client is an open file of the device; then takes its record from the host.
bool device_record(const Record &record);
// Answers reads of files whose camera has gone that are due; milliseconds to the next one, or -1.
int device_due();
