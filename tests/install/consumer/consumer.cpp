// The installed C++ layer's first user: starts on the bus named by argv[1],
// creates a pump with an interface and checks, through the system endpoint,
// that the daemon's routing table lists it with that interface.
#include <ulmarcomms.hpp>

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <string>

int main(int argc, char** argv)
{
    auto runtime = ulmarcomms::Runtime::start(argc > 1 ? argv[1] : "");
    if (!runtime) {
        std::cerr << "consumer_cpp: " << runtime.error().message() << "\n";
        return 1;
    }

    std::mutex lock;
    std::condition_variable done;
    std::string table;
    int error = 0;
    ulmarcomms::Handlers handlers;
    handlers.onResponse = [&](unsigned, ulmarcomms::MessageView reply) {
        std::lock_guard<std::mutex> guard(lock);
        table = std::string(reply.response().value_or("(none)"));
        done.notify_all();
    };
    handlers.onError = [&](unsigned, int code) {
        std::lock_guard<std::mutex> guard(lock);
        error = code;
        done.notify_all();
    };
    auto pump = ulmarcomms::Pump::create("consumer-cpp-" + std::to_string(getpid()), std::move(handlers),
                                         "consumer.check");
    if (!pump) {
        std::cerr << "consumer_cpp: " << pump.error().message() << "\n";
        return 1;
    }
    if (auto sent = pump->post(pump->createMessage("/system", "ViewSystemRouterRoutingTable")); !sent.ok()) {
        std::cerr << "consumer_cpp: " << sent.message() << "\n";
        return 1;
    }

    std::unique_lock<std::mutex> guard(lock);
    done.wait_for(guard, std::chrono::seconds(10), [&] { return !table.empty() || error != 0; });
    const std::string row = std::string(pump->address()) + ",consumer.check\n";
    if (table.find(row) == std::string::npos) {
        std::cerr << "consumer_cpp: error " << error << ", no row '" << row << "' in:\n" << table << "\n";
        return 1;
    }
    std::cout << table;
    return 0;
}
