// Frames: building, piecewise sending, reassembly.
//
// The log texts stay byte for byte as they are, old names and misspellings
// included, because operators grep the logs for them. Receiving is hardened
// against hostile peers (bounded payloads, bounded command texts); every
// well-formed stream is read exactly as the wire format lays it out.
#include "framing/dataframe.h"

#include "core/bigendian.h"
#include "core/core.h"
#include "messaging/messageitem.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace UlmarComms {

namespace {

// A null text logged through %s would be undefined in the logger's printf.
const char* printable(const char* text)
{
    return text != nullptr ? text : "(null)";
}

} // namespace

// ------------------------------------------------------------ construction

DataFrame::DataFrame()
    : m_frameType(FrameTypeNone),
      m_dataSize(0),
      m_id(0),
      m_buffer(nullptr),
      m_capacity(0),
      m_progress(0),
      m_inPayload(false),
      m_readError(ReadErrorNone),
      m_pGrowthAccount(nullptr),
      m_growthBounds(ByteAccount::Bounds::All),
      m_pRefuser(nullptr),
      m_commandLimit(0)
{
    clear();
}

DataFrame::DataFrame(unsigned id, const MessageItem* item) : DataFrame()
{
    insertMessage(id, item);
}

DataFrame::DataFrame(unsigned id, unsigned char code, const char* text) : DataFrame()
{
    insertCommand(id, code, text);
}

DataFrame::~DataFrame()
{
    delete[] m_buffer;
}

void DataFrame::clear()
{
    reset();
    // Only construction calls this, so there is no old buffer to free.
    m_buffer = nullptr;
    m_capacity = 0;
    alloc(InitialBufferSize);
}

void DataFrame::reset()
{
    m_frameType = FrameTypeNone;
    m_dataSize = 0;
    m_id = 0;
    m_progress = 0;
    m_inPayload = false;
    // m_readError stays: the bytes after a refused header cannot be framed
    // again, so a link that reconnects starts with a new frame instead.
}

bool DataFrame::alloc(unsigned size)
{
    if (m_capacity >= size)
        return true;
    if (size > MaxDataSize + HeaderSize)
        return false;
    unsigned char* fresh = new (std::nothrow) unsigned char[size];
    if (fresh == nullptr)
        return false;
    delete[] m_buffer;
    m_buffer = fresh;
    m_capacity = size;
    return true;
}

bool DataFrame::shrinkToFit()
{
    // Only a built frame holds all it needs in its buffer; a few bytes saved
    // are not worth an allocation and a copy.
    const uint64_t wire = wireSize();
    if (m_frameType == FrameTypeNone || m_inPayload || wire > m_capacity || m_capacity - wire < 256)
        return false;
    unsigned char* fresh = new (std::nothrow) unsigned char[wire];
    if (fresh == nullptr)
        return false;
    std::memcpy(fresh, m_buffer, wire);
    delete[] m_buffer;
    m_buffer = fresh;
    m_capacity = static_cast<uint32_t>(wire);
    return true;
}

// ----------------------------------------------------------------- header

void DataFrame::writeHeaderToBuffer(unsigned char* buffer, unsigned char type, unsigned size, unsigned id)
{
    buffer[0] = type;
    writeU32(buffer + 1, size);
    writeU32(buffer + 5, id);
}

void DataFrame::readHeaderFromBuffer(const unsigned char* buffer, unsigned char& type, unsigned& size, unsigned& id)
{
    type = buffer[0];
    size = readU32(buffer + 1);
    id = readU32(buffer + 5);
}

// ---------------------------------------------------------------- sending

