// Hosts simulated on this machine: each host is a network namespace with one
// veth link to a bridge that lives in a namespace of its own, plus a UTS
// namespace with the host's own name, and runs ulmarcommsd with the network
// router and discovery on. Applications (tests/programs/ulmarcomms_nettest)
// run inside the same namespaces and talk to the hosts' daemons.
//
// Every address lives inside namespaces the fixture made, so no traffic
// leaves them. Namespaces are named "ulmnet<pid>-..." after the test process:
// the fixture removes its own when it ends (also on failure) and those of
// earlier runs whose process is gone. Every process it starts is killed with
// the test process (PR_SET_PDEATHSIG) should the test crash.
//
// Needs root and a kernel that allows namespaces; otherwise the tests skip.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

const char* const Prefix = "ulmnet";
const char* const Subnet = "10.77.1.";
const int DiscoveryPort = 34001;

std::string exeDir()
{
    char path[4096] = {0};
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    std::string text(path, length > 0 ? static_cast<size_t>(length) : 0);
    return text.substr(0, text.rfind('/'));
}

// A process started by the fixture, with its stdin and stdout as pipes.
struct Process {
    pid_t pid = -1;
    int in = -1;
    int out = -1;
    std::string pending;
};

// Starts argv, optionally inside a network namespace (path under /run/netns)
// and the UTS namespace of a holder process. stdin/stdout are pipes; stderr
// goes to errorLog (or /dev/null).
Process spawn(const std::vector<std::string>& argv, const std::string& netns = "", pid_t utsHolder = -1,
              const std::string& errorLog = "")
{
    Process process;
    int toChild[2];
    int fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0)
        return process;
    if (pipe2(fromChild, O_CLOEXEC) != 0) {
        close(toChild[0]);
        close(toChild[1]);
        return process;
    }
    // Everything the child needs is made before the fork.
    std::vector<char*> args;
    for (const std::string& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const std::string netPath = netns.empty() ? "" : "/run/netns/" + netns;
    const std::string utsPath = utsHolder > 0 ? "/proc/" + std::to_string(utsHolder) + "/ns/uts" : "";
    const std::string logPath = errorLog.empty() ? "/dev/null" : errorLog;
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(120);
        dup2(toChild[0], 0);
        dup2(fromChild[1], 1);
        const int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (log >= 0)
            dup2(log, 2);
        if (!netPath.empty()) {
            const int fd = open(netPath.c_str(), O_RDONLY);
            if (fd < 0 || setns(fd, CLONE_NEWNET) != 0)
                _exit(121);
        }
        if (!utsPath.empty()) {
            const int fd = open(utsPath.c_str(), O_RDONLY);
            if (fd < 0 || setns(fd, CLONE_NEWUTS) != 0)
                _exit(122);
        }
        execv(args[0], args.data());
        _exit(127);
    }
    close(toChild[0]);
    close(fromChild[1]);
    if (pid < 0) {
        close(toChild[1]);
        close(fromChild[0]);
        return process;
    }
    process.pid = pid;
    process.in = toChild[1];
    process.out = fromChild[0];
    return process;
}

// Reads the next line before the deadline; false on time-out or end.
bool readLine(Process& process, Clock::time_point deadline, std::string& line)
{
    for (;;) {
        const size_t end = process.pending.find('\n');
        if (end != std::string::npos) {
            line = process.pending.substr(0, end);
            process.pending.erase(0, end + 1);
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0 || process.out < 0)
            return false;
        pollfd ready{process.out, POLLIN, 0};
        if (poll(&ready, 1, static_cast<int>(left)) <= 0)
            continue;
        char buffer[4096];
        const ssize_t got = read(process.out, buffer, sizeof(buffer));
        if (got <= 0)
            return false;
        process.pending.append(buffer, static_cast<size_t>(got));
    }
}

// Reads everything until the process closes stdout or the deadline passes.
std::string readAll(Process& process, Clock::time_point deadline)
{
    std::string text;
    std::string line;
    while (readLine(process, deadline, line))
        text += line + "\n";
    return text + process.pending;
}

