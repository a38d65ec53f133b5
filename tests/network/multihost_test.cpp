// Hosts simulated on this machine: each host is a network namespace with one
// veth link to a bridge that lives in a namespace of its own, plus a UTS
// namespace with the host's own name, and runs ulmarcommsd with the network
// router and discovery on. Applications (tests/programs/ulmarcomms_nettest)
// run inside the same namespaces and talk to the hosts' daemons.
//
// Every address lives inside namespaces the fixture made, so no traffic
// leaves them. Namespaces are named "ulmnet<pid>-..." after the test process:
// the fixture removes its own when it ends (also on failure) and those of
// earlier runs whose process is gone. Every process it starts in them is
// killed with the test process (setpriv --pdeathsig) should the test crash.
//
// Needs root and a kernel that allows namespaces; otherwise the tests skip.
#include "support/childprocess.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using UlmarCommsTest::ChildProcess;
using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

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

// Runs a command to its end; its exit status (-1 when it did not end in time).
int command(const std::vector<std::string>& argv)
{
    ChildProcess process(argv);
    return process.wait(seconds(20));
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
        const pid_t owner = static_cast<pid_t>(std::atoi(name.c_str() + std::strlen(Prefix)));
        if (name.rfind(Prefix, 0) == 0 && owner > 0 && kill(owner, 0) != 0 && errno == ESRCH)
            stale.push_back(name);
    }
    closedir(directory);
    for (const std::string& name : stale)
        command({"/usr/sbin/ip", "netns", "del", name});
}

// One simulated host.
struct Host {
    std::string name; // its host name
    std::string netns; // its network namespace
    std::string address; // its IPv4 address
    std::string pipe; // its daemon's local link name
    std::unique_ptr<ChildProcess> holder; // keeps its UTS namespace
    std::unique_ptr<ChildProcess> daemon;
    std::unique_ptr<ChildProcess> server; // the "echo" pump

    // argv run inside this host's namespaces, killed should the test process die.
    std::vector<std::string> inside(const std::vector<std::string>& argv) const
    {
        std::vector<std::string> wrapped = {"/usr/bin/nsenter",
                                            "--net=/run/netns/" + netns,
                                            "--uts=/proc/" + std::to_string(holder->pid()) + "/ns/uts",
                                            "/usr/bin/setpriv",
                                            "--pdeathsig",
                                            "KILL",
                                            "--"};
        wrapped.insert(wrapped.end(), argv.begin(), argv.end());
        return wrapped;
    }
    // The same, with stdin kept open and stderr going to the test's log.
    std::unique_ptr<ChildProcess> driven(const std::vector<std::string>& argv) const
    {
        const std::vector<std::string> wrapped = inside(argv);
        return std::make_unique<ChildProcess>(wrapped[0], std::vector<std::string>(wrapped.begin() + 1, wrapped.end()));
    }
};

class MultiHost : public ::testing::Test {
protected:
    void TearDown() override
    {
        for (Host& host : m_hosts) {
            if (host.server) {
                EXPECT_EQ(stopServer(host), 0) << "echo pump on " << host.name;
            }
            if (host.daemon) {
                EXPECT_EQ(stopDaemon(host), 0) << "daemon on " << host.name;
            }
        }
        for (Host& host : m_hosts) {
            host.holder.reset();
            command({"/usr/sbin/ip", "netns", "del", host.netns});
        }
        if (!m_bridge.empty())
            command({"/usr/sbin/ip", "netns", "del", m_bridge});
    }

