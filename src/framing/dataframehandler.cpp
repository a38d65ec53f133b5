// Frame handler: outbound queues and the one frame in flight, inbound
// reassembly and dispatch, the socket trampolines; and the frame server.
//
// The log texts stay byte for byte as they are, misspellings included,
// because operators grep the logs for them. Pointers that those texts print
// with %d are passed as numbers, so the logger never sees a mismatched
// argument.
#include "framing/dataframehandler.h"

#include "core/core.h"
#include "messaging/messageitem.h"
#include "platform/thread.h"

#include <algorithm>
#include <utility>
#include <new>
#include <sys/socket.h>
#include <vector>

namespace UlmarComms {

using UlmarCommsSystem::MutexLocker;
using UlmarCommsSystem::Socket;
using UlmarCommsSystem::SocketAddress;

namespace {

// Handlers whose callbacks this thread is running, innermost last: a handler
// waiting for its callbacks to end must not wait for its own thread.
thread_local std::vector<const DataFrameHandler*> t_callbacksOfThisThread;

int asNumber(const void* pointer)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(pointer));
}

const char* printable(const char* text)
{
    return text != nullptr ? text : "(null)";
}

uint64_t wireSize(const DataFrame* frame)
{
    return uint64_t(frame->dataSize()) + DataFrame::HeaderSize;
}

} // namespace

// Counts one callback of a handler for the lifetime of the scope. The
// decrement is the scope's last touch of the handler, so a waiter that sees
// the count drop may destroy it at once.
class DataFrameHandler::CallbackScope {
public:
    explicit CallbackScope(DataFrameHandler* handler) : m_pHandler(handler)
    {
        m_pHandler->m_callbacksRunning.fetch_add(1);
        t_callbacksOfThisThread.push_back(handler);
    }
    ~CallbackScope()
    {
        auto mine = std::find(t_callbacksOfThisThread.rbegin(), t_callbacksOfThisThread.rend(), m_pHandler);
        if (mine != t_callbacksOfThisThread.rend())
            t_callbacksOfThisThread.erase(std::next(mine).base());
        m_pHandler->m_callbacksRunning.fetch_sub(1);
    }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

private:
    DataFrameHandler* m_pHandler;
};

class DataFrameHandler::DispatchScope {
public:
    explicit DispatchScope(DataFrameHandler* handler) : m_pHandler(handler) {}
    ~DispatchScope() { m_pHandler->endDispatch(); }
    DispatchScope(const DispatchScope&) = delete;
    DispatchScope& operator=(const DispatchScope&) = delete;

private:
    DataFrameHandler* m_pHandler;
};

// ---------------------------------------------------------------- lifetime

DataFrameHandler::DataFrameHandler()
    : m_pInboundBuffer(nullptr), m_inboundSize(0), m_pInboundSpare(nullptr), m_pInboundCurrentFrame(nullptr),
      m_linkEnding(false),
      m_sending(false), m_lastId(0), m_pOutboundBuffer(nullptr), m_outboundSize(0),
      m_pOutboundCurrentFrame(nullptr), m_outboundInFlight(false), m_currentSent(0), m_queuedBytes(0),
      m_outboundHeld(false), m_heldFrames(false), m_probe(0), m_pSocket(nullptr), m_callbacksRunning(0)
{
    Core::verbose("DataFrameHandler::DataFrameHandler() this=%p\n", static_cast<void*>(this));
}

DataFrameHandler::~DataFrameHandler()
{
    Core::verbose("DataFrameHandler::~DataFrameHandler() this=%p\n", static_cast<void*>(this));
    // The socket stays open (it is the owner's), but it must not call into
    // a handler that is gone.
    Socket* socket = takeSocket();
    if (socket != nullptr) {
        socket->setStreamCallbacks(nullptr, nullptr, nullptr);
        socket->setErrorCallback(nullptr, nullptr);
        socket->setConnectionCallback(nullptr, nullptr, nullptr);
    }
    waitForCallbacksToEnd();
    {
        MutexLocker locker(m_outboundLock);
        releaseOutboundFrames();
        for (DataFrame* frame : m_spareFrames)
            release(frame);
        m_spareFrames.clear();
    }
    {
        MutexLocker locker(m_inboundLock);
        release(m_pInboundCurrentFrame);
        m_pInboundCurrentFrame = nullptr;
    }
    delete[] m_pInboundBuffer;
    delete[] m_pInboundSpare;
    delete[] m_pOutboundBuffer;
}

