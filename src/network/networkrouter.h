// The network router links this machine's system router with the system
// routers of other hosts. This header holds its abstract face, through which
// the system router, the system endpoint and the network interfaces reach it,
// and the router itself.
//
// The router runs one NetworkRouterInterface per selected local interface
// (discovery and the stream listener) and keeps the routing table of remote
// hosts that discovery and incoming connections reveal. Connections are
// opened lazily, by the first post for a host, and are owned by the interface
// they run on; the table only points at them.
//
// Threads. post comes from the system router's thread, postIfLinked from
// whichever thread routes a message for a host (selector workers, the
// service's router worker, the system router's thread), the queries from
// the service's router worker, start and stop from the thread that starts
// and stops the service; infoAboutHost from the discovery socket's receive
// callback and routingTableNewConnection / removeConnection from connection
// callbacks, all on selector worker threads. One recursive lock guards the
// host names and the routing table while they are read or changed; nothing
// is posted to the system router under it (the fan-out query reads its
// targets, lets the lock go, then posts). A new link is started outside the
// router lock, under a separate connect lock that also keeps stop() waiting:
// a connection that fails at once is released there, which takes the router
// lock. The connect itself never waits for the host.
// A host name is bound to the addresses it was learnt at (discovery, or the
// first link that named it). A link whose hello names a host known at other
// addresses is refused and ended, and an announcement of a known name from a
// new address on the same interface is ignored, until the host's entries
// there have gone quiet: no announcement for QuietPeriods discovery periods
// and no connection. The same name may still be learnt on another interface
// (a host on two networks), and a new port at a known address is taken as
// before. Refusals are logged; the log's throttle bounds them (core/logthrottle.h).
// Hosts age out: an entry that has gone quiet is dropped, and a name left
// with no entry and not heard for the quiet time is forgotten. That is
// exactly when its binding would have let it move anyway, so aging never
// hands a name over sooner than the binding does. A full name table makes
// room by forgetting the oldest name without a live link; a host with a
// link is never forgotten (networkhostnames.h).
// stop() never holds the router lock while it stops interfaces: stopping one
// waits until its sockets' callbacks have ended (SocketReaper::synchronize),
// and those callbacks take the lock. docs/architecture.md gives the whole lock order.
#pragma once

#include "core/byteaccount.h"
#include "core/limits.h"
#include "messaging/messageitem.h"
#include "network/networkhostnames.h"
#include "network/networkpolicy.h"
#include "network/networkroutingentry.h"
#include "platform/mutex.h"
#include "platform/socketaddress.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace UlmarComms {

class ISystemRouter;
class NetworkRouterInterface;
class NetworkRouterConnection;

class INetworkRouter {
public:
    virtual ~INetworkRouter() = default;
    // Queues a copy of a message for a host and releases the message, whatever
    // the result; false when the host has no way or the copy was not queued.
    virtual bool post(const std::string& host, MessageRef item) = 0;
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
    // Every host name known, one per line.
    virtual std::string getKnownHosts(bool activeOnly) = 0;
    // What is known about one host.
    virtual std::string getHostInfo(const std::string& host) = 0;
    // Discovery heard a host on an interface.
    virtual void infoAboutHost(const std::string& hostName, const UlmarCommsSystem::SocketAddress& address,
                               NetworkRouterInterface* interface) = 0;
    // A connection is going away: no table entry may keep pointing at it.
    // Appended after the slots above so that they keep their order.
    virtual void removeConnection(NetworkRouterConnection*) {}
    // The system router that takes what arrives from other hosts, or null.
    virtual ISystemRouter* getSystemRouter() { return nullptr; }
    // What postIfLinked did.
    enum class LinkedPost {
        NotLinked, // no live link to the host yet: the message is still the caller's
        Posted, // a copy was queued on the link; the message was released
        Refused, // the link did not take the copy (logged); the message was released
    };
    // Queues a copy of a message on the host's live link, if it has one,
    // without opening a link or taking the connect lock, so any thread may
    // call it.
    virtual LinkedPost postIfLinked(const std::string&, MessageRef&) { return LinkedPost::NotLinked; }
};

