// The message record: pairs, the header scan, the packet form and hand-made
// reference counting.
//
// The packet form is the one other programs on the network speak:
//   A4, total size (u32 BE), count (u8), count x { key length (u8),
//   value length (u32 BE), key bytes with NUL, value bytes with NUL }, 8B.
// Peers are not trusted: fromBuffer bounds every record by the buffer.
// fromBuffer copies the packet whole and points the pairs into the copy: one
// copy instead of one per pair, and a canonical packet is then written out
// again as it came (see messageitem.h).
#include "messaging/messageitem.h"

#include "core/bigendian.h"
#include "core/core.h"

#include <cstring>
#include <new>

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
      m_pBlocks(nullptr),
      m_blockBytes(0),
      m_pPacket(nullptr),
      m_packetLength(0)
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
    m_blockBytes += sizeof(TextBlock) + bytes;
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
    if (item->m_count.fetch_sub(1, std::memory_order_acq_rel) <= 1)
        delete item;
}

void MessageItem::incrementCount()
{
    m_count.fetch_add(1, std::memory_order_relaxed);
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
    // The pairs change: the received packet no longer describes them.
    m_pPacket = nullptr;
    m_packetLength = 0;
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
    return add(ArgumentKey_To, to) && add(ArgumentKey_From, from) && add(ArgumentKey_Method, method) &&
        add(ArgumentKey_SenderId, senderId);
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
void MessageItem::getMandatoryFields(char** to, char** from, char** mode, char** senderId, char** responseId,
                                     char** response, char** method) const
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

uint64_t MessageItem::heldBytes() const
{
    return sizeof(MessageItem) + m_eventName.capacity() + m_blockBytes;
}

bool MessageItem::toBuffer(unsigned& size, unsigned char* buffer, unsigned capacity) const
{
    size = memSize();
    if (buffer == nullptr || size > capacity)
        return false;
    if (m_pPacket != nullptr) {
        // Canonical and unchanged: these are the bytes serialising would write.
        std::memcpy(buffer, m_pPacket, m_packetLength);
        return true;
    }
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
    // One copy of the whole packet holds every text: keys and values are
    // NUL-terminated in place, and the copy is what toBuffer writes back.
    char* copy = storeBytes(reinterpret_cast<const char*>(buffer), length);
    if (copy == nullptr)
        return false;
    size_t offset = 6;
    for (unsigned i = 0; i < count; ++i) {
        if (!parseRecord(copy, length, offset))
            return false;
    }
    const unsigned char* stored = reinterpret_cast<const unsigned char*>(copy);
    if (offset >= length || stored[offset] != DataPacket_MessageEnd)
        return false;
    // Only a packet that serialising would write byte for byte is kept.
    if (readU32(stored + 1) == length && offset + 1 == length) {
        m_pPacket = stored;
        m_packetLength = length;
    }
    return true;
}

bool MessageItem::parseRecord(char* packet, unsigned length, size_t& offset)
{
    if (length - offset < 5)
        return false;
    const unsigned char* record = reinterpret_cast<const unsigned char*>(packet + offset);
    const uint32_t keyLength = record[0];
    const uint32_t valueLength = readU32(record + 1);
    offset += 5;
    if (keyLength == 0 || valueLength == 0 || keyLength > length - offset || valueLength > length - offset - keyLength)
        return false;
    char* keyBytes = packet + offset;
    char* valueBytes = keyBytes + keyLength;
    if (keyBytes[keyLength - 1] != '\0' || valueBytes[valueLength - 1] != '\0')
        return false;
    m_keys[m_argumentCount] = keyBytes;
    m_keyLengths[m_argumentCount] = static_cast<uint8_t>(keyLength);
    m_values[m_argumentCount] = valueBytes;
    m_valueLengths[m_argumentCount] = valueLength;
    ++m_argumentCount;
    offset += keyLength + valueLength;
    return true;
}

} // namespace UlmarComms
