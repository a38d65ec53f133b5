// The router, its queue and its worker.
//
// Every hand-over to the worker and back (kicks, stopping, a remove waiting
// for a delivery) either sets state the waiter checks under its condition's
// own mutex, or writes the eventfd that ends its wait for the link's input,
// so no wake-up can be lost and every wait is without a time-out: an idle
// process's router does not wake at all.
//
// Delivery runs on the router's one worker thread; the table lock is never
// held while a pump's handler or the system router is called (only the pump's
// own innermost lock may be taken under it, to read its interface names), so
// callbacks may post, add and remove pumps freely, and remove() waits for an
// in-flight delivery to that pump so that a removed pump can be deleted at
// once.
#include "messaging/messagerouter.h"

#include "core/core.h"
#include "messaging/commandmessage.h"
#include "messaging/messagepump.h"

#include <cxxabi.h>
#include <new>
#include <pthread.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace UlmarComms {

namespace {

// What remove() waits on: the worker has left the pump.
struct DeliveryWait {
    const std::atomic<MessagePump*>* delivering;
    const MessagePump* pump;
};

bool deliveryLeftPump(void* context)
{
    const DeliveryWait* wait = static_cast<const DeliveryWait*>(context);
    return wait->delivering->load() != wait->pump;
}

} // namespace

MessageQueue::MessageQueue() : m_pHead(nullptr), m_pTail(nullptr), m_count(0), m_closed(false)
{
}

MessageQueue::~MessageQueue()
{
    // Leftovers are released here rather than leaked: once the owner is gone
    // no one can pop them, and each holds the queue's one reference.
    while (m_pHead != nullptr) {
        MessageRef message(m_pHead);
        m_pHead = message->m_pNext;
        message->m_pNext = nullptr;
    }
}

bool MessageQueue::push(MessageRef queued)
{
    if (m_closed || !queued)
        return false;
    MessageItem* message = queued.release();
    message->m_pNext = nullptr;
    if (m_pTail != nullptr)
        m_pTail->m_pNext = message;
    else
        m_pHead = message;
    m_pTail = message;
    ++m_count;
    return true;
}

MessageRef MessageQueue::pop()
{
    if (m_closed || m_pHead == nullptr)
        return MessageRef();
    MessageRef message(m_pHead);
    m_pHead = message->m_pNext;
    if (m_pHead == nullptr)
        m_pTail = nullptr;
    message->m_pNext = nullptr;
    --m_count;
    return message;
}

