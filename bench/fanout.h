// Event fan-out: one publisher pump, --fanout-apps listener applications of
// --fanout-listeners pumps each, all registered for the publisher's event.
// Two figures: how long one event takes to reach every listener, and how
// many deliveries a second a burst of --fanout-events reaches them at;
// every listener checks that each event arrived once, in order.
#pragma once

#include "common.h"
#include "options.h"

namespace UlmarCommsBench {

// The coordinator's part: adds fanout_* figures; false when a child failed.
bool runFanout(const Options& options, Figures& figures);

// The publisher process: publishes the first event at the first go signal,
// the rest at the second, and reports both times at the third.
int runFanoutPublisher(const Options& options);

// A listener application: registers its pumps, counts the events.
int runFanoutListener(const Options& options);

} // namespace UlmarCommsBench