class NetworkRouter : public INetworkRouter {
public:
    // Bounds on what peers make the router keep (core/limits.h): host names,
    // routing table entries, and the length of one host name.
    static constexpr size_t MaxHostNames = Limits::NetworkHostNames;
    static constexpr size_t MaxRoutingTableEntries = Limits::RoutingTableEntries;
    static constexpr size_t MaxHostNameLength = Limits::HostNameBytes;
    // Discovery periods without an announcement after which a host's address
    // counts as quiet and its name may move to a new one, or be forgotten.
    // More than one, so that a late timer or a lost datagram on the real
    // host never lets a claim in between nor drops a host that is there.
    static constexpr int QuietPeriods = 3;

    // No interfaces, work mode 0, all flags false.
    NetworkRouter();
    // Stops whatever still runs.
    ~NetworkRouter() override;
    NetworkRouter(const NetworkRouter&) = delete;
    NetworkRouter& operator=(const NetworkRouter&) = delete;

    bool post(const std::string& host, MessageRef item) override;
    LinkedPost postIfLinked(const std::string& host, MessageRef& item) override;
    bool post(const std::string& host, unsigned char code, const char* text) override;
    bool getHostsSupportingInterfaces(const char* from, const char* sender, const char* interfaces,
                                      const char* match) override;
    bool start() override;
    void stop() override;
    bool add(ISystemRouter* systemRouter) override;
    bool routingTableNewConnection(const std::string& hostName, NetworkRouterInterface* interface,
                                   NetworkRouterConnection* connection) override;
    std::string getKnownHosts(bool activeOnly) override;
    std::string getHostInfo(const std::string& host) override;
    void infoAboutHost(const std::string& hostName, const UlmarCommsSystem::SocketAddress& address,
                       NetworkRouterInterface* interface) override;
    void removeConnection(NetworkRouterConnection* connection) override;
    ISystemRouter* getSystemRouter() override;

    // Detaches the system router if it is the stored one; always true.
    bool remove(ISystemRouter* systemRouter);
    // Makes every link between hosts charge parent as well (its frames stay
    // refused, not the link ended, when a bound is reached); only before
    // any interface is added.
    void setMemoryAccount(std::shared_ptr<ByteAccount> parent) { m_pMemory = std::move(parent); }
    // Creates and appends an interface on a local address (not started).
    bool add(const UlmarCommsSystem::SocketAddress& local, const UlmarCommsSystem::SocketAddress& broadcast,
             const UlmarCommsSystem::SocketAddress& network);

    // The routing table as text, one line per entry.
    std::string getRoutingTable();
    // The interfaces in use as "interfaces=N" and one line each.
    void getCurrentNetworkInterfaces(std::ostream& out);

    // The id of a name, registering a new one (0 when the name is refused);
    // a full table first forgets what has aged out, then the oldest name
    // without a link, with its entries.
    int32_t addHostId(const std::string& name);
    // The id of a known name, 0 for an unknown one.
    int32_t getHostId(const std::string& name);
    // The name of an id, or "<unknown>".
    std::string lookUpHostId(int32_t id);

    // An empty entry.
    static NetworkRouterRoutingTableEntry* createEntry();
    // Deletes an entry.
    static void releaseEntry(NetworkRouterRoutingTableEntry* entry);

    // Gives every interface the same trust: loopback, every interface's
    // subnet, the allowed networks, or any address.
    void applyPolicy(const std::vector<Ip4Network>& allowed, bool any);
    // Chooses the local interfaces from the settings and adds one each.
    bool buildNetworkInterfaces();
    // Sends "#AddressSupportingInterfaces" to every known host and to this one.
    bool peerToPeerGetHostsSupportingInterfaces(const char* from, const char* sender, const char* interfaces,
                                                const char* match);