MessageRouterWorker::MessageRouterWorker(MessageRouter* router)
    : m_pRouter(router),
      m_running(false),
      m_pending(false),
      m_wakeHandle(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_inInputWait(false),
      m_usingSystemRouter(false),
      m_releaseWaiters(0),
      m_releases(0)
{
}

MessageRouterWorker::~MessageRouterWorker()
{
    if (m_wakeHandle >= 0)
        close(m_wakeHandle);
}

bool MessageRouterWorker::start()
{
    if (m_pRouter == nullptr)
        return false;
    m_running = true;
    return Thread::start();
}

void MessageRouterWorker::kick()
{
    // Only the first kick after the worker last emptied the queue needs to
    // wake it; later ones find it still draining. The worker itself (input
    // it completed while waiting) looks at the queue next anyway.
    if (m_pending.exchange(true) || m_pRouter->onWorkerThread())
        return;
    if (m_inInputWait.load())
        wakeInputWait();
    m_condition.broadcastLocked();
}

void MessageRouterWorker::wakeInputWait()
{
    if (m_wakeHandle < 0)
        return;
    const uint64_t one = 1;
    // A full counter already wakes the wait; nothing else can fail here.
    ssize_t written = write(m_wakeHandle, &one, sizeof(one));
    (void)written;
}

void MessageRouterWorker::stopSoon()
{
    m_running = false;
    wakeInputWait();
    m_condition.broadcastLocked();
}

void MessageRouterWorker::shutdown()
{
    stopSoon();
    waitToFinish();
}

void MessageRouterWorker::waitUntilSystemRouterReleased()
{
    // The caller stored the new system router first, so a worker that loads
    // it from now on gets the new one; one still in the old is woken and
    // wakes us as it leaves. Any call that ends after we counted ourselves
    // ends the wait: the one in the old router ends no later than that.
    ++m_releaseWaiters;
    {
        std::unique_lock<std::mutex> lock(m_releaseLock);
        const uint64_t seen = m_releases;
        while (m_usingSystemRouter.load() && m_releases == seen) {
            wakeInputWait();
            m_released.wait(lock);
        }
    }
    --m_releaseWaiters;
}

void MessageRouterWorker::enterSystemRouter()
{
    m_usingSystemRouter = true;
}

void MessageRouterWorker::leaveSystemRouter()
{
    m_usingSystemRouter = false;
    // A waiter counted itself before it looked at the flag, so either it saw
    // the flag clear or we see it here and wake it under its lock.
    if (m_releaseWaiters.load() == 0)
        return;
    {
        std::lock_guard<std::mutex> lock(m_releaseLock);
        ++m_releases;
    }
    m_released.notify_all();
}

bool MessageRouterWorker::waitForInput()
{
    if (m_wakeHandle < 0)
        return false;
    m_inInputWait = true;
    if (m_pending.load()) {
        // A kick came in between: the queue has work.
        m_inInputWait = false;
        return true;
    }
    enterSystemRouter();
    ISystemRouter* systemRouter = m_pRouter->systemRouter();
    const int done =
        systemRouter != nullptr ? systemRouter->waitForInput(m_wakeHandle) : ISystemRouter::InputUnsupported;
    leaveSystemRouter();
    m_inInputWait = false;
    return done != ISystemRouter::InputUnsupported;
}

bool MessageRouterWorker::hasPendingWork(void* worker)
{
    MessageRouterWorker* self = static_cast<MessageRouterWorker*>(worker);
    return self->m_pending.load() || !self->m_running.load();
}

unsigned MessageRouterWorker::run()
{
    // The router's destructor may cancel this thread. Cancellation is allowed
    // only in the idle wait, where the worker holds no message and no lock.
    int previous = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
    m_pRouter->m_workerThread = std::this_thread::get_id();
    while (m_running) {
        MessageRef message = m_pRouter->nextMessage();
        if (!message) {
            // Clear the flag, then look once more: a message pushed before
            // the clear is seen now, one pushed after it sets the flag again
            // and the wait below returns at once.
            m_pending = false;
            message = m_pRouter->nextMessage();
        }
        if (!message) {
            // Idle: wait for the link's input here when the system router
            // offers it, else on the condition.
            if (waitForInput())
                continue;
            pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous);
            m_condition.waitUnless(&MessageRouterWorker::hasPendingWork, this);
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
            continue;
        }
        deliver(std::move(message));
    }
    m_pRouter->m_workerThread = std::thread::id();
    return 1;
}

void MessageRouterWorker::deliver(MessageRef message)
{
    // Only the address is logged after a failure: the message is gone then.
    const void* shown = message.get();
    try {
        if (!m_pRouter->processMessage(std::move(message)))
            Core::log(Core::LogError, "MessageRouterWorker::run() this=%p Failed to process message %p\n ",
                      static_cast<void*>(this), shown);
    } catch (...) {
        // A thread cancellation (foreign, typeless) must run on; anything
        // else is dropped: processMessage took the message.
        if (abi::__cxa_current_exception_type() == nullptr)
            throw;
    }
}

MessageRouter* MessageRouter::s_pMaster = nullptr;

MessageRouter::MessageRouter()
    : m_pSystemRouter(nullptr), m_pWorker(nullptr), m_workerThread(), m_pDelivering(nullptr), m_removeWaiters(0)
{
}

