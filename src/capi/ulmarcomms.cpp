// The exported C interface. Every function but the option and logger setters
// first checks that the library is started (the runtime pointer below is set)
// and otherwise answers the not-started result; then it forwards to the
// runtime, the pump or the message. Nothing is thrown across this boundary.
//
// Handles are the addresses of MessagePump and MessageItem objects.
#include "ulmarcomms.h"

#include "core/core.h"
#include "messaging/messageitem.h"
#include "messaging/messagepump.h"
#include "platform/socket.h"
#include "runtime/runtimesupport.h"

#include <atomic>

#define ULMARCOMMS_API extern "C" __attribute__((visibility("default")))

using UlmarComms::Core;
using UlmarComms::MessageItem;
using UlmarComms::MessagePump;
using UlmarCommsSDKSupport::RuntimeSupport;

namespace {

// Set by a start function, cleared by UlmarCommsShutdown; what every export
// tests to see whether the library is started.
std::atomic<RuntimeSupport*> g_CPPRuntimeInterface{nullptr};

RuntimeSupport* runtime()
{
    return g_CPPRuntimeInterface.load();
}

MessagePump* asPump(void* pump)
{
    return static_cast<MessagePump*>(pump);
}

MessageItem* asMessage(void* message)
{
    return static_cast<MessageItem*>(message);
}

// Shared body of the two start functions.
template <typename Start> int startRuntime(const char* arg, Start start)
{
    if (runtime() != nullptr)
        return 0;
    const std::string argument = arg != nullptr ? arg : "";
    if (!Core::instance()->applyStartArgument(argument))
        return 4;
    try {
        RuntimeSupport* instance = RuntimeSupport::instanceInc();
        if (instance == nullptr)
            return 1;
        // A failed start leaves the runtime in place: callers shut down.
        g_CPPRuntimeInterface = instance;
        return start(instance, argument);
    } catch (...) {
        return 2;
    }
}

// Shared body of the builders: not started or null pump gives null.
template <typename Build> void* build(void* pump, Build make)
{
    if (runtime() == nullptr || pump == nullptr)
        return nullptr;
    try {
        return make(asPump(pump));
    } catch (...) {
        return nullptr;
    }
}

// Shared body of the header getters: first occurrence of key, or null.
const char* header(void* message, const char* key)
{
    if (runtime() == nullptr || message == nullptr)
        return nullptr;
    return asMessage(message)->value(key);
}

} // namespace

ULMARCOMMS_API int UlmarCommsStart(const char* arg)
{
    return startRuntime(
        arg, [](RuntimeSupport* instance, const std::string& argument) { return instance->ulmarCommsStart(argument); });
}

ULMARCOMMS_API int UlmarCommsShutdown(void)
{
    RuntimeSupport* instance = runtime();
    if (instance == nullptr)
        return 1;
    try {
        instance->ulmarCommsShutdown();
        RuntimeSupport::instanceRelease();
    } catch (...) {
    }
    g_CPPRuntimeInterface = nullptr;
    return 0;
}

ULMARCOMMS_API int UlmarCommsSystemStartUp(const char* arg)
{
    return startRuntime(arg, [](RuntimeSupport* instance, const std::string& argument) {
        return instance->systemRouterServiceStart(argument);
    });
}

// The runtime is not released: the library still counts as started.
ULMARCOMMS_API int UlmarCommsSystemShutdown(void)
{
    RuntimeSupport* instance = runtime();
    if (instance == nullptr)
        return 1;
    try {
        return instance->systemRouterServiceStop();
    } catch (...) {
        return 2;
    }
}

ULMARCOMMS_API void* UlmarCommsCreateMessagePump(const char* name, void* context,
                                                 UlmarCommsMessageCallback messageCallback,
                                                 UlmarCommsResponseCallback responseCallback,
                                                 UlmarCommsErrorCallback errorCallback, const char* interfaces)
{
    RuntimeSupport* instance = runtime();
    if (instance == nullptr || name == nullptr)
        return nullptr;
    try {
        return instance->ulmarCommsCreateMessagePump(name, context, messageCallback, responseCallback, errorCallback,
                                                     interfaces);
    } catch (...) {
        return nullptr;
    }
}

ULMARCOMMS_API int UlmarCommsDestroyMessagePump(void* pump)
{
    RuntimeSupport* instance = runtime();
    if (instance == nullptr)
        return 1;
    return instance->ulmarCommsDestroyMessagePump(asPump(pump));
}

ULMARCOMMS_API const char* UlmarCommsMessagePumpAddress(void* pump)
{
    if (runtime() == nullptr || pump == nullptr)
        return nullptr;
    return asPump(pump)->address();
}

