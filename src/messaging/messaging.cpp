// The message record: pairs, the header scan, the packet form and hand-made
// reference counting.
//
// The packet form is the one other programs on the network speak:
//   A4, total size (u32 BE), count (u8), count x { key length (u8),
//   value length (u32 BE), key bytes with NUL, value bytes with NUL }, 8B.
// Peers are not trusted: fromBuffer bounds every record by the buffer.
//
// The router, its queue and worker, and the message pumps follow. Delivery
// runs on the router's one worker thread; the table lock is never held while
// a pump's handler or the system router is called (only the pump's own
// innermost lock may be taken under it, to read its interface names), so
// callbacks may post, add and remove pumps freely, and remove() waits for an
// in-flight delivery to that pump so that a removed pump can be deleted at
// once.
#include "messaging/messaging.h"

#include "core/bigendian.h"
#include "core/core.h"
#include "messaging/commandmessage.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <new>
#include <pthread.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace UlmarComms {

const char* const MessageItem::ArgumentKey_To = "_t";
const char* const MessageItem::ArgumentKey_From = "_f";
const char* const MessageItem::ArgumentKey_Mode = "_M";
const char* const MessageItem::ArgumentKey_Method = "_m";
const char* const MessageItem::ArgumentKey_Response = "_r";
const char* const MessageItem::ArgumentKey_SenderId = "_s";
const char* const MessageItem::ArgumentKey_ResponseId = "_R";
const char* const MessageItem::ArgumentKey_ErrorRoutingHostId = "_h";
const char* const MessageItem::Mode_NormalText = "N";
const char* const MessageItem::Mode_ErrorText = "E";

namespace {

const char kLocalhost[] = "localhost";
const unsigned kLocalhostLength = 9;

// The smallest overflow block: a message that outgrows its inline space
// once usually grows a little more.
const size_t kMinTextBlockBytes = 512;

// "_t", "_f" and any longer key beginning with them carry addresses.
bool isAddressKey(const char* key)
{
    return key[0] == '_' && (key[1] == 't' || key[1] == 'f');
}

} // namespace

MessageItem::MessageItem()
    : m_pNext(nullptr),
      m_argumentCount(0),
      m_count(1),
      // The pair arrays are read only below m_argumentCount: left unset.
      m_pFreeText(m_inlineText),
      m_freeTextBytes(s_inlineTextBytes),
      m_pBlocks(nullptr)
{
}

MessageItem::~MessageItem()
{
    while (m_pBlocks != nullptr) {
        TextBlock* next = m_pBlocks->next;
        std::free(m_pBlocks);
        m_pBlocks = next;
    }
}

bool MessageItem::reserveText(size_t length)
{
    if (length <= m_freeTextBytes)
        return true;
    const size_t bytes = std::max(length, kMinTextBlockBytes);
    void* raw = std::malloc(sizeof(TextBlock) + bytes);
    if (raw == nullptr)
        return false;
    TextBlock* block = static_cast<TextBlock*>(raw);
    block->next = m_pBlocks;
    m_pBlocks = block;
    // The rest of the previous space is given up: texts are never split.
    m_pFreeText = reinterpret_cast<char*>(block + 1);
    m_freeTextBytes = bytes;
    return true;
}

char* MessageItem::allocateText(size_t length)
{
    if (!reserveText(length))
        return nullptr;
    char* text = m_pFreeText;
    m_pFreeText += length;
    m_freeTextBytes -= length;
    return text;
}

char* MessageItem::storeBytes(const char* text, size_t length)
{
    char* copy = allocateText(length);
    if (copy != nullptr)
        std::memcpy(copy, text, length);
    return copy;
}

