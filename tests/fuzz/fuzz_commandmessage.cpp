// Fuzzes the link command record parser and the command frame built from
// what it yields. A parsed text must be exactly the bytes the record held,
// and a text that is a proper C string must travel a frame unchanged.
#include "framing/dataframe.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

using UlmarComms::CommandMessage;
using UlmarComms::DataFrame;

namespace {

uint32_t readU32(const uint8_t* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

// Sends the command through a frame and receives it again.
void roundTrip(unsigned char code, const std::string& text)
{
    DataFrame sent(7, code, text.c_str());
    if (sent.frameType() != DataFrame::FrameTypeCommand)
        __builtin_trap();
    std::vector<unsigned char> wire(sent.dataSize() + DataFrame::HeaderSize);
    unsigned count = 0;
    if (!sent.writeOut(wire.data(), static_cast<unsigned>(wire.size()), count) || count != wire.size())
        __builtin_trap();
    DataFrame received;
    bool complete = false;
    unsigned consumed = 0;
    if (!received.readIn(wire.data(), count, complete, consumed) || !complete || consumed != count)
        __builtin_trap();
    unsigned char gotCode = 0;
    std::string gotText;
    if (!received.extractCommand(gotCode, gotText) || gotCode != code || gotText != text)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1u << 20)
        return 0;
    unsigned char code = 0;
    std::string text = "stale";
    if (!CommandMessage::fromBuffer(data, static_cast<unsigned>(size), code, text))
        return 0;
    const uint32_t length = readU32(data + 1);
    if (code != data[0] || text.size() != length || length > size - 5)
        __builtin_trap();
    if (length > 0 && std::memcmp(text.data(), data + 5, length) != 0)
        __builtin_trap();
    if (length > 0 && std::strlen(text.c_str()) + 1 == length)
        roundTrip(code, text);
    return 0;
}
