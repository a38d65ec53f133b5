// ulmarcomms-bench: measures the local bus between two processes against a
// minimal two-hop UNIX-socket relay on the same machine, in the same run.
//
// The program plays every part itself: run without --role it is the
// coordinator, which starts a private ulmarcommsd (or uses a running one with
// --pipe), then re-executes itself as a bus server and a bus client (separate
// processes, public C interface only), and as a relay, a relay server and a
// relay client (plain blocking sockets, one message per system call). Every
// child reports one "RESULT key=value ..." line on stdout; the coordinator
// prints the figures and our own as ratios to the relay's.
//
// The three measurements, identical on both roads:
//  - round trip: requests one at a time, the next sent as the reply arrives;
//    p50/p99/p99.9/max over --requests after --warmup;
//  - one-way: --messages requests without replies, numbered; the receiver
//    checks that every one arrived, in order; it acknowledges every quarter
//    window so a sender never runs more than a window ahead (the library's
//    per-link queues are bounded, and a real application paces too);
//  - pipelined: --requests requests with --window outstanding.
// The bus client sends from its pump's callbacks, which the library runs on
// the process router's worker thread, exactly as applications answer.
//
// --soak-apps N runs the memory test instead: N application processes with
// --soak-pumps pumps each exchange requests for --soak-seconds while the
// coordinator samples the daemon's resident memory.
#include <ulmarcomms.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <random>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

typedef std::chrono::steady_clock Clock;

// ------------------------------------------------------------------ options

struct Options {
    std::string role;            // empty: coordinator
    std::string pipe;            // the daemon's pipe name; empty: start our own
    std::string daemon;          // path of ulmarcommsd; empty: look for it
    std::string tag;             // names this run's pumps and relay sockets
    unsigned pairs = 2;          // application pairs besides the 4 header pairs
    unsigned valueSize = 16;     // bytes of each application value
    unsigned requests = 20000;   // round trips measured (and pipelined requests)
    unsigned warmup = 2000;      // round trips before measuring
    unsigned messages = 200000;  // one-way messages
    unsigned window = 64;        // pipelined requests outstanding
    unsigned runs = 1;           // repetitions; figures are medians
    unsigned frameBytes = 0;     // relay message size (internal)
    unsigned soakApps = 0;       // memory test: application processes
    unsigned soakPumps = 10;     // memory test: pumps per application
    unsigned soakSeconds = 60;   // memory test: duration
    unsigned soakIndex = 0;      // memory test: this application (internal)
    bool json = false;
    bool skipRelay = false;
};

const char kUsage[] =
    "Usage: ulmarcomms-bench [options]\n"
    "  --pipe NAME         use the ulmarcommsd already serving pipe NAME\n"
    "                      (default: start a private one)\n"
    "  --daemon PATH       the ulmarcommsd to start (default: beside this\n"
    "                      program, then ../tools/ulmarcommsd, then PATH)\n"
    "  --pairs N           application pairs per message (default 2, so 6 pairs)\n"
    "  --value-size N      bytes of each application value (default 16)\n"
    "  --requests N        round trips measured, and pipelined requests (20000)\n"
    "  --warmup N          round trips before measuring (2000)\n"
    "  --messages N        one-way messages (200000)\n"
    "  --window N          pipelined requests outstanding (64)\n"
    "  --runs N            repeat the measurements, report medians (1)\n"
    "  --no-relay          skip the relay measurements\n"
    "  --json              print the figures as one JSON object\n"
    "  --soak-apps N       memory test: N applications instead of the figures\n"
    "  --soak-pumps N      memory test: pumps per application (10)\n"
    "  --soak-seconds N    memory test: duration (60)\n";

bool parseUnsigned(const char* text, unsigned& out)
{
    if (text == nullptr || *text == '\0')
        return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (errno != 0 || *end != '\0' || value > UINT_MAX)
        return false;
    out = static_cast<unsigned>(value);
    return true;
}

bool parseOptions(int argc, char** argv, Options& options, std::string& error)
{
    std::map<std::string, unsigned*> numbers = {
        {"--pairs", &options.pairs},           {"--value-size", &options.valueSize},
        {"--requests", &options.requests},     {"--warmup", &options.warmup},
        {"--messages", &options.messages},     {"--window", &options.window},
        {"--runs", &options.runs},             {"--frame-bytes", &options.frameBytes},
        {"--soak-apps", &options.soakApps},    {"--soak-pumps", &options.soakPumps},
        {"--soak-seconds", &options.soakSeconds}, {"--soak-index", &options.soakIndex},
    };
    std::map<std::string, std::string*> texts = {
        {"--role", &options.role}, {"--pipe", &options.pipe}, {"--daemon", &options.daemon},
        {"--tag", &options.tag},
    };
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--json") {
            options.json = true;
            continue;
        }
        if (arg == "--no-relay") {
            options.skipRelay = true;
            continue;
        }
        if (arg == "--help" || arg == "-h") {
            error.clear();
            return false;
        }
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (numbers.count(arg) != 0) {
            if (!parseUnsigned(value, *numbers[arg])) {
                error = arg + " takes a number";
                return false;
            }
            ++i;
        } else if (texts.count(arg) != 0) {
            if (value == nullptr) {
                error = arg + " takes a value";
                return false;
            }
            *texts[arg] = value;
            ++i;
        } else {
            error = "unknown option " + arg;
            return false;
        }
    }
    if (options.pairs > 21) {
        error = "--pairs is at most 21 (a message holds 25 pairs, 4 are the header)";
        return false;
    }
    if (options.requests == 0 || options.messages == 0 || options.window == 0 || options.runs == 0
        || options.soakPumps == 0) {
        error = "--requests, --messages, --window, --runs and --soak-pumps must be above 0";
        return false;
    }
    return true;
}

// Writes the options a child needs back as arguments.
std::vector<std::string> childArguments(const Options& options, const std::string& role)
{
    return {"--role",       role,
            "--pipe",       options.pipe,
            "--tag",        options.tag,
            "--pairs",      std::to_string(options.pairs),
            "--value-size", std::to_string(options.valueSize),
            "--requests",   std::to_string(options.requests),
            "--warmup",     std::to_string(options.warmup),
            "--messages",   std::to_string(options.messages),
            "--window",     std::to_string(options.window),
            "--frame-bytes", std::to_string(options.frameBytes),
            "--soak-pumps", std::to_string(options.soakPumps),
            "--soak-seconds", std::to_string(options.soakSeconds),
            "--soak-apps",  std::to_string(options.soakApps)};
}

