// One thread owns the child: it forks (so that the child dies with simcam), reads what the child
// writes and reaps it. Others ask it through a short list of jobs.

#include "process/process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <elf.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "board/board.h"
#include "wire.h"

extern char **environ;

namespace simcam
{

using Clock = std::chrono::steady_clock;

struct Process {
    ProcessOptions options;
    Clock::time_point made = Clock::now();
    int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::thread thread;

    std::mutex lock; // guards what follows
    std::deque<std::packaged_task<std::string()>> jobs;
    bool ending = false;
    ProcessState state;
    std::deque<OutputChunk> output;
    uint64_t output_count = 0;

    // the thread's own
    pid_t child = 0;
    int child_end =
        -1; // becomes readable when the child has ended; -1 where the system has no such
    int pipes[2] = {-1, -1}; // standard output, standard error
    double cpu_s = 0;        // processor time at the last look
    Clock::time_point looked;

    ~Process()
    {
        close(wake);
    }
};

// ---- starting

// A child that represents a process of another machine writes that one's numbers into this file.
static std::string usage_path(const Process &process)
{
    return process.options.run_directory + "/process";
}

// The machine that an ELF file is for; 0 where it is none.
static uint16_t elf_machine(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    Elf32_Ehdr head = {}; // both word sizes agree up to the machine
    file.read(reinterpret_cast<char *>(&head), sizeof head);
    if (!file || std::memcmp(head.e_ident, ELFMAG, SELFMAG) != 0)
        return 0;
    return head.e_machine;
}

static std::string find_program(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return name;
    const char *path = std::getenv("PATH");
    std::string rest = path ? path : "/usr/bin:/bin";
    while (!rest.empty()) {
        const size_t end = rest.find(':');
        const std::string candidate = rest.substr(0, end) + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate;
        rest = end == std::string::npos ? "" : rest.substr(end + 1);
    }
    return name;
}

static void set_variable(std::vector<std::string> *environment, const std::string &name,
                         const std::string &value)
{
    std::erase_if(*environment, [&](const std::string &entry) {
        return entry.compare(0, name.size() + 1, name + "=") == 0;
    });
    environment->push_back(name + "=" + value);
}

// first, and behind it what the environment has already.
static std::string joined(const std::string &first, const char *rest)
{
    return rest && rest[0] ? first + ":" + rest : first;
}

static std::vector<std::string> make_environment(const ProcessOptions &options)
{
    std::vector<std::string> environment;
    for (char **entry = environ; *entry; entry++)
        environment.push_back(*entry);

    const std::string library_directory = options.library.substr(0, options.library.rfind('/'));
    set_variable(&environment, SIMCAM_RUN_DIR_VARIABLE, options.run_directory);
    set_variable(&environment, "SIMCAM_UNBUFFERED", "1");
    const uint16_t program = elf_machine(find_program(options.program[0]));
    const uint16_t preload = elf_machine(options.preload);
    if (program && program != preload) {
        // An emulator that runs a program of the preload object's machine: for the program alone.
        set_variable(&environment, "QEMU_SET_ENV",
                     "LD_PRELOAD=" + options.preload + ",LD_LIBRARY_PATH=" + library_directory);
    } else {
        set_variable(&environment, "LD_PRELOAD",
                     joined(options.preload, std::getenv("LD_PRELOAD")));
        set_variable(&environment, "LD_LIBRARY_PATH",
                     joined(library_directory, std::getenv("LD_LIBRARY_PATH")));
    }
    // The preload object precedes the sanitizer's runtime in a program that has one; it needs none.
    set_variable(&environment, "ASAN_OPTIONS",
                 joined("verify_asan_link_order=0", std::getenv("ASAN_OPTIONS")));
    return environment;
}

static std::vector<char *> pointers(std::vector<std::string> &strings)
{
    std::vector<char *> list;
    for (std::string &string : strings)
        list.push_back(string.data());
    list.push_back(nullptr);
    return list;
}

// In the child, between fork and exec: system calls only.
[[noreturn]] static void become(const char *path, char **arguments, char **environment,
                                const int *ends, int report, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(127);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    setpgid(0, 0); // the terminal's interrupt is simcam's to handle
    const int input = open("/dev/null", O_RDONLY);
    dup2(input, 0);
    dup2(ends[0], 1);
    dup2(ends[1], 2);
    close_range(3, ~0u, CLOSE_RANGE_CLOEXEC);
    execve(path, arguments, environment);
    const int error = errno;
    (void)!write(report, &error, sizeof error);
    _exit(127);
}

static std::string start(Process &process)
{
    if (process.options.program.empty())
        return "no program was named: start simcam with \"-- PROGRAM\"";
    if (process.child)
        return "the program runs already";

    int out[2], err[2], report[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        return std::string("pipe: ") + std::strerror(errno);
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]), close(out[1]);
        return std::string("pipe: ") + std::strerror(errno);
    }
    if (pipe2(report, O_CLOEXEC) != 0) {
        close(out[0]), close(out[1]), close(err[0]), close(err[1]);
        return std::string("pipe: ") + std::strerror(errno);
    }

    std::vector<std::string> words = process.options.program;
    std::vector<std::string> environment = make_environment(process.options);
    const std::string path = find_program(words[0]);
    const std::vector<char *> arguments = pointers(words);
    const std::vector<char *> variables = pointers(environment);
    const int ends[2] = {out[1], err[1]};
    const pid_t parent = getpid();

    unlink(usage_path(process).c_str()); // of a child before
    const pid_t child = fork();
    if (child == 0)
        become(path.c_str(), const_cast<char **>(arguments.data()),
               const_cast<char **>(variables.data()), ends, report[1], parent);
    const int fork_error = errno;
    close(out[1]), close(err[1]), close(report[1]);

    int error = child < 0 ? fork_error : 0;
    if (child > 0 && read(report[0], &error, sizeof error) == static_cast<ssize_t>(sizeof error))
        waitpid(child, nullptr, 0);
    close(report[0]);
    if (error) {
        close(out[0]), close(err[0]);
        return words[0] + ": " + std::strerror(error);
    }

    fcntl(out[0], F_SETFL, O_NONBLOCK);
    fcntl(err[0], F_SETFL, O_NONBLOCK);
    process.child = child;
    process.child_end = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    process.pipes[0] = out[0];
    process.pipes[1] = err[0];
    process.cpu_s = 0;
    process.looked = Clock::now();
    const std::lock_guard guard(process.lock);
    process.state.running = true;
    process.state.pid = child;
    process.state.starts++;
    process.state.cpu_percent = 0;
    process.state.resident_bytes = 0;
    process.state.last_end.clear();
    return {};
}

