// One soak application process. Its pumps record and answer every message;
// its main thread posts numbered requests at a steady pace (its share of
// --soak-rate) to random pumps of random applications, its own included,
// and now and then to the stalled consumer. SIGTERM ends the posting; the
// pumps keep answering for a drain period so that the last requests of the
// others still arrive, then the process ends cleanly.
#include "bus.h"
#include "soak.h"
#include "soakrecords.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <ulmarcomms.h>
#include <vector>

namespace UlmarCommsBench {

const char kSoakMessage[] = "soak.msg";
const char kSoakProbe[] = "soak.probe";

namespace {

// Set by SIGTERM: stop posting.
std::atomic<bool> g_stop{false};

void onTerm(int)
{
    g_stop.store(true);
}

// Every twentieth request goes to the stalled consumer.
constexpr unsigned kStallShare = 20;

// How long the pumps keep answering after the posting ended.
constexpr std::chrono::seconds kDrain{3};

// One application: its pumps, its records and its counters.
struct SoakApp {
    Options options; // this run's settings
    std::vector<void*> pumps; // this application's pumps
    PumpHandle answering; // the pump that answers, as the callbacks see it
    RecordFile sent; // one record per post
    RecordFile received; // one record per numbered request received
    std::atomic<uint64_t> replies{0}; // replies received
    std::atomic<uint64_t> errors{0}; // error replies received

    // Records a numbered request and answers every request; runs on the
    // router's worker thread.
    static void onMessage(void* context, void* message, const char* to, const char* method)
    {
        SoakApp* self = static_cast<SoakApp*>(context);
        if (method != nullptr && std::strcmp(method, kSoakMessage) == 0)
            self->record(message);
        // One pump answers for all; the reply names the pump that was asked,
        // which is what the probe looks for.
        void* pump = self->answering.get();
        void* reply = UlmarCommsCreateReplyMessage(pump, message, "ok");
        if (reply == nullptr)
            return;
        if (to != nullptr)
            UlmarCommsMessageAddKeyValue(reply, "at", to);
        UlmarCommsPostMessage(pump, reply);
    }
    // Counts a reply; runs on the router's worker thread.
    static void onResponse(void* context, unsigned, void*) { static_cast<SoakApp*>(context)->replies.fetch_add(1); }
    // Counts an error reply; runs on the router's worker thread.
    static void onError(void* context, unsigned, int) { static_cast<SoakApp*>(context)->errors.fetch_add(1); }

    // Writes the sender, generation and sequence id a request carries.
    void record(void* message)
    {
        const char* app = UlmarCommsMessageValue(message, "a");
        const char* generation = UlmarCommsMessageValue(message, "g");
        const char* sequence = UlmarCommsMessageValue(message, "q");
        if (app == nullptr || generation == nullptr || sequence == nullptr)
            return;
        ReceivedRecord r;
        r.app = uint32_t(std::strtoul(app, nullptr, 10));
        r.generation = uint32_t(std::strtoul(generation, nullptr, 10));
        r.sequence = std::strtoull(sequence, nullptr, 10);
        r.ns = monotonicNs();
        received.append(&r, sizeof(r));
    }
};

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

// Posts one numbered request from pump to the target and records it.
void postOne(SoakApp& app, void* pump, uint32_t target, const std::string& to, uint64_t sequence)
{
    SentRecord s;
    s.app = target;
    s.sequence = sequence;
    s.ns = monotonicNs();
    void* message = UlmarCommsCreateMessage(pump, to.c_str(), kSoakMessage);
    const std::string payload(app.options.valueSize, 's');
    if (message == nullptr ||
        UlmarCommsMessageAddKeyValue(message, "a", std::to_string(app.options.soakIndex).c_str()) != ULMARCOMMS_OK ||
        UlmarCommsMessageAddKeyValue(message, "g", std::to_string(app.options.soakGeneration).c_str()) !=
            ULMARCOMMS_OK ||
        UlmarCommsMessageAddKeyValue(message, "q", std::to_string(sequence).c_str()) != ULMARCOMMS_OK ||
        UlmarCommsMessageAddKeyValue(message, "payload", payload.c_str()) != ULMARCOMMS_OK ||
        UlmarCommsPostMessage(pump, message) != ULMARCOMMS_OK)
        s.refused = 1;
    app.sent.append(&s, sizeof(s));
}

// Posts this application's share of the requests until SIGTERM.
void postUntilStopped(SoakApp& app, const Options& options)
{
    std::mt19937 random(options.soakIndex * 7919 + options.soakGeneration + 1);
    const auto interval = std::chrono::nanoseconds(1000000000ull * options.soakApps / options.soakRate);
    const std::string stall = soakStallName(options);
    // Each application starts at its own phase so that the posts spread out.
    auto next = Clock::now() + std::chrono::nanoseconds(random() % interval.count());
    for (uint64_t sequence = 0; !g_stop.load(); ++sequence) {
        std::this_thread::sleep_until(next);
        next += interval;
        void* pump = app.pumps[sequence % app.pumps.size()];
        if (options.soakStallAt > 0 && random() % kStallShare == 0) {
            postOne(app, pump, kStallTarget, stall, sequence);
            continue;
        }
        const unsigned target = random() % options.soakApps;
        const unsigned targetPump = random() % options.soakPumps;
        postOne(app, pump, target, soakPumpName(options, target, targetPump), sequence);
    }
}

} // namespace

std::string soakPumpName(const Options& options, unsigned app, unsigned pump)
{
    return "ulmarsoak" + options.tag + "/a" + std::to_string(app) + "/p" + std::to_string(pump);
}

std::string soakStallName(const Options& options)
{
    return "ulmarsoak" + options.tag + "/stall";
}

int runSoakApp(const Options& options)
{
    std::signal(SIGTERM, onTerm);
    SoakApp app;
    app.options = options;
    if (!app.sent.open(sentPath(options.soakDir, options.soakIndex, options.soakGeneration)) ||
        !app.received.open(receivedPath(options.soakDir, options.soakIndex, options.soakGeneration))) {
        std::fprintf(stderr, "ulmarcomms-bench: cannot write the soak records in %s\n", options.soakDir.c_str());
        return 1;
    }
    // Every pump, the first included, is announced again after the daemon
    // restarts.
    if (!startLibrary(options.pipe, "ulmar.messagerouter.reannounce.all=1") || !createPumps(app, options))
        return 1;
    std::printf("READY\n");
    std::fflush(stdout);
    postUntilStopped(app, options);
    std::this_thread::sleep_for(kDrain);
    for (void* pump : app.pumps)
        UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    printResult({{"replies", double(app.replies.load())}, {"errors", double(app.errors.load())}});
    return 0;
}

} // namespace UlmarCommsBench