bool DataFrame::insertMessage(unsigned id, const MessageItem* item)
{
    if (item == nullptr) {
        Core::log(Core::LogError, "DataFrame::Set( %d, %p ) Message is NULL.\n", id, static_cast<const void*>(item));
        return false;
    }
    const void* itemPointer = item;
    const unsigned n = MessageItem::memSize(item);
    // A payload the peer would refuse is refused here, as an allocation.
    if (n > MaxDataSize || !alloc(n + HeaderSize)) {
        Core::log(Core::LogError, "DataFrame::insertMessage( %d, %p ) Failed to do allocate of %d.\n", id, itemPointer,
                  n + HeaderSize);
        return false;
    }
    if (m_buffer == nullptr) {
        Core::log(Core::LogError, "DataFrame::insertMessage( %d, %p ) Buffer is NULL\n", id, itemPointer);
        return false;
    }
    unsigned written = 0;
    if (!item->toBuffer(written, m_buffer + HeaderSize, n)) {
        Core::log(Core::LogError, "DataFrame::insertMessage( %d, %p ) Failed to copy message into buffer.\n", id,
                  itemPointer);
        return false;
    }
    if (written != n) {
        // The numbers go calced first, real second, whatever the words say.
        Core::log(Core::LogError, "DataFrame::insertMessage( %d, %p ) Real (%d) and calced (%d) sizes don't match.\n",
                  id, itemPointer, n, written);
        return false;
    }
    m_frameType = FrameTypeMessage;
    m_dataSize = n;
    m_id = id;
    writeHeaderToBuffer(m_buffer, m_frameType, m_dataSize, m_id);
    return true;
}

bool DataFrame::insertCommand(unsigned id, unsigned char code, const char* text)
{
    const char* shown = printable(text);
    const unsigned n = CommandMessage::calcBuffer(text);
    if (n > MaxDataSize || !alloc(n + HeaderSize)) {
        Core::log(Core::LogError, "DataFrame::insertCommand( %d, %d, %s ) Failed to allocate %d for Command.\n", id,
                  code, shown, n + HeaderSize);
        return false;
    }
    if (m_buffer == nullptr) {
        Core::log(Core::LogError, "DataFrame::insertCommand( %d, %d, %s ) Buffer is NULL\n", id, code, shown);
        return false;
    }
    unsigned written = 0;
    if (!CommandMessage::toBuffer(written, code, text, m_buffer + HeaderSize, n)) {
        Core::log(Core::LogError, "DataFrame::insertCommand( %d, %d, %s )Failed to write command into buffer.\n", id,
                  code, shown);
        return false;
    }
    if (written != n) {
        Core::log(Core::LogError,
                  "DataFrame::insertCommand( %d, %d, %s ) Real (%d) and calced (%d) sizes don't match.\n", id, code,
                  shown, written, n);
        return false;
    }
    m_frameType = FrameTypeCommand;
    m_dataSize = n;
    m_id = id;
    writeHeaderToBuffer(m_buffer, m_frameType, m_dataSize, m_id);
    return true;
}

bool DataFrame::writeOut(unsigned char* destination, unsigned max, unsigned& count)
{
    if (max == 0 || destination == nullptr)
        return false;
    // Only a frame that was built holds header and payload in its buffer.
    const uint64_t total = uint64_t(m_dataSize) + HeaderSize;
    if (m_frameType == FrameTypeNone || m_inPayload || total > m_capacity)
        return false;
    const uint64_t left = m_progress < total ? total - m_progress : 0;
    count = static_cast<unsigned>(std::min<uint64_t>(left, max));
    if (count > 0)
        std::memcpy(destination, m_buffer + m_progress, count);
    return true;
}

bool DataFrame::unsent(const unsigned char*& data, unsigned& count) const
{
    const uint64_t total = uint64_t(m_dataSize) + HeaderSize;
    if (m_frameType == FrameTypeNone || m_inPayload || total > m_capacity || m_progress > total)
        return false;
    data = m_buffer + m_progress;
    count = static_cast<unsigned>(total - m_progress);
    return true;
}

bool DataFrame::doneWriteOut(unsigned count)
{
    m_progress += count;
    return uint64_t(m_progress) == uint64_t(m_dataSize) + HeaderSize;
}

// -------------------------------------------------------------- receiving

unsigned DataFrame::limit() const
{
    return m_frameType == FrameTypeCommand && m_commandLimit != 0 ? std::min(m_commandLimit, MaxDataSize) : MaxDataSize;
}

