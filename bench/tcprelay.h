// The relay between hosts: the floor the bus between two hosts is compared
// against. The same three parts as the local relay (relay.h), over TCP: the
// relay runs on the client's host and listens on loopback for the client and
// on the host's own address for the server, which connects from the other
// host. So a record takes two hops, client -> relay over the client host's
// loopback and relay -> server across the link between the hosts, one
// record per system call with Nagle off, as the bus's frames would be sent
// one by one. The records and measurements are the local relay's
// (RelayLink, roundtrip.cpp, oneway.cpp, pipelined.cpp); only the sockets
// differ.
#pragma once

#include "common.h"
#include "options.h"

#include <string>

namespace UlmarCommsBench {

// Where the relay between hosts listens.
struct TcpRelayPlace {
    std::string address; // the relay host's own address, where the server connects
    unsigned port = 0; // the server side's port; the client side's is port + 1 on 127.0.0.1
};

// The relay process: forwards records both ways until both sides close.
int runTcpRelay(const Options& options, const TcpRelayPlace& place);

// The relay server process, on the other host: answers echoes, counts
// one-way messages.
int runTcpRelayServer(const Options& options, const TcpRelayPlace& place);

// The relay client process, beside the relay: the three measurements, then
// one RESULT line.
int runTcpRelayClient(const Options& options, const TcpRelayPlace& place);

} // namespace UlmarCommsBench
