// The soak's report. Resident memory is summarised as minimum, median and
// maximum over the soak proper, the medians before and after the stalled
// consumer appeared, and about ten samples spread over the run; the text
// and the JSON carry the same figures.
#include "soakreport.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <string>

namespace UlmarCommsBench {

namespace {

// Minimum, median and maximum of a set of KiB figures (zeros when empty).
struct Spread {
    long min = 0, median = 0, max = 0;
};

Spread spreadOf(std::vector<long> values)
{
    Spread spread;
    if (values.empty())
        return spread;
    std::sort(values.begin(), values.end());
    spread.min = values.front();
    spread.median = values[values.size() / 2];
    spread.max = values.back();
    return spread;
}

// The samples' KiB in [from, to) seconds.
std::vector<long> kibBetween(const std::vector<MemorySample>& samples, double from, double to)
{
    std::vector<long> values;
    for (const MemorySample& sample : samples)
        if (sample.at >= from && sample.at < to)
            values.push_back(sample.kib);
    return values;
}

// About ten samples of the soak proper, evenly spread, the last included.
std::vector<MemorySample> someSamples(const std::vector<MemorySample>& samples)
{
    std::vector<MemorySample> proper;
    for (const MemorySample& sample : samples)
        if (sample.at >= 0)
            proper.push_back(sample);
    std::vector<MemorySample> some;
    const size_t step = std::max<size_t>(1, proper.size() / 10);
    for (size_t i = 0; i < proper.size(); i += step)
        some.push_back(proper[i]);
    if (!proper.empty() && (some.empty() || some.back().at != proper.back().at))
        some.push_back(proper.back());
    return some;
}

const char* signalName(int signal)
{
    return signal == SIGKILL ? "SIGKILL" : signal == SIGTERM ? "SIGTERM" : "died";
}

// Requests the applications tried to post a second over the soak proper
// (start-up and refused posts included, as the pace does not slow for them).
double postRate(const SoakResult& result)
{
    const Tally& t = result.tally;
    const double span = double(t.lastNs - t.firstNs) / 1e9;
    return span > 0 ? double(t.sent + t.insideSent + t.toStall + t.refused) / span : 0;
}

// JSON-escapes a plain text (quotes and backslashes only occur).
std::string quoted(const std::string& text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            out.push_back('\\');
        out.push_back(c);
    }
    return out + "\"";
}

void printJsonReport(const Options& options, const SoakResult& result)
{
    const Tally& t = result.tally;
    const Spread all = spreadOf(kibBetween(result.samples, 0, 1e12));
    const double stall = result.stallAt < 0 ? 1e12 : result.stallAt;
    const Spread before = spreadOf(kibBetween(result.samples, 0, stall));
    const Spread after = spreadOf(kibBetween(result.samples, stall, 1e12));
    std::printf("{\"apps\": %u, \"pumps_per_app\": %u, \"seconds\": %.1f, \"requests_per_s\": %.1f, "
                "\"passed\": %s,\n",
                options.soakApps, options.soakPumps, result.seconds, postRate(result),
                soakPassed(result) ? "true" : "false");
    std::printf(" \"outside_windows\": {\"sent\": %llu, \"delivered\": %llu, \"lost\": %llu},\n",
                (unsigned long long)t.sent, (unsigned long long)t.delivered, (unsigned long long)t.lost);
    std::printf(" \"inside_windows\": {\"windows\": %zu, \"sent\": %llu, \"delivered\": %llu},\n", result.windows,
                (unsigned long long)t.insideSent, (unsigned long long)t.insideDelivered);
    std::printf(" \"duplicates\": %llu, \"refused_posts\": %llu, \"unrecorded_receptions\": %llu, "
                "\"to_stalled_consumer\": %llu, \"stall_at_s\": %.1f, \"replies\": %.0f, \"error_replies\": %.0f, "
                "\"daemon_deaths\": %u,\n",
                (unsigned long long)t.duplicates, (unsigned long long)t.refused, (unsigned long long)t.unrecorded,
                (unsigned long long)t.toStall, result.stallAt, result.replies, result.errorReplies,
                result.daemonDeaths);
    std::printf(" \"daemon_restarts\": [");
    for (size_t i = 0; i < result.restarts.size(); ++i) {
        const RestartFigures& r = result.restarts[i];
        std::printf("%s{\"at_s\": %.1f, \"signal\": \"%s\", \"down_ms\": %.0f, \"reconnect_ms\": %.0f, "
                    "\"recovered\": %s}",
                    i ? ", " : "", r.at, signalName(r.signal), r.downMs, r.reconnectMs, r.recovered ? "true" : "false");
    }
    std::printf("],\n \"app_kills\": [");
    for (size_t i = 0; i < result.kills.size(); ++i) {
        const KillFigures& k = result.kills[i];
        std::printf("%s{\"at_s\": %.1f, \"apps\": %zu, \"reachable_ms\": %.0f, \"recovered\": %s}", i ? ", " : "", k.at,
                    k.apps.size(), k.reachableMs, k.recovered ? "true" : "false");
    }
    std::printf("],\n \"daemon_rss_kib\": {\"min\": %ld, \"median\": %ld, \"max\": %ld, \"median_before_stall\": %ld, "
                "\"median_with_stall\": %ld, \"samples\": [",
                all.min, all.median, all.max, before.median, after.median);
    const std::vector<MemorySample> some = someSamples(result.samples);
    for (size_t i = 0; i < some.size(); ++i)
        std::printf("%s[%.0f, %u, %ld]", i ? ", " : "", some[i].at, some[i].instance, some[i].kib);
    std::printf("]},\n \"failures\": [");
    for (size_t i = 0; i < result.failures.size(); ++i)
        std::printf("%s%s", i ? ", " : "", quoted(result.failures[i]).c_str());
    std::printf("]}\n");
}

void printTextReport(const Options& options, const SoakResult& result)
{
    const Tally& t = result.tally;
    std::printf("soak: %u applications x %u pumps, %.1f s, %.0f requests/s (each answered: twice as many messages)\n",
                options.soakApps, options.soakPumps, result.seconds, postRate(result));
    std::printf("outside fault windows: sent %llu, delivered %llu, lost %llu\n", (unsigned long long)t.sent,
                (unsigned long long)t.delivered, (unsigned long long)t.lost);
    std::printf("inside %zu fault windows (start-up included): sent %llu, delivered %llu (not held to delivery)\n",
                result.windows, (unsigned long long)t.insideSent, (unsigned long long)t.insideDelivered);
    std::printf(
        "duplicates %llu; posts refused by the library (link down) %llu; receptions without a send record %llu\n",
        (unsigned long long)t.duplicates, (unsigned long long)t.refused, (unsigned long long)t.unrecorded);
    std::printf("replies %.0f, error replies %.0f (applications that ended cleanly)\n", result.replies,
                result.errorReplies);
    if (result.stallAt >= 0)
        std::printf("stalled consumer from %.1f s: %llu requests sent to it, none read\n", result.stallAt,
                    (unsigned long long)t.toStall);
    for (const RestartFigures& r : result.restarts)
        std::printf("daemon restart at %5.1f s (%s): new daemon listening after %.0f ms, every pump reachable "
                    "%.0f ms later%s\n",
                    r.at, signalName(r.signal), r.downMs, r.reconnectMs, r.recovered ? "" : " -- NOT RECOVERED");
    for (const KillFigures& k : result.kills)
        std::printf("%zu applications killed at %5.1f s: reachable again after %.0f ms%s\n", k.apps.size(), k.at,
                    k.reachableMs, k.recovered ? "" : " -- NOT RECOVERED");
    const Spread all = spreadOf(kibBetween(result.samples, 0, 1e12));
    std::printf("daemon resident memory: min %ld KiB, median %ld KiB, max %ld KiB\n", all.min, all.median, all.max);
    if (result.stallAt >= 0) {
        const Spread before = spreadOf(kibBetween(result.samples, 0, result.stallAt));
        const Spread after = spreadOf(kibBetween(result.samples, result.stallAt, 1e12));
        std::printf("  median before the stall %ld KiB, with it %ld KiB (max %ld KiB)\n", before.median, after.median,
                    after.max);
    }
    std::printf("  samples (second: daemon instance, KiB):");
    for (const MemorySample& sample : someSamples(result.samples))
        std::printf(" %.0f:#%u %ld", sample.at, sample.instance, sample.kib);
    std::printf("\n");
    if (result.daemonDeaths > 0)
        std::printf("the daemon ended on its own %u times\n", result.daemonDeaths);
    for (const std::string& failure : result.failures)
        std::printf("FAILED: %s\n", failure.c_str());
    std::printf("%s\n", soakPassed(result) ? "soak passed" : "soak FAILED");
}

} // namespace

bool soakPassed(const SoakResult& result)
{
    return result.failures.empty() && result.tally.lost == 0 && result.tally.duplicates == 0 &&
        result.daemonDeaths == 0 && result.tally.sent > 0;
}

void printSoakReport(const Options& options, const SoakResult& result)
{
    if (options.json)
        printJsonReport(options, result);
    else
        printTextReport(options, result);
    std::fflush(stdout);
}

} // namespace UlmarCommsBench
