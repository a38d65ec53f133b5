// The network router: interface selection from the settings, the table of
// remote hosts, lazy connections and the network queries.
//
// Host names get ids 1, 2, 3 ... in order of first sight and outlive stop
// and start; a name leaves only once nothing binds it (networkhostnames.h
// keeps them, the router decides which may go). The table
// points at connections but does not own them: the interfaces do. A
// connection that goes away clears every entry that points at it (through
// removeConnection, when it is released) before its socket goes, so no entry
// ever holds a dangling connection.
#include "network/networkrouter.h"

#include "core/core.h"
#include "messaging/messagerouter.h"
#include "network/networkconnection.h"
#include "network/networkinterface.h"
#include "network/networkpolicy.h"
#include "platform/socketreaper.h"

#include <algorithm>
#include <functional>
#include <new>
#include <sstream>

using Clock = std::chrono::steady_clock;
using UlmarCommsSystem::MutexLocker;
using UlmarCommsSystem::NetworkInterface;
using UlmarCommsSystem::SocketAddress;

namespace UlmarComms {

namespace {

// Splits a settings list on "," into IPv4 addresses with the port; empty
// items, "*" and items that are not addresses are left out.
std::vector<SocketAddress> wantedAddresses(const std::string& list, const std::string& port)
{
    std::vector<std::string> items;
    splitOn(list, ",", items);
    std::vector<SocketAddress> out;
    for (const std::string& item : items) {
        if (item.empty() || item == "*")
            continue;
        SocketAddress address;
        if (address.setIP4Address(item, port))
            out.push_back(address);
    }
    return out;
}

} // namespace

NetworkRouter::NetworkRouter()
    : m_pSystemRouter(nullptr),
      m_networkWorkMode(0),
      m_inStealthMode(false),
      m_isMaster(false),
      m_orderFlag(false),
      m_hostNames(MaxHostNames),
      m_lastAgeOut(Clock::now())
{
}

NetworkRouter::~NetworkRouter()
{
    stop();
    MutexLocker locker(m_lock);
    for (WaitingQueue& queue : m_waitingQueues)
        for (MessageItem* item : queue.items)
            MessageItem::release(item);
    m_waitingQueues.clear();
}

bool NetworkRouter::add(ISystemRouter* systemRouter)
{
    MutexLocker locker(m_lock);
    m_pSystemRouter = systemRouter;
    return true;
}

bool NetworkRouter::remove(ISystemRouter* systemRouter)
{
    MutexLocker locker(m_lock);
    if (m_pSystemRouter == systemRouter)
        m_pSystemRouter = nullptr;
    return true;
}

ISystemRouter* NetworkRouter::getSystemRouter()
{
    MutexLocker locker(m_lock);
    return m_pSystemRouter;
}

bool NetworkRouter::add(const SocketAddress& local, const SocketAddress& broadcast, const SocketAddress& network)
{
    const std::string localText = local.asString();
    const std::string broadcastText = broadcast.asString();
    const std::string networkText = network.asString();
    Core::message("NetworkRouter::add( '%s', '%s', '%s' )\n", localText.c_str(), broadcastText.c_str(),
                  networkText.c_str());
    NetworkRouterInterface* interface = new (std::nothrow) NetworkRouterInterface(this, local, broadcast, network);
    if (interface == nullptr) {
        Core::log(Core::LogError,
                  "NetworkRouter::add( '%s', '%s', '%s' ) Failed to create NetworkRouterInterface object.\n",
                  localText.c_str(), broadcastText.c_str(), networkText.c_str());
        return false;
    }
    interface->setMemoryAccount(m_pMemory);
    MutexLocker locker(m_lock);
    m_interfaces.push_back(interface);
    return true;
}

NetworkRouterRoutingTableEntry* NetworkRouter::createEntry()
{
    return new (std::nothrow) NetworkRouterRoutingTableEntry();
}

void NetworkRouter::releaseEntry(NetworkRouterRoutingTableEntry* entry)
{
    delete entry;
}

int32_t NetworkRouter::addHostId(const std::string& name)
{
    MutexLocker locker(m_lock);
    const int32_t known = m_hostNames.idOf(name);
    const Clock::time_point now = Clock::now();
    if (known == 0 && !NetworkHostNames::acceptable(name, MaxHostNameLength)) {
        Core::log(Core::LogWarning, "NetworkRouter::addHostId() refusing a host name of %u bytes\n",
                  static_cast<unsigned>(name.size()));
        return 0;
    }
    // Dead names go before a live one is asked to make room.
    if (known == 0 && m_hostNames.full())
        ageOut(now);
    // Hosts with a link, found once: a full table asks about every name.
    std::vector<int32_t> linked;
    for (const NetworkRouterRoutingTableEntry* entry : m_routingTable)
        if (entry->m_pConnection != nullptr)
            linked.push_back(entry->m_hostId);
    std::sort(linked.begin(), linked.end());
    int32_t forgotten = 0;
    const int32_t id = m_hostNames.add(
        name, now, [&](int32_t host) { return !std::binary_search(linked.begin(), linked.end(), host); }, forgotten);
    if (forgotten != 0) {
        dropEntriesOf(forgotten);
        Core::log(Core::LogWarning,
                  "NetworkRouter::addHostId( '%s' ) %u host names known: forgot the one heard least recently\n",
                  name.c_str(), static_cast<unsigned>(m_hostNames.size()));
    }
    if (id == 0)
        Core::log(Core::LogWarning, "NetworkRouter::addHostId( '%s' ) refused: %u host names known already\n",
                  name.c_str(), static_cast<unsigned>(m_hostNames.size()));
    return id;
}

int32_t NetworkRouter::getHostId(const std::string& name)
{
    MutexLocker locker(m_lock);
    return m_hostNames.idOf(name);
}

std::string NetworkRouter::lookUpHostId(int32_t id)
{
    MutexLocker locker(m_lock);
    return m_hostNames.nameOf(id);
}

bool NetworkRouter::acceptsInterface(NetworkRouterInterface* interface) const
{
    return interface != nullptr && std::find(m_interfaces.begin(), m_interfaces.end(), interface) != m_interfaces.end();
}

void NetworkRouter::infoAboutHost(const std::string& hostName, const SocketAddress& address,
                                  NetworkRouterInterface* interface)
{
    MutexLocker locker(m_lock);
    if (!acceptsInterface(interface))
        return;
    const Clock::time_point now = Clock::now();
    ageOutWhenDue(now);
    const int32_t known = getHostId(hostName);
    if (known != 0) {
        // The name is heard, even from an address it may not move to yet.
        m_hostNames.touch(known, now);
        for (NetworkRouterRoutingTableEntry* entry : m_routingTable)
            if (entry->m_hostId == known && entry->m_pInterface == interface && entry->m_address.match(address, true)) {
                entry->m_lastHeard = now;
                return;
            }
        if (boundElsewhere(known, address, interface, now)) {
            Core::log(Core::LogWarning,
                      "NetworkRouter::infoAboutHost() Ignored announcement of '%s' at '%s': the host is known at "
                      "another address that has not gone quiet\n",
                      hostName.c_str(), address.asString().c_str());
            return;
        }
        // The host has moved on this interface: its quiet addresses there go.
        forgetQuietAddresses(known, address, interface, now);
    }
    if (!roomForEntry(now)) {
        Core::log(Core::LogWarning, "NetworkRouter::infoAboutHost( '%s' ) routing table full\n", hostName.c_str());
        return;
    }
    const int32_t id = addHostId(hostName);
    if (id == 0)
        return;
    NetworkRouterRoutingTableEntry* entry = createEntry();
    if (entry == nullptr)
        return;
    entry->m_hostId = id;
    entry->m_address = address;
    entry->m_pInterface = interface;
    m_routingTable.push_back(entry);
    Core::message("Adding '%s' into the routing table with address of '%s'\n", hostName.c_str(),
                  address.asString().c_str());
}

bool NetworkRouter::routingTableNewConnection(const std::string& hostName, NetworkRouterInterface* interface,
                                              NetworkRouterConnection* connection)
{
    MutexLocker locker(m_lock);
    // A connection already being destroyed must not be entered again, and an
    // interface being stopped (taken out by stop()) takes no new entries.
    if (connection == nullptr || connection->isClosing() || !acceptsInterface(interface))
        return false;
    const Clock::time_point now = Clock::now();
    ageOutWhenDue(now);
    const int32_t known = getHostId(hostName);
    if (known != 0 && boundElsewhere(known, connection->getRemoteAddress(), nullptr, now)) {
        // Taking it would hand this peer the named host's traffic.
        connection->refuse();
        Core::log(Core::LogWarning,
                  "NetworkRouter::routingTableNewConnection() Refused link from '%s' naming host '%s', which is "
                  "known at another address\n",
                  connection->getRemoteAddress().asString().c_str(), hostName.c_str());
        return false;
    }
    const int32_t id = addHostId(hostName);
    if (id == 0)
        return false;
    for (NetworkRouterRoutingTableEntry* entry : m_routingTable) {
        if (entry->m_hostId != id || entry->m_pInterface != interface ||
            !entry->m_address.match(connection->getRemoteAddress(), true))
            continue;
        if (entry->m_pConnection != nullptr && entry->m_pConnection != connection)
            Core::log(Core::LogWarning,
                      "NetworkRouter::routingTableNewConnection() Already got a connection object for host '%d'\n", id);
        entry->m_pConnection = connection;
        return true;
    }
    if (!roomForEntry(now)) {
        Core::log(Core::LogWarning, "NetworkRouter::routingTableNewConnection( '%s' ) routing table full\n",
                  hostName.c_str());
        return false;
    }
    NetworkRouterRoutingTableEntry* entry = createEntry();
    if (entry == nullptr)
        return false;
    entry->m_hostId = id;
    entry->m_address = connection->getRemoteAddress();
    entry->m_pInterface = interface;
    entry->m_pConnection = connection;
    m_routingTable.push_back(entry);
    return true;
}

void NetworkRouter::removeConnection(NetworkRouterConnection* connection)
{
    MutexLocker locker(m_lock);
    Core::message("NetworkRouter::removeConnection( %p )\n", static_cast<void*>(connection));
    // Every entry that holds it is cleared, not only the first: a peer that
    // answers with another name than discovery gave puts one connection in
    // two entries, and a pointer left behind would dangle.
    for (NetworkRouterRoutingTableEntry* entry : m_routingTable)
        if (entry->m_pConnection == connection)
            entry->m_pConnection = nullptr;
}

std::chrono::milliseconds NetworkRouter::quietTime() const
{
    const int period = std::max(Core::instance()->getNumber("ulmar.networkrouter.discovery.timeout"), 0);
    return std::chrono::milliseconds(static_cast<int64_t>(period) * QuietPeriods);
}

bool NetworkRouter::isLive(const NetworkRouterRoutingTableEntry* entry, Clock::time_point now) const
{
    return entry->m_pConnection != nullptr || now - entry->m_lastHeard < quietTime();
}

void NetworkRouter::ageOutWhenDue(Clock::time_point now)
{
    // Once a period is enough for hosts that age in periods; a full table
    // does not wait (addHostId, roomForEntry), since a live host may be knocking.
    if (now - m_lastAgeOut >= quietTime() / QuietPeriods)
        ageOut(now);
}

bool NetworkRouter::roomForEntry(Clock::time_point now)
{
    if (m_routingTable.size() >= MaxRoutingTableEntries)
        ageOut(now);
    return m_routingTable.size() < MaxRoutingTableEntries;
}

void NetworkRouter::ageOut(Clock::time_point now)
{
    m_lastAgeOut = now;
    const std::chrono::milliseconds quiet = quietTime();
    // A quiet entry binds nothing (isLive), so dropping it changes no
    // answer the binding gives; its host is found again when it announces.
    std::vector<int32_t> bound;
    for (auto it = m_routingTable.begin(); it != m_routingTable.end();) {
        if (isLive(*it, now)) {
            bound.push_back((*it)->m_hostId);
            ++it;
            continue;
        }
        releaseEntry(*it);
        it = m_routingTable.erase(it);
    }
    std::sort(bound.begin(), bound.end());
    const std::vector<int32_t> forgotten = m_hostNames.forgetIf([&](int32_t id) {
        return !std::binary_search(bound.begin(), bound.end(), id) && now - m_hostNames.lastHeard(id) >= quiet;
    });
    if (!forgotten.empty())
        Core::message("NetworkRouter::ageOut() Forgot %u host names not heard for %d ms\n",
                      static_cast<unsigned>(forgotten.size()), static_cast<int>(quiet.count()));
}

void NetworkRouter::dropEntriesOf(int32_t id)
{
    std::erase_if(m_routingTable, [id](NetworkRouterRoutingTableEntry* entry) {
        if (entry->m_hostId != id)
            return false;
        releaseEntry(entry);
        return true;
    });
}

bool NetworkRouter::boundElsewhere(int32_t id, const SocketAddress& address, const NetworkRouterInterface* interface,
                                   Clock::time_point now) const
{
    bool live = false;
    for (const NetworkRouterRoutingTableEntry* entry : m_routingTable) {
        if (entry->m_hostId != id || (interface != nullptr && entry->m_pInterface != interface))
            continue;
        // The address itself is bound (another port there is the same host).
        if (entry->m_address.match(address, false))
            return false;
        live = live || isLive(entry, now);
    }
    return live;
}

void NetworkRouter::forgetQuietAddresses(int32_t id, const SocketAddress& address,
                                         const NetworkRouterInterface* interface, Clock::time_point now)
{
    auto quiet = [&](NetworkRouterRoutingTableEntry* entry) {
        return entry->m_hostId == id && entry->m_pInterface == interface && !entry->m_address.match(address, false) &&
            !isLive(entry, now);
    };
    for (auto it = m_routingTable.begin(); it != m_routingTable.end();) {
        if (!quiet(*it)) {
            ++it;
            continue;
        }
        Core::message("Moving '%s' in the routing table away from the quiet address '%s'\n", lookUpHostId(id).c_str(),
                      (*it)->m_address.asString().c_str());
        releaseEntry(*it);
        it = m_routingTable.erase(it);
    }
}

bool NetworkRouter::inTable(const NetworkRouterRoutingTableEntry* entry) const
{
    return std::find(m_routingTable.begin(), m_routingTable.end(), entry) != m_routingTable.end();
}

NetworkRouterRoutingTableEntry* NetworkRouter::getConnectionByHost(const std::string& host)
{
    const int32_t id = getHostId(host);
    if (id == 0)
        return nullptr;
    NetworkRouterRoutingTableEntry* first = nullptr;
    for (NetworkRouterRoutingTableEntry* entry : m_routingTable) {
        if (entry->m_hostId != id)
            continue;
        if (entry->m_pConnection != nullptr)
            return entry;
        if (first == nullptr)
            first = entry;
    }
    return first;
}

std::vector<MessageItem*>* NetworkRouter::getWaitingQueue(const std::string& host)
{
    const int32_t id = getHostId(host);
    for (WaitingQueue& queue : m_waitingQueues)
        if (queue.hostId == id)
            return &queue.items;
    return nullptr;
}

bool NetworkRouter::withConnection(const std::string& host, const std::function<bool(NetworkRouterConnection*)>& send)
{
    {
        MutexLocker locker(m_lock);
        NetworkRouterRoutingTableEntry* entry = getConnectionByHost(host);
        if (entry == nullptr) {
            Core::message("NetworkRouter::post() No route to host '%s'\n", host.c_str());
            return false;
        }
        if (entry->m_pConnection != nullptr)
            return send(entry->m_pConnection);
    }
    // A new link is started without the router lock: a connection that
    // fails at once is released, which reaches this lock. Starting never
    // waits for the host (the connect completes on a worker), so the connect
    // lock is held only briefly; it keeps stop() from taking the interface or
    // the entry away meanwhile. The section, entered under the connect lock
    // (stop() waits for sections while holding it), keeps a connection that
    // fails at once alive while it is looked at here.
    MutexLocker connecting(m_connectLock);
    UlmarCommsSystem::SocketReaper::Section section;
    NetworkRouterRoutingTableEntry* entry = nullptr;
    NetworkRouterInterface* interface = nullptr;
    SocketAddress address;
    {
        MutexLocker locker(m_lock);
        entry = getConnectionByHost(host);
        if (entry == nullptr)
            return false;
        if (entry->m_pConnection != nullptr)
            return send(entry->m_pConnection);
        interface = entry->m_pInterface;
        address = entry->m_address;
    }
    NetworkRouterConnection* connection = interface->connectTo(address);
    MutexLocker locker(m_lock);
    // A link that has already failed is not stored: it is on its way out.
    if (connection == nullptr || connection->isClosing()) {
        Core::log(Core::LogError, "NetworkRouter::post( %%message%% ) Failed to on connectTo( '%s' )\n",
                  address.asString().c_str());
        return false;
    }
    // The entry may have gone meanwhile (its host moved to a new address),
    // and a new one may sit where it was; the link is the interface's and
    // still carries this frame.
    if (inTable(entry) && entry->m_pConnection == nullptr && entry->m_pInterface == interface &&
        entry->m_address.match(address, true))
        entry->m_pConnection = connection;
    return send(connection);
}

bool NetworkRouter::post(const std::string& host, MessageRef item)
{
    if (!item)
        return false;
    // The frame holds a copy: item is released on return, queued or not.
    return withConnection(host, [&](NetworkRouterConnection* connection) {
        if (connection->addToOutbound(item.get()))
            return true;
        Core::log(Core::LogError, "NetworkRouter::post( %p ) Failed to queue the message for host '%s'\n",
                  static_cast<void*>(item.get()), host.c_str());
        return false;
    });
}

// The host's link, if it is up, under the router lock alone: the same lock
// post takes to find it, so a link found here is as alive as one found there.
INetworkRouter::LinkedPost NetworkRouter::postIfLinked(const std::string& host, MessageRef& item)
{
    if (!item)
        return LinkedPost::NotLinked;
    MutexLocker locker(m_lock);
    NetworkRouterRoutingTableEntry* entry = getConnectionByHost(host);
    if (entry == nullptr || entry->m_pConnection == nullptr)
        return LinkedPost::NotLinked;
    // The frame holds a copy: item is released on return, queued or not.
    MessageRef taken(std::move(item));
    if (entry->m_pConnection->addToOutbound(taken.get()))
        return LinkedPost::Posted;
    Core::log(Core::LogError, "NetworkRouter::post( %p ) Failed to queue the message for host '%s'\n",
              static_cast<void*>(taken.get()), host.c_str());
    return LinkedPost::Refused;
}

bool NetworkRouter::post(const std::string& host, unsigned char code, const char* text)
{
    return withConnection(host, [&](NetworkRouterConnection* connection) {
        if (connection->addToOutbound(code, text))
            return true;
        Core::log(Core::LogError, "NetworkRouter::post( %d, '%s' ) Failed to queue the command for host '%s'\n", code,
                  text != nullptr ? text : "", host.c_str());
        return false;
    });
}

bool NetworkRouter::buildNetworkInterfaces()
{
    Core* core = Core::instance();
    if (core->getNumber("ulmar.networkrouter.ip4") == 0)
        return true;
    const std::string port = core->getString("ulmar.networkrouter.ip4.port");
    const std::vector<SocketAddress> networks =
        wantedAddresses(core->getString("ulmar.networkrouter.ip4.networks"), port);
    const std::vector<SocketAddress> addresses =
        wantedAddresses(core->getString("ulmar.networkrouter.ip4.addresses"), port);
    const bool all = networks.empty() && addresses.empty();
    for (const NetworkInterface& candidate : NetworkInterface::interfaces()) {
        if (candidate.isLoopback())
            continue;
        if (!all && !candidate.matchOnAddress(addresses) && !candidate.matchOnNetwork(networks))
            continue;
        SocketAddress local = candidate.getAddress();
        SocketAddress broadcast = candidate.getBroadcast();
        local.setPort(port);
        broadcast.setPort(port);
        if (!add(local, broadcast, candidate.getNetwork()))
            Core::log(Core::LogError, "NetworkRouter::buildNetworkInterfaces() Unable to add address.\n");
    }
    return true;
}

bool NetworkRouter::start()
{
    Core* core = Core::instance();
    if (core->getNumber("ulmar.networkrouter") == 0) {
        Core::message("Not starting the network router as defined in configureation.\n");
        return true;
    }
    MutexLocker locker(m_lock);
    // Read in this order: lower order and stealth both override master.
    if (core->getNumber("ulmar.networkrouter.isMaster") == 1)
        m_isMaster = true;
    if (core->getNumber("ulmar.networkrouter.isLowerOrder") == 1) {
        m_isMaster = false;
        m_orderFlag = false;
    }
    if (core->getNumber("ulmar.networkrouter.inStelthMode") == 1) {
        m_isMaster = false;
        m_inStealthMode = true;
    }
    // A bad list stops the start before anything is built: running with a
    // trust other than the one configured is worse than not running.
    std::vector<Ip4Network> allowed;
    std::string error;
    if (!parseIp4NetworkList(core->getString("ulmar.networkrouter.ip4.allow"), allowed, error)) {
        Core::log(Core::LogFatal, "NetworkRouter::start() Refused ulmar.networkrouter.ip4.allow: %s.\n", error.c_str());
        return false;
    }
    if (!buildNetworkInterfaces()) {
        Core::log(Core::LogFatal, "NetworkRouter::start() Failed to build network interfaces.\n");
        return false;
    }
    applyPolicy(allowed, core->getNumber("ulmar.networkrouter.ip4.allow.any") != 0);
    const int count = static_cast<int>(m_interfaces.size());
    for (int i = 0; i < count; ++i)
        if (!m_interfaces[i]->start())
            Core::log(Core::LogError, "NetworkRouter::start() Failed to start NetworkRouterInterface %d of %d\n", i,
                      count);
    return true;
}

void NetworkRouter::applyPolicy(const std::vector<Ip4Network>& allowed, bool any)
{
    MutexLocker locker(m_lock);
    NetworkPolicy policy;
    for (const NetworkRouterInterface* interface : m_interfaces)
        for (const Ip4Network& network : interface->policy().networks())
            policy.allow(network);
    for (const Ip4Network& network : allowed)
        policy.allow(network);
    policy.allowAny(any);
    for (NetworkRouterInterface* interface : m_interfaces)
        interface->setPolicy(policy);
    Core::message("NetworkRouter::start() Taking links and announcements from %s\n", policy.describe().c_str());
}

void NetworkRouter::stop()
{
    Core::message("NetworkRouter::stop() start\n");
    // Held throughout: a post that is opening a link uses an interface and
    // an entry without the router lock.
    MutexLocker connecting(m_connectLock);
    std::vector<NetworkRouterInterface*> interfaces;
    std::vector<NetworkRouterRoutingTableEntry*> entries;
    {
        // Taking both out first means no post reaches an interface being
        // deleted and no late callback enters a new entry for one.
        MutexLocker locker(m_lock);
        interfaces.swap(m_interfaces);
        entries.swap(m_routingTable);
    }
    const int count = static_cast<int>(interfaces.size());
    for (int i = 0; i < count; ++i) {
        Core::message("NetworkRouter::stop() Shuting down interface %d of %d\n", i, count);
        interfaces[i]->stop();
        delete interfaces[i];
    }
    for (NetworkRouterRoutingTableEntry* entry : entries)
        releaseEntry(entry);
    Core::message("NetworkRouter::stop() stop\n");
}

size_t NetworkRouter::interfaceCount()
{
    MutexLocker locker(m_lock);
    return m_interfaces.size();
}

NetworkRouterInterface* NetworkRouter::interfaceAt(size_t index)
{
    MutexLocker locker(m_lock);
    return index < m_interfaces.size() ? m_interfaces[index] : nullptr;
}

size_t NetworkRouter::routingTableSize()
{
    MutexLocker locker(m_lock);
    return m_routingTable.size();
}

bool NetworkRouter::hostHasConnection(const std::string& host, NetworkRouterConnection* connection)
{
    MutexLocker locker(m_lock);
    const int32_t id = getHostId(host);
    for (const NetworkRouterRoutingTableEntry* entry : m_routingTable)
        if (id != 0 && entry->m_hostId == id && entry->m_pConnection == connection)
            return true;
    return false;
}

bool NetworkRouter::hostIsConnected(const std::string& host)
{
    MutexLocker locker(m_lock);
    const int32_t id = getHostId(host);
    for (const NetworkRouterRoutingTableEntry* entry : m_routingTable)
        if (id != 0 && entry->m_hostId == id && entry->m_pConnection != nullptr)
            return true;
    return false;
}

} // namespace UlmarComms
