// The daemon as a user runs it: it starts and answers, refuses a second
// service on the same pipe name, stops cleanly on SIGTERM and SIGINT,
// reports start-up failures with their code, and logs with timestamp and
// level at the chosen level.
#include "tools/bus.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <csignal>
#include <regex>
#include <sstream>

using namespace UlmarCommsToolsTest;

namespace {

TEST(Ulmarcommsd, HelpVersionAndUsage)
{
    RunResult help = runTool({toolPath("ulmarcommsd"), "--help"});
    EXPECT_EQ(help.status, 0) << help.transcript();
    EXPECT_NE(help.out.find("Usage: ulmarcommsd"), std::string::npos);

    RunResult version = runTool({toolPath("ulmarcommsd"), "--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "ulmarcommsd " ULMARCOMMS_TOOLS_VERSION "\n");

    RunResult usage = runTool({toolPath("ulmarcommsd"), "--log-level", "7"});
    EXPECT_EQ(usage.status, 2) << usage.transcript();
    EXPECT_NE(usage.err.find("--log-level"), std::string::npos);
}

TEST(Ulmarcommsd, StartsAnswersAndStopsOnSigterm)
{
    const std::string pipe = uniquePipeName();
    ChildProcess daemon({toolPath("ulmarcommsd"), "--set", pipeSetting(pipe)});
    ASSERT_TRUE(daemon.waitForOut("service running on")) << daemon.transcript();
    EXPECT_NE(daemon.out().find("pipe name '" + pipe + "'"), std::string::npos) << daemon.out();

    RunResult info = client(pipe, {"info"});
    EXPECT_EQ(info.status, 0) << info.transcript();
    EXPECT_NE(info.out.find("name=" + hostName() + "\n"), std::string::npos) << info.out;

    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.waitExit(), 0) << daemon.transcript();
    EXPECT_NE(daemon.out().find("service stopped"), std::string::npos);

    RunResult after = client(pipe, {"info"});
    EXPECT_EQ(after.status, 3) << "the stopped service no longer answers\n" << after.transcript();
}

TEST(Ulmarcommsd, RefusesASecondServiceOnTheSamePipeName)
{
    Daemon first(uniquePipeName());
    ASSERT_TRUE(first.waitReady()) << first.process().transcript();

    RunResult second = runTool({toolPath("ulmarcommsd"), "--set", pipeSetting(first.pipeName())});
    EXPECT_EQ(second.status, 1) << second.transcript();
    EXPECT_NE(second.err.find("already answers on pipe name '" + first.pipeName() + "'"), std::string::npos)
        << second.err;
    EXPECT_EQ(std::count(second.err.begin(), second.err.end(), '\n'), 1) << "one clear line:\n" << second.err;

    RunResult info = client(first.pipeName(), {"info"});
    EXPECT_EQ(info.status, 0) << "the first service still serves\n" << info.transcript();

    // Another pipe name is another bus.
    Daemon other(uniquePipeName());
    EXPECT_TRUE(other.waitReady()) << other.process().transcript();
}

TEST(Ulmarcommsd, StopsOnSigint)
{
    Daemon daemon(uniquePipeName());
    ASSERT_TRUE(daemon.waitReady()) << daemon.process().transcript();
    daemon.process().signal(SIGINT);
    EXPECT_EQ(daemon.process().waitExit(), 0) << daemon.process().transcript();
    EXPECT_NE(daemon.process().out().find("received SIGINT"), std::string::npos);
}

TEST(Ulmarcommsd, RefusedStartArgumentIsReportedWithItsCode)
{
    RunResult refused =
        runTool({toolPath("ulmarcommsd"), "--set", pipeSetting(uniquePipeName()), "--set", "no.such.setting=1"});
    EXPECT_EQ(refused.status, 1) << refused.transcript();
    EXPECT_NE(refused.err.find("code 4"), std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find("no.such.setting"), std::string::npos) << "the library's own log line names the item\n"
                                                                      << refused.err;
}

// A loopback port that was free a moment ago.
std::string freeLoopbackPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(fd);
        return std::string();
    }
    ::close(fd);
    return std::to_string(ntohs(address.sin_port));
}

