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
    unsigned pid = 0;
    if (!file)
        return 0;
    if (fscanf(file, "%u", &pid) != 1)
        pid = 0;
    fclose(file);
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
    unsigned long user = 0, system = 0;
    long pages = 0;
    const char *name_end = strrchr(text, ')');
    if (name_end &&
        sscanf(name_end + 1,
               " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu %*d %*d %*d %*d %*d %*d"
               " %*u %*u %ld",
               &user, &system, &pages) == 3) {
        const auto hertz = static_cast<unsigned long>(sysconf(_SC_CLK_TCK));
        process.cpu_ms = static_cast<uint32_t>((user + system) * 1000 / hertz);
        process.resident_kib = static_cast<uint32_t>(pages * (sysconf(_SC_PAGESIZE) / 1024));
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
