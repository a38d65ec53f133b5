// The relay between hosts: the floor the bus between two hosts is compared
// against. The same parts as the local relay (relay.h), over TCP: the relay
// runs on the client's host and listens on loopback for the client and on
// the host's own address for the far side, on the other host. With two hops
// the far side is the server: client -> relay over the client host's
// loopback, relay -> server across the link between the hosts. With three
// a second relay on the server's host stands between, as the bus has a
// daemon on each host: client -> relay -> far relay -> server, the last hop
// over the server host's loopback. One record per system call with Nagle
// off, as the bus's frames would be sent one by one. The records and
// measurements are the local relay's (RelayLink, roundtrip.cpp, oneway.cpp,
// pipelined.cpp); only the sockets differ.
#pragma once

#include "common.h"
#include "options.h"

#include <string>

namespace UlmarCommsBench {

// Where the relay between hosts listens.
struct TcpRelayPlace {
    std::string address; // the relay host's own address, where the server connects
    unsigned port = 0; // the far side's port; the client's is port + 1 on 127.0.0.1
    unsigned hops = 2; // 2: the far side is the server; 3: the far relay, whose
        // server connects to port + 2 on 127.0.0.1
};

// The relay process: forwards records both ways until both sides close.
int runTcpRelay(const Options& options, const TcpRelayPlace& place);

// The far relay process (three hops), on the other host: connects to the
// relay and forwards records both ways between it and the server.
int runTcpFarRelay(const Options& options, const TcpRelayPlace& place);

// The relay server process, on the other host: answers echoes, counts
// one-way messages.
int runTcpRelayServer(const Options& options, const TcpRelayPlace& place);

// The relay client process, beside the relay: the three measurements, then
// one RESULT line.
int runTcpRelayClient(const Options& options, const TcpRelayPlace& place);

} // namespace UlmarCommsBench
