// The relay: the floor the bus is compared against. Three processes on the
// same machine do the least a two-hop message path can do: a client and a
// server each connect to a relay, which forwards fixed-size records between
// them with plain blocking UNIX stream sockets, one thread per direction and
// one record per system call. The records are as large as the bus's frames,
// so both roads move the same bytes; no routing, no framing, no copies
// beyond the kernel's.
#pragma once

#include "common.h"
#include "options.h"

#include <cstdint>
#include <vector>

namespace UlmarCommsBench {

// Relay records: type, sequence (8 bytes), padding to the record size.
extern const unsigned char kRelayEcho; // answered with kRelayEchoReply
extern const unsigned char kRelayEchoReply; // the answer to kRelayEcho
extern const unsigned char kRelayOneWay; // counted by the server
extern const unsigned char kRelayFlood; // counted, never acknowledged
extern const unsigned char kRelayAck; // one-way messages counted so far
extern const unsigned char kRelayDone; // asks for the one-way summary
extern const unsigned char kRelayDoneReply; // count, and in-order flag at byte 9
extern const unsigned char kRelayQuit; // ends the server

// The relay client's connection, with one record to send and one received.
struct RelayLink {
    int fd = -1; // the socket to the relay
    unsigned size = 0; // bytes of every record
    std::vector<unsigned char> out; // the record to send
    std::vector<unsigned char> in; // the record last received

    // Fills out with type and sequence (the padding stays).
    void put(unsigned char type, uint64_t sequence);
    // Writes out whole; false when the link failed.
    bool write();
    // put() then write().
    bool send(unsigned char type, uint64_t sequence);
    // Reads one whole record into in; false at the end of the stream.
    bool receive();
    // The sequence number in the received record.
    uint64_t sequence() const;
};

// The relay process: forwards records both ways until both sides close.
int runRelay(const Options& options);

// The relay server process: answers echoes, counts one-way messages.
int runRelayServer(const Options& options);

// The relay client process: the three measurements, then one RESULT line.
int runRelayClient(const Options& options);

} // namespace UlmarCommsBench
