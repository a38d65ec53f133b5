// The reaper: sections counted in two slots, and the objects handed over.
//
// Why a destroyed object cannot be in use. An object is handed over only
// after it was made unreachable; a section finds objects only after it has
// counted and validated itself, through locks or atomics that order the
// finding against the unpublishing. So a section that still uses an object
// of a batch was validated before the batch's move. The move to slot 1-c
// happens only while slot 1-c is empty, so a section validated before the
// move (current was c when it checked) is counted in slot c: the sections
// validated in 1-c before the previous move had all left, or the move would
// not have happened. The batch is destroyed once slot c is seen empty, which
// happens after the move in the single order of these sequentially
// consistent operations, so that section has left.
//
// The progress of the reaper always depends on the slot that is not
// current: the batch waiting waits for it, and the next move needs it empty.
// Leaving it empty is what kicks a worker, and what wakes a thread in
// synchronize() or drain(); those threads run reap() themselves too, so they
// finish even without a worker.
#include "platform/socketreaper.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace UlmarCommsSystem {

namespace {

struct Entry {
    SocketReaper::Destroy destroy;
    void* object;
};

std::atomic<unsigned> current{0};
std::atomic<uint64_t> readers[2];

// Guards the two lists; never held while an object is destroyed.
std::mutex listLock;
// Handed over since the last move.
std::vector<Entry> incoming;
// Handed over before the last move: due once the slot not current is empty.
std::vector<Entry> waiting;
// Entries in the two lists (changed under the list lock).
std::atomic<uint64_t> listed{0};
// Entries handed over and not yet destroyed.
std::atomic<uint64_t> pendingCount{0};

std::atomic<void (*)()> kick{nullptr};

// Threads in synchronize() or drain() sleep on this until the slot not
// current empties or their object is destroyed.
std::mutex progressLock;
std::condition_variable progress;
std::atomic<unsigned> sleepers{0};

void wakeSleepers()
{
    if (sleepers.load() == 0)
        return;
    {
        // Taken so that a sleeper between its check and its wait is not missed.
        std::lock_guard<std::mutex> locker(progressLock);
    }
    progress.notify_all();
}

void leaveSlot(unsigned slot)
{
    if (readers[slot].fetch_sub(1) != 1 || slot == current.load())
        return;
    wakeSleepers();
    if (listed.load() == 0)
        return;
    if (void (*wake)() = kick.load())
        wake();
}

// Starts the wait for what came in, when nothing else is waiting and the
// slot not current is empty (list lock held): sections that begin from now
// on no longer hold it back.
void advance()
{
    const unsigned now = current.load();
    if (!waiting.empty() || incoming.empty() || readers[1 - now].load() != 0)
        return;
    waiting.swap(incoming);
    current.store(1 - now);
}

// Takes what is due (list lock held); moves the slot on when it may.
void collectDue(std::vector<Entry>& due)
{
    for (;;) {
        const unsigned now = current.load();
        if (readers[1 - now].load() != 0)
            return;
        if (!waiting.empty()) {
            due.insert(due.end(), waiting.begin(), waiting.end());
            listed.fetch_sub(waiting.size());
            waiting.clear();
        }
        if (incoming.empty())
            return;
        waiting.swap(incoming);
        current.store(1 - now);
    }
}

// Whether reap() would find something to do.
bool mayProgress()
{
    return listed.load() > 0 && readers[1 - current.load()].load() == 0;
}

// Runs reap() until done() holds, sleeping while it could not progress; the
// caller is in no section.
template <typename Done> void reapUntil(Done done)
{
    sleepers.fetch_add(1);
    for (;;) {
        SocketReaper::reap();
        std::unique_lock<std::mutex> locker(progressLock);
        if (done())
            break;
        progress.wait(locker, [&] { return done() || mayProgress(); });
        if (done())
            break;
    }
    sleepers.fetch_sub(1);
}

// The object synchronize() hands over to learn when its turn has come.
struct Marker {
    bool done = false;
};

void markDone(void* object)
{
    {
        std::lock_guard<std::mutex> locker(progressLock);
        static_cast<Marker*>(object)->done = true;
    }
    progress.notify_all();
}

} // namespace

SocketReaper::Section::Section()
{
    for (;;) {
        const unsigned slot = current.load();
        readers[slot].fetch_add(1);
        // Counted in a slot the reaper has just moved away from: count again.
        if (current.load() == slot) {
            m_slot = slot;
            return;
        }
        leaveSlot(slot);
    }
}

SocketReaper::Section::~Section()
{
    leaveSlot(m_slot);
}

void SocketReaper::defer(Destroy destroy, void* object)
{
    if (destroy == nullptr || object == nullptr)
        return;
    bool first = false;
    {
        std::lock_guard<std::mutex> locker(listLock);
        incoming.push_back(Entry{destroy, object});
        listed.fetch_add(1);
        first = pendingCount.fetch_add(1) == 0;
        advance();
    }
    void (*wake)() = kick.load();
    if (wake == nullptr) {
        // No selector runs, so no worker would reap: what is due goes now.
        reap();
        return;
    }
    if (first)
        wake();
}

void SocketReaper::reap()
{
    // Destroying may hand more over (an owner releasing what it owned), and
    // what came while this thread destroyed has had no kick of its own.
    while (listed.load() > 0) {
        std::vector<Entry> due;
        {
            std::lock_guard<std::mutex> locker(listLock);
            collectDue(due);
        }
        if (due.empty())
            return;
        for (const Entry& entry : due) {
            entry.destroy(entry.object);
            pendingCount.fetch_sub(1);
        }
        wakeSleepers();
    }
}

void SocketReaper::synchronize()
{
    Marker marker;
    defer(&markDone, &marker);
    reapUntil([&] { return marker.done; });
}

void SocketReaper::drain()
{
    reapUntil([] { return pendingCount.load() == 0; });
}

uint64_t SocketReaper::pending()
{
    return pendingCount.load();
}

void SocketReaper::setKick(void (*wake)())
{
    kick = wake;
}

} // namespace UlmarCommsSystem
