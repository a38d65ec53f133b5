// The soak (--soak-apps N): N application processes of --soak-pumps pumps
// exchange numbered requests through a private daemon for --soak-seconds
// while the coordinator restarts the daemon, kills and restarts
// applications, and keeps one stalled consumer on the bus. It reports what
// was delivered, lost and duplicated outside the fault windows, how long
// every application took to be reachable again after each daemon restart,
// and the daemon's resident memory over time.
#pragma once

#include "options.h"

#include <string>

namespace UlmarCommsBench {

// Methods of the soak's requests: numbered (recorded) and probes (not).
extern const char kSoakMessage[];
extern const char kSoakProbe[];

// The name of pump number pump of application number app.
std::string soakPumpName(const Options& options, unsigned app, unsigned pump);

// The name the stalled consumer announces.
std::string soakStallName(const Options& options);

// One soak application process: posts until SIGTERM, answers throughout.
int runSoakApp(const Options& options);

// The soak's coordinator: daemon, applications, faults, report; 0 when
// nothing was lost outside the windows, nothing duplicated and the daemon
// never died on its own.
int runSoak(Options options);

} // namespace UlmarCommsBench
