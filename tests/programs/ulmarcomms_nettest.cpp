// ulmarcomms_nettest: a small application for the multi-host tests, built on
// the public C interface only, as any application would be. Each mode prints
// one result line per event on stdout, so the tests read outcomes, not logs.
//
//   serve   PIPE PUMP [EVENT]        a pump that answers every request with
//                                    "echo:<method>:<host>"; method "fire"
//                                    posts EVENT first. Prints "READY <addr>"
//                                    and runs until stdin closes.
//   call    PIPE TO METHOD [K=V]...  one request; prints "RESPONSE <text>"
//                                    (exit 0), "ERROR <code>" (exit 2) or
//                                    "TIMEOUT" (exit 3).
//   listen  PIPE TO EVENT COUNT      registers for EVENT at TO, prints
//                                    "REGISTERED", then "EVENT <from>" for
//                                    each of COUNT events (exit 0) or TIMEOUT.
//   capture ADDRESS PORT SOURCE MS   no library: waits for one UDP datagram
//                                    from SOURCE on ADDRESS:PORT and prints
//                                    "DATAGRAM <hex>" (exit 0) or TIMEOUT.
//   send    ADDRESS PORT HEX         no library: sends one UDP datagram
//                                    (broadcast allowed); prints "SENT".
//   fanout  PIPE ROUNDS ANSWERS      asks the system endpoint ROUNDS times in
//                                    a row which hosts support an interface,
//                                    each time waiting for ANSWERS replies;
//                                    prints "FANOUT <rounds done>" (exit 0
//                                    when all were answered) and, on a round
//                                    that falls short, "SHORT <round> <got>".
//
// Replies and timeouts are bounded: every wait has a deadline (10 s).
#include "ulmarcomms.h"

#include <arpa/inet.h>
#include <atomic>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr auto Deadline = std::chrono::seconds(10);

// What the callbacks hand to the waiting main thread.
struct Inbox {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<std::string> lines;
    std::string event;
    // Stored once the pump is created; a request can be delivered (on the
    // router worker) before that store, so it is atomic and awaited.
    std::atomic<void*> pump{nullptr};
};

void put(Inbox* inbox, const std::string& line)
{
    std::lock_guard<std::mutex> guard(inbox->lock);
    inbox->lines.push_back(line);
    inbox->changed.notify_all();
}

// Waits until count lines have arrived; false on time-out.
bool waitForLines(Inbox& inbox, size_t count)
{
    std::unique_lock<std::mutex> guard(inbox.lock);
    return inbox.changed.wait_for(guard, Deadline, [&] { return inbox.lines.size() >= count; });
}

// Line i under the lock ("" when there is none).
std::string lineAt(Inbox& inbox, size_t i)
{
    std::lock_guard<std::mutex> guard(inbox.lock);
    return i < inbox.lines.size() ? inbox.lines[i] : std::string();
}

std::string text(const char* value)
{
    return value != nullptr ? value : "";
}

void onServeMessage(void* context, void* message, const char*, const char* method)
{
    Inbox* inbox = static_cast<Inbox*>(context);
    void* pump = inbox->pump.load();
    while (pump == nullptr) {
        std::this_thread::yield();
        pump = inbox->pump.load();
    }
    const std::string name = text(method);
    if (name == "fire" && !inbox->event.empty()) {
        void* event = UlmarCommsCreateEventMessage(pump, inbox->event.c_str());
        if (event != nullptr)
            UlmarCommsPostMessage(pump, event);
    }
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    const std::string answer = "echo:" + name + ":" + host;
    void* reply = UlmarCommsCreateReplyMessage(pump, message, answer.c_str());
    if (reply != nullptr)
        UlmarCommsPostMessage(pump, reply);
}

void onListenMessage(void* context, void* message, const char*, const char* method)
{
    if (text(method) == "onEvent")
        put(static_cast<Inbox*>(context), "EVENT " + text(UlmarCommsGetFrom(message)));
}

