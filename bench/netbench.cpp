// ulmarcomms-netbench: the bus between two hosts against a two-hop TCP relay
// between the same two hosts, measured in the same run.
//
// The hosts are network namespaces that scripts/netbench builds (a veth
// pair, a daemon with network links in each, each daemon in a UTS namespace
// named after its host). This coordinator runs in the machine's own
// namespaces and starts every part as this program again inside the host's
// namespaces (nsenter), so the applications resolve the host names their
// daemons do. The bus road is client -> daemon A (local link) -> daemon B
// (TCP across the veth) -> server (local link), four hops; the relay road is
// client -> relay on host A (TCP on A's loopback) -> server on host B (TCP
// across the veth), two hops, or with --relay-hops 3 client -> relay on A ->
// relay on B (TCP across the veth) -> server (TCP on B's loopback), a
// forwarding process on each host as the bus has. The measurements, figures and report are
// ulmarcomms-bench's; only where the parts run and how they connect differ.
#include "bus.h"
#include "common.h"
#include "options.h"
#include "process.h"
#include "remoteclient.h"
#include "report.h"
#include "tcprelay.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

using namespace UlmarCommsBench;

namespace {

// One simulated host as the coordinator reaches it.
struct Side {
    std::string netns; // its network namespace (under /run/netns)
    std::string utsPid; // a process in its UTS namespace (its daemon)
    std::string pipe; // its daemon's pipe
};

// The settings beyond ulmarcomms-bench's own.
struct NetOptions {
    Side client; // host A: the client, the relay and the relay's client
    Side server; // host B: the server and the relay's server
    std::string serverHost; // host B's name, as its daemon announces it
    TcpRelayPlace relay; // host A's address and the relay's port
};

const char kNetUsage[] = "Usage: ulmarcomms-netbench --client-netns NS --client-uts-pid PID --client-pipe NAME\n"
                         "         --server-netns NS --server-uts-pid PID --server-pipe NAME --server-host NAME\n"
                         "         --client-address IPV4 [--relay-port N] [--relay-hops 2|3]\n"
                         "         [ulmarcomms-bench options]\n"
                         "  (scripts/netbench builds the hosts and passes these)\n";

// Takes this program's own options out of argv; the rest is left for
// parseOptions. False with a message on a missing value.
bool takeNetOptions(std::vector<char*>& argv, NetOptions& net, std::string& error)
{
    std::string port = "34101";
    std::string hops = "2";
    const std::map<std::string, std::string*> texts = {
        {"--client-netns", &net.client.netns},
        {"--client-uts-pid", &net.client.utsPid},
        {"--client-pipe", &net.client.pipe},
        {"--server-netns", &net.server.netns},
        {"--server-uts-pid", &net.server.utsPid},
        {"--server-pipe", &net.server.pipe},
        {"--server-host", &net.serverHost},
        {"--client-address", &net.relay.address},
        {"--relay-port", &port},
        {"--relay-hops", &hops},
    };
    std::vector<char*> rest = {argv[0]};
    for (size_t i = 1; i < argv.size(); ++i) {
        const auto found = texts.find(argv[i]);
        if (found == texts.end()) {
            rest.push_back(argv[i]);
            continue;
        }
        if (i + 1 >= argv.size()) {
            error = std::string(argv[i]) + " takes a value";
            return false;
        }
        *found->second = argv[++i];
    }
    net.relay.port = static_cast<unsigned>(std::strtoul(port.c_str(), nullptr, 10));
    if (net.relay.port == 0 || net.relay.port > 65533) {
        error = "--relay-port takes a port below 65534";
        return false;
    }
    if (hops != "2" && hops != "3") {
        error = "--relay-hops takes 2 or 3";
        return false;
    }
    net.relay.hops = hops == "2" ? 2 : 3;
    argv = rest;
    return true;
}

// This program's own options, written back for a child.
std::vector<std::string> netArguments(const NetOptions& net)
{
    return {"--server-host",    net.serverHost,
            "--client-address", net.relay.address,
            "--relay-port",     std::to_string(net.relay.port),
            "--relay-hops",     std::to_string(net.relay.hops)};
}

// Starts this program in side's namespaces with role; killed should the
// coordinator die.
Child spawnOn(const Side& side, const Options& options, const NetOptions& net, const std::string& role,
              bool captureOutput)
{
    Options child = options;
    child.pipe = side.pipe;
    std::vector<std::string> argv = {"--net=/run/netns/" + side.netns,
                                     "--uts=/proc/" + side.utsPid + "/ns/uts",
                                     "/usr/bin/setpriv",
                                     "--pdeathsig",
                                     "KILL",
                                     "--",
                                     selfPath()};
    for (const std::string& argument : childArguments(child, role))
        argv.push_back(argument);
    for (const std::string& argument : netArguments(net))
        argv.push_back(argument);
    return spawn("/usr/bin/nsenter", argv, captureOutput);
}

// Runs the bus server on host B and the client on host A once.
bool runBus(const Options& options, const NetOptions& net, Figures& figures)
{
    Child server = spawnOn(net.server, options, net, "bus-server", true);
    // The CPU figures are those of the client's daemon, host A's.
    Options clientOptions = options;
    clientOptions.daemonPid = static_cast<unsigned>(std::strtoul(net.client.utsPid.c_str(), nullptr, 10));
    Child client = spawnOn(net.client, clientOptions, net, "net-bus-client", true);
    const int clientStatus = finish(client, std::chrono::seconds(1800));
    const int serverStatus = finish(server, std::chrono::seconds(30));
    if (clientStatus != 0 || !parseResult(client.collected, figures)) {
        std::fprintf(stderr, "ulmarcomms-netbench: the bus client failed (status %d)\n", clientStatus);
        return false;
    }
    if (serverStatus != 0)
        std::fprintf(stderr, "ulmarcomms-netbench: the bus server ended with status %d\n", serverStatus);
    return true;
}

// Starts a relay with role on side and waits until it listens; false
// (with the relay ended) when it does not.
bool startRelay(const Side& side, const Options& options, const NetOptions& net, const std::string& role, Child& relay)
{
    relay = spawnOn(side, options, net, role, true);
    if (awaitLine(relay, "READY", std::chrono::seconds(10)))
        return true;
    finish(relay, std::chrono::seconds(1));
    return false;
}

// Runs the relay (and with three hops the far relay) and the relay's
// client on host A and its server on host B once, with records of
// frameBytes.
bool runRelayTrio(Options options, const NetOptions& net, unsigned frameBytes, Figures& figures)
{
    options.frameBytes = frameBytes;
    Child relay;
    Child far;
    if (!startRelay(net.client, options, net, "net-relay", relay))
        return false;
    if (net.relay.hops == 3 && !startRelay(net.server, options, net, "net-far-relay", far)) {
        finish(relay, std::chrono::seconds(1));
        return false;
    }
    Child server = spawnOn(net.server, options, net, "net-relay-server", false);
    Child client = spawnOn(net.client, options, net, "net-relay-client", true);
    const int clientStatus = finish(client, std::chrono::seconds(1800));
    finish(server, std::chrono::seconds(30));
    if (far.pid > 0)
        finish(far, std::chrono::seconds(30));
    finish(relay, std::chrono::seconds(30));
    if (clientStatus != 0 || !parseResult(client.collected, figures)) {
        std::fprintf(stderr, "ulmarcomms-netbench: the relay client failed (status %d)\n", clientStatus);
        return false;
    }
    return true;
}

// Whether a run of the bus delivered every one-way message, in order.
bool deliveredAll(const Figures& bus)
{
    return bus.at("oneway_lost") == 0 && bus.at("oneway_in_order") != 0;
}

// Bus and (unless skipped) relay --runs times, then the medians.
int runCoordinator(Options options, const NetOptions& net)
{
    if (options.tag.empty())
        options.tag = "net" + std::to_string(getpid());
    std::vector<Figures> busRuns;
    std::vector<Figures> relayRuns;
    bool delivered = true;
    for (unsigned run = 0; run < options.runs; ++run) {
        Options thisRun = options;
        thisRun.tag = options.tag + "r" + std::to_string(run);
        Figures bus;
        Figures relay;
        if (!runBus(thisRun, net, bus))
            return 1;
        busRuns.push_back(bus);
        delivered = delivered && deliveredAll(bus);
        if (options.skipRelay)
            continue;
        if (!runRelayTrio(thisRun, net, static_cast<unsigned>(bus["frame_bytes"]), relay))
            return 1;
        relayRuns.push_back(relay);
    }
    const bool haveRelay = !relayRuns.empty();
    if (options.json) {
        printJson(options, medians(busRuns), haveRelay ? medians(relayRuns) : Figures(), haveRelay);
    } else {
        std::printf("between hosts: bus client@A -> daemon A -> TCP -> daemon B -> server@B; relay client@A -> "
                    "TCP loopback -> relay@A -> TCP -> %s\n",
                    net.relay.hops == 3 ? "relay@B -> TCP loopback -> server@B" : "server@B");
        printText(options, medians(busRuns), haveRelay ? medians(relayRuns) : Figures(), haveRelay);
    }
    if (!delivered)
        std::fprintf(stderr, "ulmarcomms-netbench: the bus lost or reordered one-way messages\n");
    return delivered ? 0 : 1;
}

// Runs the part options.role names; 2 for an unknown role.
int runRole(const Options& options, const NetOptions& net)
{
    if (options.role == "bus-server")
        return runBusServer(options);
    if (options.role == "net-bus-client")
        return runRemoteBusClient(options, net.serverHost);
    if (options.role == "net-relay")
        return runTcpRelay(options, net.relay);
    if (options.role == "net-far-relay")
        return runTcpFarRelay(options, net.relay);
    if (options.role == "net-relay-server")
        return runTcpRelayServer(options, net.relay);
    if (options.role == "net-relay-client")
        return runTcpRelayClient(options, net.relay);
    std::fprintf(stderr, "ulmarcomms-netbench: unknown role %s\n", options.role.c_str());
    return 2;
}

// Whether the coordinator has both hosts and the relay's address.
bool complete(const NetOptions& net)
{
    return !net.client.netns.empty() && !net.client.utsPid.empty() && !net.client.pipe.empty() &&
        !net.server.netns.empty() && !net.server.utsPid.empty() && !net.server.pipe.empty() &&
        !net.serverHost.empty() && !net.relay.address.empty();
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    std::vector<char*> args(argv, argv + argc);
    NetOptions net;
    Options options;
    std::string error;
    if (!takeNetOptions(args, net, error) ||
        !parseOptions(static_cast<int>(args.size()), args.data(), options, error)) {
        if (!error.empty())
            std::fprintf(stderr, "ulmarcomms-netbench: %s\n", error.c_str());
        std::fputs(kNetUsage, error.empty() ? stdout : stderr);
        return error.empty() ? 0 : 2;
    }
    if (!options.role.empty())
        return runRole(options, net);
    if (!complete(net)) {
        std::fputs(kNetUsage, stderr);
        return 2;
    }
    return runCoordinator(options, net);
}
