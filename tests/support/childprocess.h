// A child process for the process-level tests: started with pipes on its
// stdin and stdout, read line by line with deadlines, and always ended and
// reaped (by its own pid) when the object goes.
#pragma once

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace UlmarCommsTest {

class ChildProcess {
public:
    // Starts program with args; stderr is inherited (it shows in test logs).
    ChildProcess(const std::string& program, const std::vector<std::string>& args)
    {
        // A child that dies must fail the test, not kill it on the next write.
        std::signal(SIGPIPE, SIG_IGN);
        int toChild[2];
        int fromChild[2];
        if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0)
            return;
        m_pid = fork();
        if (m_pid == 0) {
            dup2(toChild[0], STDIN_FILENO);
            dup2(fromChild[1], STDOUT_FILENO);
            std::vector<char*> argv;
            argv.push_back(const_cast<char*>(program.c_str()));
            for (const std::string& arg : args)
                argv.push_back(const_cast<char*>(arg.c_str()));
            argv.push_back(nullptr);
            execv(program.c_str(), argv.data());
            _exit(127);
        }
        close(toChild[0]);
        close(fromChild[1]);
        m_stdin = toChild[1];
        m_stdout = fromChild[0];
    }

    ~ChildProcess()
    {
        if (m_stdin >= 0)
            close(m_stdin);
        if (m_pid > 0 && !m_reaped) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        if (m_stdout >= 0)
            close(m_stdout);
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Whether the process was started.
    bool started() const { return m_pid > 0; }
    // Its pid.
    pid_t pid() const { return m_pid; }

    // Sends one line to its stdin.
    bool send(const std::string& line)
    {
        const std::string text = line + "\n";
        return m_stdin >= 0 && write(m_stdin, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

    // Closes its stdin (end of commands).
    void closeInput()
    {
        if (m_stdin >= 0)
            close(m_stdin);
        m_stdin = -1;
    }

    // The next line of its stdout, or false at the deadline or end of output.
    bool readLine(std::string& line, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            const size_t newline = m_buffer.find('\n');
            if (newline != std::string::npos) {
                line = m_buffer.substr(0, newline);
                m_buffer.erase(0, newline + 1);
                m_seen.push_back(line);
                return true;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || m_stdout < 0)
                return false;
            struct pollfd wanted = {m_stdout, POLLIN, 0};
            if (poll(&wanted, 1, static_cast<int>(left.count())) <= 0)
                continue;
            char chunk[4096];
            const ssize_t got = read(m_stdout, chunk, sizeof(chunk));
            if (got <= 0)
                return false;
            m_buffer.append(chunk, static_cast<size_t>(got));
        }
    }

    // Reads lines until one satisfies wanted (true) or the deadline passes.
    bool waitForLine(const std::function<bool(const std::string&)>& wanted, std::string* found = nullptr,
                     std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        std::string line;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !readLine(line, left))
                return false;
            if (wanted(line)) {
                if (found != nullptr)
                    *found = line;
                return true;
            }
        }
    }

    // Reads lines until one begins with prefix.
    bool waitForPrefix(const std::string& prefix, std::string* found = nullptr,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        return waitForLine([&](const std::string& line) { return line.rfind(prefix, 0) == 0; }, found, timeout);
    }

    // Every line read so far.
    const std::vector<std::string>& seen() const { return m_seen; }

    // Sends a signal.
    void signal(int number)
    {
        if (m_pid > 0 && !m_reaped)
            kill(m_pid, number);
    }

    // Waits for the process to end; its exit status or -1 at the deadline.
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(20))
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!m_reaped) {
            int status = 0;
            const pid_t ended = waitpid(m_pid, &status, WNOHANG);
            if (ended == m_pid) {
                m_reaped = true;
                m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                break;
            }
            if (std::chrono::steady_clock::now() >= deadline)
                return -1;
            usleep(2000);
        }
        return m_status;
    }

private:
    pid_t m_pid = -1;
    int m_stdin = -1;
    int m_stdout = -1;
    bool m_reaped = false;
    int m_status = -1;
    std::string m_buffer;
    std::vector<std::string> m_seen;
};

} // namespace UlmarCommsTest