ULMARCOMMS_API int UlmarCommsMessagePumpCreateEvent(void* pump, const char* eventName)
{
    if (runtime() == nullptr)
        return 1;
    if (pump == nullptr || eventName == nullptr || eventName[0] == '\0')
        return 4;
    try {
        asPump(pump)->eventCreate(eventName);
        return 0;
    } catch (...) {
        return 2;
    }
}

ULMARCOMMS_API int UlmarCommsMessagePumpDestroyEvent(void* pump, const char* eventName)
{
    if (runtime() == nullptr)
        return 1;
    if (pump == nullptr || eventName == nullptr || eventName[0] == '\0')
        return 4;
    try {
        asPump(pump)->eventDestroy(eventName);
        return 0;
    } catch (...) {
        return 2;
    }
}

ULMARCOMMS_API void* UlmarCommsCreateMessage(void* pump, const char* to, const char* method)
{
    return build(pump, [&](MessagePump* p) { return p->createMessage(to, method); });
}

ULMARCOMMS_API void* UlmarCommsCreateReplyMessage(void* pump, void* request, const char* response)
{
    return build(pump, [&](MessagePump* p) {
        return request == nullptr ? nullptr : runtime()->ulmarCommsCreateReplyMessage(p, asMessage(request), response);
    });
}

ULMARCOMMS_API void* UlmarCommsCreateSystemListHostsMessage(void* pump)
{
    return build(pump, [&](MessagePump* p) { return p->createSystemListHostsMessage(); });
}

ULMARCOMMS_API void* UlmarCommsCreateListHostsSupportingInterfaces(void* pump, const char* interfaces, bool match)
{
    return build(pump, [&](MessagePump* p) { return p->createListHostsSupportingInterfaces(interfaces, match); });
}

ULMARCOMMS_API void* UlmarCommsCreateSystemGetAddressesSupportingInterfacesMessage(void* pump, const char* host,
                                                                                   const char* interfaces)
{
    return build(
        pump, [&](MessagePump* p) { return p->createSystemGetAddressesSupportingInterfacesMessage(host, interfaces); });
}

ULMARCOMMS_API void* UlmarCommsCreateHasInterfacesMessage(void* pump, const char* to, const char* interfaces)
{
    return build(pump, [&](MessagePump* p) { return p->createHasInterfacesMessage(to, interfaces); });
}

ULMARCOMMS_API void* UlmarCommsCreateListInterfacesMessage(void* pump, const char* to)
{
    return build(pump, [&](MessagePump* p) { return p->createListInterfacesMessage(to); });
}

ULMARCOMMS_API void* UlmarCommsCreateListEventsMessage(void* pump, const char* to)
{
    return build(pump, [&](MessagePump* p) { return p->createListEventsMessage(to); });
}

ULMARCOMMS_API void* UlmarCommsCreateEventRegistrationMessage(void* pump, const char* returnMethod, const char* to,
                                                              const char* remoteEventName, bool reg)
{
    return build(pump, [&](MessagePump* p) {
        return p->createEventRegistrationMessage(returnMethod, to, remoteEventName, reg);
    });
}

ULMARCOMMS_API void* UlmarCommsCreateEventMessage(void* pump, const char* eventName)
{
    return build(pump, [&](MessagePump* p) { return p->createEventMessage(eventName); });
}

ULMARCOMMS_API int UlmarCommsPostMessage(void* pump, void* message)
{
    RuntimeSupport* instance = runtime();
    if (instance == nullptr)
        return 1;
    // Results 1 and 4 leave the message with the application: both are
    // decided here, before the message is handed on. From here on the
    // library holds it, whatever the result (2 included).
    if (pump == nullptr || message == nullptr)
        return 4;
    try {
        return instance->ulmarCommsPostMessage(asPump(pump), UlmarComms::MessageRef(asMessage(message)));
    } catch (...) {
        return 2;
    }
}

ULMARCOMMS_API int UlmarCommsSendErrorMessage(void* pump, void* request, int errorCode)
{
    RuntimeSupport* instance = runtime();
    if (instance == nullptr)
        return 1;
    if (pump == nullptr || request == nullptr)
        return 4;
    try {
        return instance->ulmarCommsSendErrorMessage(asPump(pump), asMessage(request), errorCode);
    } catch (...) {
        return 2;
    }
}

ULMARCOMMS_API const char* UlmarCommsGetTo(void* message)
{
    return header(message, MessageItem::ArgumentKey_To);
}

ULMARCOMMS_API const char* UlmarCommsGetFrom(void* message)
{
    return header(message, MessageItem::ArgumentKey_From);
}

ULMARCOMMS_API const char* UlmarCommsGetMode(void* message)
{
    return header(message, MessageItem::ArgumentKey_Mode);
}

