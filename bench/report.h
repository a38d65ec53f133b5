// The coordinator's report of a run: the bus's figures beside the relay's,
// and the bus's as ratios to the relay's, as a table or as one JSON object.
// Ratios are plain quotients bus/relay, so for latencies lower is better and
// for rates higher is better.
#pragma once

#include "common.h"
#include "options.h"

namespace UlmarCommsBench {

// Prints the figures as a table; relay is ignored unless haveRelay.
void printText(const Options& options, const Figures& bus, const Figures& relay, bool haveRelay);

// Prints the figures as one JSON object; relay and ratio are null unless haveRelay.
void printJson(const Options& options, const Figures& bus, const Figures& relay, bool haveRelay);

} // namespace UlmarCommsBench
