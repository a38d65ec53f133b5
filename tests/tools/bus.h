// A private bus for one process test: a daemon on a pipe name no other test
// uses, and helpers that run the built programs against it.
#pragma once

#include "support/childprocess.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

namespace UlmarCommsToolsTest {

using UlmarCommsTest::ChildProcess;

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

// The --set item that puts a program on the given pipe name.
inline std::string pipeSetting(const std::string& pipeName)
{
    return "ulmar.systemrouter.pipe.name=" + pipeName;
}

// This machine's host name, as the library reports it in addresses.
inline std::string hostName()
{
    char buffer[256] = {};
    if (gethostname(buffer, 255) != 0)
        return "unknownhost";
    return buffer;
}

// A running daemon on its own pipe name; stopped with SIGTERM and reaped
// when it goes.
class Daemon {
public:
    explicit Daemon(const std::string& pipeName, const std::vector<std::string>& extra = {}) : m_pipeName(pipeName)
    {
        std::vector<std::string> argv = {toolPath("ulmarcommsd"), "--set", pipeSetting(pipeName)};
        argv.insert(argv.end(), extra.begin(), extra.end());
        m_process = std::make_unique<ChildProcess>(argv);
    }

    ~Daemon()
    {
        if (!m_process)
            return;
        m_process->signal(SIGTERM);
        m_process->waitExit();
    }

    // Waits until the daemon says its service runs.
    bool waitReady() { return m_process->started() && m_process->waitForOut("service running on"); }

    ChildProcess& process() { return *m_process; }
    const std::string& pipeName() const { return m_pipeName; }

private:
    std::string m_pipeName;
    std::unique_ptr<ChildProcess> m_process;
};

// The client's argv on a pipe name: program, --set, then args.
inline std::vector<std::string> clientArgs(const std::string& pipeName, const std::vector<std::string>& args)
{
    std::vector<std::string> argv = {toolPath("ulmarcomms"), "--set", pipeSetting(pipeName)};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

// Runs the client to its end on a pipe name.
inline RunResult client(const std::string& pipeName, const std::vector<std::string>& args)
{
    return runTool(clientArgs(pipeName, args));
}

} // namespace UlmarCommsToolsTest
