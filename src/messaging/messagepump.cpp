// The message pump and its built-in protocol: building requests, replies,
// error replies and events, posting them (events fan out to their
// listeners), and delivering what the router hands over on its worker.
#include "messaging/messagepump.h"

#include "core/core.h"
#include "messaging/messagerouter.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>

namespace UlmarComms {

namespace {

const char kMethodIsHas[] = "#IsHas";
const char kMethodIsList[] = "#IsList";
const char kMethodEsList[] = "#EsList";
const char kMethodReg[] = "#reg";
const char kKeyInterfaces[] = "inters";
const char kKeyMatch[] = "match";
const char kKeyEventName[] = "rname";
const char kKeyReturnMethod[] = "retm";
const char kKeyRegister[] = "reg";
const char kSystemAddress[] = "/system";

bool isEmpty(const char* text)
{
    return text == nullptr || text[0] == '\0';
}

// Whether wanted equals one of the comma-separated names, taken exactly as
// stored: no trimming, and empty pieces between commas are names too.
bool listContains(const std::string& names, const char* wanted)
{
    size_t start = 0;
    while (true) {
        const size_t comma = names.find(',', start);
        const size_t length = comma == std::string::npos ? std::string::npos : comma - start;
        if (names.compare(start, length, wanted) == 0)
            return true;
        if (comma == std::string::npos)
            return false;
        start = comma + 1;
    }
}

} // namespace

MessagePump::MessagePump(const char* name, MessageRouter* router)
    : m_senderId(1),
      m_pRouter(router),
      m_pContext(nullptr),
      m_messageCallback(nullptr),
      m_errorCallback(nullptr),
      m_responseCallback(nullptr)
{
    Address address(name);
    address.setHost();
    m_address = address.toString();
}

MessagePump::~MessagePump() = default;

bool MessagePump::setCallbacks(void* context, MessageCallback messageCallback, ResponseCallback responseCallback,
                               ErrorCallback errorCallback)
{
    // Stored before joining: the router's table lock orders these writes
    // before the worker's first delivery to this pump.
    m_pContext = context;
    m_messageCallback = messageCallback;
    m_responseCallback = responseCallback;
    m_errorCallback = errorCallback;
    return m_pRouter != nullptr && m_pRouter->add(this);
}

const char* MessagePump::getInterfaceNames() const
{
    return m_interfaceNames.empty() ? nullptr : m_interfaceNames.c_str();
}

std::string MessagePump::interfaceNames()
{
    UlmarCommsSystem::MutexLocker lock(m_lock);
    return m_interfaceNames;
}

bool MessagePump::setInterfaceNames(const char* names)
{
    if (isEmpty(names))
        return false;
    UlmarCommsSystem::MutexLocker lock(m_lock);
    m_interfaceNames = names;
    return true;
}

void MessagePump::setSenderId(MessageItem* message)
{
    if (message == nullptr)
        return;
    const uint32_t id = m_senderId.fetch_add(1);
    char text[16];
    std::snprintf(text, sizeof(text), "%d", static_cast<int>(id));
    message->add(MessageItem::ArgumentKey_SenderId, text);
}

unsigned MessagePump::handler(MessageItem* message)
{
    const char* senderId = message != nullptr ? message->value(MessageItem::ArgumentKey_SenderId) : nullptr;
    if (senderId == nullptr)
        return static_cast<unsigned>(-1);
    return static_cast<unsigned>(std::strtoul(senderId, nullptr, 10));
}

MessageItem* MessagePump::finishBuild(MessageItem* message, bool ok)
{
    if (ok)
        return message;
    MessageItem::release(message);
    return nullptr;
}

MessageItem* MessagePump::createBase(const char* to, const char* method)
{
    MessageItem* message = MessageItem::create();
    if (message == nullptr)
        return nullptr;
    const bool ok = message->add(MessageItem::ArgumentKey_To, to) &&
        message->add(MessageItem::ArgumentKey_From, m_address.c_str()) &&
        message->add(MessageItem::ArgumentKey_Method, method);
    return finishBuild(message, ok);
}

MessageItem* MessagePump::createSystemListHostsMessage()
{
    MessageItem* message = createBase(kSystemAddress, "#HsList");
    setSenderId(message);
    return message;
}

MessageItem* MessagePump::createListInterfacesMessage(const char* to)
{
    if (isEmpty(to))
        return nullptr;
    MessageItem* message = createBase(to, kMethodIsList);
    setSenderId(message);
    return message;
}

MessageItem* MessagePump::createListEventsMessage(const char* to)
{
    if (isEmpty(to))
        return nullptr;
    MessageItem* message = createBase(to, kMethodEsList);
    setSenderId(message);
    return message;
}

MessageItem* MessagePump::createHasInterfacesMessage(const char* to, const char* interfaces)
{
    if (isEmpty(to) || isEmpty(interfaces))
        return nullptr;
    MessageItem* message = createBase(to, kMethodIsHas);
    if (message == nullptr || !message->add(kKeyInterfaces, interfaces))
        return finishBuild(message, false);
    setSenderId(message);
    return message;
}

MessageItem* MessagePump::createListHostsSupportingInterfaces(const char* interfaces, bool match)
{
    if (isEmpty(interfaces))
        return nullptr;
    MessageItem* message = createBase(kSystemAddress, "NetHostSupportInterfaces");
    if (message == nullptr || !message->add(kKeyInterfaces, interfaces) || !message->add(kKeyMatch, match ? "1" : "0"))
        return finishBuild(message, false);
    setSenderId(message);
    return message;
}

MessageItem* MessagePump::createSystemGetAddressesSupportingInterfacesMessage(const char* host, const char* interfaces)
{
    if (isEmpty(interfaces))
        return nullptr;
    try {
        const std::string to = isEmpty(host) ? std::string(kSystemAddress) : std::string(host) + "@" + kSystemAddress;
        MessageItem* message = createBase(to.c_str(), "#AdsSupIs");
        if (message == nullptr || !message->add(kKeyInterfaces, interfaces))
            return finishBuild(message, false);
        setSenderId(message);
        return message;
    } catch (...) {
        return nullptr;
    }
}

MessageItem* MessagePump::createEventRegistrationMessage(const char* returnMethod, const char* to,
                                                         const char* remoteEventName, bool reg)
{
    if (isEmpty(returnMethod) || isEmpty(to) || isEmpty(remoteEventName))
        return nullptr;
    MessageItem* message = createBase(to, kMethodReg);
    if (message == nullptr || !message->add(kKeyEventName, remoteEventName) ||
        !message->add(kKeyReturnMethod, returnMethod))
        return finishBuild(message, false);
    setSenderId(message);
    // "reg" follows "_s": only its presence matters to the receiver.
    if (reg && !message->add(kKeyRegister, "t"))
        return finishBuild(message, false);
    return message;
}

MessageItem* MessagePump::createMessage(const char* to, const char* method)
{
    if (to == nullptr || method == nullptr)
        return nullptr;
    MessageItem* message = createBase(to, method);
    setSenderId(message);
    return message;
}

MessageItem* MessagePump::createReplyMessage(MessageItem* request, const char* response)
{
    if (request == nullptr)
        return nullptr;
    const char* from = request->value(MessageItem::ArgumentKey_From);
    const char* senderId = request->value(MessageItem::ArgumentKey_SenderId);
    if (from == nullptr || senderId == nullptr)
        return nullptr;
    MessageItem* reply = nullptr;
    try {
        reply = MessageItem::create();
        if (reply == nullptr)
            return nullptr;
        bool ok = reply->add(MessageItem::ArgumentKey_To, from) &&
            reply->add(MessageItem::ArgumentKey_ResponseId, senderId) &&
            reply->add(MessageItem::ArgumentKey_From, m_address.c_str());
        const char* mode = request->value(MessageItem::ArgumentKey_Mode);
        if (ok && mode != nullptr)
            ok = reply->add(MessageItem::ArgumentKey_Mode, mode);
        if (ok && response != nullptr)
            ok = reply->add(MessageItem::ArgumentKey_Response, response);
        if (ok)
            setSenderId(reply);
        return finishBuild(reply, ok);
    } catch (...) {
        MessageItem::release(reply);
        return nullptr;
    }
}

MessageItem* MessagePump::createEventMessage(const char* eventName)
{
    if (isEmpty(eventName))
        return nullptr;
    MessageItem* message = nullptr;
    try {
        {
            UlmarCommsSystem::MutexLocker lock(m_lock);
            if (m_events.find(eventName) == m_events.end())
                return nullptr;
        }
        message = MessageItem::create();
        if (message == nullptr || !message->add(MessageItem::ArgumentKey_From, m_address.c_str()))
            return finishBuild(message, false);
        message->setEventName(eventName);
        return message;
    } catch (...) {
        MessageItem::release(message);
        return nullptr;
    }
}

int MessagePump::sendErrorMessage(int errorCode, MessageItem* request)
{
    if (request == nullptr)
        return Result_Null;
    const char* from = request->value(MessageItem::ArgumentKey_From);
    const char* senderId = request->value(MessageItem::ArgumentKey_SenderId);
    if (from == nullptr || senderId == nullptr)
        return Result_NotARequest;
    MessageItem* reply = nullptr;
    try {
        reply = MessageItem::create();
        if (reply == nullptr)
            return Result_NoMemory;
        bool ok = reply->add(MessageItem::ArgumentKey_To, from) &&
            reply->add(MessageItem::ArgumentKey_ResponseId, senderId) &&
            reply->add(MessageItem::ArgumentKey_From, m_address.c_str()) &&
            reply->add(MessageItem::ArgumentKey_Mode, MessageItem::Mode_ErrorText);
        if (ok)
            setSenderId(reply);
        char codeText[16];
        std::snprintf(codeText, sizeof(codeText), "%d", errorCode);
        ok = ok && reply->add(MessageItem::ArgumentKey_Method, codeText);
        if (!ok) {
            MessageItem::release(reply);
            return Result_NoMemory;
        }
        // An error reply consumes two sender ids; receivers have seen the gap.
        m_senderId.fetch_add(1);
        MessageRef posted(reply);
        reply = nullptr;
        return post(std::move(posted));
    } catch (...) {
        MessageItem::release(reply);
        return Result_NoMemory;
    }
}

int MessagePump::post(MessageRef message)
{
    Core::message("MessagePump::post( %p ) this=%p\n", static_cast<void*>(message.get()), static_cast<void*>(this));
    if (!message)
        return Result_Null;
    if (m_pRouter == nullptr)
        return Result_NoRouter;
    if (!message->eventName().empty())
        return postEvent(std::move(message));
    return postToRouter(std::move(message));
}

int MessagePump::postEvent(MessageRef message)
{
    std::vector<EventEntry> listeners;
    bool found = false;
    try {
        UlmarCommsSystem::MutexLocker lock(m_lock);
        const auto event = m_events.find(message->eventName());
        found = event != m_events.end();
        if (found)
            listeners = event->second;
    } catch (...) {
        return Result_NoMemory;
    }
    if (!found)
        return Result_NoSuchEvent;
    // One copy per listener, in registration order; the copies' own results
    // are not the poster's concern.
    for (const EventEntry& listener : listeners) {
        MessageRef copy(MessageItem::createAndCopy(message.get()));
        if (copy && stampEventCopy(copy.get(), listener))
            post(std::move(copy));
    }
    return Result_Ok;
}

// A copy with room for its three keys gets the sender id, then "_t" and "_m".
// A copy of an event message too full for all three is still posted, with
// the keys that fit taken in the order that keeps it deliverable: the target
// first, then the method, then the sender id. Only a copy with no room even
// for its target is dropped: without one it would land on some other pump.
bool MessagePump::stampEventCopy(MessageItem* copy, const EventEntry& listener)
{
    const bool roomForAll = copy->numberOfArguments() + 3 <= MessageItem::s_maxNumberArguments;
    if (roomForAll)
        setSenderId(copy);
    if (!copy->add(MessageItem::ArgumentKey_To, listener.address.c_str())) {
        Core::log(Core::LogWarning,
                  "MessagePump::post( %p ) this=%p Event copy for %s has no room for its target; dropped.\n",
                  static_cast<void*>(copy), static_cast<void*>(this), listener.address.c_str());
        return false;
    }
    copy->add(MessageItem::ArgumentKey_Method, listener.returnMethod.c_str());
    if (roomForAll)
        return true;
    setSenderId(copy);
    Core::log(Core::LogWarning,
              "MessagePump::post( %p ) this=%p Event copy for %s is full; posted with the keys that fit.\n",
              static_cast<void*>(copy), static_cast<void*>(this), listener.address.c_str());
    return true;
}

int MessagePump::postToRouter(MessageRef message)
{
    Core::message("MessagePump::post( %p ) this=%p Posting to message router.\n", static_cast<void*>(message.get()),
                  static_cast<void*>(this));
    // The router takes the message either way; a refusal is result 6.
    return m_pRouter->post(std::move(message)) ? Result_Ok : Result_NoRouter;
}

void MessagePump::handleMessage(MessageRef held)
{
    Core::message("MessagePump::HandleMessage( %p ) this=%p\n", static_cast<void*>(held.get()),
                  static_cast<void*>(this));
    if (!held)
        return;
    // Released however the delivery ends, when held goes; after a callback
    // nothing of the pump is touched, so a callback may even delete its own
    // pump.
    MessageItem* message = held.get();
    try {
        char* to = nullptr;
        char* from = nullptr;
        char* mode = nullptr;
        char* senderId = nullptr;
        char* responseIdText = nullptr;
        char* response = nullptr;
        char* method = nullptr;
        message->getMandatoryFields(&to, &from, &mode, &senderId, &responseIdText, &response, &method);
        const unsigned responseId =
            responseIdText != nullptr ? static_cast<unsigned>(std::strtoul(responseIdText, nullptr, 10)) : 0;
        const char modeCode = mode != nullptr ? mode[0] : MessageItem::Mode_Normal;
        void* context = m_pContext;
        if (modeCode == MessageItem::Mode_Error) {
            const int errorCode = method != nullptr ? static_cast<int>(std::strtol(method, nullptr, 10)) : 2;
            ErrorCallback callback = m_errorCallback;
            if (callback != nullptr)
                callback(context, responseId, errorCode);
            return;
        }
        if (responseId != 0) {
            if (onBuiltInMessageResponse(message, responseId))
                return;
            ResponseCallback callback = m_responseCallback;
            if (callback != nullptr)
                callback(context, responseId, message);
            return;
        }
        if (onBuiltInMessage(message, to, method))
            return;
        MessageCallback callback = m_messageCallback;
        if (callback != nullptr)
            callback(context, message, to, method);
    } catch (...) {
        // An application's exception ends its delivery, never the worker; a
        // thread cancellation (foreign, typeless) must run on.
        if (abi::__cxa_current_exception_type() == nullptr)
            throw;
    }
}

bool MessagePump::onBuiltInMessageResponse(MessageItem*, unsigned)
{
    return false;
}

bool MessagePump::onBuiltInMessage(MessageItem* message, const char*, const char* method)
{
    if (method == nullptr)
        return false;
    if (std::strcmp(method, kMethodIsHas) == 0) {
        answerHasInterfaces(message);
        return true;
    }
    if (std::strcmp(method, kMethodIsList) == 0) {
        const std::string names = interfaceNames();
        reply(message, names.empty() ? nullptr : names.c_str());
        return true;
    }
    if (std::strcmp(method, kMethodEsList) == 0) {
        answerListEvents(message);
        return true;
    }
    if (std::strcmp(method, kMethodReg) == 0) {
        answerRegistration(message);
        return true;
    }
    return false;
}

void MessagePump::reply(MessageItem* request, const char* response)
{
    MessageRef answer(createReplyMessage(request, response));
    if (answer)
        post(std::move(answer));
}

void MessagePump::answerHasInterfaces(MessageItem* request)
{
    const char* wanted = request->value(kKeyInterfaces);
    if (wanted == nullptr) {
        reply(request, "false");
        return;
    }
    const std::string names = interfaceNames();
    // A pump without interfaces does not answer at all, so an asker hears
    // only from pumps that have interfaces.
    if (names.empty())
        return;
    reply(request, listContains(names, wanted) ? "true" : "false");
}

void MessagePump::answerListEvents(MessageItem* request)
{
    std::string list;
    {
        UlmarCommsSystem::MutexLocker lock(m_lock);
        for (const auto& event : m_events) {
            list += event.first;
            list += '|';
        }
    }
    reply(request, list.c_str());
}

void MessagePump::answerRegistration(MessageItem* request)
{
    const char* eventName = request->value(kKeyEventName);
    const char* returnMethod = request->value(kKeyReturnMethod);
    const char* listener = request->value(MessageItem::ArgumentKey_From);
    const bool registering = request->hasKey(kKeyRegister);
    bool changed = false;
    // Without "_f" there is nobody to register (and nobody to answer): an
    // entry with an empty address would send events to whichever pump
    // matches everything.
    if (eventName != nullptr && returnMethod != nullptr && listener != nullptr) {
        UlmarCommsSystem::MutexLocker lock(m_lock);
        const auto event = m_events.find(eventName);
        if (event != m_events.end()) {
            std::vector<EventEntry>& entries = event->second;
            const size_t before = entries.size();
            std::erase_if(entries, [&](const EventEntry& entry) {
                return entry.address == listener && entry.returnMethod == returnMethod;
            });
            changed = entries.size() != before;
            if (registering && entries.size() < s_maxListenersPerEvent) {
                entries.push_back(EventEntry{listener, returnMethod});
                changed = true;
            }
        }
    }
    reply(request, changed ? "y" : "n");
}

bool MessagePump::eventCreate(const std::string& name)
{
    UlmarCommsSystem::MutexLocker lock(m_lock);
    m_events.try_emplace(name);
    return true;
}

bool MessagePump::eventDestroy(const std::string& name)
{
    UlmarCommsSystem::MutexLocker lock(m_lock);
    m_events.erase(name);
    return true;
}

std::vector<MessagePump::EventEntry> MessagePump::eventListeners(const std::string& name)
{
    UlmarCommsSystem::MutexLocker lock(m_lock);
    const auto event = m_events.find(name);
    return event == m_events.end() ? std::vector<EventEntry>() : event->second;
}

} // namespace UlmarComms