bool DataFrameHandler::createBuffers(unsigned inbound, unsigned outbound)
{
    if (inbound == 0)
        inbound = static_cast<unsigned>(std::max(0, Core::instance()->getNumber("dataframehandler.inbound.size")));
    if (outbound == 0)
        outbound = static_cast<unsigned>(std::max(0, Core::instance()->getNumber("dataframehandler.outbound.size")));
    // A buffer of no bytes could never move a frame.
    inbound = std::max(inbound, 1u);
    outbound = std::max(outbound, 1u);
    unsigned char* in = new (std::nothrow) unsigned char[inbound];
    unsigned char* spare = new (std::nothrow) unsigned char[inbound];
    unsigned char* out = new (std::nothrow) unsigned char[outbound];
    if (in == nullptr || spare == nullptr || out == nullptr) {
        delete[] in;
        delete[] spare;
        delete[] out;
        Core::log(Core::LogError, "DataFrameHandler::createBuffers( %u, %u ) this=%p Allocation failed.\n", inbound,
                  outbound, static_cast<void*>(this));
        return false;
    }
    {
        MutexLocker locker(m_inboundLock);
        delete[] m_pInboundBuffer;
        delete[] m_pInboundSpare;
        m_pInboundBuffer = in;
        m_pInboundSpare = spare;
        m_inboundSize = inbound;
    }
    MutexLocker locker(m_outboundLock);
    delete[] m_pOutboundBuffer;
    m_pOutboundBuffer = out;
    m_outboundSize = outbound;
    return true;
}

DataFrame* DataFrameHandler::create()
{
    DataFrame* frame = new (std::nothrow) DataFrame();
    if (frame == nullptr || frame->capacity() == 0) {
        delete frame;
        Core::verbose("DataFrameHandler::create() this=%p unable to create dataframe.\n", static_cast<void*>(this));
        return nullptr;
    }
    Core::verbose("DataFrameHandler::create() this=%p Created=%p.\n", static_cast<void*>(this),
                  static_cast<void*>(frame));
    return frame;
}

DataFrame* DataFrameHandler::createOutbound()
{
    if (m_spareFrames.empty())
        return create();
    DataFrame* frame = m_spareFrames.back();
    m_spareFrames.pop_back();
    return frame;
}

void DataFrameHandler::recycle(DataFrame* frame)
{
    // Only buffers of the usual size are kept, and only a few: a burst of
    // large frames leaves no large memory behind.
    const size_t kMaxSpareFrames = 16;
    if (frame == nullptr || frame->capacity() > DataFrame::InitialBufferSize || m_spareFrames.size() >= kMaxSpareFrames) {
        release(frame);
        return;
    }
    frame->reset();
    try {
        m_spareFrames.push_back(frame);
    } catch (...) {
        release(frame);
    }
}

void DataFrameHandler::release(DataFrame* frame)
{
    if (frame == nullptr)
        return;
    Core::verbose("DataFrameHandler::release( %p ) this=%p\n", static_cast<void*>(frame), static_cast<void*>(this));
    delete frame;
}

void DataFrameHandler::waitForCallbacksToEnd()
{
    const int own = static_cast<int>(
        std::count(t_callbacksOfThisThread.begin(), t_callbacksOfThisThread.end(), this));
    // Only teardown waits here, and callbacks are short: polling is enough.
    while (m_callbacksRunning.load() > own)
        UlmarCommsSystem::Thread::sleep(1);
}

// ------------------------------------------------------------------ socket

void DataFrameHandler::setSocket(Socket* socket)
{
    if (socket == nullptr)
        return;
    // Callbacks first: a frame written as soon as the socket is published
    // must find its completion callback in place.
    socket->setStreamCallbacks(onSentFunction, onRecvedFunction, this);
    socket->setErrorCallback(onErrorFunction, this);
    socket->setConnectionCallback(onConnectedFunction, onDisconnectFunction, this);
    {
        MutexLocker inbound(m_inboundLock);
        MutexLocker outbound(m_outboundLock);
        if (m_pSocket.load() != socket) {
            detachLocked();
            m_pSocket = socket;
        }
    }
    Core::verbose("DataFrameHandler::setSocket( %p ) m_pSocket = %p\n", static_cast<void*>(socket),
                  static_cast<void*>(socket));
}

UlmarCommsSystem::SocketHold DataFrameHandler::holdSocket()
{
    MutexLocker outbound(m_outboundLock);
    return UlmarCommsSystem::SocketHold(m_pSocket.load());
}

Socket* DataFrameHandler::takeSocket()
{
    MutexLocker inbound(m_inboundLock);
    MutexLocker outbound(m_outboundLock);
    return detachLocked();
}

Socket* DataFrameHandler::takeSocketIf(Socket* expected)
{
    MutexLocker inbound(m_inboundLock);
    MutexLocker outbound(m_outboundLock);
    if (expected == nullptr || m_pSocket.load() != expected)
        return nullptr;
    return detachLocked();
}

