// Child processes and the daemon a run talks through.
//
// The coordinator runs every part as a separate process (this program again
// with --role, or ulmarcommsd), so that the bus is measured across process
// boundaries as applications use it. Children's stdout is read through a
// pipe for their READY and RESULT lines; deadlines guard against a child
// that hangs, which is then killed.
#pragma once

#include "common.h"
#include "options.h"

#include <string>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <vector>

namespace UlmarCommsBench {

// A child running this program (or the daemon); its stdout is kept.
struct Child {
    pid_t pid = -1; // -1 when it could not be started
    int output = -1; // read end of its stdout, -1 when not captured
    std::string collected; // what it has written so far
};

// Starts program with arguments; with captureOutput its stdout is piped to
// us, otherwise discarded; stderr reaches the user, or is appended to
// errorLog when one is named.
Child spawn(const std::string& program, const std::vector<std::string>& arguments, bool captureOutput,
            const std::string& errorLog = "");

// Reads a child's output until it ends and reaps it; its exit status, or -1
// when it overran the deadline (then it is killed).
int finish(Child& child, std::chrono::seconds limit);

// Reads a child's output until it contains line; false at the deadline or
// when the output ends first.
bool awaitLine(Child& child, const std::string& line, std::chrono::seconds limit);

// A group of children that start together: each prints READY when set up
// and then waits for the go signal (SIGUSR1) before it measures. Blocking
// the signal before the library starts keeps it blocked in the library's
// threads too, so only the waiting thread takes it.
void blockGoSignal();

// Waits for the go signal; false when limit passed first.
bool awaitGo(std::chrono::seconds limit);

// Sends the go signal to every child of group.
void signalGo(const std::vector<Child>& group);

// Waits until every child of group printed line; false (with a message
// naming what) when one did not within limit.
bool awaitAll(std::vector<Child>& group, const std::string& line, std::chrono::seconds limit, const char* what);

// Finishes every child of group (each within limit); the number that failed.
unsigned finishAll(std::vector<Child>& group, std::chrono::seconds limit);

// The path of this program, for running it again in another role.
std::string selfPath();

// The resident memory of process pid in KiB (VmRSS), 0 when unknown.
long residentKiBOf(pid_t pid);

// The CPU time (user and system) process pid has used, in microseconds;
// negative when unknown.
double cpuMicrosecondsOf(pid_t pid);

// Reads the CPU time of the process in the middle of a road (the daemon,
// or the relay) around one measurement and reports it per message as
// daemon_cpu_us_per_msg_NAME. Silent when the pid is unknown (0).
class CpuMeter {
public:
    explicit CpuMeter(unsigned pid) : m_pid(static_cast<pid_t>(pid)) {}
    // Notes the CPU time before a measurement.
    void begin() { m_before = m_pid > 0 ? cpuMicrosecondsOf(m_pid) : -1; }
    // Adds the figure for messages that passed since begin().
    void end(const std::string& name, double messages, Figures& figures) const;

private:
    pid_t m_pid; // 0: unknown
    double m_before = -1; // CPU microseconds at begin(), negative if unknown
};

// Whether something accepts on the local link of the daemon serving pipe.
bool daemonAnswers(const std::string& pipe);

// The local link's socket address for pipe (abstract, NUL-padded), and its size.
socklen_t localLinkAddress(const std::string& pipe, sockaddr_un& address);

// The ulmarcommsd a run uses: a private one it starts, or the one --pipe names.
struct Daemon {
    Child child; // the private daemon
    bool ours = false; // whether child runs and must be stopped

    // Checks the daemon on --pipe, or starts a private one and sets
    // options.pipe to its pipe; false (with a message) when neither works.
    bool start(Options& options);
    // Starts a private daemon on pipe (its stderr to errorLog, if named)
    // and waits until it listens; false (with a message) when it does not.
    bool launch(const Options& options, const std::string& pipe, const std::string& errorLog = "");
    // Sends signal to the private daemon and reaps it (SIGKILL after 10 s);
    // false when it had already ended.
    bool stopWith(int signal);
    // Whether the private daemon has ended on its own (it is then reaped).
    bool ended();
    // Stops the private daemon, if any.
    void stop();
    // The private daemon's resident memory in KiB, 0 when unknown.
    long residentKiB() const;

private:
    // Waits until the daemon started as program listens on pipe.
    bool awaitListening(const std::string& program, const std::string& pipe);
};

} // namespace UlmarCommsBench