    // Builds count hosts named hostA, hostB ... with daemons and echo pumps
    // and waits until each knows all the others (listed in name order, then
    // itself); an empty text on success, else why the test cannot run here.
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
        if (ip(m_bridge, {"link", "add", "br0", "type", "bridge"}) != 0 ||
            ip(m_bridge, {"link", "set", "br0", "up"}) != 0)
            return "cannot create a bridge here";
        for (int i = 0; i < count; ++i) {
            Host& host = m_hosts.emplace_back();
            host.name = std::string("host") + static_cast<char>('A' + i);
            host.netns = base + "-" + host.name;
            host.address = Subnet + std::to_string(i + 1);
            host.pipe = base + host.name;
            if (command({"/usr/sbin/ip", "netns", "add", host.netns}) != 0)
                return "cannot create network namespaces here";
            const std::string port = "p" + std::to_string(i);
            if (ip(m_bridge, {"link", "add", port, "type", "veth", "peer", "name", "eth0", "netns", host.netns}) != 0 ||
                ip(m_bridge, {"link", "set", port, "master", "br0", "up"}) != 0 ||
                ip(host.netns, {"addr", "add", host.address + "/24", "brd", "+", "dev", "eth0"}) != 0 ||
                ip(host.netns, {"link", "set", "eth0", "up"}) != 0 || ip(host.netns, {"link", "set", "lo", "up"}) != 0)
                return "cannot wire the simulated hosts";
            // A process in a UTS namespace of its own, named after the host.
            host.holder = std::make_unique<ChildProcess>(std::vector<std::string>{
                "/usr/bin/setpriv", "--pdeathsig", "KILL", "--", "/usr/bin/unshare", "--uts", "/bin/sh", "-c",
                "echo \"$0\" >/proc/sys/kernel/hostname && echo ready && exec sleep 100000", host.name});
            if (!host.holder->waitForOut("ready\n", seconds(10)))
                return "cannot create UTS namespaces here";
        }
        for (Host& host : m_hosts)
            if (!startDaemon(host) || !startServer(host))
                return std::string();
        for (const Host& host : m_hosts) {
            std::string known;
            for (const Host& other : m_hosts)
                if (&other != &host)
                    known += other.name + "\n";
            EXPECT_TRUE(waitForAnswer(host, "KnownHosts", known + host.name)) << host.name << " missed a peer";
        }
        return std::string();
    }

    int ip(const std::string& netns, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {"/usr/sbin/ip", "-n", netns};
        argv.insert(argv.end(), args.begin(), args.end());
        return command(argv);
    }

    bool startDaemon(Host& host, const std::vector<std::string>& extra = {})
    {
        std::vector<std::string> argv = {m_daemonPath};
        for (const std::string& setting :
             {std::string("ulmar.networkrouter=1"), std::string("ulmar.networkrouter.discovery=1"),
              std::string("ulmar.networkrouter.discovery.timeout=1000"), "ulmar.systemrouter.pipe.name=" + host.pipe})
            argv.insert(argv.end(), {"--set", setting});
        argv.insert(argv.end(), extra.begin(), extra.end());
        host.daemon = host.driven(argv);
        if (host.daemon->waitForOut("service running", seconds(20)))
            return true;
        ADD_FAILURE() << "daemon on " << host.name << " did not start: " << host.daemon->out();
        return false;
    }

    int stopServer(Host& host)
    {
        host.server->closeInput();
        return host.server->wait(seconds(30));
    }

    // Restarts a host's daemon (with extra options) and then its echo pump.
    bool restart(Host& host, const std::vector<std::string>& extra = {})
    {
        EXPECT_EQ(stopServer(host), 0) << "echo pump on " << host.name;
        return stopDaemon(host) == 0 && startDaemon(host, extra) && startServer(host);
    }

    int stopDaemon(Host& host)
    {
        host.daemon->signal(SIGTERM);
        return host.daemon->wait(seconds(30));
    }

    // The echo pump on a host (runs until its stdin closes).
    bool startServer(Host& host)
    {
        host.server = host.driven({m_appPath, "serve", host.pipe, "echo", "tick"});
        std::string line;
        if (host.server->readLine(line, seconds(20)) && line.rfind("READY", 0) == 0)
            return true;
        ADD_FAILURE() << "echo pump on " << host.name << " did not start: " << line;
        return false;
    }

    // Starts the test application on a host.
    std::unique_ptr<ChildProcess> app(const Host& host, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {m_appPath};
        argv.insert(argv.end(), args.begin(), args.end());
        return std::make_unique<ChildProcess>(host.inside(argv));
    }

    // Runs the test application on a host to its end: its output, and its
    // exit status in status.
    std::string run(const Host& host, const std::vector<std::string>& args, int* status = nullptr)
    {
        auto process = app(host, args);
        const int code = process->wait(seconds(120));
        if (status != nullptr)
            *status = code;
        return process->out();
    }

    // One request from an application on host: its whole output.
    std::string call(const Host& host, const std::string& to, const std::string& method,
                     const std::vector<std::string>& pairs = {})
    {
        std::vector<std::string> args = {"call", host.pipe, to, method};
        args.insert(args.end(), pairs.begin(), pairs.end());
        std::string output = run(host, args);
        if (!output.empty() && output.back() == '\n')
            output.pop_back();
        return output;
    }

    // Asks host's system endpoint until the answer equals expected (or,
    // with contains, holds it).
    bool waitForAnswer(const Host& host, const std::string& method, const std::string& expected, bool contains = false)
    {
        const auto deadline = Clock::now() + seconds(20);
        while (Clock::now() < deadline) {
            const std::string answer = call(host, host.name + "@system", method);
            if (contains ? answer.find(expected) != std::string::npos : answer == "RESPONSE " + expected)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    // The announcement host sends, as hex.
    static std::string announcement(const Host& host) { return announcement(host.name, host.address, DiscoveryPort); }

    // An announcement of name at address:port, as hex.
    static std::string announcement(const std::string& name, const std::string& address, int port)
    {
        std::string bytes = "\xF1\x2A";
        const size_t total = 2 + 4 + 1 + 4 + 4 + name.size() + 8 + 2;
        auto put32 = [&bytes](uint32_t value) {
            for (int shift = 24; shift >= 0; shift -= 8)
                bytes += static_cast<char>((value >> shift) & 0xFF);
        };
        put32(static_cast<uint32_t>(total));
        bytes += '\0';
        put32(0);
        put32(static_cast<uint32_t>(name.size()));
        bytes += name;
        bytes += std::string("\x00\x02", 2);
        bytes += static_cast<char>(port >> 8);
        bytes += static_cast<char>(port & 0xFF);
        in_addr parsed{};
        inet_pton(AF_INET, address.c_str(), &parsed);
        bytes += std::string(reinterpret_cast<const char*>(&parsed.s_addr), 4);
        bytes += "\xAA\x87";
        std::string hex;
        char pair[3];
        for (unsigned char byte : bytes) {
            std::snprintf(pair, sizeof(pair), "%02x", byte);
            hex += pair;
        }
        return hex;
    }

    std::vector<Host> m_hosts; // grown only in prepare()
    std::string m_bridge;
    std::string m_daemonPath;
    std::string m_appPath;
};

#define PREPARE_HOSTS(count)                                                                                           \
    do {                                                                                                               \
        const std::string why = prepare(count);                                                                        \
        if (!why.empty())                                                                                              \
            GTEST_SKIP() << why;                                                                                       \
        ASSERT_FALSE(HasFailure());                                                                                    \
    } while (false)

} // namespace

