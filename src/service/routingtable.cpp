// The indexed routing table; see routingtable.h for why the two indexes
// give the same best entry as a scan of the whole table.
#include "service/routingtable.h"

namespace UlmarCommsService {

using UlmarComms::Address;
using UlmarComms::IMessageRouter;

namespace {

// ASCII lower case, as the case-insensitive comparison of names folds it.
char folded(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The folded key of the first count names.
std::string keyOf(const std::vector<std::string>& parts, size_t count)
{
    std::string key;
    for (size_t i = 0; i < count; ++i) {
        if (i != 0)
            key += '/';
        for (char c : parts[i])
            key += folded(c);
    }
    return key;
}

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

bool RoutingTable::Bucket::hasOtherOwner(unsigned uid) const
{
    if (owners.size() > 1)
        return true;
    return owners.size() == 1 && owners.begin()->first != uid;
}

RoutingEntry* RoutingTable::Bucket::firstNotOwnedBy(unsigned uid) const
{
    if (!hasOtherOwner(uid))
        return nullptr;
    for (const auto& [sequence, entry] : entries) {
        if (entry->owner != uid)
            return entry;
    }
    return nullptr;
}

std::vector<std::string> RoutingTable::prefixKeys(const std::vector<std::string>& parts)
{
    std::vector<std::string> keys;
    keys.reserve(parts.size());
    std::string key;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i != 0)
            key += '/';
        for (char c : parts[i])
            key += folded(c);
        keys.push_back(key);
    }
    return keys;
}

void RoutingTable::insert(Index& index, const std::string& key, RoutingEntry* entry)
{
    Bucket& bucket = index[key];
    // New entries have the highest number, so the hint makes this constant.
    bucket.entries.emplace_hint(bucket.entries.end(), entry->sequence, entry);
    ++bucket.owners[entry->owner];
}

void RoutingTable::drop(Index& index, const std::string& key, const RoutingEntry* entry)
{
    auto found = index.find(key);
    if (found == index.end())
        return;
    Bucket& bucket = found->second;
    bucket.entries.erase(entry->sequence);
    auto owner = bucket.owners.find(entry->owner);
    if (owner != bucket.owners.end() && --owner->second == 0)
        bucket.owners.erase(owner);
    if (bucket.entries.empty())
        index.erase(found);
}

const RoutingTable::Bucket* RoutingTable::bucket(const Index& index, const std::string& key)
{
    auto found = index.find(key);
    return found == index.end() ? nullptr : &found->second;
}

void RoutingTable::index(RoutingEntry* entry)
{
    const std::vector<std::string> keys = prefixKeys(entry->address.parts());
    for (const std::string& key : keys)
        insert(m_under, key, entry);
    insert(m_exact, keys.empty() ? std::string() : keys.back(), entry);
}

void RoutingTable::unindex(const RoutingEntry* entry)
{
    const std::vector<std::string> keys = prefixKeys(entry->address.parts());
    for (const std::string& key : keys)
        drop(m_under, key, entry);
    drop(m_exact, keys.empty() ? std::string() : keys.back(), entry);
}

RoutingEntry* RoutingTable::best(const Address& address) const
{
    const std::vector<std::string>& parts = address.parts();
    if (parts.empty())
        return first(m_ordered);
    const std::vector<std::string> keys = prefixKeys(parts);
    if (const Bucket* under = bucket(m_under, keys.back()))
        return first(under->entries);
    // Shorter entries, longest first; the entries without names last.
    for (size_t names = parts.size() - 1; names > 0; --names) {
        if (const Bucket* exact = bucket(m_exact, keys[names - 1]))
            return first(exact->entries);
    }
    const Bucket* unnamed = bucket(m_exact, std::string());
    return unnamed != nullptr ? first(unnamed->entries) : nullptr;
}

RoutingEntry* RoutingTable::firstEqual(const Address& address) const
{
    const Bucket* exact = bucket(m_exact, keyOf(address.parts(), address.parts().size()));
    if (exact == nullptr)
        return nullptr;
    for (const auto& [sequence, entry] : exact->entries) {
        if (entry->address == address)
            return entry;
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
    const std::vector<std::string> keys = prefixKeys(parts);
    if (const Bucket* under = bucket(m_under, keys.back()))
        found = under->firstNotOwnedBy(uid);
    for (size_t names = 0; names < parts.size(); ++names) {
        const Bucket* exact = bucket(m_exact, names == 0 ? std::string() : keys[names - 1]);
        if (exact != nullptr)
            found = earlier(found, exact->firstNotOwnedBy(uid));
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
    m_under.clear();
    m_exact.clear();
    m_byRouter.clear();
}

} // namespace UlmarCommsService
