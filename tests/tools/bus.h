// A private bus for one process test: a daemon on a pipe name no other test
// uses, and helpers that run the client against it.
#pragma once

#include "tools/childprocess.h"

#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace UlmarCommsToolsTest {

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
