// ulmarcomms_nettest: the multi-host tests' application, built on the public
// C interface only, as any application would be. Each mode prints one result
// line per outcome on stdout, so the tests read outcomes, not logs; every
// wait ends at a deadline (10 s).
//
//   serve   PIPE PUMP [EVENT]        answers every request "echo:<method>:<host>"
//                                    (method "fire" posts EVENT first); prints
//                                    "READY <addr>", then "REQUEST <rid>" for
//                                    each request with an "rid" key, and runs
//                                    until stdin closes.
//   call    PIPE TO METHOD [K=V]...  one request: "RESPONSE <text>" (exit 0),
//                                    "ERROR <code>" (2) or "TIMEOUT" (3).
//   listen  PIPE TO EVENT COUNT      registers for EVENT at TO: "REGISTERED",
//                                    then "EVENT <from>" for each of COUNT
//                                    events (exit 0), else TIMEOUT.
//   calls   PIPE TO N MS PREFIX     N requests "count" in a row, each with
//                                    rid=PREFIX-<i>, each awaiting its own
//                                    reply for MS: "CALLS <answered> <timed
//                                    out> <errors>" (exit 0); a reply to an
//                                    earlier request is not taken for a later.
//   watch   PIPE TO MS               asks TO for SystemInfo every MS until
//                                    stdin closes: "ALIVE" per answer within
//                                    one second.
//   fanout  PIPE ROUNDS ANSWERS      asks the system endpoint ROUNDS times in a
//                                    row which hosts support an interface, each
//                                    time awaiting ANSWERS replies: "FANOUT <n>"
//                                    (exit 0 when all were answered), and on a
//                                    round that falls short "SHORT <round> <got>".
//   capture ADDRESS PORT SOURCE MS   no library: waits for one UDP datagram from
//                                    SOURCE on ADDRESS:PORT: "DATAGRAM <hex>"
//                                    (exit 0) or TIMEOUT.
//   send    ADDRESS PORT HEX         no library: one UDP datagram (broadcast
//                                    allowed); prints "SENT".
//   hello   SOURCE ADDRESS PORT NAME no library: a network link from SOURCE
//                                    that names itself NAME (command 100):
//                                    "ANSWERED <name>" when command 101 comes
//                                    back (exit 0), "CLOSED" when the link ends
//                                    first (4), or TIMEOUT.
#include "ulmarcomms.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr auto Deadline = std::chrono::seconds(10);

void say(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

std::string text(const char* value)
{
    return value != nullptr ? value : "";
}

// What the callbacks hand to the waiting main thread.
struct Inbox {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<std::string> lines;
    std::string event;
    // The answers by the id of the request they answer.
    std::map<unsigned, std::string> byId;
    // Stored once the pump is created; a request can be delivered (on the
    // router worker) before that store, so it is atomic and awaited.
    std::atomic<void*> pump{nullptr};

    void put(const std::string& line)
    {
        std::lock_guard<std::mutex> guard(lock);
        lines.push_back(line);
        changed.notify_all();
    }
    // Waits until count lines have arrived; false on time-out.
    bool waitFor(size_t count)
    {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, Deadline, [&] { return lines.size() >= count; });
    }
    // Waits up to timeout for the answer to request id; empty on time-out.
    std::string waitForId(unsigned id, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> guard(lock);
        if (!changed.wait_for(guard, timeout, [&] { return byId.count(id) != 0; }))
            return std::string();
        return byId[id];
    }
    std::string first()
    {
        std::lock_guard<std::mutex> guard(lock);
        return lines.empty() ? std::string() : lines.front();
    }
};

void onServeMessage(void* context, void* message, const char*, const char* method)
{
    Inbox* inbox = static_cast<Inbox*>(context);
    void* pump = inbox->pump.load();
    while (pump == nullptr) {
        std::this_thread::yield();
        pump = inbox->pump.load();
    }
    const std::string name = text(method);
    if (const char* rid = UlmarCommsMessageValue(message, "rid"); rid != nullptr)
        say(std::string("REQUEST ") + rid);
    if (name == "fire" && !inbox->event.empty()) {
        void* event = UlmarCommsCreateEventMessage(pump, inbox->event.c_str());
        if (event != nullptr)
            UlmarCommsPostMessage(pump, event);
    }
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    void* reply = UlmarCommsCreateReplyMessage(pump, message, ("echo:" + name + ":" + host).c_str());
    if (reply != nullptr)
        UlmarCommsPostMessage(pump, reply);
}

