// The system router's table of pump addresses, kept so that adding, removing
// and finding an entry cost the same with 50,000 entries as with 50.
//
// The table order (order of first registration) decides ties, so every entry
// carries a sequence number and the table is a map ordered by it. Beside it,
// two indexes by case-folded path (names lower-cased in ASCII, joined by "/";
// names never hold "/"): "under" lists, for every leading run of names of
// every entry, the entries that begin with it; "exact" lists the entries
// whose whole path it is. Each list is ordered by sequence number and counts
// its entries per owner.
//
// Why this is enough for the best match: an entry matches a query of k names
// with score k exactly when it begins with those k names, and with a score
// s < k exactly when its whole path is the query's first s names. So the best
// entry is the first of "under" for the whole query, else the first of
// "exact" for the longest shorter run, down to the entries without names
// (score 0). A query without names matches every entry with score 0: the
// first of the table.
//
// Not thread-safe: the system router holds its table lock around every call.
#pragma once

#include "core/address.h"

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
    // Entries of one index key, in table order, and how many each user owns.
    struct Bucket {
        Ordered entries;
        std::unordered_map<unsigned, size_t> owners;
        // Whether an entry is owned by another user than uid.
        bool hasOtherOwner(unsigned uid) const;
        // The first entry owned by another user than uid, or null.
        RoutingEntry* firstNotOwnedBy(unsigned uid) const;
    };
    using Index = std::unordered_map<std::string, Bucket>;

    // The folded keys of the leading runs of parts: keys[i] holds i+1 names.
    static std::vector<std::string> prefixKeys(const std::vector<std::string>& parts);
    static void insert(Index& index, const std::string& key, RoutingEntry* entry);
    static void drop(Index& index, const std::string& key, const RoutingEntry* entry);
    static const Bucket* bucket(const Index& index, const std::string& key);
    // Adds entry to, or takes it from, both indexes.
    void index(RoutingEntry* entry);
    void unindex(const RoutingEntry* entry);

    Ordered m_ordered;
    Index m_under;
    Index m_exact;
    std::unordered_map<UlmarComms::IMessageRouter*, std::unordered_set<RoutingEntry*>> m_byRouter;
    uint64_t m_nextSequence = 0;
};

} // namespace UlmarCommsService
