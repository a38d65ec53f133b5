// Heap trimming after large frees; see memorytrim.h. malloc_trim is the C
// library's own call and exists only there, so elsewhere tick() only keeps
// the count.
#include "core/memorytrim.h"

#include <algorithm>
#include <atomic>
#include <chrono>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace UlmarComms::MemoryTrim {

namespace {

std::atomic<uint64_t> s_freed{0};
std::atomic<int64_t> s_lastLookMs{0};
// The heap's free bytes at their lowest since the last trim.
std::atomic<uint64_t> s_freeLow{0};

int64_t nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Bytes the allocator holds free, 0 where it cannot tell.
uint64_t heapFree()
{
#if defined(__GLIBC__)
    return mallinfo2().fordblks;
#else
    return 0;
#endif
}

} // namespace

void released(uint64_t bytes)
{
    s_freed.fetch_add(bytes, std::memory_order_relaxed);
}

bool tick()
{
    const int64_t now = nowMs();
    int64_t last = s_lastLookMs.load(std::memory_order_relaxed);
    if (now - last < 1000)
        return false;
    // The worker that moves the time on is the one that looks (and trims).
    if (!s_lastLookMs.compare_exchange_strong(last, now, std::memory_order_relaxed))
        return false;
    // Frees nobody reported (messages of a router's queue, say) show as the
    // allocator's free bytes growing past their low since the last trim.
    const uint64_t free = heapFree();
    const uint64_t low = std::min(s_freeLow.load(std::memory_order_relaxed), free);
    s_freeLow.store(low, std::memory_order_relaxed);
    if (s_freed.load(std::memory_order_relaxed) < TrimThresholdBytes && free < low + TrimThresholdBytes)
        return false;
    s_freed.store(0, std::memory_order_relaxed);
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
    // Trimmed pages still count as free: growth is measured from here.
    s_freeLow.store(free, std::memory_order_relaxed);
    return true;
}

} // namespace UlmarComms::MemoryTrim
