// The system router's table of pump addresses, kept so that adding, removing
// and finding an entry cost the same with 50,000 entries as with 50.
//
// The table order (order of first registration) decides ties, so every entry
// carries a sequence number and the table is a map ordered by it. Beside it,
// a path index (core/pathindex.h) keyed by sequence number and tagged with
// each entry's owner finds the best entry, and the first one another user
// owns, without walking the table.
//
// Not thread-safe: the system router holds its table lock around every call.
#pragma once

#include "core/address.h"
#include "core/pathindex.h"

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace UlmarComms {
class IMessageRouter;
}

namespace UlmarCommsService {

// One known pump address.
struct RoutingEntry {
    // The pump's address as registered.
    UlmarComms::Address address;
    // The router that delivers to it (not owned; may be null). Changed only
    // through RoutingTable::assign, which keeps the per-router index.
    UlmarComms::IMessageRouter* router = nullptr;
    // Interface names the pump supports, as last announced.
    std::vector<std::string> interfaces;
    // The user of the router that registered it last (RoutingTable::assign).
    unsigned owner = 0;
    // Position in the table: entries are ordered by it.
    uint64_t sequence = 0;
};

class RoutingTable {
public:
    using Ordered = std::map<uint64_t, RoutingEntry*>;

    RoutingTable() = default;
    ~RoutingTable();
    RoutingTable(const RoutingTable&) = delete;
    RoutingTable& operator=(const RoutingTable&) = delete;

    // The entries in table order.
    const Ordered& entries() const { return m_ordered; }
    size_t size() const { return m_ordered.size(); }
    // The best entry for address's path (hosts are the caller's business).
    RoutingEntry* best(const UlmarComms::Address& address) const;
    // The first entry whose path equals address's byte for byte.
    RoutingEntry* firstEqual(const UlmarComms::Address& address) const;
    // The first entry that address matches (either way round) whose owner is
    // not uid, or null.
    RoutingEntry* firstMatchNotOwnedBy(const UlmarComms::Address& address, unsigned uid) const;
    // Appends an entry at the end of the table.
    RoutingEntry* append(const UlmarComms::Address& address, UlmarComms::IMessageRouter* router, unsigned owner);
    // Gives entry a new router and owner.
    void assign(RoutingEntry* entry, UlmarComms::IMessageRouter* router, unsigned owner);
    // Deletes entry; the others keep their order.
    void erase(RoutingEntry* entry);
    // Deletes every entry router delivers to.
    void eraseRouter(UlmarComms::IMessageRouter* router);
    // How many entries router delivers to.
    size_t countFor(UlmarComms::IMessageRouter* router) const;
    // Deletes every entry.
    void clear();

private:
    // Adds entry to, or takes it from, the path index.
    void index(RoutingEntry* entry);
    void unindex(const RoutingEntry* entry);

    using Paths = UlmarComms::PathIndex<RoutingEntry>;

    Ordered m_ordered;
    Paths m_paths;
    std::unordered_map<UlmarComms::IMessageRouter*, std::unordered_set<RoutingEntry*>> m_byRouter;
    uint64_t m_nextSequence = 0;
};

} // namespace UlmarCommsService
