// Start-up and shut-down of both roles, and the pump and message forwarding.
#include "runtime/runtimesupport.h"

#include "core/core.h"
#include "link/localsocketserverinterface.h"
#include "link/socketsystemrouterproxy.h"
#include "network/networkrouter.h"
#include "platform/socket.h"
#include "platform/socketaddress.h"
#include "runtime/systemroutermessagepump.h"
#include "service/systemrouter.h"

#include <new>
#include <string>
#include <unistd.h>

using UlmarComms::Core;
using UlmarComms::MessageItem;
using UlmarComms::MessagePump;
using UlmarComms::MessageRouter;
using UlmarCommsSystem::Socket;
using UlmarCommsSystem::SocketAddress;

namespace UlmarCommsSDKSupport {

namespace {

// A pump created through the C interface. It keeps the application's C
// callbacks and context, and registers itself as the pump's context with
// trampolines that hand the message on as the void* handle C expects. The
// callbacks live and die with the pump.
class CallbackPump : public MessagePump {
public:
    CallbackPump(const char* name, MessageRouter* router, void* context, UlmarCommsMessageCallback onMessage,
                 UlmarCommsResponseCallback onResponse, UlmarCommsErrorCallback onError)
        : MessagePump(name, router),
          m_context(context),
          m_onMessage(onMessage),
          m_onResponse(onResponse),
          m_onError(onError)
    {
    }

    // Joins the router with whichever trampolines have a callback behind them.
    bool join()
    {
        return setCallbacks(this, m_onMessage != nullptr ? &CallbackPump::message : nullptr,
                            m_onResponse != nullptr ? &CallbackPump::response : nullptr,
                            m_onError != nullptr ? &CallbackPump::error : nullptr);
    }

private:
    // Router worker thread, like every pump callback.
    static void message(void* self, MessageItem* item, const char* to, const char* method)
    {
        auto* pump = static_cast<CallbackPump*>(self);
        pump->m_onMessage(pump->m_context, item, to, method);
    }
    static void response(void* self, unsigned responseId, MessageItem* item)
    {
        auto* pump = static_cast<CallbackPump*>(self);
        pump->m_onResponse(pump->m_context, responseId, item);
    }
    static void error(void* self, unsigned responseId, int code)
    {
        auto* pump = static_cast<CallbackPump*>(self);
        pump->m_onError(pump->m_context, responseId, code);
    }