Socket* DataFrameHandler::detachLocked()
{
    Socket* old = m_pSocket.exchange(nullptr);
    // A new stream starts with a new frame: the bytes of a half-read frame,
    // and a refusal of the old peer's stream, belong to the old connection.
    release(m_pInboundCurrentFrame);
    m_pInboundCurrentFrame = nullptr;
    m_linkEnding = false;
    // A frame handed to the old socket may have reached the old peer in full
    // or in part; sending it again could deliver it twice or corrupt the new
    // stream, so it goes. A frame the socket never took is kept for the next.
    if (m_pOutboundCurrentFrame != nullptr && (m_outboundInFlight || m_currentSent > 0)) {
        Core::log(Core::LogWarning,
                  "DataFrameHandler::takeSocket() this=%p Dropping frame %u, handed to a link that has gone.\n",
                  static_cast<void*>(this), m_pOutboundCurrentFrame->id());
        m_queuedBytes -= wireSize(m_pOutboundCurrentFrame);
        recycle(m_pOutboundCurrentFrame);
        m_pOutboundCurrentFrame = nullptr;
    }
    // Frames batched behind it went out in the same send when one was posted;
    // otherwise the socket never saw them and they wait for the next link.
    if (m_outboundInFlight) {
        for (DataFrame* frame : m_batched) {
            Core::log(Core::LogWarning,
                      "DataFrameHandler::takeSocket() this=%p Dropping frame %u, handed to a link that has gone.\n",
                      static_cast<void*>(this), frame->id());
            m_queuedBytes -= wireSize(frame);
            release(frame);
        }
        m_batched.clear();
    }
    if (m_pOutboundCurrentFrame == nullptr && !m_batched.empty()) {
        m_pOutboundCurrentFrame = m_batched.front();
        m_batched.pop_front();
    }
    m_outboundInFlight = false;
    m_currentSent = 0;
    return old;
}

void DataFrameHandler::holdOutbound()
{
    MutexLocker locker(m_outboundLock);
    m_outboundHeld = true;
}

void DataFrameHandler::releaseOutbound()
{
    MutexLocker locker(m_outboundLock);
    m_outboundHeld = false;
    if (mayWrite())
        sendOutbound();
}

unsigned DataFrameHandler::queuedFrames()
{
    MutexLocker locker(m_outboundLock);
    return static_cast<unsigned>(m_messageQueue.size() + m_commandQueue.size() + m_batched.size())
        + (m_pOutboundCurrentFrame != nullptr ? 1u : 0u);
}

bool DataFrameHandler::isLinkEnding()
{
    MutexLocker locker(m_inboundLock);
    return m_linkEnding;
}

bool DataFrameHandler::mayWrite() const
{
    return m_pSocket.load() != nullptr && !m_outboundHeld;
}

// ---------------------------------------------------------------- outbound

bool DataFrameHandler::addToOutbound(MessageItem* message)
{
    return addMessage(message, false);
}

bool DataFrameHandler::addToOutboundHeld(MessageItem* message)
{
    return addMessage(message, true);
}

void DataFrameHandler::flushOutbound()
{
    MutexLocker locker(m_outboundLock);
    if (!m_heldFrames)
        return;
    m_heldFrames = false;
    if (mayWrite())
        sendOutbound();
}

bool DataFrameHandler::addMessage(MessageItem* message, bool hold)
{
    MutexLocker locker(m_outboundLock);
    Core::verbose("DataFrameHandler::addToOutbound( [MessageItem] %p ) this=%p\n", static_cast<void*>(message),
                  static_cast<void*>(this));
    DataFrame* frame = nullptr;
    try {
        frame = createOutbound();
        if (frame == nullptr || !frame->insertMessage(m_lastId + 1, message)) {
            release(frame);
            Core::log(Core::LogError, "DataFrameHandler::addToOutbound( %p ) this=%p Frame set failed.\n",
                      static_cast<void*>(message), static_cast<void*>(this));
            return false;
        }
    } catch (...) {
        release(frame);
        Core::log(Core::LogError,
                  "DataFrameHandler::addToOutbound( %p ) this=%p Unhandled exception while trying to create "
                  "dataframe from message.\n",
                  static_cast<void*>(message), static_cast<void*>(this));
        return false;
    }
    return enqueue(frame, false, hold);
}

bool DataFrameHandler::addToOutbound(unsigned char code, const char* text)
{
    MutexLocker locker(m_outboundLock);
    const char* shown = printable(text);
    Core::verbose("DataFrameHandler::addToOutbound( [command] %d, '%s' ) this=%p\n", code, shown,
                  static_cast<void*>(this));
    DataFrame* frame = nullptr;
    try {
        frame = createOutbound();
        if (frame == nullptr) {
            Core::log(Core::LogError,
                      "DataFrameHandler::addToOutbound( [command] %d, '%s' ) this=%p Failed to create DataFrame.\n",
                      code, shown, static_cast<void*>(this));
            return false;
        }
        if (!frame->insertCommand(m_lastId + 1, code, text)) {
            release(frame);
            Core::log(Core::LogError,
                      "DataFrameHandler::addToOutbound( [command] %d, '%s' ) this=%p Failed to set DataFrame.\n",
                      code, shown, static_cast<void*>(this));
            return false;
        }
    } catch (...) {
        release(frame);
        Core::log(Core::LogError, "DataFrameHandler::addToOutbound( [command] %d, '%s' ) this=%p Unhandled exception.\n",
                  code, shown, static_cast<void*>(this));
        return false;
    }
    return enqueue(frame, true, false);
}

