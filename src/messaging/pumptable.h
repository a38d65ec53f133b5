// The table of a process router's pumps, with an index that finds the best
// pump for an address without walking the table.
//
// The table is an array in which a removed entry's slot is taken by the last
// entry, so removing costs the same however many pumps there are; the slot
// is an entry's place in the table, so it decides ties between equal scores
// (the earlier slot wins, as a scan from the first slot would find). The
// path index (core/pathindex.h) is keyed by slot and follows every move.
//
// Not thread-safe: the router's table lock guards it.
#pragma once

#include "core/address.h"
#include "core/pathindex.h"

#include <unordered_map>

namespace UlmarComms {

class MessagePump;

// One entry of a router's table: a pump and its parsed address.
struct MessageRouterEntry {
    // The pump's address as parsed when it joined.
    Address address;
    // The pump (not owned).
    MessagePump* pump;
};

class PumpTable {
public:
    PumpTable();
    // Frees the entries; the pumps are not touched.
    ~PumpTable();
    PumpTable(const PumpTable&) = delete;
    PumpTable& operator=(const PumpTable&) = delete;

    // Appends pump under address; false when the table cannot grow.
    bool add(MessagePump* pump, const Address& address);
    // Drops pump's first entry (the last entry takes its slot); false when
    // the pump has none.
    bool remove(const MessagePump* pump);
    // The best pump for target's path (hosts are the caller's business), or
    // null: highest score, ties to the earlier slot.
    MessagePump* best(const Address& target) const;
    // Entries in the table.
    unsigned size() const { return m_count; }
    // The pump in slot (below size()).
    MessagePump* at(unsigned slot) const { return m_entries[slot]->pump; }
    // Forgets every entry.
    void clear();

private:
    // Doubles the capacity; false without memory.
    bool grow();
    // Takes pump's slot out of m_slots; m_count when it has none.
    unsigned slotOf(const MessagePump* pump);

    MessageRouterEntry** m_entries;
    unsigned m_count;
    unsigned m_capacity;
    // Each pump's slot, so that removing one does not walk the table.
    std::unordered_map<const MessagePump*, unsigned> m_slots;
    // The entries by path, keyed by slot.
    PathIndex<MessageRouterEntry> m_index;
};

} // namespace UlmarComms
