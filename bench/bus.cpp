// The bus server and client processes, apart from the steps of each
// measurement. The server echoes requests with their pairs; the client
// first pings until the daemon knows the server's pump, then runs round
// trips, one-way messages (windowed, then unwindowed) and pipelined requests
// (from its own thread, then from the callback) in that order, reading the
// daemon's CPU time around each when it knows the daemon's pid.
#include "bus.h"

#include "process.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ulmarcomms.h>
#include <unistd.h>

namespace UlmarCommsBench {

const char kMethodPing[] = "bench.ping";
const char kMethodEcho[] = "bench.echo";
const char kMethodOneWay[] = "bench.oneway";
const char kMethodFlood[] = "bench.flood";
const char kMethodDone[] = "bench.done";
const char kMethodQuit[] = "bench.quit";

namespace {

// The library's log lines on stderr, marked with this process's id.
void stderrLogger(int level, const char* format, char* args)
{
    char text[1024];
    std::vsnprintf(text, sizeof(text), format, *reinterpret_cast<va_list*>(args));
    std::fprintf(stderr, "ulmarcomms-bench[%d] level %d: %s", static_cast<int>(getpid()), level, text);
}

// One measurement of the client, and how many messages it sends through
// the daemon (requests, replies, acknowledgements).
struct Measurement {
    const char* name; // for the failure message and the CPU figure
    bool (BusClient::*run)(Figures&);
    double messages;
};

// The measurements in the order they run.
std::vector<Measurement> measurements(const Options& options)
{
    const double requests = options.requests;
    const double roundTrips = double(options.warmup) + requests;
    return {
        {"rtt", &BusClient::roundTrips, 2 * roundTrips},
        {"oneway", &BusClient::oneWay, options.messages + options.messages / double(ackEvery(options)) + 2},
        {"oneway_unwindowed", &BusClient::oneWayUnwindowed, options.messages + 2.0},
        {"pipelined", &BusClient::pipelined, 2 * requests},
        {"pipelined_callback", &BusClient::pipelinedFromCallback, 2 * requests},
    };
}

// Runs the client's measurements in order, each with the daemon's CPU time
// per message when its pid is known; 0, or 1 after saying which failed.
int measure(BusClient& client, Figures& figures)
{
    if (client.pump == nullptr)
        return 1;
    if (!client.waitForServer()) {
        std::fprintf(stderr, "ulmarcomms-bench: the server did not answer within 30 s\n");
        return 1;
    }
    CpuMeter daemon(client.options.daemonPid);
    for (const Measurement& step : measurements(client.options)) {
        daemon.begin();
        if (!(client.*step.run)(figures)) {
            std::fprintf(stderr, "ulmarcomms-bench: the %s measurement did not complete (errors %u, last %d)\n",
                         step.name, client.errors, client.lastError);
            return 1;
        }
        daemon.end(step.name, step.messages, figures);
    }
    return 0;
}

} // namespace

bool startLibrary(const std::string& pipe, const std::string& more)
{
    UlmarCommsSetLogger(stderrLogger);
    UlmarCommsSetLoggerLevel(ULMARCOMMS_LOG_ERROR);
    UlmarCommsSocketsSetLogger(stderrLogger);
    UlmarCommsSocketsSetLoggerLevel(ULMARCOMMS_LOG_ERROR);
    const std::string argument = more.empty() ? pipeSetting(pipe) : pipeSetting(pipe) + ";" + more;
    const int code = UlmarCommsStart(argument.c_str());
    if (code != ULMARCOMMS_OK) {
        std::fprintf(stderr, "ulmarcomms-bench: UlmarCommsStart failed with %d\n", code);
        return false;
    }
    return true;
}

std::string serverName(const Options& options)
{
    return "ulmarbench" + options.tag + "/server";
}

std::string clientName(const Options& options)
{
    return "ulmarbench" + options.tag + "/client";
}

std::string pairKey(unsigned i)
{
    return "p" + std::to_string(i);
}

void BusServer::reply(void* request, const char* response, bool copyPairs)
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

void BusServer::onMessage(void* context, void* message, const char*, const char* method)
{
    BusServer* self = static_cast<BusServer*>(context);
    if (method == nullptr)
        return;
    if (std::strcmp(method, kMethodEcho) == 0 || std::strcmp(method, kMethodPing) == 0) {
        self->reply(message, nullptr, true);
    } else if (std::strcmp(method, kMethodOneWay) == 0) {
        self->onOneWay(message, true);
    } else if (std::strcmp(method, kMethodFlood) == 0) {
        self->onOneWay(message, false);
    } else if (std::strcmp(method, kMethodDone) == 0) {
        self->onDone(message);
    } else if (std::strcmp(method, kMethodQuit) == 0) {
        std::lock_guard<std::mutex> guard(self->lock);
        self->quit = true;
        self->changed.notify_all();
    }
}

int runBusServer(const Options& options)
{
    if (!startLibrary(options.pipe))
        return 1;
    BusServer server;
    server.options = options;
    server.tally.ackInterval = ackEvery(options);
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
    const bool told = waitFor(
        server.lock, server.changed, [&] { return server.quit; }, std::chrono::seconds(3600));
    UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    return told ? 0 : 1;
}

void* BusClient::request(const char* method)
{
    void* message = UlmarCommsCreateMessage(pump, target.c_str(), method);
    if (message == nullptr)
        return nullptr;
    for (unsigned i = 0; i < options.pairs; ++i)
        UlmarCommsMessageAddKeyValue(message, pairKey(i).c_str(), values[i].c_str());
    return message;
}

bool BusClient::post(void* message)
{
    return message != nullptr && UlmarCommsPostMessage(pump, message) == ULMARCOMMS_OK;
}

void BusClient::finishPhase()
{
    std::lock_guard<std::mutex> guard(lock);
    phaseDone = true;
    changed.notify_all();
}

void BusClient::beginPhase(Phase next)
{
    std::lock_guard<std::mutex> guard(lock);
    phaseDone = false;
    errors = 0;
    phase = next;
}

bool BusClient::awaitPhase(std::chrono::seconds limit)
{
    return waitFor(
               lock, changed, [&] { return phaseDone || errors > 0; }, limit) &&
        errors == 0;
}

// Its pump may not be known to the daemon yet: those pings come back as
// error 400.
bool BusClient::waitForServer()
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

// Header, packet head and tail, and per pair a record of lengths, key and
// value with their NULs.
unsigned BusClient::frameBytes(void* message)
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

void BusClient::onResponse(void* context, unsigned, void* message)
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
    case RoundTrip: self->onRoundTrip(); break;
    case Pipelined: self->replies.release(); break;
    case PipelinedCallback: self->onPipelinedCallback(); break;
    case OneWay: self->onOneWayResponse(response); break;
    case Idle: break;
    }
}