bool DataFrameHandler::enqueue(DataFrame* frame, bool command, bool hold)
{
    // Held messages were queued as if written at once: a command must not
    // overtake them, so they are tried before it joins the queue.
    if (command && m_heldFrames) {
        m_heldFrames = false;
        if (mayWrite())
            sendOutbound();
    }
    const uint64_t size = wireSize(frame);
    // A peer that stops reading must not make us hold unbounded memory.
    if (m_queuedBytes > 0 && m_queuedBytes + size > MaxQueuedBytes) {
        Core::log(Core::LogError,
                  "DataFrameHandler::addToOutbound() this=%p Outbound queue full (%llu bytes waiting), frame "
                  "refused.\n",
                  static_cast<void*>(this), static_cast<unsigned long long>(m_queuedBytes));
        release(frame);
        return false;
    }
    try {
        (command ? m_commandQueue : m_messageQueue).push_back(frame);
    } catch (...) {
        release(frame);
        Core::log(Core::LogError, "DataFrameHandler::addToOutbound() this=%p Unable to queue the frame.\n",
                  static_cast<void*>(this));
        return false;
    }
    m_lastId = frame->id();
    m_queuedBytes += size;
    if (hold) {
        m_heldFrames = true;
        return true;
    }
    m_heldFrames = false; // the write below takes them along
    if (mayWrite() && !m_sending) {
        Core::verbose("DataFrameHandler::addToOutbound() sendOutbound()\n");
        sendOutbound();
    }
    return true;
}

void DataFrameHandler::sendOutbound()
{
    if (m_pOutboundCurrentFrame != nullptr) {
        // Still being written; or kept from a link that went before the
        // socket took any of it, which starts it again.
        if (!m_outboundInFlight)
            doSendOutboundData();
        return;
    }
    if (!pickNextFrame())
        return;
    doSendOutboundData();
}

bool DataFrameHandler::pickNextFrame()
{
    Core::verbose("DataFrameHandler::sendOutbound() no current outbound.\n");
    if (!m_batched.empty()) {
        // Already chosen for a send that did not take them: they go first.
        m_pOutboundCurrentFrame = m_batched.front();
        m_batched.pop_front();
    } else if (!m_commandQueue.empty()) {
        Core::verbose("DataFrameHandler::sendOutbound() Sending Command.\n");
        m_pOutboundCurrentFrame = m_commandQueue.front();
        m_commandQueue.pop_front();
    } else if (!m_messageQueue.empty()) {
        Core::verbose("DataFrameHandler::sendOutbound() Sending message.\n");
        m_pOutboundCurrentFrame = m_messageQueue.front();
        m_messageQueue.pop_front();
    } else {
        m_sending = false;
        Core::verbose("DataFrameHandler::sendOutbound() Not Sending At all.\n");
        return false;
    }
    m_currentSent = 0;
    m_outboundInFlight = false;
    return true;
}

unsigned DataFrameHandler::fillOutboundBuffer()
{
    unsigned count = 0;
    if (!m_pOutboundCurrentFrame->writeOut(m_pOutboundBuffer, m_outboundSize, count))
        return 0;
    if (wireSize(m_pOutboundCurrentFrame) - m_currentSent != count)
        return count; // the current frame alone fills the buffer
    // Whole frames that still fit follow in the same send, chosen by the
    // same rule and in the same order as one at a time: the bytes on the
    // wire do not change, only how many system calls carry them.
    size_t batched = 0;
    while (true) {
        DataFrame* next = nullptr;
        if (batched < m_batched.size()) {
            next = m_batched[batched];
        } else if (!m_commandQueue.empty()) {
            next = m_commandQueue.front();
        } else if (!m_messageQueue.empty()) {
            next = m_messageQueue.front();
        }
        if (next == nullptr || wireSize(next) > m_outboundSize - count)
            break;
        unsigned written = 0;
        if (!next->writeOut(m_pOutboundBuffer + count, m_outboundSize - count, written))
            break;
        if (batched == m_batched.size()) {
            if (!m_commandQueue.empty() && next == m_commandQueue.front()) {
                Core::verbose("DataFrameHandler::sendOutbound() Sending Command.\n");
                m_commandQueue.pop_front();
            } else {
                Core::verbose("DataFrameHandler::sendOutbound() Sending message.\n");
                m_messageQueue.pop_front();
            }
            m_batched.push_back(next);
        }
        ++batched;
        count += written;
    }
    return count;
}