void onListenMessage(void* context, void* message, const char*, const char* method)
{
    if (text(method) == "onEvent")
        static_cast<Inbox*>(context)->put("EVENT " + text(UlmarCommsGetFrom(message)));
}

void answered(Inbox* inbox, unsigned int id, const std::string& line)
{
    {
        std::lock_guard<std::mutex> guard(inbox->lock);
        inbox->byId[id] = line;
    }
    inbox->put(line);
}

void onResponse(void* context, unsigned int id, void* message)
{
    answered(static_cast<Inbox*>(context), id, "RESPONSE " + text(UlmarCommsGetResponse(message)));
}

void onError(void* context, unsigned int id, int code)
{
    answered(static_cast<Inbox*>(context), id, "ERROR " + std::to_string(code));
}

void ignoreMessage(void*, void*, const char*, const char*)
{
}

// The library started on PIPE with one pump (answers: with the response and
// error callbacks); the pump is destroyed and the library shut down at the end.
struct Session {
    Inbox inbox;
    void* pump = nullptr;
    bool started = false;

    Session(const char* pipe, const std::string& name, UlmarCommsMessageCallback onMessage, bool answers,
            const char* event = nullptr)
    {
        const int result = UlmarCommsStart((std::string("ulmar.systemrouter.pipe.name=") + pipe).c_str());
        if (result != ULMARCOMMS_OK) {
            say("START-FAILED " + std::to_string(result));
            return;
        }
        started = true;
        if (event != nullptr)
            inbox.event = event;
        pump = UlmarCommsCreateMessagePump(name.c_str(), &inbox, onMessage, answers ? onResponse : nullptr,
                                           answers ? onError : nullptr, nullptr);
        inbox.pump = pump;
    }
    ~Session()
    {
        if (pump != nullptr)
            UlmarCommsDestroyMessagePump(pump);
        if (started)
            UlmarCommsShutdown();
    }
};

int serve(const char* pipe, const char* name, const char* event)
{
    Session session(pipe, name, onServeMessage, false, event);
    if (session.pump == nullptr)
        return 1;
    if (event != nullptr)
        UlmarCommsMessagePumpCreateEvent(session.pump, event);
    say("READY " + text(UlmarCommsMessagePumpAddress(session.pump)));
    // Runs until the test closes our stdin.
    char scratch[64];
    while (read(0, scratch, sizeof(scratch)) > 0) {}
    return 0;
}

int call(const char* pipe, const char* to, const char* method, int argc, char** argv)
{
    Session session(pipe, "caller" + std::to_string(getpid()), ignoreMessage, true);
    void* message = session.pump != nullptr ? UlmarCommsCreateMessage(session.pump, to, method) : nullptr;
    if (message == nullptr)
        return 1;
    for (int i = 0; i < argc; ++i) {
        const std::string pair = argv[i];
        const size_t equals = pair.find('=');
        if (equals != std::string::npos)
            UlmarCommsMessageAddKeyValue(message, pair.substr(0, equals).c_str(), pair.substr(equals + 1).c_str());
    }
    if (const int posted = UlmarCommsPostMessage(session.pump, message); posted != ULMARCOMMS_OK) {
        say("POST-FAILED " + std::to_string(posted));
        return 1;
    }
    if (!session.inbox.waitFor(1)) {
        say("TIMEOUT");
        return 3;
    }
    const std::string first = session.inbox.first();
    say(first);
    return first.rfind("RESPONSE", 0) == 0 ? 0 : 2;
}

