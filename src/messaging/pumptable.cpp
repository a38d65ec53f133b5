// The process router's table of pumps; see pumptable.h for why slots decide
// ties and how the index follows them.
#include "messaging/pumptable.h"

#include <cstring>
#include <new>

namespace UlmarComms {

namespace {

// The table's first capacity; it then doubles, so that adding N pumps copies
// O(N) entries in all (a fixed step would copy O(N^2)).
const unsigned kTableGrowth = 10;

} // namespace

PumpTable::PumpTable() : m_entries(new MessageRouterEntry*[kTableGrowth]()), m_count(0), m_capacity(kTableGrowth)
{
}

PumpTable::~PumpTable()
{
    clear();
    delete[] m_entries;
}

bool PumpTable::grow()
{
    const unsigned capacity = m_capacity * 2;
    MessageRouterEntry** grown = new (std::nothrow) MessageRouterEntry*[capacity]();
    if (grown == nullptr)
        return false;
    std::memcpy(grown, m_entries, sizeof(MessageRouterEntry*) * m_count);
    delete[] m_entries;
    m_entries = grown;
    m_capacity = capacity;
    return true;
}

bool PumpTable::add(MessagePump* pump, const Address& address)
{
    if (m_count == m_capacity && !grow())
        return false;
    MessageRouterEntry* entry = new MessageRouterEntry{address, pump};
    try {
        m_index.insert(entry->address.parts(), m_count, entry);
    } catch (...) {
        // Out of memory part-way: no key may keep the entry.
        m_index.erase(entry->address.parts(), m_count);
        delete entry;
        throw;
    }
    m_entries[m_count] = entry;
    m_slots.emplace(pump, m_count); // a pump added twice keeps its first slot
    ++m_count;
    return true;
}

bool PumpTable::remove(const MessagePump* pump)
{
    const unsigned slot = slotOf(pump);
    if (slot >= m_count)
        return false;
    // The table's order is not kept: the last entry takes the slot.
    const unsigned last = m_count - 1;
    MessageRouterEntry* removed = m_entries[slot];
    MessageRouterEntry* moved = m_entries[last];
    m_index.erase(removed->address.parts(), slot);
    if (moved != removed) {
        m_index.erase(moved->address.parts(), last);
        m_index.insert(moved->address.parts(), slot, moved);
        auto it = m_slots.find(moved->pump);
        if (it != m_slots.end() && it->second == last)
            it->second = slot;
    }
    m_entries[slot] = moved;
    m_entries[last] = nullptr;
    m_count = last;
    delete removed;
    return true;
}

unsigned PumpTable::slotOf(const MessagePump* pump)
{
    auto it = m_slots.find(pump);
    if (it != m_slots.end()) {
        const unsigned slot = it->second;
        m_slots.erase(it);
        return slot;
    }
    // A second entry of a pump added twice has no index of its own.
    for (unsigned i = 0; i < m_count; ++i)
        if (m_entries[i]->pump == pump)
            return i;
    return m_count;
}

MessagePump* PumpTable::best(const Address& target) const
{
    // A target without names matches every entry equally: the first wins.
    if (target.parts().empty())
        return m_count != 0 ? m_entries[0]->pump : nullptr;
    const MessageRouterEntry* entry = m_index.best(target.parts());
    return entry != nullptr ? entry->pump : nullptr;
}

void PumpTable::clear()
{
    for (unsigned i = 0; i < m_count; ++i) {
        delete m_entries[i];
        m_entries[i] = nullptr;
    }
    m_count = 0;
    m_slots.clear();
    m_index.clear();
}

} // namespace UlmarComms
