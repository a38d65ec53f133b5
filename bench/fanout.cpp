// Event fan-out through the public C interface. The publisher creates the
// event and says READY; each listener application registers every pump of
// its own for it (again until the publisher's pump is known and answers) and
// says READY. At the first go signal the publisher posts event 1 alone;
// each listener says FIRST once all its pumps have it, with the time, and
// when every listener has, the second signal releases the burst of the
// other events, posted as fast as the library takes them. Listeners report
// when the last one arrived; times are on the shared monotonic clock.
#include "fanout.h"

#include "bus.h"
#include "process.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <ulmarcomms.h>
#include <vector>

namespace UlmarCommsBench {

namespace {

const char kEventName[] = "bench.tick";
const char kMethodTick[] = "bench.tick.heard";

// How long a listener waits for all the events once the burst may start.
const std::chrono::seconds kListenLimit(300);

// The publisher's pump name.
std::string publisherName(const Options& options)
{
    return "ulmarbench" + options.tag + "/publisher";
}

struct Listener;

// One listening pump and what it has heard (router worker thread only,
// apart from registered, which the main thread reads under the lock).
struct Ear {
    Listener* owner = nullptr;
    void* pump = nullptr;
    bool registered = false; // the publisher answered its registration
    uint64_t heard = 0; // events received
    uint64_t next = 1; // the event number due
};

// A listener application's pumps and tally.
struct Listener {
    Options options;
    std::vector<std::unique_ptr<Ear>> ears;
    std::mutex lock; // guards what the main thread waits for
    std::condition_variable changed;
    unsigned registered = 0; // ears registered
    unsigned firstHeard = 0; // ears that have event 1
    unsigned done = 0; // ears that have every event
    bool inOrder = true;
    Clock::time_point firstAll; // when the last ear got event 1
    Clock::time_point last; // the latest delivery