void BusClient::onError(void* context, unsigned, int code)
{
    BusClient* self = static_cast<BusClient*>(context);
    std::lock_guard<std::mutex> guard(self->lock);
    ++self->errors;
    self->lastError = code;
    self->changed.notify_all();
}

bool BusClient::open(const Options& settings)
{
    if (!startLibrary(settings.pipe))
        return false;
    options = settings;
    target = serverName(options);
    for (unsigned i = 0; i < options.pairs; ++i)
        values.push_back(std::string(options.valueSize, char('a' + i % 26)));
    pump = UlmarCommsCreateMessagePump(clientName(options).c_str(), this, nullptr, &BusClient::onResponse,
                                       &BusClient::onError, nullptr);
    if (pump == nullptr)
        std::fprintf(stderr, "ulmarcomms-bench: the client pump could not be created\n");
    return true;
}

void BusClient::close()
{
    phase = Idle;
    if (pump != nullptr) {
        post(request(kMethodQuit));
        // The quit request must leave before the link closes.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        UlmarCommsDestroyMessagePump(pump);
        pump = nullptr;
    }
    UlmarCommsShutdown();
}

int runBusClient(const Options& options)
{
    BusClient client;
    if (!client.open(options))
        return 1;
    Figures figures;
    const int status = measure(client, figures);
    client.close();
    if (status == 0)
        printResult(figures);
    return status;
}

} // namespace UlmarCommsBench
