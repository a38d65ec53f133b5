// Fuzzes the message packet parser, the first thing a peer's bytes reach
// inside a message frame. Beyond "no crash", every packet that parses must
// serialise back to the very records it was read from.
#include "messaging/messaging.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

using UlmarComms::MessageItem;

namespace {

// Reads every stored pair through every reader, as the routers would.
void exerciseReaders(const MessageItem& item)
{
    for (int i = -1; i <= item.numberOfArguments(); ++i) {
        unsigned length = 0;
        const char* key = item.key(i, length);
        const char* value = item.value(i, length);
        if ((key == nullptr) != (value == nullptr))
            __builtin_trap();
        if (key != nullptr && item.value(key) == nullptr)
            __builtin_trap();
    }
    char* to = nullptr;
    char* from = nullptr;
    item.getMandatoryRoutingFields(&to, &from);
    char* mode = nullptr;
    char* senderId = nullptr;
    char* responseId = nullptr;
    char* response = nullptr;
    char* method = nullptr;
    item.getMandatoryFields(&to, &from, &mode, &senderId, &responseId, &response, &method);
    if (!item.compare(&item))
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1u << 20)
        return 0;
    MessageItem* item = MessageItem::create();
    if (item == nullptr)
        return 0;
    const bool parsed = item->fromBuffer(data, static_cast<unsigned>(size));
    exerciseReaders(*item);
    if (parsed) {
        // Head, count and records come back byte for byte; only the size
        // field may differ, since a sender may declare less than it sent.
        const uint32_t needed = item->memSize();
        if (needed > size)
            __builtin_trap();
        std::vector<unsigned char> again(needed);
        unsigned written = 0;
        if (!item->toBuffer(written, again.data(), needed) || written != needed)
            __builtin_trap();
        if (again[0] != data[0] || std::memcmp(again.data() + 5, data + 5, needed - 5) != 0)
            __builtin_trap();
        MessageItem* copy = MessageItem::create();
        if (copy == nullptr || !copy->fromBuffer(again.data(), needed) || !copy->compare(item))
            __builtin_trap();
        MessageItem::release(copy);
    }
    MessageItem::release(item);
    return 0;
}
