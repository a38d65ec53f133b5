// A bus participant for the process-level tests: the scriptable test program
// (tests/programs/testapp.cpp) started as an application or as the service on
// a given pipe name, with helpers to send it commands and await its lines.
#pragma once

#include "support/childprocess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <list>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#ifndef ULMARCOMMS_TESTAPP
#error "the test build defines ULMARCOMMS_TESTAPP"
#endif

namespace UlmarCommsTest {

// A pipe name no other test (or test process) uses.
inline std::string uniquePipe()
{
    static std::atomic<int> counter{0};
    return "bus" + std::to_string(getpid()) + "_" + std::to_string(counter++);
}

// One participant: the test program started with the bus's start argument.
class Participant {
public:
    // launcher, when given, runs the program (as another user, say).
    Participant(const std::string& pipe, bool service, const std::string& extraSettings = "",
                const std::vector<std::string>& launcher = {})
        : Participant(commandLine(pipe, service, extraSettings, launcher))
    {
    }
    // Every participant leaves cleanly: a non-zero exit (a crash, or a leak
    // found by the sanitizer at exit) fails the test.
    ~Participant()
    {
        m_process.send("quit");
        EXPECT_EQ(m_process.wait(), 0) << "participant " << m_process.pid() << " did not exit cleanly";
    }
    static std::string argument(const std::string& pipe) { return "ulmar.systemrouter.pipe.name=" + pipe; }
    static std::vector<std::string> commandLine(const std::string& pipe, bool service, const std::string& extraSettings,
                                                std::vector<std::string> argv)
    {
        argv.push_back(ULMARCOMMS_TESTAPP);
        if (service)
            argv.push_back("--service");
        argv.push_back("--start");
        argv.push_back(argument(pipe) + extraSettings);
        return argv;
    }

    // Sends a command and returns the first line starting with expect.
    std::string ask(const std::string& command, const std::string& expect)
    {
        std::string line;
        m_process.send(command);
        EXPECT_TRUE(waitFor(expect, &line)) << "no '" << expect << "' after '" << command << "'";
        return line;
    }
    // The first line beginning with prefix, earlier unclaimed lines included:
    // callbacks print on their own thread, so an answer may come before the
    // line that reports its request was sent.
    bool waitFor(const std::string& prefix, std::string* line = nullptr,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        for (auto it = m_unclaimed.begin(); it != m_unclaimed.end(); ++it) {
            if (it->rfind(prefix, 0) == 0) {
                if (line != nullptr)
                    *line = *it;
                m_unclaimed.erase(it);
                return true;
            }
        }
        return m_process.waitForLine(
            [&](const std::string& read) {
                if (read.rfind(prefix, 0) == 0)
                    return true;
                m_unclaimed.push_back(read);
                return false;
            },
            line, timeout);
    }
    // Asks the system endpoint and returns the response text (newlines as "\n").
    std::string query(const std::string& pump, const std::string& method, const std::string& pairs = "")
    {
        std::istringstream sent(ask("send " + pump + " /system " + method + " " + pairs, "sent " + pump));
        std::string word, name, id;
        sent >> word >> name >> id;
        std::string line;
        EXPECT_TRUE(waitFor("response " + pump + " " + id + " ", &line)) << method;
        return line.substr(std::string("response " + pump + " " + id + " ").size());
    }
    ChildProcess& process() { return m_process; }

private:
    explicit Participant(const std::vector<std::string>& argv)
        : m_process(argv.front(), std::vector<std::string>(argv.begin() + 1, argv.end()))
    {
    }

    ChildProcess m_process;
    std::list<std::string> m_unclaimed;
};

} // namespace UlmarCommsTest
