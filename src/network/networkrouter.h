// The network router links this machine's system router with the system
// routers of other hosts. This header holds its abstract face, through which
// the system router, the system endpoint and the network interfaces reach it.
#pragma once

#include <string>

namespace UlmarCommsSystem {
class SocketAddress;
}

namespace UlmarComms {

class MessageItem;
class ISystemRouter;
class NetworkRouterInterface;
class NetworkRouterConnection;

class INetworkRouter {
public:
    virtual ~INetworkRouter() = default;
    // Queues a message for a host; on true the router has released it, on
    // false the caller still owns it.
    virtual bool post(const std::string& host, MessageItem* item) = 0;
    // Queues a link command for a host.
    virtual bool post(const std::string& host, unsigned char code, const char* text) = 0;
    // Asks every known host which addresses support the interfaces.
    virtual bool getHostsSupportingInterfaces(const char* from, const char* sender, const char* interfaces,
                                              const char* match) = 0;
    // Builds and starts the interfaces.
    virtual bool start() = 0;
    // Stops and deletes the interfaces and the routing table.
    virtual void stop() = 0;
    // Attaches the system router that receives what arrives from other hosts.
    virtual bool add(ISystemRouter* systemRouter) = 0;
    // A connection named its host: enter it in the routing table.
    virtual bool routingTableNewConnection(const std::string& hostName, NetworkRouterInterface* interface,
                                           NetworkRouterConnection* connection) = 0;
    // Every host name ever learnt, one per line.
    virtual std::string getKnownHosts(bool activeOnly) = 0;
    // What is known about one host.
    virtual std::string getHostInfo(const std::string& host) = 0;
    // Discovery heard a host on an interface.
    virtual void infoAboutHost(const std::string& hostName, const UlmarCommsSystem::SocketAddress& address,
                               NetworkRouterInterface* interface) = 0;
};

} // namespace UlmarComms
