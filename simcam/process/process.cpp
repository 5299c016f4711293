// One thread owns the child: it forks it, reads its output and reaps it. The kernel kills the child
// when this thread ends, so also when simcam crashes. Other threads queue jobs for this thread.

#include "process/process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
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

#include "board/records.h"

namespace simcam
{

using Clock = std::chrono::steady_clock;

struct Process {
    ProcessOptions options;
    Clock::time_point made = Clock::now();
    int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::thread thread;

    std::mutex lock; // guards the four fields below
    std::deque<std::packaged_task<std::string()>> jobs;
    bool ending = false;
    ProcessState state;
    Records<OutputChunk> output;

    // used only by the thread
    pid_t child = 0;
    int child_end = -1;      // a pidfd, readable once the child has exited; -1: not supported
    int pipes[2] = {-1, -1}; // standard output, standard error
    double cpu_s = 0;        // processor time when it was last measured
    Clock::time_point looked;
};

// ---- starting

// A child that represents a process of another machine writes that process's pid, milliseconds of
// processor time and KiB of memory into this file.
static std::string usage_path(const Process &process)
{
    return process.options.run_directory + "/process";
}

static std::vector<char *> pointers(std::vector<std::string> &strings)
{
    std::vector<char *> list;
    for (std::string &string : strings)
        list.push_back(string.data());
    list.push_back(nullptr);
    return list;
}

// Runs in the child between fork and exec: makes system calls only.
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
    setpgid(0, 0); // Control-C interrupts simcam only
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
        return "simcam was started without a program (-- PROGRAM)";
    if (process.child)
        return "the program is already running";

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
    std::vector<std::string> environment = environment_make(process.options);
    const std::string path = program_find(words[0]);
    const std::vector<char *> arguments = pointers(words);
    const std::vector<char *> variables = pointers(environment);
    const int ends[2] = {out[1], err[1]};
    const pid_t parent = getpid();

    unlink(usage_path(process).c_str()); // left by the previous child
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

// Reads what one pipe holds, at most 64 KiB; closes it at end of file.
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
        chunk.time_s = std::chrono::duration<double>(Clock::now() - process.made).count();
        chunk.stream = stream;
        chunk.bytes.assign(bytes, static_cast<size_t>(length));
        records_add(&process.output, std::move(chunk));
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
        take_output(process, stream); // its last output
        int &pipe = process.pipes[stream - 1];
        if (pipe >= 0)
            close(pipe); // a grandchild may keep the other end open
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

// Reads the child's processor time and memory from the kernel.
static bool read_usage(pid_t child, Usage *usage)
{
    std::ifstream file("/proc/" + std::to_string(child) + "/stat");
    std::string text;
    std::getline(file, text);
    const size_t name_end = text.rfind(')'); // the name may contain any character
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

// Measures processor time and memory once a second.
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
    constexpr int CHILD_POLL_MS = 50; // without a pidfd
    constexpr int LOOK_MS = 1000;
    while (run_jobs(process)) {
        pollfd entries[4] = {{process.wake, POLLIN, 0},
                             {process.pipes[0], POLLIN, 0},
                             {process.pipes[1], POLLIN, 0},
                             {process.child_end, POLLIN, 0}};
        const int timeout = !process.child ? -1 : process.child_end < 0 ? CHILD_POLL_MS : LOOK_MS;
        poll(entries, 4, timeout);
        uint64_t count;
        (void)!read(process.wake, &count, sizeof count); // resets it
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

ProcessPtr process_make(const ProcessOptions &options)
{
    ProcessPtr process(new Process);
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
            return "the program is not running";
        // Signals the process group: signaling only a wrapper script would leave the program
        // running.
        return kill(-process.child, signal) == 0 ? "" : std::strerror(errno);
    });
}

static std::string finish(Process &process)
{
    if (!process.child)
        return {};
    const pid_t group = process.child; // includes the children of a wrapper script
    kill(-group, SIGTERM);
    const auto deadline =
        Clock::now() + std::chrono::duration<double>(process.options.kill_after_s);
    while (process.child && Clock::now() < deadline) {
        pollfd entries[2] = {{process.pipes[0], POLLIN, 0}, {process.pipes[1], POLLIN, 0}};
        poll(entries, 2, 10);
        for (int stream = 1; stream <= 2; stream++)
            take_output(process, stream);
        reap(process);
    }
    kill(-group, SIGKILL); // also children that are still running
    if (process.child) {
        waitpid(process.child, nullptr, 0);
        for (const int fd : {process.pipes[0], process.pipes[1], process.child_end})
            if (fd >= 0)
                close(fd);
    }
    return {};
}

void ProcessDelete::operator()(Process *process) const
{
    ask(*process, [process] { return finish(*process); });
    {
        const std::lock_guard guard(process->lock);
        process->ending = true;
    }
    const uint64_t one = 1;
    (void)!write(process->wake, &one, sizeof one);
    process->thread.join();
    close(process->wake);
    delete process;
}

ProcessState process_state(Process &process)
{
    const std::lock_guard guard(process.lock);
    return process.state;
}

std::vector<OutputChunk> process_output(Process &process, uint64_t after, size_t limit)
{
    const std::lock_guard guard(process.lock);
    return records_after(process.output, after, limit);
}

uint64_t process_newest_output(Process &process)
{
    const std::lock_guard guard(process.lock);
    return process.output.newest;
}

} // namespace simcam
