// The overlay writes to a terminal rather than a pipe, so its output arrives line by line, as on a
// console.

#include "overlay.h"

#include <deque>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "port.h"

static const char TERMINAL[] = "/run/overlay-terminal";
static const char PID_FILE[] = "/var/run/focus_assist.pid";
static const char EXECUTABLE[] = "/usr/local/bin/focus_assist";
static const char COMMAND[] = "/usr/sbin/camera-action"; // takes the name of an action

int overlay_terminal()
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
        return -1;
    const char *name = ptsname(master);
    unlink(TERMINAL);
    if (!name || symlink(name, TERMINAL) != 0)
        return -1;
    const int slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC); // kept: without one, reads fail
    termios settings;
    if (slave < 0 || tcgetattr(slave, &settings) != 0)
        return -1;
    cfmakeraw(&settings);
    return tcsetattr(slave, TCSANOW, &settings) == 0 ? master : -1;
}

void overlay_output(int terminal)
{
    char bytes[4096];
    const ssize_t length = read(terminal, bytes, sizeof bytes);
    if (length > 0)
        port_send(LINK_OUTPUT, 0, bytes, static_cast<size_t>(length));
}

// ---- the process

static uint32_t find_overlay()
{
    FILE *file = fopen(PID_FILE, "r");
    char text[16] = {};
    if (!file)
        return 0;
    (void)!fread(text, 1, sizeof text - 1, file);
    fclose(file);
    const auto pid = static_cast<uint32_t>(strtoul(text, nullptr, 10)); // 0 where it is no number
    char link[64], name[256] = {};
    snprintf(link, sizeof link, "/proc/%u/exe", pid);
    if (readlink(link, name, sizeof name - 1) < 0 || strcmp(name, EXECUTABLE) != 0)
        return 0;
    return pid;
}

void overlay_report()
{
    LinkProcess process = {find_overlay(), 0, 0};
    char path[64], text[1024] = {};
    snprintf(path, sizeof path, "/proc/%u/stat", process.pid);
    FILE *file = process.pid ? fopen(path, "r") : nullptr;
    if (file) {
        (void)!fread(text, 1, sizeof text - 1, file);
        fclose(file);
    }
    // The fields behind the name and the state, by their numbers in proc(5).
    enum { PARENT = 4, USER_TIME = 14, SYSTEM_TIME = 15, RESIDENT_PAGES = 24 };
    char *at = strrchr(text, ')');
    if (at && strlen(at) > 4) {
        at += 4;
        unsigned long long field[RESIDENT_PAGES + 1] = {};
        for (int number = PARENT; number <= RESIDENT_PAGES; number++)
            field[number] = strtoull(at, &at, 10);
        const auto hertz = static_cast<unsigned long long>(sysconf(_SC_CLK_TCK));
        const auto page = static_cast<unsigned long long>(sysconf(_SC_PAGESIZE));
        process.cpu_ms =
            static_cast<uint32_t>((field[USER_TIME] + field[SYSTEM_TIME]) * 1000 / hertz);
        process.resident_kib = static_cast<uint32_t>(field[RESIDENT_PAGES] * (page / 1024));
    }
    port_send(LINK_PROCESS, 0, &process, sizeof process);
}

// ---- actions

struct Action {
    uint32_t number;
    std::string text;
};
static std::deque<Action> actions; // the first one runs
static pid_t command;

static void start_next()
{
    if (command || actions.empty())
        return;
    const Action &action = actions.front();
    const size_t number = action.number < LINK_ACTIONS ? action.number : 0;
    command = fork();
    if (command == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        signal(SIGPIPE, SIG_DFL);
        setsid();
        const int terminal = open(TERMINAL, O_WRONLY | O_NOCTTY);
        dup2(terminal, 1);
        dup2(terminal, 2);
        close(terminal);
        execl(COMMAND, COMMAND, LINK_ACTION_NAMES[number], action.text.c_str(),
              static_cast<char *>(nullptr));
        _exit(127);
    }
}

void overlay_action(uint32_t action, const std::string &text)
{
    actions.push_back({action, text});
    start_next();
}

void overlay_reap()
{
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        if (pid != command)
            continue;
        const uint32_t done[2] = {actions.front().number, static_cast<uint32_t>(status)};
        actions.pop_front();
        command = 0;
        overlay_report();
        port_send(LINK_DONE, 0, done, sizeof done);
    }
    start_next();
}