    void* m_context;
    UlmarCommsMessageCallback m_onMessage;
    UlmarCommsResponseCallback m_onResponse;
    UlmarCommsErrorCallback m_onError;
};

} // namespace

RuntimeSupport* RuntimeSupport::s_pInstance = nullptr;
int32_t RuntimeSupport::s_counter = 0;

RuntimeSupport::RuntimeSupport()
    : m_started(false),
      m_socketsHeld(false),
      m_pSystemRouter(nullptr),
      m_pMessageRouter(nullptr),
      m_pFirstPump(nullptr),
      m_pNetworkRouter(nullptr),
      m_pLinkServer(nullptr),
      m_pSystemEndpoint(nullptr)
{
}

// The system endpoint outlives the service's shut-down (a later start-up
// returns at once and builds nothing); it and its pump go with the runtime.
// Its router is gone by then, so the pump is deleted without leaving it.
RuntimeSupport::~RuntimeSupport()
{
    if (m_pSystemEndpoint != nullptr)
        delete static_cast<MessagePump*>(m_pSystemEndpoint->pumpHandle());
    delete m_pSystemEndpoint;
}

RuntimeSupport* RuntimeSupport::instanceInc()
{
    if (s_pInstance == nullptr)
        s_pInstance = new (std::nothrow) RuntimeSupport();
    if (s_pInstance != nullptr)
        ++s_counter;
    return s_pInstance;
}

void RuntimeSupport::instanceRelease()
{
    if (s_pInstance == nullptr || --s_counter > 0)
        return;
    s_pInstance->stop();
    delete s_pInstance;
    s_pInstance = nullptr;
}

RuntimeSupport* RuntimeSupport::instance()
{
    return s_pInstance;
}

void RuntimeSupport::stop()
{
    if (m_pSystemRouter == nullptr)
        return;
    m_pSystemRouter->finish();
    delete m_pSystemRouter;
    m_pSystemRouter = nullptr;
}

// The local link: the UNIX-domain socket when "ulmar.systemrouter.pipe" is
// set, else TCP on the configured IPv4 address; an empty address otherwise.
bool RuntimeSupport::linkAddress(const std::string& arg, SocketAddress& address)
{
    Core* core = Core::instance();
    if (core->getNumber("ulmar.systemrouter.pipe") != 0) {
        // The text names the service function in both roles; kept so.
        Core::message("RuntimeSupport::systemRouterServiceStart() Using PIPE\n");
        return address.setUNIXAddress(core->getString("ulmar.systemrouter.pipe.name"), arg);
    }
    if (core->getNumber("ulmar.systemrouter.ip4") != 0) {
        Core::message("RuntimeSupport::systemRouterServiceStart() Using IP4\n");
        return address.setIP4Address(core->getString("ulmar.systemrouter.ip4.addresses"),
                                     core->getString("ulmar.systemrouter.ip4.port"));
    }
    return false;
}

int RuntimeSupport::ulmarCommsStart(const std::string& arg)
{
    Core* core = Core::instance();
    if (!Socket::init(static_cast<unsigned>(core->getNumber("socket.selection.noworkerthreads"))))
        return StartLinkFailed;
    m_socketsHeld = true;
    if (m_pSystemRouter == nullptr) {
        SocketAddress address;
        linkAddress(arg, address);
        m_pSystemRouter = new (std::nothrow) UlmarComms::SocketSystemRouterProxy(address);
        if (m_pSystemRouter == nullptr)
            return StartLinkFailed;
    }
    if (m_pMessageRouter == nullptr) {
        m_pMessageRouter = new (std::nothrow) MessageRouter();
        if (m_pMessageRouter == nullptr)
            return StartRouterFailed;
        m_pMessageRouter->setSystemRouter(m_pSystemRouter);
    }
    m_started = true;
    if (!m_pMessageRouter->start())
        return StartRouterFailed;
    if (m_pSystemRouter->start())
        return addFirstPump() ? StartOk : StartRouterFailed;
    Core::log(Core::LogError, "Ulmar Comms Failed to start the system router proxy.\n");
    // The router must not keep announcing to the proxy deleted below.
    m_pMessageRouter->detachSystemRouter(m_pSystemRouter);
    delete m_pSystemRouter;
    m_pSystemRouter = nullptr;
    return StartLinkFailed;
}

// Made before the application can create a pump, so it is the router's
// first. It has no callbacks: whatever reaches it is dropped. Its name
// carries the pid so that it is the process's own on the machine's bus.
bool RuntimeSupport::addFirstPump()
{
    if (m_pFirstPump != nullptr || Core::instance()->getNumber("ulmar.messagerouter.reannounce.all") == 0)
        return true;
    const std::string name = "ulmarcomms.runtime." + std::to_string(getpid());
    auto* pump = new (std::nothrow) MessagePump(name.c_str(), m_pMessageRouter);
    if (pump == nullptr || !pump->setCallbacks(nullptr, nullptr, nullptr, nullptr)) {
        delete pump;
        return false;
    }
    m_pFirstPump = pump;
    return true;
}

void RuntimeSupport::removeFirstPump()
{
    if (m_pFirstPump == nullptr)
        return;
    if (m_pMessageRouter != nullptr)
        m_pMessageRouter->remove(m_pFirstPump);
    delete m_pFirstPump;
    m_pFirstPump = nullptr;
}

bool RuntimeSupport::holdsAnything() const
{
    return m_socketsHeld || m_pMessageRouter != nullptr || m_pSystemRouter != nullptr;
}

// Never started, or already shut down: nothing is logged and nothing is
// touched, least of all a socket layer that another holder set up.
int RuntimeSupport::ulmarCommsShutdown()
{
    if (!holdsAnything())
        return 0;
    Core::message("RuntimeSupport::ulmarCommsShutdown() <<< 1\n");
    if (m_pMessageRouter != nullptr) {
        m_pMessageRouter->finish();
        // The worker has stopped, so nothing reaches the first pump now; its
        // withdrawal still reaches the service while the link is attached.
        removeFirstPump();
        m_pMessageRouter->setSystemRouter(nullptr);
        if (m_pSystemRouter != nullptr)
            m_pSystemRouter->remove(m_pMessageRouter);
    }
    Core::message("RuntimeSupport::ulmarCommsShutdown() <<< 2\n");
    Core::message("RuntimeSupport::ulmarCommsShutdown() <<< 3\n");
    if (m_pSystemRouter != nullptr)
        m_pSystemRouter->finish();
    deleteMessageRouter();
    delete m_pSystemRouter;
    m_pSystemRouter = nullptr;
    Core::message("RuntimeSupport::ulmarCommsShutdown() <<< 4\n");
    Core::message("RuntimeSupport::ulmarCommsShutdown() <<< 5\n");
    Socket::deinit();
    m_socketsHeld = false;
    Core::message("RuntimeSupport::systemRouterServiceStop() <<< \n");
    m_started = false;
    return 0;
}

int RuntimeSupport::systemRouterServiceStart(const std::string& arg)
{
    Core* core = Core::instance();
    if (!Socket::init(static_cast<unsigned>(core->getNumber("socket.selection.systemmode.noworkerthreads"))))
        return StartLinkFailed;
    m_socketsHeld = true;
    const int routers = startServiceRouters(arg);
    if (routers != StartOk)
        return routers;
    auto* systemRouter = static_cast<UlmarCommsService::SystemRouter*>(m_pSystemRouter);
    if (m_pSystemEndpoint == nullptr) {
        m_pSystemEndpoint = new (std::nothrow) UlmarComms::SystemRouterMessagePump();
        if (m_pSystemEndpoint == nullptr || !m_pSystemEndpoint->doRegister(systemRouter)) {
            delete m_pSystemEndpoint;
            m_pSystemEndpoint = nullptr;
            return StartRouterFailed;
        }
    }
    if (m_pNetworkRouter != nullptr)
        return StartOk;
    auto* networkRouter = new (std::nothrow) UlmarComms::NetworkRouter();
    if (networkRouter == nullptr)
        return StartNetworkRouterFailed;
    m_pNetworkRouter = networkRouter;
    // Links between hosts count towards the service's memory bound too.
    if (m_pLinkServer != nullptr)
        networkRouter->setMemoryAccount(m_pLinkServer->serviceMemory());
    // The system router hands messages for other hosts to the network router
    // it knows, so start-up attaches it as shut-down detaches it.
    systemRouter->setNetworkRouter(networkRouter);
    networkRouter->add(systemRouter);
    return networkRouter->start() ? StartOk : StartNetworkRouterFailed;
}

// The system router with its listener, then the service's message router.
int RuntimeSupport::startServiceRouters(const std::string& arg)
{
    try {
        if (m_pSystemRouter == nullptr) {
            auto* systemRouter = new UlmarCommsService::SystemRouter();
            m_pSystemRouter = systemRouter;
            SocketAddress address;
            linkAddress(arg, address);
            m_pLinkServer = new UlmarComms::LocalSocketServerInterface(systemRouter, address);
            systemRouter->addLinkServer(m_pLinkServer);
            if (!systemRouter->start())
                return StartLinkFailed;
        }
    } catch (...) {
        return StartLinkFailed;
    }
    try {
        if (m_pMessageRouter == nullptr) {
            m_pMessageRouter = new MessageRouter();
            m_pMessageRouter->setSystemRouter(m_pSystemRouter);
            if (!m_pMessageRouter->start()) {
                m_pSystemRouter->remove(m_pMessageRouter);
                delete m_pMessageRouter;
                m_pMessageRouter = nullptr;
                return StartRouterFailed;
            }
        }
    } catch (...) {
        return StartRouterFailed;
    }
    m_started = true;
    return StartOk;
}

int RuntimeSupport::systemRouterServiceStop()
{
    Core::message("RuntimeSupport::systemRouterServiceStop() >>>\n");
    if (m_pNetworkRouter != nullptr)
        m_pNetworkRouter->stop();
    Core::message("RuntimeSupport::systemRouterServiceStop() >>> 1\n");
    if (m_pMessageRouter != nullptr) {
        m_pMessageRouter->finish();
        // The worker has stopped, so nothing reaches the first pump now; its
        // withdrawal still reaches the service while the link is attached.
        removeFirstPump();
        m_pMessageRouter->setSystemRouter(nullptr);
    }
    Core::message("RuntimeSupport::systemRouterServiceStop() >>> 2\n");
    if (m_pSystemRouter != nullptr) {
        m_pSystemRouter->finish();
        m_pSystemRouter->setNetworkRouter(nullptr);
        m_pSystemRouter->remove(m_pMessageRouter);
    }
    Core::message("RuntimeSupport::systemRouterServiceStop() >>> 3\n");
    delete m_pNetworkRouter;
    m_pNetworkRouter = nullptr;
    Core::message("RuntimeSupport::systemRouterServiceStop() >>> 4\n");
    deleteMessageRouter();
    Core::message("RuntimeSupport::systemRouterServiceStop() >>> 5\n");
    closeServiceLinks();
    delete m_pSystemRouter;
    m_pSystemRouter = nullptr;
    Core::message("RuntimeSupport::systemRouterServiceStop() >>> 6\n");
    Socket::deinit();
    m_socketsHeld = false;
    Core::message("RuntimeSupport::systemRouterServiceStop() <<<\n");
    return 0;
}

// Pumps the application has not destroyed outlive the router: each is left
// without one, so destroying it later only frees it and posting through it
// answers "no router" instead of reaching a deleted router.
void RuntimeSupport::deleteMessageRouter()
{
    if (m_pMessageRouter != nullptr)
        m_pMessageRouter->releasePumps();
    delete m_pMessageRouter;
    m_pMessageRouter = nullptr;
}

// The listener leaves the links it accepted to their own sockets; once the
// service stops nothing will ever report on them again, so they are closed
// here, before the selector goes.
void RuntimeSupport::closeServiceLinks()
{
    if (m_pLinkServer == nullptr)
        return;
    m_pLinkServer->closeAllLinks();
    delete m_pLinkServer;
    m_pLinkServer = nullptr;
}

MessagePump* RuntimeSupport::ulmarCommsCreateMessagePump(const char* name, void* context,
                                                         UlmarCommsMessageCallback messageCallback,
                                                         UlmarCommsResponseCallback responseCallback,
                                                         UlmarCommsErrorCallback errorCallback, const char* interfaces)
{
    if (m_pMessageRouter == nullptr)
        return nullptr;
    auto* pump = new (std::nothrow)
        CallbackPump(name, m_pMessageRouter, context, messageCallback, responseCallback, errorCallback);
    if (pump == nullptr)
        return nullptr;
    if (interfaces != nullptr)
        pump->setInterfaceNames(interfaces);
    if (!pump->join()) {
        delete pump;
        return nullptr;
    }
    return pump;
}

int RuntimeSupport::ulmarCommsDestroyMessagePump(MessagePump* pump)
{
    if (pump == nullptr)
        return 7;
    try {
        if (pump->router() != nullptr)
            pump->router()->remove(pump);
        delete pump;
        return 0;
    } catch (...) {
        return 2;
    }
}

MessageItem* RuntimeSupport::ulmarCommsCreateReplyMessage(MessagePump* pump, MessageItem* request, const char* response)
{
    return pump->createReplyMessage(request, response);
}

int RuntimeSupport::ulmarCommsPostMessage(MessagePump* pump, UlmarComms::MessageRef message)
{
    return pump->post(std::move(message));
}

int RuntimeSupport::ulmarCommsSendErrorMessage(MessagePump* pump, MessageItem* request, int code)
{
    return pump->sendErrorMessage(code, request);
}

void RuntimeSupport::ulmarCommsDestroyMessage(MessageItem* message)
{
    if (m_pMessageRouter != nullptr)
        MessageRouter::destroy(message);
}

} // namespace UlmarCommsSDKSupport
