// Runs a whole emulated camera: an emulator that runs Linux for ARM, and simcam, whose program is
// the overlay in that guest.
//
//   simcam-system [options] -- SIMCAM ARGS...   boots the guest and starts simcam
//   simcam-system --attach SOCKET               started by simcam in place of the overlay
//   simcam-system --send SOCKET ACTION          asks a running one for an action of the guest
//
// The attached process prints the overlay's output. Stopping it stops the overlay in the guest,
// killing it kills the overlay, starting it starts the overlay.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "bridge.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

static const char USAGE[] =
    "usage: simcam-system [--image DIRECTORY] [--packaged-kernel] [--console] [--log FILE]\n"
    "                     [--memory MIB] [--append TEXT] [--socket FILE] [--once] -- SIMCAM "
    "ARGS...\n"
    "       simcam-system --send SOCKET start|stop|kill|power-off|device-remove|device-add\n"
    "       simcam-system --send SOCKET sh COMMAND\n"
    "Boots an emulated ARM camera from the files of scripts/system-image and starts simcam with "
    "the\n"
    "overlay of that camera as its program. Ends when simcam ends.\n"
    "  --image DIRECTORY   directory with the files of scripts/system-image (default: "
    "build/system)\n"
    "  --packaged-kernel   boot the distribution's compressed kernel even if a faster one is "
    "available\n"
    "  --console           run a shell of the guest on this terminal; Control-A X powers the guest "
    "off\n"
    "  --log FILE          write the guest's console output to FILE (default: a temporary file)\n"
    "  --memory MIB        memory of the guest (default: 128)\n"
    "  --append TEXT       append TEXT to the kernel's command line\n"
    "  --socket FILE       control socket that --send uses (default: a temporary one)\n"
    "  --once              exit when the guest powers itself off, instead of booting again\n";

struct Options {
    std::string image = "build/system";
    std::string log;
    std::string append;
    std::string memory = "128";
    std::string socket;
    bool packaged_kernel = false;
    bool console = false;
    bool once = false;
    std::vector<std::string> simcam;
};

// A guest that is not up after this time is considered unable to boot.
constexpr std::chrono::seconds BOOT_TIMEOUT(180);
// A guest that has not powered itself off after this time is killed.
constexpr std::chrono::seconds POWER_OFF_TIMEOUT(60);

// Messages from and to a process on the control socket.
enum ControlType : uint32_t {
    CONTROL_ATTACH = 1, // text: simcam's run directory
    CONTROL_ACTION,     // value: a LinkAction; text: the command of ACTION_SHELL
    CONTROL_OUTPUT,     // text: output of the overlay
    CONTROL_DONE,       // value: exit status of the requested action
};
struct Control {
    uint32_t type;
    uint32_t value;
    char text[4096];
};

[[noreturn]] static void refuse(const std::string &why)
{
    std::fprintf(stderr, "simcam-system: %s\n", why.c_str());
    std::exit(2);
}

static void say(const std::string &what)
{
    std::fprintf(stderr, "simcam-system: %s\n", what.c_str());
}

// ---- the control socket

