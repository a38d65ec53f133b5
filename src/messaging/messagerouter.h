// The in-process router: its queue, its worker and the interfaces between a
// process router and the machine's system router.
//
// Each process has one MessageRouter: a table of its pumps by address, a
// queue and one worker thread that delivers every local message and so runs
// every pump callback. Messages for pumps elsewhere go to the ISystemRouter
// (the local link in an application, the system router in the service).
#pragma once

#include "core/address.h"
#include "core/byteaccount.h"
#include "messaging/messageitem.h"
#include "messaging/pumptable.h"
#include "platform/mutex.h"
#include "platform/thread.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace UlmarComms {

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
    // Routes one message; takes it whatever the result (false: not routed).
    virtual bool post(MessageRef message) = 0;
    // A link command from a process router (codes: CommandMessage).
    virtual void handleCommand(IMessageRouter* from, unsigned char command, const char* text) = 0;
    // Routes one message that arrived over the link of router from; the
    // system router uses the link to check the sender and to never send a
    // message back where it came from. Takes it whatever the result.
    virtual bool postFromLink(IMessageRouter*, MessageRef message) { return post(std::move(message)); }
    // Attaches the router to other hosts; only the system router uses it.
    virtual void setNetworkRouter(INetworkRouter*) {}

    // What waitForInput did.
    enum InputWait {
        InputUnsupported = -1, // no input to wait for: the worker waits on its condition
        InputDone = 0 // input completed here, or woken: nothing left taken
    };
    // Lets an idle router worker wait for the link's input itself, so that a
    // message arriving for this process is read and delivered on the worker
    // without first waking it from another thread. Waits, with no time-out,
    // for input, for the link to end, or for wakeHandle (an eventfd, drained
    // here) to be signalled; input is completed on the calling thread. The
    // default has no input.
    virtual int waitForInput(int) { return InputUnsupported; }
};

// A process router as the system router sees it.
class IMessageRouter {
public:
    // Routers are deleted through this interface.
    virtual ~IMessageRouter() = default;
    // Attaches the system router; false for null.
    virtual bool setSystemRouter(ISystemRouter* systemRouter) = 0;
    // Routes one message; takes it whatever the result (false: not routed).
    virtual bool post(MessageRef message) = 0;
    // A link command from the system router.
    virtual void commandHandler(unsigned char command, const char* text) = 0;
    // Announces the router's pumps again; the base has nothing to announce.
    virtual bool sendRoutingTableToSystemRouter() { return true; }
    // Whether the router has stopped and drops what it is posted: a refusal
    // from it leaves nobody to answer.
    virtual bool isStopped() { return false; }
    // The user behind a router that stands for another process (a link);
    // false for a router of this process.
    virtual bool linkUser(unsigned&) const { return false; }
    // The account that messages from this router are charged to while the
    // system router holds them for it (its user's, for a link); null: none.
    virtual std::shared_ptr<ByteAccount> heldMessagesAccount() const { return nullptr; }
};

// Intrusive FIFO of messages linked through MessageItem::m_pNext. It has no
// lock of its own: its owner's queue lock guards it. Queued messages belong
// to the queue; a message it refuses is released.
class MessageQueue {
public:
    MessageQueue();
    // Releases messages still queued: nobody else can reach them any more.
    ~MessageQueue();
    MessageQueue(const MessageQueue&) = delete;
    MessageQueue& operator=(const MessageQueue&) = delete;

    // Appends; false (and the message released) when closed or empty.
    bool push(MessageRef message);
    // Unlinks the oldest message; empty when closed or empty.
    MessageRef pop();
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
    // before the caller replaced it (woken by the worker, not polled).
    void waitUntilSystemRouterReleased();
    ~MessageRouterWorker() override;

private:
    // Waits idle for the system router's input; false when it has none.
    bool waitForInput();
    // Ends an input wait at once.
    void wakeInputWait();
    // Marks the start of a call into the system router.
    void enterSystemRouter();
    // Marks its end and wakes a waitUntilSystemRouterReleased in progress.
    void leaveSystemRouter();

    // The wait predicate: work was announced since the worker last looked.
    static bool hasPendingWork(void* worker);
    // One message through the router; an escaping exception is dropped.
    void deliver(MessageRef message);

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
    // waitUntilSystemRouterReleased calls in progress; the worker takes the
    // release lock to wake them only then. Paired with m_usingSystemRouter
    // (both sequentially consistent), so one side always sees the other.
    std::atomic<int> m_releaseWaiters;
    // Guards m_releases; a leaf lock (std::mutex), held for a count or a wait.
    std::mutex m_releaseLock;
    // Calls into the system router that ended while a waiter was counted.
    uint64_t m_releases;
    // Signalled after m_releases changes.
    std::condition_variable m_released;
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
    // router. Takes the message whatever the result; false when not started,
    // finished meanwhile or refused by the system router.
    bool post(MessageRef message) override;
    // Delivers one message to its pump (worker thread).
    bool processMessage(MessageRef message);
    // A router without a worker drops what it is posted.
    bool isStopped() override { return !isStarted(); }
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

    // The next queued message, under the queue lock; empty when none.
    MessageRef nextMessage();
    // Hands a message with no local pump to the system router.
    bool passToSystemRouter(MessageRef message);
    // The text of an interface announcement: address ":" interface list.
    static std::string interfaceText(MessagePump* pump);
    // Sends one command when a system router is set.
    void announce(unsigned char command, const std::string& text);
    // Waits until the worker is not delivering to pump (unless we are it).
    void waitForDeliveryToEnd(MessagePump* pump);
    // Returns once the worker no longer uses a system router just replaced.
    void waitForWorkerToLeaveSystemRouter();
    // Whether the calling thread is this router's worker.
    bool onWorkerThread() const;

    std::atomic<ISystemRouter*> m_pSystemRouter;
    // Guarded by the queue lock; posts test it where they push.
    MessageRouterWorker* m_pWorker;
    // The worker's thread while its loop runs, else no thread: a callback
    // (always on the worker) must not wait for the worker, nor need a kick.
    std::atomic<std::thread::id> m_workerThread;
    UlmarCommsSystem::Mutex m_tableLock;
    // The pumps; guarded by the table lock.
    PumpTable m_table;
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

} // namespace UlmarComms