MessageRouter::~MessageRouter()
{
    MessageRouterWorker* worker = nullptr;
    {
        UlmarCommsSystem::MutexLocker queue(m_queueLock);
        worker = m_pWorker;
        m_pWorker = nullptr;
    }
    if (worker != nullptr) {
        // An owner that did not finish() gets its worker killed, not asked to
        // stop. The cancelled thread is still reaped before the object goes:
        // it can only be cancelled while idle, so the join is short. A worker
        // idle on the link's input is at no cancellation point: it is told
        // to stop as well, and leaves at once.
        worker->stopSoon();
        worker->kill();
        worker->waitToFinish();
        delete worker;
    }
    if (s_pMaster == this)
        s_pMaster = nullptr;
    // m_table frees its entries, m_queue's destructor releases the messages still queued.
}

bool MessageRouter::setSystemRouter(ISystemRouter* systemRouter)
{
    if (systemRouter == nullptr)
        return false;
    m_pSystemRouter = systemRouter;
    waitForWorkerToLeaveSystemRouter();
    return systemRouter->add(this);
}

void MessageRouter::detachSystemRouter(ISystemRouter* systemRouter)
{
    m_pSystemRouter.compare_exchange_strong(systemRouter, nullptr);
    waitForWorkerToLeaveSystemRouter();
}

void MessageRouter::waitForWorkerToLeaveSystemRouter()
{
    MessageRouterWorker* worker = nullptr;
    {
        UlmarCommsSystem::MutexLocker queue(m_queueLock);
        worker = m_pWorker;
    }
    // The worker's own callbacks never replace the system router, and the
    // worker object lives until finish(), which the owner does not run
    // concurrently with this.
    if (worker != nullptr && !onWorkerThread())
        worker->waitUntilSystemRouterReleased();
}

bool MessageRouter::start()
{
    if (m_pSystemRouter.load() == nullptr)
        return false;
    UlmarCommsSystem::MutexLocker queue(m_queueLock);
    if (m_pWorker != nullptr)
        return true;
    MessageRouterWorker* worker = new (std::nothrow) MessageRouterWorker(this);
    if (worker == nullptr)
        return false;
    if (!worker->start()) {
        delete worker;
        return false;
    }
    m_pWorker = worker;
    return true;
}

bool MessageRouter::finish()
{
    if (onWorkerThread()) {
        Core::log(Core::LogError, "MessageRouter::finish() this=%p called from its own worker thread.\n",
                  static_cast<void*>(this));
        return false;
    }
    MessageRouterWorker* worker = nullptr;
    {
        // Posts from now on are refused rather than stranded in the queue.
        UlmarCommsSystem::MutexLocker queue(m_queueLock);
        worker = m_pWorker;
        m_pWorker = nullptr;
    }
    if (worker == nullptr)
        return false;
    worker->shutdown();
    delete worker;
    return true;
}

bool MessageRouter::isStarted()
{
    UlmarCommsSystem::MutexLocker queue(m_queueLock);
    return m_pWorker != nullptr;
}

std::string MessageRouter::interfaceText(MessagePump* pump)
{
    return std::string(pump->address()) + ":" + pump->interfaceNames();
}

void MessageRouter::announce(unsigned char command, const std::string& text)
{
    ISystemRouter* systemRouter = m_pSystemRouter;
    if (systemRouter == nullptr)
        return;
    try {
        systemRouter->handleCommand(this, command, text.c_str());
    } catch (...) {
        Core::log(Core::LogError, "MessageRouter::announce( %d, %s ) this=%p The system router threw.\n", command,
                  text.c_str(), static_cast<void*>(this));
    }
}

bool MessageRouter::add(MessagePump* pump)
{
    if (pump == nullptr)
        return false;
    try {
        UlmarCommsSystem::MutexLocker announcing(m_announceLock);
        {
            UlmarCommsSystem::MutexLocker table(m_tableLock);
            if (!m_table.add(pump, Address(pump->address())))
                return false;
        }
        announce(CommandMessage::AddMessagePump, pump->address());
        if (!pump->interfaceNames().empty())
            announce(CommandMessage::AddInterfaceNamesToMessagePump, interfaceText(pump));
        return true;
    } catch (...) {
        return false;
    }
}