MessageItem* MessageItem::create()
{
    try {
        return new MessageItem();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void MessageItem::release(MessageItem* item)
{
    if (item == nullptr)
        return;
    if (--item->m_count <= 0)
        delete item;
}

void MessageItem::incrementCount()
{
    ++m_count;
}

MessageItem* MessageItem::createAndCopy(MessageItem* source)
{
    if (source == nullptr)
        return nullptr;
    MessageItem* copy = create();
    if (copy == nullptr)
        return nullptr;
    for (int i = 0; i < source->m_argumentCount; ++i)
        copy->add(source->m_keys[i], source->m_values[i]);
    return copy;
}

bool MessageItem::add(const char* key, const char* value)
{
    if (key == nullptr || value == nullptr || m_argumentCount >= s_maxNumberArguments)
        return false;
    const int index = m_argumentCount;
    const size_t keyLength = std::strlen(key) + 1;
    const char* source = value;
    size_t sourceLength = std::strlen(value);
    const std::string* hostName = nullptr;
    if (isAddressKey(key) && std::strncmp(value, kLocalhost, kLocalhostLength) == 0) {
        // Substitution is deliberately by prefix, not by separator:
        // "localhostess" on host "myhost" becomes "myhostess", so one plain
        // prefix test decides every address key.
        hostName = &Core::instance()->getHostName();
        source = value + kLocalhostLength;
        sourceLength -= kLocalhostLength;
    }
    const size_t prefixLength = hostName != nullptr ? hostName->size() : 0;
    const size_t valueLength = prefixLength + sourceLength + 1;
    // Both texts are placed at once, so a failure leaves nothing half added.
    if (!reserveText(keyLength + valueLength))
        return false;
    char* keyCopy = storeBytes(key, keyLength);
    char* valueCopy = allocateText(valueLength);
    if (prefixLength > 0)
        std::memcpy(valueCopy, hostName->data(), prefixLength);
    std::memcpy(valueCopy + prefixLength, source, sourceLength + 1);
    m_keys[index] = keyCopy;
    m_keyLengths[index] = static_cast<uint8_t>(keyLength); // wraps for keys of 255+
    m_values[index] = valueCopy;
    m_valueLengths[index] = static_cast<uint32_t>(valueLength);
    ++m_argumentCount;
    return true;
}

bool MessageItem::set(const char* to, const char* from, const char* method, const char* senderId)
{
    if (to == nullptr || from == nullptr || method == nullptr || senderId == nullptr)
        return false;
    return add(ArgumentKey_To, to) && add(ArgumentKey_From, from) && add(ArgumentKey_Method, method)
        && add(ArgumentKey_SenderId, senderId);
}

bool MessageItem::setResponse(const char* response, const char* responseId)
{
    return add(ArgumentKey_Response, response) && add(ArgumentKey_ResponseId, responseId);
}

void MessageItem::setEventName(const std::string& name)
{
    m_eventName = name;
}

const char* MessageItem::key(int i) const
{
    return (i < 0 || i >= m_argumentCount) ? nullptr : m_keys[i];
}

const char* MessageItem::value(int i) const
{
    return (i < 0 || i >= m_argumentCount) ? nullptr : m_values[i];
}

const char* MessageItem::key(int i, unsigned& length) const
{
    if (i < 0 || i >= m_argumentCount)
        return nullptr;
    length = m_keyLengths[i];
    return m_keys[i];
}

const char* MessageItem::value(int i, unsigned& length) const
{
    if (i < 0 || i >= m_argumentCount)
        return nullptr;
    length = m_valueLengths[i];
    return m_values[i];
}

bool MessageItem::hasKey(const char* wanted) const
{
    return value(wanted) != nullptr;
}

const char* MessageItem::value(const char* wanted) const
{
    if (wanted == nullptr)
        return nullptr;
    for (int i = 0; i < m_argumentCount; ++i) {
        if (std::strcmp(m_keys[i], wanted) == 0)
            return m_values[i];
    }
    return nullptr;
}

void MessageItem::getMandatoryRoutingFields(char** to, char** from) const
{
    *to = nullptr;
    *from = nullptr;
    for (int i = 0; i < m_argumentCount; ++i) {
        const char* k = m_keys[i];
        if (k == nullptr || k[0] != '_')
            continue;
        if (k[1] == 't')
            *to = m_values[i];
        else if (k[1] == 'f')
            *from = m_values[i];
    }
}

// The second character alone decides which header field a key fills, and a
// later pair overwrites an earlier one.
void MessageItem::getMandatoryFields(char** to, char** from, char** mode, char** senderId,
                                     char** responseId, char** response, char** method) const
{
    for (int i = 0; i < m_argumentCount; ++i) {
        const char* k = m_keys[i];
        if (k == nullptr || k[0] != '_')
            continue;
        switch (k[1]) {
        case 't': *to = m_values[i]; break;
        case 'f': *from = m_values[i]; break;
        case 'M': *mode = m_values[i]; break;
        case 'm': *method = m_values[i]; break;
        case 'r': *response = m_values[i]; break;
        case 's': *senderId = m_values[i]; break;
        case 'R': *responseId = m_values[i]; break;
        default: break;
        }
    }
}

bool MessageItem::compare(const MessageItem* other) const
{
    if (other == nullptr || other->m_argumentCount != m_argumentCount)
        return false;
    for (int i = 0; i < m_argumentCount; ++i) {
        const char* mine = value(m_keys[i]);
        const char* theirs = other->value(m_keys[i]);
        if (theirs == nullptr || std::strcmp(mine, theirs) != 0)
            return false;
    }
    return true;
}

uint32_t MessageItem::memSize() const
{
    uint32_t size = 6;
    for (int i = 0; i < m_argumentCount; ++i)
        size += 5 + m_keyLengths[i] + m_valueLengths[i];
    return size + 1;
}

bool MessageItem::toBuffer(unsigned& size, unsigned char* buffer, unsigned capacity) const
{
    size = memSize();
    if (buffer == nullptr || size > capacity)
        return false;
    unsigned char* p = buffer;
    *p++ = DataPacket_MessageHead;
    writeU32(p, size);
    p += 4;
    *p++ = m_argumentCount;
    for (int i = 0; i < m_argumentCount; ++i) {
        *p++ = m_keyLengths[i];
        writeU32(p, m_valueLengths[i]);
        p += 4;
        std::memcpy(p, m_keys[i], m_keyLengths[i]);
        p += m_keyLengths[i];
        std::memcpy(p, m_values[i], m_valueLengths[i]);
        p += m_valueLengths[i];
    }
    *p = DataPacket_MessageEnd;
    return true;
}

// Every record is bounded by the buffer and must end in its NUL, so a
// truncated or overrunning packet is refused without reading past the end;
// well-formed packets parse exactly as the wire format lays them out.
bool MessageItem::fromBuffer(const unsigned char* buffer, unsigned length)
{
    if (length == 0 || buffer == nullptr || buffer[0] != DataPacket_MessageHead)
        return false;
    if (length < 6 || readU32(buffer + 1) > length)
        return false;
    const unsigned count = buffer[5];
    if (count < 1 || count > static_cast<unsigned>(s_maxNumberArguments) || m_argumentCount != 0)
        return false;
    // The texts of a packet are fewer bytes than the packet: one reservation
    // serves every pair.
    if (!reserveText(length))
        return false;
    size_t offset = 6;
    for (unsigned i = 0; i < count; ++i) {
        if (length - offset < 5)
            return false;
        const uint32_t keyLength = buffer[offset];
        const uint32_t valueLength = readU32(buffer + offset + 1);
        offset += 5;
        if (keyLength == 0 || valueLength == 0 || keyLength > length - offset
            || valueLength > length - offset - keyLength)
            return false;
        const char* keyBytes = reinterpret_cast<const char*>(buffer + offset);
        const char* valueBytes = keyBytes + keyLength;
        if (keyBytes[keyLength - 1] != '\0' || valueBytes[valueLength - 1] != '\0')
            return false;
        // Key and value are adjacent in the packet and stay so here.
        char* texts = storeBytes(keyBytes, keyLength + valueLength);
        if (texts == nullptr)
            return false;
        m_keys[m_argumentCount] = texts;
        m_keyLengths[m_argumentCount] = static_cast<uint8_t>(keyLength);
        m_values[m_argumentCount] = texts + keyLength;
        m_valueLengths[m_argumentCount] = valueLength;
        ++m_argumentCount;
        offset += keyLength + valueLength;
    }
    return offset < length && buffer[offset] == DataPacket_MessageEnd;
}

// ---------------------------------------------------------------------------
// Queue, worker and router
// ---------------------------------------------------------------------------

namespace {

const unsigned kTableGrowth = 10;
// The longest an idle worker sleeps; a kick normally ends the wait at once.
const unsigned kWorkerWaitMs = 5;

// The router whose worker is delivering on this thread, if any: a callback
// that removes a pump or finishes the router must not wait for itself.
thread_local const MessageRouter* t_pDeliveringRouter = nullptr;

// Marks the calling thread as delivering for one router during one call.
class DeliveryScope {
public:
    explicit DeliveryScope(const MessageRouter* router) : m_pPrevious(t_pDeliveringRouter)
    {
        t_pDeliveringRouter = router;
    }
    ~DeliveryScope() { t_pDeliveringRouter = m_pPrevious; }
    DeliveryScope(const DeliveryScope&) = delete;
    DeliveryScope& operator=(const DeliveryScope&) = delete;

private:
    const MessageRouter* m_pPrevious;
};

// Releases a message when the scope ends, however it ends.
class ReleaseOnExit {
public:
    explicit ReleaseOnExit(MessageItem* message) : m_pMessage(message) {}
    ~ReleaseOnExit() { MessageItem::release(m_pMessage); }
    ReleaseOnExit(const ReleaseOnExit&) = delete;
    ReleaseOnExit& operator=(const ReleaseOnExit&) = delete;

private:
    MessageItem* m_pMessage;
};

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

MessageQueue::MessageQueue() : m_pHead(nullptr), m_pTail(nullptr), m_count(0), m_closed(false) {}

MessageQueue::~MessageQueue()
{
    // Leftovers are released here rather than leaked: once the owner is gone
    // no one can pop them, and each holds the queue's one reference.
    while (m_pHead != nullptr) {
        MessageItem* message = m_pHead;
        m_pHead = message->m_pNext;
        message->m_pNext = nullptr;
        MessageItem::release(message);
    }
}

bool MessageQueue::push(MessageItem* message)
{
    if (m_closed || message == nullptr)
        return false;
    message->m_pNext = nullptr;
    if (m_pTail != nullptr)
        m_pTail->m_pNext = message;
    else
        m_pHead = message;
    m_pTail = message;
    ++m_count;
    return true;
}

MessageItem* MessageQueue::pop()
{
    if (m_closed || m_pHead == nullptr)
        return nullptr;
    MessageItem* message = m_pHead;
    m_pHead = message->m_pNext;
    if (m_pHead == nullptr)
        m_pTail = nullptr;
    message->m_pNext = nullptr;
    --m_count;
    return message;
}

namespace {

// The worker running on this thread, if any: its own kicks need no wake-up.
thread_local const MessageRouterWorker* t_pRunningWorker = nullptr;

} // namespace

MessageRouterWorker::MessageRouterWorker(MessageRouter* router)
    : m_pRouter(router), m_running(false), m_pending(false),
      m_wakeHandle(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), m_inInputWait(false), m_usingSystemRouter(false),
      m_inputTaken(false)
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
    if (m_pending.exchange(true) || t_pRunningWorker == this)
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
    // it from now on gets the new one; one still in the old is woken.
    while (m_usingSystemRouter.load()) {
        wakeInputWait();
        std::this_thread::yield();
    }
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
    m_usingSystemRouter = true;
    ISystemRouter* systemRouter = m_pRouter->systemRouter();
    const int done = systemRouter != nullptr ? systemRouter->waitForInput(kWorkerWaitMs, m_wakeHandle)
                                             : ISystemRouter::InputUnsupported;
    m_usingSystemRouter = false;
    m_inInputWait = false;
    if (done == ISystemRouter::InputUnsupported)
        return false;
    m_inputTaken = done == ISystemRouter::InputTaken;
    return true;
}

void MessageRouterWorker::releaseInput()
{
    m_inputTaken = false;
    m_usingSystemRouter = true;
    ISystemRouter* systemRouter = m_pRouter->systemRouter();
    if (systemRouter != nullptr)
        systemRouter->releaseInput();
    m_usingSystemRouter = false;
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
    t_pRunningWorker = this;
    while (m_running) {
        MessageItem* message = m_pRouter->nextMessage();
        if (message == nullptr) {
            // Clear the flag, then look once more: a message pushed before
            // the clear is seen now, one pushed after it sets the flag again
            // and the wait below returns at once.
            m_pending = false;
            message = m_pRouter->nextMessage();
        }
        if (message == nullptr) {
            // Idle: wait for the link's input here when the system router
            // offers it, else on the condition.
            if (waitForInput())
                continue;
            pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous);
            m_condition.timedWaitUnless(kWorkerWaitMs, &MessageRouterWorker::hasPendingWork, this);
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
            continue;
        }
        // Busy from here: the link's usual readers take over again.
        if (m_inputTaken)
            releaseInput();
        deliver(message);
    }
    if (m_inputTaken)
        releaseInput();
    t_pRunningWorker = nullptr;
    return 1;
}

void MessageRouterWorker::deliver(MessageItem* message)
{
    try {
        if (!m_pRouter->processMessage(message))
            Core::log(Core::LogError, "MessageRouterWorker::run() this=%p Failed to process message %p\n ",
                      static_cast<void*>(this), static_cast<void*>(message));
    } catch (...) {
        // A thread cancellation (foreign, typeless) must run on; anything
        // else is dropped: processMessage consumed the message already.
        if (abi::__cxa_current_exception_type() == nullptr)
            throw;
    }
}

MessageRouter* MessageRouter::s_pMaster = nullptr;

MessageRouter::MessageRouter()
    : m_pSystemRouter(nullptr),
      m_pWorker(nullptr),
      m_entries(new MessageRouterEntry*[kTableGrowth]()),
      m_count(0),
      m_capacity(kTableGrowth),
      m_pDelivering(nullptr),
      m_removeWaiters(0)
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
        // Killed idle, it may have left the link's read taken: the link's
        // usual readers get it back (the system router outlives its routers).
        if (worker->leftInputTaken()) {
            if (ISystemRouter* systemRouter = m_pSystemRouter.load())
                systemRouter->releaseInput();
        }
        delete worker;
    }
    if (s_pMaster == this)
        s_pMaster = nullptr;
    for (unsigned i = 0; i < m_count; ++i)
        delete m_entries[i];
    delete[] m_entries;
    // m_queue's destructor releases the messages still queued.
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
        Core::log(Core::LogError, "MessageRouter::announce( %d, %s ) this=%p The system router threw.\n",
                  command, text.c_str(), static_cast<void*>(this));
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
            if (m_count == m_capacity) {
                MessageRouterEntry** grown = new (std::nothrow) MessageRouterEntry*[m_capacity + kTableGrowth]();
                if (grown == nullptr)
                    return false;
                std::memcpy(grown, m_entries, sizeof(MessageRouterEntry*) * m_count);
                delete[] m_entries;
                m_entries = grown;
                m_capacity += kTableGrowth;
            }
            m_entries[m_count] = new MessageRouterEntry{Address(pump->address()), pump};
            ++m_count;
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
        for (unsigned i = 0; i < m_count; ++i) {
            if (m_entries[i]->pump != pump)
                continue;
            delete m_entries[i];
            // The table's order is not kept: the last entry takes the slot.
            m_entries[i] = m_entries[m_count - 1];
            m_entries[m_count - 1] = nullptr;
            --m_count;
            found = true;
            break;
        }
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
    return t_pDeliveringRouter == this;
}

