// Discovery and the stream listener on one local interface.
//
// The announcement datagram: magic 0xF12A (16 bits), total length (32), type
// (8), value (32), host name (32-bit length and bytes), the stream address in
// its 8-byte written form, trailer 0xAA87 (16); every number big-endian. It
// is built once per start. A received datagram is read by parseInfo alone;
// only the embedded length and fields that fit decide whether it is taken, a
// wrong trailer is tolerated with an error logged.
//
// Releasing connections. A connection that errs asks remove() to take it out
// of the list on its own socket's worker; remove() releases it at once (out
// of the routing table, socket closed and released) and the selector's
// reaper deletes it once that callback has returned. stop() takes the
// remaining ones out and releases them itself. Each connection is in the
// list at most once and whoever takes it out releases it, so it is deleted
// exactly once. stop() then waits until the callbacks running meanwhile have
// ended, since a remove() among them, or a discovery datagram being read,
// still reaches this interface.
#include "network/networkinterface.h"

#include "core/core.h"
#include "framing/addressform.h"
#include "framing/dataobject.h"
#include "network/networkconnection.h"
#include "network/networkrouter.h"
#include "platform/socket.h"
#include "platform/socketreaper.h"

#include <algorithm>
#include <cstring>
#include <new>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using UlmarCommsSystem::MutexLocker;
using UlmarCommsSystem::Socket;
using UlmarCommsSystem::SocketAddress;
using UlmarCommsSystem::SocketTCPIP;
using UlmarCommsSystem::SocketUDP;

