// Host names: ids by name and names by id, kept in step, and the choice of
// which name goes when the table is full.
//
// Making room scans the names once (oldest first wins): it runs only when
// a new name meets a full table, and the router has already forgotten
// every name nothing binds, so a scan forgets at most one name.
#include "network/networkhostnames.h"

#include <limits>

namespace UlmarComms {

NetworkHostNames::NetworkHostNames(size_t capacity) : m_capacity(capacity), m_nextId(1)
{
}

bool NetworkHostNames::acceptable(const std::string& name, size_t maxLength)
{
    return !name.empty() && name.size() <= maxLength && name.find('\0') == std::string::npos;
}

int32_t NetworkHostNames::idOf(const std::string& name) const
{
    auto found = m_byName.find(name);
    return found != m_byName.end() ? found->second.id : 0;
}

std::string NetworkHostNames::nameOf(int32_t id) const
{
    auto found = m_byId.find(id);
    return found != m_byId.end() ? found->second : "<unknown>";
}

NetworkHostNames::Clock::time_point NetworkHostNames::lastHeard(int32_t id) const
{
    auto found = m_byId.find(id);
    if (found == m_byId.end())
        return Clock::time_point();
    return m_byName.at(found->second).lastHeard;
}

void NetworkHostNames::touch(int32_t id, Clock::time_point now)
{
    auto found = m_byId.find(id);
    if (found != m_byId.end())
        m_byName.at(found->second).lastHeard = now;
}

int32_t NetworkHostNames::add(const std::string& name, Clock::time_point now,
                              const std::function<bool(int32_t)>& mayForget, int32_t& forgotten)
{
    forgotten = 0;
    auto found = m_byName.find(name);
    if (found != m_byName.end()) {
        found->second.lastHeard = now;
        return found->second.id;
    }
    if (full()) {
        int32_t oldest = 0;
        Clock::time_point oldestHeard = Clock::time_point::max();
        for (const auto& [known, host] : m_byName) {
            if (host.lastHeard < oldestHeard && mayForget(host.id)) {
                oldest = host.id;
                oldestHeard = host.lastHeard;
            }
        }
        if (oldest == 0 || !forget(oldest))
            return 0;
        forgotten = oldest;
    }
    const int32_t id = takeNextId();
    m_byName.emplace(name, Host{id, now});
    m_byId.emplace(id, name);
    return id;
}

std::vector<int32_t> NetworkHostNames::forgetIf(const std::function<bool(int32_t)>& gone)
{
    std::vector<int32_t> ids;
    for (const auto& [id, name] : m_byId)
        if (gone(id))
            ids.push_back(id);
    for (int32_t id : ids)
        forget(id);
    return ids;
}

std::vector<std::string> NetworkHostNames::names() const
{
    std::vector<std::string> out;
    out.reserve(m_byName.size());
    for (const auto& entry : m_byName)
        out.push_back(entry.first);
    return out;
}

int32_t NetworkHostNames::takeNextId()
{
    // After 2^31 - 1 names the ids start again at 1, past those in use: a
    // forgotten id is nowhere any more, since its entries went with it.
    for (;;) {
        const int32_t id = m_nextId;
        m_nextId = id == std::numeric_limits<int32_t>::max() ? 1 : id + 1;
        if (m_byId.find(id) == m_byId.end())
            return id;
    }
}

bool NetworkHostNames::forget(int32_t id)
{
    auto found = m_byId.find(id);
    if (found == m_byId.end())
        return false;
    m_byName.erase(found->second);
    m_byId.erase(found);
    return true;
}

} // namespace UlmarComms