void MessageRouter::waitForDeliveryToEnd(MessagePump* pump)
{
    // A callback removing a pump (even its own) must not wait for itself; it
    // knows the delivery up its stack.
    if (onWorkerThread())
        return;
    DeliveryWait wait{&m_pDelivering, pump};
    ++m_removeWaiters;
    while (!deliveryLeftPump(&wait))
        m_deliveryDone.timedWaitUnless(kWorkerWaitMs, &deliveryLeftPump, &wait);
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

MessagePump* MessageRouter::findLocked(const Address& target)
{
    MessagePump* best = nullptr;
    int bestScore = -1;
    for (unsigned i = 0; i < m_count; ++i) {
        int score = 0;
        // Only a strictly higher score replaces the kept entry: ties go to
        // the earlier one.
        if (m_entries[i]->address.match(target, score) && score > bestScore) {
            bestScore = score;
            best = m_entries[i]->pump;
        }
    }
    return best;
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
        return findLocked(target);
    } catch (...) {
        return nullptr;
    }
}

unsigned MessageRouter::numberOfPumps()
{
    UlmarCommsSystem::MutexLocker table(m_tableLock);
    return m_count;
}

void MessageRouter::releasePumps()
{
    UlmarCommsSystem::MutexLocker table(m_tableLock);
    for (unsigned i = 0; i < m_count; ++i) {
        if (m_entries[i]->pump->m_pRouter == this)
            m_entries[i]->pump->m_pRouter = nullptr;
        delete m_entries[i];
        m_entries[i] = nullptr;
    }
    m_count = 0;
}

