// The system endpoint's queries. Answers are plain texts in the reply's
// response field; an unknown method (or a request missing a required key)
// gets error 1002.
#include "runtime/systemroutermessagepump.h"

#include "core/address.h"
#include "core/core.h"
#include "network/networkrouter.h"
#include "runtime/runtimesupport.h"
#include "service/systemrouter.h"

#include <sstream>
#include <vector>

using UlmarCommsSDKSupport::RuntimeSupport;

namespace UlmarComms {

const char* const SystemRouterMessagePump::PumpName = "system";
const char* const SystemRouterMessagePump::InterfaceName = "quendrelis.ulmar.comms.system";

namespace {

const int kUnknownQuery = 1002;

MessageItem* asMessage(void* message)
{
    return static_cast<MessageItem*>(message);
}

// A request's text argument, or null.
const char* argument(void* message, const char* key)
{
    return asMessage(message)->value(key);
}

UlmarCommsService::SystemRouter* realRouter(ISystemRouter* router)
{
    return dynamic_cast<UlmarCommsService::SystemRouter*>(router);
}

} // namespace

SystemRouterMessagePump::SystemRouterMessagePump() : m_pPump(nullptr), m_registering(false), m_pSystemRouter(nullptr)
{
}

bool SystemRouterMessagePump::doRegister(ISystemRouter* router)
{
    if (router == nullptr)
        return false;
    m_pSystemRouter = router;
    if (auto* systemRouter = realRouter(router))
        systemRouter->setSystemRouterMessagePump(this);
    RuntimeSupport* runtime = RuntimeSupport::instance();
    if (runtime == nullptr)
        return false;
    {
        std::lock_guard<std::mutex> lock(m_registerLock);
        m_registering = true;
    }
    MessagePump* pump = runtime->ulmarCommsCreateMessagePump(
        PumpName, this, &onMessageCallback, &onMessageResponseCallback, &onErrorCallback, InterfaceName);
    finishRegistering(pump);
    return pump != nullptr;
}

void SystemRouterMessagePump::finishRegistering(void* pump)
{
    {
        std::lock_guard<std::mutex> lock(m_registerLock);
        m_pPump = pump;
        m_registering = false;
    }
    m_registered.notify_all();
}

void SystemRouterMessagePump::unregister()
{
    RuntimeSupport* runtime = RuntimeSupport::instance();
    void* pump = m_pPump.exchange(nullptr);
    if (pump == nullptr || runtime == nullptr)
        return;
    runtime->ulmarCommsDestroyMessagePump(static_cast<MessagePump*>(pump));
}

// The pump handle as seen from a callback. A query that arrives between the
// pump joining the router and doRegister storing the handle waits for the
// store, which follows at once on the registering thread: that thread never
// waits for the router worker, so the wait always ends.
void* SystemRouterMessagePump::pump()
{
    void* handle = m_pPump.load();
    if (handle != nullptr)
        return handle;
    std::unique_lock<std::mutex> lock(m_registerLock);
    m_registered.wait(lock, [this] { return !m_registering; });
    return m_pPump.load();
}

void SystemRouterMessagePump::onMessageCallback(void* context, void* message, const char* to, const char* method)
{
    static_cast<SystemRouterMessagePump*>(context)->onMessage(message, to, method);
}

void SystemRouterMessagePump::onMessageResponseCallback(void* context, unsigned int responseId, void* message)
{
    static_cast<SystemRouterMessagePump*>(context)->onMessageResponse(responseId, message);
}

void SystemRouterMessagePump::onErrorCallback(void* context, unsigned int responseId, int errorCode)
{
    static_cast<SystemRouterMessagePump*>(context)->onError(responseId, errorCode);
}

void SystemRouterMessagePump::onMessageResponse(unsigned int, void*)
{
}

void SystemRouterMessagePump::onError(unsigned int, int)
{
}

void SystemRouterMessagePump::onMessage(void* message, const char* to, const char* method)
{
    const std::string toText = to != nullptr ? to : "";
    const std::string methodText = method != nullptr ? method : "";
    Core::message("SystemRouterMessagePump::OnMessage() to='%s' method='%s'\n", toText.c_str(), methodText.c_str());
    RuntimeSupport* runtime = RuntimeSupport::instance();
    if (runtime == nullptr || pump() == nullptr)
        return;
    typedef void* (SystemRouterMessagePump::*Group)(RuntimeSupport*, void*, const std::string&, const std::string&,
                                                    bool&);
    const Group groups[] = {&SystemRouterMessagePump::onMessageProcessSystemRouter,
                            &SystemRouterMessagePump::onMessageProcessNetworkRouter,
                            &SystemRouterMessagePump::onMessageProcessNetworkMasterRouter};
    void* answer = nullptr;
    bool handled = false;
    for (Group group : groups) {
        handled = false;
        answer = (this->*group)(runtime, message, toText, methodText, handled);
        if (answer != nullptr || handled)
            break;
    }
    if (answer != nullptr) {
        // The pump takes the reply whatever the result.
        if (runtime->ulmarCommsPostMessage(static_cast<MessagePump*>(pump()), MessageRef(asMessage(answer))) != 0)
            Core::log(Core::LogWarning,
                      "SystemRouterMessagePump::OnMessage() Failed to post the replay to method='%s'\n",
                      methodText.c_str());
        return;
    }
    if (handled)
        return;
    Core::log(Core::LogWarning, "SystemRouterMessagePump::OnMessage() Getting an unknown call to method='%s'\n",
              methodText.c_str());
    runtime->ulmarCommsSendErrorMessage(static_cast<MessagePump*>(pump()), asMessage(message), kUnknownQuery);
}

void* SystemRouterMessagePump::reply(RuntimeSupport* runtime, void* request, const std::string& text)
{
    return runtime->ulmarCommsCreateReplyMessage(static_cast<MessagePump*>(pump()), asMessage(request), text.c_str());
}

void* SystemRouterMessagePump::onMessageProcessSystemRouter(RuntimeSupport* runtime, void* message, const std::string&,
                                                            const std::string& method, bool& handled)
{
    handled = true;
    UlmarCommsService::SystemRouter* router = realRouter(m_pSystemRouter);
    if (router == nullptr) {
        handled = false;
        return nullptr;
    }
    if (method == "#IsHas" || method == "#AdsSupIs") {
        const char* interface = argument(message, "inters");
        if (interface == nullptr) {
            handled = false;
            return nullptr;
        }
        std::vector<Address> supporting;
        router->interfaceGetAddressSupporting(interface, supporting);
        std::string text = method == "#AdsSupIs" ? interface : "";
        for (const Address& address : supporting)
            text += "," + address.toString();
        return reply(runtime, message, text);
    }
    if (method == "AddressSupportsInterface") {
        const char* interface = argument(message, "interface");
        const char* address = argument(message, "address");
        const bool supports = interface != nullptr && address != nullptr &&
            router->interfaceDoesAddressSupport(Address(address), interface);
        return reply(runtime, message, supports ? "true" : "false");
    }
    if (method == "#AddressSupportingInterfaces") {
        const char* interfaces = argument(message, "inters");
        if (interfaces == nullptr) {
            handled = false;
            return nullptr;
        }
        const char* match = argument(message, "match");
        std::vector<std::string> names;
        splitOn(interfaces, ",", names);
        return reply(runtime, message,
                     router->getAddressesSupportingInterfaces(names, match != nullptr && match[0] != '0'));
    }
    if (method == "SystemInfo")
        return reply(runtime, message, getSystemInformation());
    if (method == "ReadUlmarCommsSettings") {
        const char* keys = argument(message, "keys");
        return reply(runtime, message, readUlmarCommsSettings(keys != nullptr ? keys : ""));
    }
    if (method == "ViewSystemRouterRoutingTable")
        return reply(runtime, message, dumpSystemRoutingTable());
    handled = false;
    return nullptr;
}

void* SystemRouterMessagePump::onMessageProcessNetworkRouter(RuntimeSupport* runtime, void* message, const std::string&,
                                                             const std::string& method, bool& handled)
{
    UlmarCommsService::SystemRouter* router = realRouter(m_pSystemRouter);
    INetworkRouter* network = router != nullptr ? router->networkRouter() : nullptr;
    if (network == nullptr) {
        Core::log(Core::LogWarning,
                  "SystemRouterMessagePump::OnMessageProcessNetworkRouter() No Network router object to play with!\n");
        return nullptr;
    }
    if (method == "KnownHosts") {
        handled = true;
        const char* active = argument(message, "activeonly");
        const bool activeOnly = active != nullptr && (active[0] == 't' || active[0] == 'T');
        return reply(runtime, message, network->getKnownHosts(activeOnly) + Core::instance()->getHostName());
    }
    if (method == "HostInformation") {
        handled = true;
        const char* host = argument(message, "host");
        return reply(runtime, message, host != nullptr ? network->getHostInfo(host) : std::string());
    }
    if (method == "NetworkRoutingTable") {
        handled = true;
        auto* concrete = dynamic_cast<NetworkRouter*>(network);
        return reply(runtime, message, concrete != nullptr ? concrete->getRoutingTable() : std::string());
    }
    if (method == "NetHostSupportInterfaces") {
        handled = true;
        // The network router answers later, by itself, to the sender.
        network->getHostsSupportingInterfaces(argument(message, MessageItem::ArgumentKey_From),
                                              argument(message, MessageItem::ArgumentKey_SenderId),
                                              argument(message, "inters"), argument(message, "match"));
        return nullptr;
    }
    return nullptr;
}

void* SystemRouterMessagePump::onMessageProcessNetworkMasterRouter(RuntimeSupport*, void*, const std::string&,
                                                                   const std::string&, bool&)
{
    return nullptr;
}

// Selection by keys is deliberately not offered: any keys give an empty text.
std::string SystemRouterMessagePump::readUlmarCommsSettings(const std::string& keys)
{
    if (!keys.empty())
        return std::string();
    std::string text;
    Core* core = Core::instance();
    for (const auto& [key, value] : core->stringSettings())
        text += "string," + key + "," + value + "\n";
    text += "# numbers\n";
    for (const auto& [key, value] : core->numberSettings())
        text += "number," + key + "," + std::to_string(value) + "\n";
    return text;
}

std::string SystemRouterMessagePump::getSystemInformation()
{
    std::ostringstream text;
    text << "name=" << Core::instance()->getHostName() << "\n"
         << "os=linux\n";
    UlmarCommsService::SystemRouter* router = realRouter(m_pSystemRouter);
    auto* network = router != nullptr ? dynamic_cast<NetworkRouter*>(router->networkRouter()) : nullptr;
    if (network != nullptr)
        network->getCurrentNetworkInterfaces(text);
    return text.str();
}

std::string SystemRouterMessagePump::dumpSystemRoutingTable()
{
    std::ostringstream text;
    if (auto* router = realRouter(m_pSystemRouter))
        router->dumpSystemRouterTable(text);
    return text.str();
}

} // namespace UlmarComms
