// The benchmark's command line. One program plays every part (coordinator,
// bus and relay children, soak applications), so the options carry both
// what the user sets and what the coordinator hands its children; the
// children get theirs back as arguments from childArguments().
#pragma once

#include <string>
#include <vector>

namespace UlmarCommsBench {

// Every setting of one run, as parsed from the command line.
struct Options {
    std::string role; // empty: coordinator
    std::string pipe; // the daemon's pipe name; empty: start our own
    std::string daemon; // path of ulmarcommsd; empty: look for it
    std::string tag; // names this run's pumps and relay sockets
    unsigned pairs = 2; // application pairs besides the 4 header pairs
    unsigned valueSize = 16; // bytes of each application value
    unsigned requests = 20000; // round trips measured (and pipelined requests)
    unsigned warmup = 2000; // round trips before measuring
    unsigned messages = 200000; // one-way messages
    unsigned window = 64; // pipelined requests outstanding
    unsigned runs = 1; // repetitions; figures are medians
    unsigned frameBytes = 0; // relay message size (internal)
    unsigned daemonPid = 0; // the process in the middle, for its CPU time (0: unknown)
    std::vector<unsigned> pairsApps; // many pairs: pair counts to run, in order (empty: none)
    unsigned table = 0; // entries to compare with a 10-entry table (0: no comparison)
    unsigned fanoutApps = 0; // fan-out: listener applications (0: no fan-out)
    unsigned fanoutListeners = 10; // fan-out: listening pumps per application
    unsigned fanoutEvents = 100; // fan-out: events published
    unsigned fillPumps = 0; // pumps of one filler process (internal)
    unsigned appIndex = 0; // this filler or listener application (internal)
    unsigned soakApps = 0; // soak: application processes (0: no soak)
    unsigned soakPumps = 10; // soak: pumps per application
    unsigned soakSeconds = 60; // soak: duration once every application is reachable
    unsigned soakRate = 1200; // soak: requests a second, all applications together
    unsigned soakSettleMs = 1000; // soak: margin on both sides of a fault window
    unsigned soakDaemonEvery = 20; // soak: seconds between daemon restarts (0: none)
    unsigned soakSigkillEvery = 2; // soak: every Nth daemon stop is SIGKILL (0: never)
    unsigned soakKillEvery = 15; // soak: seconds between application kills (0: none)
    unsigned soakKillCount = 3; // soak: applications killed each time
    unsigned soakStallAt = 5; // soak: second the stalled consumer appears (0: none)
    unsigned soakIndex = 0; // soak: this application (internal)
    unsigned soakGeneration = 0; // soak: this application's restarts (internal)
    std::string soakDir; // soak: where applications write their records (internal)
    bool json = false; // print the figures as one JSON object
    bool skipRelay = false; // skip the relay measurements
};

// The text --help prints (and a bad command line, on stderr).
extern const char kUsage[];

// Fills options from argv; false with an empty error for --help, with a
// message otherwise.
bool parseOptions(int argc, char** argv, Options& options, std::string& error);

// The options a child needs, written back as arguments, with its role.
std::vector<std::string> childArguments(const Options& options, const std::string& role);

} // namespace UlmarCommsBench