void DataFrameHandler::doSendOutboundData()
{
    if (m_pOutboundCurrentFrame == nullptr) {
        Core::log(Core::LogError, "DataFrameHandler::doSendOutboundData() this=%p No current outbound frame.\n",
                  static_cast<void*>(this));
        return;
    }
    Socket* socket = m_pSocket.load();
    if (socket == nullptr || m_outboundHeld)
        return; // the frame waits for the next socket
    unsigned count = 0;
    while (true) {
        count = fillOutboundBuffer();
        if (count == 0) {
            Core::log(Core::LogError,
                      "DataFrameHandler::doSendOutboundData() this=%p writeOut on current frame failed.\n",
                      static_cast<void*>(this));
            return;
        }
        // Written here and now when the connection takes the bytes: no
        // worker has to be woken to do it. Whatever it does not take goes
        // through the selector as before, from where the socket stopped.
        const unsigned taken = socket->trySend(m_pOutboundBuffer, count);
        if (taken == 0)
            break;
        Core::verbose("DataFrameHandler::doSendOutboundData() this=%p Sent Bytes=%d \n", static_cast<void*>(this),
                      taken);
        if (!completeSent(socket, m_pOutboundBuffer, taken, count))
            return;
    }
    const unsigned char error = socket->send(m_pOutboundBuffer, count);
    if (error != Socket::NoSocketError) {
        // Left current: the link ends through the error callback, or the
        // next frame queued tries it again.
        Core::log(Core::LogError,
                  "DataFrameHandler::doSendOutboundData() this=%p socket=%p Failed to send data error:%d.\n",
                  static_cast<void*>(this), static_cast<void*>(socket), error);
        return;
    }
    m_outboundInFlight = true;
    Core::verbose("DataFrameHandler::doSendOutboundData() this=%p Sent Bytes=%d \n", static_cast<void*>(this), count);
}

bool DataFrameHandler::completeSent(Socket* socket, unsigned char* buffer, unsigned count, unsigned size)
{
    unsigned left = count;
    while (m_pOutboundCurrentFrame != nullptr && left > 0) {
        const unsigned part =
            static_cast<unsigned>(std::min<uint64_t>(left, wireSize(m_pOutboundCurrentFrame) - m_currentSent));
        left -= part;
        m_currentSent += part;
        if (!m_pOutboundCurrentFrame->doneWriteOut(part))
            break;
        m_queuedBytes -= wireSize(m_pOutboundCurrentFrame);
        recycle(m_pOutboundCurrentFrame);
        m_pOutboundCurrentFrame = nullptr;
        m_currentSent = 0;
        Core::verbose("DataFrameHandler::onSent( %p, %p, %d, %d, %d ) this=%p Finished with the frame.\n",
                      static_cast<void*>(socket), static_cast<void*>(buffer), count, size, 0,
                      static_cast<void*>(this));
        if (m_batched.empty())
            break;
        m_pOutboundCurrentFrame = m_batched.front();
        m_batched.pop_front();
    }
    requeueUntouched();
    if (m_pOutboundCurrentFrame != nullptr) {
        Core::verbose("DataFrameHandler::onSent( %p, %p, %d, %d, %d ) this=%p Carry on with frame.\n",
                      static_cast<void*>(socket), static_cast<void*>(buffer), count, size, 0,
                      static_cast<void*>(this));
        return true;
    }
    return pickNextFrame();
}

void DataFrameHandler::requeueUntouched()
{
    // Frames the socket took nothing of were not written: back at the head
    // of their queues, a command queued meanwhile leaves before the messages
    // among them, exactly as one frame at a time would have it.
    try {
        if (m_pOutboundCurrentFrame != nullptr && m_currentSent == 0) {
            m_batched.push_front(m_pOutboundCurrentFrame);
            m_pOutboundCurrentFrame = nullptr;
        }
        while (!m_batched.empty()) {
            DataFrame* frame = m_batched.back();
            auto& queue = frame->frameType() == DataFrame::FrameTypeCommand ? m_commandQueue : m_messageQueue;
            queue.push_front(frame);
            m_batched.pop_back();
        }
    } catch (...) {
        // Those left batched are still taken first, in wire order.
    }
}

void DataFrameHandler::onSent(Socket* socket, unsigned char* buffer, unsigned count, unsigned size,
                              unsigned char error)
{
    MutexLocker locker(m_outboundLock);
    if (buffer == &m_probe)
        return; // the probe of a link being ended carries no frame
    if (socket == nullptr || socket != m_pSocket.load()) {
        Core::log(Core::LogError, "DataFrameHandler::onSent( %p, , %d, %d, %d ) this=%p Socket missmatch.\n",
                  static_cast<void*>(socket), count, size, error, static_cast<void*>(this));
        return;
    }
    if (m_pOutboundCurrentFrame == nullptr) {
        Core::log(Core::LogWarning, "DataFrameHandler::onSent() m_pOutboundCurrentFrame == NULL\n");
        return;
    }
    m_outboundInFlight = false;
    if (completeSent(socket, buffer, count, size))
        doSendOutboundData();
}

