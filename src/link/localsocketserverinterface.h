// The service side of the local link: the listener that accepts the links
// of the machine's processes, and one proxy per link that stands, at the
// system router, for the remote process's MessageRouter.
//
// The system router addresses a remote process exactly as a router in its
// own process: post and commandHandler on the proxy become frames on the
// link; frames from the link become post and handleCommand calls on the
// system router, naming the proxy as the router the commands came from.
//
// Threads. onClientConnect, onClientDisconnect and the proxies' onError,
// onDisconnect, doHandleMessage and doHandleCommand run on selector workers;
// post and commandHandler on a proxy run on the system router's callers'
// threads; start, finish and closeAllLinks on the service's control thread.
// The connections list has its own lock, because drops of different links
// are reported on different workers at once; it is held only for list
// operations.
//
// Ownership. The listener owns its proxies (listed in order of acceptance);
// a proxy owns its accepted socket. A proxy is released to the reaper
// (DataFrameHandler::release) when its link drops (through
// onClientDisconnect) or by closeAllLinks; the destructor of the listener
// leaves proxies still listed alone. The system router is not owned.
// A proxy's post takes its message whatever the result (a frame holds a
// copy); a message from the link is posted to the system router.
//
// Who may connect. The listener reads each accepted link's peer credentials
// and asks the service's UserPolicy; a refused peer's socket is closed at
// once, before any proxy exists, so nothing else on the bus notices; the
// log's throttle keeps a peer that retries in a loop from filling the log. A
// proxy remembers its peer's uid: the system router files the link's pumps
// under it.
//
// Memory. Each proxy charges what it holds to its user's account and the
// service's (LinkMemory); a proxy whose queue would pass a bound is a slow
// consumer and its link is ended (framing/dataframehandler.h), which the
// listener then sees as any other drop.
// How many may connect. Links are counted per user and in total (the bounds
// LinksPerUser and LinksTotal of core/limits.h, or their settings); a link
// past either is closed at once like a refused user's, with a log line
// naming the bound, so one user's idle links never shut out another user.
// The counts live beside the connections list, under its lock: a link is
// counted when it is admitted and uncounted when it leaves the list.
#pragma once

#include "framing/dataframehandler.h"
#include "framing/dataframeserver.h"
#include "link/linkmemory.h"
#include "messaging/messagerouter.h"
#include "platform/mutex.h"
#include "platform/peercredentials.h"
#include "service/systemrouter.h"
#include "service/userpolicy.h"

#include <atomic>
#include <unordered_map>
#include <vector>

namespace UlmarComms {

// One accepted local link, as the system router sees the process behind it.
class SocketMessageRouterProxy : public IMessageRouter, public DataFrameHandler {
public:
    // No system router yet; buffers from the "socketmessagerouterproxy.*" settings.
    SocketMessageRouterProxy();
    // Releases a socket still held (a proxy never linked); linked proxies
    // are released, not deleted.
    ~SocketMessageRouterProxy() override;

    // The router that incoming traffic goes to; null detaches (and gives false).
    bool setSystemRouter(ISystemRouter* systemRouter) override;
    // Queues a copy of the message for the process and releases it; false
    // when the copy could not be queued.
    bool post(MessageRef message) override;
    // Queues a link command for the process.
    void commandHandler(unsigned char code, const char* text) override;

    // A command from the process goes to the system router, from this proxy.
    void doHandleCommand(unsigned char code, const std::string& text) override;
    // A message from the process (ours now) is posted to the system router.
    void doHandleMessage(MessageItem* item) override;
    // Logs only.
    void onDisconnect(Socket* socket) override;
    // Releases the socket; the proxy stays until the listener drops it.
    void onError(Socket* socket, unsigned char error) override;
    // Uses socket and marks it with this proxy (its user data).
    void setSocket(Socket* socket) override;

