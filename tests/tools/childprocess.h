// Runs the built programs as child processes for the process tests: stdout
// and stderr captured through pipes, stdin from /dev/null, every wait
// bounded by a deadline, and the child always reaped (killed by its pid
// first if it is still running when the test lets go of it).
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace UlmarCommsToolsTest {

// The path of a built program.
inline std::string toolPath(const std::string& name)
{
    return std::string(ULMARCOMMS_TOOLS_DIR) + "/" + name;
}

// A pipe name no other test (or test process) uses.
inline std::string uniquePipeName()
{
    static int counter = 0;
    return "t" + std::to_string(getpid()) + "_" + std::to_string(++counter);
}

class ChildProcess {
public:
    using Clock = std::chrono::steady_clock;

    explicit ChildProcess(const std::vector<std::string>& argv) { spawn(argv); }

    ~ChildProcess()
    {
        if (m_pid > 0 && !m_status) {
            ::kill(m_pid, SIGKILL);
            waitExit(std::chrono::seconds(30));
        }
        closeFd(m_out);
        closeFd(m_err);
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return m_pid > 0; }
    pid_t pid() const { return m_pid; }
    const std::string& out() const { return m_outText; }
    const std::string& err() const { return m_errText; }

    // Sends a signal to this child (by its pid) while it runs.
    void signal(int number)
    {
        if (m_pid > 0 && !m_status)
            ::kill(m_pid, number);
    }

    // Reads output until condition holds or the timeout passes.
    bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
    {
        const auto deadline = Clock::now() + timeout;
        while (!condition()) {
            if (m_pid <= 0 || Clock::now() >= deadline || (m_status && m_out < 0 && m_err < 0))
                return condition();
            pump(deadline);
            reap();
        }
        return true;
    }

    // Waits until stdout holds needle.
    bool waitForOut(const std::string& needle, std::chrono::milliseconds timeout = std::chrono::seconds(30))
    {
        return waitFor([&] { return m_outText.find(needle) != std::string::npos; }, timeout);
    }

    // Waits for the child to end and its output to close; the exit code, or
    // 128 + the signal that ended it; nothing if the timeout passed.
    std::optional<int> waitExit(std::chrono::milliseconds timeout = std::chrono::seconds(30))
    {
        waitFor([&] { return m_status.has_value() && m_out < 0 && m_err < 0; }, timeout);
        return m_status;
    }

    // Everything the child wrote, for failure messages.
    std::string transcript() const { return "--- stdout:\n" + m_outText + "--- stderr:\n" + m_errText; }

private:
    static void closeFd(int& fd)
    {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }

    void spawn(const std::vector<std::string>& argv)
    {
        int outPipe[2];
        int errPipe[2];
        if (::pipe2(outPipe, O_CLOEXEC) != 0)
            return;
        if (::pipe2(errPipe, O_CLOEXEC) != 0) {
            ::close(outPipe[0]);
            ::close(outPipe[1]);
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
        posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
        std::vector<char*> args;
        for (const std::string& arg : argv)
            args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        pid_t pid = -1;
        if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) == 0)
            m_pid = pid;
        posix_spawn_file_actions_destroy(&actions);
        ::close(outPipe[1]);
        ::close(errPipe[1]);
        m_out = outPipe[0];
        m_err = errPipe[0];
        ::fcntl(m_out, F_SETFL, O_NONBLOCK);
        ::fcntl(m_err, F_SETFL, O_NONBLOCK);
    }

    // Reads whatever the pipes hold, waiting at most a short slice.
    void pump(Clock::time_point deadline)
    {
        pollfd fds[2];
        nfds_t count = 0;
        for (int fd : {m_out, m_err}) {
            if (fd >= 0)
                fds[count++] = pollfd{fd, POLLIN, 0};
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const int slice = static_cast<int>(std::max<long long>(0, std::min<long long>(left, 20)));
        if (count == 0) {
            // Only the exit is left to see; poll() with no fds is a bounded wait.
            ::poll(nullptr, 0, slice);
            return;
        }
        if (::poll(fds, count, slice) <= 0)
            return;
        drain(m_out, m_outText);
        drain(m_err, m_errText);
    }

    static void drain(int& fd, std::string& text)
    {
        if (fd < 0)
            return;
        char buffer[4096];
        while (true) {
            const ssize_t got = ::read(fd, buffer, sizeof(buffer));
            if (got > 0) {
                text.append(buffer, static_cast<size_t>(got));
                continue;
            }
            if (got == 0)
                closeFd(fd);
            else if (errno == EINTR)
                continue;
            return;
        }
    }

    void reap()
    {
        if (m_pid <= 0 || m_status)
            return;
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) != m_pid)
            return;
        if (WIFEXITED(status))
            m_status = WEXITSTATUS(status);
        else if (WIFSIGNALED(status))
            m_status = 128 + WTERMSIG(status);
    }

    pid_t m_pid = -1;
    int m_out = -1;
    int m_err = -1;
    std::string m_outText;
    std::string m_errText;
    std::optional<int> m_status;
};

// The result of running a program to its end.
struct RunResult {
    std::optional<int> status;
    std::string out;
    std::string err;
    std::string transcript() const { return "--- stdout:\n" + out + "--- stderr:\n" + err; }
};

// Runs a program to its end (killed after the timeout).
inline RunResult runTool(const std::vector<std::string>& argv,
                         std::chrono::milliseconds timeout = std::chrono::seconds(60))
{
    ChildProcess child(argv);
    RunResult result;
    result.status = child.waitExit(timeout);
    result.out = child.out();
    result.err = child.err();
    return result;
}

} // namespace UlmarCommsToolsTest