ULMARCOMMS_API const char* UlmarCommsGetSenderId(void* message)
{
    return header(message, MessageItem::ArgumentKey_SenderId);
}

ULMARCOMMS_API const char* UlmarCommsGetResponseId(void* message)
{
    return header(message, MessageItem::ArgumentKey_ResponseId);
}

ULMARCOMMS_API const char* UlmarCommsGetResponse(void* message)
{
    return header(message, MessageItem::ArgumentKey_Response);
}

ULMARCOMMS_API const char* UlmarCommsGetMethod(void* message)
{
    return header(message, MessageItem::ArgumentKey_Method);
}

// Unlike the class's header scan, this sees first occurrences.
ULMARCOMMS_API int UlmarCommsGetMandatoryFields(void* message, const char** to, const char** from, const char** mode,
                                                const char** senderId, const char** responseId, const char** response,
                                                const char** method)
{
    if (runtime() == nullptr)
        return 1;
    const struct {
        const char** output;
        const char* key;
    } fields[] = {
        {to, MessageItem::ArgumentKey_To},
        {from, MessageItem::ArgumentKey_From},
        {mode, MessageItem::ArgumentKey_Mode},
        {senderId, MessageItem::ArgumentKey_SenderId},
        {responseId, MessageItem::ArgumentKey_ResponseId},
        {response, MessageItem::ArgumentKey_Response},
        {method, MessageItem::ArgumentKey_Method},
    };
    for (const auto& field : fields) {
        if (field.output != nullptr)
            *field.output = header(message, field.key);
    }
    return 0;
}

ULMARCOMMS_API int UlmarCommsMessageHasKey(void* message, const char* key)
{
    if (runtime() == nullptr || message == nullptr || key == nullptr)
        return 0;
    return asMessage(message)->hasKey(key) ? 1 : 0;
}

ULMARCOMMS_API const char* UlmarCommsMessageValue(void* message, const char* key)
{
    if (runtime() == nullptr || message == nullptr || key == nullptr)
        return nullptr;
    return asMessage(message)->value(key);
}

ULMARCOMMS_API int UlmarCommsMessageAddKeyValue(void* message, const char* key, const char* value)
{
    if (runtime() == nullptr)
        return 1;
    if (message == nullptr || key == nullptr || value == nullptr)
        return 4;
    return asMessage(message)->add(key, value) ? 0 : 2;
}

// 1 when not started: the not-started result code, deliberately kept even
// though a real id can be 1 as well, so that every int-result call of the
// interface reports "not started" with the same number.
ULMARCOMMS_API int UlmarCommsMessageId(void* pump, void* message)
{
    if (runtime() == nullptr)
        return 1;
    if (pump == nullptr || message == nullptr)
        return 0;
    return static_cast<int>(asPump(pump)->handler(asMessage(message)));
}

ULMARCOMMS_API int UlmarCommsIncCounterMessage(void* message)
{
    if (runtime() == nullptr)
        return 1;
    if (message == nullptr)
        return 4;
    asMessage(message)->incrementCount();
    return 0;
}

ULMARCOMMS_API void UlmarCommsDestroyMessage(void* message)
{
    RuntimeSupport* instance = runtime();
    if (instance == nullptr || message == nullptr)
        return;
    instance->ulmarCommsDestroyMessage(asMessage(message));
}

ULMARCOMMS_API int UlmarCommsSetOptionNumber(const char* key, int value)
{
    if (key == nullptr)
        return 4;
    Core::instance()->addSetting(key, value);
    return 0;
}

ULMARCOMMS_API int UlmarCommsSetOptionString(const char* key, const char* value)
{
    if (key == nullptr || value == nullptr)
        return 4;
    Core::instance()->addSetting(key, std::string(value));
    return 0;
}

ULMARCOMMS_API int UlmarCommsSetLogger(UlmarCommsLogger logger)
{
    return Core::setLogger(logger);
}

ULMARCOMMS_API int UlmarCommsSetLoggerLevel(int level)
{
    return Core::setLoggingLevel(level);
}

ULMARCOMMS_API int UlmarCommsSocketsSetLogger(UlmarCommsLogger logger)
{
    UlmarCommsSystem::Socket::setLogger(logger);
    return 0;
}

ULMARCOMMS_API int UlmarCommsSocketsSetLoggerLevel(int level)
{
    UlmarCommsSystem::Socket::setLoggingLevel(level);
    return 0;
}

ULMARCOMMS_API int UlmarCommsSocketsSetOptionString(const char*, const char*)
{
    return 0;
}

ULMARCOMMS_API int UlmarCommsScoketsSetOptionNumber(const char*, int)
{
    return 0;
}