// ---- running

// Takes what there is in one pipe, at most 64 KiB; closes it at its end.
static void take_output(Process &process, int stream)
{
    int &pipe = process.pipes[stream - 1];
    for (int i = 0; i < 16 && pipe >= 0; i++) {
        char bytes[4096];
        const ssize_t length = read(pipe, bytes, sizeof bytes);
        if (length < 0)
            return;
        if (length == 0) {
            close(pipe);
            pipe = -1;
            return;
        }
        const std::lock_guard guard(process.lock);
        OutputChunk chunk;
        chunk.number = ++process.output_count;
        chunk.time_s = std::chrono::duration<double>(Clock::now() - process.made).count();
        chunk.stream = stream;
        chunk.bytes.assign(bytes, static_cast<size_t>(length));
        records_add(process.output, std::move(chunk));
    }
}

static std::string describe_end(int status)
{
    if (WIFEXITED(status))
        return "exit status " + std::to_string(WEXITSTATUS(status));
    const int signal = WTERMSIG(status);
    return "signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
}

static void reap(Process &process)
{
    int status = 0;
    if (!process.child || waitpid(process.child, &status, WNOHANG) != process.child)
        return;
    for (int stream = 1; stream <= 2; stream++) {
        take_output(process, stream); // what it wrote last
        int &pipe = process.pipes[stream - 1];
        if (pipe >= 0)
            close(pipe); // a grandchild may hold the other end for ever
        pipe = -1;
    }
    process.child = 0;
    if (process.child_end >= 0)
        close(process.child_end);
    process.child_end = -1;
    const std::lock_guard guard(process.lock);
    process.state.running = false;
    process.state.pid = 0;
    process.state.cpu_percent = 0;
    process.state.resident_bytes = 0;
    process.state.last_end = describe_end(status);
}

struct Usage {
    int pid;
    double cpu_s; // since the process started
    uint64_t resident_bytes;
};

// What the kernel says about the child.
static bool read_usage(pid_t child, Usage *usage)
{
    std::ifstream file("/proc/" + std::to_string(child) + "/stat");
    std::string text;
    std::getline(file, text);
    const size_t name_end = text.rfind(')'); // the name may hold anything
    unsigned long user = 0, system = 0;
    long pages = 0;
    if (name_end == std::string::npos ||
        std::sscanf(text.c_str() + name_end + 1,
                    " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu %*d %*d %*d %*d %*d %*d"
                    " %*u %*u %ld",
                    &user, &system, &pages) != 3)
        return false;
    *usage = {child, static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK)),
              static_cast<uint64_t>(pages) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE))};
    return true;
}

static bool read_usage_file(const std::string &path, Usage *usage)
{
    std::ifstream file(path);
    uint64_t cpu_ms = 0, resident_kib = 0;
    if (!(file >> usage->pid >> cpu_ms >> resident_kib))
        return false;
    usage->cpu_s = static_cast<double>(cpu_ms) / 1000;
    usage->resident_bytes = resident_kib * 1024;
    return true;
}