static sockaddr_un control_address(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        refuse("the socket's name is too long: " + path);
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

static int control_connect(const std::string &path)
{
    const sockaddr_un address = control_address(path);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        refuse(path + ": " + std::strerror(errno));
    return fd;
}

static bool control_send(int fd, ControlType type, uint32_t value, const std::string &text = {})
{
    Control control = {type, value, {}};
    const size_t length = std::min(text.size(), sizeof control.text);
    std::memcpy(control.text, text.data(), length);
    const size_t size = offsetof(Control, text) + length;
    return send(fd, &control, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

// Returns the bytes of text, or -1 if the other end is closed.
static ssize_t control_receive(int fd, Control *control)
{
    const ssize_t size = recv(fd, control, sizeof *control, 0);
    constexpr ssize_t head = offsetof(Control, text);
    return size < head ? -1 : size - head;
}

// ---- attached: simcam's program

// Exits as a program that does not handle the signal.
[[noreturn]] static void end_by(int signal_number)
{
    signal(signal_number, SIG_DFL);
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal_number);
    sigprocmask(SIG_UNBLOCK, &one, nullptr);
    raise(signal_number);
    std::exit(1);
}

static int attach(const std::string &path)
{
    const char *directory = std::getenv(SIMCAM_RUN_DIR_VARIABLE);
    if (!directory)
        refuse("--attach: simcam starts this");
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    const int asked = signalfd(-1, &signals, SFD_CLOEXEC);
    const int control = control_connect(path);
    control_send(control, CONTROL_ATTACH, 0, directory);
    int ending = 0;
    for (;;) {
        pollfd entries[2] = {{control, POLLIN, 0}, {asked, POLLIN, 0}};
        poll(entries, 2, -1);
        signalfd_siginfo info;
        if (entries[1].revents && read(asked, &info, sizeof info) == sizeof info && !ending) {
            ending = static_cast<int>(info.ssi_signo);
            control_send(control, CONTROL_ACTION, ACTION_STOP);
        }
        if (!entries[0].revents)
            continue;
        Control heard;
        const ssize_t length = control_receive(control, &heard);
        if (length < 0)
            refuse("the guest has been switched off");
        if (heard.type == CONTROL_OUTPUT)
            (void)!write(STDOUT_FILENO, heard.text, static_cast<size_t>(length));
        if (heard.type == CONTROL_DONE && ending)
            end_by(ending);
    }
}

static int send_action(const std::string &path, const std::string &name, const std::string &text)
{
    for (uint32_t action = ACTION_START; action < LINK_ACTIONS; action++) {
        if (name != LINK_ACTION_NAMES[action])
            continue;
        const int control = control_connect(path);
        control_send(control, CONTROL_ACTION, action, text);
        Control heard;
        while (control_receive(control, &heard) >= 0)
            if (heard.type == CONTROL_DONE)
                return WIFEXITED(heard.value) ? WEXITSTATUS(heard.value) : 1;
        return action == ACTION_POWER_OFF ? 0 : 1;
    }
    refuse(name + ": no such action");
}

// ---- the machine

struct Peer {
    int fd;
    bool attached;  // simcam's program
    uint32_t waits; // the action whose end it waits for; 0 for none
};

struct Machine {
    Options options;
    std::string directory; // temporary
    std::string socket;
    int listener = -1;
    int children = -1; // signalfd
    pid_t emulator = 0;
    pid_t simcam = 0;
    bool ending = false;
    Clock::time_point booted;
    bool said_up = false, said_readout = false;
    Bridge bridge;
    std::vector<Peer> peers;
};

static pid_t start_child(const std::vector<std::string> &words, int inherited, bool own_group,
                         bool silent)
{
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child != 0)
        return child;
    prctl(PR_SET_PDEATHSIG, own_group ? SIGKILL : SIGTERM);
    if (getppid() != parent)
        _exit(127);
    if (own_group)
        setpgid(0, 0); // Control-C ends simcam first, and simcam's end then ends the guest
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGINT, SIG_DFL);
    if (silent)
        dup2(open("/dev/null", O_RDWR | O_CLOEXEC), 0);
    if (inherited >= 0)
        fcntl(inherited, F_SETFD, 0);
    execvp(arguments[0], arguments.data());
    std::fprintf(stderr, "simcam-system: %s: %s\n", arguments[0], std::strerror(errno));
    _exit(127);
}

static std::string kernel_of(const Options &options)
{
    const std::string fast = options.image + "/uImage";
    const std::string packaged = options.image + "/vmlinuz";
    return !options.packaged_kernel && fs::exists(fast) ? fast : packaged;
}

