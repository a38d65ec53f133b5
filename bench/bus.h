// The bus side of the benchmark: a server and a client process that talk
// through the daemon over the library's public C interface only, exactly as
// two applications would.
//
// Both answer from their pumps' callbacks, which the library runs on the
// process router's worker thread; the client's next request in a round trip
// or a pipelined run is sent from there too. The main thread only starts a
// measurement and waits for the callbacks to say it is done. The steps of
// each measurement live beside the relay's in roundtrip.cpp, oneway.cpp and
// pipelined.cpp; this header holds what the three share.
#pragma once

#include "common.h"
#include "oneway.h"
#include "options.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

namespace UlmarCommsBench {

// Methods of the bench's requests.
extern const char kMethodPing[]; // is the server there yet
extern const char kMethodEcho[]; // answered with the request's pairs
extern const char kMethodOneWay[]; // counted, acknowledged now and then
extern const char kMethodFlood[]; // counted, never acknowledged
extern const char kMethodDone[]; // answered with the one-way summary
extern const char kMethodQuit[]; // ends the server

// Starts the library on pipe with its log on stderr (errors only); more is
// appended to the start argument ("key=value;key=value").
bool startLibrary(const std::string& pipe, const std::string& more = "");

// The server pump's name in the run options.tag names.
std::string serverName(const Options& options);

// The client pump's name in the run options.tag names.
std::string clientName(const Options& options);

// The key of application pair i ("p0", "p1", ...).
std::string pairKey(unsigned i);

// Waits on a predicate with a deadline; false when it passed.
template <typename Predicate>
bool waitFor(std::mutex& lock, std::condition_variable& cv, Predicate ready, std::chrono::seconds limit)
{
    std::unique_lock<std::mutex> guard(lock);
    return cv.wait_for(guard, limit, ready);
}

// The pump handle as the creating thread stores it. A request can reach the
// callback before UlmarCommsCreateMessagePump has returned the handle, so
// the callback waits the few instructions until it is stored.
class PumpHandle {
public:
    // Publishes the handle to the callbacks.
    void store(void* pump) { m_pump.store(pump, std::memory_order_release); }
    // The handle, once stored.
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
    std::atomic<void*> m_pump{nullptr}; // null until stored
};

// The bus server's state; its callback answers every request.
struct BusServer {
    Options options; // this run's settings
    PumpHandle pump; // the server pump
    std::mutex lock; // guards quit
    std::condition_variable changed; // signalled when quit is set
    bool quit = false; // the client said it is done
    OneWayTally tally; // one-way bookkeeping (worker thread only)

    // Answers request with response, copying its application pairs if asked.
    void reply(void* request, const char* response, bool copyPairs);
    // Counts a one-way message and, when acknowledging, answers every
    // ackInterval-th.
    void onOneWay(void* request, bool acknowledging);
    // Answers "received,in-order" for the one-way run and starts afresh.
    void onDone(void* request);
    // The pump's message callback; runs on the router's worker thread.
    static void onMessage(void* context, void* message, const char*, const char* method);
};

// The bus client: sends the measured requests and times their answers.
struct BusClient {
    // What the response callback is currently part of.
    enum Phase { Idle, Ping, RoundTrip, OneWay, Pipelined, PipelinedCallback };

    Options options; // this run's settings
    void* pump = nullptr; // the client pump
    std::string target; // the server pump's name
    std::vector<std::string> values; // the application values, one per pair

    std::mutex lock; // guards the waited-for events below
    std::condition_variable changed; // signalled at each of them
    std::atomic<Phase> phase{Idle}; // the measurement under way
    // Round trips and pipelined requests (router worker thread).
    unsigned sent = 0; // requests sent so far
    unsigned answered = 0; // replies received so far
    unsigned total = 0; // requests in the phase
    Clock::time_point sentAt; // when the pending round trip left
    std::vector<double> samples; // round-trip times in microseconds
    // Replies the pipelining thread may still wait for: one released per reply.
    std::counting_semaphore<> replies{0};
    // Events the main thread waits for.
    bool phaseDone = false; // the phase has finished
    unsigned pingReplies = 0; // pings answered
    unsigned errors = 0; // error replies in the phase
    int lastError = 0; // the last error reply's code
    // One-way acknowledgements and the final summary.
    std::atomic<uint64_t> acknowledged{0}; // one-way messages acknowledged
    std::string summary; // the server's "received,in-order"

    // Starts the library and creates the client pump for settings; false
    // when the library did not start (a pump that could not be created
    // leaves pump null, with a message).
    bool open(const Options& settings);
    // Tells the server to quit, destroys the pump and shuts the library down.
    void close();
    // A request with the application pairs; null when it could not be built.
    void* request(const char* method);
    // Posts message; false when it is null or could not be posted.
    bool post(void* message);
    // Marks the phase finished and wakes the main thread.
    void finishPhase();
    // Starts a phase: clears the finished flag and the errors.
    void beginPhase(Phase next);
    // Waits until the phase finished without errors; false otherwise.
    bool awaitPhase(std::chrono::seconds limit);
    // Pings until the server answers, for up to 30 s.
    bool waitForServer();
    // The frame a link carries for message, in bytes.
    unsigned frameBytes(void* message);

    // Measures round trips: rtt_* and frame_bytes (roundtrip.cpp).
    bool roundTrips(Figures& figures);
    // Round trip: the reply arrived; measure it and send the next.
    void onRoundTrip();
    // Measures one-way throughput, loss and order: oneway_* (oneway.cpp).
    bool oneWay(Figures& figures);
    // The same without a window, retrying refused posts:
    // oneway_unwindowed_* (oneway.cpp).
    bool oneWayUnwindowed(Figures& figures);
    // Posts the one-way message numbered sequence with method; the post's result.
    int postNumbered(const char* method, uint64_t sequence);
    // One-way: an acknowledgement or the final summary arrived.
    void onOneWayResponse(const char* response);
    // Measures pipelined requests kept --window deep by this thread:
    // pipelined_req_per_s (pipelined.cpp).
    bool pipelined(Figures& figures);
    // The same with each next request posted from the reply's callback:
    // pipelined_callback_req_per_s (pipelined.cpp).
    bool pipelinedFromCallback(Figures& figures);
    // Pipelined from the callback: a reply arrived; send the next if any remain.
    void onPipelinedCallback();

    // The pump's response callback; runs on the router's worker thread.
    static void onResponse(void* context, unsigned, void* message);
    // The pump's error callback; runs on the router's worker thread.
    static void onError(void* context, unsigned, int code);
};

// The bus server process: answers until the client sends quit.
int runBusServer(const Options& options);

// The bus client process: the three measurements, then one RESULT line.
int runBusClient(const Options& options);

} // namespace UlmarCommsBench