bool MessageRouter::post(MessageItem* message)
{
    bool consumed = false;
    return post(message, consumed);
}

bool MessageRouter::post(MessageItem* message, bool& consumed)
{
    consumed = false;
    Core::message("MessageRouter::post( %p ) this=%p\n", static_cast<void*>(message), static_cast<void*>(this));
    if (message == nullptr)
        return false;
    if (!isStarted()) {
        MessageItem::release(message);
        consumed = true;
        return false;
    }
    char* to = nullptr;
    char* from = nullptr;
    message->getMandatoryRoutingFields(&to, &from);
    if (findTargetMessagePump(to) == nullptr) {
        Core::message("MessageRouter::post( %p ) this=%p Passing to system router object.\n",
                      static_cast<void*>(message), static_cast<void*>(this));
        ISystemRouter* systemRouter = m_pSystemRouter;
        if (systemRouter != nullptr && systemRouter->post(message)) {
            consumed = true;
            Core::message("MessageRouter::post( %p ) this=%p Posted message to system router\n",
                          static_cast<void*>(message), static_cast<void*>(this));
            return true;
        }
        // Refused: the message is still the caller's.
        Core::log(Core::LogWarning, "MessageRouter::post( %p ) this=%p Failed to pass on message to system router\n",
                  static_cast<void*>(message), static_cast<void*>(this));
        return false;
    }
    Core::message("MessageRouter::post( %p ) this=%p posting onto the queue.\n", static_cast<void*>(message),
                  static_cast<void*>(this));
    UlmarCommsSystem::MutexLocker queue(m_queueLock);
    consumed = true;
    // The router may have been finished since the test above.
    if (m_pWorker == nullptr || !m_queue.push(message)) {
        MessageItem::release(message);
        return false;
    }
    m_pWorker->kick();
    return true;
}

