// Filling the daemon's table. Each filler registers its pumps on its own
// link (at most kPumpsPerFiller, below the daemon's default bound of 4096
// pumps a link), then asks the daemon which pumps support the interface
// only its last pump has: the daemon takes a link's frames in order, so the
// answer names that pump once it has every registration of the filler.
#include "table.h"

#include "bus.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <ulmarcomms.h>

namespace UlmarCommsBench {

namespace {

// Pumps one filler registers at most.
const unsigned kPumpsPerFiller = 4000;

// The figures compared between the two tables.
const char* const kTableKeys[] = {"rtt_p50_us", "rtt_p99_us", "oneway_msgs_per_s", "oneway_unwindowed_msgs_per_s"};

// The daemon's answers to the filler's question which pumps support its
// interface (response callback, router worker thread).
struct Probe {
    std::mutex lock;
    std::condition_variable changed;
    unsigned answers = 0; // answers so far
    std::string answer; // the last one

    static void onAnswer(void* context, unsigned, void* message)
    {
        Probe* self = static_cast<Probe*>(context);
        const char* response = UlmarCommsGetResponse(message);
        std::lock_guard<std::mutex> guard(self->lock);
        self->answer = response != nullptr ? response : "";
        ++self->answers;
        self->changed.notify_all();
    }

    // Asks through pump until the daemon lists address for interface;
    // false at limit.
    bool awaitListed(void* pump, const std::string& interface, const std::string& address, std::chrono::seconds limit);
};

bool Probe::awaitListed(void* pump, const std::string& interface, const std::string& address,
                        std::chrono::seconds limit)
{
    const Clock::time_point deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        unsigned before = 0;
        {
            std::lock_guard<std::mutex> guard(lock);
            before = answers;
        }
        void* query = UlmarCommsCreateSystemGetAddressesSupportingInterfacesMessage(pump, "", interface.c_str());
        if (query == nullptr || UlmarCommsPostMessage(pump, query) != ULMARCOMMS_OK)
            return false;
        std::unique_lock<std::mutex> guard(lock);
        if (changed.wait_for(guard, std::chrono::seconds(1), [&] { return answers > before; }) &&
            answer.find(address) != std::string::npos)
            return true;
    }
    return false;
}

// Filler pump i of filler app. Two shapes, both beginning with the run's
// leading name and never matching the server or the client: one name
// deeper ("f3x17"), and two deeper with a second name that begins like
// the server's ("serve3x17/x").
std::string fillerName(const Options& options, unsigned app, unsigned i)
{
    const std::string head = "ulmarbench" + options.tag + "/";
    const std::string id = std::to_string(app) + "x" + std::to_string(i);
    return i % 2 == 0 ? head + "f" + id : head + "serve" + id + "/x";
}

} // namespace

bool startFillers(const Options& options, unsigned entries, std::vector<Child>& fillers)
{
    const std::string self = selfPath();
    for (unsigned app = 0; app * kPumpsPerFiller < entries; ++app) {
        Options filler = options;
        filler.appIndex = app;
        filler.fillPumps = std::min(kPumpsPerFiller, entries - app * kPumpsPerFiller);
        fillers.push_back(spawn(self, childArguments(filler, "filler"), true));
    }
    return awaitAll(fillers, "READY", std::chrono::seconds(300), "table filler");
}

void stopFillers(std::vector<Child>& fillers)
{
    signalGo(fillers);
    finishAll(fillers, std::chrono::seconds(60));
    fillers.clear();
}

void addTableFigures(unsigned small, const Figures& withSmall, unsigned large, const Figures& withLarge,
                     Figures& figures)
{
    const std::string largePrefix = "table_" + std::to_string(large) + "_";
    for (const char* key : kTableKeys) {
        figures["table_" + std::to_string(small) + "_" + key] = withSmall.at(key);
        figures[largePrefix + key] = withLarge.at(key);
        figures[std::string("table_ratio_") + key] = withLarge.at(key) / withSmall.at(key);
    }
    // The large table's run must deliver everything too (the small one's
    // delivery figures are the run's own).
    figures[largePrefix + "lost"] = withLarge.at("oneway_lost") + withLarge.at("oneway_unwindowed_lost");
    figures[largePrefix + "in_order"] = withLarge.at("oneway_in_order") * withLarge.at("oneway_unwindowed_in_order");
}

int runFiller(const Options& options)
{
    blockGoSignal();
    if (options.fillPumps == 0 || !startLibrary(options.pipe))
        return 1;
    // The last pump supports an interface of this filler's own; the first
    // asks for it, and the daemon's answer names the last pump once the
    // daemon has taken every registration before it.
    const std::string interface = "ulmarbench" + options.tag + ".fill" + std::to_string(options.appIndex);
    const unsigned last = options.fillPumps - 1;
    Probe probe;
    std::vector<void*> pumps;
    for (unsigned i = 0; i < options.fillPumps; ++i) {
        void* pump = UlmarCommsCreateMessagePump(
            fillerName(options, options.appIndex, i).c_str(), i == 0 ? &probe : nullptr, nullptr,
            i == 0 ? &Probe::onAnswer : nullptr, nullptr, i == last ? interface.c_str() : nullptr);
        if (pump != nullptr)
            pumps.push_back(pump);
    }
    const bool ready = pumps.size() == options.fillPumps &&
        probe.awaitListed(pumps.front(), interface, fillerName(options, options.appIndex, last),
                          std::chrono::seconds(120));
    if (ready) {
        std::printf("READY\n");
        std::fflush(stdout);
        awaitGo(std::chrono::seconds(3600));
    } else {
        std::fprintf(stderr, "ulmarcomms-bench: a filler's %u pumps were not all registered\n", options.fillPumps);
    }
    UlmarCommsShutdown();
    return ready ? 0 : 1;
}

} // namespace UlmarCommsBench
