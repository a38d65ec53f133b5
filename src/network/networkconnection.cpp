// A network link: the host-name exchange, inbound messages handed to the
// system router, and the end of the link.
//
// Retiring order matters. The connection first marks itself closing and
// leaves the routing table (under the router's lock, so a post that holds the
// lock finishes with it first, and no later host-name command can enter it
// again), then deletes its socket, which waits for that socket's callbacks on
// other workers. The object itself goes through the reaper, only when no
// callback of it runs any more: the frame handler's trampoline still touches
// it after onError.
#include "network/networkconnection.h"

#include "core/core.h"
#include "framing/dataframe.h"
#include "messaging/messagerouter.h"
#include "network/networkinterface.h"
#include "network/networkrouter.h"
#include "platform/socket.h"

using UlmarCommsSystem::MutexLocker;
using UlmarCommsSystem::Socket;
using UlmarCommsSystem::SocketAddress;

namespace UlmarComms {

NetworkRouterConnection::NetworkRouterConnection(NetworkRouterInterface* interface, const SocketAddress& remote)
    : m_initiator(false),
      m_pInterface(interface),
      m_remote(remote),
      m_closing(false),
      m_refused(false),
      m_named(false),
      m_silent(false),
      m_createdAt(std::chrono::steady_clock::now()),
      m_answeredHostName(false)
{
    createBuffers(BufferSize, BufferSize);
    limitInboundCommands(MaxCommandRecord);
}

// Released before it is deleted: retireLink() has run, and its interface
// may be gone by now.
NetworkRouterConnection::~NetworkRouterConnection() = default;

void NetworkRouterConnection::retireLink()
{
    m_closing = true;
    INetworkRouter* router = m_pInterface != nullptr ? m_pInterface->getNetworkRouter() : nullptr;
    if (router != nullptr)
        router->removeConnection(this);
    // Detached first so that no frame is written to it any more; closed at
    // once, and deleted by the reaper after its callbacks still running.
    Socket::release(takeSocket());
}

std::string NetworkRouterConnection::getRemoteHostName() const
{
    MutexLocker locker(m_nameLock);
    return m_remoteHostName;
}

bool NetworkRouterConnection::connect()
{
    Socket* own = socket();
    if (own == nullptr) {
        Core::log(Core::LogError, "NetworkRouterConnection::connect() m_pSocket == NULL\n");
        return false;
    }
    const unsigned char error = own->connectAsync(m_remote, DataFrameHandler::onConnectedFunction,
                                                  DataFrameHandler::onDisconnectFunction, this);
    if (error != Socket::NoSocketError) {
        Core::log(Core::LogError, "NetworkRouterConnection::connect() Failed to do the connect() on the socket.\n");
        return false;
    }
    Core::message("NetworkRouterConnection::connect() Connected to '%s'\n", m_remote.asString().c_str());
    return true;
}

void NetworkRouterConnection::onConnected(Socket* socket)
{
    Core::message("NetworkRouterConnection::onConnected( %p )\n", static_cast<void*>(socket));
    if (socket != this->socket()) {
        Core::log(Core::LogError, "NetworkRouterConnection::onConnected() Pointer to sockets dont match up. %p != %p\n",
                  static_cast<void*>(socket), static_cast<void*>(this->socket()));
        return;
    }
    // connectTo listed the connection before starting the connect; adding it
    // here again could bring back one that a stop has already taken out.
    if (!recvData()) {
        Core::log(
            Core::LogError,
            "NetworkRouterConnection::onConnected() Connected but failed to do recvData() on connection object\n");
        return;
    }
    // The host-name command is a command frame, so it leaves ahead of the
    // messages held while connecting.
    if (m_initiator)
        addToOutbound(CommandMessage::NetworkHostName, Core::instance()->getHostName().c_str());
    releaseOutbound();
    Core::message("NetworkRouterConnection::onConnected() Done\n");
}

void NetworkRouterConnection::onDisconnect(Socket* socket)
{
    Core::message("NetworkRouterConnection::onDisconnect( %p )\n", static_cast<void*>(socket));
    if (socket != this->socket()) {
        Core::log(Core::LogError, "NetworkRouterConnection::onConnected() Pointer to sockets dont match up. %p != %p\n",
                  static_cast<void*>(socket), static_cast<void*>(this->socket()));
        return;
    }
    INetworkRouter* router = m_pInterface->getNetworkRouter();
    if (router != nullptr)
        router->removeConnection(this);
    Core::message("NetworkRouterConnection::onDisconnect() Done\n");
}

void NetworkRouterConnection::onError(Socket* socket, unsigned char error)
{
    Core::message("NetworkRouterConnection::onDisconnect( %p )\n", static_cast<void*>(socket));
    if (socket != this->socket()) {
        Core::log(Core::LogError, "NetworkRouterConnection::onConnected() Pointer to sockets dont match up. %p != %p\n",
                  static_cast<void*>(socket), static_cast<void*>(this->socket()));
        return;
    }
    Core::log(Core::LogError, "NetworkRouterConnection::onError( %p, %d )\n", static_cast<void*>(socket), error);
    // The interface releases it now and the reaper deletes it once this
    // callback has returned (unless a stop has already taken it out).
    m_pInterface->remove(this);
}

void NetworkRouterConnection::doHandleCommand(unsigned char code, const std::string& text)
{
    // The command record keeps the text's terminating NUL: the name ends there.
    const std::string name(text.c_str());
    Core::message("NetworkRouterConnection::doHandleCommand( %d, '%s' )\n", code, name.c_str());
    if (code == CommandMessage::NetworkHostName || code == CommandMessage::NetworkHostNameReply)
        m_named = true;
    if (m_refused)
        return;
    switch (code) {
    case CommandMessage::NetworkHostName:
        // Entered first, so that a peer refused for the name it gave gets no
        // answer. Answered once per link: a peer repeating its name cannot
        // make the outbound queue grow.
        enterInRoutingTable(name);
        if (!m_answeredHostName && !m_refused) {
            m_answeredHostName = true;
            addToOutbound(CommandMessage::NetworkHostNameReply, Core::instance()->getHostName().c_str());
        }
        break;
    case CommandMessage::NetworkHostNameReply: enterInRoutingTable(name); break;
    default: break;
    }
}

void NetworkRouterConnection::enterInRoutingTable(const std::string& hostName)
{
    {
        MutexLocker locker(m_nameLock);
        m_remoteHostName = hostName;
    }
    INetworkRouter* router = m_pInterface->getNetworkRouter();
    if (router != nullptr)
        router->routingTableNewConnection(hostName, m_pInterface, this);
    if (m_refused)
        endLinkAfterThisFrame();
}

void NetworkRouterConnection::doHandleMessage(MessageItem* item)
{
    Core::message("NetworkRouterConnection::doHandleMessage( %p )\n", static_cast<void*>(item));
    MessageRef message(item);
    // A refused peer's messages are dropped with the link.
    if (m_refused)
        return;
    INetworkRouter* router = m_pInterface->getNetworkRouter();
    if (router == nullptr) {
        Core::log(Core::LogError, "NetworkRouterConnection::doHandleMessage() unable to get Network Router object.\n");
        return;
    }
    ISystemRouter* systemRouter = router->getSystemRouter();
    if (systemRouter == nullptr) {
        Core::log(Core::LogError, "NetworkRouterConnection::doHandleMessage() unable to get System Router object.\n");
        return;
    }
    systemRouter->post(std::move(message));
}

} // namespace UlmarComms
