// Bytes that a peer or an application makes us hold, charged where they are
// taken on and released where they go, against one bound of core/limits.h.
//
// An account may have a parent: a link's account can charge the account of
// the user behind the link as well, so that one call charges both and one
// call releases both, and a refusal by either leaves neither charged.
//
// An empty account always takes a charge, however large: a single item over
// the bound (one frame of a link's queue, say) must still be able to move.
//
// Threads: the count is atomic, because a parent is shared by accounts used
// on different threads; each charge and release is one atomic step per
// account, with no lock.
#pragma once

#include <atomic>
#include <cstdint>

namespace UlmarComms {

class ByteAccount {
public:
    // An account bounded at limit bytes, charging parent too when one is given.
    explicit ByteAccount(uint64_t limit, ByteAccount* parent = nullptr);
    // Returns what is still charged to the parent.
    ~ByteAccount();
    ByteAccount(const ByteAccount&) = delete;
    ByteAccount& operator=(const ByteAccount&) = delete;

    // Takes bytes on; false, with nothing charged anywhere, when this account
    // or its parent holds bytes and would pass its bound.
    bool charge(uint64_t bytes);
    // Gives back bytes taken by an earlier charge, here and in the parent.
    void release(uint64_t bytes);
    // Gives back everything still charged (a link being torn down).
    void releaseAll();
    // Bytes charged now.
    uint64_t used() const { return m_used.load(std::memory_order_relaxed); }
    // The bound.
    uint64_t limit() const { return m_limit; }

private:
    // Charges this account alone; false when it would pass the bound.
    bool chargeOwn(uint64_t bytes);

    const uint64_t m_limit;
    ByteAccount* const m_pParent;
    std::atomic<uint64_t> m_used;
};

} // namespace UlmarComms