void DataFrameHandler::releaseOutboundFrames()
{
    for (DataFrame* frame : m_commandQueue)
        release(frame);
    for (DataFrame* frame : m_messageQueue)
        release(frame);
    m_commandQueue.clear();
    m_messageQueue.clear();
    for (DataFrame* frame : m_batched)
        release(frame);
    m_batched.clear();
    release(m_pOutboundCurrentFrame);
    m_pOutboundCurrentFrame = nullptr;
    m_outboundInFlight = false;
    m_currentSent = 0;
    m_queuedBytes = 0;
}

// ----------------------------------------------------------------- inbound

bool DataFrameHandler::recvData()
{
    return postRecv(m_pSocket.load());
}

bool DataFrameHandler::postRecv(Socket* socket)
{
    if (socket == nullptr) {
        Core::log(Core::LogError, "DataFrameHandler::recvData() No Sockte handle.\n");
        return false;
    }
    if (m_pInboundBuffer == nullptr) {
        Core::log(Core::LogError, "DataFrameHandler::recvData() this=%p No inbound buffer.\n",
                  static_cast<void*>(this));
        return false;
    }
    const unsigned char error = socket->recv(m_pInboundBuffer, m_inboundSize);
    if (error != Socket::NoSocketError) {
        Core::log(Core::LogError, "DataFrameHandler::recvData() Socket failed to do recv() and returned error:%d.\n",
                  error);
        return false;
    }
    return true;
}

void DataFrameHandler::onRecved(Socket* socket, unsigned char* buffer, unsigned count, unsigned,
                                unsigned char)
{
    MutexLocker locker(m_inboundLock);
    if (socket == nullptr || socket != m_pSocket.load()) {
        Core::log(Core::LogError, "DataFrameHandler::onRecved() this=%p Has no socket object.\n",
                  static_cast<void*>(this));
        return;
    }
    if (m_linkEnding) {
        // Whatever the peer still sends is dropped until the end arrives.
        postRecv(socket);
        return;
    }
    if (m_pInboundCurrentFrame == nullptr) {
        m_pInboundCurrentFrame = create();
        if (m_pInboundCurrentFrame == nullptr) {
            Core::log(Core::LogError, "DataFrameHandler::onRecved() this=%p Unable to create new inbound dataframe.\n",
                      static_cast<void*>(this));
            return;
        }
    }
    // The next receive is posted into the other buffer before these bytes
    // are dispatched. Dispatching wakes the router worker, which answers at
    // once: it then finds the socket free to write instead of waiting while
    // the receive is armed. A receive completing meanwhile on another worker
    // waits for the inbound lock, so frames keep their order.
    bool posted = false;
    if (buffer == m_pInboundBuffer && m_pInboundSpare != nullptr) {
        std::swap(m_pInboundBuffer, m_pInboundSpare);
        postRecv(socket);
        posted = true;
    }
    // Messages this block sends on to other links are written once the
    // whole block is dispatched, in one send per link instead of one each.
    beginDispatch();
    DispatchScope dispatching(this);
    unsigned offset = 0;
    while (offset < count) {
        bool complete = false;
        unsigned consumed = 0;
        if (!m_pInboundCurrentFrame->readIn(buffer + offset, count - offset, complete, consumed)) {
            Core::log(Core::LogError, "DataFrameHandler::onRecved() m_pInboundCurrentFrame->readIn() Failed\n");
            // Only a refused header fails with input left: the bytes after it
            // cannot be framed again, so retrying would never get past it.
            endLink(socket, m_pInboundCurrentFrame->readError() == DataFrame::ReadErrorNoMemory
                                ? "no memory for the payload the peer announced"
                                : "the peer announced a frame above the size limit");
            return;
        }
        if (complete) {
            Core::verbose("DataFrameHandler::onRecved() this=%p Processing inbound current frame.\n",
                          static_cast<void*>(this));
            // A payload that does not parse costs that frame only: its
            // header said where it ends, so the next frame is read as usual.
            processInboundCurrentFrame();
            m_pInboundCurrentFrame->reset();
        }
        offset += consumed;
    }
    Core::verbose("DataFrameHandler::onRecved() this=%p Finished.\n", static_cast<void*>(this));
    if (!posted)
        postRecv(socket);
}

