// The network router's presence on one local network interface: it announces
// this host by a UDP datagram sent to the interface's broadcast address every
// "ulmar.networkrouter.discovery.timeout" milliseconds, hears the other hosts'
// announcements on the same address and reports them to the router, and, as
// a frame server on the interface's address, owns the stream connections
// other hosts open to this one and opens connections to them on request.
//
// The announcement is built once and parsed by pure functions of the bytes
// (buildInfo / parseInfo), so the wire format can be checked and fuzzed
// without sockets. A datagram is untrusted input: every field is bounded by
// the bytes actually received and anything that does not fit is dropped.
//
// Trust. Links and datagrams are taken only from addresses the interface's
// NetworkPolicy allows (networkpolicy.h): loopback and its own subnet until
// the router hands it the whole policy before starting it. A refused link is
// closed at once; a refused datagram, one that announces an address no host
// can have (0.0.0.0, a broadcast address, port 0) or one that carries this
// host's own name from elsewhere is ignored. Each cause is logged with a text
// of its own, so the log's throttle bounds each (core/logthrottle.h).
//
// Bounds on links. An accepted link that has not named its host within the
// hello timeout (Limits::NetworkHelloMilliseconds) is shut down by a sweep on
// the timer (and then goes as any dropped link goes), and one source address may hold at most
// Limits::NetworkLinksPerSource accepted links here; a link past that is
// closed as it is accepted. Links that never speak cannot use up the
// descriptors real peers need.
//
// Threads. onRecvedFrom, onClientConnect and onClientDisconnect run on
// selector worker threads, the broadcast on the timer worker, connectTo on the
// system router's thread (it starts the connect and waits for nothing), and
// connection callbacks (add / remove) on selector workers. The connections
// list has its own lock, never held while a connection is released:
// retiring a connection takes the router lock, which comes before it.
#pragma once

#include "core/limits.h"
#include "framing/dataframehandler.h"
#include "framing/dataframeserver.h"
#include "network/networkpolicy.h"
#include "platform/mutex.h"
#include "platform/socketaddress.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace UlmarCommsSystem {
class Socket;
}

namespace UlmarComms {

class DataObject;
class INetworkRouter;
class NetworkRouterConnection;

// The fields of one announcement as read from the wire.
struct NetworkDiscoveryInfo {
    // The embedded total length.
    uint32_t totalLength = 0;
    // The type byte (0: host information).
    unsigned char type = 0;
    // The value (0).
    uint32_t value = 0;
    // The announcing host's name.
    std::string hostName;
    // The announcing host's stream address (empty when not IPv4).
    UlmarCommsSystem::SocketAddress address;
    // The trailer as read.
    uint16_t trailer = 0;
};

class NetworkRouterInterface : public DataFrameServer {
public:
    // The first two bytes of every announcement.
    static constexpr uint16_t DiscoveryMagic = 0xF12A;
    // The last two bytes of every announcement.
    static constexpr uint16_t DiscoveryTrailer = 0xAA87;
    // The only announcement type: host information.
    static constexpr unsigned char DiscoveryTypeHostInfo = 0;
    // Size of the receive and the info buffers (core/limits.h).
    static constexpr unsigned DiscoveryBufferSize = Limits::DiscoveryDatagramBytes;
    // Time an accepted link has to name its host (core/limits.h).
    static constexpr std::chrono::milliseconds HelloTimeout{Limits::NetworkHelloMilliseconds};
    // Accepted links one source address may hold here (core/limits.h).
    static constexpr unsigned MaxLinksPerSource = Limits::NetworkLinksPerSource;

    // Why parseInfo refused a datagram.
    enum ParseResult {
        ParseOk = 0, // accepted (possibly with a wrong trailer)
        ParseBadMagic = 1, // the first two bytes are not the magic
        ParseBadHeader = 2, // a field runs past the end, or the length is wrong
    };

    // Why a link or an announcement was not taken; each is logged apart.
    enum Refusal {
        RefusedLink = 0, // a link from a network not allowed
        RefusedSource, // a datagram from a network not allowed
        RefusedAnnouncedNetwork, // a datagram announcing an address not allowed
        RefusedImpossibleAddress, // 0.0.0.0, a broadcast address or port 0
        RefusedOwnName, // this host's own name, from another address
        RefusalCauses
    };