namespace UlmarComms {

namespace {

// SYN retransmissions before a connect to a host that does not answer
// fails: about seven seconds, during which that host's frames wait queued.
constexpr int ConnectSynRetries = 2;

// How long a link may leave sent bytes unacknowledged, or stay silent to
// keep-alive probes, before it is taken for dead. Without it a link that
// went through a partition waits for TCP's retransmission back-off (tens of
// seconds by then) after the network heals; with it the link ends during the
// partition and the next frame for that host opens a fresh one at once.
constexpr unsigned SilentLinkMilliseconds = 5000;
// An idle link is probed after this many seconds, then every second.
constexpr int KeepAliveIdleSeconds = 5;
constexpr int KeepAliveIntervalSeconds = 1;
constexpr int KeepAliveProbes = 3;

void limitConnectTime(Socket* socket)
{
    int retries = ConnectSynRetries;
    setsockopt(socket->getHandle(), IPPROTO_TCP, TCP_SYNCNT, &retries, sizeof(retries));
}

// Best effort: a link whose options could not be set still works, it only
// notices a dead peer later.
void watchForSilence(Socket* socket)
{
    const int handle = socket->getHandle();
    const unsigned timeout = SilentLinkMilliseconds;
    const int on = 1, idle = KeepAliveIdleSeconds, interval = KeepAliveIntervalSeconds, probes = KeepAliveProbes;
    setsockopt(handle, IPPROTO_TCP, TCP_USER_TIMEOUT, &timeout, sizeof(timeout));
    setsockopt(handle, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    setsockopt(handle, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof(idle));
    setsockopt(handle, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof(interval));
    setsockopt(handle, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof(probes));
}

// The frame handler already gathers every frame that is ready into one
// write, so holding a short write back for an acknowledgement (Nagle) only
// adds a round trip of delay to a request that is alone on the link.
void sendAtOnce(Socket* socket)
{
    const int on = 1;
    setsockopt(socket->getHandle(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

} // namespace

NetworkRouterInterface::NetworkRouterInterface(INetworkRouter* router, const SocketAddress& local,
                                               const SocketAddress& broadcast, const SocketAddress& network)
    : DataFrameServer(local),
      m_pNetworkRouter(router),
      m_broadcast(broadcast),
      m_network(network),
      m_pDiscovery(nullptr),
      m_infoLength(0),
      m_local(local),
      m_discoveryStopping(false),
      m_subnetBroadcast(0),
      m_helloTimeout(HelloTimeout)
{
    std::memset(m_receiveBuffer, 0, sizeof(m_receiveBuffer));
    std::memset(m_infoBuffer, 0, sizeof(m_infoBuffer));
    Ip4Network own;
    if (ip4NetworkFromBroadcast(m_network.getIP4HostOrder(), m_broadcast.getIP4HostOrder(), own)) {
        m_policy.allow(own);
        // A /31 or /32 has no broadcast address: both of its addresses are hosts.
        if (own.prefix <= 30)
            m_subnetBroadcast = m_broadcast.getIP4HostOrder();
    }
}

bool NetworkRouterInterface::admits(const SocketAddress& address) const
{
    return address.isIP4Address() && m_policy.allows(address.getIP4HostOrder());
}

NetworkRouterInterface::~NetworkRouterInterface()
{
    stop();
}

bool NetworkRouterInterface::start()
{
    const std::string local = m_local.asString();
    if (Core::instance()->getNumber("ulmar.networkrouter.discovery") == 0) {
        Core::message("Not Starting Discovery on interface '%s'\n", local.c_str());
        return true;
    }
    if (!discoveryStart()) {
        Core::log(Core::LogError, "NetworkRouterInterface::start() Failed to start Discovery on '%s'.\n",
                  local.c_str());
        return false;
    }
    return true;
}

void NetworkRouterInterface::stop()
{
    discoveryStop();
}

bool NetworkRouterInterface::discoveryRunning()
{
    MutexLocker locker(m_discoveryLock);
    return m_pDiscovery != nullptr;
}

bool NetworkRouterInterface::discoveryStart()
{
    if (discoveryRunning()) {
        Core::log(Core::LogError, "NetworkRouterInterface::discoveryStart() this=%p m_pDiscovery == NULL\n",
                  static_cast<void*>(this));
        return true;
    }
    if (m_pNetworkRouter == nullptr) {
        Core::log(Core::LogError, "NetworkRouterInterface::discoveryStart() this=%p m_pNetworkRouter == NULL\n",
                  static_cast<void*>(this));
        return false;
    }
    buildInfoBuffer();
    if (!m_local.isIP4Address()) {
        Core::log(Core::LogError, "NetworkRouterInterface::discoveryStart() Unsupported address type.\n");
        return false;
    }
    Socket* socket = new (std::nothrow) SocketUDP();
    if (socket == nullptr)
        return false;
    unsigned char error = socket->create();
    if (error != Socket::NoSocketError) {
        Core::log(Core::LogError, "NetworkRouterInterface::discoveryStart() create failed with error %d\n", error);
        Socket::release(socket);
        return false;
    }
    socket->setBroadcastMode(true);
    error = socket->bind(m_broadcast);
    if (error != Socket::NoSocketError) {
        Core::log(Core::LogError, "NetworkRouterInterface::discoveryStart() create failed with error %d\n", error);
        Socket::release(socket);
        return false;
    }
    m_discoveryStopping = false;
    {
        MutexLocker locker(m_discoveryLock);
        m_pDiscovery = socket;
    }
    socket->setDatagramCallbacks(onSentTo, onRecvedFrom, this);
    error = socket->recvFrom(m_receiveBuffer, DiscoveryBufferSize);
    if (error != Socket::NoSocketError) {
        Core::log(Core::LogError, "NetworkRouterInterface::discoveryStart() recvFrom() failed with error %d\n", error);
        return false;
    }
    Core::message("NetworkRouterInterface::discoveryStart() Started on interface '%s'\n", m_local.asString().c_str());
    const int period = Core::instance()->getNumber("ulmar.networkrouter.discovery.timeout");
    Socket::addToTimer(onDoBroadcast, this, static_cast<unsigned>(std::max(period, 0)), false);
    if (!messagingStart()) {
        Core::log(Core::LogError, "NetworkRouterInterface::discoveryStart() Failed MessageStart()\n");
        return false;
    }
    return true;
}

bool NetworkRouterInterface::discoveryStop()
{
    m_discoveryStopping = true;
    if (discoveryRunning()) {
        // The timer goes first: once remove returns no broadcast runs, and the
        // discovery lock is not held meanwhile (a broadcast in progress holds
        // the timer lock and then takes the discovery lock).
        Socket::removeFromTimer(onDoBroadcast, this);
        Socket* socket = nullptr;
        {
            MutexLocker locker(m_discoveryLock);
            socket = m_pDiscovery;
            m_pDiscovery = nullptr;
        }
        // Closed at once; a receive callback still running on a worker keeps
        // the object, and messagingStop() waits for it to end.
        Socket::release(socket);
    }
    messagingStop();
    return true;
}

bool NetworkRouterInterface::messagingStart()
{
    if (!DataFrameServer::start()) {
        Core::log(Core::LogError,
                  "NetworkRouterInterface::messagingStart() Failed to start DataFrameServer::start()\n");
        return false;
    }
    // The timer looks once a second at most, so the sweep need not run more
    // often; a silent link is closed within a second or two of its time.
    Socket::addToTimer(onHelloSweep, this, 1000, false);
    return true;
}

void NetworkRouterInterface::messagingStop()
{
    Core::message("NetworkRouterInterface::messagingStop()\n");
    // Removed under the timer lock: no sweep runs once this returns.
    Socket::removeFromTimer(onHelloSweep, this);
    // The listener goes first and finish() waits for an accept in progress,
    // so no new connection joins after the list has been taken.
    finish();
    for (NetworkRouterConnection* connection : takeConnections()) {
        if (m_pNetworkRouter != nullptr)
            m_pNetworkRouter->removeConnection(connection);
        DataFrameHandler::release(connection);
    }
    // A connection that remove() is releasing on a worker, or the discovery
    // socket's last receive, still reaches this interface and the router.
    UlmarCommsSystem::SocketReaper::synchronize();
}

bool NetworkRouterInterface::takeConnection(NetworkRouterConnection* connection)
{
    MutexLocker locker(m_connectionsLock);
    auto found = std::find(m_connections.begin(), m_connections.end(), connection);
    if (found == m_connections.end())
        return false;
    m_connections.erase(found);
    return true;
}

unsigned NetworkRouterInterface::linksFrom(const SocketAddress& source) const
{
    unsigned count = 0;
    for (const NetworkRouterConnection* connection : m_connections)
        if (!connection->isInitiator() && connection->getRemoteAddress().getIP4HostOrder() == source.getIP4HostOrder())
            ++count;
    return count;
}

void NetworkRouterInterface::closeSilentLinks(std::chrono::steady_clock::time_point now)
{
    // The section keeps every connection seen below alive, even one that
    // its own end releases on a worker meanwhile.
    UlmarCommsSystem::SocketReaper::Section section;
    std::vector<NetworkRouterConnection*> silent;
    {
        MutexLocker locker(m_connectionsLock);
        for (NetworkRouterConnection* connection : m_connections)
            if (!connection->isInitiator() && !connection->hasNamedItsHost() &&
                now - connection->createdAt() >= m_helloTimeout && connection->markSilent())
                silent.push_back(connection);
    }
    for (NetworkRouterConnection* connection : silent) {
        Core::log(Core::LogWarning,
                  "NetworkRouterInterface::closeSilentLinks() Closed link from '%s' on '%s': no host name within %d "
                  "ms\n",
                  connection->getRemoteAddress().asString().c_str(), m_local.asString().c_str(),
                  static_cast<int>(m_helloTimeout.count()));
        shutDown(connection);
    }
}

void NetworkRouterInterface::shutDown(NetworkRouterConnection* connection)
{
    // Shut down, not released: the socket layer reports the end on a worker
    // and the link goes as any dropped link goes (onError, remove()), so the
    // timer never takes a link's own locks.
    UlmarCommsSystem::SocketHold hold = connection->holdSocket();
    if (hold.record() == nullptr || hold.socket() == nullptr)
        return;
    MutexLocker locker(hold.record()->lock);
    const int handle = hold.socket()->getHandle();
    if (handle != Socket::BadSocketValue)
        ::shutdown(handle, SHUT_RDWR);
}

void NetworkRouterInterface::onHelloSweep(void* data)
{
    if (data != nullptr)
        static_cast<NetworkRouterInterface*>(data)->closeSilentLinks(std::chrono::steady_clock::now());
}

std::vector<NetworkRouterConnection*> NetworkRouterInterface::takeConnections()
{
    MutexLocker locker(m_connectionsLock);
    std::vector<NetworkRouterConnection*> taken;
    taken.swap(m_connections);
    return taken;
}

void NetworkRouterInterface::add(NetworkRouterConnection* connection)
{
    if (connection == nullptr)
        return;
    MutexLocker locker(m_connectionsLock);
    if (std::find(m_connections.begin(), m_connections.end(), connection) == m_connections.end())
        m_connections.push_back(connection);
}

void NetworkRouterInterface::remove(NetworkRouterConnection* connection)
{
    // Released without the list lock: retiring it takes the router lock,
    // which comes before it. The caller is usually its own callback; the
    // reaper deletes it afterwards.
    if (takeConnection(connection))
        DataFrameHandler::release(connection);
}

bool NetworkRouterInterface::hasConnection(NetworkRouterConnection* connection)
{
    MutexLocker locker(m_connectionsLock);
    return std::find(m_connections.begin(), m_connections.end(), connection) != m_connections.end();
}

size_t NetworkRouterInterface::connectionCount()
{
    MutexLocker locker(m_connectionsLock);
    return m_connections.size();
}

void NetworkRouterInterface::chargeMemory(NetworkRouterConnection* connection)
{
    // Frames past a bound are refused, as for a full queue; the link stays.
    if (m_pMemory)
        connection->setMemoryAccounts(DataFrameHandler::MaxQueuedBytes, m_pMemory, false);
}

NetworkRouterConnection* NetworkRouterInterface::connectTo(const SocketAddress& address)
{
    const std::string text = address.asString();
    Core::message("NetworkRouterInterface::connectTo( '%s' )\n", text.c_str());
    if (!address.isIP4Address()) {
        Core::log(Core::LogError, "NetworkRouterInterface::connectTo() Unsupported address type.\n");
        return nullptr;
    }
    Socket* socket = new (std::nothrow) SocketTCPIP();
    if (socket == nullptr)
        return nullptr;
    const unsigned char error = socket->create();
    if (error != Socket::NoSocketError) {
        Core::log(Core::LogError, "NetworkRouterInterface::connectTo() Failed to create socket object with error %d\n",
                  error);
        Socket::release(socket);
        return nullptr;
    }
    limitConnectTime(socket);
    watchForSilence(socket);
    sendAtOnce(socket);
    NetworkRouterConnection* connection = new (std::nothrow) NetworkRouterConnection(this, address);
    if (connection == nullptr) {
        Core::log(Core::LogError, "NetworkRouterInterface::connectTo() Failed to create Connection object.\n");
        Socket::release(socket);
        return nullptr;
    }
    chargeMemory(connection);
    connection->setSocket(socket);
    connection->setInitiator(true);
    // Frames queue until the connection stands; it then names this host first.
    connection->holdOutbound();
    // Listed before the connect starts: a failure is reported on a worker,
    // and only a listed connection is retired and deleted by remove().
    add(connection);
    if (!connection->connect()) {
        Core::log(Core::LogError, "NetworkRouterInterface::connectTo() Failed to start connection.\n");
        // No callback follows a connect that could not start.
        if (takeConnection(connection))
            DataFrameHandler::release(connection);
        return nullptr;
    }
    Core::message("NetworkRouterInterface::connectTo( '%s' ) Setup\n", text.c_str());
    return connection;
}

void NetworkRouterInterface::onClientConnect(Socket*, const SocketAddress& clientAddress, Socket* client)
{
    Core::message("NetworkRouterInterface::onClientConnect()\n");
    if (client == nullptr)
        return;
    if (!admits(clientAddress)) {
        // Closed before a byte is read: nothing the peer sends is looked at.
        Socket::release(client);
        Core::log(Core::LogWarning,
                  "NetworkRouterInterface::onClientConnect() Refused link from '%s' on '%s': not an allowed "
                  "network\n",
                  clientAddress.asString().c_str(), m_local.asString().c_str());
        return;
    }
    watchForSilence(client);
    sendAtOnce(client);
    NetworkRouterConnection* connection = new (std::nothrow) NetworkRouterConnection(this, clientAddress);
    if (connection == nullptr) {
        // The accepted socket is ours to dispose of.
        Socket::release(client);
        return;
    }
    chargeMemory(connection);
    connection->setSocket(client);
    bool capped = false;
    {
        // Counted and listed under one lock, so a burst cannot slip past the cap.
        MutexLocker locker(m_connectionsLock);
        capped = linksFrom(clientAddress) >= MaxLinksPerSource;
        if (!capped)
            m_connections.push_back(connection);
    }
    if (capped) {
        Core::log(Core::LogWarning,
                  "NetworkRouterInterface::onClientConnect() Refused link from '%s' on '%s': %u links from that "
                  "address already\n",
                  clientAddress.asString().c_str(), m_local.asString().c_str(), MaxLinksPerSource);
        // Closed before a byte is read; released without the list lock.
        DataFrameHandler::release(connection);
        return;
    }
    if (!connection->recvData())
        Core::log(Core::LogError,
                  "NetworkRouterInterface::onClientConnect() Failed to do recvData() on connection object.\n");
}

void NetworkRouterInterface::onClientDisconnect(Socket*, Socket*)
{
    Core::message("NetworkRouterInterface::onClientDisconnect() \n");
}

void NetworkRouterInterface::buildInfoBuffer()
{
    m_infoLength = 0;
    unsigned length = 0;
    if (!buildInfo(m_infoBuffer, DiscoveryBufferSize, Core::instance()->getHostName(), m_local, length)) {
        Core::log(Core::LogError, "NetworkRouterInterface::buildInfoBuffer() Failed to write header.\n");
        return;
    }
    m_infoLength = length;
}

bool NetworkRouterInterface::buildInfo(unsigned char* buffer, unsigned capacity, const std::string& hostName,
                                       const SocketAddress& local, unsigned& length)
{
    length = 0;
    if (buffer == nullptr)
        return false;
    DataObject stream(buffer, capacity, DataObject::ModeWrite);
    stream << DiscoveryMagic;
    if (!writeHeader(stream, DiscoveryTypeHostInfo, 0, hostName, local))
        return false;
    length = stream.size();
    return true;
}

bool NetworkRouterInterface::writeHeader(DataObject& stream, unsigned char type, uint32_t value,
                                         const std::string& hostName, const SocketAddress& address)
{
    stream << static_cast<unsigned int>(0) << type << static_cast<unsigned int>(value) << hostName;
    writeAddress(stream, address);
    stream << DiscoveryTrailer;
    if (!stream.isValid())
        return false;
    const unsigned total = stream.size();
    // The header always follows the 2-byte magic.
    stream.setOffset(2);
    stream << total;
    stream.setOffset(total);
    return stream.isValid();
}

bool NetworkRouterInterface::readHeader(DataObject& stream, unsigned length, NetworkDiscoveryInfo& info)
{
    stream >> info.totalLength >> info.type >> info.value;
    // The name's length is checked against the bytes left before anything is
    // taken: a hostile length must not push the stream past its end.
    uint32_t nameLength = 0;
    stream >> nameLength;
    if (!stream.isValid() || nameLength > length - stream.size())
        return false;
    info.hostName.assign(nameLength, '\0');
    stream.readRaw(info.hostName.data(), nameLength);
    readAddress(stream, info.address);
    stream >> info.trailer;
    if (!stream.isValid())
        return false;
    if (info.trailer != DiscoveryTrailer)
        Core::log(Core::LogError, "NetworkRouterInterface::readHeader() Header is bad.\n");
    if (info.totalLength != length) {
        Core::log(
            Core::LogError,
            "NetworkRouterInterface::readHeader() mismatch between size ( %d ) of data and embedded size ( %d ).\n",
            static_cast<int>(info.totalLength), static_cast<int>(length));
        return false;
    }
    return true;
}

NetworkRouterInterface::ParseResult NetworkRouterInterface::parseInfo(const unsigned char* bytes, unsigned length,
                                                                      NetworkDiscoveryInfo& info)
{
    info = NetworkDiscoveryInfo();
    if (bytes == nullptr)
        return ParseBadMagic;
    // Reading never writes through the buffer.
    DataObject stream(const_cast<unsigned char*>(bytes), length, DataObject::ModeRead);
    unsigned short magic = 0;
    stream >> magic;
    if (!stream.isValid() || magic != DiscoveryMagic)
        return ParseBadMagic;
    return readHeader(stream, length, info) ? ParseOk : ParseBadHeader;
}

void NetworkRouterInterface::handleIncomingInfo(const SocketAddress& source, const unsigned char* bytes,
                                                unsigned length)
{
    NetworkDiscoveryInfo info;
    switch (parseInfo(bytes, length, info)) {
    case ParseBadMagic:
        Core::log(Core::LogError, "NetworkRouterInterface::handleIncomingInfo() Header is bad.\n");
        return;
    case ParseBadHeader:
        Core::log(Core::LogError, "NetworkRouterInterface::handleIncomingInfo() Unable to get header.\n");
        return;
    case ParseOk: break;
    }
    // Without an IPv4 stream address the host could never be connected to.
    if (!info.address.isIP4Address()) {
        Core::log(Core::LogWarning, "NetworkRouterInterface::handleIncomingInfo() No IPv4 address announced.\n");
        return;
    }
    if (info.address.match(m_local, true))
        return;
    const Refusal cause = refusalOf(source, info);
    if (cause != RefusalCauses) {
        logRefusal(cause, source, info);
        return;
    }
    Core::message("Got Host information coming from '%s' with name '%s' and address of '%s'\n",
                  source.asString().c_str(), info.hostName.c_str(), info.address.asString().c_str());
    if (m_pNetworkRouter != nullptr)
        m_pNetworkRouter->infoAboutHost(info.hostName, info.address, this);
}

NetworkRouterInterface::Refusal NetworkRouterInterface::refusalOf(const SocketAddress& source,
                                                                  const NetworkDiscoveryInfo& info) const
{
    if (!admits(source))
        return RefusedSource;
    const uint32_t announced = info.address.getIP4HostOrder();
    if (announced == 0 || announced == 0xFFFFFFFFu || (m_subnetBroadcast != 0 && announced == m_subnetBroadcast) ||
        info.address.getPort() == 0)
        return RefusedImpossibleAddress;
    if (!admits(info.address))
        return RefusedAnnouncedNetwork;
    // Our own announcement came back earlier (same address); our name from
    // anywhere else is someone posing as this host.
    if (info.hostName == Core::instance()->getHostName())
        return RefusedOwnName;
    return RefusalCauses;
}

// One text per cause, so that the log's throttle (core/logthrottle.h)
// bounds each cause on its own.
void NetworkRouterInterface::logRefusal(Refusal cause, const SocketAddress& source, const NetworkDiscoveryInfo& info)
{
    const std::string address = info.address.asString();
    const std::string from = source.asString();
    switch (cause) {
    case RefusedSource:
        Core::log(Core::LogWarning,
                  "NetworkRouterInterface::handleIncomingInfo() Ignored announcement of '%s' at '%s' from '%s': sent "
                  "from a network not allowed\n",
                  info.hostName.c_str(), address.c_str(), from.c_str());
        break;
    case RefusedImpossibleAddress:
        Core::log(Core::LogWarning,
                  "NetworkRouterInterface::handleIncomingInfo() Ignored announcement of '%s' at '%s' from '%s': no "
                  "host can have that address\n",
                  info.hostName.c_str(), address.c_str(), from.c_str());
        break;
    case RefusedAnnouncedNetwork:
        Core::log(Core::LogWarning,
                  "NetworkRouterInterface::handleIncomingInfo() Ignored announcement of '%s' at '%s' from '%s': the "
                  "address is in a network not allowed\n",
                  info.hostName.c_str(), address.c_str(), from.c_str());
        break;
    case RefusedOwnName:
        Core::log(Core::LogWarning,
                  "NetworkRouterInterface::handleIncomingInfo() Ignored announcement of '%s' at '%s' from '%s': it "
                  "names this host\n",
                  info.hostName.c_str(), address.c_str(), from.c_str());
        break;
    default: break;
    }
}

void NetworkRouterInterface::broadcast()
{
    MutexLocker locker(m_discoveryLock);
    if (m_pDiscovery == nullptr)
        return;
    const unsigned char error = m_pDiscovery->sendTo(m_broadcast, m_infoBuffer, m_infoLength);
    if (error != Socket::NoSocketError)
        Core::log(Core::LogError,
                  "NetworkRouterInterface::broadcast() m_pDiscovery=%p failed to do SentTo() Error:%d\n",
                  static_cast<void*>(m_pDiscovery), error);
}

void NetworkRouterInterface::onDoBroadcast(void* data)
{
    if (data != nullptr)
        static_cast<NetworkRouterInterface*>(data)->broadcast();
}

void NetworkRouterInterface::onSentTo(Socket*, const SocketAddress&, unsigned char*, unsigned, unsigned, void*,
                                      unsigned char)
{
}

void NetworkRouterInterface::onRecvedFrom(Socket* socket, const SocketAddress& source, unsigned char* buffer,
                                          unsigned count, unsigned size, void* data, unsigned char error)
{
    NetworkRouterInterface* self = static_cast<NetworkRouterInterface*>(data);
    if (self == nullptr || socket == nullptr)
        return;
    try {
        if (error == Socket::NoSocketError)
            self->handleIncomingInfo(source, buffer, std::min(count, size));
    } catch (...) {
        // A bad datagram must never end discovery.
    }
    if (self->m_discoveryStopping)
        return;
    const unsigned char result = socket->recvFrom(self->m_receiveBuffer, DiscoveryBufferSize);
    if (result != Socket::NoSocketError)
        Core::log(Core::LogError,
                  "NetworkRouterInterface::onRecvedFrom( %p, , %p, %d, %d, %p, %d ) this=%p Failed on "
                  "pSocket->recvFrom: Error:%d.\n",
                  static_cast<void*>(socket), static_cast<void*>(buffer), count, size, data, error, data, result);
}

} // namespace UlmarComms
