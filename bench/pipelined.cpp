// Pipelined requests on both roads. The first window leaves at once; after
// that each reply lets one more request go, so exactly --window are
// outstanding until the last ones drain. Time runs from the first send to
// the last reply.
//
// On the bus the window is kept by one application thread, as most
// programs do it: it posts while fewer than --window are outstanding and
// otherwise waits on a semaphore the response callback (the router's worker
// thread) releases once per reply. The second bus figure posts each next
// request from the callback itself. The relay client is one thread that
// writes the next request after reading each reply.
#include "pipelined.h"

#include "bus.h"
#include "relay.h"

#include <algorithm>

namespace UlmarCommsBench {

namespace {

// How long the pipelining thread waits for one reply before looking at the
// error count again, and in all before it gives up.
const std::chrono::milliseconds kReplySlice(200);
const std::chrono::seconds kReplyLimit(60);

} // namespace

bool BusClient::pipelined(Figures& figures)
{
    // Start with no credit left over from an earlier run.
    while (replies.try_acquire()) {}
    beginPhase(Pipelined);
    const unsigned count = options.requests;
    const unsigned window = std::min(options.window, count);
    // Waits for one reply; false on an error reply or at the deadline.
    auto awaitReply = [&] {
        const Clock::time_point giveUp = Clock::now() + kReplyLimit;
        while (!replies.try_acquire_for(kReplySlice)) {
            std::lock_guard<std::mutex> guard(lock);
            if (errors > 0 || Clock::now() > giveUp)
                return false;
        }
        return true;
    };
    const Clock::time_point start = Clock::now();
    for (unsigned posted = 0; posted < count; ++posted) {
        if (posted >= window && !awaitReply())
            return false;
        if (!post(request(kMethodEcho)))
            return false;
    }
    for (unsigned i = 0; i < window; ++i) {
        if (!awaitReply())
            return false;
    }
    figures["pipelined_req_per_s"] = double(count) / secondsSince(start);
    return true;
}

bool BusClient::pipelinedFromCallback(Figures& figures)
{
    answered = 0;
    total = options.requests;
    const unsigned initial = std::min(options.window, total);
    sent = initial;
    beginPhase(PipelinedCallback);
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
    figures["pipelined_callback_req_per_s"] = double(total) / secondsSince(start);
    return true;
}

void BusClient::onPipelinedCallback()
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
