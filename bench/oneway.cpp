// One-way messages on both roads, with two kinds of sender. Both number
// every message from 1; after the last one they ask for the receiver's
// summary (count and order), whose arrival ends the timed run. The windowed
// sender stops when it is a window ahead of the last acknowledgement. The
// unwindowed one posts as fast as the library takes the messages and is
// never acknowledged; when the library refuses a post (a bound is full) it
// counts the refusal and posts the same number again, as a program would.
#include "oneway.h"

#include "bus.h"
#include "relay.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <ulmarcomms.h>

namespace UlmarCommsBench {

namespace {

// Adds the one-way figures named prefix ("oneway", "oneway_unwindowed")
// for messages sent in seconds, arrived of them received, in order or not.
void addOneWayFigures(const std::string& prefix, const Options& options, double seconds, uint64_t arrived, bool inOrder,
                      Figures& figures)
{
    figures[prefix + "_msgs_per_s"] = double(options.messages) / seconds;
    figures[prefix + "_lost"] = double(options.messages) - double(arrived);
    figures[prefix + "_in_order"] = inOrder ? 1 : 0;
}

// How long an unwindowed sender keeps retrying one refused message, and
// how long it pauses after a refusal: the library refuses when its queue
// to the daemon is full (tens of MiB), so a short pause loses nothing,
// while spinning would take a core from the processes draining it.
const std::chrono::seconds kRefusedLimit(60);
const std::chrono::microseconds kRefusedPause(100);

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

void BusServer::onOneWay(void* request, bool acknowledging)
{
    const char* text = UlmarCommsMessageValue(request, "seq");
    const uint64_t sequence = text != nullptr ? std::strtoull(text, nullptr, 10) : 0;
    if (tally.count(sequence) && acknowledging)
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
        if (postNumbered(kMethodOneWay, sequence) != ULMARCOMMS_OK)
            return false;
    }
    if (!post(request(kMethodDone)) || !awaitPhase(std::chrono::seconds(600)))
        return false;
    const double seconds = secondsSince(start);
    const uint64_t arrived = std::strtoull(summary.c_str(), nullptr, 10);
    addOneWayFigures("oneway", options, seconds, arrived, summary.substr(summary.find(',') + 1) == "1", figures);
    return true;
}

bool BusClient::oneWayUnwindowed(Figures& figures)
{
    summary.clear();
    beginPhase(OneWay);
    uint64_t refused = 0;
    const Clock::time_point start = Clock::now();
    for (uint64_t sequence = 1; sequence <= options.messages; ++sequence) {
        const Clock::time_point giveUp = Clock::now() + kRefusedLimit;
        while (postNumbered(kMethodFlood, sequence) != ULMARCOMMS_OK) {
            // Refused: the message is gone, the number is posted again.
            ++refused;
            if (Clock::now() > giveUp)
                return false;
            std::this_thread::sleep_for(kRefusedPause);
        }
    }
    if (!post(request(kMethodDone)) || !awaitPhase(std::chrono::seconds(600)))
        return false;
    const double seconds = secondsSince(start);
    const uint64_t arrived = std::strtoull(summary.c_str(), nullptr, 10);
    addOneWayFigures("oneway_unwindowed", options, seconds, arrived, summary.substr(summary.find(',') + 1) == "1",
                     figures);
    figures["oneway_unwindowed_refused"] = double(refused);
    return true;
}

int BusClient::postNumbered(const char* method, uint64_t sequence)
{
    void* message = request(method);
    if (message == nullptr)
        return ULMARCOMMS_FAILED;
    UlmarCommsMessageAddKeyValue(message, "seq", std::to_string(sequence).c_str());
    return UlmarCommsPostMessage(pump, message);
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
    addOneWayFigures("oneway", options, secondsSince(start), link.sequence(), link.in[9] != 0, figures);
    return true;
}

bool relayOneWayUnwindowed(RelayLink& link, const Options& options, Figures& figures)
{
    const Clock::time_point start = Clock::now();
    for (uint64_t sequence = 1; sequence <= options.messages; ++sequence) {
        if (!link.send(kRelayFlood, sequence))
            return false;
    }
    if (!link.send(kRelayDone, 0) || !link.receive() || link.in[0] != kRelayDoneReply)
        return false;
    addOneWayFigures("oneway_unwindowed", options, secondsSince(start), link.sequence(), link.in[9] != 0, figures);
    return true;
}

} // namespace UlmarCommsBench
