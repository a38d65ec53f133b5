// The message record: pairs, the header scan, the packet form and hand-made
// reference counting.
//
// The packet form is the one other programs on the network speak:
//   A4, total size (u32 BE), count (u8), count x { key length (u8),
//   value length (u32 BE), key bytes with NUL, value bytes with NUL }, 8B.
// Peers are not trusted: fromBuffer bounds every record by the buffer.
#include "messaging/messaging.h"

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

// Copies length bytes into a new array; null (and length 0) when memory ran out.
char* storeBytes(const char* text, size_t length, uint32_t& stored)
{
    char* copy = new (std::nothrow) char[length];
    if (copy == nullptr) {
        stored = 0;
        return nullptr;
    }
    std::memcpy(copy, text, length);
    stored = static_cast<uint32_t>(length);
    return copy;
}

// Copies a NUL-terminated text, NUL included.
char* storeString(const char* text, uint32_t& stored)
{
    return storeBytes(text, std::strlen(text) + 1, stored);
}

// "_t", "_f" and any longer key beginning with them carry addresses.
bool isAddressKey(const char* key)
{
    return key[0] == '_' && (key[1] == 't' || key[1] == 'f');
}

uint32_t readU32(const unsigned char* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

void writeU32(unsigned char* p, uint32_t value)
{
    p[0] = static_cast<unsigned char>(value >> 24);
    p[1] = static_cast<unsigned char>(value >> 16);
    p[2] = static_cast<unsigned char>(value >> 8);
    p[3] = static_cast<unsigned char>(value);
}

} // namespace

MessageItem::MessageItem()
    : m_pNext(nullptr),
      m_argumentCount(0),
      m_keys(new char*[s_maxNumberArguments]()),
      m_keyLengths(new uint8_t[s_maxNumberArguments]()),
      m_values(new char*[s_maxNumberArguments]()),
      m_valueLengths(new uint32_t[s_maxNumberArguments]()),
      m_count(1)
{
}

MessageItem::~MessageItem()
{
    for (int i = 0; i < s_maxNumberArguments; ++i) {
        delete[] m_keys[i];
        delete[] m_values[i];
    }
    delete[] m_keys;
    delete[] m_keyLengths;
    delete[] m_values;
    delete[] m_valueLengths;
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
    uint32_t keyLength = 0;
    char* keyCopy = storeString(key, keyLength);
    if (keyCopy == nullptr)
        return false;
    uint32_t valueLength = 0;
    char* valueCopy = nullptr;
    if (isAddressKey(key) && std::strncmp(value, kLocalhost, kLocalhostLength) == 0) {
        // Substitution is by prefix, not by separator: "localhostess" on host
        // "myhost" becomes "myhostess"; other builds of the system agree.
        std::string substituted = Core::instance()->getHostName();
        substituted.append(value + kLocalhostLength);
        valueCopy = storeString(substituted.c_str(), valueLength);
    } else {
        valueCopy = storeString(value, valueLength);
    }
    if (valueCopy == nullptr) {
        delete[] keyCopy;
        return false;
    }
    delete[] m_keys[index];
    delete[] m_values[index];
    m_keys[index] = keyCopy;
    m_keyLengths[index] = static_cast<uint8_t>(keyLength); // wraps for keys of 255+
    m_values[index] = valueCopy;
    m_valueLengths[index] = valueLength;
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
// well-formed packets parse exactly as other builds of the system parse them.
bool MessageItem::fromBuffer(const unsigned char* buffer, unsigned length)
{
    if (length == 0 || buffer == nullptr || buffer[0] != DataPacket_MessageHead)
        return false;
    if (length < 6 || readU32(buffer + 1) > length)
        return false;
    const unsigned count = buffer[5];
    if (count < 1 || count > static_cast<unsigned>(s_maxNumberArguments) || m_argumentCount != 0)
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
        uint32_t storedKey = 0;
        uint32_t storedValue = 0;
        char* keyCopy = storeBytes(keyBytes, keyLength, storedKey);
        char* valueCopy = storeBytes(valueBytes, valueLength, storedValue);
        if (keyCopy == nullptr || valueCopy == nullptr) {
            delete[] keyCopy;
            delete[] valueCopy;
            return false;
        }
        m_keys[m_argumentCount] = keyCopy;
        m_keyLengths[m_argumentCount] = static_cast<uint8_t>(storedKey);
        m_values[m_argumentCount] = valueCopy;
        m_valueLengths[m_argumentCount] = storedValue;
        ++m_argumentCount;
        offset += keyLength + valueLength;
    }
    return offset < length && buffer[offset] == DataPacket_MessageEnd;
}

} // namespace UlmarComms