    // The number of interfaces in use.
    size_t interfaceCount();
    // The interface at index, or null.
    NetworkRouterInterface* interfaceAt(size_t index);
    // The number of routing table entries.
    size_t routingTableSize();
    // Whether some entry of the host holds this connection.
    bool hostHasConnection(const std::string& host, NetworkRouterConnection* connection);
    // Whether any entry of the host holds a connection.
    bool hostIsConnected(const std::string& host);
    // The network work mode (0 = peer to peer).
    int32_t getNetworkWorkMode() const { return m_networkWorkMode; }
    // Sets the work mode (only 0 is served).
    void setNetworkWorkMode(int32_t mode) { m_networkWorkMode = mode; }
    // Set from "ulmar.networkrouter.isMaster", cleared by the two overrides.
    bool isMaster() const { return m_isMaster; }
    // Set from "ulmar.networkrouter.inStelthMode".
    bool inStealthMode() const { return m_inStealthMode; }

protected:
    // The entry for a host (first with a connection, else first); lock held.
    NetworkRouterRoutingTableEntry* getConnectionByHost(const std::string& host);
    // The waiting queue of a host, or null (nothing fills them); lock held.
    std::vector<MessageItem*>* getWaitingQueue(const std::string& host);
    // Runs send on the host's connection under the router lock, opening the
    // connection first if the host has none; false when there is no way.
    bool withConnection(const std::string& host, const std::function<bool(NetworkRouterConnection*)>& send);
    // Whether the interface is one of ours; stop() takes them out first, so
    // late callbacks of an interface being stopped are refused. Lock held.
    bool acceptsInterface(NetworkRouterInterface* interface) const;
    // Whether an entry still binds its host's name to its address: it holds a
    // connection or was heard within the quiet time. Lock held.
    bool isLive(const NetworkRouterRoutingTableEntry* entry, std::chrono::steady_clock::time_point now) const;
    // Whether a host is bound to addresses that exclude this one (on one
    // interface, or on any when interface is null). Lock held.
    bool boundElsewhere(int32_t id, const UlmarCommsSystem::SocketAddress& address,
                        const NetworkRouterInterface* interface, std::chrono::steady_clock::time_point now) const;
    // Drops the host's entries on the interface at other addresses that have
    // gone quiet: the host has moved to address. Lock held.
    void forgetQuietAddresses(int32_t id, const UlmarCommsSystem::SocketAddress& address,
                              const NetworkRouterInterface* interface, std::chrono::steady_clock::time_point now);
    // Whether the entry is still in the table. Lock held.
    bool inTable(const NetworkRouterRoutingTableEntry* entry) const;
    // QuietPeriods discovery periods. Lock held.
    std::chrono::milliseconds quietTime() const;
    // Drops the entries that have gone quiet and forgets the names that
    // nothing binds any more. Lock held.
    void ageOut(std::chrono::steady_clock::time_point now);
    // ageOut, at most once a discovery period. Lock held.
    void ageOutWhenDue(std::chrono::steady_clock::time_point now);
    // Whether the routing table can take one more entry, after ageOut if
    // it is full. Lock held.
    bool roomForEntry(std::chrono::steady_clock::time_point now);
    // Drops every entry of a host. Lock held.
    void dropEntriesOf(int32_t id);

private:
    // A host's queue: its id, then the messages held for it.
    struct WaitingQueue {
        int32_t hostId;
        std::vector<MessageItem*> items;
    };

    ISystemRouter* m_pSystemRouter;
    int32_t m_networkWorkMode;
    bool m_inStealthMode;
    bool m_isMaster;
    bool m_orderFlag;
    UlmarCommsSystem::Mutex m_lock;
    // Serialises opening links and keeps stop() out while one is opened.
    UlmarCommsSystem::Mutex m_connectLock;
    NetworkHostNames m_hostNames;
    // When ageOut last ran.
    std::chrono::steady_clock::time_point m_lastAgeOut;
    std::vector<WaitingQueue> m_waitingQueues;
    std::vector<NetworkRouterInterface*> m_interfaces;
    // See setMemoryAccount; null: links are bounded on their own only.
    std::shared_ptr<ByteAccount> m_pMemory;
    std::vector<NetworkRouterRoutingTableEntry*> m_routingTable;
};

} // namespace UlmarComms