static void boot(Machine &machine)
{
    const Options &options = machine.options;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        refuse(std::string("socketpair: ") + std::strerror(errno));
    std::vector<std::string> words = {
        "qemu-system-arm",
        "-M",
        "virt",
        "-cpu",
        "cortex-a15",
        "-m",
        options.memory,
        "-nodefaults",
        "-no-user-config",
        "-no-reboot",
        "-display",
        "none",
        "-kernel",
        kernel_of(options),
        "-initrd",
        options.image + "/initramfs",
        "-append",
        "console=ttyAMA0 quiet panic=-1 mitigations=off cryptomgr.notests audit=0 " +
            options.append,
        "-device",
        "virtio-serial-device",
        "-chardev",
        "socket,id=link,fd=" + std::to_string(ends[1]),
        "-device",
        "virtserialport,chardev=link,name=link"};
    const std::vector<std::string> console =
        options.console
            ? std::vector<std::string>{"-chardev", "stdio,id=console,mux=on,signal=off"}
            : std::vector<std::string>{"-chardev", "file,id=console,append=on,path=" + options.log};
    words.insert(words.end(), console.begin(), console.end());
    words.insert(words.end(), {"-serial", "chardev:console"});
    if (machine.bridge.link >= 0)
        close(machine.bridge.link);
    const std::string run_directory = machine.bridge.run_directory;
    machine.bridge = {};
    machine.bridge.link = ends[0];
    machine.bridge.run_directory = run_directory;
    machine.booted = Clock::now();
    machine.emulator = start_child(words, ends[1], !options.console, !options.console);
    close(ends[1]);
}

static std::string seconds_since(Clock::time_point start)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s",
                  std::chrono::duration<double>(Clock::now() - start).count());
    return text;
}

static void show_log_end(const std::string &path)
{
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    const size_t first = lines.size() < 20 ? 0 : lines.size() - 20;
    for (size_t i = first; i < lines.size(); i++)
        std::fprintf(stderr, "  %s\n", lines[i].c_str());
}

// Writes pid, processor time and memory of the overlay process in the guest to simcam's file.
static void tell_simcam(const Machine &machine)
{
    if (machine.bridge.run_directory.empty())
        return;
    const fs::path path = fs::path(machine.bridge.run_directory) / "process";
    const LinkProcess &process = machine.bridge.process;
    std::ofstream(path.string() + ".new")
        << process.pid << ' ' << process.cpu_ms << ' ' << process.resident_kib << '\n';
    std::error_code ignored;
    fs::rename(path.string() + ".new", path, ignored);
}

static void serve_peer(Machine &machine, size_t index)
{
    Control heard;
    const ssize_t length = control_receive(machine.peers[index].fd, &heard);
    if (length < 0) {
        const Peer gone = machine.peers[index];
        close(gone.fd);
        machine.peers[index].fd = -1;
        if (gone.attached && gone.waits != ACTION_STOP && machine.bridge.up)
            bridge_act(machine.bridge, ACTION_KILL); // simcam killed the attached process
        return;
    }
    Peer &peer = machine.peers[index];
    if (heard.type == CONTROL_ATTACH) {
        peer.attached = true;
        machine.bridge.run_directory.assign(heard.text, static_cast<size_t>(length));
        if (machine.bridge.up)
            bridge_act(machine.bridge, ACTION_START); // otherwise the guest starts it when it boots
    } else if (heard.type == CONTROL_ACTION) {
        peer.waits = heard.value;
        const std::string text(heard.text, static_cast<size_t>(length));
        if (!machine.bridge.up || !bridge_act(machine.bridge, heard.value, text))
            control_send(peer.fd, CONTROL_DONE, 0); // the guest is down, so nothing is running
    }
}

// Passes on the output and results that the bridge has collected.
static void hand_on(Machine &machine)
{
    Bridge &bridge = machine.bridge;
    const auto attached = std::find_if(machine.peers.begin(), machine.peers.end(),
                                       [](const Peer &peer) { return peer.attached; });
    if (attached != machine.peers.end()) {
        for (size_t at = 0; at < bridge.output.size(); at += sizeof(Control::text))
            control_send(attached->fd, CONTROL_OUTPUT, 0,
                         bridge.output.substr(at, sizeof(Control::text)));
        bridge.output.clear();
    } else if (bridge.output.size() > 65536) {
        bridge.output.erase(0, bridge.output.size() - 65536);
    }
    for (const Bridge::Done &done : bridge.done) {
        const auto peer =
            std::find_if(machine.peers.begin(), machine.peers.end(),
                         [&](const Peer &entry) { return entry.waits == done.action; });
        if (peer != machine.peers.end()) {
            control_send(peer->fd, CONTROL_DONE, done.status);
            peer->waits = peer->attached ? peer->waits : 0;
        }
    }
    bridge.done.clear();
    if (bridge.up && !machine.said_up) {
        machine.said_up = true;
        say("the guest's /dev/cam is there after " + seconds_since(machine.booted));
    }
    if (!machine.said_readout && std::find(std::begin(bridge.shown), std::end(bridge.shown),
                                           true) != std::end(bridge.shown)) {
        machine.said_readout = true;
        say("first readout after " + seconds_since(machine.booted));
    }
}

