// A child process for the process-level tests: stdin, stdout and (unless it
// should show in the test log) stderr are pipes; output is read with
// deadlines, whole or line by line; and the child is always ended and reaped
// (killed by its own pid first if it still runs when the object goes).
#pragma once

#include <algorithm>
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

namespace UlmarCommsTest {

class ChildProcess {
public:
    using Clock = std::chrono::steady_clock;

    // Starts argv[0]; stdin reads as empty, stdout and stderr are captured.
    explicit ChildProcess(const std::vector<std::string>& argv) { spawn(argv, false, false); }
    // Starts program with args, to be driven line by line on stdin; stderr
    // is inherited.
    ChildProcess(const std::string& program, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv{program};
        argv.insert(argv.end(), args.begin(), args.end());
        spawn(argv, true, true);
    }

    ~ChildProcess()
    {
        closeInput();
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
    // Everything the child wrote, for failure messages.
    std::string transcript() const { return "--- stdout:\n" + m_outText + "--- stderr:\n" + m_errText; }

    // Sends one line to its stdin.
    bool send(const std::string& line)
    {
        const std::string text = line + "\n";
        return m_in >= 0 && ::write(m_in, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }
    // Closes its stdin (end of commands).
    void closeInput() { closeFd(m_in); }

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

    // The next line of stdout not read yet, or false at the deadline or the
    // end of output.
    bool readLine(std::string& line, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        size_t newline = std::string::npos;
        waitFor([&] { return (newline = m_outText.find('\n', m_lineStart)) != std::string::npos; }, timeout);
        if (newline == std::string::npos)
            return false;
        line = m_outText.substr(m_lineStart, newline - m_lineStart);
        m_lineStart = newline + 1;
        return true;
    }
    // Reads lines until one satisfies wanted (true) or the deadline passes.
    bool waitForLine(const std::function<bool(const std::string&)>& wanted, std::string* found = nullptr,
                     std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        const auto deadline = Clock::now() + timeout;
        std::string line;
        while (readLine(line, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()))) {
            if (wanted(line)) {
                if (found != nullptr)
                    *found = line;
                return true;
            }
        }
        return false;
    }

    // Waits for the child to end and its output to close; the exit code, or
    // 128 + the signal that ended it; nothing if the timeout passed.
    std::optional<int> waitExit(std::chrono::milliseconds timeout = std::chrono::seconds(30))
    {
        waitFor([&] { return m_status.has_value() && m_out < 0 && m_err < 0; }, timeout);
        return m_status;
    }
    // The same as a number: -1 if the timeout passed.
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(20)) { return waitExit(timeout).value_or(-1); }

private:
    static void closeFd(int& fd)
    {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }

    void spawn(const std::vector<std::string>& argv, bool keepInput, bool inheritStderr)
    {
        // A child that dies must fail the test, not kill it on the next write.
        std::signal(SIGPIPE, SIG_IGN);
        int inPipe[2] = {-1, -1};
        int outPipe[2] = {-1, -1};
        int errPipe[2] = {-1, -1};
        if (::pipe2(inPipe, O_CLOEXEC) != 0 || ::pipe2(outPipe, O_CLOEXEC) != 0 ||
            (!inheritStderr && ::pipe2(errPipe, O_CLOEXEC) != 0)) {
            for (int fd : {inPipe[0], inPipe[1], outPipe[0], outPipe[1], errPipe[0], errPipe[1]})
                if (fd >= 0)
                    ::close(fd);
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, inPipe[0], 0);
        posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
        if (!inheritStderr)
            posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
        std::vector<char*> args;
        for (const std::string& arg : argv)
            args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        pid_t pid = -1;
        if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) == 0)
            m_pid = pid;
        posix_spawn_file_actions_destroy(&actions);
        for (int fd : {inPipe[0], outPipe[1], errPipe[1]})
            if (fd >= 0)
                ::close(fd);
        m_in = inPipe[1];
        if (!keepInput)
            closeInput(); // stdin reads as empty
        m_out = outPipe[0];
        m_err = errPipe[0];
        for (int fd : {m_out, m_err})
            if (fd >= 0)
                ::fcntl(fd, F_SETFL, O_NONBLOCK);
    }

    // Reads whatever the pipes hold, waiting at most a short slice.
    void pump(Clock::time_point deadline)
    {
        pollfd fds[2];
        nfds_t count = 0;
        for (int fd : {m_out, m_err})
            if (fd >= 0)
                fds[count++] = pollfd{fd, POLLIN, 0};
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
    int m_in = -1;
    int m_out = -1;
    int m_err = -1;
    std::string m_outText;
    std::string m_errText;
    size_t m_lineStart = 0; // where the next line read by readLine() starts
    std::optional<int> m_status;
};

} // namespace UlmarCommsTest
