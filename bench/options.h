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
    unsigned soakApps = 0; // memory test: application processes
    unsigned soakPumps = 10; // memory test: pumps per application
    unsigned soakSeconds = 60; // memory test: duration
    unsigned soakIndex = 0; // memory test: this application (internal)
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
