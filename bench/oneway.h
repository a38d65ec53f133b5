// One-way throughput: numbered requests without replies. The receiver
// checks that every one arrived, in order. Two kinds of sender, both real:
// the windowed one is acknowledged every quarter window and never runs more
// than a window ahead (a program that paces itself); the unwindowed one
// posts as fast as the library takes the messages (a program that does
// not). Bus and relay use the same senders, window and tally.
#pragma once

#include "common.h"
#include "options.h"

#include <cstdint>

namespace UlmarCommsBench {

struct RelayLink;

// The window of one-way messages a sender may run ahead: about 8 MiB of
// frames, far below a link's bound. Both ends derive it from the options.
unsigned oneWayWindow(const Options& options);

// How often a receiver acknowledges one-way messages.
unsigned ackEvery(const Options& options);

// A receiver's count of one-way messages and whether they came in order.
struct OneWayTally {
    uint64_t received = 0; // messages counted since the last reset
    uint64_t expected = 1; // the sequence number due next
    bool inOrder = true; // every message carried the number due
    unsigned ackInterval = 1; // acknowledge every this many messages

    // Counts the message numbered sequence; true when an acknowledgement is due.
    bool count(uint64_t sequence);
    // Starts afresh for the next run.
    void reset();
};

// The relay client's one-way run over link: oneway_* figures.
bool relayOneWay(RelayLink& link, const Options& options, Figures& figures);

// The relay client's unwindowed one-way run over link (blocking writes, no
// acknowledgements): oneway_unwindowed_* figures.
bool relayOneWayUnwindowed(RelayLink& link, const Options& options, Figures& figures);

} // namespace UlmarCommsBench
