// Parsing the command line into Options. Numbers are strict (no signs, no
// trailing text, nothing past UINT_MAX) so a typo is refused rather than
// half read; limits that would make a run meaningless are refused too.
#include "options.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <map>
#include <utility>

namespace UlmarCommsBench {

const char kUsage[] = "Usage: ulmarcomms-bench [options]\n"
                      "  --pipe NAME         use the ulmarcommsd already serving pipe NAME\n"
                      "                      (default: start a private one)\n"
                      "  --daemon PATH       the ulmarcommsd to start (default: beside this\n"
                      "                      program, then ../tools/ulmarcommsd, then PATH)\n"
                      "  --pairs N           application pairs per message (default 2, so 6 "
                      "pairs)\n"
                      "  --value-size N      bytes of each application value (default 16)\n"
                      "  --requests N        round trips measured, and pipelined requests "
                      "(20000)\n"
                      "  --warmup N          round trips before measuring (2000)\n"
                      "  --messages N        one-way messages (200000)\n"
                      "  --window N          pipelined requests outstanding (64)\n"
                      "  --runs N            repeat the measurements, report medians (1)\n"
                      "  --daemon-pid PID    the daemon on --pipe, to report its CPU per "
                      "message\n"
                      "  --no-relay          skip the relay measurements\n"
                      "  --pairs-apps N[,N]  also run N application pairs at once (e.g. "
                      "1,10,100)\n"
                      "  --table N           also measure with N extra pumps in the daemon's "
                      "table,\n"
                      "                      beside the run with 10 (e.g. 10000)\n"
                      "  --fanout-apps N     also publish events to N listener applications "
                      "(e.g. 100)\n"
                      "  --fanout-listeners N    fan-out: listening pumps per application (10)\n"
                      "  --fanout-events N   fan-out: events published (100)\n"
                      "  --json              print the figures as one JSON object\n"
                      "  --soak-apps N       soak: N application processes instead of the "
                      "figures\n"
                      "                      (scripts/soak runs 100)\n"
                      "  --soak-pumps N      soak: pumps per application (10)\n"
                      "  --soak-seconds N    soak: duration once all are reachable (60)\n"
                      "  --soak-rate N       soak: requests a second, all applications (1200)\n"
                      "  --soak-settle-ms N  soak: margin before and after each fault (1000)\n"
                      "  --soak-daemon-every N   soak: restart the daemon every N s (20; 0 "
                      "never)\n"
                      "  --soak-sigkill-every N  soak: every Nth daemon stop is SIGKILL (2; 0 "
                      "never)\n"
                      "  --soak-kill-every N     soak: SIGKILL applications every N s (15; 0 "
                      "never)\n"
                      "  --soak-kill-count N     soak: applications killed each time (3)\n"
                      "  --soak-stall-at N       soak: the stalled consumer appears at N s (5; 0 "
                      "none)\n";

namespace {

// A whole decimal number within unsigned; false for anything else.
bool parseUnsigned(const char* text, unsigned& out)
{
    if (text == nullptr || *text == '\0')
        return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (errno != 0 || *end != '\0' || value > UINT_MAX)
        return false;
    out = static_cast<unsigned>(value);
    return true;
}

// Numbers above 0 separated by commas ("1,10,100"); false for anything else.
bool parseList(const char* text, std::vector<unsigned>& out)
{
    out.clear();
    std::string rest = text != nullptr ? text : "";
    while (true) {
        const size_t comma = rest.find(',');
        unsigned number = 0;
        if (!parseUnsigned(rest.substr(0, comma).c_str(), number) || number == 0)
            return false;
        out.push_back(number);
        if (comma == std::string::npos)
            return true;
        rest = rest.substr(comma + 1);
    }
}

// Refuses settings no run can use; true when all are usable.
bool checkLimits(const Options& options, std::string& error)
{
    if (options.pairs > 21) {
        error = "--pairs is at most 21 (a message holds 25 pairs, 4 are the header)";
        return false;
    }
    if (options.requests == 0 || options.messages == 0 || options.window == 0 || options.runs == 0 ||
        options.soakPumps == 0 || options.soakRate == 0 || options.soakSeconds == 0) {
        error = "--requests, --messages, --window, --runs, --soak-pumps, "
                "--soak-rate and --soak-seconds must be above 0";
        return false;
    }
    if (options.fanoutListeners == 0 || options.fanoutEvents < 2) {
        error = "--fanout-listeners must be above 0 and --fanout-events at least 2";
        return false;
    }
    if (options.soakApps > 0 && options.soakKillCount >= options.soakApps && options.soakKillEvery > 0) {
        error = "--soak-kill-count must be below --soak-apps";
        return false;
    }
    return true;
}

} // namespace

bool parseOptions(int argc, char** argv, Options& options, std::string& error)
{
    std::map<std::string, unsigned*> numbers = {
        {"--pairs", &options.pairs},
        {"--value-size", &options.valueSize},
        {"--requests", &options.requests},
        {"--warmup", &options.warmup},
        {"--messages", &options.messages},
        {"--window", &options.window},
        {"--runs", &options.runs},
        {"--frame-bytes", &options.frameBytes},
        {"--daemon-pid", &options.daemonPid},
        {"--table", &options.table},
        {"--fanout-apps", &options.fanoutApps},
        {"--fanout-listeners", &options.fanoutListeners},
        {"--fanout-events", &options.fanoutEvents},
        {"--fill-pumps", &options.fillPumps},
        {"--app-index", &options.appIndex},
        {"--soak-apps", &options.soakApps},
        {"--soak-pumps", &options.soakPumps},
        {"--soak-seconds", &options.soakSeconds},
        {"--soak-rate", &options.soakRate},
        {"--soak-settle-ms", &options.soakSettleMs},
        {"--soak-daemon-every", &options.soakDaemonEvery},
        {"--soak-sigkill-every", &options.soakSigkillEvery},
        {"--soak-kill-every", &options.soakKillEvery},
        {"--soak-kill-count", &options.soakKillCount},
        {"--soak-stall-at", &options.soakStallAt},
        {"--soak-index", &options.soakIndex},
        {"--soak-generation", &options.soakGeneration},
    };
    std::map<std::string, std::string*> texts = {
        {"--role", &options.role}, {"--pipe", &options.pipe},        {"--daemon", &options.daemon},
        {"--tag", &options.tag},   {"--soak-dir", &options.soakDir},
    };
    std::map<std::string, bool*> flags = {{"--json", &options.json}, {"--no-relay", &options.skipRelay}};
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (flags.count(arg) != 0) {
            *flags[arg] = true;
            continue;
        }
        if (arg == "--help" || arg == "-h") {
            error.clear();
            return false;
        }
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (numbers.count(arg) != 0) {
            if (!parseUnsigned(value, *numbers[arg])) {
                error = arg + " takes a number";
                return false;
            }
            ++i;
        } else if (arg == "--pairs-apps") {
            if (!parseList(value, options.pairsApps)) {
                error = arg + " takes numbers above 0, separated by commas";
                return false;
            }
            ++i;
        } else if (texts.count(arg) != 0) {
            if (value == nullptr) {
                error = arg + " takes a value";
                return false;
            }
            *texts[arg] = value;
            ++i;
        } else {
            error = "unknown option " + arg;
            return false;
        }
    }
    return checkLimits(options, error);
}

