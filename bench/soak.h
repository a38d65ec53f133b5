// The memory test (--soak-apps N): instead of the figures, N application
// processes with --soak-pumps pumps each exchange requests for
// --soak-seconds while the coordinator samples the daemon's resident memory
// once a second. The slope over the second half shows whether memory keeps
// growing once every table and buffer has reached its working size.
#pragma once

#include "options.h"

namespace UlmarCommsBench {

// One soak application process: answers and sends requests until the time is up.
int runSoakApp(const Options& options);

// The memory test's coordinator: starts the daemon and the applications,
// samples, prints the report; 0 when every application finished cleanly.
int runSoak(Options options);

} // namespace UlmarCommsBench