MessageItem* MessageRouter::nextMessage()
{
    UlmarCommsSystem::MutexLocker queue(m_queueLock);
    return m_queue.pop();
}

bool MessageRouter::processMessage(MessageItem* message)
{
    Core::message("MessageRouter::processMessage( %p ) this=%p\n", static_cast<void*>(message),
                  static_cast<void*>(this));
    if (message == nullptr) {
        Core::log(Core::LogError, "MessageRouter::processMessage( %p ) this=%p Yep message is NULL!\n",
                  static_cast<void*>(message), static_cast<void*>(this));
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
                  static_cast<void*>(message), static_cast<void*>(this));
        MessageItem::release(message);
        return false;
    }
    {
        DeliveryScope scope(this);
        pump->handleMessage(message);
    }
    m_pDelivering = nullptr;
    if (m_removeWaiters.load() > 0)
        m_deliveryDone.broadcastLocked();
    return true;
}

void MessageRouter::commandHandler(unsigned char, const char*) {}

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
            for (unsigned i = 1; i < m_count; ++i) {
                MessagePump* pump = m_entries[i]->pump;
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
    if (!message->add(MessageItem::ArgumentKey_To, to) || !message->add(MessageItem::ArgumentKey_From, from)
        || !message->add(MessageItem::ArgumentKey_Method, method)) {
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

// ---------------------------------------------------------------------------
// Message pump and its built-in protocol
// ---------------------------------------------------------------------------

namespace {

const char kMethodIsHas[] = "#IsHas";
const char kMethodIsList[] = "#IsList";
const char kMethodEsList[] = "#EsList";
const char kMethodReg[] = "#reg";
const char kKeyInterfaces[] = "inters";
const char kKeyMatch[] = "match";
const char kKeyEventName[] = "rname";
const char kKeyReturnMethod[] = "retm";
const char kKeyRegister[] = "reg";
const char kSystemAddress[] = "/system";

bool isEmpty(const char* text)
{
    return text == nullptr || text[0] == '\0';
}

// Whether wanted equals one of the comma-separated names, taken exactly as
// stored: no trimming, and empty pieces between commas are names too.
bool listContains(const std::string& names, const char* wanted)
{
    size_t start = 0;
    while (true) {
        const size_t comma = names.find(',', start);
        const size_t length = comma == std::string::npos ? std::string::npos : comma - start;
        if (names.compare(start, length, wanted) == 0)
            return true;
        if (comma == std::string::npos)
            return false;
        start = comma + 1;
    }
}

} // namespace

MessagePump::MessagePump(const char* name, MessageRouter* router)
    : m_senderId(1),
      m_pRouter(router),
      m_pContext(nullptr),
      m_messageCallback(nullptr),
      m_errorCallback(nullptr),
      m_responseCallback(nullptr)
{
    Address address(name);
    address.setHost();
    m_address = address.toString();
}

MessagePump::~MessagePump() = default;

bool MessagePump::setCallbacks(void* context, MessageCallback messageCallback, ResponseCallback responseCallback,
                               ErrorCallback errorCallback)
{
    // Stored before joining: the router's table lock orders these writes
    // before the worker's first delivery to this pump.
    m_pContext = context;
    m_messageCallback = messageCallback;
    m_responseCallback = responseCallback;
    m_errorCallback = errorCallback;
    return m_pRouter != nullptr && m_pRouter->add(this);
}

const char* MessagePump::getInterfaceNames() const
{
    return m_interfaceNames.empty() ? nullptr : m_interfaceNames.c_str();
}

std::string MessagePump::interfaceNames()
{
    UlmarCommsSystem::MutexLocker lock(m_lock);
    return m_interfaceNames;
}

bool MessagePump::setInterfaceNames(const char* names)
{
    if (isEmpty(names))
        return false;
    UlmarCommsSystem::MutexLocker lock(m_lock);
    m_interfaceNames = names;
    return true;
}

void MessagePump::setSenderId(MessageItem* message)
{
    if (message == nullptr)
        return;
    const uint32_t id = m_senderId.fetch_add(1);
    char text[16];
    std::snprintf(text, sizeof(text), "%d", static_cast<int>(id));
    message->add(MessageItem::ArgumentKey_SenderId, text);
}

unsigned MessagePump::handler(MessageItem* message)
{
    const char* senderId = message != nullptr ? message->value(MessageItem::ArgumentKey_SenderId) : nullptr;
    if (senderId == nullptr)
        return static_cast<unsigned>(-1);
    return static_cast<unsigned>(std::strtoul(senderId, nullptr, 10));
}

MessageItem* MessagePump::finishBuild(MessageItem* message, bool ok)
{
    if (ok)
        return message;
    MessageItem::release(message);
    return nullptr;
}

MessageItem* MessagePump::createBase(const char* to, const char* method)
{
    MessageItem* message = MessageItem::create();
    if (message == nullptr)
        return nullptr;
    const bool ok = message->add(MessageItem::ArgumentKey_To, to)
        && message->add(MessageItem::ArgumentKey_From, m_address.c_str())
        && message->add(MessageItem::ArgumentKey_Method, method);
    return finishBuild(message, ok);
}

MessageItem* MessagePump::createSystemListHostsMessage()
{
    MessageItem* message = createBase(kSystemAddress, "#HsList");
    setSenderId(message);
    return message;
}

MessageItem* MessagePump::createListInterfacesMessage(const char* to)
{
    if (isEmpty(to))
        return nullptr;
    MessageItem* message = createBase(to, kMethodIsList);
    setSenderId(message);
    return message;
}

MessageItem* MessagePump::createListEventsMessage(const char* to)
{
    if (isEmpty(to))
        return nullptr;
    MessageItem* message = createBase(to, kMethodEsList);
    setSenderId(message);
    return message;
}

MessageItem* MessagePump::createHasInterfacesMessage(const char* to, const char* interfaces)
{
    if (isEmpty(to) || isEmpty(interfaces))
        return nullptr;
    MessageItem* message = createBase(to, kMethodIsHas);
    if (message == nullptr || !message->add(kKeyInterfaces, interfaces))
        return finishBuild(message, false);
    setSenderId(message);
    return message;
}

MessageItem* MessagePump::createListHostsSupportingInterfaces(const char* interfaces, bool match)
{
    if (isEmpty(interfaces))
        return nullptr;
    MessageItem* message = createBase(kSystemAddress, "NetHostSupportInterfaces");
    if (message == nullptr || !message->add(kKeyInterfaces, interfaces) || !message->add(kKeyMatch, match ? "1" : "0"))
        return finishBuild(message, false);
    setSenderId(message);
    return message;
}

MessageItem* MessagePump::createSystemGetAddressesSupportingInterfacesMessage(const char* host, const char* interfaces)
{
    if (isEmpty(interfaces))
        return nullptr;
    try {
        const std::string to = isEmpty(host) ? std::string(kSystemAddress) : std::string(host) + "@" + kSystemAddress;
        MessageItem* message = createBase(to.c_str(), "#AdsSupIs");
        if (message == nullptr || !message->add(kKeyInterfaces, interfaces))
            return finishBuild(message, false);
        setSenderId(message);
        return message;
    } catch (...) {
        return nullptr;
    }
}

MessageItem* MessagePump::createEventRegistrationMessage(const char* returnMethod, const char* to,
                                                         const char* remoteEventName, bool reg)
{
    if (isEmpty(returnMethod) || isEmpty(to) || isEmpty(remoteEventName))
        return nullptr;
    MessageItem* message = createBase(to, kMethodReg);
    if (message == nullptr || !message->add(kKeyEventName, remoteEventName)
        || !message->add(kKeyReturnMethod, returnMethod))
        return finishBuild(message, false);
    setSenderId(message);
    // "reg" follows "_s": only its presence matters to the receiver.
    if (reg && !message->add(kKeyRegister, "t"))
        return finishBuild(message, false);
    return message;
}

MessageItem* MessagePump::createMessage(const char* to, const char* method)
{
    if (to == nullptr || method == nullptr)
        return nullptr;
    MessageItem* message = createBase(to, method);
    setSenderId(message);
    return message;
}

MessageItem* MessagePump::createReplyMessage(MessageItem* request, const char* response)
{
    if (request == nullptr)
        return nullptr;
    const char* from = request->value(MessageItem::ArgumentKey_From);
    const char* senderId = request->value(MessageItem::ArgumentKey_SenderId);
    if (from == nullptr || senderId == nullptr)
        return nullptr;
    MessageItem* reply = nullptr;
    try {
        reply = MessageItem::create();
        if (reply == nullptr)
            return nullptr;
        bool ok = reply->add(MessageItem::ArgumentKey_To, from)
            && reply->add(MessageItem::ArgumentKey_ResponseId, senderId)
            && reply->add(MessageItem::ArgumentKey_From, m_address.c_str());
        const char* mode = request->value(MessageItem::ArgumentKey_Mode);
        if (ok && mode != nullptr)
            ok = reply->add(MessageItem::ArgumentKey_Mode, mode);
        if (ok && response != nullptr)
            ok = reply->add(MessageItem::ArgumentKey_Response, response);
        if (ok)
            setSenderId(reply);
        return finishBuild(reply, ok);
    } catch (...) {
        MessageItem::release(reply);
        return nullptr;
    }
}

MessageItem* MessagePump::createEventMessage(const char* eventName)
{
    if (isEmpty(eventName))
        return nullptr;
    MessageItem* message = nullptr;
    try {
        {
            UlmarCommsSystem::MutexLocker lock(m_lock);
            if (m_events.find(eventName) == m_events.end())
                return nullptr;
        }
        message = MessageItem::create();
        if (message == nullptr || !message->add(MessageItem::ArgumentKey_From, m_address.c_str()))
            return finishBuild(message, false);
        message->setEventName(eventName);
        return message;
    } catch (...) {
        MessageItem::release(message);
        return nullptr;
    }
}

int MessagePump::sendErrorMessage(int errorCode, MessageItem* request)
{
    if (request == nullptr)
        return Result_Null;
    const char* from = request->value(MessageItem::ArgumentKey_From);
    const char* senderId = request->value(MessageItem::ArgumentKey_SenderId);
    if (from == nullptr || senderId == nullptr)
        return Result_NotARequest;
    MessageItem* reply = nullptr;
    try {
        reply = MessageItem::create();
        if (reply == nullptr)
            return Result_NoMemory;
        bool ok = reply->add(MessageItem::ArgumentKey_To, from)
            && reply->add(MessageItem::ArgumentKey_ResponseId, senderId)
            && reply->add(MessageItem::ArgumentKey_From, m_address.c_str())
            && reply->add(MessageItem::ArgumentKey_Mode, MessageItem::Mode_ErrorText);
        if (ok)
            setSenderId(reply);
        char codeText[16];
        std::snprintf(codeText, sizeof(codeText), "%d", errorCode);
        ok = ok && reply->add(MessageItem::ArgumentKey_Method, codeText);
        if (!ok) {
            MessageItem::release(reply);
            return Result_NoMemory;
        }
        // An error reply consumes two sender ids; receivers have seen the gap.
        m_senderId.fetch_add(1);
        MessageItem* posted = reply;
        reply = nullptr;
        return post(posted);
    } catch (...) {
        MessageItem::release(reply);
        return Result_NoMemory;
    }
}

int MessagePump::post(MessageItem* message)
{
    Core::message("MessagePump::post( %p ) this=%p\n", static_cast<void*>(message), static_cast<void*>(this));
    if (message == nullptr)
        return Result_Null;
    if (m_pRouter == nullptr) {
        MessageItem::release(message);
        return Result_NoRouter;
    }
    if (!message->eventName().empty())
        return postEvent(message);
    return postToRouter(message);
}

int MessagePump::postEvent(MessageItem* message)
{
    std::vector<EventEntry> listeners;
    bool found = false;
    try {
        UlmarCommsSystem::MutexLocker lock(m_lock);
        const auto event = m_events.find(message->eventName());
        found = event != m_events.end();
        if (found)
            listeners = event->second;
    } catch (...) {
        MessageItem::release(message);
        return Result_NoMemory;
    }
    if (!found) {
        MessageItem::release(message);
        return Result_NoSuchEvent;
    }
    // One copy per listener, in registration order; the copies' own results
    // are not the poster's concern.
    for (const EventEntry& listener : listeners) {
        MessageItem* copy = MessageItem::createAndCopy(message);
        if (copy == nullptr)
            continue;
        if (stampEventCopy(copy, listener))
            post(copy);
        else
            MessageItem::release(copy);
    }
    MessageItem::release(message);
    return Result_Ok;
}

// A copy with room for its three keys gets the sender id, then "_t" and "_m".
// A copy of an event message too full for all three is still posted, with
// the keys that fit taken in the order that keeps it deliverable: the target
// first, then the method, then the sender id. Only a copy with no room even
// for its target is dropped: without one it would land on some other pump.
bool MessagePump::stampEventCopy(MessageItem* copy, const EventEntry& listener)
{
    const bool roomForAll = copy->numberOfArguments() + 3 <= MessageItem::s_maxNumberArguments;
    if (roomForAll)
        setSenderId(copy);
    if (!copy->add(MessageItem::ArgumentKey_To, listener.address.c_str())) {
        Core::log(Core::LogWarning,
                  "MessagePump::post( %p ) this=%p Event copy for %s has no room for its target; dropped.\n",
                  static_cast<void*>(copy), static_cast<void*>(this), listener.address.c_str());
        return false;
    }
    copy->add(MessageItem::ArgumentKey_Method, listener.returnMethod.c_str());
    if (roomForAll)
        return true;
    setSenderId(copy);
    Core::log(Core::LogWarning,
              "MessagePump::post( %p ) this=%p Event copy for %s is full; posted with the keys that fit.\n",
              static_cast<void*>(copy), static_cast<void*>(this), listener.address.c_str());
    return true;
}

int MessagePump::postToRouter(MessageItem* message)
{
    Core::message("MessagePump::post( %p ) this=%p Posting to message router.\n", static_cast<void*>(message),
                  static_cast<void*>(this));
    bool consumed = false;
    const bool posted = m_pRouter->post(message, consumed);
    if (!consumed) {
        // The system router refused the message and the router handed it
        // back. Whoever posted to the pump never touches it again, so its one
        // reference ends here; the result stays 6.
        MessageItem::release(message);
    }
    return posted ? Result_Ok : Result_NoRouter;
}

void MessagePump::handleMessage(MessageItem* message)
{
    Core::message("MessagePump::HandleMessage( %p ) this=%p\n", static_cast<void*>(message), static_cast<void*>(this));
    if (message == nullptr)
        return;
    // Released however the delivery ends; after a callback nothing of the
    // pump is touched, so a callback may even delete its own pump.
    ReleaseOnExit release(message);
    try {
        char* to = nullptr;
        char* from = nullptr;
        char* mode = nullptr;
        char* senderId = nullptr;
        char* responseIdText = nullptr;
        char* response = nullptr;
        char* method = nullptr;
        message->getMandatoryFields(&to, &from, &mode, &senderId, &responseIdText, &response, &method);
        const unsigned responseId =
            responseIdText != nullptr ? static_cast<unsigned>(std::strtoul(responseIdText, nullptr, 10)) : 0;
        const char modeCode = mode != nullptr ? mode[0] : MessageItem::Mode_Normal;
        void* context = m_pContext;
        if (modeCode == MessageItem::Mode_Error) {
            const int errorCode = method != nullptr ? static_cast<int>(std::strtol(method, nullptr, 10)) : 2;
            ErrorCallback callback = m_errorCallback;
            if (callback != nullptr)
                callback(context, responseId, errorCode);
            return;
        }
        if (responseId != 0) {
            if (onBuiltInMessageResponse(message, responseId))
                return;
            ResponseCallback callback = m_responseCallback;
            if (callback != nullptr)
                callback(context, responseId, message);
            return;
        }
        if (onBuiltInMessage(message, to, method))
            return;
        MessageCallback callback = m_messageCallback;
        if (callback != nullptr)
            callback(context, message, to, method);
    } catch (...) {
        // An application's exception ends its delivery, never the worker; a
        // thread cancellation (foreign, typeless) must run on.
        if (abi::__cxa_current_exception_type() == nullptr)
            throw;
    }
}

bool MessagePump::onBuiltInMessageResponse(MessageItem*, unsigned)
{
    return false;
}

bool MessagePump::onBuiltInMessage(MessageItem* message, const char*, const char* method)
{
    if (method == nullptr)
        return false;
    if (std::strcmp(method, kMethodIsHas) == 0) {
        answerHasInterfaces(message);
        return true;
    }
    if (std::strcmp(method, kMethodIsList) == 0) {
        const std::string names = interfaceNames();
        reply(message, names.empty() ? nullptr : names.c_str());
        return true;
    }
    if (std::strcmp(method, kMethodEsList) == 0) {
        answerListEvents(message);
        return true;
    }
    if (std::strcmp(method, kMethodReg) == 0) {
        answerRegistration(message);
        return true;
    }
    return false;
}

void MessagePump::reply(MessageItem* request, const char* response)
{
    MessageItem* answer = createReplyMessage(request, response);
    if (answer != nullptr)
        post(answer);
}

void MessagePump::answerHasInterfaces(MessageItem* request)
{
    const char* wanted = request->value(kKeyInterfaces);
    if (wanted == nullptr) {
        reply(request, "false");
        return;
    }
    const std::string names = interfaceNames();
    // A pump without interfaces does not answer at all, so an asker hears
    // only from pumps that have interfaces.
    if (names.empty())
        return;
    reply(request, listContains(names, wanted) ? "true" : "false");
}

void MessagePump::answerListEvents(MessageItem* request)
{
    std::string list;
    {
        UlmarCommsSystem::MutexLocker lock(m_lock);
        for (const auto& event : m_events) {
            list += event.first;
            list += '|';
        }
    }
    reply(request, list.c_str());
}

void MessagePump::answerRegistration(MessageItem* request)
{
    const char* eventName = request->value(kKeyEventName);
    const char* returnMethod = request->value(kKeyReturnMethod);
    const char* listener = request->value(MessageItem::ArgumentKey_From);
    const bool registering = request->hasKey(kKeyRegister);
    bool changed = false;
    // Without "_f" there is nobody to register (and nobody to answer): an
    // entry with an empty address would send events to whichever pump
    // matches everything.
    if (eventName != nullptr && returnMethod != nullptr && listener != nullptr) {
        UlmarCommsSystem::MutexLocker lock(m_lock);
        const auto event = m_events.find(eventName);
        if (event != m_events.end()) {
            std::vector<EventEntry>& entries = event->second;
            const size_t before = entries.size();
            std::erase_if(entries, [&](const EventEntry& entry) {
                return entry.address == listener && entry.returnMethod == returnMethod;
            });
            changed = entries.size() != before;
            if (registering && entries.size() < s_maxListenersPerEvent) {
                entries.push_back(EventEntry{listener, returnMethod});
                changed = true;
            }
        }
    }
    reply(request, changed ? "y" : "n");
}

bool MessagePump::eventCreate(const std::string& name)
{
    UlmarCommsSystem::MutexLocker lock(m_lock);
    m_events.try_emplace(name);
    return true;
}

bool MessagePump::eventDestroy(const std::string& name)
{
    UlmarCommsSystem::MutexLocker lock(m_lock);
    m_events.erase(name);
    return true;
}

std::vector<MessagePump::EventEntry> MessagePump::eventListeners(const std::string& name)
{
    UlmarCommsSystem::MutexLocker lock(m_lock);
    const auto event = m_events.find(name);
    return event == m_events.end() ? std::vector<EventEntry>() : event->second;
}

} // namespace UlmarComms