void DataFrameHandler::processInboundCurrentFrame()
{
    DataFrame* frame = m_pInboundCurrentFrame;
    switch (frame->frameType()) {
    case DataFrame::FrameTypeMessage: {
        MessageItem* message = MessageItem::create();
        if (message == nullptr) {
            Core::log(Core::LogError, "DataFrameHandler::processInboundCurrentFrame() this=%p failed create message.!\n",
                      static_cast<void*>(this));
            return;
        }
        if (!frame->extractMessage(*message)) {
            MessageItem::release(message);
            Core::log(Core::LogError, "DataFrameHandler::processInboundCurrentFrame() this=%p failed frame get.!\n",
                      static_cast<void*>(this));
            return;
        }
        try {
            doHandleMessage(message); // the subclass owns it now
        } catch (...) {
            Core::log(Core::LogError,
                      "DataFrameHandler::processInboundCurrentFrame() this=%p doHandleMessage threw; frame %u "
                      "dropped.\n",
                      static_cast<void*>(this), frame->id());
        }
        return;
    }
    case DataFrame::FrameTypeCommand: {
        unsigned char code = 0;
        std::string text;
        if (!frame->extractCommand(code, text)) {
            Core::log(Core::LogError,
                      "DataFrameHandler::processInboundCurrentFrame() this=%p failed frame get for command.!\n",
                      static_cast<void*>(this));
            return;
        }
        try {
            doHandleCommand(code, text);
        } catch (...) {
            Core::log(Core::LogError,
                      "DataFrameHandler::processInboundCurrentFrame() this=%p doHandleCommand threw; frame %u "
                      "dropped.\n",
                      static_cast<void*>(this), frame->id());
        }
        return;
    }
    default:
        // The header still says where the frame ends, so it is skipped.
        Core::log(Core::LogWarning, "DataFrameHandler::processInboundCurrentFrame() this=%p frame is Unknown!\n",
                  static_cast<void*>(this));
        return;
    }
}

void DataFrameHandler::endLink(Socket* socket, const char* reason)
{
    m_linkEnding = true;
    Core::log(Core::LogError, "DataFrameHandler::onRecved() this=%p Ending the link on socket %p: %s.\n",
              static_cast<void*>(this), static_cast<void*>(socket), reason);
    // Shut down rather than closed: the socket layer then reports the end on
    // a worker, outside this callback, through the same path as any drop
    // (listener's client-disconnect, disconnected, error), exactly once. The
    // socket's own lock keeps a close() elsewhere from recycling the handle.
    {
        UlmarCommsSystem::SocketHold hold(socket);
        if (hold.record() != nullptr) {
            MutexLocker locker(hold.record()->lock);
            const int handle = socket->getHandle();
            if (handle != Socket::BadSocketValue)
                ::shutdown(handle, SHUT_RDWR);
        }
    }
    // The end shows as an empty read; a write fails too, which ends the link
    // even if the peer keeps the read side busy.
    postRecv(socket);
    MutexLocker locker(m_outboundLock);
    if (!m_outboundInFlight)
        socket->send(&m_probe, 1);
}

// ------------------------------------------------------------- defaults

void DataFrameHandler::onError(Socket* socket, unsigned char error)
{
    Core::verbose("DataFrameHandler::onError( %p, %d ) this=%d Calling default.\n", static_cast<void*>(socket), error,
                  asNumber(this));
}

void DataFrameHandler::onConnected(Socket* socket)
{
    Core::verbose("DataFrameHandler::onConnected( %p ) this=%d Calling default.\n", static_cast<void*>(socket),
                  asNumber(this));
}

void DataFrameHandler::onDisconnect(Socket* socket)
{
    Core::verbose("DataFrameHandler::onDisconnect( %p ) this=%d Calling default.\n", static_cast<void*>(socket),
                  asNumber(this));
}

// ------------------------------------------------------------ trampolines

void DataFrameHandler::onSentFunction(Socket* socket, unsigned char* buffer, unsigned count, unsigned size,
                                      void* user, unsigned char error)
{
    DataFrameHandler* handler = static_cast<DataFrameHandler*>(user);
    if (handler == nullptr)
        return;
    CallbackScope scope(handler);
    try {
        handler->onSent(socket, buffer, count, size, error);
    } catch (...) {
        Core::log(Core::LogFatal,
                  "DataFrameHandler::onSentFunction( %p, %p, %d, %d, %p, %d ) OnSend callback handing an unhandled "
                  "exception.\n",
                  static_cast<void*>(socket), static_cast<void*>(buffer), count, size, user, error);
    }
}

void DataFrameHandler::onRecvedFunction(Socket* socket, unsigned char* buffer, unsigned count, unsigned size,
                                        void* user, unsigned char error)
{
    DataFrameHandler* handler = static_cast<DataFrameHandler*>(user);
    if (handler == nullptr)
        return;
    CallbackScope scope(handler);
    try {
        handler->onRecved(socket, buffer, count, size, error);
    } catch (...) {
        Core::log(Core::LogFatal,
                  "DataFrameHandler::onRecvedFunction( %p, %p, %d, %d, %p, %d ) OnSend callback handing an unhandled "
                  "exception.\n",
                  static_cast<void*>(socket), static_cast<void*>(buffer), count, size, user, error);
    }
}

void DataFrameHandler::onErrorFunction(Socket* socket, unsigned char error, void* user)
{
    Core::log(Core::LogError, "DataFrameHandler::onErrorFunction( %p, %d, %p ) Got an error\n",
              static_cast<void*>(socket), error, user);
    DataFrameHandler* handler = static_cast<DataFrameHandler*>(user);
    if (handler == nullptr)
        return;
    CallbackScope scope(handler);
    try {
        handler->onError(socket, error);
    } catch (...) {
        Core::log(Core::LogFatal,
                  "DataFrameHandler::onErrorFunction( %p, %d, %p ) onError callback handing an unhandled exception.\n",
                  static_cast<void*>(socket), error, user);
    }
}

