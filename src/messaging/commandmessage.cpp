// The link command record: writing and reading it in a buffer.
//
// The record is the routers' own vocabulary (pump announcements, the host
// name exchange of a network link), so it lives with the messaging layer;
// framing carries it as the payload of a command frame. Reading is hardened
// against hostile peers: a length is never trusted to stay inside the record.
#include "messaging/commandmessage.h"

#include "core/bigendian.h"

#include <cstring>

namespace UlmarComms {

namespace {

const unsigned kCommandHeaderSize = 5;

} // namespace

unsigned CommandMessage::calcBuffer(const char* text)
{
    // A null text answers 1 although toBuffer needs 5; senders pass "".
    if (text == nullptr)
        return 1;
    return static_cast<unsigned>(std::strlen(text) + 6);
}

bool CommandMessage::toBuffer(unsigned& written, unsigned char code, const char* text, unsigned char* buffer,
                              unsigned capacity)
{
    if (buffer == nullptr)
        return false;
    const size_t textLength = text != nullptr ? std::strlen(text) + 1 : 0;
    const size_t needed = kCommandHeaderSize + textLength;
    if (capacity < needed)
        return false;
    std::memset(buffer, 0, needed);
    buffer[0] = code;
    writeU32(buffer + 1, static_cast<uint32_t>(textLength));
    if (textLength > 0)
        std::memcpy(buffer + kCommandHeaderSize, text, textLength);
    written = static_cast<unsigned>(needed);
    return true;
}

bool CommandMessage::fromBuffer(const unsigned char* buffer, unsigned size, unsigned char& code, std::string& text)
{
    if (size <= 4 || buffer == nullptr)
        return false;
    code = buffer[0];
    text.clear();
    const uint32_t length = readU32(buffer + 1);
    if (length == 0)
        return true;
    // The peer's length is not trusted to stay inside the record.
    if (length > size - kCommandHeaderSize)
        return false;
    text.assign(reinterpret_cast<const char*>(buffer + kCommandHeaderSize), length);
    return true;
}

} // namespace UlmarComms