TEST(Ulmarcommsd, ServesOverTcpOnLoopbackAndRefusesASecondThere)
{
    const std::string port = freeLoopbackPort();
    ASSERT_FALSE(port.empty());
    const std::vector<std::string> tcp = {"--set", "ulmar.systemrouter.pipe=0", "--set", "ulmar.systemrouter.ip4=1",
                                          "--set", "ulmar.systemrouter.ip4.port=" + port};
    std::vector<std::string> argv = {toolPath("ulmarcommsd")};
    argv.insert(argv.end(), tcp.begin(), tcp.end());
    ChildProcess daemon(argv);
    ASSERT_TRUE(daemon.waitForOut("service running on TCP 127.0.0.1:" + port)) << daemon.transcript();

    std::vector<std::string> info = {toolPath("ulmarcomms")};
    info.insert(info.end(), tcp.begin(), tcp.end());
    info.push_back("info");
    RunResult answered = runTool(info);
    EXPECT_EQ(answered.status, 0) << answered.transcript();
    EXPECT_NE(answered.out.find("os=linux"), std::string::npos);

    RunResult second = runTool(argv);
    EXPECT_EQ(second.status, 1) << second.transcript();
    EXPECT_NE(second.err.find("already answers on TCP 127.0.0.1:" + port), std::string::npos) << second.err;

    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.waitExit(), 0) << daemon.transcript();
}

TEST(Ulmarcommsd, AListenerThatCannotBeSetUpIsAFailedStart)
{
    // The library reports success here; the daemon checks its own listener.
    RunResult unusable = runTool({toolPath("ulmarcommsd"), "--set", "ulmar.systemrouter.pipe=0", "--set",
                                  "ulmar.systemrouter.ip4=1", "--set", "ulmar.systemrouter.ip4.port=notaport"});
    EXPECT_EQ(unusable.status, 1) << unusable.transcript();
    EXPECT_NE(unusable.err.find("does not listen on TCP 127.0.0.1:notaport"), std::string::npos) << unusable.err;
    EXPECT_EQ(unusable.out.find("service running"), std::string::npos) << unusable.out;

    RunResult noLink = runTool({toolPath("ulmarcommsd"), "--set", "ulmar.systemrouter.pipe=0"});
    EXPECT_EQ(noLink.status, 2) << noLink.transcript();
    EXPECT_NE(noLink.err.find("no local link"), std::string::npos) << noLink.err;
}

TEST(Ulmarcommsd, LogLinesCarryTimestampAndLevel)
{
    Daemon daemon(uniquePipeName(), {"--log-level", "1"});
    ASSERT_TRUE(daemon.waitReady()) << daemon.process().transcript();
    ASSERT_TRUE(daemon.process().waitFor([&] { return daemon.process().err().find(" MESSAGE ") != std::string::npos; },
                                         std::chrono::seconds(30)))
        << daemon.process().transcript();
    const std::regex line(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} (VERBOSE|MESSAGE|WARNING|ERROR|FATAL) \S.*$)");
    std::istringstream lines(daemon.process().err());
    std::string text;
    int checked = 0;
    while (std::getline(lines, text)) {
        EXPECT_TRUE(std::regex_match(text, line)) << text;
        EXPECT_EQ(text.find(" VERBOSE "), std::string::npos) << "level 0 is below the chosen level\n" << text;
        ++checked;
    }
    EXPECT_GT(checked, 0);
}

TEST(Ulmarcommsd, DefaultLevelKeepsMessagesOut)
{
    Daemon daemon(uniquePipeName());
    ASSERT_TRUE(daemon.waitReady()) << daemon.process().transcript();
    RunResult info = client(daemon.pipeName(), {"info"});
    ASSERT_EQ(info.status, 0) << info.transcript();
    daemon.process().signal(SIGTERM);
    ASSERT_EQ(daemon.process().waitExit(), 0);
    EXPECT_EQ(daemon.process().err().find(" MESSAGE "), std::string::npos) << daemon.process().err();
}

} // namespace