void DataFrameHandler::onConnectedFunction(Socket* socket, void* user)
{
    DataFrameHandler* handler = static_cast<DataFrameHandler*>(user);
    if (handler == nullptr)
        return;
    CallbackScope scope(handler);
    try {
        handler->onConnected(socket);
    } catch (...) {
        Core::log(Core::LogFatal,
                  "DataFrameHandler::onConnectedFunction( %p, %p ) OnConnection() callback handing an unhandled "
                  "exception.\n",
                  static_cast<void*>(socket), user);
    }
}

void DataFrameHandler::onDisconnectFunction(Socket* socket, void* user)
{
    DataFrameHandler* handler = static_cast<DataFrameHandler*>(user);
    if (handler == nullptr)
        return;
    CallbackScope scope(handler);
    try {
        handler->onDisconnect(socket);
    } catch (...) {
        Core::log(Core::LogFatal,
                  "DataFrameHandler::onDisconnectFunction( %p, %p ) OnConnection() callback handing an unhandled "
                  "exception.\n",
                  static_cast<void*>(socket), user);
    }
}

// ================================================================= server

DataFrameServer::DataFrameServer(const SocketAddress& address) : m_scratch(0), m_address(address), m_pSocket(nullptr)
{
}

DataFrameServer::~DataFrameServer()
{
    dropListener();
}

void DataFrameServer::dropListener()
{
    // Deleting waits for the listener's callbacks still running elsewhere.
    Socket* listener = m_pSocket.exchange(nullptr);
    if (listener == nullptr)
        return;
    listener->close();
    delete listener;
}

bool DataFrameServer::start()
{
    if (!m_address.isValid()) {
        Core::log(Core::LogError, "The address passed to DataFrameServer object is not valid.\n");
        return false;
    }
    dropListener();
    Socket* listener = nullptr;
    if (m_address.isIP4Address())
        listener = new (std::nothrow) UlmarCommsSystem::SocketTCPIP();
    else if (m_address.isUNIXAddress())
        listener = new (std::nothrow) UlmarCommsSystem::SocketUNIX();
    if (listener == nullptr) {
        Core::log(Core::LogError, "DataFrameServer::start() Failed to create Socket Object.\n");
        return false;
    }
    unsigned char error = listener->create();
    if (error != Socket::NoSocketError) {
        Core::log(Core::LogError, "DataFrameServer::start() Failed to create socket. Error: %d\n", error);
        delete listener;
        return false;
    }
    error = listener->bind(m_address);
    if (error != Socket::NoSocketError) {
        Core::log(Core::LogError, "DataFrameServer::start() Failed to bind socket. Error: %d\n", error);
        delete listener;
        return false;
    }
    listener->setUserData(this);
    // Published before listening: the first client may arrive at once, and
    // the subclass checks that it came through this listener.
    m_pSocket = listener;
    error = listener->listen(onClientConnectFunction, onClientDisconnectFunction, this);
    if (error != Socket::NoSocketError) {
        Core::log(Core::LogError, "DataFrameServer::start() Failed to listen on socket. Error: %d\n", error);
        dropListener();
        return false;
    }
    return true;
}

void DataFrameServer::finish()
{
    dropListener();
}

void DataFrameServer::onClientConnectFunction(Socket* listener, const SocketAddress& peer, Socket* accepted,
                                              void* user)
{
    DataFrameServer* server = static_cast<DataFrameServer*>(user);
    if (server == nullptr)
        return;
    try {
        server->onClientConnect(listener, peer, accepted);
    } catch (...) {
        Core::log(Core::LogFatal, "DataFrameServer::onClientConnectFunction( %p, %p, %p ) Unhandled exception.\n",
                  static_cast<void*>(listener), static_cast<void*>(accepted), user);
    }
}

void DataFrameServer::onClientDisconnectFunction(Socket* listener, Socket* accepted, void* user)
{
    DataFrameServer* server = static_cast<DataFrameServer*>(user);
    if (server == nullptr)
        return;
    try {
        server->onClientDisconnect(listener, accepted);
    } catch (...) {
        Core::log(Core::LogFatal, "DataFrameServer::onClientDisconnectFunction( %p, %p, %p ) Unhandled exception.\n",
                  static_cast<void*>(listener), static_cast<void*>(accepted), user);
    }
    if (listener == nullptr)
        return;
    const unsigned char error = listener->recv(&server->m_scratch, 1);
    if (error != Socket::NoSocketError)
        Core::log(Core::LogError,
                  "DataFrameServer::onClientDisconnectFunction() Failed to do the disconnect recv() with error: %d",
                  error);
}

} // namespace UlmarComms