TEST_F(MultiHost, TwoHostsDiscoverEachOtherAndRouteRequests)
{
    PREPARE_HOSTS(2);
    Host &a = m_hosts[0], &b = m_hosts[1];

    // Discovery alone (prepare() waited for the known hosts): an entry that
    // still needs a connection.
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
    int status = -1;
    EXPECT_EQ(run(a, {"capture", "10.77.1.255", std::to_string(DiscoveryPort), b.address, "10000"}, &status),
              "LISTENING\nDATAGRAM " + announcement(b) + "\n");
    EXPECT_EQ(status, 0);
}

TEST_F(MultiHost, EventsRegisteredAcrossHostsArrive)
{
    PREPARE_HOSTS(2);
    Host &a = m_hosts[0], &b = m_hosts[1];

    auto listener = app(a, {"listen", a.pipe, "hostB@echo", "tick", "2"});
    std::string line;
    ASSERT_TRUE(listener->readLine(line, seconds(20)));
    ASSERT_EQ(line, "REGISTERED");
    EXPECT_EQ(call(b, "hostB@echo", "fire"), "RESPONSE echo:fire:hostB");
    EXPECT_EQ(call(a, "hostB@echo", "fire"), "RESPONSE echo:fire:hostB");
    EXPECT_EQ(listener->wait(seconds(25)), 0);
    EXPECT_EQ(listener->out(), "REGISTERED\nEVENT hostB@echo\nEVENT hostB@echo\n");
}

