// Pipelined requests on both roads. The first window leaves at once; after
// that each reply lets one more request go, so exactly --window are
// outstanding until the last ones drain. Time runs from the first send to
// the last reply.
#include "pipelined.h"

#include "bus.h"
#include "relay.h"

#include <algorithm>

namespace UlmarCommsBench {

bool BusClient::pipelined(Figures& figures)
{
    answered = 0;
    total = options.requests;
    const unsigned initial = std::min(options.window, total);
    sent = initial;
    beginPhase(Pipelined);
    const Clock::time_point start = Clock::now();
    // The first window goes from here; later requests from the callback,
    // each when a reply arrives. sent was raised before the first post,
    // so the callback never reads it while this thread still writes it.
    for (unsigned i = 0; i < initial; ++i) {
        if (!post(request(kMethodEcho)))
            return false;
    }
    if (!awaitPhase(std::chrono::seconds(600)))
        return false;
    figures["pipelined_req_per_s"] = double(total) / secondsSince(start);
    return true;
}

void BusClient::onPipelined()
{
    ++answered;
    if (sent < total) {
        ++sent;
        post(request(kMethodEcho));
    }
    if (answered == total)
        finishPhase();
}

bool relayPipelined(RelayLink& link, const Options& options, Figures& figures)
{
    const Clock::time_point start = Clock::now();
    const unsigned initial = std::min(options.window, options.requests);
    unsigned sent = 0;
    for (; sent < initial; ++sent) {
        if (!link.send(kRelayEcho, sent))
            return false;
    }
    for (unsigned answered = 0; answered < options.requests; ++answered) {
        if (!link.receive())
            return false;
        if (sent < options.requests && !link.send(kRelayEcho, sent++))
            return false;
    }
    figures["pipelined_req_per_s"] = double(options.requests) / secondsSince(start);
    return true;
}

} // namespace UlmarCommsBench
