// The messaging family: the message record that every part builds, reads and
// serialises, and (with the in-process router) the queue, the router, its
// worker and the message pumps.
//
// A message is an ordered list of at most 25 text pairs; the routing header
// is a set of reserved keys inside that list. Messages are reference counted
// by hand and have no lock: one thread owns a message at a time, and messages
// cross threads only through a router queue, whose lock orders the hand-over.
//
// Each process has one MessageRouter: a table of its pumps by address, a
// queue and one worker thread that delivers every local message and so runs
// every pump callback. Messages for pumps elsewhere go to the ISystemRouter
// (the local link in an application, the system router in the service).
// Ownership: a message handed to a post operation is the receiver's from then
// on; a delivered message is released after the callback unless the callback
// took a reference.
#pragma once

#include "core/address.h"
#include "core/limits.h"
#include "platform/mutex.h"
#include "platform/thread.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace UlmarComms {

class MessageItem {
public:
    // Pairs one message holds at most (core/limits.h).
    static constexpr int s_maxNumberArguments = Limits::MessagePairs;

    // Reserved header keys.
    static const char* const ArgumentKey_To;
    static const char* const ArgumentKey_From;
    static const char* const ArgumentKey_Mode;
    static const char* const ArgumentKey_Method;
    static const char* const ArgumentKey_Response;
    static const char* const ArgumentKey_SenderId;
    static const char* const ArgumentKey_ResponseId;
    static const char* const ArgumentKey_ErrorRoutingHostId;

    // Mode codes (the first character of "_M").
    static constexpr char Mode_Normal = 'N';
    static constexpr char Mode_Error = 'E';
    // The same codes as texts, for adding as values.
    static const char* const Mode_NormalText;
    static const char* const Mode_ErrorText;

    // Byte constants of the packet form; the command pair is declared only.
    static constexpr unsigned char DataPacket_MessageHead = 0xA4;
    static constexpr unsigned char DataPacket_MessageEnd = 0x8B;
    static constexpr unsigned char DataPacket_CommandHead = 0xB4;
    static constexpr unsigned char DataPacket_CommandEnd = 0x4B;

    // A new empty message with count 1, or null when memory ran out.
    static MessageItem* create();
    // Drops one reference; the last one frees the message. Null is ignored.
    static void release(MessageItem* item);
    // A new message (count 1) with every pair of source added in order; the
    // event name is not copied. Null for a null source.
    static MessageItem* createAndCopy(MessageItem* source);

    // Adds one reference.
    void incrementCount();
    // The current reference count.
    int32_t count() const { return m_count; }

    // Appends a pair; false for a null text, a full message or no memory.
    // "_t"/"_f" values beginning with "localhost" get the host name instead.
    bool add(const char* key, const char* value);
    // Adds "_t", "_f", "_m", "_s" in that order; false at the first failure.
    bool set(const char* to, const char* from, const char* method, const char* senderId);
    // Adds "_r" then "_R"; false at the first failure.
    bool setResponse(const char* response, const char* responseId);
    // Names the event this message announces (never serialised).
    void setEventName(const std::string& name);
    // The event name; empty for ordinary messages.
    const std::string& eventName() const { return m_eventName; }

    // The number of stored pairs.
    uint8_t numberOfArguments() const { return m_argumentCount; }
    // The key of pair i, or null for a bad index.
    const char* key(int i) const;
    // The value of pair i, or null for a bad index.
    const char* value(int i) const;
    // The key of pair i and its stored length (NUL included).
    const char* key(int i, unsigned& length) const;
    // The value of pair i and its stored length (NUL included).
    const char* value(int i, unsigned& length) const;
    // Whether any pair has this key.
    bool hasKey(const char* key) const;
    // The value of the first pair with this key, or null.
    const char* value(const char* key) const;
    // Scans "_t" and "_f" (last occurrence wins); both outputs cleared first.
    void getMandatoryRoutingFields(char** to, char** from) const;
    // Scans the seven header keys (last occurrence wins); outputs whose key
    // is absent are left as they were.
    void getMandatoryFields(char** to, char** from, char** mode, char** senderId,
                            char** responseId, char** response, char** method) const;

    // Same pairs regardless of order (first values compared by key).
    bool compare(const MessageItem* other) const;
    // Same as compare.
    bool operator==(const MessageItem& other) const { return compare(&other); }

    // The size of the packet form in bytes.
    uint32_t memSize() const;
    // Static form used by the frame layer; null gives 0.
    static uint32_t memSize(const MessageItem* item) { return item != nullptr ? item->memSize() : 0; }
    // Writes the packet form; size always receives memSize().
    bool toBuffer(unsigned& size, unsigned char* buffer, unsigned capacity) const;
    // Reads a packet into this (empty) message; false for a malformed packet.
    bool fromBuffer(const unsigned char* buffer, unsigned length);

