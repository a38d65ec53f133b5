// The one object behind the exported C functions. It builds and tears down
// the process's messaging objects in a fixed order, in one of two roles: an
// application process, whose router reaches the machine's system router over
// the local link, or the service process, which hosts the system router, its
// local-link listener, the system endpoint and the network router. It also
// forwards every pump and message call of the C interface.
//
// Start-up and shut-down are called by one application thread and never from
// a callback (shut-down joins the router worker that runs the callbacks).
//
// It is the composition root: the one place below the C interface that knows
// every layer, so that no layer beneath has to include the ones above it to
// be assembled. It lives in its own folder, just under the C interface.
#pragma once

#include "messaging/messaging.h"
#include "ulmarcomms.h"

#include <string>

namespace UlmarComms {
class INetworkRouter;
class LocalSocketServerInterface;
class SystemRouterMessagePump;
} // namespace UlmarComms

namespace UlmarCommsSystem {
class SocketAddress;
}

namespace UlmarCommsSDKSupport {

class RuntimeSupport {
public:
    // Start-up results.
    static const int StartOk = 0;
    static const int StartNetworkRouterFailed = 90;
    static const int StartLinkFailed = 91;
    static const int StartRouterFailed = 92;

    // Creates the instance if needed and counts one more holder.
    static RuntimeSupport* instanceInc();
    // Counts one holder less; the last one stops and deletes the instance.
    static void instanceRelease();
    // The instance, or null.
    static RuntimeSupport* instance();

    // The system router (the link proxy, or the real one in the service).
    UlmarComms::ISystemRouter* systemRouter() const { return m_pSystemRouter; }
    // The process's message router.
    UlmarComms::MessageRouter* messageRouter() const { return m_pMessageRouter; }
    // Finishes and deletes the system router.
    void stop();

    // Application start-up; 0, 91 or 92.
    int ulmarCommsStart(const std::string& arg);
    // Application shut-down; always 0. Does nothing when never started.
    int ulmarCommsShutdown();
    // Service start-up; 0, 90, 91 or 92.
    int systemRouterServiceStart(const std::string& arg);
    // Service shut-down; always 0.
    int systemRouterServiceStop();

    // Creates a pump and joins it to the router; null on failure.
    UlmarComms::MessagePump* ulmarCommsCreateMessagePump(const char* name, void* context,
                                                         UlmarCommsMessageCallback messageCallback,
                                                         UlmarCommsResponseCallback responseCallback,
                                                         UlmarCommsErrorCallback errorCallback, const char* interfaces);
    // Removes a pump from the router and deletes it; 0, 2 or 7.
    int ulmarCommsDestroyMessagePump(UlmarComms::MessagePump* pump);
    // Builds a reply to request.
    UlmarComms::MessageItem* ulmarCommsCreateReplyMessage(UlmarComms::MessagePump* pump,
                                                          UlmarComms::MessageItem* request, const char* response);
    // Posts through the pump, which takes the message; the pump's result code.
    int ulmarCommsPostMessage(UlmarComms::MessagePump* pump, UlmarComms::MessageRef message);
    // Sends an error reply; the pump's result code.
    int ulmarCommsSendErrorMessage(UlmarComms::MessagePump* pump, UlmarComms::MessageItem* request, int code);
    // Releases one reference (only while a message router exists).
    void ulmarCommsDestroyMessage(UlmarComms::MessageItem* message);

private:
    RuntimeSupport();
    ~RuntimeSupport();
    bool linkAddress(const std::string& arg, UlmarCommsSystem::SocketAddress& address);
    int startServiceRouters(const std::string& arg);
    void closeServiceLinks();
    // Leaves the remaining pumps without a router, then deletes the router.
    void deleteMessageRouter();
    // Whether a start-up left anything for a shut-down to undo.
    bool holdsAnything() const;
    // Creates the runtime's own first pump when the start text asks for it.
    bool addFirstPump();
    // Withdraws and deletes that pump, if there is one.
    void removeFirstPump();

    bool m_started;
    // A start-up set up the socket layer and no shut-down has stopped it yet.
    bool m_socketsHeld;
    UlmarComms::ISystemRouter* m_pSystemRouter;
    UlmarComms::MessageRouter* m_pMessageRouter;
    // Application only, with "ulmar.messagerouter.reannounce.all" set: a pump
    // of no use of its own that takes the router's first place. The router
    // never announces its first pump again after the link to the service
    // returns; with this one first, every pump the application creates is.
    UlmarComms::MessagePump* m_pFirstPump;
    UlmarComms::INetworkRouter* m_pNetworkRouter;
    // Service only: the local-link listener and the system endpoint, which
    // the system router does not own.
    UlmarComms::LocalSocketServerInterface* m_pLinkServer;
    UlmarComms::SystemRouterMessagePump* m_pSystemEndpoint;

    static RuntimeSupport* s_pInstance;
    static int32_t s_counter;
};

} // namespace UlmarCommsSDKSupport