// ------------------------------------------------------------ shared pieces

typedef std::map<std::string, double> Figures;

// One line the coordinator reads: "RESULT key=value key=value ...".
void printResult(const Figures& figures)
{
    std::string line = "RESULT";
    char number[64];
    for (const auto& [key, value] : figures) {
        std::snprintf(number, sizeof(number), "%.6g", value);
        line += " " + key + "=" + number;
    }
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

bool parseResult(const std::string& output, Figures& figures)
{
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("RESULT", 0) != 0)
            continue;
        std::istringstream words(line.substr(6));
        std::string word;
        while (words >> word) {
            const size_t equals = word.find('=');
            if (equals != std::string::npos)
                figures[word.substr(0, equals)] = std::strtod(word.c_str() + equals + 1, nullptr);
        }
        return true;
    }
    return false;
}

double microseconds(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

// Percentiles of round-trip times in microseconds (nearest rank).
void addLatencyFigures(std::vector<double>& samples, Figures& figures)
{
    std::sort(samples.begin(), samples.end());
    auto at = [&](double q) {
        size_t rank = static_cast<size_t>(q * double(samples.size()));
        return samples[std::min(rank, samples.size() - 1)];
    };
    figures["rtt_p50_us"] = at(0.50);
    figures["rtt_p99_us"] = at(0.99);
    figures["rtt_p999_us"] = at(0.999);
    figures["rtt_max_us"] = samples.back();
}

// The window of one-way messages a sender may run ahead: about 8 MiB of
// frames, far below a link's bound. Both ends derive it from the options.
unsigned oneWayWindow(const Options& options)
{
    const unsigned estimatedFrame = 100 + options.pairs * (options.valueSize + 9);
    return std::clamp(8u * 1024u * 1024u / estimatedFrame, 1024u, 65536u);
}

// How often a receiver acknowledges one-way messages.
unsigned ackEvery(const Options& options)
{
    return oneWayWindow(options) / 4;
}

void stderrLogger(int level, const char* format, char* args)
{
    char text[1024];
    std::vsnprintf(text, sizeof(text), format, *reinterpret_cast<va_list*>(args));
    std::fprintf(stderr, "ulmarcomms-bench[%d] level %d: %s", static_cast<int>(getpid()), level, text);
}

// Waits on a predicate with a deadline; false when it passed.
template <typename Predicate>
bool waitFor(std::mutex& lock, std::condition_variable& cv, Predicate ready, std::chrono::seconds limit)
{
    std::unique_lock<std::mutex> guard(lock);
    return cv.wait_for(guard, limit, ready);
}

// ----------------------------------------------------------- bus: shared

const char kMethodPing[] = "bench.ping";
const char kMethodEcho[] = "bench.echo";
const char kMethodOneWay[] = "bench.oneway";
const char kMethodDone[] = "bench.done";
const char kMethodQuit[] = "bench.quit";

std::string serverName(const Options& options)
{
    return "ulmarbench" + options.tag + "/server";
}

std::string clientName(const Options& options)
{
    return "ulmarbench" + options.tag + "/client";
}

std::string startArgument(const std::string& pipe)
{
    return "ulmar.systemrouter.pipe.name=" + pipe;
}

std::string pairKey(unsigned i)
{
    return "p" + std::to_string(i);
}

bool startLibrary(const std::string& pipe)
{
    UlmarCommsSetLogger(stderrLogger);
    UlmarCommsSetLoggerLevel(ULMARCOMMS_LOG_ERROR);
    UlmarCommsSocketsSetLogger(stderrLogger);
    UlmarCommsSocketsSetLoggerLevel(ULMARCOMMS_LOG_ERROR);
    const int code = UlmarCommsStart(startArgument(pipe).c_str());
    if (code != ULMARCOMMS_OK) {
        std::fprintf(stderr, "ulmarcomms-bench: UlmarCommsStart failed with %d\n", code);
        return false;
    }
    return true;
}

// ----------------------------------------------------------- bus: server

// The pump handle as the creating thread stores it. A request can reach the
// callback before UlmarCommsCreateMessagePump has returned the handle, so
// the callback waits the few instructions until it is stored.
class PumpHandle {
public:
    void store(void* pump) { m_pump.store(pump, std::memory_order_release); }
    void* get() const
    {
        void* pump = m_pump.load(std::memory_order_acquire);
        while (pump == nullptr) {
            std::this_thread::yield();
            pump = m_pump.load(std::memory_order_acquire);
        }
        return pump;
    }

private:
    std::atomic<void*> m_pump{nullptr};
};

struct BusServer {
    Options options;
    PumpHandle pump;
    std::mutex lock;
    std::condition_variable changed;
    bool quit = false;
    // One-way bookkeeping (router worker thread only, until done is answered).
    uint64_t received = 0;
    uint64_t expected = 1;
    bool inOrder = true;
    unsigned ackInterval = 1;

    void reply(void* request, const char* response, bool copyPairs)
    {
        void* answer = UlmarCommsCreateReplyMessage(pump.get(), request, response);
        if (answer == nullptr)
            return;
        if (copyPairs) {
            for (unsigned i = 0; i < options.pairs; ++i) {
                const std::string key = pairKey(i);
                const char* value = UlmarCommsMessageValue(request, key.c_str());
                if (value != nullptr)
                    UlmarCommsMessageAddKeyValue(answer, key.c_str(), value);
            }
        }
        UlmarCommsPostMessage(pump.get(), answer);
    }

    void onOneWay(void* request)
    {
        const char* text = UlmarCommsMessageValue(request, "seq");
        const uint64_t sequence = text != nullptr ? std::strtoull(text, nullptr, 10) : 0;
        if (sequence != expected)
            inOrder = false;
        expected = sequence + 1;
        ++received;
        if (received % ackInterval == 0)
            reply(request, std::to_string(received).c_str(), false);
    }

    // Runs on the router's worker thread.
    static void onMessage(void* context, void* message, const char*, const char* method)
    {
        BusServer* self = static_cast<BusServer*>(context);
        if (method == nullptr)
            return;
        if (std::strcmp(method, kMethodEcho) == 0 || std::strcmp(method, kMethodPing) == 0) {
            self->reply(message, nullptr, true);
        } else if (std::strcmp(method, kMethodOneWay) == 0) {
            self->onOneWay(message);
        } else if (std::strcmp(method, kMethodDone) == 0) {
            const std::string summary = std::to_string(self->received) + "," + (self->inOrder ? "1" : "0");
            self->received = 0;
            self->expected = 1;
            self->inOrder = true;
            self->reply(message, summary.c_str(), false);
        } else if (std::strcmp(method, kMethodQuit) == 0) {
            std::lock_guard<std::mutex> guard(self->lock);
            self->quit = true;
            self->changed.notify_all();
        }
    }
};

int runBusServer(const Options& options)
{
    if (!startLibrary(options.pipe))
        return 1;
    BusServer server;
    server.options = options;
    server.ackInterval = ackEvery(options);
    void* pump = UlmarCommsCreateMessagePump(serverName(options).c_str(), &server, &BusServer::onMessage, nullptr,
                                             nullptr, nullptr);
    if (pump == nullptr) {
        std::fprintf(stderr, "ulmarcomms-bench: the server pump could not be created\n");
        UlmarCommsShutdown();
        return 1;
    }
    server.pump.store(pump);
    // The client says when it is done; the coordinator's deadline covers a
    // client that died.
    const bool told = waitFor(server.lock, server.changed, [&] { return server.quit; }, std::chrono::seconds(3600));
    UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    return told ? 0 : 1;
}

// ----------------------------------------------------------- bus: client

struct BusClient {
    enum Phase { Idle, Ping, RoundTrip, OneWay, Pipelined };

    Options options;
    void* pump = nullptr;
    std::string target;
    std::vector<std::string> values;

    std::mutex lock;
    std::condition_variable changed;
    std::atomic<Phase> phase{Idle};
    // Round trips and pipelined requests (router worker thread).
    unsigned sent = 0;
    unsigned answered = 0;
    unsigned total = 0;
    Clock::time_point sentAt;
    std::vector<double> samples;
    // Events the main thread waits for.
    bool phaseDone = false;
    unsigned pingReplies = 0;
    unsigned errors = 0;
    int lastError = 0;
    // One-way acknowledgements and the final summary.
    std::atomic<uint64_t> acknowledged{0};
    std::string summary;

    // A request with the application pairs; null when it could not be built.
    void* request(const char* method)
    {
        void* message = UlmarCommsCreateMessage(pump, target.c_str(), method);
        if (message == nullptr)
            return nullptr;
        for (unsigned i = 0; i < options.pairs; ++i)
            UlmarCommsMessageAddKeyValue(message, pairKey(i).c_str(), values[i].c_str());
        return message;
    }

    bool post(void* message)
    {
        return message != nullptr && UlmarCommsPostMessage(pump, message) == ULMARCOMMS_OK;
    }

    void finishPhase()
    {
        std::lock_guard<std::mutex> guard(lock);
        phaseDone = true;
        changed.notify_all();
    }

    // Round trip: the reply arrived; measure it and send the next.
    void onRoundTrip()
    {
        const Clock::time_point now = Clock::now();
        if (answered >= options.warmup)
            samples.push_back(microseconds(now - sentAt));
        ++answered;
        if (answered == total) {
            finishPhase();
            return;
        }
        sentAt = Clock::now();
        if (!post(request(kMethodEcho)))
            finishPhase();
    }

    void onPipelined()
    {
        ++answered;
        if (sent < total) {
            ++sent;
            post(request(kMethodEcho));
        }
        if (answered == total)
            finishPhase();
    }

    // Runs on the router's worker thread.
    static void onResponse(void* context, unsigned, void* message)
    {
        BusClient* self = static_cast<BusClient*>(context);
        const char* response = UlmarCommsGetResponse(message);
        switch (self->phase.load()) {
        case Ping: {
            std::lock_guard<std::mutex> guard(self->lock);
            ++self->pingReplies;
            self->changed.notify_all();
            break;
        }
        case RoundTrip:
            self->onRoundTrip();
            break;
        case Pipelined:
            self->onPipelined();
            break;
        case OneWay:
            if (response != nullptr && std::strchr(response, ',') != nullptr) {
                std::lock_guard<std::mutex> guard(self->lock);
                self->summary = response;
                self->phaseDone = true;
                self->changed.notify_all();
            } else if (response != nullptr) {
                self->acknowledged = std::strtoull(response, nullptr, 10);
                std::lock_guard<std::mutex> guard(self->lock);
                self->changed.notify_all();
            }
            break;
        case Idle:
            break;
        }
    }

    // Runs on the router's worker thread.
    static void onError(void* context, unsigned, int code)
    {
        BusClient* self = static_cast<BusClient*>(context);
        std::lock_guard<std::mutex> guard(self->lock);
        ++self->errors;
        self->lastError = code;
        self->changed.notify_all();
    }

    void beginPhase(Phase next)
    {
        std::lock_guard<std::mutex> guard(lock);
        phaseDone = false;
        errors = 0;
        phase = next;
    }

    // Pings until the server answers (its pump may not be known to the
    // daemon yet: those pings come back as error 400).
    bool waitForServer()
    {
        beginPhase(Ping);
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(30);
        while (Clock::now() < deadline) {
            const unsigned before = pingReplies;
            const unsigned errorsBefore = errors;
            if (!post(request(kMethodPing)))
                return false;
            std::unique_lock<std::mutex> guard(lock);
            changed.wait_for(guard, std::chrono::milliseconds(500),
                             [&] { return pingReplies > before || errors > errorsBefore; });
            if (pingReplies > before)
                return true;
            guard.unlock();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    bool awaitPhase(std::chrono::seconds limit)
    {
        return waitFor(lock, changed, [&] { return phaseDone || errors > 0; }, limit) && errors == 0;
    }

    bool roundTrips(Figures& figures)
    {
        samples.clear();
        samples.reserve(options.requests);
        answered = 0;
        total = options.warmup + options.requests;
        beginPhase(RoundTrip);
        void* first = request(kMethodEcho);
        if (first == nullptr)
            return false;
        // The frame size of one request, for the relay to send the same.
        figures["frame_bytes"] = frameBytes(first);
        sentAt = Clock::now();
        if (!post(first) || !awaitPhase(std::chrono::seconds(600)) || samples.size() != options.requests)
            return false;
        addLatencyFigures(samples, figures);
        return true;
    }

    bool oneWay(Figures& figures)
    {
        acknowledged = 0;
        summary.clear();
        beginPhase(OneWay);
        const uint64_t window = oneWayWindow(options);
        const Clock::time_point start = Clock::now();
        for (uint64_t sequence = 1; sequence <= options.messages; ++sequence) {
            if (sequence > acknowledged.load() + window) {
                // Ahead by a window: wait for the next acknowledgement.
                if (!waitFor(lock, changed, [&] { return sequence <= acknowledged.load() + window || errors > 0; },
                             std::chrono::seconds(120))
                    || errors > 0)
                    return false;
            }
            void* message = request(kMethodOneWay);
            if (message == nullptr)
                return false;
            UlmarCommsMessageAddKeyValue(message, "seq", std::to_string(sequence).c_str());
            if (!post(message))
                return false;
        }
        if (!post(request(kMethodDone)) || !awaitPhase(std::chrono::seconds(600)))
            return false;
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        const uint64_t arrived = std::strtoull(summary.c_str(), nullptr, 10);
        const bool inOrder = summary.substr(summary.find(',') + 1) == "1";
        figures["oneway_msgs_per_s"] = double(options.messages) / seconds;
        figures["oneway_lost"] = double(options.messages) - double(arrived);
        figures["oneway_in_order"] = inOrder ? 1 : 0;
        return true;
    }

    bool pipelined(Figures& figures)
    {
        answered = 0;
        total = options.requests;
        const unsigned initial = std::min(options.window, total);
        sent = initial;
        beginPhase(Pipelined);
        const Clock::time_point start = Clock::now();
        // The first window goes from here; later requests from the callback,
        // each when a reply arrives. sent was raised before the first post,
        // so the callback never reads it while this thread still writes it.
        for (unsigned i = 0; i < initial; ++i) {
            if (!post(request(kMethodEcho)))
                return false;
        }
        if (!awaitPhase(std::chrono::seconds(600)))
            return false;
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        figures["pipelined_req_per_s"] = double(total) / seconds;
        return true;
    }

    // The frame a link carries for this message: header, packet head and
    // tail, and per pair a record of lengths, key and value with their NULs.
    unsigned frameBytes(void* message)
    {
        unsigned size = 9 + 7;
        auto pair = [&](const char* key, const char* value) {
            if (value != nullptr)
                size += 5 + unsigned(std::strlen(key)) + 1 + unsigned(std::strlen(value)) + 1;
        };
        pair("_t", UlmarCommsGetTo(message));
        pair("_f", UlmarCommsGetFrom(message));
        pair("_m", UlmarCommsGetMethod(message));
        pair("_s", UlmarCommsGetSenderId(message));
        for (unsigned i = 0; i < options.pairs; ++i)
            pair(pairKey(i).c_str(), UlmarCommsMessageValue(message, pairKey(i).c_str()));
        return size;
    }
};

int runBusClient(const Options& options)
{
    if (!startLibrary(options.pipe))
        return 1;
    BusClient client;
    client.options = options;
    client.target = serverName(options);
    for (unsigned i = 0; i < options.pairs; ++i)
        client.values.push_back(std::string(options.valueSize, char('a' + i % 26)));
    client.pump = UlmarCommsCreateMessagePump(clientName(options).c_str(), &client, nullptr, &BusClient::onResponse,
                                              &BusClient::onError, nullptr);
    int status = 1;
    Figures figures;
    if (client.pump == nullptr) {
        std::fprintf(stderr, "ulmarcomms-bench: the client pump could not be created\n");
    } else if (!client.waitForServer()) {
        std::fprintf(stderr, "ulmarcomms-bench: the server did not answer within 30 s\n");
    } else if (!client.roundTrips(figures)) {
        std::fprintf(stderr, "ulmarcomms-bench: the round trips did not complete (errors %u, last %d)\n",
                     client.errors, client.lastError);
    } else if (!client.oneWay(figures)) {
        std::fprintf(stderr, "ulmarcomms-bench: the one-way run did not complete (errors %u, last %d)\n",
                     client.errors, client.lastError);
    } else if (!client.pipelined(figures)) {
        std::fprintf(stderr, "ulmarcomms-bench: the pipelined run did not complete (errors %u, last %d)\n",
                     client.errors, client.lastError);
    } else {
        status = 0;
    }
    client.phase = BusClient::Idle;
    if (client.pump != nullptr) {
        client.post(client.request(kMethodQuit));
        // The quit request must leave before the link closes.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        UlmarCommsDestroyMessagePump(client.pump);
    }
    UlmarCommsShutdown();
    if (status == 0)
        printResult(figures);
    return status;
}

// ------------------------------------------------------------------ relay

// Relay messages are fixed-size records: type, sequence (8 bytes), padding.
const unsigned char kRelayEcho = 'E';
const unsigned char kRelayEchoReply = 'e';
const unsigned char kRelayOneWay = 'O';
const unsigned char kRelayAck = 'a';
const unsigned char kRelayDone = 'D';
const unsigned char kRelayDoneReply = 'd';
const unsigned char kRelayQuit = 'Q';
const unsigned kRelayMinimum = 16;

sockaddr_un abstractAddress(const std::string& name, socklen_t& length)
{
    sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1, "%s", name.c_str());
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

std::string relayName(const Options& options, const char* side)
{
    return "ulmarbench-relay-" + options.tag + "." + side;
}

int connectAbstract(const std::string& name, std::chrono::seconds limit)
{
    const Clock::time_point deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return -1;
        socklen_t length = 0;
        const sockaddr_un address = abstractAddress(name, length);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0)
            return fd;
        ::close(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
}

int listenAbstract(const std::string& name)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    socklen_t length = 0;
    const sockaddr_un address = abstractAddress(name, length);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0 || ::listen(fd, 4) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// One whole record per call (MSG_WAITALL); false at the end of the stream.
bool readRecord(int fd, unsigned char* buffer, unsigned size)
{
    unsigned done = 0;
    while (done < size) {
        const ssize_t n = ::recv(fd, buffer + done, size - done, MSG_WAITALL);
        if (n <= 0) {
            if (n < 0 && errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<unsigned>(n);
    }
    return true;
}

bool writeRecord(int fd, const unsigned char* buffer, unsigned size)
{
    unsigned done = 0;
    while (done < size) {
        const ssize_t n = ::send(fd, buffer + done, size - done, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<unsigned>(n);
    }
    return true;
}

void putSequence(unsigned char* record, unsigned char type, uint64_t sequence)
{
    record[0] = type;
    std::memcpy(record + 1, &sequence, sizeof(sequence));
}

uint64_t getSequence(const unsigned char* record)
{
    uint64_t sequence = 0;
    std::memcpy(&sequence, record + 1, sizeof(sequence));
    return sequence;
}

// The relay: one thread per direction, each reading a record and writing it on.
int runRelay(const Options& options)
{
    const unsigned size = std::max(options.frameBytes, kRelayMinimum);
    const int serverSide = listenAbstract(relayName(options, "s"));
    const int clientSide = listenAbstract(relayName(options, "c"));
    if (serverSide < 0 || clientSide < 0) {
        std::fprintf(stderr, "ulmarcomms-bench: the relay could not listen\n");
        return 1;
    }
    std::printf("READY\n");
    std::fflush(stdout);
    const int server = ::accept4(serverSide, nullptr, nullptr, SOCK_CLOEXEC);
    const int client = ::accept4(clientSide, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(serverSide);
    ::close(clientSide);
    if (server < 0 || client < 0)
        return 1;
    auto forward = [size](int from, int to) {
        std::vector<unsigned char> record(size);
        while (readRecord(from, record.data(), size) && writeRecord(to, record.data(), size)) {
        }
        ::shutdown(to, SHUT_WR);
    };
    std::thread up(forward, client, server);
    forward(server, client);
    up.join();
    ::close(server);
    ::close(client);
    return 0;
}

int runRelayServer(const Options& options)
{
    const unsigned size = std::max(options.frameBytes, kRelayMinimum);
    const unsigned ackInterval = ackEvery(options);
    const int fd = connectAbstract(relayName(options, "s"), std::chrono::seconds(10));
    if (fd < 0)
        return 1;
    std::vector<unsigned char> record(size, 'x');
    uint64_t received = 0;
    uint64_t expected = 1;
    bool inOrder = true;
    while (readRecord(fd, record.data(), size)) {
        const unsigned char type = record[0];
        if (type == kRelayEcho) {
            record[0] = kRelayEchoReply;
            if (!writeRecord(fd, record.data(), size))
                break;
        } else if (type == kRelayOneWay) {
            const uint64_t sequence = getSequence(record.data());
            inOrder = inOrder && sequence == expected;
            expected = sequence + 1;
            ++received;
            if (received % ackInterval == 0) {
                putSequence(record.data(), kRelayAck, received);
                if (!writeRecord(fd, record.data(), size))
                    break;
            }
        } else if (type == kRelayDone) {
            putSequence(record.data(), kRelayDoneReply, received);
            record[9] = inOrder ? 1 : 0;
            received = 0;
            expected = 1;
            inOrder = true;
            if (!writeRecord(fd, record.data(), size))
                break;
        } else if (type == kRelayQuit) {
            break;
        }
    }
    ::close(fd);
    return 0;
}

int runRelayClient(const Options& options)
{
    const unsigned size = std::max(options.frameBytes, kRelayMinimum);
    const int fd = connectAbstract(relayName(options, "c"), std::chrono::seconds(10));
    if (fd < 0)
        return 1;
    std::vector<unsigned char> out(size, 'x');
    std::vector<unsigned char> in(size);
    Figures figures;

    // Round trips.
    std::vector<double> samples;
    samples.reserve(options.requests);
    for (unsigned i = 0; i < options.warmup + options.requests; ++i) {
        putSequence(out.data(), kRelayEcho, i);
        const Clock::time_point start = Clock::now();
        if (!writeRecord(fd, out.data(), size) || !readRecord(fd, in.data(), size))
            return 1;
        if (i >= options.warmup)
            samples.push_back(microseconds(Clock::now() - start));
    }
    addLatencyFigures(samples, figures);

    // One-way, with the same window and acknowledgements as the bus.
    const uint64_t window = oneWayWindow(options);
    uint64_t acknowledged = 0;
    Clock::time_point start = Clock::now();
    for (uint64_t sequence = 1; sequence <= options.messages; ++sequence) {
        while (sequence > acknowledged + window) {
            if (!readRecord(fd, in.data(), size))
                return 1;
            if (in[0] == kRelayAck)
                acknowledged = getSequence(in.data());
        }
        putSequence(out.data(), kRelayOneWay, sequence);
        if (!writeRecord(fd, out.data(), size))
            return 1;
    }
    putSequence(out.data(), kRelayDone, 0);
    if (!writeRecord(fd, out.data(), size))
        return 1;
    do {
        if (!readRecord(fd, in.data(), size))
            return 1;
    } while (in[0] != kRelayDoneReply);
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    figures["oneway_msgs_per_s"] = double(options.messages) / seconds;
    figures["oneway_lost"] = double(options.messages) - double(getSequence(in.data()));
    figures["oneway_in_order"] = in[9];

    // Pipelined.
    start = Clock::now();
    const unsigned initial = std::min(options.window, options.requests);
    unsigned sent = 0;
    for (; sent < initial; ++sent) {
        putSequence(out.data(), kRelayEcho, sent);
        if (!writeRecord(fd, out.data(), size))
            return 1;
    }
    for (unsigned answered = 0; answered < options.requests; ++answered) {
        if (!readRecord(fd, in.data(), size))
            return 1;
        if (sent < options.requests) {
            putSequence(out.data(), kRelayEcho, sent++);
            if (!writeRecord(fd, out.data(), size))
                return 1;
        }
    }
    seconds = std::chrono::duration<double>(Clock::now() - start).count();
    figures["pipelined_req_per_s"] = double(options.requests) / seconds;
    figures["frame_bytes"] = size;

    putSequence(out.data(), kRelayQuit, 0);
    writeRecord(fd, out.data(), size);
    ::close(fd);
    printResult(figures);
    return 0;
}

// ------------------------------------------------------------- processes

// A child running this program (or the daemon); its stdout is kept.
struct Child {
    pid_t pid = -1;
    int output = -1;
    std::string collected;
};

Child spawn(const std::string& program, const std::vector<std::string>& arguments, bool captureOutput)
{
    Child child;
    int pipeFds[2] = {-1, -1};
    if (captureOutput && ::pipe2(pipeFds, O_CLOEXEC) != 0)
        return child;
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int null = ::open("/dev/null", O_RDONLY);
        if (null >= 0)
            ::dup2(null, STDIN_FILENO);
        if (captureOutput) {
            ::dup2(pipeFds[1], STDOUT_FILENO);
        } else if (null >= 0) {
            // Only what goes wrong (stderr) reaches the user.
            const int sink = ::open("/dev/null", O_WRONLY);
            if (sink >= 0)
                ::dup2(sink, STDOUT_FILENO);
        }
        if (program.find('/') != std::string::npos)
            ::execv(program.c_str(), argv.data());
        else
            ::execvp(program.c_str(), argv.data());
        std::fprintf(stderr, "ulmarcomms-bench: cannot run %s: %s\n", program.c_str(), std::strerror(errno));
        ::_exit(127);
    }
    if (captureOutput) {
        ::close(pipeFds[1]);
        child.output = pipeFds[0];
    }
    child.pid = pid;
    return child;
}

// Reads a child's output until it ends and reaps it; -1 when it overran the
// deadline (then it is killed).
int finish(Child& child, std::chrono::seconds limit)
{
    const Clock::time_point deadline = Clock::now() + limit;
    char buffer[4096];
    while (child.output >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0)
            break;
        pollfd entry{child.output, POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(std::min<long long>(left, 1000))) <= 0)
            continue;
        const ssize_t n = ::read(child.output, buffer, sizeof(buffer));
        if (n <= 0) {
            ::close(child.output);
            child.output = -1;
            break;
        }
        child.collected.append(buffer, static_cast<size_t>(n));
    }
    int status = 0;
    while (true) {
        const pid_t done = ::waitpid(child.pid, &status, WNOHANG);
        if (done == child.pid)
            break;
        if (Clock::now() >= deadline) {
            ::kill(child.pid, SIGKILL);
            ::waitpid(child.pid, &status, 0);
            status = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (child.output >= 0) {
        ::close(child.output);
        child.output = -1;
    }
    if (status == -1)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Reads one line of a child's output (for its READY line).
bool awaitLine(Child& child, const std::string& line, std::chrono::seconds limit)
{
    const Clock::time_point deadline = Clock::now() + limit;
    char buffer[256];
    while (child.collected.find(line) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0)
            return false;
        pollfd entry{child.output, POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(left)) <= 0)
            return false;
        const ssize_t n = ::read(child.output, buffer, sizeof(buffer));
        if (n <= 0)
            return false;
        child.collected.append(buffer, static_cast<size_t>(n));
    }
    return true;
}

std::string selfPath()
{
    char path[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0)
        return "ulmarcomms-bench";
    path[n] = '\0';
    return path;
}

std::string findDaemon(const Options& options)
{
    if (!options.daemon.empty())
        return options.daemon;
    const std::string self = selfPath();
    const std::string dir = self.substr(0, self.rfind('/'));
    for (const std::string& candidate : {dir + "/ulmarcommsd", dir + "/../tools/ulmarcommsd",
                                         dir + "/../tools/ulmarcommsd/ulmarcommsd"}) {
        if (::access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return "ulmarcommsd";
}

// Whether something accepts on the daemon's local link: the library's
// abstract name for a pipe, NUL-padded to the full address size.
bool daemonAnswers(const std::string& pipe)
{
    sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1, "__%s.sock", pipe.c_str());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const bool ok = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return ok;
}

struct Daemon {
    Child child;
    bool ours = false;

    bool start(Options& options)
    {
        if (!options.pipe.empty()) {
            if (!daemonAnswers(options.pipe)) {
                std::fprintf(stderr, "ulmarcomms-bench: nothing answers on pipe '%s'\n", options.pipe.c_str());
                return false;
            }
            return true;
        }
        options.pipe = "ulmarbench" + options.tag;
        const std::string program = findDaemon(options);
        child = spawn(program, {"--set", "ulmar.systemrouter.pipe.name=" + options.pipe}, false);
        if (child.pid < 0)
            return false;
        ours = true;
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
        while (Clock::now() < deadline) {
            if (daemonAnswers(options.pipe))
                return true;
            int status = 0;
            if (::waitpid(child.pid, &status, WNOHANG) == child.pid) {
                std::fprintf(stderr, "ulmarcomms-bench: %s exited at start-up\n", program.c_str());
                ours = false;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        std::fprintf(stderr, "ulmarcomms-bench: %s did not listen within 10 s\n", program.c_str());
        stop();
        return false;
    }

    void stop()
    {
        if (!ours)
            return;
        ::kill(child.pid, SIGTERM);
        if (finish(child, std::chrono::seconds(10)) < 0)
            std::fprintf(stderr, "ulmarcomms-bench: the daemon had to be killed\n");
        ours = false;
    }

    // The daemon's resident memory in KiB, 0 when unknown.
    long residentKiB() const
    {
        if (!ours)
            return 0;
        FILE* status = std::fopen(("/proc/" + std::to_string(child.pid) + "/status").c_str(), "r");
        if (status == nullptr)
            return 0;
        char line[256];
        long kib = 0;
        while (std::fgets(line, sizeof(line), status) != nullptr) {
            if (std::strncmp(line, "VmRSS:", 6) == 0)
                kib = std::strtol(line + 6, nullptr, 10);
        }
        std::fclose(status);
        return kib;
    }
};

bool runBus(const Options& options, Figures& figures)
{
    const std::string self = selfPath();
    Child server = spawn(self, childArguments(options, "bus-server"), true);
    Child client = spawn(self, childArguments(options, "bus-client"), true);
    const int clientStatus = finish(client, std::chrono::seconds(1800));
    const int serverStatus = finish(server, std::chrono::seconds(30));
    if (clientStatus != 0 || !parseResult(client.collected, figures)) {
        std::fprintf(stderr, "ulmarcomms-bench: the bus client failed (status %d)\n", clientStatus);
        return false;
    }
    if (serverStatus != 0)
        std::fprintf(stderr, "ulmarcomms-bench: the bus server ended with status %d\n", serverStatus);
    return true;
}

bool runRelayTrio(Options options, unsigned frameBytes, Figures& figures)
{
    options.frameBytes = frameBytes;
    const std::string self = selfPath();
    Child relay = spawn(self, childArguments(options, "relay"), true);
    if (!awaitLine(relay, "READY", std::chrono::seconds(10))) {
        finish(relay, std::chrono::seconds(1));
        return false;
    }
    Child server = spawn(self, childArguments(options, "relay-server"), false);
    Child client = spawn(self, childArguments(options, "relay-client"), true);
    const int clientStatus = finish(client, std::chrono::seconds(1800));
    finish(server, std::chrono::seconds(30));
    finish(relay, std::chrono::seconds(30));
    if (clientStatus != 0 || !parseResult(client.collected, figures)) {
        std::fprintf(stderr, "ulmarcomms-bench: the relay client failed (status %d)\n", clientStatus);
        return false;
    }
    return true;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

Figures medians(const std::vector<Figures>& runs)
{
    Figures result;
    for (const auto& [key, value] : runs.front()) {
        (void)value;
        std::vector<double> values;
        for (const Figures& run : runs)
            values.push_back(run.count(key) != 0 ? run.at(key) : 0);
        result[key] = median(values);
    }
    return result;
}

const char* const kLatencyKeys[] = {"rtt_p50_us", "rtt_p99_us", "rtt_p999_us", "rtt_max_us"};
const char* const kRateKeys[] = {"oneway_msgs_per_s", "pipelined_req_per_s"};

void printText(const Options& options, const Figures& bus, const Figures& relay, bool haveRelay)
{
    std::printf("ulmarcomms-bench: %u application pairs of %u bytes (frame %.0f bytes), %u round trips after %u, "
                "%u one-way messages, %u pipelined with %u outstanding, %u run(s), medians\n",
                options.pairs, options.valueSize, bus.at("frame_bytes"), options.requests, options.warmup,
                options.messages, options.requests, options.window, options.runs);
    std::printf("%-26s %14s %14s %8s\n", "figure", "bus", "relay", "ratio");
    for (const char* key : kLatencyKeys) {
        if (haveRelay)
            std::printf("%-26s %14.1f %14.1f %8.2f\n", key, bus.at(key), relay.at(key), bus.at(key) / relay.at(key));
        else
            std::printf("%-26s %14.1f\n", key, bus.at(key));
    }
    for (const char* key : kRateKeys) {
        if (haveRelay)
            std::printf("%-26s %14.0f %14.0f %8.2f\n", key, bus.at(key), relay.at(key), bus.at(key) / relay.at(key));
        else
            std::printf("%-26s %14.0f\n", key, bus.at(key));
    }
    std::printf("%-26s %14.0f %14s\n", "oneway_lost", bus.at("oneway_lost"),
                haveRelay ? std::to_string(int(relay.at("oneway_lost"))).c_str() : "");
    std::printf("%-26s %14s %14s\n", "oneway_in_order", bus.at("oneway_in_order") != 0 ? "yes" : "no",
                haveRelay ? (relay.at("oneway_in_order") != 0 ? "yes" : "no") : "");
    std::printf("latency ratios are bus/relay (lower is better); rate ratios are bus/relay (higher is better)\n");
}

void printJson(const Options& options, const Figures& bus, const Figures& relay, bool haveRelay)
{
    auto object = [](const Figures& figures) {
        std::string text = "{";
        char number[64];
        bool first = true;
        for (const auto& [key, value] : figures) {
            std::snprintf(number, sizeof(number), "%.6g", value);
            text += std::string(first ? "" : ", ") + "\"" + key + "\": " + number;
            first = false;
        }
        return text + "}";
    };
    Figures ratios;
    if (haveRelay) {
        for (const char* key : kLatencyKeys)
            ratios[key] = bus.at(key) / relay.at(key);
        for (const char* key : kRateKeys)
            ratios[key] = bus.at(key) / relay.at(key);
    }
    std::printf("{\"pairs\": %u, \"value_size\": %u, \"requests\": %u, \"warmup\": %u, \"messages\": %u, "
                "\"window\": %u, \"runs\": %u, \"bus\": %s, \"relay\": %s, \"ratio\": %s}\n",
                options.pairs, options.valueSize, options.requests, options.warmup, options.messages,
                options.window, options.runs, object(bus).c_str(), haveRelay ? object(relay).c_str() : "null",
                haveRelay ? object(ratios).c_str() : "null");
}

int runCoordinator(Options options)
{
    if (options.tag.empty())
        options.tag = std::to_string(getpid());
    Daemon daemon;
    if (!daemon.start(options))
        return 1;
    std::vector<Figures> busRuns;
    std::vector<Figures> relayRuns;
    bool ok = true;
    for (unsigned run = 0; run < options.runs && ok; ++run) {
        Options thisRun = options;
        thisRun.tag = options.tag + "r" + std::to_string(run);
        Figures bus;
        ok = runBus(thisRun, bus);
        if (!ok)
            break;
        busRuns.push_back(bus);
        if (options.skipRelay)
            continue;
        Figures relay;
        ok = runRelayTrio(thisRun, static_cast<unsigned>(bus["frame_bytes"]), relay);
        if (ok)
            relayRuns.push_back(relay);
    }
    daemon.stop();
    if (!ok)
        return 1;
    const Figures bus = medians(busRuns);
    const bool haveRelay = !relayRuns.empty();
    const Figures relay = haveRelay ? medians(relayRuns) : Figures();
    if (options.json)
        printJson(options, bus, relay, haveRelay);
    else
        printText(options, bus, relay, haveRelay);
    // Lost or reordered messages are a failure of the run, whatever the speed.
    for (const Figures& run : busRuns) {
        if (run.at("oneway_lost") != 0 || run.at("oneway_in_order") == 0) {
            std::fprintf(stderr, "ulmarcomms-bench: the bus lost or reordered one-way messages\n");
            return 1;
        }
    }
    return 0;
}

// ------------------------------------------------------------ memory soak

// One application of the memory test: its pumps answer every request, and
// it sends requests to random pumps of other applications at a steady pace.
struct SoakApp {
    Options options;
    std::vector<void*> pumps;
    // The pump that answers, as the callbacks see it.
    PumpHandle answering;
    std::atomic<uint64_t> replies{0};
    std::atomic<uint64_t> errors{0};

    // Runs on the router's worker thread.
    static void onMessage(void* context, void* message, const char*, const char*)
    {
        SoakApp* self = static_cast<SoakApp*>(context);
        void* pump = self->answering.get();
        void* reply = UlmarCommsCreateReplyMessage(pump, message, "ok");
        if (reply != nullptr)
            UlmarCommsPostMessage(pump, reply);
    }
    static void onResponse(void* context, unsigned, void*)
    {
        static_cast<SoakApp*>(context)->replies.fetch_add(1);
    }
    static void onError(void* context, unsigned, int)
    {
        static_cast<SoakApp*>(context)->errors.fetch_add(1);
    }
};

std::string soakPumpName(const Options& options, unsigned app, unsigned pump)
{
    return "ulmarsoak" + options.tag + "/a" + std::to_string(app) + "/p" + std::to_string(pump);
}

int runSoakApp(const Options& options)
{
    if (!startLibrary(options.pipe))
        return 1;
    SoakApp app;
    app.options = options;
    app.pumps.resize(options.soakPumps, nullptr);
    for (unsigned i = 0; i < options.soakPumps; ++i) {
        app.pumps[i] = UlmarCommsCreateMessagePump(soakPumpName(options, options.soakIndex, i).c_str(), &app,
                                                   &SoakApp::onMessage, &SoakApp::onResponse, &SoakApp::onError,
                                                   nullptr);
        if (app.pumps[i] == nullptr)
            return 1;
        if (i == 0)
            app.answering.store(app.pumps[0]);
    }
    std::printf("READY\n");
    std::fflush(stdout);
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
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    for (void* pump : app.pumps)
        UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    printResult({{"sent", double(sent)}, {"replies", double(app.replies.load())}, {"errors", double(app.errors.load())}});
    return 0;
}

// The slope of a least-squares line through (seconds, KiB), in KiB per minute.
double slopePerMinute(const std::vector<std::pair<double, double>>& points)
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
    const long idle = daemon.residentKiB();
    const std::string self = selfPath();
    std::vector<Child> apps;
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
    const long connected = daemon.residentKiB();
    // Sampled once a second while the applications talk.
    std::vector<std::pair<double, double>> samples;
    long peak = connected;
    const Clock::time_point start = Clock::now();
    while (ok && Clock::now() - start < std::chrono::seconds(options.soakSeconds)) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const long kib = daemon.residentKiB();
        peak = std::max(peak, kib);
        samples.emplace_back(std::chrono::duration<double>(Clock::now() - start).count(), double(kib));
    }
    Figures totals;
    for (Child& app : apps) {
        Figures one;
        if (finish(app, std::chrono::seconds(60)) != 0 || !parseResult(app.collected, one))
            ok = false;
        for (const auto& [key, value] : one)
            totals[key] += value;
    }
    const long end = daemon.residentKiB();
    daemon.stop();
    // The second half shows whether memory keeps growing once every table
    // and buffer has reached its working size.
    std::vector<std::pair<double, double>> secondHalf(samples.begin() + samples.size() / 2, samples.end());
    const double slope = slopePerMinute(secondHalf);
    if (options.json) {
        std::printf("{\"apps\": %u, \"pumps_per_app\": %u, \"seconds\": %u, \"daemon_rss_kib\": {\"idle\": %ld, "
                    "\"connected\": %ld, \"peak\": %ld, \"end\": %ld, \"slope_second_half_kib_per_min\": %.1f}, "
                    "\"sent\": %.0f, \"replies\": %.0f, \"errors\": %.0f}\n",
                    options.soakApps, options.soakPumps, options.soakSeconds, idle, connected, peak, end, slope,
                    totals["sent"], totals["replies"], totals["errors"]);
    } else {
        std::printf("memory test: %u applications x %u pumps for %u s\n", options.soakApps, options.soakPumps,
                    options.soakSeconds);
        std::printf("daemon resident memory: idle %ld KiB, all connected %ld KiB, peak %ld KiB, end %ld KiB\n",
                    idle, connected, peak, end);
        std::printf("slope over the second half: %.1f KiB/min\n", slope);
        std::printf("requests sent %.0f, replies %.0f, error replies %.0f\n", totals["sent"], totals["replies"],
                    totals["errors"]);
    }
    return ok ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    Options options;
    std::string error;
    if (!parseOptions(argc, argv, options, error)) {
        if (!error.empty())
            std::fprintf(stderr, "ulmarcomms-bench: %s\n", error.c_str());
        std::fputs(kUsage, error.empty() ? stdout : stderr);
        return error.empty() ? 0 : 2;
    }
    if (options.role.empty())
        return options.soakApps > 0 ? runSoak(options) : runCoordinator(options);
    if (options.role == "bus-server")
        return runBusServer(options);
    if (options.role == "bus-client")
        return runBusClient(options);
    if (options.role == "relay")
        return runRelay(options);
    if (options.role == "relay-server")
        return runRelayServer(options);
    if (options.role == "relay-client")
        return runRelayClient(options);
    if (options.role == "soak-app")
        return runSoakApp(options);
    std::fprintf(stderr, "ulmarcomms-bench: unknown role %s\n", options.role.c_str());
    return 2;
}
