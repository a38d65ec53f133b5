// Heap trimming after large frees; see memorytrim.h. malloc_trim is the C
// library's own call and exists only there, so elsewhere tick() only keeps
// the count.
#include "core/memorytrim.h"

#include <atomic>
#include <chrono>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace UlmarComms::MemoryTrim {

namespace {

std::atomic<uint64_t> s_freed{0};
std::atomic<int64_t> s_lastTrimMs{0};

int64_t nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

void released(uint64_t bytes)
{
    s_freed.fetch_add(bytes, std::memory_order_relaxed);
}

bool tick()
{
    if (s_freed.load(std::memory_order_relaxed) < TrimThresholdBytes)
        return false;
    const int64_t now = nowMs();
    int64_t last = s_lastTrimMs.load(std::memory_order_relaxed);
    if (now - last < 1000)
        return false;
    // The worker that moves the time on is the one that trims.
    if (!s_lastTrimMs.compare_exchange_strong(last, now, std::memory_order_relaxed))
        return false;
    s_freed.store(0, std::memory_order_relaxed);
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
    return true;
}

} // namespace UlmarComms::MemoryTrim
