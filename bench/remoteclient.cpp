// The bus client between hosts. The measurements are BusClient's own
// (roundtrip.cpp, oneway.cpp, pipelined.cpp); this file only names the
// server on the other host and runs them in order.
#include "remoteclient.h"

#include "bus.h"
#include "oneway.h"
#include "process.h"

#include <cstdio>
#include <ulmarcomms.h>

namespace UlmarCommsBench {

namespace {

// The measurements in order, as the local client runs them, each with the
// client's daemon's CPU time per message when its pid is known; the name of
// the one that failed, or null.
const char* measureAll(BusClient& client, Figures& figures)
{
    const Options& options = client.options;
    const double roundTrips = double(options.warmup) + options.requests;
    const struct {
        const char* name;
        bool (BusClient::*run)(Figures&);
        double messages;
    } steps[] = {
        {"rtt", &BusClient::roundTrips, 2 * roundTrips},
        {"oneway", &BusClient::oneWay, options.messages + options.messages / double(ackEvery(options)) + 2},
        {"oneway_unwindowed", &BusClient::oneWayUnwindowed, options.messages + 2.0},
        {"pipelined", &BusClient::pipelined, 2.0 * options.requests},
        {"pipelined_callback", &BusClient::pipelinedFromCallback, 2.0 * options.requests},
    };
    if (!client.waitForServer())
        return "reaching the server across";
    CpuMeter daemon(options.daemonPid);
    for (const auto& step : steps) {
        daemon.begin();
        if (!(client.*step.run)(figures))
            return step.name;
        daemon.end(step.name, step.messages, figures);
    }
    return nullptr;
}

} // namespace

int runRemoteBusClient(const Options& options, const std::string& serverHost)
{
    BusClient client;
    if (!client.open(options))
        return 1;
    // The server pump keeps its local name; across, it is named with its host.
    client.target = serverHost + "@" + serverName(options);
    Figures figures;
    const char* failed = client.pump == nullptr ? "creating the client pump" : measureAll(client, figures);
    const unsigned errors = client.errors;
    const int lastError = client.lastError;
    client.close();
    if (failed != nullptr) {
        std::fprintf(stderr, "ulmarcomms-netbench: %s did not complete (errors %u, last %d)\n", failed, errors,
                     lastError);
        return 1;
    }
    printResult(figures);
    return 0;
}

} // namespace UlmarCommsBench
