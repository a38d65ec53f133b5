// A routing table entry's own operations: opening its connection through
// its interface, and queueing frames on it.
#include "network/networkroutingentry.h"

#include "core/core.h"
#include "network/networkconnection.h"
#include "network/networkinterface.h"
#include "platform/socketreaper.h"

namespace UlmarComms {

NetworkRouterRoutingTableEntry::NetworkRouterRoutingTableEntry()
    : m_hostId(0), m_pInterface(nullptr), m_pConnection(nullptr), m_lastHeard(std::chrono::steady_clock::now())
{
}

bool NetworkRouterRoutingTableEntry::connect()
{
    if (m_pConnection != nullptr)
        return true;
    if (m_pInterface == nullptr) {
        Core::log(Core::LogError,
                  "NetworkRouterRoutingTableEntry::connect() Failed to create new connection object.\n");
        return false;
    }
    // Should the connection fail at once, it is released on a worker; the
    // section keeps it alive while it is looked at here.
    UlmarCommsSystem::SocketReaper::Section section;
    m_pConnection = m_pInterface->connectTo(m_address);
    if (m_pConnection == nullptr) {
        Core::log(Core::LogError,
                  "NetworkRouterRoutingTableEntry::connect() Failed to create new connection object.\n");
        return false;
    }
    // connectTo has already connected the socket, so this second start fails
    // and the entry counts as connected; a second start that succeeds means
    // the first did not really happen.
    const bool startedAgain = m_pConnection->connect();
    if (!startedAgain)
        return true;
    Core::log(Core::LogError,
              "NetworkRouterRoutingTableEntry::connect() Failed to create other end of the connection object.\n");
    return false;
}

bool NetworkRouterRoutingTableEntry::post(MessageRef item)
{
    if (!item)
        return false;
    if (!connect()) {
        Core::log(Core::LogError, "NetworkRouterRoutingTableEntry::post( %p ) Failed to connect()\n",
                  static_cast<void*>(item.get()));
        return false;
    }
    return m_pConnection->addToOutbound(item.get());
}

bool NetworkRouterRoutingTableEntry::post(unsigned char code, const char* text)
{
    if (!connect()) {
        Core::log(Core::LogError, "NetworkRouterRoutingTableEntry::post( %d, '%s' ) Failed to connect()\n", code,
                  text != nullptr ? text : "");
        return false;
    }
    return m_pConnection->addToOutbound(code, text);
}

} // namespace UlmarComms