    // The attached system router, or null.
    ISystemRouter* systemRouter() const { return m_pSystemRouter.load(); }
    // The peer's credentials, read when the link was accepted.
    void setPeer(const UlmarCommsSystem::PeerCredentials& peer) { m_peer = peer; }
    // The account of the link's user, which messages from the link are
    // charged to while the system router holds them; set before the proxy
    // is registered, then only read.
    void setHeldMessagesAccount(std::shared_ptr<ByteAccount> account) { m_pHeldMessages = std::move(account); }
    std::shared_ptr<ByteAccount> heldMessagesAccount() const override { return m_pHeldMessages; }
    // The uid of the process behind the link.
    bool linkUser(unsigned& uid) const override
    {
        uid = static_cast<unsigned>(m_peer.uid);
        return true;
    }

protected:
    // Releases the socket (release() calls it).
    void retireLink() override;
    // The peer's uid and pid, for log lines.
    std::string linkName() const override;

private:
    // Where incoming traffic goes (not owned); null once detached.
    std::atomic<ISystemRouter*> m_pSystemRouter;
    // Set before the proxy is registered, then only read.
    UlmarCommsSystem::PeerCredentials m_peer;
    std::shared_ptr<ByteAccount> m_pHeldMessages;
};

// The listener of the local link, attached to the real system router.
class LocalSocketServerInterface : public IRealSystemRouterLinkServer, public DataFrameServer {
public:
    // A listener for systemRouter on listenAddress; start() listens.
    LocalSocketServerInterface(ISystemRouter* systemRouter, const SocketAddress& listenAddress);
    // Stops listening; proxies still listed are left alone (closeAllLinks first).
    ~LocalSocketServerInterface() override;

    // Binds and listens; false on failure.
    bool start() override;
    // Stops listening; accepted links stay until closeAllLinks.
    void finish() override;
    // Wraps an accepted link in a proxy registered with the system router.
    void onClientConnect(Socket* server, const SocketAddress& clientAddress, Socket* client) override;
    // Removes the proxy of a link that dropped.
    void onClientDisconnect(Socket* server, Socket* client) override;

    // The service's memory account: links between hosts charge it too.
    std::shared_ptr<ByteAccount> serviceMemory() const { return m_memory.serviceAccount(); }
    // Whether proxy is one of this listener's links (logged when not).
    bool isValid(SocketMessageRouterProxy* proxy);
    // Detaches and unregisters proxy, and releases it if it is listed here.
    void remove(SocketMessageRouterProxy* proxy);
    // Closes every accepted link: each proxy is unregistered from the system
    // router and released, and the callbacks still running end before it
    // returns. Safe while the selector runs, never from a callback; call it
    // after the system router has finished (so no new link is accepted).
    void closeAllLinks();

    // The links, in order of acceptance.
    std::vector<SocketMessageRouterProxy*> links();

private:
    // Whether the peer of an accepted socket may use the link (logged when not).
    bool admits(Socket* client, UlmarCommsSystem::PeerCredentials& peer);
    // Counts one more link of peer when it fits the bounds (logged when not).
    bool takePlace(const UlmarCommsSystem::PeerCredentials& peer);
    // Counts a link of uid out (connections lock held).
    void givePlaceBack(unsigned uid);

    // The router every new proxy is attached to (not owned).
    ISystemRouter* m_pLinkedSystemRouter;
    // Guards the connections; held only for list operations.
    UlmarCommsSystem::Mutex m_connectionsLock;
    // One owned proxy per accepted link, in order of acceptance.
    std::vector<SocketMessageRouterProxy*> m_connections;
    // Who may connect; read from the settings when the listener is made.
    UlmarCommsService::UserPolicy m_policy;
    // The memory accounts of the links' users and of the service.
    LinkMemory m_memory;
    // Counted links per peer uid, and of all users (under the connections
    // lock): a link is counted from its admission until it leaves the list.
    std::unordered_map<unsigned, unsigned> m_linksPerUser;
    unsigned m_linkCount = 0;
    // The bounds: per user from the settings, in total fixed by start().
    unsigned m_maxLinksPerUser;
    unsigned m_maxLinks;
};

} // namespace UlmarComms
