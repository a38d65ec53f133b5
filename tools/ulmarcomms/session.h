// The client's use of the library: the runtime's start and shutdown, and
// pumps whose callbacks feed the inbox.
//
// Every pump callback runs on the library's router worker thread. They copy
// what the main thread needs into a Received item and push it; they never
// keep a library message (its reference count is not shared safely between
// threads) and never shut the runtime down. Work that must happen on the
// pump's own thread -- answering a request in `listen`, emitting an event in
// `publish` -- is done inside the callback, so each pump builds messages
// from one thread only, as the library expects.
#pragma once

#include "ulmarcomms/commandline.h"
#include "ulmarcomms/inbox.h"
#include "ulmarcomms/output.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace UlmarCommsTools {

// Starts the application runtime and shuts it down when it goes.
class Runtime {
public:
    Runtime() = default;
    ~Runtime();
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;
    // UlmarCommsStart with the argument; its result code.
    int start(const std::string& argument);

private:
    bool m_startCalled = false;
};

// What a pump does with what it receives.
struct PumpBehaviour {
    // Keys whose values are copied from received messages.
    std::vector<std::string> shownKeys;
    // Which requests reach the inbox (others are dropped at once, so a peer
    // cannot fill the client's memory); null: none.
    std::function<bool(const std::string& method)> acceptRequest;
    // listen: how to answer accepted requests.
    ListenAnswer answer = ListenAnswer::None;
    std::string replyText;
    // publish: the event emitted for each tick, and its pairs.
    std::string eventName;
    std::vector<KeyValue> eventPairs;
};

// The method of the ticks that make a publisher emit its event.
extern const char* const kTickMethod;

// One pump of the client.
class ClientPump {
public:
    ClientPump(Inbox& inbox, PumpBehaviour behaviour);
    // Destroys the pump if it was created.
    ~ClientPump();
    ClientPump(const ClientPump&) = delete;
    ClientPump& operator=(const ClientPump&) = delete;

    // Creates the library pump; false if the library refused.
    bool create(const std::string& name, const std::string& interfaces);
    // The pump handle (null before create).
    void* handle() const { return m_pump; }
    // The pump's full address (host@name).
    std::string address() const;
    // publish: ticks from this address make the pump emit its event.
    void setTickSource(const std::string& address);

private:
    static void onMessageCallback(void* context, void* message, const char* to, const char* method);
    static void onResponseCallback(void* context, unsigned int responseId, void* message);
    static void onErrorCallback(void* context, unsigned int responseId, int errorCode);

    void onMessage(void* message, const char* to, const char* method);
    void onResponse(unsigned int responseId, void* message);
    void onError(unsigned int responseId, int errorCode);
    // Waits until create() has stored the handle (a request can arrive
    // before UlmarCommsCreateMessagePump returns).
    void* pumpForCallback();
    Received copyMessage(void* message, Received::Kind kind) const;
    void answer(void* pump, void* request, Received& received);
    void emitEvent(void* pump);

    Inbox& m_inbox;
    const PumpBehaviour m_behaviour;
    // Guards the handle and the tick source for the callbacks.
    mutable std::mutex m_lock;
    std::condition_variable m_created;
    void* m_pump = nullptr;
    bool m_createFinished = false;
    std::string m_tickSource;
};

// The outcome of sending one request and waiting for its answer.
struct Exchange {
    enum class Result { Answered, TimedOut, Interrupted, NotBuilt, NotPosted };
    Result result = Result::NotBuilt;
    // The post result when NotPosted.
    int postCode = 0;
    // The Reply or Error when Answered.
    Received answer;
};

// Posts `message` (built on pump; consumed in every case) and waits up to
// timeoutMs for the reply to it, or until an interrupt beyond baseline.
Exchange exchange(ClientPump& pump, Inbox& inbox, void* message, int timeoutMs, unsigned interruptBaseline);
// Builds the message of a request plan on the pump (null on failure).
void* buildRequest(ClientPump& pump, const RequestPlan& plan, const Command& command);

} // namespace UlmarCommsTools
