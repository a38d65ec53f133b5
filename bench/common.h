// What every part of the benchmark shares: the clock, the figures a run
// produces and how they travel, and the statistics over them.
//
// Each child process reports its figures as one "RESULT key=value ..." line
// on stdout, which the coordinator parses back; a plain line keeps children
// and coordinator free of any shared state but the command line.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace UlmarCommsBench {

// The one clock every measurement uses.
typedef std::chrono::steady_clock Clock;

// Named figures of one run ("rtt_p50_us", "oneway_lost", ...).
typedef std::map<std::string, double> Figures;

// A figure as every output writes it (printf "%.6g").
std::string formatNumber(double value);

// Prints "RESULT key=value key=value ..." on stdout, with every digit, and
// flushes it.
void printResult(const Figures& figures);

// Reads the first RESULT line of a child's output into figures; false when
// there is none.
bool parseResult(const std::string& output, Figures& figures);

// A duration in microseconds.
double microseconds(Clock::duration d);

// A reading of the clock in seconds. The clock is the system's monotonic
// one, so readings of different processes on one machine compare.
double clockSeconds(Clock::time_point when);

// Seconds passed since start.
double secondsSince(Clock::time_point start);

// Adds rtt_p50_us, rtt_p99_us, rtt_p999_us and rtt_max_us (nearest rank)
// from round-trip samples in microseconds; sorts them.
void addLatencyFigures(std::vector<double>& samples, Figures& figures);

// The median of each figure over several runs (keys of the first run).
Figures medians(const std::vector<Figures>& runs);

// The setting that names the daemon's pipe, as the library's start argument
// and the daemon's --set both take it.
std::string pipeSetting(const std::string& pipe);

} // namespace UlmarCommsBench