// Reaps children. Returns false if simcam has ended, with its exit status in *status.
static bool reap(Machine &machine, int *status)
{
    int how = 0;
    for (pid_t pid; (pid = waitpid(-1, &how, WNOHANG)) > 0;) {
        if (pid == machine.emulator)
            machine.emulator = 0;
        if (pid == machine.simcam) {
            machine.simcam = 0;
            *status = WIFEXITED(how) ? WEXITSTATUS(how) : 1;
        }
    }
    return machine.simcam != 0;
}

static void after_power_off(Machine &machine)
{
    if (machine.ending)
        return;
    if (!machine.said_up && !machine.options.packaged_kernel) {
        say("the uncompressed kernel does not boot; trying the packaged one");
        machine.options.packaged_kernel = true;
        boot(machine);
        return;
    }
    if (!machine.said_up || machine.options.once) {
        say(machine.said_up ? "the guest has switched itself off"
                            : "the guest did not come up; its console said last:");
        if (!machine.said_up)
            show_log_end(machine.options.log);
        machine.ending = true;
        kill(machine.simcam, SIGTERM);
        return;
    }
    say("the guest has switched itself off; booting it again");
    boot(machine);
    machine.said_up = machine.said_readout = false;
}

// Reads the pending signals. Returns true if one of them asks for the end.
static bool take_signals(const Machine &machine)
{
    bool asked = false;
    signalfd_siginfo info;
    while (read(machine.children, &info, sizeof info) == sizeof info)
        asked |= info.ssi_signo != SIGCHLD;
    return asked;
}

static void step(Machine &machine)
{
    std::vector<pollfd> entries = {{machine.children, POLLIN, 0}, {machine.listener, POLLIN, 0}};
    const size_t peers = machine.peers.size();
    for (const Peer &peer : machine.peers)
        entries.push_back({peer.fd, POLLIN, 0});
    bridge_poll(machine.bridge, &entries);
    poll(entries.data(), entries.size(), machine.bridge.up ? -1 : 1000);
    if (!machine.bridge.up && machine.emulator && Clock::now() - machine.booted > BOOT_TIMEOUT)
        kill(machine.emulator, SIGKILL);

    for (size_t i = 0; i < peers; i++)
        if (entries[i + 2].revents)
            serve_peer(machine, i);
    std::erase_if(machine.peers, [](const Peer &peer) { return peer.fd < 0; });
    if (entries[1].revents) {
        const int fd = accept4(machine.listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0)
            machine.peers.push_back({fd, false, 0});
    }
    const LinkProcess before = machine.bridge.process;
    entries.erase(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(peers + 2));
    if (machine.bridge.link >= 0 && !bridge_serve(machine.bridge, entries)) {
        close(machine.bridge.link); // the emulator has ended
        machine.bridge.link = -1;
        machine.bridge.up = false;
        machine.bridge.clients.clear();
        for (Peer &peer : machine.peers) { // no pending action can end now
            if (peer.waits)
                control_send(peer.fd, CONTROL_DONE, 1);
            peer.waits = 0;
        }
    }
    if (std::memcmp(&before, &machine.bridge.process, sizeof before) != 0)
        tell_simcam(machine);
    hand_on(machine);
}

