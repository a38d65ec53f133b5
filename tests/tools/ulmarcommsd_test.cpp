// The daemon as a user runs it: it starts and answers, refuses a second
// service on the same pipe name, stops cleanly on SIGTERM and SIGINT,
// reports start-up failures with their code, and logs with timestamp and
// level at the chosen level.
#include "network/network_support.h"
#include "tools/bus.h"

#include <gtest/gtest.h>

#include <algorithm>
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

    // A bad network is a usage error before anything starts.
    RunResult network = runTool({toolPath("ulmarcommsd"), "--allow-network", "10.1.2.3/24"});
    EXPECT_EQ(network.status, 2) << network.transcript();
    EXPECT_NE(network.err.find("has host bits set"), std::string::npos) << network.err;
    EXPECT_EQ(network.out.find("service running"), std::string::npos) << network.out;
}

TEST(Ulmarcommsd, StartsAnswersAndStopsOnSigtermOrSigint)
{
    for (const auto& [number, name] : {std::pair{SIGTERM, "SIGTERM"}, std::pair{SIGINT, "SIGINT"}}) {
        SCOPED_TRACE(name);
        const std::string pipe = uniquePipeName();
        ChildProcess daemon({toolPath("ulmarcommsd"), "--set", pipeSetting(pipe)});
        ASSERT_TRUE(daemon.waitForOut("service running on")) << daemon.transcript();
        EXPECT_NE(daemon.out().find("pipe name '" + pipe + "'"), std::string::npos) << daemon.out();

        RunResult info = client(pipe, {"info"});
        EXPECT_EQ(info.status, 0) << info.transcript();
        EXPECT_NE(info.out.find("name=" + hostName() + "\n"), std::string::npos) << info.out;

        daemon.signal(number);
        EXPECT_EQ(daemon.waitExit(), 0) << daemon.transcript();
        EXPECT_NE(daemon.out().find("received " + std::string(name)), std::string::npos) << daemon.out();
        EXPECT_NE(daemon.out().find("service stopped"), std::string::npos);
        // The default log level keeps messages out.
        EXPECT_EQ(daemon.err().find(" MESSAGE "), std::string::npos) << daemon.err();

        RunResult after = client(pipe, {"info"});
        EXPECT_EQ(after.status, 3) << "the stopped service no longer answers\n" << after.transcript();
    }
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

TEST(Ulmarcommsd, FailedStartsSayWhyWithTheirStatus)
{
    const std::string tcpOff = "ulmar.systemrouter.pipe=0";
    struct Case {
        std::vector<std::string> sets;
        int status;
        std::vector<std::string> reasons; // on stderr
    };
    const std::vector<Case> cases = {
        // The library's own log line names the refused item.
        {{pipeSetting(uniquePipeName()), "no.such.setting=1"}, 1, {"code 4", "no.such.setting"}},
        // The library reports success here; the daemon checks its own listener.
        {{tcpOff, "ulmar.systemrouter.ip4=1", "ulmar.systemrouter.ip4.port=notaport"},
         1,
         {"does not listen on TCP 127.0.0.1:notaport"}},
        {{tcpOff}, 2, {"no local link"}},
    };
    for (const Case& item : cases) {
        std::vector<std::string> argv = {toolPath("ulmarcommsd")};
        for (const std::string& set : item.sets)
            argv.insert(argv.end(), {"--set", set});
        RunResult refused = runTool(argv);
        EXPECT_EQ(refused.status, item.status) << refused.transcript();
        for (const std::string& reason : item.reasons)
            EXPECT_NE(refused.err.find(reason), std::string::npos) << refused.err;
        EXPECT_EQ(refused.out.find("service running"), std::string::npos) << refused.out;
    }
}

TEST(Ulmarcommsd, ServesOverTcpOnLoopbackAndRefusesASecondThere)
{
    const std::string port = std::to_string(UlmarCommsTest::freeLoopbackPort());
    ASSERT_NE(port, "0");
    const std::vector<std::string> tcp = {"--set", "ulmar.systemrouter.pipe=0",
                                          "--set", "ulmar.systemrouter.ip4=1",
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

} // namespace
