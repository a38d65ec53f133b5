// One known way to one remote host: the record the network router's routing
// table holds per host, address and local interface.
//
// An entry points at the interface that reaches the host and, once there is
// one, at the connection to it; it owns neither (the interfaces own both).
// Its own operations open that connection on first use and queue frames on
// it; the router calls them under its locks, which also guard the fields.
#pragma once

#include "messaging/messageitem.h"
#include "platform/socketaddress.h"

#include <chrono>
#include <cstdint>

namespace UlmarComms {

class NetworkRouterInterface;
class NetworkRouterConnection;

// One known way to one remote host: a plain record owned by the routing table.
class NetworkRouterRoutingTableEntry {
public:
    // Host id 0, no interface, no connection.
    NetworkRouterRoutingTableEntry();

    // Makes sure the entry has a connection, opening one through the interface.
    bool connect();
    // Queues a copy on the connection; releases the item whatever the result.
    bool post(MessageRef item);
    // Queues a link command on the connection.
    bool post(unsigned char code, const char* text);

    // Key into the router's host names.
    int32_t m_hostId;
    // The remote host's stream address as learnt.
    UlmarCommsSystem::SocketAddress m_address;
    // The local interface through which the host is reached (not owned).
    NetworkRouterInterface* m_pInterface;
    // The open connection to the host, null when none (not owned).
    NetworkRouterConnection* m_pConnection;
    // When the host last announced itself at this address (or the entry was made).
    std::chrono::steady_clock::time_point m_lastHeard;
};

} // namespace UlmarComms
