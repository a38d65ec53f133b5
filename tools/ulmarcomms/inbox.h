// The hand-over from the library's router worker thread (which runs every
// pump callback) and the signal-watching thread to the client's main thread.
//
// Callbacks push copies of what arrived and return at once; the main thread
// waits here, with a deadline where one applies, for the item it needs.
// Items it does not take stay queued in order, so an event that arrives
// while the main thread waits for a reply is not lost. An interrupt (Ctrl-C)
// wakes every wait; waits compare the interrupt count with the count they
// were given, so the goodbye step after a first Ctrl-C can still wait for
// its reply and only a second Ctrl-C cuts it short.
#pragma once

#include "ulmarcomms/received.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>

namespace UlmarCommsTools {

class Inbox {
public:
    using Clock = std::chrono::steady_clock;

    // Items kept at most; later ones are dropped until the main thread takes
    // some, so a peer flooding a pump cannot exhaust memory.
    static constexpr size_t kMaxItems = 10000;

    // How a wait ended.
    enum class Wait { Got, Interrupted, TimedOut };

    // Queues an item and wakes the waiter (any thread); false when full.
    bool push(Received item);
    // Counts an interrupt and wakes the waiter (any thread).
    void interrupt();
    // The number of interrupts so far.
    unsigned interrupts() const;
    // Waits for the first queued item that `match` accepts and moves it to
    // `out`; ends early when the interrupt count exceeds `interruptBaseline`,
    // or at `deadline` if one is given.
    Wait waitFor(const std::function<bool(const Received&)>& match, std::optional<Clock::time_point> deadline,
                 unsigned interruptBaseline, Received& out);
    // Waits only for the deadline or an interrupt (nothing is taken).
    Wait sleepUntil(Clock::time_point deadline, unsigned interruptBaseline);
    // The number of queued items.
    size_t size() const;
    // Drops every queued item (answers that came after their wait ended).
    void clear();

private:
    mutable std::mutex m_lock;
    std::condition_variable m_wake;
    std::deque<Received> m_items;
    unsigned m_interrupts = 0;
};

} // namespace UlmarCommsTools
