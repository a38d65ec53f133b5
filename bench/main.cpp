// ulmarcomms-bench: measures the local bus between two processes against a
// minimal two-hop UNIX-socket relay on the same machine, in the same run.
//
// The program plays every part itself: run without --role it is the
// coordinator, which starts a private ulmarcommsd (or uses a running one with
// --pipe), then re-executes itself as a bus server and a bus client (separate
// processes, public C interface only), and as a relay, a relay server and a
// relay client (plain blocking sockets, one message per system call). Every
// child reports one "RESULT key=value ..." line on stdout; the coordinator
// prints the figures and our own as ratios to the relay's. Running both
// roads in one run, on one machine and one load, is what makes the ratios
// meaningful where the absolute figures vary from machine to machine.
//
// The measurements are identical on both roads: round trips
// (roundtrip.cpp), one-way messages with and without a window (oneway.cpp)
// and pipelined requests (pipelined.cpp), each with the CPU time of the
// process in the middle. On the bus only, when asked: a large routing table
// (table.cpp), many application pairs at once (pairs.cpp) and event fan-out
// (fanout.cpp). --soak-apps runs the memory test instead (soak.cpp).
#include "bus.h"
#include "common.h"
#include "fanout.h"
#include "options.h"
#include "pairs.h"
#include "process.h"
#include "relay.h"
#include "report.h"
#include "soak.h"
#include "table.h"

#include <csignal>
#include <cstdio>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

using namespace UlmarCommsBench;

