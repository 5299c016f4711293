// The open files of /dev/cam in this process.
#pragma once

#include <poll.h>

// Opens the device with the flags of open(). Returns its descriptor, or -1 with errno set.
int device_open(int flags);

// Whether fd refers to an open device. Preserves errno.
bool device_is(int fd);

// Makes the request if it is one of the camera or fd refers to an open device: *result is then that
// of ioctl(). Returns false otherwise.
bool device_ioctl(int fd, unsigned long request, void *argument, int *result);

// Asks for the next measurement of each device among the entries that poll() is to wait for; the
// answer makes the device readable.
void device_prepare_poll(pollfd *entries, nfds_t count);

// Ends the connections of the devices to which no descriptor refers any more. Preserves errno.
void device_close_unused();
