// Bytes that a peer or an application makes us hold, charged where they are
// taken on and released where they go, against one bound of core/limits.h.
//
// An account may have a parent: a link's account charges the account of the
// user behind the link as well, and that one the whole daemon's, so that one
// call charges every level and one call releases every level, and a refusal
// by any leaves none charged. An account given its parent as a shared
// pointer keeps the parent alive, so a link that outlives its listener still
// has somewhere to give its bytes back.
//
// An empty account always takes a charge, however large: a single item over
// the bound (one frame of a link's queue, say) must still be able to move.
// A charge may also skip this account's own bound and check only the
// parents' (the one frame being received on a link is bounded by the frame
// size, not the link's queue bound), or skip every bound (bytes already held
// that move from one account to another).
//
// Threads: the count is atomic, because a parent is shared by accounts used
// on different threads; each charge and release is one atomic step per
// account, with no lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

namespace UlmarComms {

class ByteAccount {
public:
    // Which bounds a charge respects.
    enum class Bounds {
        All, // this account's and every parent's
        ParentsOnly, // the parents' only
        None, // none: the bytes are held already
    };

    // An account bounded at limit bytes, charging parent too when one is
    // given; name says what it counts in log lines ("link", "user").
    explicit ByteAccount(uint64_t limit, ByteAccount* parent = nullptr, const char* name = "");
    // The same, keeping the parent alive for as long as this account.
    ByteAccount(uint64_t limit, std::shared_ptr<ByteAccount> parent, const char* name = "");
    // Returns what is still charged to the parent.
    ~ByteAccount();
    ByteAccount(const ByteAccount&) = delete;
    ByteAccount& operator=(const ByteAccount&) = delete;

    // Takes bytes on; false, with nothing charged anywhere, when this account
    // or its parent holds bytes and would pass its bound.
    bool charge(uint64_t bytes) { return chargeOrRefuser(bytes, Bounds::All) == nullptr; }
    // Takes bytes on within the given bounds; null when charged, else the
    // account whose bound refused them (nothing is then charged anywhere).
    const ByteAccount* chargeOrRefuser(uint64_t bytes, Bounds bounds);
    // Gives back bytes taken by an earlier charge, here and in the parent.
    void release(uint64_t bytes);
    // Gives back everything still charged (a link being torn down).
    void releaseAll();
    // Bytes charged now.
    uint64_t used() const { return m_used.load(std::memory_order_relaxed); }
    // The bound.
    uint64_t limit() const { return m_limit; }
    // What the account counts, for log lines.
    const char* name() const { return m_name; }

private:
    // Charges this account alone; false when it would pass the bound.
    bool chargeOwn(uint64_t bytes, bool bounded);

    const uint64_t m_limit;
    const std::shared_ptr<ByteAccount> m_pKeptParent;
    ByteAccount* const m_pParent;
    const char* const m_name;
    std::atomic<uint64_t> m_used;
};

// Bytes charged to an account, given back when the charge goes: for what is
// held in a container whose entries leave one by one.
class ByteCharge {
public:
    // Nothing charged.
    ByteCharge() = default;
    // Holds bytes already charged to account.
    ByteCharge(std::shared_ptr<ByteAccount> account, uint64_t bytes) : m_pAccount(std::move(account)), m_bytes(bytes) {}
    // Moves the charge; the source holds nothing afterwards.
    ByteCharge(ByteCharge&& other) noexcept : m_pAccount(std::move(other.m_pAccount)), m_bytes(other.m_bytes) {}
    ByteCharge& operator=(ByteCharge&& other) noexcept
    {
        if (this != &other) {
            giveBack();
            m_pAccount = std::move(other.m_pAccount);
            m_bytes = other.m_bytes;
        }
        return *this;
    }
    ByteCharge(const ByteCharge&) = delete;
    ByteCharge& operator=(const ByteCharge&) = delete;
    // Gives the bytes back.
    ~ByteCharge() { giveBack(); }

private:
    void giveBack()
    {
        if (m_pAccount)
            m_pAccount->release(m_bytes);
        m_pAccount.reset();
    }

    std::shared_ptr<ByteAccount> m_pAccount;
    uint64_t m_bytes = 0;
};

} // namespace UlmarComms