    // Next message while queued in a router queue; null otherwise.
    MessageItem* m_pNext;

private:
    MessageItem();
    ~MessageItem();
    MessageItem(const MessageItem&) = delete;
    MessageItem& operator=(const MessageItem&) = delete;

    // Texts of an ordinary message fit here, so building, receiving and
    // freeing one costs a single allocation: on the message path the
    // allocator was the largest cost of all.
    static constexpr unsigned s_inlineTextBytes = 320;

    // A block taken when the texts outgrow the inline space; its bytes
    // follow it. Blocks are never moved, so stored texts keep their address.
    struct TextBlock {
        TextBlock* next;
    };

    // Room for length text bytes; null when memory ran out.
    char* allocateText(size_t length);
    // Makes sure the next length text bytes need no further allocation.
    bool reserveText(size_t length);
    // Copies length bytes into the text storage; null when memory ran out.
    char* storeBytes(const char* text, size_t length);

    uint8_t m_argumentCount;
    int32_t m_count;
    char* m_keys[s_maxNumberArguments];
    char* m_values[s_maxNumberArguments];
    uint32_t m_valueLengths[s_maxNumberArguments];
    uint8_t m_keyLengths[s_maxNumberArguments];
    static_assert(Limits::MessageKeyBytes == UINT8_MAX, "a key's length travels in one byte");
    std::string m_eventName;
    // Where the next text goes and how many bytes are left there.
    char* m_pFreeText;
    size_t m_freeTextBytes;
    // Overflow blocks, newest first.
    TextBlock* m_pBlocks;
    alignas(8) char m_inlineText[s_inlineTextBytes];
};

class INetworkRouter;
class IMessageRouter;
class MessagePump;
class MessageRouter;

// The per-machine router as a process router sees it.
class ISystemRouter {
public:
    // Routers are deleted through this interface.
    virtual ~ISystemRouter() = default;
    // Starts routing.
    virtual bool start() = 0;
    // Stops routing.
    virtual void finish() = 0;
    // Registers a process router.
    virtual bool add(IMessageRouter* router) = 0;
    // Forgets a process router.
    virtual bool remove(IMessageRouter* router) = 0;
    // Takes the message when it returns true; on false the caller keeps it.
    virtual bool post(MessageItem* message) = 0;
    // A link command from a process router (codes: CommandMessage).
    virtual void handleCommand(IMessageRouter* from, unsigned char command, const char* text) = 0;
    // Attaches the router to other hosts; only the system router uses it.
    virtual void setNetworkRouter(INetworkRouter*) {}
    // From here until the matching flushHeldWrites, messages this thread
    // posts to links are queued there unwritten; the flush writes them, one
    // send per link. Calls nest. The defaults do nothing.
    virtual void holdWrites() {}
    virtual void flushHeldWrites() {}

    // What waitForInput did.
    enum InputWait {
        InputUnsupported = -1, // no input to wait for: the worker waits on its condition
        InputDone = 0,         // input completed here, or woken: nothing left taken
        InputTaken = 1         // timed out; the link's read stays taken until releaseInput
    };
    // Lets an idle router worker wait for the link's input itself, so that a
    // message arriving for this process is read and delivered on the worker
    // without first waking it from another thread. Waits at most ms for
    // input, or for wakeHandle (an eventfd, drained here) to be signalled;
    // input is completed on the calling thread. The default has no input.
    virtual int waitForInput(unsigned, int) { return InputUnsupported; }
    // Hands a read left taken by waitForInput back to the link's usual
    // readers, before the worker gets busy.
    virtual void releaseInput() {}
};

// A process router as the system router sees it.
class IMessageRouter {
public:
    // Routers are deleted through this interface.
    virtual ~IMessageRouter() = default;
    // Attaches the system router; false for null.
    virtual bool setSystemRouter(ISystemRouter* systemRouter) = 0;
    // Routes one message (see MessageRouter::post for ownership).
    virtual bool post(MessageItem* message) = 0;
    // A link command from the system router.
    virtual void commandHandler(unsigned char command, const char* text) = 0;
    // Announces the router's pumps again; the base has nothing to announce.
    virtual bool sendRoutingTableToSystemRouter() { return true; }
    // Whether postHeld queues without writing (links do, routers do not).
    virtual bool canHoldWrites() const { return false; }
    // post, but a link only queues the message until flushHeld.
    virtual bool postHeld(MessageItem* message) { return post(message); }
    // Writes what postHeld queued.
    virtual void flushHeld() {}
};

