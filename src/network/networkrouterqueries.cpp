// The network router's answers about the network: the routing table, the
// known hosts and the interfaces as text, and the fan-out query that asks
// every known host which of its addresses support given interfaces. Kept
// apart from the table's upkeep (networkrouter.cpp): these only read it.
#include "network/networkrouter.h"

#include "core/core.h"
#include "messaging/messagerouter.h"
#include "network/networkinterface.h"

using Clock = std::chrono::steady_clock;
using UlmarCommsSystem::MutexLocker;

namespace UlmarComms {

namespace {

// Adds an argument when there is a value to add.
bool addIfSet(MessageItem* item, const char* key, const char* value)
{
    return value == nullptr || item->add(key, value);
}

} // namespace

bool NetworkRouter::getHostsSupportingInterfaces(const char* from, const char* sender, const char* interfaces,
                                                 const char* match)
{
    switch (m_networkWorkMode) {
    case 0: return peerToPeerGetHostsSupportingInterfaces(from, sender, interfaces, match);
    case 1:
    case 2: return false;
    default:
        Core::log(Core::LogWarning, "NetworkRouter::getHostsSupportingInterfaces() Network work mode is unknown!\n");
        return false;
    }
}

bool NetworkRouter::peerToPeerGetHostsSupportingInterfaces(const char* from, const char* sender, const char* interfaces,
                                                           const char* match)
{
    // The targets are read under the lock and the copies posted without it:
    // the system router's thread holds its own locks while it hands messages
    // here, so posting to it under ours would order the two both ways.
    ISystemRouter* systemRouter = nullptr;
    std::vector<std::string> targets;
    {
        MutexLocker locker(m_lock);
        systemRouter = m_pSystemRouter;
        if (systemRouter == nullptr)
            return false;
        for (const std::string& name : m_hostNames.names())
            targets.push_back(name + "@system");
    }
    // The query to this host itself is addressed with a capital S.
    targets.push_back(Core::instance()->getHostName() + "@System");
    for (const std::string& to : targets) {
        MessageRef item(MessageItem::create());
        if (!item)
            return false;
        const bool built = item->add(MessageItem::ArgumentKey_To, to.c_str()) &&
            item->add(MessageItem::ArgumentKey_Method, "#AddressSupportingInterfaces") &&
            addIfSet(item.get(), MessageItem::ArgumentKey_From, from) &&
            addIfSet(item.get(), MessageItem::ArgumentKey_SenderId, sender) &&
            addIfSet(item.get(), "inters", interfaces) && addIfSet(item.get(), "match", match);
        if (built)
            systemRouter->post(std::move(item));
    }
    return true;
}

std::string NetworkRouter::getRoutingTable()
{
    MutexLocker locker(m_lock);
    ageOut(Clock::now());
    std::string text;
    for (const NetworkRouterRoutingTableEntry* entry : m_routingTable) {
        // The second column says whether the host still needs a connection.
        text += lookUpHostId(entry->m_hostId);
        text += entry->m_pConnection != nullptr ? ",false," : ",true,";
        text += entry->m_address.asString();
        text += ",";
        if (entry->m_pInterface != nullptr) {
            text += entry->m_pInterface->getNetworkAddress().asString() + "," +
                entry->m_pInterface->getBroadcastAddress().asString() + "," +
                entry->m_pInterface->getLocalAddress().asString();
        } else {
            text += ",,";
        }
        text += "\n";
    }
    return text;
}

std::string NetworkRouter::getKnownHosts(bool)
{
    MutexLocker locker(m_lock);
    ageOut(Clock::now());
    std::string text;
    for (const std::string& name : m_hostNames.names())
        text += name + "\n";
    return text;
}

std::string NetworkRouter::getHostInfo(const std::string& host)
{
    return "host:" + host + "\n";
}

void NetworkRouter::getCurrentNetworkInterfaces(std::ostream& out)
{
    MutexLocker locker(m_lock);
    out << "interfaces=" << m_interfaces.size() << "\n";
    for (size_t i = 0; i < m_interfaces.size(); ++i) {
        const NetworkRouterInterface* interface = m_interfaces[i];
        out << "interface" << i << "=" << interface->getNetworkAddress().asString() << ","
            << interface->getBroadcastAddress().asString() << "," << interface->getLocalAddress().asString() << "\n";
    }
}

} // namespace UlmarComms