    // A frame server on local; copies broadcast and network; no discovery socket.
    NetworkRouterInterface(INetworkRouter* router, const UlmarCommsSystem::SocketAddress& local,
                           const UlmarCommsSystem::SocketAddress& broadcast,
                           const UlmarCommsSystem::SocketAddress& network);
    // Stops discovery and deletes every connection.
    ~NetworkRouterInterface() override;
    NetworkRouterInterface(const NetworkRouterInterface&) = delete;
    NetworkRouterInterface& operator=(const NetworkRouterInterface&) = delete;

    // Wraps an accepted client in a new (accepting) connection.
    void onClientConnect(UlmarCommsSystem::Socket* server, const UlmarCommsSystem::SocketAddress& clientAddress,
                         UlmarCommsSystem::Socket* client) override;
    // Logs only: connections end through their own callbacks.
    void onClientDisconnect(UlmarCommsSystem::Socket* server, UlmarCommsSystem::Socket* client) override;
    // Starts discovery and the listener, unless discovery is switched off.
    bool start() override;
    // Stops discovery and the listener and deletes every connection.
    void stop();

    // Starts a connection to a host's stream address, listed and holding its
    // frames until it completes; null when it cannot even start.
    NetworkRouterConnection* connectTo(const UlmarCommsSystem::SocketAddress& address);
    // Takes ownership of a connection (once; a second add does nothing).
    void add(NetworkRouterConnection* connection);
    // Erases a connection and releases it (DataFrameHandler::release): the
    // reaper deletes it once its callbacks have returned (no effect if it is
    // not ours).
    void remove(NetworkRouterConnection* connection);
    // Whether the connection is one of ours.
    bool hasConnection(NetworkRouterConnection* connection);
    // The number of connections held.
    size_t connectionCount();

    // Creates the discovery socket, its timer and the listener.
    bool discoveryStart();
    // Removes the timer, releases the discovery socket, stops messaging
    // (which waits for the socket's last callback); true.
    bool discoveryStop();
    // Starts the stream listener.
    bool messagingStart();
    // Stops the listener, releases every connection and waits for the
    // callbacks still running (never from a callback).
    void messagingStop();
    // Builds the announcement into the info buffer.
    void buildInfoBuffer();
    // Sends the announcement to the broadcast address.
    void broadcast();
    // Checks one received datagram and reports the host it announces.
    void handleIncomingInfo(const UlmarCommsSystem::SocketAddress& source, const unsigned char* bytes, unsigned length);

    // Writes an announcement (magic included) into buffer; false if it does
    // not fit. length receives the total length.
    static bool buildInfo(unsigned char* buffer, unsigned capacity, const std::string& hostName,
                          const UlmarCommsSystem::SocketAddress& local, unsigned& length);
    // Writes everything after the magic and patches the length at offset 2.
    static bool writeHeader(DataObject& stream, unsigned char type, uint32_t value, const std::string& hostName,
                            const UlmarCommsSystem::SocketAddress& address);
    // Reads everything after the magic; false when a field runs past the end
    // or the embedded length is not length. A wrong trailer is only logged.
    static bool readHeader(DataObject& stream, unsigned length, NetworkDiscoveryInfo& info);
    // Reads a whole datagram (magic and header); a pure function of the bytes.
    static ParseResult parseInfo(const unsigned char* bytes, unsigned length, NetworkDiscoveryInfo& info);

