// Many application pairs. The coordinator starts the servers and clients,
// waits until every client has reached its server (READY), then lets all of
// them go at once with the go signal, so that the round trips overlap. Each
// client reports its start and end on the shared monotonic clock and its
// median round trip; the aggregate rate is all round trips over the span
// from the earliest start to the latest end.
#include "pairs.h"

#include "bus.h"
#include "process.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace UlmarCommsBench {

namespace {

// The fewest round trips (and warm-up ones) a pair does, however many run.
const unsigned kLeastRequests = 200;
const unsigned kLeastWarmup = 20;

// The options of pair i of count: its own tag, so its own pump names, and
// its share of --requests and --warmup, so that every count does about the
// same work in all.
Options pairOptions(const Options& options, unsigned count, unsigned i)
{
    Options pair = options;
    pair.tag = options.tag + "n" + std::to_string(count) + "p" + std::to_string(i);
    pair.requests = std::max(options.requests / count, kLeastRequests);
    pair.warmup = std::max(options.warmup / count, kLeastWarmup);
    return pair;
}

// Runs count pairs at once; adds pairs_COUNT_* to figures.
bool runPairs(const Options& options, unsigned count, Figures& figures)
{
    const std::string self = selfPath();
    std::vector<Child> servers;
    std::vector<Child> clients;
    for (unsigned i = 0; i < count; ++i) {
        servers.push_back(spawn(self, childArguments(pairOptions(options, count, i), "bus-server"), false));
        clients.push_back(spawn(self, childArguments(pairOptions(options, count, i), "pair-client"), true));
    }
    const bool ready = awaitAll(clients, "READY", std::chrono::seconds(120), "pair client");
    signalGo(clients);
    std::vector<Figures> results;
    bool ok = ready;
    for (Child& client : clients) {
        Figures result;
        const int status = finish(client, std::chrono::seconds(ready ? 600 : 5));
        if (status != 0 || !parseResult(client.collected, result))
            ok = false;
        else
            results.push_back(result);
    }
    finishAll(servers, std::chrono::seconds(30));
    if (!ok || results.empty()) {
        std::fprintf(stderr, "ulmarcomms-bench: %u of %u pair clients failed\n", count - unsigned(results.size()),
                     count);
        return false;
    }
    double first = results.front().at("start_s");
    double last = results.front().at("end_s");
    double roundTrips = 0;
    std::vector<Figures> latencies;
    for (const Figures& result : results) {
        first = std::min(first, result.at("start_s"));
        last = std::max(last, result.at("end_s"));
        roundTrips += result.at("round_trips");
        latencies.push_back({{"rtt_p50_us", result.at("rtt_p50_us")}});
    }
    const std::string prefix = "pairs_" + std::to_string(count) + "_";
    figures[prefix + "req_per_s"] = roundTrips / (last - first);
    figures[prefix + "rtt_p50_us"] = medians(latencies).at("rtt_p50_us");
    return true;
}

} // namespace

bool runPairsApps(const Options& options, Figures& figures)
{
    double base = 0;
    for (unsigned count : options.pairsApps) {
        if (!runPairs(options, count, figures))
            return false;
        const double rate = figures.at("pairs_" + std::to_string(count) + "_req_per_s");
        if (base == 0)
            base = rate;
        // Against the first count given: 1 when every pair adds nothing.
        figures["pairs_" + std::to_string(count) + "_scaling"] = rate / base;
    }
    return true;
}

int runPairClient(const Options& options)
{
    blockGoSignal();
    BusClient client;
    if (!client.open(options))
        return 1;
    Figures figures;
    bool ok = false;
    if (client.pump != nullptr && client.waitForServer()) {
        std::printf("READY\n");
        std::fflush(stdout);
        if (awaitGo(std::chrono::seconds(300))) {
            const Clock::time_point start = Clock::now();
            ok = client.roundTrips(figures);
            figures["end_s"] = clockSeconds(Clock::now());
            figures["start_s"] = clockSeconds(start);
            figures["round_trips"] = double(options.warmup) + options.requests;
        }
    }
    client.close();
    if (!ok) {
        std::fprintf(stderr, "ulmarcomms-bench: a pair client did not complete its round trips\n");
        return 1;
    }
    printResult(figures);
    return 0;
}

} // namespace UlmarCommsBench
