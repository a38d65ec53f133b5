// Table and JSON output of the coordinator. Both print the same figures
// (the medians over --runs); the table rounds latencies to 0.1 us and rates
// to whole messages per second, the JSON keeps six significant digits.
#include "report.h"

#include <cmath>
#include <cstdio>
#include <string>

namespace UlmarCommsBench {

namespace {

// A figure of the bus beside the relay's figure it is compared with: the
// same key, except for the bus's second pipelined sender, which the relay's
// one pipelined sender is the floor for.
struct Compared {
    const char* key; // the bus's figure
    const char* relayKey; // the relay's
    int decimals; // in the table
};

// The compared figures in table order: latencies, rates, CPU per message.
const Compared kCompared[] = {
    {"rtt_p50_us", "rtt_p50_us", 1},
    {"rtt_p99_us", "rtt_p99_us", 1},
    {"rtt_p999_us", "rtt_p999_us", 1},
    {"rtt_max_us", "rtt_max_us", 1},
    {"oneway_msgs_per_s", "oneway_msgs_per_s", 0},
    {"oneway_unwindowed_msgs_per_s", "oneway_unwindowed_msgs_per_s", 0},
    {"pipelined_req_per_s", "pipelined_req_per_s", 0},
    {"pipelined_callback_req_per_s", "pipelined_req_per_s", 0},
    {"daemon_cpu_us_per_msg_rtt", "daemon_cpu_us_per_msg_rtt", 2},
    {"daemon_cpu_us_per_msg_oneway", "daemon_cpu_us_per_msg_oneway", 2},
    {"daemon_cpu_us_per_msg_oneway_unwindowed", "daemon_cpu_us_per_msg_oneway_unwindowed", 2},
    {"daemon_cpu_us_per_msg_pipelined", "daemon_cpu_us_per_msg_pipelined", 2},
    {"daemon_cpu_us_per_msg_pipelined_callback", "daemon_cpu_us_per_msg_pipelined", 2},
};

// The delivery checks of the one-way senders, as table rows.
const char* const kOneWayPrefixes[] = {"oneway", "oneway_unwindowed"};

// The bus-only figures, by the start of their keys.
const char* const kBusOnlyPrefixes[] = {"table_", "pairs_", "fanout_"};

// The value of key, or NaN when the run has no such figure.
double valueOf(const Figures& figures, const std::string& key)
{
    const auto found = figures.find(key);
    return found != figures.end() ? found->second : std::nan("");
}

// The bus's compared figures divided by the relay's, where both have them.
Figures ratios(const Figures& bus, const Figures& relay)
{
    Figures result;
    for (const Compared& row : kCompared) {
        const double quotient = valueOf(bus, row.key) / valueOf(relay, row.relayKey);
        if (std::isfinite(quotient))
            result[row.key] = quotient;
    }
    return result;
}

// One table row: the bus's figure, and the relay's with the ratio if any;
// nothing when the bus has no such figure.
void printRow(const Compared& row, const Figures& bus, const Figures& relay, bool haveRelay)
{
    const double ours = valueOf(bus, row.key);
    if (std::isnan(ours))
        return;
    const double theirs = haveRelay ? valueOf(relay, row.relayKey) : std::nan("");
    if (std::isnan(theirs))
        std::printf("%-40s %14.*f\n", row.key, row.decimals, ours);
    else
        std::printf("%-40s %14.*f %14.*f %8.2f\n", row.key, row.decimals, ours, row.decimals, theirs, ours / theirs);
}

// The lost and in-order rows of one one-way sender.
void printDelivery(const std::string& prefix, const Figures& bus, const Figures& relay, bool haveRelay)
{
    const std::string lost = prefix + "_lost";
    const std::string inOrder = prefix + "_in_order";
    std::printf("%-40s %14.0f %14s\n", lost.c_str(), bus.at(lost),
                haveRelay ? std::to_string(int(relay.at(lost))).c_str() : "");
    std::printf("%-40s %14s %14s\n", inOrder.c_str(), bus.at(inOrder) != 0 ? "yes" : "no",
                haveRelay ? (relay.at(inOrder) != 0 ? "yes" : "no") : "");
}

// A JSON object of figures.
std::string jsonObject(const Figures& figures)
{
    std::string text = "{";
    bool first = true;
    for (const auto& [key, value] : figures) {
        text += std::string(first ? "" : ", ") + "\"" + key + "\": " + formatNumber(value);
        first = false;
    }
    return text + "}";
}

} // namespace

void printText(const Options& options, const Figures& bus, const Figures& relay, bool haveRelay)
{
    std::printf("ulmarcomms-bench: %u application pairs of %u bytes (frame %.0f bytes), %u round trips after %u, "
                "%u one-way messages, %u pipelined with %u outstanding, %u run(s), medians\n",
                options.pairs, options.valueSize, bus.at("frame_bytes"), options.requests, options.warmup,
                options.messages, options.requests, options.window, options.runs);
    std::printf("%-40s %14s %14s %8s\n", "figure", "bus", "relay", "ratio");
    for (const Compared& row : kCompared)
        printRow(row, bus, relay, haveRelay);
    for (const char* prefix : kOneWayPrefixes)
        printDelivery(prefix, bus, relay, haveRelay);
    if (bus.count("oneway_unwindowed_refused") != 0)
        std::printf("%-40s %14.0f\n", "oneway_unwindowed_refused", bus.at("oneway_unwindowed_refused"));
    for (const char* prefix : kBusOnlyPrefixes) {
        for (const auto& [key, value] : bus) {
            if (key.rfind(prefix, 0) == 0)
                std::printf("%-40s %14.2f\n", key.c_str(), value);
        }
    }
    std::printf("ratios are bus/relay: for latencies and CPU lower is better, for rates higher is better;\n"
                "pipelined_callback is compared with the relay's one pipelined sender; CPU is the daemon's,\n"
                "and the relay process's on the relay side\n");
}

void printJson(const Options& options, const Figures& bus, const Figures& relay, bool haveRelay)
{
    std::printf("{\"pairs\": %u, \"value_size\": %u, \"requests\": %u, \"warmup\": %u, \"messages\": %u, "
                "\"window\": %u, \"runs\": %u, \"bus\": %s, \"relay\": %s, \"ratio\": %s}\n",
                options.pairs, options.valueSize, options.requests, options.warmup, options.messages, options.window,
                options.runs, jsonObject(bus).c_str(), haveRelay ? jsonObject(relay).c_str() : "null",
                haveRelay ? jsonObject(ratios(bus, relay)).c_str() : "null");
}

} // namespace UlmarCommsBench
