// A large routing table: filler processes register extra pumps with the
// daemon before a bus run, so that round trips and one-way messages can be
// compared between a table of 10 entries and one of --table entries. The
// fillers' names share the leading name of the run's server and client
// pumps ("ulmarbench<tag>/...") but never match them, so every best match
// has real candidates to pass over and still finds the same pump.
#pragma once

#include "common.h"
#include "options.h"
#include "process.h"

#include <vector>

namespace UlmarCommsBench {

// Starts filler processes that register entries pumps in all, spread so
// that no link passes the daemon's per-link bound, and waits until the
// daemon has every one; false (with a message) when one failed.
bool startFillers(const Options& options, unsigned entries, std::vector<Child>& fillers);

// Lets the fillers end and reaps them.
void stopFillers(std::vector<Child>& fillers);

// Adds table_SMALL_KEY, table_LARGE_KEY and table_ratio_KEY (large/small)
// for the compared keys of the runs with small and large tables, and
// table_LARGE_lost and table_LARGE_in_order for the large run's one-way
// messages.
void addTableFigures(unsigned small, const Figures& withSmall, unsigned large, const Figures& withLarge,
                     Figures& figures);

// A filler process: registers --fill-pumps pumps, says READY once the
// daemon has them, stays until the go signal.
int runFiller(const Options& options);

} // namespace UlmarCommsBench