// Intrusive FIFO of messages linked through MessageItem::m_pNext. It has no
// lock of its own: its owner's queue lock guards it. Queued messages belong
// to the queue.
class MessageQueue {
public:
    MessageQueue();
    // Releases messages still queued: nobody else can reach them any more.
    ~MessageQueue();
    MessageQueue(const MessageQueue&) = delete;
    MessageQueue& operator=(const MessageQueue&) = delete;

    // Appends; false (message untouched) when closed or null.
    bool push(MessageItem* message);
    // Unlinks the oldest message; null when closed or empty.
    MessageItem* pop();
    // Messages queued.
    uint32_t count() const { return m_count; }
    // Closes the queue for good: push and pop refuse from then on.
    void lock() { m_closed = true; }

private:
    MessageItem* m_pHead;
    MessageItem* m_pTail;
    uint32_t m_count;
    bool m_closed;
};

// The router's delivery thread ("router worker"): pops the queue and hands
// each message to MessageRouter::processMessage.
class MessageRouterWorker : public UlmarCommsSystem::Thread {
public:
    explicit MessageRouterWorker(MessageRouter* router);

    // The delivery loop; returns true (1) when shut down.
    unsigned run() override;
    // Sets running and starts the thread; false without a router.
    bool start() override;
    // Wakes the worker: a message was queued.
    void kick();
    // Stops the loop and joins the thread.
    void shutdown();
    // Tells the loop to end and wakes it, without joining.
    void stopSoon();
    // Returns once the worker no longer uses the system router it read
    // before the caller replaced it.
    void waitUntilSystemRouterReleased();
    // Whether the worker ended with a link read taken (after it was joined).
    bool leftInputTaken() const { return m_inputTaken; }
    ~MessageRouterWorker() override;

private:
    // Waits idle for the system router's input; false when it has none.
    bool waitForInput();
    // Gives back a link read left taken by the last input wait.
    void releaseInput();
    // Ends an input wait at once.
    void wakeInputWait();

    // The wait predicate: work was announced since the worker last looked.
    static bool hasPendingWork(void* worker);
    // One message through the router; an escaping exception is dropped.
    void deliver(MessageItem* message);

    MessageRouter* m_pRouter;
    std::atomic<bool> m_running;
    UlmarCommsSystem::ConditionValue m_condition;
    // Set by kick(), cleared by the worker just before its last look at the
    // queue; checked under the condition's mutex so a kick is never lost.
    std::atomic<bool> m_pending;
    // The eventfd that ends an input wait, -1 when none could be made.
    int m_wakeHandle;
    // The worker is in (or about to enter) an input wait: kicks write
    // m_wakeHandle. Paired with m_pending, so one side always sees the other.
    std::atomic<bool> m_inInputWait;
    // The worker is calling into the system router it loaded.
    std::atomic<bool> m_usingSystemRouter;
    // The last input wait timed out with the link's read taken (worker only).
    bool m_inputTaken;
};

// One entry of a router's table: a pump and its parsed address.
struct MessageRouterEntry {
    // The pump's address as parsed when it joined.
    Address address;
    // The pump (not owned).
    MessagePump* pump;
};

// The per-process router: table of pumps, queue and worker.
//
// Threads: application threads call add, remove, changeInterfaceNames and
// post; link threads call post and sendRoutingTableToSystemRouter; the
// worker calls processMessage and so runs every pump callback.
class MessageRouter : public IMessageRouter {
public:
    MessageRouter();
    // Kills a worker still running, releases queued messages, frees the table.
    ~MessageRouter() override;
    MessageRouter(const MessageRouter&) = delete;
    MessageRouter& operator=(const MessageRouter&) = delete;

    // Stores a non-null system router and registers with it (its add result).
    bool setSystemRouter(ISystemRouter* systemRouter) override;
    // The system router, or null.
    ISystemRouter* systemRouter() const { return m_pSystemRouter; }
    // Forgets systemRouter (if it is the one set) without telling it: for an
    // owner about to delete a system router that never started. Returns once
    // the worker no longer uses it.
    void detachSystemRouter(ISystemRouter* systemRouter);
    // Starts the worker; false without a system router or when it fails.
    bool start();
    // Stops and joins the worker; false when not started or called from a
    // callback (the worker cannot join itself).
    bool finish();
    // Whether a worker exists.
    bool isStarted();