bool MessageRouter::remove(MessagePump* pump)
{
    if (pump == nullptr)
        return false;
    bool found = false;
    {
        UlmarCommsSystem::MutexLocker announcing(m_announceLock);
        announce(CommandMessage::RemoveMessagePump, pump->address());
        UlmarCommsSystem::MutexLocker table(m_tableLock);
        found = m_table.remove(pump);
    }
    if (!found) {
        Core::log(Core::LogWarning, "MessageRouter::remove( %s ) Failed to remove message pump from routing table.\n",
                  pump->address());
        return false;
    }
    waitForDeliveryToEnd(pump);
    return true;
}

bool MessageRouter::onWorkerThread() const
{
    return m_workerThread.load() == std::this_thread::get_id();
}

void MessageRouter::waitForDeliveryToEnd(MessagePump* pump)
{
    // A callback removing a pump (even its own) must not wait for itself; it
    // knows the delivery up its stack.
    if (onWorkerThread())
        return;
    DeliveryWait wait{&m_pDelivering, pump};
    // Counted before the check under the condition's mutex, so the worker
    // clearing the pump after the check sees us and broadcasts.
    ++m_removeWaiters;
    while (!deliveryLeftPump(&wait))
        m_deliveryDone.waitUnless(&deliveryLeftPump, &wait);
    --m_removeWaiters;
}

bool MessageRouter::changeInterfaceNames(MessagePump* pump, const char* names)
{
    if (pump == nullptr)
        return false;
    try {
        UlmarCommsSystem::MutexLocker announcing(m_announceLock);
        if (m_pSystemRouter.load() == nullptr) {
            Core::log(Core::LogError, "MessageRouter::changeInterfaceNames( %s, %s ) No System Router.\n",
                      pump->address(), names != nullptr ? names : "");
            return false;
        }
        announce(CommandMessage::AddInterfaceNamesToMessagePump, interfaceText(pump));
        return true;
    } catch (...) {
        return false;
    }
}

MessagePump* MessageRouter::findTargetMessagePump(const char* to)
{
    try {
        const Address target(to);
        const std::string& ownHost = Core::instance()->getHostName();
        if (!target.host().empty() && target.host() != ownHost) {
            Core::log(Core::LogWarning, "Routing Table '%s' != '%s'\n", target.host().c_str(), ownHost.c_str());
            return nullptr;
        }
        UlmarCommsSystem::MutexLocker table(m_tableLock);
        return m_table.best(target);
    } catch (...) {
        return nullptr;
    }
}

unsigned MessageRouter::numberOfPumps()
{
    UlmarCommsSystem::MutexLocker table(m_tableLock);
    return m_table.size();
}

void MessageRouter::releasePumps()
{
    UlmarCommsSystem::MutexLocker table(m_tableLock);
    for (unsigned i = 0; i < m_table.size(); ++i) {
        if (m_table.at(i)->m_pRouter == this)
            m_table.at(i)->m_pRouter = nullptr;
    }
    m_table.clear();
}

bool MessageRouter::post(MessageRef message)
{
    // The address stays printable after the message has been handed on.
    const void* shown = message.get();
    Core::message("MessageRouter::post( %p ) this=%p\n", shown, static_cast<void*>(this));
    if (!message || !isStarted())
        return false;
    char* to = nullptr;
    char* from = nullptr;
    message->getMandatoryRoutingFields(&to, &from);
    if (findTargetMessagePump(to) == nullptr)
        return passToSystemRouter(std::move(message));
    Core::message("MessageRouter::post( %p ) this=%p posting onto the queue.\n", shown, static_cast<void*>(this));
    UlmarCommsSystem::MutexLocker queue(m_queueLock);
    // The router may have been finished since the test above.
    if (m_pWorker == nullptr || !m_queue.push(std::move(message)))
        return false;
    m_pWorker->kick();
    return true;
}

bool MessageRouter::passToSystemRouter(MessageRef message)
{
    const void* shown = message.get();
    Core::message("MessageRouter::post( %p ) this=%p Passing to system router object.\n", shown,
                  static_cast<void*>(this));
    ISystemRouter* systemRouter = m_pSystemRouter;
    if (systemRouter != nullptr && systemRouter->post(std::move(message))) {
        Core::message("MessageRouter::post( %p ) this=%p Posted message to system router\n", shown,
                      static_cast<void*>(this));
        return true;
    }
    Core::log(Core::LogWarning, "MessageRouter::post( %p ) this=%p Failed to pass on message to system router\n", shown,
              static_cast<void*>(this));
    return false;
}