    // Counts event number sequence heard by ear (worker thread).
    void hear(Ear& ear, uint64_t sequence);
    // Registers every ear not yet registered until all are; false at limit.
    bool registerAll(std::chrono::seconds limit);
};

void Listener::hear(Ear& ear, uint64_t sequence)
{
    const Clock::time_point now = Clock::now();
    std::lock_guard<std::mutex> guard(lock);
    inOrder = inOrder && sequence == ear.next;
    ear.next = sequence + 1;
    last = now;
    ++ear.heard;
    if (sequence == 1 && ++firstHeard == ears.size())
        firstAll = now;
    if (ear.heard == options.fanoutEvents)
        ++done;
    changed.notify_all();
}

// The ear's event: its number, counted.
void onTick(void* context, void* message, const char*, const char* method)
{
    Ear* ear = static_cast<Ear*>(context);
    if (method == nullptr || std::strcmp(method, kMethodTick) != 0)
        return;
    const char* text = UlmarCommsMessageValue(message, "seq");
    ear->owner->hear(*ear, text != nullptr ? std::strtoull(text, nullptr, 10) : 0);
}

// The publisher's answer to a registration ("y" or "n": either way it is on the list).
void onRegistered(void* context, unsigned, void*)
{
    Ear* ear = static_cast<Ear*>(context);
    std::lock_guard<std::mutex> guard(ear->owner->lock);
    if (!ear->registered) {
        ear->registered = true;
        ++ear->owner->registered;
    }
    ear->owner->changed.notify_all();
}

// A registration the daemon could not route yet: the publisher is not known; tried again.
void onUnrouted(void*, unsigned, int)
{
}

bool Listener::registerAll(std::chrono::seconds limit)
{
    const std::string publisher = publisherName(options);
    const Clock::time_point deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        for (auto& ear : ears) {
            bool pending = false;
            {
                std::lock_guard<std::mutex> guard(lock);
                pending = !ear->registered;
            }
            if (pending)
                UlmarCommsPostMessage(ear->pump,
                                      UlmarCommsCreateEventRegistrationMessage(ear->pump, kMethodTick,
                                                                               publisher.c_str(), kEventName, true));
        }
        if (waitFor(
                lock, changed, [&] { return registered == ears.size(); }, std::chrono::seconds(1)))
            return true;
    }
    return false;
}

// Prints line on stdout at once.
void say(const char* line)
{
    std::printf("%s\n", line);
    std::fflush(stdout);
}

// Posts event number sequence, again while the library refuses it; the
// refusals, or -1 when it never took it within a minute.
long publish(void* pump, uint64_t sequence)
{
    const Clock::time_point giveUp = Clock::now() + std::chrono::seconds(60);
    long refused = 0;
    while (Clock::now() < giveUp) {
        void* event = UlmarCommsCreateEventMessage(pump, kEventName);
        if (event == nullptr)
            return -1;
        UlmarCommsMessageAddKeyValue(event, "seq", std::to_string(sequence).c_str());
        if (UlmarCommsPostMessage(pump, event) == ULMARCOMMS_OK)
            return refused;
        ++refused;
        // The queue to the daemon is full: let it drain rather than spin.
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return -1;
}

// The listeners' reports combined with the publisher's into figures.
void addFanoutFigures(const Options& options, const Figures& publisher, const std::vector<Figures>& listeners,
                      Figures& figures)
{
    const double ears = double(options.fanoutApps) * options.fanoutListeners;
    double firstAll = 0;
    double last = 0;
    double heard = 0;
    bool inOrder = true;
    for (const Figures& listener : listeners) {
        firstAll = std::max(firstAll, listener.at("first_all_s"));
        last = std::max(last, listener.at("last_s"));
        heard += listener.at("heard");
        inOrder = inOrder && listener.at("in_order") != 0;
    }
    figures["fanout_listeners"] = ears;
    figures["fanout_first_event_all_us"] = (firstAll - publisher.at("first_s")) * 1e6;
    figures["fanout_deliveries_per_s"] = (options.fanoutEvents - 1) * ears / (last - publisher.at("burst_s"));
    figures["fanout_lost"] = ears * options.fanoutEvents - heard;
    figures["fanout_in_order"] = inOrder ? 1 : 0;
    figures["fanout_publish_refused"] = publisher.at("refused");
}

} // namespace

bool runFanout(const Options& options, Figures& figures)
{
    const std::string self = selfPath();
    Child publisher = spawn(self, childArguments(options, "fanout-publisher"), true);
    std::vector<Child> listeners;
    bool ok = awaitLine(publisher, "READY", std::chrono::seconds(30));
    for (unsigned i = 0; ok && i < options.fanoutApps; ++i) {
        Options app = options;
        app.appIndex = i;
        listeners.push_back(spawn(self, childArguments(app, "fanout-listener"), true));
    }
    ok = ok && awaitAll(listeners, "READY", std::chrono::seconds(300), "fan-out listener");
    if (ok) {
        signalGo({publisher});
        ok = awaitAll(listeners, "FIRST", std::chrono::seconds(60), "fan-out listener (first event)");
    }
    if (ok)
        signalGo({publisher});
    std::vector<Figures> reports;
    for (Child& listener : listeners) {
        Figures report;
        if (finish(listener, ok ? kListenLimit + std::chrono::seconds(30) : std::chrono::seconds(5)) == 0 &&
            parseResult(listener.collected, report))
            reports.push_back(report);
    }
    signalGo({publisher});
    Figures published;
    const bool publisherOk =
        finish(publisher, std::chrono::seconds(30)) == 0 && parseResult(publisher.collected, published);
    if (!ok || !publisherOk || reports.size() != listeners.size()) {
        std::fprintf(stderr, "ulmarcomms-bench: the fan-out did not complete\n");
        return false;
    }
    addFanoutFigures(options, published, reports, figures);
    return true;
}

int runFanoutPublisher(const Options& options)
{
    blockGoSignal();
    if (!startLibrary(options.pipe))
        return 1;
    void* pump =
        UlmarCommsCreateMessagePump(publisherName(options).c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
    Figures figures;
    bool ok = pump != nullptr && UlmarCommsMessagePumpCreateEvent(pump, kEventName) == ULMARCOMMS_OK;
    if (ok)
        say("READY");
    long refused = 0;
    if (ok && (ok = awaitGo(std::chrono::seconds(600)))) {
        figures["first_s"] = clockSeconds(Clock::now());
        ok = publish(pump, 1) >= 0;
    }
    if (ok && (ok = awaitGo(std::chrono::seconds(120)))) {
        figures["burst_s"] = clockSeconds(Clock::now());
        for (uint64_t sequence = 2; ok && sequence <= options.fanoutEvents; ++sequence) {
            const long more = publish(pump, sequence);
            ok = more >= 0;
            refused += std::max(more, 0L);
        }
    }
    figures["refused"] = double(refused);
    // Stays until the coordinator has heard from every listener.
    awaitGo(kListenLimit + std::chrono::seconds(60));
    if (pump != nullptr)
        UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    if (!ok)
        return 1;
    printResult(figures);
    return 0;
}

int runFanoutListener(const Options& options)
{
    if (!startLibrary(options.pipe))
        return 1;
    Listener listener;
    listener.options = options;
    const std::string prefix = "ulmarbench" + options.tag + "/l" + std::to_string(options.appIndex) + "/";
    for (unsigned i = 0; i < options.fanoutListeners; ++i) {
        auto ear = std::make_unique<Ear>();
        ear->owner = &listener;
        ear->pump = UlmarCommsCreateMessagePump((prefix + std::to_string(i)).c_str(), ear.get(), &onTick, &onRegistered,
                                                &onUnrouted, nullptr);
        if (ear->pump == nullptr) {
            UlmarCommsShutdown();
            return 1;
        }
        listener.ears.push_back(std::move(ear));
    }
    bool ok = listener.registerAll(std::chrono::seconds(120));
    if (ok)
        say("READY");
    const unsigned ears = options.fanoutListeners;
    ok = ok &&
        waitFor(
             listener.lock, listener.changed, [&] { return listener.firstHeard == ears; }, std::chrono::seconds(600));
    if (ok)
        say("FIRST");
    // What has not arrived by the deadline is reported as lost.
    if (ok)
        waitFor(
            listener.lock, listener.changed, [&] { return listener.done == ears; }, kListenLimit);
    Figures figures;
    {
        std::lock_guard<std::mutex> guard(listener.lock);
        uint64_t heard = 0;
        for (const auto& ear : listener.ears)
            heard += ear->heard;
        figures["heard"] = double(heard);
        figures["in_order"] = listener.inOrder ? 1 : 0;
        figures["first_all_s"] = clockSeconds(listener.firstAll);
        figures["last_s"] = clockSeconds(listener.last);
    }
    for (const auto& ear : listener.ears)
        UlmarCommsDestroyMessagePump(ear->pump);
    UlmarCommsShutdown();
    if (!ok)
        return 1;
    printResult(figures);
    return 0;
}

} // namespace UlmarCommsBench
