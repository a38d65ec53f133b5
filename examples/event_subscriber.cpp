// event_subscriber - listens to the "temperature" event of a publisher.
// Written with the C++17 layer ulmarcomms.hpp.
//
//   event_subscriber [-s START_ARGUMENT] [-p PUBLISHER] [-c COUNT] [-w SECONDS]
//
// Registers with PUBLISHER (default "weather") for its event "temperature",
// prints COUNT events (default 3), unregisters and exits 0. Exit 1 when the
// publisher refuses or cannot be reached, 3 when the events stop coming for
// SECONDS (default 10).
//
// Events arrive as ordinary requests whose method is the return method we
// chose ("OnTemperature"), on the library's router thread; main waits on a
// condition variable.
#include <ulmarcomms.hpp>

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>

namespace {

// What the callbacks tell main.
struct Progress {
    std::mutex lock;
    std::condition_variable changed;
    int events = 0;
    std::string registration; // the reply to "#reg": "y" or "n"
    int error = 0; // an error reply's code
};

} // namespace

int main(int argc, char** argv)
{
    std::string start;
    std::string publisher = "weather";
    int count = 3;
    int seconds = 10;
    for (int opt; (opt = getopt(argc, argv, "s:p:c:w:")) != -1;) {
        switch (opt) {
        case 's': start = optarg; break;
        case 'p': publisher = optarg; break;
        case 'c': count = std::atoi(optarg); break;
        case 'w': seconds = std::atoi(optarg); break;
        default:
            std::cerr << "usage: " << argv[0] << " [-s START_ARGUMENT] [-p PUBLISHER] [-c COUNT] [-w SECONDS]\n";
            return 2;
        }
    }

    ulmarcomms::setLogger([](int, std::string_view line) { std::cerr << line; });
    auto runtime = ulmarcomms::Runtime::start(start);
    if (!runtime) {
        std::cerr << "event_subscriber: start failed: " << runtime.error().message() << "\n";
        return 1;
    }

    Progress progress;
    ulmarcomms::Handlers handlers;
    handlers.onRequest = [&](ulmarcomms::MessageView event, std::string_view, std::string_view method) {
        if (method != "OnTemperature")
            return;
        std::lock_guard<std::mutex> guard(progress.lock);
        ++progress.events;
        std::cout << "event " << event.valueOr("sample", "?") << " from " << event.from() << ": "
                  << event.valueOr("celsius", "?") << " C" << std::endl;
        progress.changed.notify_all();
    };
    handlers.onResponse = [&](unsigned, ulmarcomms::MessageView reply) {
        std::lock_guard<std::mutex> guard(progress.lock);
        progress.registration = std::string(reply.response().value_or(""));
        progress.changed.notify_all();
    };
    handlers.onError = [&](unsigned, int code) {
        std::lock_guard<std::mutex> guard(progress.lock);
        progress.error = code;
        progress.changed.notify_all();
    };

    // One pump per process: names are unique on a host.
    auto pump = ulmarcomms::Pump::create("weather-listener-" + std::to_string(getpid()), std::move(handlers));
    if (!pump) {
        std::cerr << "event_subscriber: no pump: " << pump.error().message() << "\n";
        return 1;
    }

    auto registration = pump->createEventRegistrationMessage("OnTemperature", publisher, "temperature", true);
    if (auto sent = pump->post(std::move(registration)); !sent.ok()) {
        std::cerr << "event_subscriber: registration not sent: " << sent.message() << "\n";
        return 1;
    }

    int status = 0;
    {
        std::unique_lock<std::mutex> guard(progress.lock);
        const auto patience = std::chrono::seconds(seconds);
        progress.changed.wait_for(guard, patience,
                                  [&] { return !progress.registration.empty() || progress.error != 0; });
        if (progress.registration != "y") {
            std::cerr << "event_subscriber: " << publisher << " did not accept the registration ("
                      << (progress.error ? ulmarcomms::Error::describe(progress.error) : progress.registration.c_str())
                      << ")\n";
            status = 1;
        } else {
            int seen = progress.events;
            // Wait as long as events keep coming, up to COUNT of them.
            while (progress.events < count &&
                   progress.changed.wait_for(guard, patience, [&] { return progress.events != seen; }))
                seen = progress.events;
            if (progress.events < count) {
                std::cerr << "event_subscriber: events stopped after " << progress.events << "\n";
                status = 3;
            }
        }
    }

    // Unregister and wait for the answer, so that the request has left this
    // process before the runtime shuts the link down.
    if (status == 0) {
        std::unique_lock<std::mutex> guard(progress.lock);
        progress.registration.clear();
        guard.unlock();
        pump->post(pump->createEventRegistrationMessage("OnTemperature", publisher, "temperature", false));
        guard.lock();
        progress.changed.wait_for(guard, std::chrono::seconds(seconds), [&] { return !progress.registration.empty(); });
        if (progress.registration != "y")
            std::cerr << "event_subscriber: unregistration not confirmed\n";
    }
    // The pump is destroyed before the runtime: C++ destroys in reverse order.
    return status;
}