void onResponse(void* context, unsigned int, void* message)
{
    put(static_cast<Inbox*>(context), "RESPONSE " + text(UlmarCommsGetResponse(message)));
}

void onError(void* context, unsigned int, int code)
{
    put(static_cast<Inbox*>(context), "ERROR " + std::to_string(code));
}

void ignoreMessage(void*, void*, const char*, const char*)
{
}

bool start(const char* pipe)
{
    const std::string argument = std::string("ulmar.systemrouter.pipe.name=") + pipe;
    const int result = UlmarCommsStart(argument.c_str());
    if (result != ULMARCOMMS_OK) {
        std::printf("START-FAILED %d\n", result);
        return false;
    }
    return true;
}

void say(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

int serve(const char* pipe, const char* name, const char* event)
{
    if (!start(pipe))
        return 1;
    Inbox inbox;
    if (event != nullptr)
        inbox.event = event;
    inbox.pump = UlmarCommsCreateMessagePump(name, &inbox, onServeMessage, nullptr, nullptr, nullptr);
    if (inbox.pump == nullptr) {
        UlmarCommsShutdown();
        return 1;
    }
    if (event != nullptr)
        UlmarCommsMessagePumpCreateEvent(inbox.pump, event);
    say("READY " + text(UlmarCommsMessagePumpAddress(inbox.pump)));
    // Runs until the test closes our stdin.
    char scratch[64];
    while (read(0, scratch, sizeof(scratch)) > 0) {}
    UlmarCommsDestroyMessagePump(inbox.pump);
    UlmarCommsShutdown();
    return 0;
}

int call(const char* pipe, const char* to, const char* method, int argc, char** argv)
{
    if (!start(pipe))
        return 1;
    Inbox inbox;
    const std::string name = "caller" + std::to_string(getpid());
    void* pump = UlmarCommsCreateMessagePump(name.c_str(), &inbox, ignoreMessage, onResponse, onError, nullptr);
    void* message = pump != nullptr ? UlmarCommsCreateMessage(pump, to, method) : nullptr;
    int status = 1;
    if (message != nullptr) {
        for (int i = 0; i < argc; ++i) {
            const std::string pair = argv[i];
            const size_t equals = pair.find('=');
            if (equals != std::string::npos)
                UlmarCommsMessageAddKeyValue(message, pair.substr(0, equals).c_str(), pair.substr(equals + 1).c_str());
        }
        const int posted = UlmarCommsPostMessage(pump, message);
        if (posted != ULMARCOMMS_OK) {
            say("POST-FAILED " + std::to_string(posted));
        } else if (!waitForLines(inbox, 1)) {
            say("TIMEOUT");
            status = 3;
        } else {
            const std::string first = lineAt(inbox, 0);
            say(first);
            status = first.rfind("RESPONSE", 0) == 0 ? 0 : 2;
        }
    }
    if (pump != nullptr)
        UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    return status;
}

int listen(const char* pipe, const char* to, const char* event, int count)
{
    if (!start(pipe))
        return 1;
    // The registration's answer and the events both land in this inbox: the
    // answer first (response callback), then one line per event.
    Inbox inbox;
    void* pump = UlmarCommsCreateMessagePump("listener", &inbox, onListenMessage, onResponse, onError, nullptr);
    void* message =
        pump != nullptr ? UlmarCommsCreateEventRegistrationMessage(pump, "onEvent", to, event, true) : nullptr;
    int status = 1;
    if (message != nullptr && UlmarCommsPostMessage(pump, message) == ULMARCOMMS_OK) {
        status = 3;
        if (!waitForLines(inbox, 1)) {
            say("TIMEOUT");
        } else if (std::string first = lineAt(inbox, 0); first != "RESPONSE y") {
            say(first);
            status = 2;
        } else {
            say("REGISTERED");
            const bool all = waitForLines(inbox, static_cast<size_t>(count) + 1);
            std::lock_guard<std::mutex> guard(inbox.lock);
            for (size_t i = 1; i < inbox.lines.size(); ++i)
                say(inbox.lines[i]);
            if (all)
                status = 0;
            else
                say("TIMEOUT");
        }
    }
    if (pump != nullptr)
        UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    return status;
}

int capture(const char* address, const char* port, const char* source, int ms)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<uint16_t>(std::atoi(port)));
    inet_pton(AF_INET, address, &local.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
        say("BIND-FAILED");
        close(fd);
        return 1;
    }
    say("LISTENING");
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < until) {
        pollfd ready{fd, POLLIN, 0};
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
        if (poll(&ready, 1, static_cast<int>(std::max<long long>(left.count(), 1))) <= 0)
            continue;
        unsigned char bytes[2048];
        sockaddr_in from{};
        socklen_t length = sizeof(from);
        const ssize_t got = recvfrom(fd, bytes, sizeof(bytes), 0, reinterpret_cast<sockaddr*>(&from), &length);
        char fromText[INET_ADDRSTRLEN] = {0};
        inet_ntop(AF_INET, &from.sin_addr, fromText, sizeof(fromText));
        if (got < 0 || std::strcmp(fromText, source) != 0)
            continue;
        std::string hex;
        char pair[3];
        for (ssize_t i = 0; i < got; ++i) {
            std::snprintf(pair, sizeof(pair), "%02x", bytes[i]);
            hex += pair;
        }
        say("DATAGRAM " + hex);
        close(fd);
        return 0;
    }
    say("TIMEOUT");
    close(fd);
    return 3;
}