int listen(const char* pipe, const char* to, const char* event, int count)
{
    // The registration's answer comes first (response callback), then one
    // line per event.
    Session session(pipe, "listener", onListenMessage, true);
    void* message = session.pump != nullptr
        ? UlmarCommsCreateEventRegistrationMessage(session.pump, "onEvent", to, event, true)
        : nullptr;
    if (message == nullptr || UlmarCommsPostMessage(session.pump, message) != ULMARCOMMS_OK)
        return 1;
    if (!session.inbox.waitFor(1)) {
        say("TIMEOUT");
        return 3;
    }
    if (const std::string first = session.inbox.first(); first != "RESPONSE y") {
        say(first);
        return 2;
    }
    say("REGISTERED");
    const bool all = session.inbox.waitFor(static_cast<size_t>(count) + 1);
    std::lock_guard<std::mutex> guard(session.inbox.lock);
    for (size_t i = 1; i < session.inbox.lines.size(); ++i)
        say(session.inbox.lines[i]);
    if (all)
        return 0;
    say("TIMEOUT");
    return 3;
}

// Posts a request (with rid when given) and waits for its own answer:
// "RESPONSE ...", "ERROR ..." or empty on time-out ("POST-FAILED" when the
// library refused it).
std::string ask(Session& session, const char* to, const char* method, const std::string& rid,
                std::chrono::milliseconds timeout)
{
    void* message = UlmarCommsCreateMessage(session.pump, to, method);
    if (message == nullptr)
        return "POST-FAILED";
    if (!rid.empty())
        UlmarCommsMessageAddKeyValue(message, "rid", rid.c_str());
    const unsigned id = static_cast<unsigned>(UlmarCommsMessageId(session.pump, message));
    if (UlmarCommsPostMessage(session.pump, message) != ULMARCOMMS_OK) {
        UlmarCommsDestroyMessage(message);
        return "POST-FAILED";
    }
    return session.inbox.waitForId(id, timeout);
}

int calls(const char* pipe, const char* to, int count, int ms, const std::string& prefix)
{
    Session session(pipe, "calls" + std::to_string(getpid()), ignoreMessage, true);
    if (session.pump == nullptr)
        return 1;
    int answers = 0;
    int timeouts = 0;
    int errors = 0;
    for (int i = 0; i < count; ++i) {
        const std::string answer =
            ask(session, to, "count", prefix + "-" + std::to_string(i), std::chrono::milliseconds(ms));
        if (answer.rfind("RESPONSE echo:count:", 0) == 0)
            ++answers;
        else if (answer.empty())
            ++timeouts;
        else
            ++errors;
    }
    say("CALLS " + std::to_string(answers) + " " + std::to_string(timeouts) + " " + std::to_string(errors));
    return 0;
}

int watch(const char* pipe, const char* to, int ms)
{
    Session session(pipe, "watch" + std::to_string(getpid()), ignoreMessage, true);
    if (session.pump == nullptr)
        return 1;
    while (true) {
        const auto next = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        if (ask(session, to, "SystemInfo", "", std::chrono::seconds(1)).rfind("RESPONSE", 0) == 0)
            say("ALIVE");
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(next - std::chrono::steady_clock::now());
        pollfd input{0, POLLIN, 0};
        if (poll(&input, 1, static_cast<int>(std::max<long long>(left.count(), 0))) > 0) {
            char scratch[64];
            if (read(0, scratch, sizeof(scratch)) <= 0)
                return 0;
        }
    }
}

int fanout(const char* pipe, int rounds, int answers)
{
    Session session(pipe, "fanout", ignoreMessage, true);
    if (session.pump == nullptr)
        return 1;
    int done = 0;
    for (; done < rounds; ++done) {
        void* query = UlmarCommsCreateListHostsSupportingInterfaces(session.pump, "demo.fanout", false);
        if (query == nullptr || UlmarCommsPostMessage(session.pump, query) != ULMARCOMMS_OK)
            break;
        const size_t wanted = static_cast<size_t>(answers) * static_cast<size_t>(done + 1);
        if (!session.inbox.waitFor(wanted)) {
            std::lock_guard<std::mutex> guard(session.inbox.lock);
            say("SHORT " + std::to_string(done) + " " + std::to_string(session.inbox.lines.size() - wanted + answers));
            break;
        }
    }
    say("FANOUT " + std::to_string(done));
    return done == rounds ? 0 : 3;
}