TEST_F(MultiHost, RestartedPeerIsReachedAgainAndBothSidesPostAtOnce)
{
    PREPARE_HOSTS(2);
    Host &a = m_hosts[0], &b = m_hosts[1];
    ASSERT_EQ(call(a, "hostB@echo", "before"), "RESPONSE echo:before:hostB");

    // The peer's service goes away and comes back: the next post opens a new
    // link (the old one was dropped when the peer went).
    ASSERT_TRUE(restart(b));
    EXPECT_EQ(call(a, "hostB@echo", "after"), "RESPONSE echo:after:hostB");

    // Both hosts send to each other at the same moment.
    auto fromA = app(a, {"call", a.pipe, "hostB@echo", "fromA"});
    auto fromB = app(b, {"call", b.pipe, "hostA@echo", "fromB"});
    EXPECT_EQ(fromA->wait(), 0);
    EXPECT_EQ(fromB->wait(), 0);
    EXPECT_EQ(fromA->out(), "RESPONSE echo:fromA:hostB\n");
    EXPECT_EQ(fromB->out(), "RESPONSE echo:fromB:hostA\n");
}

TEST_F(MultiHost, ThreeHostsRouteBetweenAnyTwoAndAnswerEveryFanOutQuery)
{
    PREPARE_HOSTS(3);
    Host &a = m_hosts[0], &b = m_hosts[1], &c = m_hosts[2];
    EXPECT_EQ(call(a, "hostC@echo", "one"), "RESPONSE echo:one:hostC");
    EXPECT_EQ(call(c, "hostB@echo", "two"), "RESPONSE echo:two:hostB");
    EXPECT_EQ(call(b, "hostA@echo", "three"), "RESPONSE echo:three:hostA");

    // Each query is copied to every known host and to this one while the
    // answers of earlier ones cross the same routers: every round gets its
    // three answers, and the service still answers afterwards.
    int status = -1;
    EXPECT_EQ(run(a, {"fanout", a.pipe, "300", "3"}, &status), "FANOUT 300\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(call(a, "hostA@system", "KnownHosts"), "RESPONSE hostB\nhostC\nhostA");
    EXPECT_EQ(call(a, "hostB@echo", "after"), "RESPONSE echo:after:hostB");
}

TEST_F(MultiHost, AHostThatNeverAnswersHoldsUpNothingElse)
{
    PREPARE_HOSTS(2);
    Host &a = m_hosts[0], &b = m_hosts[1];

    // hostZ is announced at an address whose frames go nowhere: host A's
    // neighbour entry names a link address no port of the bridge has, so
    // every connect attempt to it waits until its SYNs run out.
    Host z;
    z.name = "hostZ";
    z.address = std::string(Subnet) + "99";
    ASSERT_EQ(
        ip(a.netns, {"neigh", "add", z.address, "lladdr", "02:00:00:00:00:99", "dev", "eth0", "nud", "permanent"}), 0);
    int status = -1;
    EXPECT_EQ(run(b, {"send", std::string(Subnet) + "255", std::to_string(DiscoveryPort), announcement(z)}, &status),
              "SENT\n");
    EXPECT_EQ(status, 0);
    ASSERT_TRUE(waitForAnswer(a, "KnownHosts", "hostB\nhostZ\nhostA"));

    // A request for hostZ starts the connect; while it is pending, the
    // service answers its own queries and carries traffic to other hosts.
    auto stuck = app(a, {"call", a.pipe, "hostZ@echo", "ping"});
    const std::string pending = "hostZ,false,";
    ASSERT_TRUE(waitForAnswer(a, "NetworkRoutingTable", pending, true));
    EXPECT_EQ(call(a, "hostA@system", "KnownHosts"), "RESPONSE hostB\nhostZ\nhostA");
    EXPECT_EQ(call(a, "hostB@echo", "meanwhile"), "RESPONSE echo:meanwhile:hostB");
    EXPECT_NE(call(a, "hostA@system", "NetworkRoutingTable").find(pending), std::string::npos)
        << "the answers above came only after the connect to hostZ had ended";

    // The request for hostZ itself ends with its caller's own time-out.
    EXPECT_EQ(stuck->wait(seconds(30)), 3);
    EXPECT_EQ(stuck->out(), "TIMEOUT\n");
}

TEST_F(MultiHost, LinksComeOnlyFromTrustedNetworksAndNamesStayWithTheirAddresses)
{
    PREPARE_HOSTS(2);
    Host &a = m_hosts[0], &b = m_hosts[1];

    // Host B gets a second address in host A's subnet and one in 10.77.2.0/24,
    // which host A reaches on the same link but has no interface in.
    const std::string inside = std::string(Subnet) + "66";
    const std::string outside = "10.77.2.2";
    ASSERT_EQ(ip(b.netns, {"addr", "add", inside + "/24", "dev", "eth0"}), 0);
    ASSERT_EQ(ip(b.netns, {"addr", "add", outside + "/24", "dev", "eth0"}), 0);
    ASSERT_EQ(ip(a.netns, {"route", "add", "10.77.2.0/24", "dev", "eth0"}), 0);
    const std::string port = std::to_string(DiscoveryPort);

    // Only the trusted subnet is answered.
    EXPECT_EQ(run(b, {"hello", outside, a.address, port, "hostQ"}), "CLOSED\n");
    EXPECT_EQ(run(b, {"hello", inside, a.address, port, "hostQ"}), "ANSWERED hostA\n");

    // A peer naming hostB from an address hostB was not learnt at is refused,
    // and hostB's traffic still goes to hostB alone.
    EXPECT_EQ(run(b, {"hello", inside, a.address, port, "hostB"}), "CLOSED\n");
    EXPECT_EQ(call(a, "hostB@echo", "ping"), "RESPONSE echo:ping:hostB");
    const std::string table = call(a, "hostA@system", "NetworkRoutingTable");
    EXPECT_EQ(table.find("hostB,true," + inside), std::string::npos) << table;
    EXPECT_EQ(table.find("hostB,false," + inside), std::string::npos) << table;

    // --allow-network adds 10.77.2.0/24 to what host A trusts.
    ASSERT_TRUE(restart(a, {"--allow-network", "10.77.2.0/24"}));
    EXPECT_EQ(run(b, {"hello", outside, a.address, port, "hostR"}), "ANSWERED hostA\n");
    EXPECT_EQ(run(b, {"hello", inside, a.address, port, "hostS"}), "ANSWERED hostA\n");
}

TEST_F(MultiHost, SpoofedAnnouncementsChangeNothing)
{
    PREPARE_HOSTS(2);
    Host &a = m_hosts[0], &b = m_hosts[1];
    const std::string before = call(a, "hostA@system", "NetworkRoutingTable");

    // Impossible addresses, this host's own name, and a known name from a
    // new address; then an honest newcomer, heard only after all of them.
    const std::string broadcast = std::string(Subnet) + "255";
    const std::vector<std::string> spoofs = {
        announcement("hostC", "0.0.0.0", DiscoveryPort),
        announcement("hostC", "255.255.255.255", DiscoveryPort),
        announcement("hostC", broadcast, DiscoveryPort),
        announcement("hostC", std::string(Subnet) + "5", 0),
        announcement("hostA", std::string(Subnet) + "77", DiscoveryPort),
        announcement("hostB", std::string(Subnet) + "66", DiscoveryPort),
        announcement("hostZ", std::string(Subnet) + "99", DiscoveryPort),
    };
    for (const std::string& datagram : spoofs)
        ASSERT_EQ(run(b, {"send", broadcast, std::to_string(DiscoveryPort), datagram}), "SENT\n");
    ASSERT_TRUE(waitForAnswer(a, "KnownHosts", "hostB\nhostZ\nhostA"));
    EXPECT_EQ(call(a, "hostA@system", "NetworkRoutingTable"),
              before + "hostZ,true,10.77.1.99:34001,10.77.1.0:0,10.77.1.255:34001,10.77.1.1:34001\n");
    EXPECT_EQ(call(a, "hostB@echo", "ping"), "RESPONSE echo:ping:hostB");
}

// Faults between the simulated hosts, made with nftables rules inside the
// hosts' own namespaces (kernels here have no netem): random loss, a
// partition that heals, and a host whose daemon is killed and restarted.
// Through all of them a watchdog per host asks that host's own system
// endpoint ten times a second and fails the test the moment one goes 3 s
// without an answer; requests across get their reply or a clean time-out at
// the caller; the echo pumps count request ids, and none arrives twice.
namespace {

const char* const NftPath = "/usr/sbin/nft";
const auto WatchdogSilence = std::chrono::seconds(3);

// Asks one host's system endpoint continuously from a process on that host.
class Watchdog {
public:
    Watchdog(std::unique_ptr<ChildProcess> watcher, std::string hostName)
        : m_watcher(std::move(watcher)), m_hostName(std::move(hostName))
    {
    }
    ~Watchdog() { stop(); }

    // Waits for the first answer, then watches on a thread of its own.
    bool start()
    {
        std::string line;
        if (!m_watcher->readLine(line, seconds(20)) || line != "ALIVE")
            return false;
        m_thread = std::thread([this] { run(); });
        return true;
    }

    void stop()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    void run()
    {
        std::string line;
        while (!m_stop) {
            if (!m_watcher->readLine(line, WatchdogSilence)) {
                if (!m_stop)
                    ADD_FAILURE() << "the system endpoint of " << m_hostName << " did not answer for 3 s";
                break;
            }
        }
        m_watcher->closeInput();
        m_watcher->wait(seconds(20));
    }

    std::unique_ptr<ChildProcess> m_watcher;
    std::string m_hostName;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// The answered, timed-out and refused counts of one "calls" run.
struct Calls {
    int answered = -1;
    int timedOut = -1;
    int errors = -1;
    int total() const { return answered + timedOut + errors; }
};

class MultiHostFaults : public MultiHost {
protected:
    void TearDown() override
    {
        for (auto& watchdog : m_watchdogs)
            watchdog.reset();
        MultiHost::TearDown();
    }

    // An empty text when nftables can filter inside the hosts' namespaces.
    std::string prepareFilters()
    {
        if (access(NftPath, X_OK) != 0)
            return "nft is not installed (package nftables): the fault tests filter with it";
        for (const Host& host : m_hosts) {
            if (nft(host, "add table inet ulmfaults") != 0 ||
                nft(host, "add chain inet ulmfaults input { type filter hook input priority 0 ; policy accept ; }") !=
                    0 ||
                nft(host, "add chain inet ulmfaults output { type filter hook output priority 0 ; policy accept ; }") !=
                    0)
                return "nftables cannot filter in a network namespace here";
        }
        return std::string();
    }

    // One nft command (words separated by blanks) in a host's network namespace.
    int nft(const Host& host, const std::string& words)
    {
        std::vector<std::string> argv = {"/usr/bin/nsenter", "--net=/run/netns/" + host.netns, NftPath};
        std::istringstream split(words);
        for (std::string word; split >> word;)
            argv.push_back(word);
        return command(argv);
    }

    // Every tenth packet in, at random, dropped.
    bool loseTenPercent(const Host& host)
    {
        return nft(host, "add rule inet ulmfaults input iifname eth0 numgen random mod 10 0 drop") == 0;
    }

    // Nothing in or out on the host's link.
    bool cutOff(const Host& host)
    {
        return nft(host, "add rule inet ulmfaults input iifname eth0 drop") == 0 &&
            nft(host, "add rule inet ulmfaults output oifname eth0 drop") == 0;
    }

    bool heal(const Host& host) { return nft(host, "flush table inet ulmfaults") == 0; }

    void watch(Host& host)
    {
        auto watchdog = std::make_unique<Watchdog>(
            host.driven({m_appPath, "watch", host.pipe, host.name + "@system", "100"}), host.name);
        ASSERT_TRUE(watchdog->start()) << "the watchdog on " << host.name << " got no first answer";
        m_watchdogs.push_back(std::move(watchdog));
    }

    // count requests from one host to another's echo pump, each awaited ms.
    Calls calls(const Host& from, const Host& to, int count, int ms, const std::string& prefix)
    {
        int status = -1;
        const std::string out = run(
            from, {"calls", from.pipe, to.name + "@echo", std::to_string(count), std::to_string(ms), prefix}, &status);
        Calls result;
        EXPECT_EQ(status, 0) << out;
        EXPECT_EQ(std::sscanf(out.c_str(), "CALLS %d %d %d", &result.answered, &result.timedOut, &result.errors), 3)
            << out;
        EXPECT_EQ(result.total(), count) << out;
        return result;
    }

    // Asks again until a request is answered; false at the deadline.
    bool answeredWithin(const Host& from, const Host& to, std::chrono::seconds limit, const std::string& prefix)
    {
        const auto deadline = Clock::now() + limit;
        for (int attempt = 0; Clock::now() < deadline; ++attempt) {
            if (calls(from, to, 1, 1000, prefix + std::to_string(attempt)).answered == 1)
                return true;
        }
        return false;
    }

    // Stops a host's echo pump and checks that no request id reached it twice.
    void finishServer(Host& host)
    {
        EXPECT_EQ(stopServer(host), 0) << "echo pump on " << host.name;
        std::map<std::string, int> seen;
        std::istringstream lines(host.server->out());
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("REQUEST ", 0) == 0)
                ++seen[line.substr(8)];
        }
        for (const auto& [id, times] : seen)
            EXPECT_EQ(times, 1) << "request " << id << " reached " << host.name << " " << times << " times";
        host.server.reset();
    }

    std::vector<std::unique_ptr<Watchdog>> m_watchdogs;
};

#define PREPARE_FAULTS(count)                                                                                          \
    do {                                                                                                               \
        if (access(NftPath, X_OK) != 0)                                                                                \
            GTEST_SKIP() << "nft is not installed (package nftables): the fault tests filter with it";                 \
        PREPARE_HOSTS(count);                                                                                          \
        const std::string whyNot = prepareFilters();                                                                   \
        if (!whyNot.empty())                                                                                           \
            GTEST_SKIP() << whyNot;                                                                                    \
        for (Host & host : m_hosts)                                                                                    \
            watch(host);                                                                                               \
        ASSERT_FALSE(HasFailure());                                                                                    \
    } while (false)

} // namespace

