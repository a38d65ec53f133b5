// Parsing the command line into Options. Numbers are strict (no signs, no
// trailing text, nothing past UINT_MAX) so a typo is refused rather than
// half read; limits that would make a run meaningless are refused too.
#include "options.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <map>

namespace UlmarCommsBench {

const char kUsage[] = "Usage: ulmarcomms-bench [options]\n"
                      "  --pipe NAME         use the ulmarcommsd already serving pipe NAME\n"
                      "                      (default: start a private one)\n"
                      "  --daemon PATH       the ulmarcommsd to start (default: beside this\n"
                      "                      program, then ../tools/ulmarcommsd, then PATH)\n"
                      "  --pairs N           application pairs per message (default 2, so 6 pairs)\n"
                      "  --value-size N      bytes of each application value (default 16)\n"
                      "  --requests N        round trips measured, and pipelined requests (20000)\n"
                      "  --warmup N          round trips before measuring (2000)\n"
                      "  --messages N        one-way messages (200000)\n"
                      "  --window N          pipelined requests outstanding (64)\n"
                      "  --runs N            repeat the measurements, report medians (1)\n"
                      "  --no-relay          skip the relay measurements\n"
                      "  --json              print the figures as one JSON object\n"
                      "  --soak-apps N       memory test: N applications instead of the figures\n"
                      "  --soak-pumps N      memory test: pumps per application (10)\n"
                      "  --soak-seconds N    memory test: duration (60)\n";

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

// Refuses settings no run can use; true when all are usable.
bool checkLimits(const Options& options, std::string& error)
{
    if (options.pairs > 21) {
        error = "--pairs is at most 21 (a message holds 25 pairs, 4 are the header)";
        return false;
    }
    if (options.requests == 0 || options.messages == 0 || options.window == 0 || options.runs == 0 ||
        options.soakPumps == 0) {
        error = "--requests, --messages, --window, --runs and --soak-pumps must be above 0";
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
        {"--soak-apps", &options.soakApps},
        {"--soak-pumps", &options.soakPumps},
        {"--soak-seconds", &options.soakSeconds},
        {"--soak-index", &options.soakIndex},
    };
    std::map<std::string, std::string*> texts = {
        {"--role", &options.role},
        {"--pipe", &options.pipe},
        {"--daemon", &options.daemon},
        {"--tag", &options.tag},
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
    return {"--role",         role,
            "--pipe",         options.pipe,
            "--tag",          options.tag,
            "--pairs",        std::to_string(options.pairs),
            "--value-size",   std::to_string(options.valueSize),
            "--requests",     std::to_string(options.requests),
            "--warmup",       std::to_string(options.warmup),
            "--messages",     std::to_string(options.messages),
            "--window",       std::to_string(options.window),
            "--frame-bytes",  std::to_string(options.frameBytes),
            "--soak-pumps",   std::to_string(options.soakPumps),
            "--soak-seconds", std::to_string(options.soakSeconds),
            "--soak-apps",    std::to_string(options.soakApps)};
}

} // namespace UlmarCommsBench