std::vector<std::string> childArguments(const Options& options, const std::string& role)
{
    const std::pair<const char*, std::string> named[] = {
        {"--role", role},
        {"--pipe", options.pipe},
        {"--tag", options.tag},
        {"--pairs", std::to_string(options.pairs)},
        {"--value-size", std::to_string(options.valueSize)},
        {"--requests", std::to_string(options.requests)},
        {"--warmup", std::to_string(options.warmup)},
        {"--messages", std::to_string(options.messages)},
        {"--window", std::to_string(options.window)},
        {"--frame-bytes", std::to_string(options.frameBytes)},
        {"--daemon-pid", std::to_string(options.daemonPid)},
        {"--fanout-apps", std::to_string(options.fanoutApps)},
        {"--fanout-listeners", std::to_string(options.fanoutListeners)},
        {"--fanout-events", std::to_string(options.fanoutEvents)},
        {"--fill-pumps", std::to_string(options.fillPumps)},
        {"--app-index", std::to_string(options.appIndex)},
        {"--soak-pumps", std::to_string(options.soakPumps)},
        {"--soak-seconds", std::to_string(options.soakSeconds)},
        {"--soak-apps", std::to_string(options.soakApps)},
        {"--soak-rate", std::to_string(options.soakRate)},
        {"--soak-stall-at", std::to_string(options.soakStallAt)},
        {"--soak-dir", options.soakDir.empty() ? "-" : options.soakDir},
    };
    std::vector<std::string> arguments;
    for (const auto& [name, value] : named) {
        arguments.push_back(name);
        arguments.push_back(value);
    }
    return arguments;
}

} // namespace UlmarCommsBench
