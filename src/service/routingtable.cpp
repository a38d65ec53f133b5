// The indexed routing table; see core/pathindex.h for why its index gives
// the same best entry as a scan of the whole table.
#include "service/routingtable.h"

namespace UlmarCommsService {

using UlmarComms::Address;
using UlmarComms::IMessageRouter;

namespace {

RoutingEntry* first(const RoutingTable::Ordered& entries)
{
    return entries.empty() ? nullptr : entries.begin()->second;
}

// The earlier of two entries by table order; null counts as latest.
RoutingEntry* earlier(RoutingEntry* a, RoutingEntry* b)
{
    if (a == nullptr)
        return b;
    if (b == nullptr)
        return a;
    return a->sequence < b->sequence ? a : b;
}

} // namespace

RoutingTable::~RoutingTable()
{
    clear();
}

void RoutingTable::index(RoutingEntry* entry)
{
    m_paths.insert(entry->address.parts(), entry->sequence, entry, entry->owner);
}

void RoutingTable::unindex(const RoutingEntry* entry)
{
    m_paths.erase(entry->address.parts(), entry->sequence, entry->owner);
}

RoutingEntry* RoutingTable::best(const Address& address) const
{
    if (address.parts().empty())
        return first(m_ordered);
    return m_paths.best(address.parts());
}

RoutingEntry* RoutingTable::firstEqual(const Address& address) const
{
    const std::vector<std::string> keys = UlmarComms::foldedPrefixKeys(address.parts());
    const Paths::Bucket* exact = m_paths.exact(keys.empty() ? std::string() : keys.back());
    if (exact == nullptr)
        return nullptr;
    for (const auto& [sequence, tagged] : exact->entries) {
        if (tagged.first->address == address)
            return tagged.first;
    }
    return nullptr;
}

RoutingEntry* RoutingTable::firstMatchNotOwnedBy(const Address& address, unsigned uid) const
{
    const std::vector<std::string>& parts = address.parts();
    RoutingEntry* found = nullptr;
    if (parts.empty()) {
        for (const auto& [sequence, entry] : m_ordered) {
            if (entry->owner != uid)
                return entry;
        }
        return nullptr;
    }
    // Entries that begin with the whole query, and entries whose whole path
    // is a shorter run of it (or empty): the earliest not owned by uid.
    const std::vector<std::string> keys = UlmarComms::foldedPrefixKeys(parts);
    if (const Paths::Bucket* under = m_paths.under(keys.back()))
        found = under->firstNotTagged(uid);
    for (size_t names = 0; names < parts.size(); ++names) {
        const Paths::Bucket* exact = m_paths.exact(names == 0 ? std::string() : keys[names - 1]);
        if (exact != nullptr)
            found = earlier(found, exact->firstNotTagged(uid));
    }
    return found;
}

RoutingEntry* RoutingTable::append(const Address& address, IMessageRouter* router, unsigned owner)
{
    RoutingEntry* entry = new RoutingEntry;
    entry->address = address;
    entry->router = router;
    entry->owner = owner;
    entry->sequence = m_nextSequence++;
    m_ordered.emplace_hint(m_ordered.end(), entry->sequence, entry);
    index(entry);
    m_byRouter[router].insert(entry);
    return entry;
}

void RoutingTable::assign(RoutingEntry* entry, IMessageRouter* router, unsigned owner)
{
    if (entry->owner != owner) {
        unindex(entry);
        entry->owner = owner;
        index(entry);
    }
    if (entry->router == router)
        return;
    auto listed = m_byRouter.find(entry->router);
    if (listed != m_byRouter.end()) {
        listed->second.erase(entry);
        if (listed->second.empty())
            m_byRouter.erase(listed);
    }
    entry->router = router;
    m_byRouter[router].insert(entry);
}

void RoutingTable::erase(RoutingEntry* entry)
{
    unindex(entry);
    auto listed = m_byRouter.find(entry->router);
    if (listed != m_byRouter.end()) {
        listed->second.erase(entry);
        if (listed->second.empty())
            m_byRouter.erase(listed);
    }
    m_ordered.erase(entry->sequence);
    delete entry;
}

void RoutingTable::eraseRouter(IMessageRouter* router)
{
    auto listed = m_byRouter.find(router);
    if (listed == m_byRouter.end())
        return;
    const std::unordered_set<RoutingEntry*> doomed = std::move(listed->second);
    m_byRouter.erase(listed);
    for (RoutingEntry* entry : doomed) {
        unindex(entry);
        m_ordered.erase(entry->sequence);
        delete entry;
    }
}

size_t RoutingTable::countFor(IMessageRouter* router) const
{
    auto listed = m_byRouter.find(router);
    return listed == m_byRouter.end() ? 0 : listed->second.size();
}

void RoutingTable::clear()
{
    for (const auto& [sequence, entry] : m_ordered)
        delete entry;
    m_ordered.clear();
    m_paths.clear();
    m_byRouter.clear();
}

} // namespace UlmarCommsService
