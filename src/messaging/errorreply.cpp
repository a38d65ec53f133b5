// The error reply to a message that cannot be delivered: Core::errorOut.
//
// It is declared with the process-wide services in core/core.h, which every
// router already consults, but defined here, beside the message record it
// builds: core sits at the bottom of the layers and may not include the
// messaging folder, while this file may include both.
#include "core/core.h"
#include "messaging/messageitem.h"

#include <cstdio>

namespace UlmarComms {

MessageItem* Core::errorOut(const MessageItem* failed, int code)
{
    if (failed == nullptr)
        return nullptr;
    const char* from = failed->value(MessageItem::ArgumentKey_From);
    if (from == nullptr) {
        log(LogError, "Core::errorOut( %p, %d ) No From.\n", static_cast<const void*>(failed), code);
        return nullptr;
    }
    const char* senderId = failed->value(MessageItem::ArgumentKey_SenderId);
    if (senderId == nullptr) {
        log(LogError, "Core::errorOut( %p, %d ) No SenderId.\n", static_cast<const void*>(failed), code);
        return nullptr;
    }
    MessageItem* reply = MessageItem::create();
    if (reply == nullptr)
        return nullptr;
    char codeText[16];
    std::snprintf(codeText, sizeof(codeText), "%d", code);
    const char* to = failed->value(MessageItem::ArgumentKey_To);
    bool built =
        reply->add(MessageItem::ArgumentKey_To, from) && reply->add(MessageItem::ArgumentKey_ResponseId, senderId);
    // A failed message without a "to" gets a reply without a "from": the
    // pair is skipped rather than invented as an empty address.
    if (built && to != nullptr)
        built = reply->add(MessageItem::ArgumentKey_From, to);
    built = built && reply->add(MessageItem::ArgumentKey_Mode, MessageItem::Mode_ErrorText) &&
        reply->add(MessageItem::ArgumentKey_SenderId, "0") &&
        reply->add(MessageItem::ArgumentKey_ErrorRoutingHostId, getHostName().c_str()) &&
        reply->add(MessageItem::ArgumentKey_Method, codeText);
    if (!built) {
        MessageItem::release(reply);
        return nullptr;
    }
    return reply;
}

} // namespace UlmarComms
