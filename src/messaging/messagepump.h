// The message pump: a named endpoint of an application, and the built-in
// protocol every pump answers (interface and event queries, event
// registration).
//
// A pump builds and posts messages through its router and receives them on
// the router's worker thread, one at a time, through the application's
// callbacks. Built-in requests are answered before the callbacks see them.
#pragma once

#include "messaging/messageitem.h"
#include "platform/mutex.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace UlmarComms {

class MessageRouter;

// A named endpoint: builds, posts and receives messages for the application.
// Its callbacks run on the router's worker thread, one message at a time.
class MessagePump {
public:
    // A request: the message, its target and method (texts valid during the
    // call only).
    typedef void (*MessageCallback)(void* context, MessageItem* message, const char* to, const char* method);
    // A reply to the request whose sender id is responseId.
    typedef void (*ResponseCallback)(void* context, unsigned responseId, MessageItem* message);
    // An error reply to the request whose sender id is responseId.
    typedef void (*ErrorCallback)(void* context, unsigned responseId, int errorCode);

    // A listener of one event.
    struct EventEntry {
        // The listener's address ("_t" of each event copy).
        std::string address;
        // The method the listener asked for ("_m" of each event copy).
        std::string returnMethod;
    };

    // Results of post and sendErrorMessage.
    static constexpr int Result_Ok = 0;
    static constexpr int Result_NoMemory = 2;
    static constexpr int Result_Null = 4;
    static constexpr int Result_NotARequest = 5;
    static constexpr int Result_NoRouter = 6;
    static constexpr int Result_NoSuchEvent = 1003;

    // Listener entries one event keeps at most (core/limits.h).
    static constexpr size_t s_maxListenersPerEvent = Limits::EventListeners;

    // Parses name into the pump's address (host filled in); does not join.
    MessagePump(const char* name, MessageRouter* router);
    // Frees the pump's texts and events; does not leave the router.
    virtual ~MessagePump();
    MessagePump(const MessagePump&) = delete;
    MessagePump& operator=(const MessagePump&) = delete;

    // Answers a built-in request ("#IsHas", "#IsList", "#EsList", "#reg");
    // true when it did (then the message callback does not see it).
    virtual bool onBuiltInMessage(MessageItem* message, const char* to, const char* method);
    // Lets a subclass consume a reply; the base never does.
    virtual bool onBuiltInMessageResponse(MessageItem* message, unsigned responseId);

    // Stores the callbacks and joins the router (its add result).
    bool setCallbacks(void* context, MessageCallback messageCallback, ResponseCallback responseCallback,
                      ErrorCallback errorCallback);
    // The printed address.
    const char* address() const { return m_address.c_str(); }
    // The interface list, or null when empty; valid until the list changes.
    const char* getInterfaceNames() const;
    // A copy of the interface list (empty when none), safe on any thread.
    std::string interfaceNames();
    // Replaces the interface list; an empty or null text is refused (false).
    bool setInterfaceNames(const char* names);
    // The router (not owned).
    MessageRouter* router() const { return m_pRouter; }

    // Adds "_s" with the next sender id (1, 2, 3, ...).
    void setSenderId(MessageItem* message);
    // The message's "_s" as a number; all ones without "_s".
    unsigned handler(MessageItem* message);

    // "#HsList" to "/system".
    MessageItem* createSystemListHostsMessage();
    // "#IsList" to `to`; null for an empty target.
    MessageItem* createListInterfacesMessage(const char* to);
    // "#EsList" to `to`; null for an empty target.
    MessageItem* createListEventsMessage(const char* to);
    // "#IsHas" with "inters"; null for an empty target or list.
    MessageItem* createHasInterfacesMessage(const char* to, const char* interfaces);
    // "NetHostSupportInterfaces" to "/system" with "inters" and "match".
    MessageItem* createListHostsSupportingInterfaces(const char* interfaces, bool match);
    // "#AdsSupIs" to host "@/system" (or "/system") with "inters".
    MessageItem* createSystemGetAddressesSupportingInterfacesMessage(const char* host, const char* interfaces);
    // "#reg" with "rname", "retm" and, to register, "reg" = "t".
    MessageItem* createEventRegistrationMessage(const char* returnMethod, const char* to, const char* remoteEventName,
                                                bool reg);
    // A plain request; null for a null target or method.
    MessageItem* createMessage(const char* to, const char* method);
    // A reply to request; null unless the request has "_f" and "_s".
    MessageItem* createReplyMessage(MessageItem* request, const char* response);
    // An event message of a created event, for post(); null otherwise.
    MessageItem* createEventMessage(const char* eventName);

    // Builds and posts an error reply; the request stays the caller's.
    int sendErrorMessage(int errorCode, MessageItem* request);
    // Posts (event messages fan out to the listeners); takes the message
    // whatever the result.
    int post(MessageRef message);
    // Delivery (worker thread): error, reply or request; the message is
    // released after the callback.
    void handleMessage(MessageRef message);

    // Creates an event (an existing one keeps its listeners); true.
    bool eventCreate(const std::string& name);
    // Drops an event and its listeners; true.
    bool eventDestroy(const std::string& name);
    // The listeners of an event, in order (empty for an unknown event).
    std::vector<EventEntry> eventListeners(const std::string& name);

private:
    // A new message with "_t", "_f", "_m"; null on failure.
    MessageItem* createBase(const char* to, const char* method);
    // Releases message and gives null when ok is false.
    static MessageItem* finishBuild(MessageItem* message, bool ok);
    // Sends a reply built from request; silently nothing when none can be built.
    void reply(MessageItem* request, const char* response);
    // The built-in "#IsHas" (silent on a pump without interfaces).
    void answerHasInterfaces(MessageItem* request);
    // The built-in "#EsList".
    void answerListEvents(MessageItem* request);
    // The built-in "#reg".
    void answerRegistration(MessageItem* request);
    // Fans an event message out to its listeners.
    int postEvent(MessageRef message);
    // Adds a listener's sender id, "_t" and "_m" to its copy, as many as fit;
    // false when not even the target fits.
    bool stampEventCopy(MessageItem* copy, const EventEntry& listener);
    // Hands an ordinary message to the router.
    int postToRouter(MessageRef message);

    std::string m_address;
    std::string m_interfaceNames;
    // Atomic so that ids stay unique when a pump builds on two threads (its
    // callbacks answer built-in requests on the worker thread).
    std::atomic<uint32_t> m_senderId;
    MessageRouter* m_pRouter;
    void* m_pContext;
    MessageCallback m_messageCallback;
    ErrorCallback m_errorCallback;
    ResponseCallback m_responseCallback;
    // Guards the interface list and the events table: built-in requests read
    // and "#reg" changes them on the worker thread while the application
    // sets interfaces, creates events and posts them.
    UlmarCommsSystem::Mutex m_lock;
    std::map<std::string, std::vector<EventEntry>> m_events;

    // Only a router going away clears a pump's router.
    friend class MessageRouter;
};

} // namespace UlmarComms