TEST_F(MultiHostFaults, TenPercentLossSlowsRequestsButLosesAndDoublesNone)
{
    PREPARE_FAULTS(2);
    Host &a = m_hosts[0], &b = m_hosts[1];
    ASSERT_EQ(calls(a, b, 1, 10000, "first").answered, 1);
    ASSERT_TRUE(loseTenPercent(a) && loseTenPercent(b));

    // Both ways at once; TCP carries each request through the loss, so
    // every one is answered within its five seconds.
    auto fromA = app(a, {"calls", a.pipe, "hostB@echo", "40", "5000", "a"});
    auto fromB = app(b, {"calls", b.pipe, "hostA@echo", "40", "5000", "b"});
    EXPECT_EQ(fromA->wait(seconds(120)), 0);
    EXPECT_EQ(fromB->wait(seconds(120)), 0);
    EXPECT_EQ(fromA->out(), "CALLS 40 0 0\n");
    EXPECT_EQ(fromB->out(), "CALLS 40 0 0\n");

    ASSERT_TRUE(heal(a) && heal(b));
    EXPECT_EQ(calls(a, b, 1, 10000, "after").answered, 1);
    m_watchdogs.clear();
    finishServer(a);
    finishServer(b);
}

// A link that went unanswered through the partition has ended by the heal
// (links are taken for dead after 5 s of silence), so the next request
// opens a fresh one: traffic flows again within a few seconds, not after
// TCP's retransmission back-off. The time taken is printed.
const auto HealDeadline = seconds(8);

