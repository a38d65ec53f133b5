// Round-trip latency: requests one at a time, the next sent as the reply
// arrives; p50/p99/p99.9/max over --requests after --warmup. The bus side
// is BusClient::roundTrips (roundtrip.cpp), the relay side below.
#pragma once

#include "common.h"
#include "options.h"

namespace UlmarCommsBench {

struct RelayLink;

// The relay client's round trips over link: rtt_* figures.
bool relayRoundTrips(RelayLink& link, const Options& options, Figures& figures);

} // namespace UlmarCommsBench
