// Frame handler: lifetime, the socket, inbound reassembly and dispatch, and
// the socket trampolines. The outbound queues and the frame in flight are in
// dataframeoutbound.cpp.
//
// The log texts stay byte for byte as they are, misspellings included,
// because operators grep the logs for them. Pointers that those texts print
// with %d are passed as numbers, so the logger never sees a mismatched
// argument.
#include "framing/dataframehandler.h"

#include "core/core.h"
#include "core/memorytrim.h"
#include "messaging/messageitem.h"
#include "platform/socketreaper.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <string>
#include <sys/socket.h>
#include <utility>
#include <vector>

namespace UlmarComms {

using UlmarCommsSystem::MutexLocker;
using UlmarCommsSystem::Socket;
using UlmarCommsSystem::SocketAddress;

namespace {

int asNumber(const void* pointer)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(pointer));
}

} // namespace

// ---------------------------------------------------------------- lifetime

DataFrameHandler::DataFrameHandler()
    : m_pInboundBuffer(nullptr),
      m_inboundSize(0),
      m_pInboundSpare(nullptr),
      m_pInboundCurrentFrame(nullptr),
      m_linkEnding(false),
      m_endAfterFrame(false),
      m_inboundCommandLimit(0),
      m_sending(false),
      m_lastId(0),
      m_pOutboundBuffer(nullptr),
      m_outboundSize(0),
      m_pOutboundCurrentFrame(nullptr),
      m_outboundInFlight(false),
      m_currentSent(0),
      m_pQueued(std::make_unique<ByteAccount>(MaxQueuedBytes, nullptr, "link")),
      m_pInbound(std::make_unique<ByteAccount>(MaxInboundBytes, nullptr, "frame")),
      m_endSlowConsumer(false),
      m_slowConsumer(false),
      m_outboundHeld(false),
      m_batchedFrames(false),
      m_pBatchMember(std::make_shared<WriteBatch::Member>(this)),
      m_probe(0),
      m_pSocket(nullptr)
{
    Core::verbose("DataFrameHandler::DataFrameHandler() this=%p\n", static_cast<void*>(this));
}