// Waits for the process to end before the deadline, killing it afterwards.
// Returns the exit status (-1 when it had to be killed or was signalled).
int finish(Process& process, Clock::time_point deadline)
{
    if (process.in >= 0)
        close(process.in);
    process.in = -1;
    int status = 0;
    bool ended = false;
    while (!ended && Clock::now() < deadline) {
        const pid_t done = waitpid(process.pid, &status, WNOHANG);
        ended = done == process.pid;
        if (!ended)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (!ended) {
        kill(process.pid, SIGKILL);
        waitpid(process.pid, &status, 0);
        status = -1;
    }
    if (process.out >= 0)
        close(process.out);
    process.out = -1;
    process.pid = -1;
    if (status == -1 || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

// Runs a command to its end (quietly); its exit status.
int command(const std::vector<std::string>& argv)
{
    Process process = spawn(argv);
    if (process.pid < 0)
        return -1;
    readAll(process, Clock::now() + std::chrono::seconds(20));
    return finish(process, Clock::now() + std::chrono::seconds(20));
}

// Removes namespaces of this fixture's naming whose test process is gone.
void removeLeftovers()
{
    DIR* directory = opendir("/run/netns");
    if (directory == nullptr)
        return;
    std::vector<std::string> stale;
    while (dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        if (name.rfind(Prefix, 0) != 0)
            continue;
        const pid_t owner = static_cast<pid_t>(std::atoi(name.c_str() + std::strlen(Prefix)));
        if (owner > 0 && kill(owner, 0) != 0 && errno == ESRCH)
            stale.push_back(name);
    }
    closedir(directory);
    for (const std::string& name : stale) {
        // Processes left in it were started by a run of this fixture.
        Process pids = spawn({"/usr/sbin/ip", "netns", "pids", name});
        const std::string text = readAll(pids, Clock::now() + std::chrono::seconds(5));
        finish(pids, Clock::now() + std::chrono::seconds(5));
        size_t at = 0;
        while (at < text.size()) {
            const pid_t pid = static_cast<pid_t>(std::atoi(text.c_str() + at));
            if (pid > 0)
                kill(pid, SIGKILL);
            const size_t next = text.find('\n', at);
            at = next == std::string::npos ? text.size() : next + 1;
        }
        command({"/usr/sbin/ip", "netns", "del", name});
    }
}

// One simulated host.
struct Host {
    std::string name;      // its host name
    std::string netns;     // its network namespace
    std::string address;   // its IPv4 address
    std::string pipe;      // its daemon's local link name
    std::string log;       // where its daemon's log goes
    pid_t holder = -1;     // the process that keeps its UTS namespace
    Process daemon;
    Process server;        // the "echo" pump
};

class MultiHost : public ::testing::Test {
protected:
    void TearDown() override
    {
        const auto deadline = Clock::now() + std::chrono::seconds(30);
        for (Host& host : m_hosts) {
            if (host.server.pid > 0) {
                EXPECT_EQ(finish(host.server, deadline), 0) << "echo pump on " << host.name;
            }
            if (host.daemon.pid > 0) {
                EXPECT_EQ(stopDaemon(host), 0) << "daemon on " << host.name << ", log " << host.log;
            }
        }
        for (Host& host : m_hosts) {
            if (host.holder > 0) {
                kill(host.holder, SIGKILL);
                waitpid(host.holder, nullptr, 0);
            }
            command({"/usr/sbin/ip", "netns", "del", host.netns});
            if (!HasFailure())
                unlink(host.log.c_str());
        }
        if (!m_bridge.empty())
            command({"/usr/sbin/ip", "netns", "del", m_bridge});
    }

    // Builds count hosts named hostA, hostB ... with daemons and echo pumps;
    // an empty text on success, else why the test cannot run here.
    std::string prepare(int count)
    {
        if (geteuid() != 0)
            return "multi-host tests need root to create network namespaces";
        m_daemonPath = exeDir() + "/../tools/ulmarcommsd";
        m_appPath = exeDir() + "/programs/ulmarcomms_nettest";
        if (access(m_daemonPath.c_str(), X_OK) != 0 || access(m_appPath.c_str(), X_OK) != 0)
            return "ulmarcommsd or ulmarcomms_nettest is not built";
        removeLeftovers();
        const std::string base = Prefix + std::to_string(getpid());
        m_bridge = base + "-br";
        if (command({"/usr/sbin/ip", "netns", "add", m_bridge}) != 0) {
            m_bridge.clear();
            return "cannot create network namespaces here";
        }
        if (ip(m_bridge, {"link", "add", "br0", "type", "bridge"}) != 0
            || ip(m_bridge, {"link", "set", "br0", "up"}) != 0)
            return "cannot create a bridge here";
        for (int i = 0; i < count; ++i) {
            Host host;
            host.name = std::string("host") + static_cast<char>('A' + i);
            host.netns = base + "-" + host.name;
            host.address = Subnet + std::to_string(i + 1);
            host.pipe = base + host.name;
            host.log = "/tmp/" + base + "-" + host.name + ".log";
            m_hosts.push_back(host);
            if (command({"/usr/sbin/ip", "netns", "add", host.netns}) != 0)
                return "cannot create network namespaces here";
            const std::string port = "p" + std::to_string(i);
            if (ip(m_bridge, {"link", "add", port, "type", "veth", "peer", "name", "eth0", "netns", host.netns}) != 0
                || ip(m_bridge, {"link", "set", port, "master", "br0", "up"}) != 0
                || ip(host.netns, {"addr", "add", host.address + "/24", "brd", "+", "dev", "eth0"}) != 0
                || ip(host.netns, {"link", "set", "eth0", "up"}) != 0
                || ip(host.netns, {"link", "set", "lo", "up"}) != 0)
                return "cannot wire the simulated hosts";
            if (!makeUtsHolder(m_hosts.back()))
                return "cannot create UTS namespaces here";
        }
        for (Host& host : m_hosts) {
            if (!startDaemon(host))
                return std::string();
            host.server = spawn({m_appPath, "serve", host.pipe, "echo", "tick"}, host.netns, host.holder);
            std::string line;
            if (!readLine(host.server, Clock::now() + std::chrono::seconds(20), line) || line.rfind("READY", 0) != 0) {
                ADD_FAILURE() << "echo pump on " << host.name << " did not start: " << line;
                return std::string();
            }
        }
        return std::string();
    }

    int ip(const std::string& netns, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {"/usr/sbin/ip", "-n", netns};
        argv.insert(argv.end(), args.begin(), args.end());
        return command(argv);
    }

    // A process that unshares a UTS namespace, names the host and waits.
    bool makeUtsHolder(Host& host)
    {
        int ready[2];
        if (pipe2(ready, O_CLOEXEC) != 0)
            return false;
        const std::string name = host.name;
        const pid_t parent = getpid();
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent)
                _exit(120);
            const char answer = unshare(CLONE_NEWUTS) == 0 && sethostname(name.c_str(), name.size()) == 0 ? 'y' : 'n';
            if (write(ready[1], &answer, 1) != 1)
                _exit(121);
            for (;;)
                pause();
        }
        close(ready[1]);
        char answer = 'n';
        const bool ok = pid > 0 && read(ready[0], &answer, 1) == 1 && answer == 'y';
        close(ready[0]);
        host.holder = pid;
        return ok;
    }

    bool startDaemon(Host& host)
    {
        host.daemon = spawn({m_daemonPath, "--set", "ulmar.networkrouter=1", "--set", "ulmar.networkrouter.discovery=1",
                             "--set", "ulmar.networkrouter.discovery.timeout=1000", "--set",
                             "ulmar.systemrouter.pipe.name=" + host.pipe},
                            host.netns, host.holder, host.log);
        std::string line;
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (readLine(host.daemon, deadline, line))
            if (line.find("service running") != std::string::npos)
                return true;
        ADD_FAILURE() << "daemon on " << host.name << " did not start; log " << host.log;
        return false;
    }

    int stopDaemon(Host& host)
    {
        kill(host.daemon.pid, SIGTERM);
        return finish(host.daemon, Clock::now() + std::chrono::seconds(30));
    }

    // Starts the test application on a host.
    Process app(Host& host, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {m_appPath};
        argv.insert(argv.end(), args.begin(), args.end());
        return spawn(argv, host.netns, host.holder);
    }

    // One request from an application on host: its whole output.
    std::string call(Host& host, const std::string& to, const std::string& method,
                     const std::vector<std::string>& pairs = {})
    {
        std::vector<std::string> args = {"call", host.pipe, to, method};
        args.insert(args.end(), pairs.begin(), pairs.end());
        Process process = app(host, args);
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        std::string output = readAll(process, deadline);
        finish(process, deadline);
        if (!output.empty() && output.back() == '\n')
            output.pop_back();
        return output;
    }

    // Asks host's system endpoint until the answer equals expected.
    bool waitForAnswer(Host& host, const std::string& method, const std::string& expected)
    {
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (Clock::now() < deadline) {
            if (call(host, host.name + "@system", method) == "RESPONSE " + expected)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        return false;
    }

    // Asks host's system endpoint until the answer holds part.
    bool waitForAnswerContaining(Host& host, const std::string& method, const std::string& part)
    {
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (Clock::now() < deadline) {
            if (call(host, host.name + "@system", method).find(part) != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    // The announcement host sends, as hex.
    static std::string announcement(const Host& host)
    {
        std::string bytes = "\xF1\x2A";
        const size_t total = 2 + 4 + 1 + 4 + 4 + host.name.size() + 8 + 2;
        auto put32 = [&bytes](uint32_t value) {
            for (int shift = 24; shift >= 0; shift -= 8)
                bytes += static_cast<char>((value >> shift) & 0xFF);
        };
        put32(static_cast<uint32_t>(total));
        bytes += '\0';
        put32(0);
        put32(static_cast<uint32_t>(host.name.size()));
        bytes += host.name;
        bytes += std::string("\x00\x02", 2);
        bytes += static_cast<char>(DiscoveryPort >> 8);
        bytes += static_cast<char>(DiscoveryPort & 0xFF);
        bytes += std::string("\x0A\x4D\x01", 3);
        bytes += static_cast<char>(std::atoi(host.address.c_str() + std::strlen(Subnet)));
        bytes += "\xAA\x87";
        std::string hex;
        char pair[3];
        for (unsigned char byte : bytes) {
            std::snprintf(pair, sizeof(pair), "%02x", byte);
            hex += pair;
        }
        return hex;
    }

    std::vector<Host> m_hosts;
    std::string m_bridge;
    std::string m_daemonPath;
    std::string m_appPath;
};

#define PREPARE_HOSTS(count)                                                                                         \
    do {                                                                                                             \
        const std::string why = prepare(count);                                                                      \
        if (!why.empty())                                                                                            \
            GTEST_SKIP() << why;                                                                                     \
        ASSERT_FALSE(HasFailure());                                                                                  \
    } while (false)

} // namespace

TEST_F(MultiHost, TwoHostsDiscoverEachOtherAndRouteRequests)
{
    PREPARE_HOSTS(2);
    Host& a = m_hosts[0];
    Host& b = m_hosts[1];

    // Discovery alone: known hosts (plus the host itself) and an entry that
    // still needs a connection.
    ASSERT_TRUE(waitForAnswer(a, "KnownHosts", "hostB\nhostA"));
    ASSERT_TRUE(waitForAnswer(b, "KnownHosts", "hostA\nhostB"));
    EXPECT_EQ(call(a, "hostA@system", "NetworkRoutingTable"),
              "RESPONSE hostB,true,10.77.1.2:34001,10.77.1.0:0,10.77.1.255:34001,10.77.1.1:34001\n");

    // A request across hosts gets its reply, and both tables now hold the link.
    EXPECT_EQ(call(a, "hostB@echo", "ping"), "RESPONSE echo:ping:hostB");
    EXPECT_EQ(call(a, "hostA@system", "NetworkRoutingTable"),
              "RESPONSE hostB,false,10.77.1.2:34001,10.77.1.0:0,10.77.1.255:34001,10.77.1.1:34001\n");
    EXPECT_NE(call(b, "hostB@system", "NetworkRoutingTable").find("hostA,false,10.77.1.1:"), std::string::npos);
    EXPECT_EQ(call(b, "hostA@echo", "pong"), "RESPONSE echo:pong:hostA");

    // The other host's system endpoint answers too.
    EXPECT_EQ(call(a, "hostB@system", "HostInformation", {"host=hostA"}), "RESPONSE host:hostA\n");
    EXPECT_NE(call(a, "hostA@system", "SystemInfo")
                  .find("interfaces=1\ninterface0=10.77.1.0:0,10.77.1.255:34001,10.77.1.1:34001\n"),
              std::string::npos);

    // No such pump on the other host: that host's system router answers 400.
    EXPECT_EQ(call(a, "hostB@nosuchpump", "ping"), "ERROR 400");

    // The announcement on the wire, as heard on host A from host B.
    Process capture = app(a, {"capture", "10.77.1.255", std::to_string(DiscoveryPort), b.address, "10000"});
    const std::string heard = readAll(capture, Clock::now() + std::chrono::seconds(15));
    EXPECT_EQ(finish(capture, Clock::now() + std::chrono::seconds(5)), 0);
    EXPECT_EQ(heard, "LISTENING\nDATAGRAM " + announcement(b) + "\n");
}

TEST_F(MultiHost, EventsRegisteredAcrossHostsArrive)
{
    PREPARE_HOSTS(2);
    Host& a = m_hosts[0];
    Host& b = m_hosts[1];
    ASSERT_TRUE(waitForAnswer(a, "KnownHosts", "hostB\nhostA"));

    Process listener = app(a, {"listen", a.pipe, "hostB@echo", "tick", "2"});
    std::string line;
    ASSERT_TRUE(readLine(listener, Clock::now() + std::chrono::seconds(20), line));
    ASSERT_EQ(line, "REGISTERED");
    EXPECT_EQ(call(b, "hostB@echo", "fire"), "RESPONSE echo:fire:hostB");
    EXPECT_EQ(call(a, "hostB@echo", "fire"), "RESPONSE echo:fire:hostB");
    const std::string events = readAll(listener, Clock::now() + std::chrono::seconds(20));
    EXPECT_EQ(finish(listener, Clock::now() + std::chrono::seconds(5)), 0);
    EXPECT_EQ(events, "EVENT hostB@echo\nEVENT hostB@echo\n");
}

TEST_F(MultiHost, RestartedPeerIsReachedAgainAndBothSidesPostAtOnce)
{
    PREPARE_HOSTS(2);
    Host& a = m_hosts[0];
    Host& b = m_hosts[1];
    ASSERT_TRUE(waitForAnswer(a, "KnownHosts", "hostB\nhostA"));
    ASSERT_EQ(call(a, "hostB@echo", "before"), "RESPONSE echo:before:hostB");

    // The peer's service goes away and comes back: the next post opens a new
    // link (the old one was dropped when the peer went).
    EXPECT_EQ(finish(b.server, Clock::now() + std::chrono::seconds(20)), 0);
    ASSERT_EQ(stopDaemon(b), 0);
    ASSERT_TRUE(startDaemon(b));
    b.server = spawn({m_appPath, "serve", b.pipe, "echo", "tick"}, b.netns, b.holder);
    std::string line;
    ASSERT_TRUE(readLine(b.server, Clock::now() + std::chrono::seconds(20), line));
    ASSERT_EQ(line.rfind("READY", 0), 0u);
    EXPECT_EQ(call(a, "hostB@echo", "after"), "RESPONSE echo:after:hostB");

    // Both hosts send to each other at the same moment.
    Process fromA = app(a, {"call", a.pipe, "hostB@echo", "fromA"});
    Process fromB = app(b, {"call", b.pipe, "hostA@echo", "fromB"});
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    EXPECT_EQ(readAll(fromA, deadline), "RESPONSE echo:fromA:hostB\n");
    EXPECT_EQ(readAll(fromB, deadline), "RESPONSE echo:fromB:hostA\n");
    EXPECT_EQ(finish(fromA, deadline), 0);
    EXPECT_EQ(finish(fromB, deadline), 0);
}

TEST_F(MultiHost, ThreeHostsRouteBetweenAnyTwoAndAnswerEveryFanOutQuery)
{
    PREPARE_HOSTS(3);
    Host& a = m_hosts[0];
    Host& b = m_hosts[1];
    Host& c = m_hosts[2];
    ASSERT_TRUE(waitForAnswer(a, "KnownHosts", "hostB\nhostC\nhostA"));
    ASSERT_TRUE(waitForAnswer(b, "KnownHosts", "hostA\nhostC\nhostB"));
    ASSERT_TRUE(waitForAnswer(c, "KnownHosts", "hostA\nhostB\nhostC"));
    EXPECT_EQ(call(a, "hostC@echo", "one"), "RESPONSE echo:one:hostC");
    EXPECT_EQ(call(c, "hostB@echo", "two"), "RESPONSE echo:two:hostB");
    EXPECT_EQ(call(b, "hostA@echo", "three"), "RESPONSE echo:three:hostA");

    // Each query is copied to every known host and to this one while the
    // answers of earlier ones cross the same routers: every round gets its
    // three answers, and the service still answers afterwards.
    Process fan = app(a, {"fanout", a.pipe, "300", "3"});
    const auto deadline = Clock::now() + std::chrono::seconds(120);
    EXPECT_EQ(readAll(fan, deadline), "FANOUT 300\n");
    EXPECT_EQ(finish(fan, deadline), 0);
    EXPECT_EQ(call(a, "hostA@system", "KnownHosts"), "RESPONSE hostB\nhostC\nhostA");
    EXPECT_EQ(call(a, "hostB@echo", "after"), "RESPONSE echo:after:hostB");
}

TEST_F(MultiHost, AHostThatNeverAnswersHoldsUpNothingElse)
{
    PREPARE_HOSTS(2);
    Host& a = m_hosts[0];
    Host& b = m_hosts[1];
    ASSERT_TRUE(waitForAnswer(a, "KnownHosts", "hostB\nhostA"));

    // hostZ is announced at an address whose frames go nowhere: host A's
    // neighbour entry names a link address no port of the bridge has, so
    // every connect attempt to it waits until its SYNs run out.
    Host z;
    z.name = "hostZ";
    z.address = std::string(Subnet) + "99";
    ASSERT_EQ(ip(a.netns, {"neigh", "add", z.address, "lladdr", "02:00:00:00:00:99", "dev", "eth0", "nud", "permanent"}),
              0);
    Process announce = app(b, {"send", std::string(Subnet) + "255", std::to_string(DiscoveryPort), announcement(z)});
    EXPECT_EQ(readAll(announce, Clock::now() + std::chrono::seconds(10)), "SENT\n");
    EXPECT_EQ(finish(announce, Clock::now() + std::chrono::seconds(5)), 0);
    ASSERT_TRUE(waitForAnswer(a, "KnownHosts", "hostB\nhostZ\nhostA"));

    // A request for hostZ starts the connect; while it is pending, the
    // service answers its own queries and carries traffic to other hosts.
    Process stuck = app(a, {"call", a.pipe, "hostZ@echo", "ping"});
    const std::string pending = "hostZ,false,";
    ASSERT_TRUE(waitForAnswerContaining(a, "NetworkRoutingTable", pending));
    EXPECT_EQ(call(a, "hostA@system", "KnownHosts"), "RESPONSE hostB\nhostZ\nhostA");
    EXPECT_EQ(call(a, "hostB@echo", "meanwhile"), "RESPONSE echo:meanwhile:hostB");
    EXPECT_NE(call(a, "hostA@system", "NetworkRoutingTable").find(pending), std::string::npos)
        << "the answers above came only after the connect to hostZ had ended";

    // The request for hostZ itself ends with its caller's own time-out.
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    EXPECT_EQ(readAll(stuck, deadline), "TIMEOUT\n");
    EXPECT_EQ(finish(stuck, deadline), 3);
}