MessageRef MessageRouter::nextMessage()
{
    UlmarCommsSystem::MutexLocker queue(m_queueLock);
    return m_queue.pop();
}

bool MessageRouter::processMessage(MessageRef message)
{
    const void* shown = message.get();
    Core::message("MessageRouter::processMessage( %p ) this=%p\n", shown, static_cast<void*>(this));
    if (!message) {
        Core::log(Core::LogError, "MessageRouter::processMessage( %p ) this=%p Yep message is NULL!\n", shown,
                  static_cast<void*>(this));
        return false;
    }
    char* to = nullptr;
    char* from = nullptr;
    message->getMandatoryRoutingFields(&to, &from);
    MessagePump* pump = nullptr;
    {
        // Found and marked in one step, so remove() either takes the entry
        // first or sees this delivery and waits for it.
        UlmarCommsSystem::MutexLocker table(m_tableLock);
        pump = findTargetMessagePump(to);
        m_pDelivering = pump;
    }
    if (pump == nullptr) {
        Core::log(Core::LogWarning,
                  "MessageRouter::processMessage( %p ) this=%p Unable to find message pump to route message to.\n",
                  shown, static_cast<void*>(this));
        return false;
    }
    // Ended however the handler leaves (an exception, a cancellation): a
    // remove() waiting for this pump has no time-out to notice it otherwise.
    struct DeliveryEnd {
        MessageRouter* router;
        ~DeliveryEnd()
        {
            router->m_pDelivering = nullptr;
            if (router->m_removeWaiters.load() > 0)
                router->m_deliveryDone.broadcastLocked();
        }
    } ending{this};
    pump->handleMessage(std::move(message));
    return true;
}

void MessageRouter::commandHandler(unsigned char, const char*)
{
}

bool MessageRouter::sendRoutingTableToSystemRouter()
{
    Core::message("MessageRouter::sendRoutingTableToSystemRouter() Doing it\n");
    try {
        UlmarCommsSystem::MutexLocker announcing(m_announceLock);
        // add and remove also hold the announce lock, so this copy is the
        // table as it stands until the announcements below are out.
        std::vector<std::pair<std::string, std::string>> pumps;
        {
            UlmarCommsSystem::MutexLocker table(m_tableLock);
            // The first pump added is deliberately not re-announced.
            for (unsigned i = 1; i < m_table.size(); ++i) {
                MessagePump* pump = m_table.at(i);
                const bool hasInterfaces = !pump->interfaceNames().empty();
                pumps.emplace_back(pump->address(), hasInterfaces ? interfaceText(pump) : std::string());
            }
        }
        for (const auto& entry : pumps) {
            Core::message("Telling Real System router about message Pump '%s'\n", entry.first.c_str());
            announce(CommandMessage::AddMessagePump, entry.first);
            if (entry.second.empty())
                continue;
            Core::message("Telling Real System router about message Pump interfaces '%s'\n", entry.second.c_str());
            announce(CommandMessage::AddInterfaceNamesToMessagePump, entry.second);
        }
    } catch (...) {
    }
    return true;
}

MessageItem* MessageRouter::create(const char* to, const char* from, const char* method)
{
    MessageItem* message = MessageItem::create();
    if (message == nullptr)
        return nullptr;
    if (!message->add(MessageItem::ArgumentKey_To, to) || !message->add(MessageItem::ArgumentKey_From, from) ||
        !message->add(MessageItem::ArgumentKey_Method, method)) {
        MessageItem::release(message);
        return nullptr;
    }
    return message;
}

bool MessageRouter::addKeyValuePair(MessageItem* message, const char* key, const char* value)
{
    return message != nullptr && message->add(key, value);
}

void MessageRouter::destroy(MessageItem* message)
{
    MessageItem::release(message);
}

} // namespace UlmarComms
