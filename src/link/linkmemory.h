// The memory accounts of the service's local links.
//
// Every accepted link charges what it holds (its queued frames, the frame it
// is receiving) to its own accounts, to the account of the user behind it
// and to the service's account, each with its bound from core/limits.h or
// its setting. The listener asks this object for a link's parent account;
// user accounts live as long as a link of theirs does, so the map never
// holds more users than there are links, plus the ones whose last link has
// just gone (pruned on the next lookup).
//
// Threads: accountFor runs on the selector worker that accepts a link; its
// lock guards the map only and takes no other lock.
#pragma once

#include "core/byteaccount.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace UlmarComms {

class LinkMemory {
public:
    // Bounds from the ulmar.systemrouter.memory* settings, their defaults
    // from core/limits.h.
    LinkMemory();

    // The account a link of user uid charges as its parent (the user's,
    // which charges the service's); made on first use.
    std::shared_ptr<ByteAccount> accountFor(unsigned uid);
    // The bound of one link's queue.
    uint64_t linkLimit() const { return m_linkLimit; }
    // The whole service's account, which every user's account charges.
    std::shared_ptr<ByteAccount> serviceAccount() const { return m_pService; }

private:
    const uint64_t m_linkLimit;
    const uint64_t m_userLimit;
    const std::shared_ptr<ByteAccount> m_pService;
    // Guards m_users.
    std::mutex m_lock;
    std::map<unsigned, std::weak_ptr<ByteAccount>> m_users;
};

} // namespace UlmarComms
