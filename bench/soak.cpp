// The soak applications and the memory test's coordinator. Applications
// send a request every 50 ms to a random pump of a random application (their
// own included) and answer every request they get, so the daemon carries a
// steady, modest load across many pumps and connections.
#include "soak.h"

#include "bus.h"
#include "common.h"
#include "process.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <ulmarcomms.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace UlmarCommsBench {

namespace {

// One application of the memory test: its pumps answer every request, and
// it sends requests to random pumps of other applications at a steady pace.
struct SoakApp {
    Options options; // this run's settings
    std::vector<void*> pumps; // this application's pumps
    PumpHandle answering; // the pump that answers, as the callbacks see it
    std::atomic<uint64_t> replies{0}; // replies received
    std::atomic<uint64_t> errors{0}; // error replies received

    // Answers every request; runs on the router's worker thread.
    static void onMessage(void* context, void* message, const char*, const char*)
    {
        SoakApp* self = static_cast<SoakApp*>(context);
        void* pump = self->answering.get();
        void* reply = UlmarCommsCreateReplyMessage(pump, message, "ok");
        if (reply != nullptr)
            UlmarCommsPostMessage(pump, reply);
    }
    // Counts a reply; runs on the router's worker thread.
    static void onResponse(void* context, unsigned, void*) { static_cast<SoakApp*>(context)->replies.fetch_add(1); }
    // Counts an error reply; runs on the router's worker thread.
    static void onError(void* context, unsigned, int) { static_cast<SoakApp*>(context)->errors.fetch_add(1); }
};

// A memory sample: seconds since the start and the daemon's KiB.
typedef std::pair<double, double> Sample;

// The name of pump number pump of application number app.
std::string soakPumpName(const Options& options, unsigned app, unsigned pump)
{
    return "ulmarsoak" + options.tag + "/a" + std::to_string(app) + "/p" + std::to_string(pump);
}

// Creates the application's pumps; false when one could not be created.
bool createPumps(SoakApp& app, const Options& options)
{
    app.pumps.resize(options.soakPumps, nullptr);
    for (unsigned i = 0; i < options.soakPumps; ++i) {
        app.pumps[i] =
            UlmarCommsCreateMessagePump(soakPumpName(options, options.soakIndex, i).c_str(), &app, &SoakApp::onMessage,
                                        &SoakApp::onResponse, &SoakApp::onError, nullptr);
        if (app.pumps[i] == nullptr)
            return false;
        if (i == 0)
            app.answering.store(app.pumps[0]);
    }
    return true;
}

// Sends a request every 50 ms until the time is up; the number posted.
uint64_t sendRequests(SoakApp& app, const Options& options)
{
    std::mt19937 random(options.soakIndex + 1);
    const Clock::time_point end = Clock::now() + std::chrono::seconds(options.soakSeconds);
    uint64_t sent = 0;
    while (Clock::now() < end) {
        const unsigned app2 = random() % std::max(options.soakApps, 1u);
        const unsigned pump = random() % options.soakPumps;
        void* message = UlmarCommsCreateMessage(app.pumps[sent % app.pumps.size()],
                                                soakPumpName(options, app2, pump).c_str(), "soak.ping");
        if (message != nullptr) {
            UlmarCommsMessageAddKeyValue(message, "payload", std::string(options.valueSize, 's').c_str());
            if (UlmarCommsPostMessage(app.pumps[sent % app.pumps.size()], message) == ULMARCOMMS_OK)
                ++sent;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return sent;
}

// The slope of a least-squares line through (seconds, KiB), in KiB per minute.
double slopePerMinute(const std::vector<Sample>& points)
{
    if (points.size() < 2)
        return 0;
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (const auto& [x, y] : points) {
        sx += x;
        sy += y;
        sxx += x * x;
        sxy += x * y;
    }
    const double n = double(points.size());
    const double denominator = n * sxx - sx * sx;
    return denominator == 0 ? 0 : 60.0 * (n * sxy - sx * sy) / denominator;
}

// Starts the applications and waits for each to be ready; false if one is not.
bool startApps(const Options& options, std::vector<Child>& apps)
{
    const std::string self = selfPath();
    bool ok = true;
    for (unsigned i = 0; i < options.soakApps; ++i) {
        Options one = options;
        one.soakIndex = i;
        std::vector<std::string> arguments = childArguments(one, "soak-app");
        arguments.push_back("--soak-index");
        arguments.push_back(std::to_string(i));
        apps.push_back(spawn(self, arguments, true));
        ok = ok && apps.back().pid > 0;
    }
    for (Child& app : apps)
        ok = ok && awaitLine(app, "READY", std::chrono::seconds(120));
    return ok;
}

// Samples the daemon's memory once a second for the test's duration; the peak.
long sampleMemory(const Options& options, const Daemon& daemon, long peak, std::vector<Sample>& samples)
{
    const Clock::time_point start = Clock::now();
    while (Clock::now() - start < std::chrono::seconds(options.soakSeconds)) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const long kib = daemon.residentKiB();
        peak = std::max(peak, kib);
        samples.emplace_back(secondsSince(start), double(kib));
    }
    return peak;
}

// Waits for the applications and sums their figures; false if one failed.
bool collectTotals(std::vector<Child>& apps, Figures& totals)
{
    bool ok = true;
    for (Child& app : apps) {
        Figures one;
        if (finish(app, std::chrono::seconds(60)) != 0 || !parseResult(app.collected, one))
            ok = false;
        for (const auto& [key, value] : one)
            totals[key] += value;
    }
    return ok;
}

// The daemon's memory at each stage of the test.
struct Memory {
    long idle = 0; // before any application
    long connected = 0; // every application ready
    long peak = 0; // the largest sample
    long end = 0; // after the applications ended
    double slope = 0; // KiB per minute over the second half
};

// Prints the memory test's report, as JSON or text.
void printSoakReport(const Options& options, const Memory& memory, Figures& totals)
{
    if (options.json) {
        std::printf("{\"apps\": %u, \"pumps_per_app\": %u, \"seconds\": %u, \"daemon_rss_kib\": {\"idle\": %ld, "
                    "\"connected\": %ld, \"peak\": %ld, \"end\": %ld, \"slope_second_half_kib_per_min\": %.1f}, "
                    "\"sent\": %.0f, \"replies\": %.0f, \"errors\": %.0f}\n",
                    options.soakApps, options.soakPumps, options.soakSeconds, memory.idle, memory.connected,
                    memory.peak, memory.end, memory.slope, totals["sent"], totals["replies"], totals["errors"]);
        return;
    }
    std::printf("memory test: %u applications x %u pumps for %u s\n", options.soakApps, options.soakPumps,
                options.soakSeconds);
    std::printf("daemon resident memory: idle %ld KiB, all connected %ld KiB, peak %ld KiB, end %ld KiB\n", memory.idle,
                memory.connected, memory.peak, memory.end);
    std::printf("slope over the second half: %.1f KiB/min\n", memory.slope);
    std::printf("requests sent %.0f, replies %.0f, error replies %.0f\n", totals["sent"], totals["replies"],
                totals["errors"]);
}

} // namespace

int runSoakApp(const Options& options)
{
    if (!startLibrary(options.pipe))
        return 1;
    SoakApp app;
    app.options = options;
    if (!createPumps(app, options))
        return 1;
    std::printf("READY\n");
    std::fflush(stdout);
    const uint64_t sent = sendRequests(app, options);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    for (void* pump : app.pumps)
        UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    printResult(
        {{"sent", double(sent)}, {"replies", double(app.replies.load())}, {"errors", double(app.errors.load())}});
    return 0;
}

int runSoak(Options options)
{
    if (options.tag.empty())
        options.tag = std::to_string(getpid());
    if (!options.pipe.empty()) {
        std::fprintf(stderr, "ulmarcomms-bench: the memory test starts its own daemon (no --pipe)\n");
        return 2;
    }
    Daemon daemon;
    if (!daemon.start(options))
        return 1;
    Memory memory;
    memory.idle = daemon.residentKiB();
    std::vector<Child> apps;
    bool ok = startApps(options, apps);
    memory.connected = daemon.residentKiB();
    std::vector<Sample> samples;
    memory.peak = ok ? sampleMemory(options, daemon, memory.connected, samples) : memory.connected;
    Figures totals;
    ok = collectTotals(apps, totals) && ok;
    memory.end = daemon.residentKiB();
    daemon.stop();
    const std::vector<Sample> secondHalf(samples.begin() + samples.size() / 2, samples.end());
    memory.slope = slopePerMinute(secondHalf);
    printSoakReport(options, memory, totals);
    return ok ? 0 : 1;
}

} // namespace UlmarCommsBench
