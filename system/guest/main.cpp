// Runs in the guest of a whole emulated camera, in place of a camera's drivers: makes /dev/cam,
// serves the codec library, and carries the calls of both to the bridge on the host. One thread,
// one poll.
//
// Goes into the background once everything is ready, so that a program started after it finds the
// camera. With the argument "late" it creates /dev/cam only when the host asks for it.

#include <algorithm>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "clients.h"
#include "device.h"
#include "overlay.h"
#include "port.h"

static void take_record(const Record &record)
{
    if (record.head.type != LINK_ACTION) {
        if (!device_record(record))
            clients_record(record);
        return;
    }
    uint32_t action = 0;
    if (record.bytes.size() < sizeof action)
        return;
    memcpy(&action, record.bytes.data(), sizeof action);
    const uint32_t done[2] = {action, 0};
    if (action == ACTION_DEVICE_REMOVE)
        device_remove();
    else if (action == ACTION_DEVICE_ADD)
        device_add();
    else {
        overlay_action(action,
                       std::string(record.bytes.begin() + sizeof action, record.bytes.end()));
        return;
    }
    port_send(LINK_DONE, 0, done, sizeof done);
}

[[noreturn]] static void serve(int port, int terminal)
{
    sigset_t children;
    sigemptyset(&children);
    sigaddset(&children, SIGCHLD);
    sigprocmask(SIG_BLOCK, &children, nullptr);
    const int ended = signalfd(-1, &children, SFD_CLOEXEC | SFD_NONBLOCK);
    const int clock = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    const itimerspec second = {{1, 0}, {1, 0}};
    timerfd_settime(clock, 0, &second, nullptr);

    for (;;) {
        std::vector<pollfd> entries = {{port, POLLIN, 0},
                                       {terminal, POLLIN, 0},
                                       {ended, POLLIN, 0},
                                       {clock, POLLIN, 0},
                                       {device_fd(), POLLIN, 0}};
        const size_t own = entries.size();
        clients_poll(&entries);
        poll(entries.data(), entries.size(), device_due());

        char ignored[sizeof(signalfd_siginfo)];
        if (entries[1].revents)
            overlay_output(terminal);
        if (entries[2].revents && read(ended, ignored, sizeof ignored) > 0)
            overlay_reap();
        if (entries[3].revents && read(clock, ignored, sizeof ignored) > 0)
            overlay_report();
        if (entries[4].revents)
            device_serve();
        entries.erase(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(own));
        clients_serve(entries);
        pollfd again = {port, POLLIN, 0};
        while (poll(&again, 1, 0) == 1) {
            Record record;
            if (!(again.revents & POLLIN) || !port_receive(&record)) {
                fprintf(stderr, "camera-server: the host no longer answers\n");
                _exit(1);
            }
            take_record(record);
        }
    }
}

int main(int count, char **arguments)
{
    const bool late = count > 1 && strcmp(arguments[1], "late") == 0;
    signal(SIGPIPE, SIG_IGN);
    const int port = port_open();
    if (port < 0) {
        fprintf(stderr, "camera-server: there is no virtio-serial port\n");
        return 1;
    }
    const int terminal = overlay_terminal();
    if (terminal < 0) {
        perror("camera-server: terminal of the overlay");
        return 1;
    }
    if (!clients_listen() || (!late && !device_add()))
        return 1;
    const pid_t server = fork();
    if (server < 0) {
        perror("camera-server: fork");
        return 1;
    }
    if (server > 0)
        return 0;
    setsid();
    port_send(LINK_HELLO, 0);
    serve(port, terminal);
}