// A UDP socket allowed to broadcast, and ADDRESS:PORT in where.
int udpSocket(const char* address, const char* port, sockaddr_in& where)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
    where = sockaddr_in{};
    where.sin_family = AF_INET;
    where.sin_port = htons(static_cast<uint16_t>(std::atoi(port)));
    inet_pton(AF_INET, address, &where.sin_addr);
    return fd;
}

int capture(const char* address, const char* port, const char* source, int ms)
{
    sockaddr_in local;
    const int fd = udpSocket(address, port, local);
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
    sockaddr_in to;
    const int fd = udpSocket(address, port, to);
    const ssize_t sent = sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
    close(fd);
    if (sent != static_cast<ssize_t>(bytes.size())) {
        say("SEND-FAILED");
        return 1;
    }
    say("SENT");
    return 0;
}

void put32(std::string& bytes, uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>((value >> shift) & 0xFF);
}

// Reads n bytes before the deadline: 1 done, 0 the link ended, -1 time-out.
int readSome(int fd, unsigned char* into, size_t n, std::chrono::steady_clock::time_point until)
{
    size_t done = 0;
    while (done < n) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
        pollfd ready{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0)
            return -1;
        const ssize_t got = recv(fd, into + done, n - done, 0);
        if (got <= 0)
            return 0;
        done += static_cast<size_t>(got);
    }
    return 1;
}

int hello(const char* source, const char* address, const char* port, const std::string& name)
{
    sockaddr_in from{};
    sockaddr_in to{};
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    from.sin_family = AF_INET;
    inet_pton(AF_INET, source, &from.sin_addr);
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(std::atoi(port)));
    inet_pton(AF_INET, address, &to.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof(from)) != 0 ||
        connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof(to)) != 0) {
        say("CONNECT-FAILED");
        close(fd);
        return 1;
    }
    // A command frame: type 2, payload size, id 1; the payload is the code,
    // the text's length with its NUL, and the text.
    std::string frame(1, '\x02');
    put32(frame, static_cast<uint32_t>(5 + name.size() + 1));
    put32(frame, 1);
    frame += static_cast<char>(100);
    put32(frame, static_cast<uint32_t>(name.size() + 1));
    frame += name;
    frame += '\0';
    // A link already refused may not take it; the reply shows what happened.
    send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
    const auto until = std::chrono::steady_clock::now() + Deadline;
    unsigned char header[9];
    int got = readSome(fd, header, sizeof(header), until);
    std::vector<unsigned char> payload;
    if (got == 1) {
        const uint32_t size = (uint32_t(header[1]) << 24) | (uint32_t(header[2]) << 16) | (uint32_t(header[3]) << 8) |
            uint32_t(header[4]);
        payload.resize(std::min<uint32_t>(size, 4096));
        got = readSome(fd, payload.data(), payload.size(), until);
    }
    close(fd);
    if (got == 0) {
        say("CLOSED");
        return 4;
    }
    if (got < 0) {
        say("TIMEOUT");
        return 3;
    }
    if (header[0] != 2 || payload.size() < 6 || payload[0] != 101) {
        say("UNEXPECTED");
        return 1;
    }
    const std::string text(payload.begin() + 5, payload.end());
    say("ANSWERED " + std::string(text.c_str()));
    return 0;
}

int usage()
{
    std::fputs("usage: ulmarcomms_nettest serve|call|calls|watch|listen|capture|send|fanout|hello ...\n", stderr);
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
    if (mode == "hello" && argc == 6)
        return hello(argv[2], argv[3], argv[4], argv[5]);
    if (mode == "calls" && argc == 7)
        return calls(argv[2], argv[3], std::atoi(argv[4]), std::atoi(argv[5]), argv[6]);
    if (mode == "watch" && argc == 5)
        return watch(argv[2], argv[3], std::atoi(argv[4]));
    if (mode == "fanout" && argc == 5)
        return fanout(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    return usage();
}
