// The local-link listener and the per-link router proxies of the service.
//
// Claim before use: a proxy leaves the connections list (under its lock)
// before anything else is done to it, so of the link's own drop and
// closeAllLinks exactly one releases it. A released proxy stays valid for a
// callback of its socket still running: the reaper deletes it only after.
#include "link/localsocketserverinterface.h"

#include "core/core.h"
#include "core/limits.h"
#include "platform/socket.h"
#include "platform/socketreaper.h"

#include <algorithm>
#include <cstdio>
#include <sys/resource.h>
#include <unistd.h>

namespace UlmarComms {

using UlmarCommsSystem::MutexLocker;
using UlmarCommsSystem::Socket;
using UlmarCommsSystem::SocketAddress;

namespace {

const char* printable(const char* text)
{
    return text != nullptr ? text : "(null)";
}

unsigned setting(const char* key)
{
    const int value = Core::instance()->getNumber(key);
    return value > 0 ? static_cast<unsigned>(value) : 0u;
}

// A bound from its setting when given and positive, else fallback.
unsigned boundOrDefault(const char* key, unsigned fallback)
{
    const int value = Core::instance()->numberOrDefault(key);
    return value > 0 ? static_cast<unsigned>(value) : fallback;
}

// Links that fit the descriptor limit: two descriptors each, 64 kept back.
unsigned linksForDescriptorLimit()
{
    const rlim_t reserved = 64;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return 4096;
    if (limit.rlim_cur <= reserved + 2)
        return 1;
    const rlim_t links = (limit.rlim_cur - reserved) / 2;
    return links > 1000000 ? 1000000u : static_cast<unsigned>(links);
}

} // namespace

// ======================================================= router proxy

SocketMessageRouterProxy::SocketMessageRouterProxy() : m_pSystemRouter(nullptr)
{
    Core::message("SocketMessageRouterProxy::SocketMessageRouterProxy() this=%p\n", static_cast<void*>(this));
    const unsigned outbound = setting("socketmessagerouterproxy.outbound.size");
    const unsigned inbound = setting("socketmessagerouterproxy.inbound.size");
    createBuffers(inbound, outbound);
}

SocketMessageRouterProxy::~SocketMessageRouterProxy()
{
    Core::message("SocketMessageRouterProxy::~SocketMessageRouterProxy() this=%p\n", static_cast<void*>(this));
    // Released proxies have no socket left; one deleted directly never had
    // a callback run.
    SocketMessageRouterProxy::retireLink();
}

void SocketMessageRouterProxy::retireLink()
{
    // Closed at once; the reaper deletes it after its callbacks still running.
    Socket::release(takeSocket());
}

std::string SocketMessageRouterProxy::linkName() const
{
    char text[96];
    std::snprintf(text, sizeof(text), "uid %u pid %d (link %p)", static_cast<unsigned>(m_peer.uid),
                  static_cast<int>(m_peer.pid), static_cast<const void*>(this));
    return text;
}

bool SocketMessageRouterProxy::setSystemRouter(ISystemRouter* systemRouter)
{
    m_pSystemRouter = systemRouter;
    return systemRouter != nullptr;
}

void SocketMessageRouterProxy::setSocket(Socket* socket)
{
    DataFrameHandler::setSocket(socket);
    if (socket != nullptr)
        socket->setUserData(this);
}

bool SocketMessageRouterProxy::post(MessageRef message)
{
    // Posted while a received block is dispatched on this thread, the frame
    // is written when that block ends (framing/writebatch.h).
    if (!addToOutbound(message.get())) {
        // A slow consumer's end was logged once, when it was ended.
        if (isSlowConsumer())
            return false;
        Core::log(Core::LogError,
                  "SocketMessageRouterProxy::post( %p ) this=%p Failed to add the message to the outbound queue.\n",
                  static_cast<void*>(message.get()), static_cast<void*>(this));
        return false;
    }
    Core::message("SocketMessageRouterProxy::post() Done.\n");
    return true;
}

void SocketMessageRouterProxy::commandHandler(unsigned char code, const char* text)
{
    if (!addToOutbound(code, text) && !isSlowConsumer())
        Core::log(Core::LogError,
                  "SocketMessageRouterProxy::commandHandler( %d, '%s' ) this=%p Failed to add to outbound.\n", code,
                  printable(text), static_cast<void*>(this));
}

void SocketMessageRouterProxy::doHandleMessage(MessageItem* item)
{
    MessageRef message(item);
    ISystemRouter* router = m_pSystemRouter.load();
    if (router == nullptr) {
        Core::log(Core::LogError,
                  "SocketMessageRouterProxy::doHandleMessage() Unable to pass message on as no System router set on "
                  "object.\n");
        return;
    }
    if (!router->postFromLink(this, std::move(message)))
        Core::log(Core::LogError, "SocketMessageRouterProxy::doHandleMessage() post to system router failed.\n");
}

void SocketMessageRouterProxy::doHandleCommand(unsigned char code, const std::string& text)
{
    ISystemRouter* router = m_pSystemRouter.load();
    if (router == nullptr) {
        Core::log(Core::LogError,
                  "SocketMessageRouterProxy::doHandleCommand( %d, '%s' ) this=%p  Unable to route command as no System "
                  "router asigned to object.\n",
                  code, text.c_str(), static_cast<void*>(this));
        return;
    }
    // Naming this proxy lets the system router file the process's pumps
    // under this link.
    router->handleCommand(this, code, text.c_str());
}

void SocketMessageRouterProxy::onDisconnect(Socket* socket)
{
    Core::message("SocketMessageRouterProxy::onDisconnect( %p )\n", static_cast<void*>(socket));
}

void SocketMessageRouterProxy::onError(Socket* socket, unsigned char error)
{
    Core::message("SocketMessageRouterProxy::onError( %p, %d )\n", static_cast<void*>(socket), error);
    // The socket's own callback: releasing it here is allowed.
    Socket::release(takeSocketIf(socket));
}

// ============================================================ listener

LocalSocketServerInterface::LocalSocketServerInterface(ISystemRouter* systemRouter, const SocketAddress& listenAddress)
    : IRealSystemRouterLinkServer(systemRouter),
      DataFrameServer(listenAddress),
      m_pLinkedSystemRouter(systemRouter),
      m_policy(UlmarCommsService::UserPolicy::fromSettings(geteuid())),
      m_maxLinksPerUser(boundOrDefault(Limits::LinksPerUserKey, Limits::LinksPerUser)),
      m_maxLinks(0)
{
    Core::message("LocalSocketServerInterface::LocalSocketServerInterface( %p, '%s' ) this=%p Constructor\n",
                  static_cast<void*>(systemRouter), listenAddress.asString().c_str(), static_cast<void*>(this));
}

LocalSocketServerInterface::~LocalSocketServerInterface()
{
    Core::message("LocalSocketServerInterface::~LocalSocketServerInterface() this=%p\n", static_cast<void*>(this));
    // The listener goes before the list: its callbacks use the list, and
    // finish() waits for those still running.
    DataFrameServer::finish();
    MutexLocker locker(m_connectionsLock);
    m_connections.clear();
    m_linksPerUser.clear();
}

bool LocalSocketServerInterface::start()
{
    Core::message("LocalSocketServerInterface::start() this=%p\n", static_cast<void*>(this));
    if (!DataFrameServer::start()) {
        Core::log(Core::LogError, "LocalSocketServerInterface::start() Failed the call to DataFrameServer::start().\n");
        return false;
    }
    {
        MutexLocker locker(m_connectionsLock);
        m_maxLinks = boundOrDefault(Limits::LinksTotalKey, linksForDescriptorLimit());
    }
    // The socket layer's own bound stays above ours, so that our refusal,
    // with its reason, comes first.
    if (Socket* listener = listeningSocket())
        listener->setMaxAcceptedSockets(m_maxLinks + 64);
    Core::message("LocalSocketServerInterface::start() Done.\n");
    return true;
}

void LocalSocketServerInterface::finish()
{
    Core::message("LocalSocketServerInterface::Finished() this=%p\n", static_cast<void*>(this));
    DataFrameServer::finish();
}

void LocalSocketServerInterface::onClientConnect(Socket* server, const SocketAddress&, Socket* client)
{
    Core::message("LocalSocketServerInterface::onClientConnect( %p, , %p ) this=%p New connection.\n",
                  static_cast<void*>(server), static_cast<void*>(client), static_cast<void*>(this));
    if (server == nullptr || server != listeningSocket()) {
        Core::log(Core::LogWarning,
                  "LocalSocketServerInterface::onClientConnect( %p, , %p ) this=%p Server socket is the not this "
                  "objects one.\n",
                  static_cast<void*>(server), static_cast<void*>(client), static_cast<void*>(this));
        // Nobody else will ever own it; left alone it would leak its handle.
        Socket::release(client);
        return;
    }
    UlmarCommsSystem::PeerCredentials peer;
    if (!admits(client, peer) || !takePlace(peer)) {
        Socket::release(client); // closed at once: the peer sees its refusal
        return;
    }
    try {
        SocketMessageRouterProxy* proxy = new SocketMessageRouterProxy();
        proxy->setPeer(peer);
        std::shared_ptr<ByteAccount> user = m_memory.accountFor(static_cast<unsigned>(peer.uid));
        proxy->setMemoryAccounts(m_memory.linkLimit(), user, true);
        proxy->setHeldMessagesAccount(std::move(user));
        proxy->setSocket(client);
        proxy->setSystemRouter(m_pLinkedSystemRouter);
        // Counted, listed and registered under the lock, so that closeAllLinks
        // never sees a proxy that is only half set up and two links accepted
        // at once never both take the last place.
        MutexLocker locker(m_connectionsLock);
        m_connections.push_back(proxy);
        m_pLinkedSystemRouter->add(proxy);
        if (!proxy->recvData())
            Core::log(Core::LogError,
                      "LSSInterface::onClientConnect() Failed to do recv on new socket connection new message "
                      "router=%p.\n",
                      static_cast<void*>(proxy));
        Core::message("LSSInterface::onClientConnect() Added a new connection.\n");
    } catch (...) {
        // Only the proxy's creation throws; the place it took is given back.
        {
            MutexLocker locker(m_connectionsLock);
            givePlaceBack(static_cast<unsigned>(peer.uid));
        }
        Core::log(Core::LogError,
                  "LocalSocketServerInterface::onClientConnect( %p, , %p ) this=%p Unhandled exception!\n",
                  static_cast<void*>(server), static_cast<void*>(client), static_cast<void*>(this));
    }
}

bool LocalSocketServerInterface::admits(Socket* client, UlmarCommsSystem::PeerCredentials& peer)
{
    const bool known = client != nullptr && UlmarCommsSystem::readPeerCredentials(client->getHandle(), peer);
    if (known && m_policy.allows(peer.uid, peer.gid))
        return true;
    if (!known)
        Core::log(Core::LogWarning,
                  "LocalSocketServerInterface: refused a local link whose peer's user cannot be told.\n");
    else
        Core::log(Core::LogWarning,
                  "LocalSocketServerInterface: refused the local link of uid %u pid %d: that user is not allowed on "
                  "this bus.\n",
                  static_cast<unsigned>(peer.uid), static_cast<int>(peer.pid));
    return false;
}

bool LocalSocketServerInterface::takePlace(const UlmarCommsSystem::PeerCredentials& peer)
{
    const unsigned uid = static_cast<unsigned>(peer.uid);
    MutexLocker locker(m_connectionsLock);
    auto held = m_linksPerUser.find(uid);
    const unsigned ofUser = held == m_linksPerUser.end() ? 0u : held->second;
    if (ofUser >= m_maxLinksPerUser) {
        Core::log(Core::LogWarning,
                  "LocalSocketServerInterface: refused a local link of uid %u pid %d: that user holds %u links, its "
                  "limit.\n",
                  uid, static_cast<int>(peer.pid), ofUser);
        return false;
    }
    if (m_maxLinks != 0 && m_linkCount >= m_maxLinks) {
        Core::log(Core::LogWarning,
                  "LocalSocketServerInterface: refused a local link of uid %u pid %d: the service holds %u links, its "
                  "limit.\n",
                  uid, static_cast<int>(peer.pid), m_linkCount);
        return false;
    }
    ++m_linksPerUser[uid];
    ++m_linkCount;
    return true;
}

void LocalSocketServerInterface::givePlaceBack(unsigned uid)
{
    auto held = m_linksPerUser.find(uid);
    if (held != m_linksPerUser.end() && --held->second == 0)
        m_linksPerUser.erase(held);
    if (m_linkCount > 0)
        --m_linkCount;
}

void LocalSocketServerInterface::onClientDisconnect(Socket* server, Socket* client)
{
    Core::message("LocalSocketServerInterface::onClientDisconnect( %p, %p ) this=%p\n", static_cast<void*>(server),
                  static_cast<void*>(client), static_cast<void*>(this));
    try {
        void* user = client != nullptr ? client->getUserData() : nullptr;
        if (user == nullptr) {
            Core::log(Core::LogWarning,
                      "LocalSocketServerInterface::onClientDisconnect( %p, %p ) this=%p no message router object set "
                      "on socket object.\n",
                      static_cast<void*>(server), static_cast<void*>(client), static_cast<void*>(this));
            return;
        }
        SocketMessageRouterProxy* proxy = static_cast<SocketMessageRouterProxy*>(user);
        if (!isValid(proxy)) {
            Core::log(Core::LogWarning,
                      "LocalSocketServerInterface::onClientDisconnect( %p, %p ) this=%p message router object does not "
                      "belong to this.\n",
                      static_cast<void*>(server), static_cast<void*>(client), static_cast<void*>(this));
            return;
        }
        remove(proxy);
    } catch (...) {
        Core::log(Core::LogError,
                  "LocalSocketServerInterface::onClientDisconnect( %p, %p ) this=%p Unhandled exception!\n",
                  static_cast<void*>(server), static_cast<void*>(client), static_cast<void*>(this));
    }
}

bool LocalSocketServerInterface::isValid(SocketMessageRouterProxy* proxy)
{
    {
        MutexLocker locker(m_connectionsLock);
        if (std::find(m_connections.begin(), m_connections.end(), proxy) != m_connections.end())
            return true;
    }
    Core::log(Core::LogError, "LocalSocketServerInterface::IsValid( %p ) this=%p Unable to find a match.\n",
              static_cast<void*>(proxy), static_cast<void*>(this));
    return false;
}

void LocalSocketServerInterface::remove(SocketMessageRouterProxy* proxy)
{
    Core::message("LocalSocketServerInterface::remove( %p ) this=%p\n", static_cast<void*>(proxy),
                  static_cast<void*>(this));
    bool listed = false;
    {
        MutexLocker locker(m_connectionsLock);
        auto found = std::find(m_connections.begin(), m_connections.end(), proxy);
        if (found != m_connections.end()) {
            m_connections.erase(found); // the others keep their order
            unsigned uid = 0;
            proxy->linkUser(uid);
            givePlaceBack(uid);
            listed = true;
        }
    }
    if (proxy == nullptr)
        return;
    // A frame still arriving on the link is dropped from here on.
    proxy->setSystemRouter(nullptr);
    m_pLinkedSystemRouter->remove(proxy);
    if (!listed) {
        Core::log(Core::LogWarning,
                  "LSSInterface::Remove() Unable to find and remove a SocketMessageRouterProxy object.\n");
        return;
    }
    Core::message("LSSInterface::Remove( %p ) this=%p Removed a connection.\n", static_cast<void*>(proxy),
                  static_cast<void*>(this));
    DataFrameHandler::release(proxy); // closes and deletes its socket now
}

void LocalSocketServerInterface::closeAllLinks()
{
    for (;;) {
        std::vector<SocketMessageRouterProxy*> claimed;
        {
            MutexLocker locker(m_connectionsLock);
            claimed.swap(m_connections);
            m_linksPerUser.clear();
            m_linkCount = 0;
        }
        if (claimed.empty())
            break;
        Core::message("LocalSocketServerInterface::closeAllLinks() this=%p Closing %u links.\n",
                      static_cast<void*>(this), static_cast<unsigned>(claimed.size()));
        for (SocketMessageRouterProxy* proxy : claimed) {
            proxy->setSystemRouter(nullptr);
            m_pLinkedSystemRouter->remove(proxy);
            DataFrameHandler::release(proxy);
        }
    }
    // A callback of a link already running may still reach the system
    // router, which the owner deletes next.
    UlmarCommsSystem::SocketReaper::synchronize();
}

std::vector<SocketMessageRouterProxy*> LocalSocketServerInterface::links()
{
    MutexLocker locker(m_connectionsLock);
    return m_connections;
}

} // namespace UlmarComms