bool DataFrame::reject(ReadError error)
{
    m_readError = error;
    // A refused account is the caller's to report: it knows whose link it is.
    if (error == ReadErrorOverAccount)
        return false;
    Core::log(Core::LogError,
              "DataFrame::readIn() this=%p Refusing the stream: frame of type %d announces %u "
              "bytes (limit %u, error %d).\n",
              static_cast<void*>(this), m_frameType, m_dataSize, limit(), static_cast<int>(error));
    return false;
}

bool DataFrame::readIn(const unsigned char* data, unsigned length, bool& complete, unsigned& consumed)
{
    if (data == nullptr || length == 0)
        return false;
    consumed = 0;
    complete = false;
    if (isRejected())
        return false;
    if (!m_inPayload) {
        if (m_capacity < HeaderSize && !alloc(HeaderSize))
            return reject(ReadErrorNoMemory);
        const unsigned piece = std::min(HeaderSize - m_progress, length);
        std::memcpy(m_buffer + m_progress, data, piece);
        consumed += piece;
        m_progress += piece;
        if (m_progress < HeaderSize)
            return true;
        readHeaderFromBuffer(m_buffer, m_frameType, m_dataSize, m_id);
        // Checked before anything is allocated: the size is the peer's word.
        if (m_dataSize > limit())
            return reject(ReadErrorTooLarge);
        m_progress = 0;
        m_inPayload = true;
        if (consumed == length)
            return true;
    }
    const unsigned piece = std::min(m_dataSize - m_progress, length - consumed);
    if (piece > 0) {
        if (!reserveReceived(m_progress + piece))
            return reject(m_pRefuser != nullptr ? ReadErrorOverAccount : ReadErrorNoMemory);
        std::memcpy(m_buffer + m_progress, data + consumed, piece);
    }
    consumed += piece;
    m_progress += piece;
    complete = m_progress == m_dataSize;
    return true;
}

// Grows the receive buffer to hold needed payload bytes, keeping those
// already received. Doubling keeps the copying linear in the frame size;
// the announced size caps the growth, the bytes received drive it.
bool DataFrame::reserveReceived(unsigned needed)
{
    if (m_capacity >= needed)
        return true;
    const uint64_t doubled = std::max<uint64_t>(uint64_t(m_capacity) * 2, InitialBufferSize);
    const unsigned size = static_cast<unsigned>(std::max<uint64_t>(needed, std::min<uint64_t>(doubled, m_dataSize)));
    // Charged before it is taken, so the bound holds even at the peak.
    if (m_pGrowthAccount != nullptr) {
        m_pRefuser = m_pGrowthAccount->chargeOrRefuser(size - m_capacity, m_growthBounds);
        if (m_pRefuser != nullptr)
            return false;
    }
    unsigned char* fresh = new (std::nothrow) unsigned char[size];
    if (fresh == nullptr) {
        if (m_pGrowthAccount != nullptr)
            m_pGrowthAccount->release(size - m_capacity);
        return false;
    }
    if (m_progress > 0)
        std::memcpy(fresh, m_buffer, m_progress);
    delete[] m_buffer;
    m_buffer = fresh;
    m_capacity = size;
    return true;
}

// Only a whole received payload is parsed; anything else would read bytes
// of another frame or of the header.
bool DataFrame::payloadReadable() const
{
    return !isRejected() && m_inPayload && m_progress == m_dataSize && m_dataSize <= m_capacity &&
        (m_buffer != nullptr || m_dataSize == 0);
}

bool DataFrame::extractMessage(MessageItem& item) const
{
    if (!payloadReadable())
        return false;
    return item.fromBuffer(m_buffer, m_dataSize);
}

bool DataFrame::extractCommand(unsigned char& code, std::string& text) const
{
    if (!payloadReadable())
        return false;
    return CommandMessage::fromBuffer(m_buffer, m_dataSize, code, text);
}

} // namespace UlmarComms
