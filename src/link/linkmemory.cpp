// Memory accounts of the local links; see linkmemory.h.
#include "link/linkmemory.h"

#include "core/core.h"
#include "core/limits.h"

namespace UlmarComms {

namespace {

// A bound from its setting; a setting of 0 or less keeps the default.
uint64_t bound(const char* key, uint64_t fallback)
{
    const int value = Core::instance()->numberOrDefault(key);
    return value > 0 ? static_cast<uint64_t>(value) : fallback;
}

} // namespace

LinkMemory::LinkMemory()
    : m_linkLimit(bound("ulmar.systemrouter.memory.link", Limits::ServiceLinkMemoryBytes)),
      m_userLimit(bound("ulmar.systemrouter.memory.user", Limits::ServiceUserMemoryBytes)),
      m_pService(std::make_shared<ByteAccount>(bound("ulmar.systemrouter.memory", Limits::ServiceMemoryBytes), nullptr,
                                               "service"))
{
}

std::shared_ptr<ByteAccount> LinkMemory::accountFor(unsigned uid)
{
    std::lock_guard<std::mutex> locker(m_lock);
    for (auto entry = m_users.begin(); entry != m_users.end();) {
        if (entry->second.expired() && entry->first != uid)
            entry = m_users.erase(entry);
        else
            ++entry;
    }
    std::shared_ptr<ByteAccount> account = m_users[uid].lock();
    if (!account) {
        account = std::make_shared<ByteAccount>(m_userLimit, m_pService, "user");
        m_users[uid] = account;
    }
    return account;
}

} // namespace UlmarComms
