// The soak's figures and their report, as text or one JSON object, and the
// verdict: a run passes when nothing was lost outside the fault windows,
// nothing was delivered twice, the daemon never ended on its own and every
// fault was recovered from.
#pragma once

#include "options.h"
#include "soakrecords.h"

#include <string>
#include <vector>

namespace UlmarCommsBench {

// One sample of the daemon's resident memory.
struct MemorySample {
    double at = 0; // seconds since the soak proper began (negative: start-up)
    unsigned instance = 0; // which daemon process (1 the first, +1 per restart)
    long kib = 0; // VmRSS
};

// One daemon restart.
struct RestartFigures {
    double at = 0; // seconds into the soak
    int signal = 0; // SIGTERM, SIGKILL, or 0 when it had died on its own
    double downMs = 0; // from the stop until the new daemon listened
    double reconnectMs = 0; // from then until every pump answered
    bool recovered = false; // every pump answered within the limit
};

// One round of application kills.
struct KillFigures {
    double at = 0; // seconds into the soak
    std::vector<unsigned> apps; // the applications killed
    double reachableMs = 0; // from the kill until their new pumps answered
    bool recovered = false;
};

// Everything the soak reports.
struct SoakResult {
    Tally tally;
    std::vector<RestartFigures> restarts;
    std::vector<KillFigures> kills;
    std::vector<MemorySample> samples;
    double stallAt = -1; // when the stalled consumer appeared, -1: never
    unsigned daemonDeaths = 0; // times the daemon ended on its own
    double replies = 0; // replies the applications that ended cleanly got
    double errorReplies = 0; // error replies they got
    double seconds = 0; // length of the soak proper
    size_t windows = 0; // fault windows, start-up included
    std::vector<std::string> failures; // what went wrong, in words
};

// Whether the run passed (see above).
bool soakPassed(const SoakResult& result);

// Prints the report on stdout, as --json asks.
void printSoakReport(const Options& options, const SoakResult& result);

} // namespace UlmarCommsBench