    // The router that made this interface.
    INetworkRouter* getNetworkRouter() const { return m_pNetworkRouter; }
    // The interface's address with the stream port.
    const UlmarCommsSystem::SocketAddress& getLocalAddress() const { return m_local; }
    // The broadcast address with the port.
    const UlmarCommsSystem::SocketAddress& getBroadcastAddress() const { return m_broadcast; }
    // The network address.
    const UlmarCommsSystem::SocketAddress& getNetworkAddress() const { return m_network; }
    // The built announcement (infoLength() bytes).
    const unsigned char* infoBuffer() const { return m_infoBuffer; }
    // Bytes of the announcement; 0 when building failed.
    uint32_t infoLength() const { return m_infoLength; }
    // Whether discovery runs.
    bool discoveryRunning();
    // Replaces the trust policy; only before start, since callbacks read it
    // without a lock.
    void setPolicy(const NetworkPolicy& policy) { m_policy = policy; }
    // The trust policy in force.
    const NetworkPolicy& policy() const { return m_policy; }
    // Whether the policy lets an IPv4 address reach this interface.
    bool admits(const UlmarCommsSystem::SocketAddress& address) const;
    // The account each link's own accounts charge as well (null: none);
    // only before start.
    void setMemoryAccount(std::shared_ptr<ByteAccount> parent) { m_pMemory = std::move(parent); }
    // Replaces the hello timeout (tests shorten it); only before start.
    void setHelloTimeout(std::chrono::milliseconds timeout) { m_helloTimeout = timeout; }
    // Gives a new connection's accounts the memory account as parent.
    void chargeMemory(NetworkRouterConnection* connection);
    // Closes the accepted links that have not named their host in time.
    void closeSilentLinks(std::chrono::steady_clock::time_point now);

    // Timer entry: one announcement.
    static void onDoBroadcast(void* data);
    // Timer entry: closeSilentLinks.
    static void onHelloSweep(void* data);
    // Datagram sent: nothing to do.
    static void onSentTo(UlmarCommsSystem::Socket* socket, const UlmarCommsSystem::SocketAddress& peer,
                         unsigned char* buffer, unsigned count, unsigned size, void* data, unsigned char error);
    // Datagram received: handle it and receive the next one.
    static void onRecvedFrom(UlmarCommsSystem::Socket* socket, const UlmarCommsSystem::SocketAddress& source,
                             unsigned char* buffer, unsigned count, unsigned size, void* data, unsigned char error);

private:
    // Takes one connection out of the list; false when it is not listed.
    bool takeConnection(NetworkRouterConnection* connection);
    // Ends a link by shutting its socket down (inside a reaper section).
    static void shutDown(NetworkRouterConnection* connection);
    // Accepted links from the address of source here (list lock held).
    unsigned linksFrom(const UlmarCommsSystem::SocketAddress& source) const;
    // Takes every connection out of the list (under its lock).
    std::vector<NetworkRouterConnection*> takeConnections();
    // Why an announcement must be ignored, or RefusalCauses when it may be taken.
    Refusal refusalOf(const UlmarCommsSystem::SocketAddress& source, const NetworkDiscoveryInfo& info) const;
    // Logs an ignored announcement with its cause's text.
    void logRefusal(Refusal cause, const UlmarCommsSystem::SocketAddress& source, const NetworkDiscoveryInfo& info);

    INetworkRouter* m_pNetworkRouter;
    UlmarCommsSystem::SocketAddress m_broadcast;
    UlmarCommsSystem::SocketAddress m_network;
    UlmarCommsSystem::Socket* m_pDiscovery;
    unsigned char m_receiveBuffer[DiscoveryBufferSize];
    unsigned char m_infoBuffer[DiscoveryBufferSize];
    uint32_t m_infoLength;
    std::vector<NetworkRouterConnection*> m_connections;
    // The listening address, kept here for the texts and the own-announcement test.
    UlmarCommsSystem::SocketAddress m_local;
    // Guards m_connections.
    UlmarCommsSystem::Mutex m_connectionsLock;
    // Guards m_pDiscovery against a concurrent stop.
    UlmarCommsSystem::Mutex m_discoveryLock;
    // Set by discoveryStop before the socket goes: the last receive is not re-armed.
    std::atomic<bool> m_discoveryStopping;
    // Whom links and announcements are taken from.
    NetworkPolicy m_policy;
    // The broadcast address of the interface's subnet (host order), 0 when
    // the subnet has none.
    uint32_t m_subnetBroadcast;
    // See setHelloTimeout.
    std::chrono::milliseconds m_helloTimeout;
    // See setMemoryAccount.
    std::shared_ptr<ByteAccount> m_pMemory;
};

} // namespace UlmarComms