    // Appends the pump to the table and announces it (with its interfaces).
    bool add(MessagePump* pump);
    // Announces the removal and drops the pump's entry (the last entry takes
    // its slot). Once it returns, the worker no longer touches the pump.
    bool remove(MessagePump* pump);
    // Announces the pump's interface list; false without a system router.
    bool changeInterfaceNames(MessagePump* pump, const char* names);
    // The best local pump for an address, or null (other host, no match).
    MessagePump* findTargetMessagePump(const char* to);
    // Pumps in the table.
    unsigned numberOfPumps();
    // Empties the table, leaving each pump in it without a router, without
    // announcing anything: for an owner about to delete a finished router
    // whose pumps live on (a later post through one gets "no router").
    void releasePumps();

    // Routes one message: local pumps through the queue, others to the system
    // router. False and released when not started; false and NOT released
    // when the system router refused it (the caller still owns it).
    bool post(MessageItem* message) override;
    // post() that also says whether the message was taken (queued, forwarded
    // or released); when consumed is false the caller still owns it.
    bool post(MessageItem* message, bool& consumed);
    // Delivers one message to its pump (worker thread); always consumes it.
    bool processMessage(MessageItem* message);
    // Commands from the system router mean nothing to a process router.
    void commandHandler(unsigned char command, const char* text) override;
    // Announces every pump but the first in the table again (the first is
    // deliberately skipped) with its interfaces.
    bool sendRoutingTableToSystemRouter() override;

    // A new message with "_t", "_f", "_m"; null on a null text or no memory.
    static MessageItem* create(const char* to, const char* from, const char* method);
    // MessageItem::add on the message.
    static bool addKeyValuePair(MessageItem* message, const char* key, const char* value);
    // Releases one reference.
    static void destroy(MessageItem* message);

    // A router some callers treat as the process's main one; only the
    // destructor of the router it names writes it.
    static MessageRouter* s_pMaster;

private:
    friend class MessageRouterWorker;

    // The next queued message, under the queue lock; null when none.
    MessageItem* nextMessage();
    // Best entry for target; caller holds the table lock.
    MessagePump* findLocked(const Address& target);
    // The text of an interface announcement: address ":" interface list.
    static std::string interfaceText(MessagePump* pump);
    // Sends one command when a system router is set.
    void announce(unsigned char command, const std::string& text);
    // Waits until the worker is not delivering to pump (unless we are it).
    void waitForDeliveryToEnd(MessagePump* pump);
    // Returns once the worker no longer uses a system router just replaced.
    void waitForWorkerToLeaveSystemRouter();
    // Whether the calling thread is this router's worker inside a delivery.
    bool onWorkerThread() const;

    std::atomic<ISystemRouter*> m_pSystemRouter;
    // Guarded by the queue lock; posts test it where they push.
    MessageRouterWorker* m_pWorker;
    UlmarCommsSystem::Mutex m_tableLock;
    MessageRouterEntry** m_entries;
    unsigned m_count;
    unsigned m_capacity;
    UlmarCommsSystem::Mutex m_queueLock;
    MessageQueue m_queue;
    // Serialises announcements so the system router hears them in table
    // order, without holding the table lock while calling out: in the
    // service the system router calls post() under its own table lock, so
    // holding ours across handleCommand could deadlock the two.
    UlmarCommsSystem::Mutex m_announceLock;
    // The pump the worker is delivering to (set under the table lock), so
    // that remove() can wait until the pump is no longer in use.
    std::atomic<MessagePump*> m_pDelivering;
    // remove() calls waiting on m_deliveryDone; the worker signals only then.
    std::atomic<int> m_removeWaiters;
    UlmarCommsSystem::ConditionValue m_deliveryDone;
};

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
    MessageItem* createEventRegistrationMessage(const char* returnMethod, const char* to,
                                                const char* remoteEventName, bool reg);
    // A plain request; null for a null target or method.
    MessageItem* createMessage(const char* to, const char* method);
    // A reply to request; null unless the request has "_f" and "_s".
    MessageItem* createReplyMessage(MessageItem* request, const char* response);
    // An event message of a created event, for post(); null otherwise.
    MessageItem* createEventMessage(const char* eventName);

    // Builds and posts an error reply; the request stays the caller's.
    int sendErrorMessage(int errorCode, MessageItem* request);
    // Posts (event messages fan out to the listeners). Always takes the
    // message, whatever the result.
    int post(MessageItem* message);
    // Delivery (worker thread): error, reply or request; always consumes.
    void handleMessage(MessageItem* message);

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
    int postEvent(MessageItem* message);
    // Adds a listener's sender id, "_t" and "_m" to its copy, as many as fit;
    // false when not even the target fits.
    bool stampEventCopy(MessageItem* copy, const EventEntry& listener);
    // Hands an ordinary message to the router.
    int postToRouter(MessageItem* message);

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