int send(const char* address, const char* port, const std::string& hex)
{
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::strtoul(hex.substr(i, 2).c_str(), nullptr, 16));
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(std::atoi(port)));
    inet_pton(AF_INET, address, &to.sin_addr);
    const ssize_t sent = sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
    close(fd);
    if (sent != static_cast<ssize_t>(bytes.size())) {
        say("SEND-FAILED");
        return 1;
    }
    say("SENT");
    return 0;
}

int fanout(const char* pipe, int rounds, int answers)
{
    if (!start(pipe))
        return 1;
    Inbox inbox;
    void* pump = UlmarCommsCreateMessagePump("fanout", &inbox, ignoreMessage, onResponse, onError, nullptr);
    int done = 0;
    for (; pump != nullptr && done < rounds; ++done) {
        void* query = UlmarCommsCreateListHostsSupportingInterfaces(pump, "demo.fanout", false);
        if (query == nullptr || UlmarCommsPostMessage(pump, query) != ULMARCOMMS_OK)
            break;
        const size_t wanted = static_cast<size_t>(answers) * static_cast<size_t>(done + 1);
        if (!waitForLines(inbox, wanted)) {
            std::lock_guard<std::mutex> guard(inbox.lock);
            say("SHORT " + std::to_string(done) + " " + std::to_string(inbox.lines.size() - wanted + answers));
            break;
        }
    }
    say("FANOUT " + std::to_string(done));
    if (pump != nullptr)
        UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    return done == rounds ? 0 : 3;
}

int usage()
{
    std::fputs("usage: ulmarcomms_nettest serve|call|listen|capture|send|fanout ...\n", stderr);
    return 64;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return usage();
    const std::string mode = argv[1];
    if (mode == "serve" && (argc == 4 || argc == 5))
        return serve(argv[2], argv[3], argc == 5 ? argv[4] : nullptr);
    if (mode == "call" && argc >= 5)
        return call(argv[2], argv[3], argv[4], argc - 5, argv + 5);
    if (mode == "listen" && argc == 6)
        return listen(argv[2], argv[3], argv[4], std::atoi(argv[5]));
    if (mode == "capture" && argc == 6)
        return capture(argv[2], argv[3], argv[4], std::atoi(argv[5]));
    if (mode == "send" && argc == 5)
        return send(argv[2], argv[3], argv[4]);
    if (mode == "fanout" && argc == 5)
        return fanout(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    return usage();
}
