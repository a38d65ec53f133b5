// One stream connection between the network routers of two hosts.
//
// Message frames that arrive are handed to this host's system router; the
// two ends first tell each other their host names (command 100 from the end
// that connected, 101 in answer), after which each end enters the connection
// in its routing table. The host that sends first connects; the other accepts.
//
// Ownership. The connection owns its socket (it closes and deletes it when it
// is retired or destroyed) and is owned by its interface's connections list
// once it has completed or been accepted. A connection that errs is retired
// at once by the interface's remove() and deleted exactly once, later, when
// its error callback has returned; a connection the interface has already
// taken out (while stopping) is deleted by the stop instead.
//
// Threads. Every callback runs on a selector worker thread, onConnected
// included: connect() only starts the connect, so the system router's thread
// never waits for a host. Frames queued meanwhile are held (within the frame
// handler's queue limit) and leave after the host-name command once the
// connection stands.
#pragma once

#include "framing/dataframehandler.h"
#include "platform/mutex.h"
#include "platform/socketaddress.h"

#include <atomic>
#include <string>

namespace UlmarComms {

class MessageItem;
class NetworkRouterInterface;

class NetworkRouterConnection : public DataFrameHandler {
public:
    // Bytes of the inbound and of the outbound transfer buffer.
    static constexpr unsigned BufferSize = 4096;

    // An accepting (not initiating) connection to remote; buffers of 4096.
    NetworkRouterConnection(NetworkRouterInterface* interface, const UlmarCommsSystem::SocketAddress& remote);
    // Retires, then waits until no callback of it runs on another thread.
    ~NetworkRouterConnection() override;
    NetworkRouterConnection(const NetworkRouterConnection&) = delete;
    NetworkRouterConnection& operator=(const NetworkRouterConnection&) = delete;

    // The connection erred: the interface deletes it.
    void onError(UlmarCommsSystem::Socket* socket, unsigned char error) override;
    // Starts receiving and, as initiator, names this host and lets held frames go.
    void onConnected(UlmarCommsSystem::Socket* socket) override;
    // The peer went away: the routing table forgets the connection.
    void onDisconnect(UlmarCommsSystem::Socket* socket) override;
    // Commands 100 and 101 of the host-name exchange; others are ignored.
    void doHandleCommand(unsigned char code, const std::string& text) override;
    // Hands an arrived message to this host's system router (takes it).
    void doHandleMessage(MessageItem* item) override;

    // Starts a non-blocking connect of the socket to the remote address.
    bool connect();
    // Leaves the routing table for good, then closes and deletes the socket;
    // the object stays until deleted. Safe inside its own callbacks.
    void retire();

    // Marks the connection as the one this host opened.
    void setInitiator(bool initiator) { m_initiator = initiator; }
    // Whether this host opened the connection.
    bool isInitiator() const { return m_initiator; }
    // The interface that owns the connection.
    NetworkRouterInterface* getInterface() const { return m_pInterface; }
    // The remote address (connected to, or as accepted).
    const UlmarCommsSystem::SocketAddress& getRemoteAddress() const { return m_remote; }
    // The host name the peer gave, empty until the exchange.
    std::string getRemoteHostName() const;
    // Set once destruction has begun: the routing table must not take it again.
    bool isClosing() const { return m_closing.load(); }
    // Keeps a retired connection from being deleted while its opener still
    // holds it (set by connectTo, cleared by the opener when done with it).
    void pin() { m_pinned = true; }
    // The opener is done with it.
    void unpin() { m_pinned = false; }
    // Whether its opener still holds it.
    bool isPinned() const { return m_pinned.load(); }

private:
    // Enters the connection in the routing table under the peer's name.
    void enterInRoutingTable(const std::string& hostName);

    bool m_initiator;
    NetworkRouterInterface* m_pInterface;
    UlmarCommsSystem::SocketAddress m_remote;
    std::atomic<bool> m_closing;
    std::atomic<bool> m_pinned;
    // Whether command 100 has been answered (receive path only).
    bool m_answeredHostName;
    // Written once by the receive path; read by queries.
    mutable UlmarCommsSystem::Mutex m_nameLock;
    std::string m_remoteHostName;
};

} // namespace UlmarComms
