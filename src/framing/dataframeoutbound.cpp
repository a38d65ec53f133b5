// Frame handler, outbound: the queues, the one frame in flight and the
// asynchronous send that writes it, resumed where the socket stopped. Frames
// ready together leave in one gathering write straight from their buffers
// when the connection takes them at once; only what it leaves over is
// copied into the outbound buffer for the selector to write. A
// message frame queued while a WriteBatch is open on the calling thread
// waits in the queue until the batch ends (writebatch.h).
//
// The log texts stay byte for byte as they are, misspellings included,
// because operators grep the logs for them.
#include "framing/dataframehandler.h"

#include "core/core.h"
#include "core/memorytrim.h"
#include "messaging/messageitem.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <sys/socket.h>
#include <sys/uio.h>

namespace UlmarComms {

using UlmarCommsSystem::MutexLocker;
using UlmarCommsSystem::Socket;

namespace {

// A null text logged through %s would be undefined in the logger's printf.
const char* printable(const char* text)
{
    return text != nullptr ? text : "(null)";
}

} // namespace

// ---------------------------------------------------------------- outbound

bool DataFrameHandler::addToOutbound(MessageItem* message)
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
    return enqueue(frame, false);
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
                      "DataFrameHandler::addToOutbound( [command] %d, '%s' ) this=%p Failed to set DataFrame.\n", code,
                      shown, static_cast<void*>(this));
            return false;
        }
    } catch (...) {
        release(frame);
        Core::log(Core::LogError,
                  "DataFrameHandler::addToOutbound( [command] %d, '%s' ) this=%p Unhandled exception.\n", code, shown,
                  static_cast<void*>(this));
        return false;
    }
    return enqueue(frame, true);
}

bool DataFrameHandler::enqueue(DataFrame* frame, bool command)
{
    // Batched messages were queued as if written at once: a command must not
    // overtake them, so they are tried before it joins the queue.
    if (command && m_batchedFrames) {
        m_batchedFrames = false;
        if (mayWrite())
            sendOutbound();
    }
    if (m_slowConsumer) {
        // Ended for holding too much: nothing more is queued for it.
        Core::verbose("DataFrameHandler::addToOutbound() this=%p Link ending, frame dropped.\n",
                      static_cast<void*>(this));
        release(frame);
        return false;
    }
    const bool queueEmpty =
        m_pOutboundCurrentFrame == nullptr && m_batched.empty() && m_commandQueue.empty() && m_messageQueue.empty();
    // A frame that will wait holds no more memory than its bytes need.
    if (!queueEmpty || !mayWrite())
        frame->shrinkToFit();
    const uint64_t size = frame->heldBytes();
    // A peer that stops reading must not make us hold unbounded memory; a
    // frame into an empty queue leaves at once, so it is never refused.
    const ByteAccount* refuser =
        m_pQueued->chargeOrRefuser(size, queueEmpty ? ByteAccount::Bounds::None : ByteAccount::Bounds::All);
    if (refuser != nullptr) {
        refuseOutbound(frame, refuser);
        return false;
    }
    try {
        (command ? m_commandQueue : m_messageQueue).push_back(frame);
    } catch (...) {
        m_pQueued->release(size);
        release(frame);
        Core::log(Core::LogError, "DataFrameHandler::addToOutbound() this=%p Unable to queue the frame.\n",
                  static_cast<void*>(this));
        return false;
    }
    m_lastId = frame->id();
    if (!command && joinBatch()) {
        m_batchedFrames = true;
        return true;
    }
    m_batchedFrames = false; // the write below takes them along
    if (mayWrite() && !m_sending) {
        Core::verbose("DataFrameHandler::addToOutbound() sendOutbound()\n");
        sendOutbound();
    }
    return true;
}

bool DataFrameHandler::joinBatch()
{
    WriteBatch* batch = WriteBatch::current();
    return batch != nullptr && batch->add(m_pBatchMember);
}

