// One stream connection between the network routers of two hosts.
//
// Message frames that arrive are handed to this host's system router; the
// two ends first tell each other their host names (command 100 from the end
// that connected, 101 in answer), after which each end enters the connection
// in its routing table. The host that sends first connects; the other accepts.
//
// Ownership. The connection owns its socket (it releases it, closed at once,
// when it is retired) and is owned by its interface's connections list once it has
// completed or been accepted. Whoever takes it out of that list (the
// interface's remove() when it errs, or a stop) releases it exactly once
// (DataFrameHandler::release): it is retired at once and the reaper deletes
// it once its callbacks, the error callback that released it included, have
// returned. Code that uses a connection it did not take out of the list
// (the opener, just after connectTo) does so inside a reaper section.
//
// Bounds. A peer's frames are checked against what a network link can carry
// from their headers, before a byte of their payload is kept: a command
// frame larger than the largest host-name record (MaxCommandRecord) ends the
// link at once, as does a record whose length field does not fit its frame.
// An accepted link must name its host within the hello timeout, or its
// interface closes it (networkinterface.h).
//
// Threads. Every callback runs on a selector worker thread, onConnected
// included: connect() only starts the connect, so the system router's thread
// never waits for a host. Frames queued meanwhile are held (within the frame
// handler's queue limit) and leave after the host-name command once the
// connection stands.
#pragma once

#include "core/limits.h"
#include "framing/dataframehandler.h"
#include "platform/mutex.h"
#include "platform/socketaddress.h"

#include <atomic>
#include <chrono>
#include <string>

namespace UlmarComms {

class MessageItem;
class NetworkRouterInterface;

class NetworkRouterConnection : public DataFrameHandler {
public:
    // Bytes of the inbound and of the outbound transfer buffer.
    static constexpr unsigned BufferSize = 4096;
    // The largest command record a network link carries: code, length, a
    // host name of the longest kind and its NUL. Only the host-name
    // commands travel here, so a larger command frame is hostile.
    static constexpr unsigned MaxCommandRecord = 5 + Limits::HostNameBytes + 1;

    // An accepting (not initiating) connection to remote; buffers of 4096.
    NetworkRouterConnection(NetworkRouterInterface* interface, const UlmarCommsSystem::SocketAddress& remote);
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
    // Set once it has been released: the routing table must not take it again.
    bool isClosing() const { return m_closing.load(); }
    // The router refused the host the peer named: nothing more it sends is
    // taken, and the link ends once the naming command has been handled.
    void refuse() { m_refused = true; }
    // Whether the router refused the peer.
    bool isRefused() const { return m_refused.load(); }
    // Whether the peer has sent its host-name command (100 or 101).
    bool hasNamedItsHost() const { return m_named.load(); }
    // Marks the link as closed for never naming its host; true the first time.
    bool markSilent() { return !m_silent.exchange(true); }
    // When the connection object was made (for an accepted one: accepted).
    std::chrono::steady_clock::time_point createdAt() const { return m_createdAt; }

protected:
    // Only the reaper deletes a connection.
    ~NetworkRouterConnection() override;
    // Leaves the routing table for good, then releases the socket (release()
    // calls it; safe inside its own callbacks).
    void retireLink() override;

private:
    // Enters the connection in the routing table under the peer's name.
    void enterInRoutingTable(const std::string& hostName);

    bool m_initiator;
    NetworkRouterInterface* m_pInterface;
    UlmarCommsSystem::SocketAddress m_remote;
    std::atomic<bool> m_closing;
    std::atomic<bool> m_refused;
    std::atomic<bool> m_named;
    std::atomic<bool> m_silent;
    const std::chrono::steady_clock::time_point m_createdAt;
    // Whether command 100 has been answered (receive path only).
    bool m_answeredHostName;
    // Written once by the receive path; read by queries.
    mutable UlmarCommsSystem::Mutex m_nameLock;
    std::string m_remoteHostName;
};

} // namespace UlmarComms
