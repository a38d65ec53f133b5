// The built-in endpoint "system" of the service process. It answers text
// queries about this machine, its routing table, its settings and, when a
// network router runs, the other hosts. It is an ordinary pump created
// through the runtime, so its queries arrive on the service router's worker
// thread like any other request.
//
// It sits beside the runtime rather than with the system router: it makes
// its pump and sends its answers through the runtime, and reads the system
// and network routers, so it depends on the layers the runtime assembles.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

namespace UlmarCommsSDKSupport {
class RuntimeSupport;
}

namespace UlmarComms {

class ISystemRouter;

class SystemRouterMessagePump {
public:
    // The pump's name and the interface it announces.
    static const char* const PumpName;
    static const char* const InterfaceName;

    SystemRouterMessagePump();
    ~SystemRouterMessagePump() = default;
    SystemRouterMessagePump(const SystemRouterMessagePump&) = delete;
    SystemRouterMessagePump& operator=(const SystemRouterMessagePump&) = delete;

    // Creates the "system" pump through the runtime; false without a router
    // or a runtime, or when the pump cannot join.
    bool doRegister(ISystemRouter* router);
    // Destroys the pump through the runtime.
    void unregister();
    // The endpoint's pump handle (null before doRegister).
    void* pumpHandle() const { return m_pPump.load(); }

    // Pump callbacks (router worker thread); context is this object.
    static void onMessageCallback(void* context, void* message, const char* to, const char* method);
    static void onMessageResponseCallback(void* context, unsigned int responseId, void* message);
    static void onErrorCallback(void* context, unsigned int responseId, int errorCode);

    // Answers one query, or sends error 1002 for an unknown one.
    void onMessage(void* message, const char* to, const char* method);
    // Replies are not expected; ignored.
    void onMessageResponse(unsigned int responseId, void* message);
    // Error replies are not expected; ignored.
    void onError(unsigned int responseId, int errorCode);

    // Queries about this machine's table and settings; null when not one.
    void* onMessageProcessSystemRouter(UlmarCommsSDKSupport::RuntimeSupport* runtime, void* message,
                                       const std::string& to, const std::string& method, bool& handled);
    // Queries that need the network router; null when not one.
    void* onMessageProcessNetworkRouter(UlmarCommsSDKSupport::RuntimeSupport* runtime, void* message,
                                        const std::string& to, const std::string& method, bool& handled);
    // Reserved group: answers nothing.
    void* onMessageProcessNetworkMasterRouter(UlmarCommsSDKSupport::RuntimeSupport* runtime, void* message,
                                              const std::string& to, const std::string& method, bool& handled);

    // Every setting, texts first, when keys is empty; empty otherwise.
    std::string readUlmarCommsSettings(const std::string& keys);
    // Host name, OS and, with a network router, its interfaces.
    std::string getSystemInformation();
    // The system router's table dump.
    std::string dumpSystemRoutingTable();

private:
    // Builds the reply to request with text as its response.
    void* reply(UlmarCommsSDKSupport::RuntimeSupport* runtime, void* request, const std::string& text);
    // The pump handle as a callback sees it; waits while doRegister runs.
    void* pump();
    // Ends a registration: stores the handle and wakes callbacks waiting.
    void finishRegistering(void* pump);

    // Set by doRegister once the pump has joined; a query can arrive before
    // that store, on the router worker, so it is awaited there.
    std::atomic<void*> m_pPump;
    // Guards m_registering; a leaf lock (std::mutex), held for a test or a wait.
    std::mutex m_registerLock;
    // doRegister is creating the pump: a query may come before the handle.
    bool m_registering;
    // Signalled when a registration ends.
    std::condition_variable m_registered;
    ISystemRouter* m_pSystemRouter;
};

} // namespace UlmarComms