TEST_F(MultiHostFaults, APartitionOfThirtySecondsHealsAndDoublesNothing)
{
    PREPARE_FAULTS(2);
    Host &a = m_hosts[0], &b = m_hosts[1];
    ASSERT_EQ(calls(a, b, 1, 10000, "first").answered, 1);
    ASSERT_EQ(calls(b, a, 1, 10000, "first").answered, 1);

    // Host A is cut off for 30 s; requests both ways go on all that time
    // and end in their callers' time-outs (or a refusal once a side gave
    // up on the link), never in a hang.
    ASSERT_TRUE(cutOff(a));
    const auto healAt = Clock::now() + seconds(30);
    for (int round = 0; Clock::now() < healAt; ++round) {
        const Host& from = round % 2 == 0 ? a : b;
        const Host& to = round % 2 == 0 ? b : a;
        EXPECT_EQ(calls(from, to, 1, 2000, "cut" + std::to_string(round)).answered, 0) << "across a partition";
    }
    ASSERT_TRUE(heal(a));
    const auto healed = Clock::now();
    EXPECT_TRUE(answeredWithin(a, b, HealDeadline, "healedA")) << "A to B after the heal";
    EXPECT_TRUE(answeredWithin(b, a, HealDeadline, "healedB")) << "B to A after the heal";
    std::printf(
        "links back %lld ms after the heal\n",
        static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - healed).count()));
    m_watchdogs.clear();
    finishServer(a);
    finishServer(b);
}

TEST_F(MultiHostFaults, AHostKilledAndRestartedIsReachedAgain)
{
    PREPARE_FAULTS(2);
    Host &a = m_hosts[0], &b = m_hosts[1];
    ASSERT_EQ(calls(a, b, 1, 10000, "first").answered, 1);

    // Host B's daemon dies without a word (its echo pump is stopped first
    // and its watchdog with it: they are B's own applications).
    m_watchdogs[1].reset();
    finishServer(b);
    b.daemon->signal(SIGKILL);
    b.daemon->wait(seconds(20));
    const Calls whileDown = calls(a, b, 3, 2000, "down");
    EXPECT_EQ(whileDown.answered, 0);

    ASSERT_TRUE(startDaemon(b) && startServer(b));
    watch(b);
    EXPECT_TRUE(answeredWithin(a, b, seconds(15), "back")) << "A to B after the restart";
    EXPECT_TRUE(answeredWithin(b, a, seconds(15), "back")) << "B to A after the restart";
    m_watchdogs.clear();
    finishServer(a);
    finishServer(b);
}