static void power_off(Machine &machine)
{
    if (!machine.emulator)
        return;
    machine.ending = true;
    auto deadline = Clock::now();
    if (machine.bridge.up && bridge_act(machine.bridge, ACTION_POWER_OFF)) {
        say("powering the guest off; Control-C kills it");
        deadline += POWER_OFF_TIMEOUT;
    }
    take_signals(machine); // those that ended simcam
    while (machine.emulator && Clock::now() < deadline && !take_signals(machine)) {
        std::vector<pollfd> entries;
        bridge_poll(machine.bridge, &entries);
        poll(entries.data(), entries.size(), 20);
        if (machine.bridge.link >= 0 && !bridge_serve(machine.bridge, entries)) {
            close(machine.bridge.link);
            machine.bridge.link = -1;
        }
        int status = 0;
        reap(machine, &status);
    }
    if (machine.emulator) {
        say("killing the guest");
        kill(machine.emulator, SIGKILL);
        waitpid(machine.emulator, nullptr, 0);
    }
}

static int run(Machine &machine)
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGCHLD, SIGINT, SIGTERM, SIGHUP})
        sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    machine.children = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    const sockaddr_un address = control_address(machine.socket);
    machine.listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (bind(machine.listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(machine.listener, 8) != 0)
        refuse(machine.socket + ": " + std::strerror(errno));

    say("booting " + kernel_of(machine.options));
    boot(machine);
    std::vector<std::string> words = machine.options.simcam;
    words.insert(words.end(),
                 {"--", fs::read_symlink("/proc/self/exe").string(), "--attach", machine.socket});
    machine.simcam = start_child(words, -1, false, false);
    int status = 1;
    while (reap(machine, &status)) {
        // Before an ended emulator is noticed: it may have received the same signal, and must then
        // not be booted again.
        if (take_signals(machine)) {
            machine.ending = true;
            if (machine.simcam)
                kill(machine.simcam, SIGTERM);
        }
        if (!machine.emulator)
            after_power_off(machine);
        step(machine);
    }
    power_off(machine);
    return status;
}

static Options parse(int count, char **arguments)
{
    Options options;
    for (int i = 1; i < count; i++) {
        const std::string word = arguments[i];
        const auto value = [&]() -> std::string {
            if (i + 1 >= count)
                refuse(word + ": a value is missing");
            return arguments[++i];
        };
        if (word == "--image")
            options.image = value();
        else if (word == "--log")
            options.log = value();
        else if (word == "--append")
            options.append = value();
        else if (word == "--memory")
            options.memory = value();
        else if (word == "--socket")
            options.socket = value();
        else if (word == "--packaged-kernel")
            options.packaged_kernel = true;
        else if (word == "--console")
            options.console = true;
        else if (word == "--once")
            options.once = true;
        else if (word == "--") {
            options.simcam.assign(arguments + i + 1, arguments + count);
            break;
        } else {
            std::fputs(USAGE, word == "--help" ? stdout : stderr);
            std::exit(word == "--help" ? 0 : 2);
        }
    }
    if (options.simcam.empty())
        refuse("give \"-- SIMCAM ARGS...\"; see --help");
    for (const char *name : {"initramfs", "vmlinuz"})
        if (!fs::exists(options.image + "/" + name))
            refuse(options.image + "/" + name + " is missing: run scripts/system-image");
    return options;
}

int main(int count, char **arguments)
{
    signal(SIGPIPE, SIG_IGN);
    if (count == 3 && !std::strcmp(arguments[1], "--attach"))
        return attach(arguments[2]);
    if ((count == 4 || count == 5) && !std::strcmp(arguments[1], "--send"))
        return send_action(arguments[2], arguments[3], count == 5 ? arguments[4] : "");

    Machine machine;
    machine.options = parse(count, arguments);
    std::string name = (fs::temp_directory_path() / "simcam-system-XXXXXX").string();
    if (!mkdtemp(name.data()))
        refuse(name + ": " + std::strerror(errno));
    machine.directory = name;
    machine.socket = machine.options.socket.empty() ? name + "/control" : machine.options.socket;
    if (machine.options.log.empty())
        machine.options.log = name + "/console.log";
    termios before = {};
    const bool terminal = machine.options.console && tcgetattr(0, &before) == 0;
    const int status = run(machine);
    if (terminal)
        tcsetattr(0, TCSANOW, &before);
    std::error_code ignored;
    fs::remove(machine.socket, ignored);
    fs::remove_all(machine.directory, ignored);
    return status;
}