DataFrameHandler::~DataFrameHandler()
{
    Core::verbose("DataFrameHandler::~DataFrameHandler() this=%p\n", static_cast<void*>(this));
    // A batch still open on any thread skips this handler from here on; one
    // writing it right now is waited for.
    WriteBatch::forget(*m_pBatchMember);
    // Normally retireLink() has run already; a handler deleted directly
    // must not leave a socket that calls into it either.
    DataFrameHandler::retireLink();
    {
        MutexLocker locker(m_outboundLock);
        releaseOutboundFrames();
        for (DataFrame* frame : m_spareFrames)
            release(frame);
        m_spareFrames.clear();
    }
    {
        MutexLocker locker(m_inboundLock);
        releaseInbound();
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

DataFrame* DataFrameHandler::createInbound()
{
    DataFrame* frame = create();
    if (frame == nullptr)
        return nullptr;
    // The first buffer is small and one per link, so it is never refused;
    // its growth is, by the inbound account and the parents.
    m_pInbound->chargeOrRefuser(frame->heldBytes(), ByteAccount::Bounds::None);
    frame->chargeGrowthTo(m_pInbound.get(), ByteAccount::Bounds::All);
    return frame;
}

void DataFrameHandler::releaseInbound()
{
    if (m_pInboundCurrentFrame == nullptr)
        return;
    if (m_pInboundCurrentFrame->capacity() > KeptInboundBytes)
        MemoryTrim::released(m_pInboundCurrentFrame->capacity());
    release(m_pInboundCurrentFrame);
    m_pInboundCurrentFrame = nullptr;
    m_pInbound->releaseAll();
}

void DataFrameHandler::setMemoryAccounts(uint64_t queueLimit, std::shared_ptr<ByteAccount> parent, bool endSlowConsumer)
{
    MutexLocker inbound(m_inboundLock);
    MutexLocker outbound(m_outboundLock);
    auto queued = std::make_unique<ByteAccount>(queueLimit, parent, "link");
    auto received = std::make_unique<ByteAccount>(MaxInboundBytes, parent, "frame");
    // Whatever is held already moves over, whatever the bounds say.
    queued->chargeOrRefuser(m_pQueued->used(), ByteAccount::Bounds::None);
    received->chargeOrRefuser(m_pInbound->used(), ByteAccount::Bounds::None);
    m_pQueued = std::move(queued);
    m_pInbound = std::move(received);
    if (m_pInboundCurrentFrame != nullptr)
        m_pInboundCurrentFrame->chargeGrowthTo(m_pInbound.get(), ByteAccount::Bounds::All);
    m_endSlowConsumer = endSlowConsumer;
}

bool DataFrameHandler::isSlowConsumer()
{
    MutexLocker locker(m_outboundLock);
    return m_slowConsumer;
}

std::string DataFrameHandler::linkName() const
{
    char text[48];
    std::snprintf(text, sizeof(text), "link %p", static_cast<const void*>(this));
    return text;
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
    if (frame == nullptr || frame->capacity() > DataFrame::InitialBufferSize ||
        m_spareFrames.size() >= kMaxSpareFrames) {
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

void DataFrameHandler::release(DataFrameHandler* handler)
{
    if (handler == nullptr)
        return;
    handler->retireLink();
    UlmarCommsSystem::SocketReaper::deferDelete(handler);
}

void DataFrameHandler::retireLink()
{
    // The socket stays open (it is the owner's); cleared under its lock, its
    // callbacks no longer lead here once this returns.
    Socket* socket = takeSocket();
    if (socket == nullptr)
        return;
    socket->setStreamCallbacks(nullptr, nullptr, nullptr);
    socket->setErrorCallback(nullptr, nullptr);
    socket->setConnectionCallback(nullptr, nullptr, nullptr);
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
    releaseInbound();
    m_linkEnding = false;
    m_slowConsumer = false;
    // A frame handed to the old socket may have reached the old peer in full
    // or in part; sending it again could deliver it twice or corrupt the new
    // stream, so it goes. A frame the socket never took is kept for the next.
    if (m_pOutboundCurrentFrame != nullptr && (m_outboundInFlight || m_currentSent > 0)) {
        Core::log(Core::LogWarning,
                  "DataFrameHandler::takeSocket() this=%p Dropping frame %u, handed to a link that has gone.\n",
                  static_cast<void*>(this), m_pOutboundCurrentFrame->id());
        m_pQueued->release(m_pOutboundCurrentFrame->heldBytes());
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
            m_pQueued->release(frame->heldBytes());
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
    return static_cast<unsigned>(m_messageQueue.size() + m_commandQueue.size() + m_batched.size()) +
        (m_pOutboundCurrentFrame != nullptr ? 1u : 0u);
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

void DataFrameHandler::onRecved(Socket* socket, unsigned char* buffer, unsigned count, unsigned, unsigned char)
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
        m_pInboundCurrentFrame = createInbound();
        if (m_pInboundCurrentFrame == nullptr) {
            Core::log(Core::LogError, "DataFrameHandler::onRecved() this=%p Unable to create new inbound dataframe.\n",
                      static_cast<void*>(this));
            return;
        }
        m_pInboundCurrentFrame->limitCommands(m_inboundCommandLimit);
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
    // Messages this block sends on to links are written once the whole
    // block is dispatched, in one send per link instead of one each.
    WriteBatch batch;
    unsigned offset = 0;
    while (offset < count) {
        bool complete = false;
        unsigned consumed = 0;
        if (!m_pInboundCurrentFrame->readIn(buffer + offset, count - offset, complete, consumed)) {
            Core::log(Core::LogError, "DataFrameHandler::onRecved() m_pInboundCurrentFrame->readIn() Failed\n");
            // Only a refused header fails with input left: the bytes after it
            // cannot be framed again, so retrying would never get past it.
            endLink(socket, refusalReason(*m_pInboundCurrentFrame).c_str());
            return;
        }
        if (complete) {
            Core::verbose("DataFrameHandler::onRecved() this=%p Processing inbound current frame.\n",
                          static_cast<void*>(this));
            // A payload that does not parse costs that frame only: its
            // header said where it ends, so the next frame is read as usual.
            processInboundCurrentFrame();
            m_pInboundCurrentFrame->reset();
            // A large buffer is not kept for the next frame: most frames are
            // small, and the memory goes back to the system. Up to a few
            // kilobytes it is kept, so medium frames cost no allocation each.
            if (m_pInboundCurrentFrame->capacity() > KeptInboundBytes) {
                releaseInbound();
                m_pInboundCurrentFrame = createInbound();
                if (m_pInboundCurrentFrame == nullptr) {
                    endLink(socket, "no memory for the next frame");
                    return;
                }
            }
            if (m_endAfterFrame) {
                m_endAfterFrame = false;
                endLink(socket, nullptr);
                return;
            }
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
            Core::log(Core::LogError,
                      "DataFrameHandler::processInboundCurrentFrame() this=%p failed create message.!\n",
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
            // A link that bounds its commands takes no record that lies
            // about its own length.
            if (m_inboundCommandLimit != 0)
                m_endAfterFrame = true;
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

std::string DataFrameHandler::refusalReason(const DataFrame& frame) const
{
    switch (frame.readError()) {
    case DataFrame::ReadErrorNoMemory: return "no memory for the payload the peer announced";
    case DataFrame::ReadErrorOverAccount: {
        const ByteAccount* refuser = frame.refusingAccount();
        char text[160];
        std::snprintf(text, sizeof(text),
                      "the frame being received from %s would pass the %s memory limit of %llu bytes",
                      linkName().c_str(), refuser != nullptr ? refuser->name() : "",
                      static_cast<unsigned long long>(refuser != nullptr ? refuser->limit() : 0));
        return text;
    }
    default: return "the peer announced a frame above the size limit";
    }
}

void DataFrameHandler::endLink(Socket* socket, const char* reason)
{
    m_linkEnding = true;
    if (reason != nullptr)
        Core::log(Core::LogError, "DataFrameHandler::onRecved() this=%p Ending the link on socket %p: %s.\n",
                  static_cast<void*>(this), static_cast<void*>(socket), reason);
    // The half-received frame is of no use any more: its memory goes now.
    releaseInbound();
    shutdownConnection(socket, false);
    // The end shows as an empty read; a write fails too, which ends the link
    // even if the peer keeps the read side busy.
    postRecv(socket);
    MutexLocker locker(m_outboundLock);
    if (!m_outboundInFlight)
        socket->send(&m_probe, 1);
}

void DataFrameHandler::shutdownConnection(Socket* socket, bool probe)
{
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
    if (probe && !m_outboundInFlight)
        socket->send(&m_probe, 1);
}

void DataFrameHandler::endLinkAfterThisFrame()
{
    MutexLocker locker(m_inboundLock);
    m_endAfterFrame = true;
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

void DataFrameHandler::onSentFunction(Socket* socket, unsigned char* buffer, unsigned count, unsigned size, void* user,
                                      unsigned char error)
{
    DataFrameHandler* handler = static_cast<DataFrameHandler*>(user);
    if (handler == nullptr)
        return;
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
    try {
        handler->onDisconnect(socket);
    } catch (...) {
        Core::log(Core::LogFatal,
                  "DataFrameHandler::onDisconnectFunction( %p, %p ) OnConnection() callback handing an unhandled "
                  "exception.\n",
                  static_cast<void*>(socket), user);
    }
}

} // namespace UlmarComms
