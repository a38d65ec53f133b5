// One-way messages on both roads. The sender numbers every message from 1
// and stops when it is a window ahead of the last acknowledgement; after the
// last one it asks for the receiver's summary (count and order), whose
// arrival ends the timed run.
#include "oneway.h"

#include "bus.h"
#include "relay.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ulmarcomms.h>

namespace UlmarCommsBench {

namespace {

// Adds the one-way figures for messages sent in seconds, arrived of them
// received, in order or not.
void addOneWayFigures(const Options& options, double seconds, uint64_t arrived, bool inOrder, Figures& figures)
{
    figures["oneway_msgs_per_s"] = double(options.messages) / seconds;
    figures["oneway_lost"] = double(options.messages) - double(arrived);
    figures["oneway_in_order"] = inOrder ? 1 : 0;
}

} // namespace

unsigned oneWayWindow(const Options& options)
{
    const unsigned estimatedFrame = 100 + options.pairs * (options.valueSize + 9);
    return std::clamp(8u * 1024u * 1024u / estimatedFrame, 1024u, 65536u);
}

unsigned ackEvery(const Options& options)
{
    return oneWayWindow(options) / 4;
}

bool OneWayTally::count(uint64_t sequence)
{
    inOrder = inOrder && sequence == expected;
    expected = sequence + 1;
    ++received;
    return received % ackInterval == 0;
}

void OneWayTally::reset()
{
    received = 0;
    expected = 1;
    inOrder = true;
}

void BusServer::onOneWay(void* request)
{
    const char* text = UlmarCommsMessageValue(request, "seq");
    const uint64_t sequence = text != nullptr ? std::strtoull(text, nullptr, 10) : 0;
    if (tally.count(sequence))
        reply(request, std::to_string(tally.received).c_str(), false);
}

void BusServer::onDone(void* request)
{
    const std::string summary = std::to_string(tally.received) + "," + (tally.inOrder ? "1" : "0");
    tally.reset();
    reply(request, summary.c_str(), false);
}

bool BusClient::oneWay(Figures& figures)
{
    acknowledged = 0;
    summary.clear();
    beginPhase(OneWay);
    const uint64_t window = oneWayWindow(options);
    const Clock::time_point start = Clock::now();
    for (uint64_t sequence = 1; sequence <= options.messages; ++sequence) {
        if (sequence > acknowledged.load() + window) {
            // Ahead by a window: wait for the next acknowledgement.
            if (!waitFor(
                    lock, changed, [&] { return sequence <= acknowledged.load() + window || errors > 0; },
                    std::chrono::seconds(120)) ||
                errors > 0)
                return false;
        }
        void* message = request(kMethodOneWay);
        if (message == nullptr)
            return false;
        UlmarCommsMessageAddKeyValue(message, "seq", std::to_string(sequence).c_str());
        if (!post(message))
            return false;
    }
    if (!post(request(kMethodDone)) || !awaitPhase(std::chrono::seconds(600)))
        return false;
    const double seconds = secondsSince(start);
    const uint64_t arrived = std::strtoull(summary.c_str(), nullptr, 10);
    addOneWayFigures(options, seconds, arrived, summary.substr(summary.find(',') + 1) == "1", figures);
    return true;
}

void BusClient::onOneWayResponse(const char* response)
{
    if (response != nullptr && std::strchr(response, ',') != nullptr) {
        std::lock_guard<std::mutex> guard(lock);
        summary = response;
        phaseDone = true;
        changed.notify_all();
    } else if (response != nullptr) {
        acknowledged = std::strtoull(response, nullptr, 10);
        std::lock_guard<std::mutex> guard(lock);
        changed.notify_all();
    }
}

bool relayOneWay(RelayLink& link, const Options& options, Figures& figures)
{
    const uint64_t window = oneWayWindow(options);
    uint64_t acknowledged = 0;
    const Clock::time_point start = Clock::now();
    for (uint64_t sequence = 1; sequence <= options.messages; ++sequence) {
        while (sequence > acknowledged + window) {
            if (!link.receive())
                return false;
            if (link.in[0] == kRelayAck)
                acknowledged = link.sequence();
        }
        if (!link.send(kRelayOneWay, sequence))
            return false;
    }
    if (!link.send(kRelayDone, 0))
        return false;
    do {
        if (!link.receive())
            return false;
    } while (link.in[0] != kRelayDoneReply);
    addOneWayFigures(options, secondsSince(start), link.sequence(), link.in[9] != 0, figures);
    return true;
}

} // namespace UlmarCommsBench
