// Starting, reading and reaping child processes, and the daemon's life.
// Output is read with poll(2) so that every wait has a deadline; a child
// past its deadline is killed with SIGKILL and reported as status -1.
#include "process.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace UlmarCommsBench {

namespace {

// Milliseconds until deadline (zero or less once it has passed).
long long millisecondsLeft(Clock::time_point deadline)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
}

// Waits up to timeoutMs for output and appends what arrives: 1 when some
// did, 0 when none came in time, -1 when the output has ended.
int readOutput(Child& child, long long timeoutMs)
{
    pollfd entry{child.output, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(timeoutMs)) <= 0)
        return 0;
    char buffer[4096];
    const ssize_t n = ::read(child.output, buffer, sizeof(buffer));
    if (n <= 0)
        return -1;
    child.collected.append(buffer, static_cast<size_t>(n));
    return 1;
}

// Closes the read end of the child's output, if open.
void closeOutput(Child& child)
{
    if (child.output >= 0) {
        ::close(child.output);
        child.output = -1;
    }
}

// Reaps the child, killing it at the deadline; its wait status, -1 if killed.
int reap(const Child& child, Clock::time_point deadline)
{
    int status = 0;
    while (true) {
        const pid_t done = ::waitpid(child.pid, &status, WNOHANG);
        if (done == child.pid)
            return status;
        if (Clock::now() >= deadline) {
            ::kill(child.pid, SIGKILL);
            ::waitpid(child.pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// In the forked child: stdin from /dev/null, stdout to the pipe or away.
void redirectStreams(bool captureOutput, int pipeWrite)
{
    const int null = ::open("/dev/null", O_RDONLY);
    if (null >= 0)
        ::dup2(null, STDIN_FILENO);
    if (captureOutput) {
        ::dup2(pipeWrite, STDOUT_FILENO);
    } else if (null >= 0) {
        // Only what goes wrong (stderr) reaches the user.
        const int sink = ::open("/dev/null", O_WRONLY);
        if (sink >= 0)
            ::dup2(sink, STDOUT_FILENO);
    }
}

// The daemon program: --daemon, else beside this program, else on PATH.
std::string findDaemon(const Options& options)
{
    if (!options.daemon.empty())
        return options.daemon;
    const std::string self = selfPath();
    const std::string dir = self.substr(0, self.rfind('/'));
    for (const std::string& candidate :
         {dir + "/ulmarcommsd", dir + "/../tools/ulmarcommsd", dir + "/../tools/ulmarcommsd/ulmarcommsd"}) {
        if (::access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return "ulmarcommsd";
}

} // namespace

Child spawn(const std::string& program, const std::vector<std::string>& arguments, bool captureOutput,
            const std::string& errorLog)
{
    Child child;
    int pipeFds[2] = {-1, -1};
    if (captureOutput && ::pipe2(pipeFds, O_CLOEXEC) != 0)
        return child;
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        redirectStreams(captureOutput, pipeFds[1]);
        if (!errorLog.empty()) {
            const int log = ::open(errorLog.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (log >= 0)
                ::dup2(log, STDERR_FILENO);
        }
        if (program.find('/') != std::string::npos)
            ::execv(program.c_str(), argv.data());
        else
            ::execvp(program.c_str(), argv.data());
        std::fprintf(stderr, "ulmarcomms-bench: cannot run %s: %s\n", program.c_str(), std::strerror(errno));
        ::_exit(127);
    }
    if (captureOutput) {
        ::close(pipeFds[1]);
        child.output = pipeFds[0];
    }
    child.pid = pid;
    return child;
}

int finish(Child& child, std::chrono::seconds limit)
{
    const Clock::time_point deadline = Clock::now() + limit;
    while (child.output >= 0) {
        const long long left = millisecondsLeft(deadline);
        if (left <= 0)
            break;
        if (readOutput(child, std::min<long long>(left, 1000)) < 0) {
            closeOutput(child);
            break;
        }
    }
    const int status = reap(child, deadline);
    closeOutput(child);
    if (status == -1)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool awaitLine(Child& child, const std::string& line, std::chrono::seconds limit)
{
    const Clock::time_point deadline = Clock::now() + limit;
    while (child.collected.find(line) == std::string::npos) {
        const long long left = millisecondsLeft(deadline);
        if (left <= 0 || readOutput(child, left) <= 0)
            return false;
    }
    return true;
}

void blockGoSignal()
{
    sigset_t go;
    sigemptyset(&go);
    sigaddset(&go, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &go, nullptr);
}

bool awaitGo(std::chrono::seconds limit)
{
    sigset_t go;
    sigemptyset(&go);
    sigaddset(&go, SIGUSR1);
    const timespec wait{static_cast<time_t>(limit.count()), 0};
    while (true) {
        const int taken = ::sigtimedwait(&go, nullptr, &wait);
        if (taken == SIGUSR1)
            return true;
        if (taken < 0 && errno != EINTR)
            return false;
    }
}

void signalGo(const std::vector<Child>& group)
{
    for (const Child& child : group) {
        if (child.pid > 0)
            ::kill(child.pid, SIGUSR1);
    }
}

bool awaitAll(std::vector<Child>& group, const std::string& line, std::chrono::seconds limit, const char* what)
{
    const Clock::time_point deadline = Clock::now() + limit;
    for (Child& child : group) {
        const auto left = std::chrono::duration_cast<std::chrono::seconds>(deadline - Clock::now());
        if (child.pid < 0 || !awaitLine(child, line, std::max(left, std::chrono::seconds(1)))) {
            std::fprintf(stderr, "ulmarcomms-bench: a %s did not get ready in time\n", what);
            return false;
        }
    }
    return true;
}

unsigned finishAll(std::vector<Child>& group, std::chrono::seconds limit)
{
    unsigned failed = 0;
    for (Child& child : group) {
        if (child.pid < 0 || finish(child, limit) != 0)
            ++failed;
    }
    return failed;
}

socklen_t localLinkAddress(const std::string& pipe, sockaddr_un& address)
{
    // The library's abstract name for a pipe, NUL-padded to the full size.
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1, "__%s.sock", pipe.c_str());
    return sizeof(address);
}

bool daemonAnswers(const std::string& pipe)
{
    sockaddr_un address;
    const socklen_t size = localLinkAddress(pipe, address);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const bool ok = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), size) == 0;
    ::close(fd);
    return ok;
}

std::string selfPath()
{
    char path[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0)
        return "ulmarcomms-bench";
    path[n] = '\0';
    return path;
}

bool Daemon::start(Options& options)
{
    if (!options.pipe.empty()) {
        if (!daemonAnswers(options.pipe)) {
            std::fprintf(stderr, "ulmarcomms-bench: nothing answers on pipe '%s'\n", options.pipe.c_str());
            return false;
        }
        return true;
    }
    options.pipe = "ulmarbench" + options.tag;
    return launch(options, options.pipe);
}

bool Daemon::launch(const Options& options, const std::string& pipe, const std::string& errorLog)
{
    const std::string program = findDaemon(options);
    child = spawn(program, {"--set", pipeSetting(pipe)}, false, errorLog);
    if (child.pid < 0)
        return false;
    ours = true;
    return awaitListening(program, pipe);
}

bool Daemon::stopWith(int signal)
{
    if (!ours)
        return false;
    ::kill(child.pid, signal);
    finish(child, std::chrono::seconds(10));
    ours = false;
    return true;
}

bool Daemon::ended()
{
    if (!ours)
        return false;
    int status = 0;
    if (::waitpid(child.pid, &status, WNOHANG) != child.pid)
        return false;
    ours = false;
    return true;
}

bool Daemon::awaitListening(const std::string& program, const std::string& pipe)
{
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (Clock::now() < deadline) {
        if (daemonAnswers(pipe))
            return true;
        int status = 0;
        if (::waitpid(child.pid, &status, WNOHANG) == child.pid) {
            std::fprintf(stderr, "ulmarcomms-bench: %s exited at start-up\n", program.c_str());
            ours = false;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::fprintf(stderr, "ulmarcomms-bench: %s did not listen within 10 s\n", program.c_str());
    stop();
    return false;
}

void Daemon::stop()
{
    if (!ours)
        return;
    ::kill(child.pid, SIGTERM);
    if (finish(child, std::chrono::seconds(10)) < 0)
        std::fprintf(stderr, "ulmarcomms-bench: the daemon had to be killed\n");
    ours = false;
}

long Daemon::residentKiB() const
{
    return ours ? residentKiBOf(child.pid) : 0;
}

long residentKiBOf(pid_t pid)
{
    FILE* status = std::fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    if (status == nullptr)
        return 0;
    char line[256];
    long kib = 0;
    while (std::fgets(line, sizeof(line), status) != nullptr) {
        if (std::strncmp(line, "VmRSS:", 6) == 0)
            kib = std::strtol(line + 6, nullptr, 10);
    }
    std::fclose(status);
    return kib;
}

double cpuMicrosecondsOf(pid_t pid)
{
    FILE* stat = std::fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
    if (stat == nullptr)
        return -1;
    char line[1024];
    const bool read = std::fgets(line, sizeof(line), stat) != nullptr;
    std::fclose(stat);
    // The name in parentheses may hold spaces; the fields after it are
    // state (3) ... utime (14) and stime (15), in clock ticks.
    const char* rest = read ? std::strrchr(line, ')') : nullptr;
    unsigned long long utime = 0;
    unsigned long long stime = 0;
    if (rest == nullptr ||
        std::sscanf(rest + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &utime, &stime) != 2)
        return -1;
    return double(utime + stime) * 1e6 / double(::sysconf(_SC_CLK_TCK));
}

void CpuMeter::end(const std::string& name, double messages, Figures& figures) const
{
    const double after = m_pid > 0 ? cpuMicrosecondsOf(m_pid) : -1;
    if (m_before >= 0 && after >= 0 && messages > 0)
        figures["daemon_cpu_us_per_msg_" + name] = (after - m_before) / messages;
}

} // namespace UlmarCommsBench
