// Round trips on both roads. Only measured round trips are timed: the
// clock starts as the request leaves and stops as its reply arrives, and the
// warm-up ones are sent and answered the same way but not kept.
#include "roundtrip.h"

#include "bus.h"
#include "relay.h"

namespace UlmarCommsBench {

bool BusClient::roundTrips(Figures& figures)
{
    samples.clear();
    samples.reserve(options.requests);
    answered = 0;
    total = options.warmup + options.requests;
    beginPhase(RoundTrip);
    void* first = request(kMethodEcho);
    if (first == nullptr)
        return false;
    // The frame size of one request, for the relay to send the same.
    figures["frame_bytes"] = frameBytes(first);
    sentAt = Clock::now();
    if (!post(first) || !awaitPhase(std::chrono::seconds(600)) || samples.size() != options.requests)
        return false;
    addLatencyFigures(samples, figures);
    return true;
}

void BusClient::onRoundTrip()
{
    const Clock::time_point now = Clock::now();
    if (answered >= options.warmup)
        samples.push_back(microseconds(now - sentAt));
    ++answered;
    if (answered == total) {
        finishPhase();
        return;
    }
    sentAt = Clock::now();
    if (!post(request(kMethodEcho)))
        finishPhase();
}

bool relayRoundTrips(RelayLink& link, const Options& options, Figures& figures)
{
    std::vector<double> samples;
    samples.reserve(options.requests);
    for (unsigned i = 0; i < options.warmup + options.requests; ++i) {
        link.put(kRelayEcho, i);
        const Clock::time_point start = Clock::now();
        if (!link.write() || !link.receive())
            return false;
        if (i >= options.warmup)
            samples.push_back(microseconds(Clock::now() - start));
    }
    addLatencyFigures(samples, figures);
    return true;
}

} // namespace UlmarCommsBench
