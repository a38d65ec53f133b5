// Shared helpers of the messaging tests: a recording stand-in for the system
// router (the real one lives in another process or layer), pumps whose
// callbacks record what they receive, and deadline waits.
#pragma once

#include "core/core.h"
#include "messaging/messaging.h"
#include "support/recordingsystemrouter.h"
#include "support/wait.h"

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace MessagingTest {

using UlmarComms::IMessageRouter;
using UlmarComms::ISystemRouter;
using UlmarComms::MessageItem;
using UlmarComms::MessagePump;
using UlmarComms::MessageRef;
using UlmarComms::MessageRouter;

typedef std::vector<std::pair<std::string, std::string>> Pairs;

// Every pair of a message, in storage order.
inline Pairs pairsOf(const MessageItem* message)
{
    Pairs pairs;
    for (int i = 0; i < message->numberOfArguments(); ++i)
        pairs.emplace_back(message->key(i), message->value(i));
    return pairs;
}

// The keys of a message, in storage order.
inline std::vector<std::string> keysOf(const MessageItem* message)
{
    std::vector<std::string> keys;
    for (int i = 0; i < message->numberOfArguments(); ++i)
        keys.emplace_back(message->key(i));
    return keys;
}

using UlmarCommsTest::waitUntil;

// This machine's host name as the library sees it.
inline std::string host()
{
    return UlmarComms::Core::instance()->getHostName();
}

// A full local address for a path.
inline std::string local(const std::string& path)
{
    return host() + "@" + path;
}

// What one callback saw.
struct Received {
    enum Kind { Request, Response, Error };
    Kind kind = Request;
    std::string to;
    std::string method;
    unsigned responseId = 0;
    int errorCode = 0;
    Pairs pairs;

    // The first value of key, or "<absent>".
    std::string value(const std::string& key) const
    {
        for (const auto& pair : pairs)
            if (pair.first == key)
                return pair.second;
        return "<absent>";
    }
    bool has(const std::string& key) const { return value(key) != "<absent>"; }
};

using UlmarCommsTest::RecordingSystemRouter;

// A pump whose callbacks record what arrives and then run optional hooks
// (set hooks before anything is posted to the pump). Callbacks run on the
// router's worker thread.
class Endpoint {
public:
    Endpoint(MessageRouter& router, const char* name, const char* interfaces = nullptr) : pump(name, &router)
    {
        if (interfaces != nullptr)
            pump.setInterfaceNames(interfaces);
    }

    // Leaves the router first: remove() waits out a delivery in flight.
    ~Endpoint()
    {
        if (m_joined)
            pump.router()->remove(&pump);
    }
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    // Joins the router with the recording callbacks.
    bool join()
    {
        m_joined = pump.setCallbacks(this, &Endpoint::onMessage, &Endpoint::onResponse, &Endpoint::onError);
        return m_joined;
    }

    std::vector<Received> received()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received;
    }
    size_t count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received.size();
    }
    bool waitForCount(size_t n)
    {
        return waitUntil([&] { return count() >= n; });
    }
    std::string address() const { return pump.address(); }

    MessagePump pump;
    std::function<void(MessageItem*, const char*, const char*)> requestHook;
    std::function<void(unsigned, MessageItem*)> responseHook;
    std::function<void(unsigned, int)> errorHook;

private:
    void record(Received received)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_received.push_back(std::move(received));
    }
    static void onMessage(void* context, MessageItem* message, const char* to, const char* method)
    {
        Endpoint* self = static_cast<Endpoint*>(context);
        Received received;
        received.kind = Received::Request;
        received.to = to != nullptr ? to : "<null>";
        received.method = method != nullptr ? method : "<null>";
        received.pairs = pairsOf(message);
        self->record(std::move(received));
        if (self->requestHook)
            self->requestHook(message, to, method);
    }
    static void onResponse(void* context, unsigned responseId, MessageItem* message)
    {
        Endpoint* self = static_cast<Endpoint*>(context);
        Received received;
        received.kind = Received::Response;
        received.responseId = responseId;
        received.pairs = pairsOf(message);
        self->record(std::move(received));
        if (self->responseHook)
            self->responseHook(responseId, message);
    }
    static void onError(void* context, unsigned responseId, int errorCode)
    {
        Endpoint* self = static_cast<Endpoint*>(context);
        Received received;
        received.kind = Received::Error;
        received.responseId = responseId;
        received.errorCode = errorCode;
        self->record(std::move(received));
        if (self->errorHook)
            self->errorHook(responseId, errorCode);
    }

    std::mutex m_mutex;
    std::vector<Received> m_received;
    bool m_joined = false;
};

// A started router on a recording system router.
struct RunningRouter {
    RunningRouter()
    {
        router.setSystemRouter(&system);
        router.start();
    }
    ~RunningRouter() { router.finish(); }

    RecordingSystemRouter system;
    MessageRouter router;
};

} // namespace MessagingTest
