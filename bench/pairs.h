// Many application pairs at once: N bus servers and N clients, each its
// own process, all exchanging round trips through one daemon, together
// --requests of them (at least 200 a pair). The figure is the aggregate
// rate (every pair's round trips over the span from the first start to the
// last end) and how it scales from the first N given.
#pragma once

#include "common.h"
#include "options.h"

namespace UlmarCommsBench {

// The coordinator's part: runs each count of --pairs-apps in turn and adds
// pairs_N_req_per_s, pairs_N_rtt_p50_us and pairs_N_scaling; false when a
// child failed.
bool runPairsApps(const Options& options, Figures& figures);

// One pair's client process: waits for the server, says READY, waits for
// the go signal, runs the round trips and reports when it started and ended.
int runPairClient(const Options& options);

} // namespace UlmarCommsBench