void DataFrameHandler::writeBatched()
{
    MutexLocker locker(m_outboundLock);
    if (!m_batchedFrames)
        return; // written meanwhile, by a command or by another batch
    m_batchedFrames = false;
    if (mayWrite())
        sendOutbound();
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

DataFrame* DataFrameHandler::frameAfterBatch(size_t batched) const
{
    if (batched < m_batched.size())
        return m_batched[batched];
    if (!m_commandQueue.empty())
        return m_commandQueue.front();
    if (!m_messageQueue.empty())
        return m_messageQueue.front();
    return nullptr;
}

void DataFrameHandler::joinSend(DataFrame* next, size_t batched)
{
    if (batched < m_batched.size())
        return; // chosen already by an earlier attempt
    if (!m_commandQueue.empty() && next == m_commandQueue.front()) {
        Core::verbose("DataFrameHandler::sendOutbound() Sending Command.\n");
        m_commandQueue.pop_front();
    } else {
        Core::verbose("DataFrameHandler::sendOutbound() Sending message.\n");
        m_messageQueue.pop_front();
    }
    m_batched.push_back(next);
}

unsigned DataFrameHandler::gatherOutbound(iovec* parts, int& count)
{
    count = 0;
    const unsigned char* data = nullptr;
    unsigned size = 0;
    if (!m_pOutboundCurrentFrame->unsent(data, size) || size == 0)
        return 0;
    parts[count++] = iovec{const_cast<unsigned char*>(data), size};
    uint64_t total = size;
    // The frames behind it, in place and in the order one at a time would
    // write them; bounded so one call never pins a large share of memory.
    for (size_t batched = 0; count < MaxWriteParts && total < MaxWriteBytes; ++batched) {
        DataFrame* next = frameAfterBatch(batched);
        if (next == nullptr || !next->unsent(data, size) || size > MaxWriteBytes - total)
            break;
        joinSend(next, batched);
        parts[count++] = iovec{const_cast<unsigned char*>(data), size};
        total += size;
    }
    return static_cast<unsigned>(std::min<uint64_t>(total, UINT32_MAX));
}

unsigned DataFrameHandler::fillOutboundBuffer()
{
    unsigned count = 0;
    if (!m_pOutboundCurrentFrame->writeOut(m_pOutboundBuffer, m_outboundSize, count))
        return 0;
    if (m_pOutboundCurrentFrame->wireSize() - m_currentSent != count)
        return count; // the current frame alone fills the buffer
    // Whole frames that still fit follow in the same send, chosen by the
    // same rule and in the same order as one at a time: the bytes on the
    // wire do not change, only how many system calls carry them.
    for (size_t batched = 0;; ++batched) {
        DataFrame* next = frameAfterBatch(batched);
        if (next == nullptr || next->wireSize() > m_outboundSize - count)
            break;
        unsigned written = 0;
        if (!next->writeOut(m_pOutboundBuffer + count, m_outboundSize - count, written))
            break;
        joinSend(next, batched);
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
    // Written here and now when the connection takes the bytes, straight
    // from the frames and all in one system call: no copy, and no worker
    // has to be woken to do it.
    while (true) {
        iovec parts[MaxWriteParts];
        int count = 0;
        const unsigned ready = gatherOutbound(parts, count);
        if (ready == 0)
            break;
        const unsigned taken = socket->trySendv(parts, count);
        if (taken == 0)
            break;
        Core::verbose("DataFrameHandler::doSendOutboundData() this=%p Sent Bytes=%d \n", static_cast<void*>(this),
                      taken);
        if (!completeSent(socket, m_pOutboundBuffer, taken, ready))
            return;
    }
    // What the connection does not take goes through the selector, from
    // where the socket stopped, copied into the outbound buffer. The batch
    // is chosen again for the buffer: a posted send's batch is exactly the
    // frames it carries.
    requeueBatched();
    const unsigned count = fillOutboundBuffer();
    if (count == 0) {
        Core::log(Core::LogError, "DataFrameHandler::doSendOutboundData() this=%p writeOut on current frame failed.\n",
                  static_cast<void*>(this));
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
            static_cast<unsigned>(std::min<uint64_t>(left, m_pOutboundCurrentFrame->wireSize() - m_currentSent));
        left -= part;
        m_currentSent += part;
        if (!m_pOutboundCurrentFrame->doneWriteOut(part))
            break;
        m_pQueued->release(m_pOutboundCurrentFrame->heldBytes());
        recycle(m_pOutboundCurrentFrame);
        m_pOutboundCurrentFrame = nullptr;
        m_currentSent = 0;
        Core::verbose("DataFrameHandler::onSent( %p, %p, %d, %d, %d ) this=%p Finished with the frame.\n",
                      static_cast<void*>(socket), static_cast<void*>(buffer), count, size, 0, static_cast<void*>(this));
        if (m_batched.empty())
            break;
        m_pOutboundCurrentFrame = m_batched.front();
        m_batched.pop_front();
    }
    requeueUntouched();
    if (m_pOutboundCurrentFrame != nullptr) {
        Core::verbose("DataFrameHandler::onSent( %p, %p, %d, %d, %d ) this=%p Carry on with frame.\n",
                      static_cast<void*>(socket), static_cast<void*>(buffer), count, size, 0, static_cast<void*>(this));
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
    } catch (...) {
        return; // still current, and the batch behind it still follows it
    }
    requeueBatched();
}

void DataFrameHandler::requeueBatched()
{
    try {
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

void DataFrameHandler::onSent(Socket* socket, unsigned char* buffer, unsigned count, unsigned size, unsigned char error)
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

void DataFrameHandler::refuseOutbound(DataFrame* frame, const ByteAccount* refuser)
{
    const uint64_t wanted = frame->heldBytes();
    release(frame);
    if (m_endSlowConsumer) {
        endSlowConsumer(refuser, wanted);
        return;
    }
    Core::log(Core::LogError,
              "DataFrameHandler::addToOutbound() this=%p Outbound queue full (%llu bytes waiting), frame "
              "refused.\n",
              static_cast<void*>(this), static_cast<unsigned long long>(m_pQueued->used()));
}

void DataFrameHandler::endSlowConsumer(const ByteAccount* refuser, uint64_t wanted)
{
    m_slowConsumer = true;
    Core::log(Core::LogError,
              "DataFrameHandler::addToOutbound() this=%p Ending the link of %s as a slow consumer: %llu more bytes "
              "would pass the %s memory limit (%llu of %llu bytes held).\n",
              static_cast<void*>(this), linkName().c_str(), static_cast<unsigned long long>(wanted), refuser->name(),
              static_cast<unsigned long long>(refuser->used()), static_cast<unsigned long long>(refuser->limit()));
    // The frames still waiting will never be read: they go now. The one in
    // flight stays until the socket reports the end.
    uint64_t freed = 0;
    for (auto* queue : {&m_commandQueue, &m_messageQueue}) {
        for (DataFrame* frame : *queue) {
            freed += frame->heldBytes();
            release(frame);
        }
        queue->clear();
    }
    m_pQueued->release(freed);
    MemoryTrim::released(freed);
    m_batchedFrames = false;
    Socket* socket = m_pSocket.load();
    if (socket != nullptr)
        shutdownConnection(socket, true);
}

void DataFrameHandler::releaseOutboundFrames()
{
    uint64_t freed = m_pQueued->used();
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
    m_pQueued->releaseAll();
    if (freed >= MemoryTrim::TrimThresholdBytes)
        MemoryTrim::released(freed);
}

} // namespace UlmarComms
