// The bus client between hosts. The measurements are BusClient's own
// (roundtrip.cpp, oneway.cpp, pipelined.cpp); this file only names the
// server on the other host and runs them in order.
#include "remoteclient.h"

#include "bus.h"

#include <cstdio>
#include <ulmarcomms.h>

namespace UlmarCommsBench {

namespace {

// The server pump's address on serverHost: bus-server names its pump
// "ulmarbench<tag>/server".
std::string remoteServer(const Options& options, const std::string& serverHost)
{
    return serverHost + "@ulmarbench" + options.tag + "/server";
}

// The measurements in order; the name of the one that failed, or null.
const char* measureAll(BusClient& client, Figures& figures)
{
    if (!client.waitForServer())
        return "reaching the server across";
    if (!client.roundTrips(figures))
        return "the round trips";
    if (!client.oneWay(figures))
        return "the one-way run";
    if (!client.pipelined(figures))
        return "the pipelined run";
    return nullptr;
}

// Tells the server to end, lets the request leave, and closes the pump.
void closeClient(BusClient& client)
{
    client.phase = BusClient::Idle;
    client.post(client.request(kMethodQuit));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    UlmarCommsDestroyMessagePump(client.pump);
}

} // namespace

int runRemoteBusClient(const Options& options, const std::string& serverHost)
{
    if (!startLibrary(options.pipe))
        return 1;
    BusClient client;
    client.options = options;
    client.target = remoteServer(options, serverHost);
    for (unsigned i = 0; i < options.pairs; ++i)
        client.values.push_back(std::string(options.valueSize, char('a' + i % 26)));
    client.pump = UlmarCommsCreateMessagePump(("ulmarbench" + options.tag + "/client").c_str(), &client, nullptr,
                                              &BusClient::onResponse, &BusClient::onError, nullptr);
    Figures figures;
    const char* failed = client.pump == nullptr ? "creating the client pump" : measureAll(client, figures);
    if (client.pump != nullptr)
        closeClient(client);
    UlmarCommsShutdown();
    if (failed != nullptr) {
        std::fprintf(stderr, "ulmarcomms-netbench: %s did not complete (errors %u, last %d)\n", failed, client.errors,
                     client.lastError);
        return 1;
    }
    printResult(figures);
    return 0;
}

} // namespace UlmarCommsBench
