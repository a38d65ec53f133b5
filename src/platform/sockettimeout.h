// The process-wide list of timer callbacks, driven by the one selector worker
// that captured it.
//
// The list is examined at most once per second, on the whole-second clock of
// Thread::tick(): an entry becomes eligible at the check after it was added
// (new entries wait in a pending list that each check merges after walking
// the active list) and fires once its due time is strictly past, so a timer
// fires between its interval and its interval plus about two seconds late.
// Entries come from blocks of 20 that are kept for the life of the process.
//
// Callbacks run on the capturing worker under the timer lock, which is
// recursive: a callback may add or remove timers, itself included. A callback
// must not wait for another thread that may be adding or removing timers.
#pragma once

#include "platform/mutex.h"

#include <vector>

namespace UlmarCommsSystem {

// Timer entries and their check.
class SocketTimeout {
public:
    // A timer callback: (data).
    typedef void (*Callback)(void* data);

    // One timer entry.
    struct TimeoutAction {
        // The next entry of the list this one is on.
        TimeoutAction* next;
        // Milliseconds between firings.
        unsigned interval;
        // Fires once and leaves the list.
        bool once;
        // Fires at the first check strictly after this tick.
        unsigned due;
        // What to call.
        Callback callback;
        // Its argument.
        void* data;
        // Removed during a check; swept to the free list when it ends.
        bool removed;
    };

    // Entries allocated together.
    static constexpr unsigned BlockSize = 20;

    // The singleton, created on first use and kept for the process.
    static SocketTimeout* instance();

    // Adds an entry due in ms; repeats every ms unless once.
    bool add(Callback callback, void* data, unsigned ms, bool once);
    // Removes matching entries; true only when a list's head matched.
    bool remove(Callback callback, void* data);
    // Makes the calling thread the one that runs the timers; false if taken.
    bool capture();
    // Gives the timers up if the calling thread holds them.
    void releaseCapture();
    // Runs the due entries, if a check is due now.
    void handle();
    // Entries (active and pending) with this callback and data.
    unsigned count(Callback callback, void* data);

private:
    SocketTimeout();
    TimeoutAction* popFree();
    void pushFree(TimeoutAction* entry);
    // Walks the active list, firing what is due at now.
    void fireDue(unsigned now);
    // Moves entries removed during the walk to the free list.
    void sweepRemoved();
    // remove() on one list; sets headMatched when its first entry matched.
    void removeFrom(TimeoutAction*& list, Callback callback, void* data, bool& headMatched);

    unsigned m_nextCheck;
    unsigned m_interval;
    int m_capturedThread;
    std::vector<TimeoutAction*> m_blocks;
    TimeoutAction* m_free;
    TimeoutAction* m_active;
    TimeoutAction* m_pending;
    Mutex m_mutex;
    bool m_handling;
};

} // namespace UlmarCommsSystem