// Once a second: processor time and memory.
static void look(Process &process)
{
    const double passed = std::chrono::duration<double>(Clock::now() - process.looked).count();
    Usage usage = {};
    if (!process.child || passed < 1.0 ||
        (!read_usage_file(usage_path(process), &usage) && !read_usage(process.child, &usage)))
        return;
    const std::lock_guard guard(process.lock);
    const bool same = process.state.pid == usage.pid && process.cpu_s > 0;
    const double seconds = std::max(0.0, usage.cpu_s - process.cpu_s);
    process.state.pid = usage.pid;
    process.state.cpu_percent = same ? 100.0 * seconds / passed : 0;
    process.state.resident_bytes = usage.resident_bytes;
    process.cpu_s = usage.cpu_s;
    process.looked = Clock::now();
}

static bool run_jobs(Process &process)
{
    for (;;) {
        std::packaged_task<std::string()> job;
        {
            const std::lock_guard guard(process.lock);
            if (process.jobs.empty())
                return !process.ending;
            job = std::move(process.jobs.front());
            process.jobs.pop_front();
        }
        job();
    }
}

static void run(Process &process)
{
    constexpr int CHILD_POLL_MS = 50; // where no descriptor tells of its end
    constexpr int LOOK_MS = 1000;
    while (run_jobs(process)) {
        pollfd entries[4] = {{process.wake, POLLIN, 0},
                             {process.pipes[0], POLLIN, 0},
                             {process.pipes[1], POLLIN, 0},
                             {process.child_end, POLLIN, 0}};
        const int timeout = !process.child ? -1 : process.child_end < 0 ? CHILD_POLL_MS : LOOK_MS;
        poll(entries, 4, timeout);
        uint64_t count;
        (void)!read(process.wake, &count, sizeof count); // only to make it quiet again
        for (int stream = 1; stream <= 2; stream++)
            if (entries[stream].revents)
                take_output(process, stream);
        reap(process);
        look(process);
    }
}

static std::string ask(Process &process, std::function<std::string()> job)
{
    std::packaged_task<std::string()> task(std::move(job));
    std::future<std::string> result = task.get_future();
    {
        const std::lock_guard guard(process.lock);
        if (process.ending)
            return "the camera is being stopped";
        process.jobs.push_back(std::move(task));
    }
    const uint64_t one = 1;
    (void)!write(process.wake, &one, sizeof one);
    return result.get();
}

// ---- interface

std::shared_ptr<Process> process_make(const ProcessOptions &options)
{
    auto process = std::make_shared<Process>();
    process->options = options;
    process->state.configured = !options.program.empty();
    process->thread = std::thread([process = process.get()] { run(*process); });
    return process;
}

std::string process_start(Process &process)
{
    return ask(process, [&] { return start(process); });
}

std::string process_signal(Process &process, int signal)
{
    return ask(process, [&process, signal]() -> std::string {
        if (!process.child)
            return "the program does not run";
        // Its group: a wrapper would end alone and leave the program behind.
        return kill(-process.child, signal) == 0 ? "" : std::strerror(errno);
    });
}

void process_finish(Process &process)
{
    ask(process, [&process]() -> std::string {
        if (!process.child)
            return {};
        const pid_t group = process.child; // a wrapper's own children are in it, too
        kill(-group, SIGTERM);
        const auto deadline = Clock::now() + std::chrono::seconds(2);
        while (process.child && Clock::now() < deadline) {
            pollfd entries[2] = {{process.pipes[0], POLLIN, 0}, {process.pipes[1], POLLIN, 0}};
            poll(entries, 2, 10);
            for (int stream = 1; stream <= 2; stream++)
                take_output(process, stream);
            reap(process);
        }
        kill(-group, SIGKILL); // what is left of it
        if (process.child) {
            waitpid(process.child, nullptr, 0);
            for (const int fd : {process.pipes[0], process.pipes[1], process.child_end})
                if (fd >= 0)
                    close(fd);
        }
        return {};
    });
    {
        const std::lock_guard guard(process.lock);
        process.ending = true;
    }
    const uint64_t one = 1;
    (void)!write(process.wake, &one, sizeof one);
    if (process.thread.joinable())
        process.thread.join();
}

void process_state(Process &process, ProcessState *state)
{
    const std::lock_guard guard(process.lock);
    const bool attached = state->attached;
    *state = process.state;
    state->attached = attached;
}

std::vector<OutputChunk> process_output(Process &process, uint64_t after, size_t limit)
{
    const std::lock_guard guard(process.lock);
    return records_after(process.output, after, limit);
}

} // namespace simcam
