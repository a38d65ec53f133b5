// Table and JSON output of the coordinator. Both print the same figures
// (the medians over --runs); the table rounds latencies to 0.1 us and rates
// to whole messages per second, the JSON keeps six significant digits.
#include "report.h"

#include <cstdio>
#include <string>

namespace UlmarCommsBench {

namespace {

// The figures compared as latencies and as rates, in table order.
const char* const kLatencyKeys[] = {"rtt_p50_us", "rtt_p99_us", "rtt_p999_us", "rtt_max_us"};
const char* const kRateKeys[] = {"oneway_msgs_per_s", "pipelined_req_per_s"};

// The bus's latency and rate figures divided by the relay's.
Figures ratios(const Figures& bus, const Figures& relay)
{
    Figures result;
    for (const char* key : kLatencyKeys)
        result[key] = bus.at(key) / relay.at(key);
    for (const char* key : kRateKeys)
        result[key] = bus.at(key) / relay.at(key);
    return result;
}

// One table row: the bus's figure, and the relay's with the ratio if any.
void printRow(const char* key, int decimals, const Figures& bus, const Figures& relay, bool haveRelay)
{
    if (haveRelay)
        std::printf("%-26s %14.*f %14.*f %8.2f\n", key, decimals, bus.at(key), decimals, relay.at(key),
                    bus.at(key) / relay.at(key));
    else
        std::printf("%-26s %14.*f\n", key, decimals, bus.at(key));
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
    std::printf("%-26s %14s %14s %8s\n", "figure", "bus", "relay", "ratio");
    for (const char* key : kLatencyKeys)
        printRow(key, 1, bus, relay, haveRelay);
    for (const char* key : kRateKeys)
        printRow(key, 0, bus, relay, haveRelay);
    std::printf("%-26s %14.0f %14s\n", "oneway_lost", bus.at("oneway_lost"),
                haveRelay ? std::to_string(int(relay.at("oneway_lost"))).c_str() : "");
    std::printf("%-26s %14s %14s\n", "oneway_in_order", bus.at("oneway_in_order") != 0 ? "yes" : "no",
                haveRelay ? (relay.at("oneway_in_order") != 0 ? "yes" : "no") : "");
    std::printf("latency ratios are bus/relay (lower is better); rate ratios are bus/relay (higher is better)\n");
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