namespace {

// Runs the bus server and client once; false when the client failed.
bool runBus(const Options& options, Figures& figures)
{
    const std::string self = selfPath();
    Child server = spawn(self, childArguments(options, "bus-server"), true);
    Child client = spawn(self, childArguments(options, "bus-client"), true);
    const int clientStatus = finish(client, std::chrono::seconds(1800));
    const int serverStatus = finish(server, std::chrono::seconds(30));
    if (clientStatus != 0 || !parseResult(client.collected, figures)) {
        std::fprintf(stderr, "ulmarcomms-bench: the bus client failed (status %d)\n", clientStatus);
        return false;
    }
    if (serverStatus != 0)
        std::fprintf(stderr, "ulmarcomms-bench: the bus server ended with status %d\n", serverStatus);
    return true;
}

// Runs the relay, its server and its client once with records of
// frameBytes; false when the relay or the client failed.
bool runRelayTrio(Options options, unsigned frameBytes, Figures& figures)
{
    options.frameBytes = frameBytes;
    const std::string self = selfPath();
    Child relay = spawn(self, childArguments(options, "relay"), true);
    if (!awaitLine(relay, "READY", std::chrono::seconds(10))) {
        finish(relay, std::chrono::seconds(1));
        return false;
    }
    Child server = spawn(self, childArguments(options, "relay-server"), false);
    options.daemonPid = static_cast<unsigned>(relay.pid);
    Child client = spawn(self, childArguments(options, "relay-client"), true);
    const int clientStatus = finish(client, std::chrono::seconds(1800));
    finish(server, std::chrono::seconds(30));
    finish(relay, std::chrono::seconds(30));
    if (clientStatus != 0 || !parseResult(client.collected, figures)) {
        std::fprintf(stderr, "ulmarcomms-bench: the relay client failed (status %d)\n", clientStatus);
        return false;
    }
    return true;
}

// The entries of the small table the large one is compared with.
const unsigned kSmallTable = 10;

// Runs the bus with entries extra pumps in the daemon's table; false when
// the fillers or the bus failed.
bool runBusWithTable(const Options& options, unsigned entries, Figures& figures)
{
    std::vector<Child> fillers;
    const bool ok = startFillers(options, entries, fillers) && runBus(options, figures);
    stopFillers(fillers);
    return ok;
}

// The bus's run: with --table, once with the small table (its figures are
// the run's) and once with the large one; then the many pairs and the
// fan-out if asked for. False as soon as one fails.
bool measureBus(const Options& options, Figures& bus)
{
    if (options.table == 0) {
        if (!runBus(options, bus))
            return false;
    } else {
        Options large = options;
        large.tag = options.tag + "t";
        Figures withLarge;
        if (!runBusWithTable(options, kSmallTable, bus) || !runBusWithTable(large, options.table, withLarge))
            return false;
        const Figures withSmall = bus;
        addTableFigures(kSmallTable, withSmall, options.table, withLarge, bus);
    }
    if (!options.pairsApps.empty() && !runPairsApps(options, bus))
        return false;
    return options.fanoutApps == 0 || runFanout(options, bus);
}

// Runs bus and (unless skipped) relay --runs times, each run with its own
// tag; false as soon as one fails.
bool measureRuns(const Options& options, std::vector<Figures>& busRuns, std::vector<Figures>& relayRuns)
{
    for (unsigned run = 0; run < options.runs; ++run) {
        Options thisRun = options;
        thisRun.tag = options.tag + "r" + std::to_string(run);
        Figures bus;
        if (!measureBus(thisRun, bus))
            return false;
        busRuns.push_back(bus);
        if (options.skipRelay)
            continue;
        Figures relay;
        if (!runRelayTrio(thisRun, static_cast<unsigned>(bus["frame_bytes"]), relay))
            return false;
        relayRuns.push_back(relay);
    }
    return true;
}

// Whether every bus run delivered every one-way message and event, in order
// (with a large table too).
bool busDeliveredAll(const Options& options, const std::vector<Figures>& busRuns)
{
    const std::string large = "table_" + std::to_string(options.table);
    for (const Figures& run : busRuns) {
        for (const std::string& prefix :
             {std::string("oneway"), std::string("oneway_unwindowed"), std::string("fanout"), large}) {
            const std::string lost = prefix + "_lost";
            if (run.count(lost) != 0 && (run.at(lost) != 0 || run.at(prefix + "_in_order") == 0))
                return false;
        }
    }
    return true;
}

// The figures' coordinator: runs, medians, report.
int runCoordinator(Options options)
{
    if (options.tag.empty())
        options.tag = std::to_string(getpid());
    Daemon daemon;
    if (!daemon.start(options))
        return 1;
    if (daemon.ours)
        options.daemonPid = static_cast<unsigned>(daemon.child.pid);
    std::vector<Figures> busRuns;
    std::vector<Figures> relayRuns;
    const bool ok = measureRuns(options, busRuns, relayRuns);
    daemon.stop();
    if (!ok)
        return 1;
    const Figures bus = medians(busRuns);
    const bool haveRelay = !relayRuns.empty();
    const Figures relay = haveRelay ? medians(relayRuns) : Figures();
    if (options.json)
        printJson(options, bus, relay, haveRelay);
    else
        printText(options, bus, relay, haveRelay);
    // Lost or reordered messages are a failure of the run, whatever the speed.
    if (!busDeliveredAll(options, busRuns)) {
        std::fprintf(stderr, "ulmarcomms-bench: the bus lost or reordered one-way messages or events\n");
        return 1;
    }
    return 0;
}

// Runs the part options.role names; 2 for an unknown role.
int runRole(const Options& options)
{
    static const std::map<std::string, int (*)(const Options&)> roles = {
        {"bus-server", runBusServer},
        {"bus-client", runBusClient},
        {"relay", runRelay},
        {"relay-server", runRelayServer},
        {"relay-client", runRelayClient},
        {"soak-app", runSoakApp},
        {"pair-client", runPairClient},
        {"fanout-publisher", runFanoutPublisher},
        {"fanout-listener", runFanoutListener},
        {"filler", runFiller},
    };
    const auto role = roles.find(options.role);
    if (role != roles.end())
        return role->second(options);
    std::fprintf(stderr, "ulmarcomms-bench: unknown role %s\n", options.role.c_str());
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    Options options;
    std::string error;
    if (!parseOptions(argc, argv, options, error)) {
        if (!error.empty())
            std::fprintf(stderr, "ulmarcomms-bench: %s\n", error.c_str());
        std::fputs(kUsage, error.empty() ? stdout : stderr);
        return error.empty() ? 0 : 2;
    }
    if (options.role.empty())
        return options.soakApps > 0 ? runSoak(options) : runCoordinator(options);
    return runRole(options);
}
