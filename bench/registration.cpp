// ulmarcomms-registration-bench: what registering many pumps from one
// application costs, end to end.
//
// Joins the bus of the given pipe name (a daemon must serve it, with its
// pumps-per-link bound raised to at least N), creates N pumps (the last one
// with an interface of its own), and asks the local system endpoint which
// addresses support that interface until the answer names the last pump.
// Frames of one link are handled in order, so that answer comes once the
// service has taken every registration. Then it destroys the pumps. Prints
// one RESULT line; figures, not checks: it exits 0 unless something could
// not be started. Public C interface only.
//
//   ulmarcomms-registration-bench PIPE [N]
#include "ulmarcomms.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// The answer to the last query (router worker writes, main thread reads).
std::mutex g_lock;
std::string g_answer;
std::atomic<int> g_answered{0};

void onMessage(void*, void*, const char*, const char*)
{
}

void onResponse(void*, unsigned, void* message)
{
    const char* response = UlmarCommsGetResponse(message);
    std::lock_guard<std::mutex> guard(g_lock);
    g_answer = response != nullptr ? response : "";
    g_answered = 1;
}

void onError(void*, unsigned, int)
{
    g_answered = 2;
}

// Asks which addresses support interface; true when the answer names
// address before the deadline.
bool listed(void* asker, const char* interface, const std::string& address, Clock::time_point deadline)
{
    while (Clock::now() < deadline) {
        g_answered = 0;
        void* query = UlmarCommsCreateSystemGetAddressesSupportingInterfacesMessage(asker, "", interface);
        if (query == nullptr || UlmarCommsPostMessage(asker, query) != 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10)); // no link yet
            continue;
        }
        while (g_answered == 0 && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        std::lock_guard<std::mutex> guard(g_lock);
        if (g_answered == 1 && g_answer.find(address) != std::string::npos)
            return true;
    }
    return false;
}

double milliseconds(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3 || std::string(argv[1]) == "--help") {
        std::fprintf(argc < 2 ? stderr : stdout, "Usage: ulmarcomms-registration-bench PIPE [N]\n");
        return argc < 2 ? 2 : 0;
    }
    const int count = argc > 2 ? std::atoi(argv[2]) : 50000;
    if (count < 1) {
        std::fprintf(stderr, "ulmarcomms-registration-bench: N must be a positive number\n");
        return 2;
    }
    const std::string start = std::string("ulmar.systemrouter.pipe.name=") + argv[1];
    if (UlmarCommsStart(start.c_str()) != 0) {
        std::fprintf(stderr, "ulmarcomms-registration-bench: the library did not start\n");
        return 1;
    }
    void* asker =
        UlmarCommsCreateMessagePump("regbench.asker", nullptr, onMessage, onResponse, onError, "regbench.asker");
    // The link is up once the service lists the asker itself.
    if (asker == nullptr ||
        !listed(asker, "regbench.asker", "regbench.asker", Clock::now() + std::chrono::seconds(10))) {
        std::fprintf(stderr, "ulmarcomms-registration-bench: no service answers on pipe '%s'\n", argv[1]);
        UlmarCommsShutdown();
        return 1;
    }

    std::vector<void*> pumps;
    pumps.reserve(static_cast<size_t>(count));
    const std::string last = "regbench.p" + std::to_string(count - 1);
    const Clock::time_point begin = Clock::now();
    for (int i = 0; i < count; ++i) {
        const std::string name = "regbench.p" + std::to_string(i);
        pumps.push_back(UlmarCommsCreateMessagePump(name.c_str(), nullptr, onMessage, onResponse, onError,
                                                    i == count - 1 ? "regbench.last" : nullptr));
    }
    const Clock::time_point created = Clock::now();
    const bool seen = listed(asker, "regbench.last", last, created + std::chrono::seconds(120));
    const Clock::time_point registered = Clock::now();
    for (void* pump : pumps)
        UlmarCommsDestroyMessagePump(pump);
    const Clock::time_point destroyed = Clock::now();

    char registeredText[32] = "never";
    if (seen)
        std::snprintf(registeredText, sizeof(registeredText), "%.0f", milliseconds(begin, registered));
    std::printf("RESULT pumps=%d created_ms=%.0f registered_ms=%s destroyed_ms=%.0f\n", count,
                milliseconds(begin, created), registeredText, milliseconds(registered, destroyed));
    UlmarCommsDestroyMessagePump(asker);
    UlmarCommsShutdown();
    return seen ? 0 : 1;
}
