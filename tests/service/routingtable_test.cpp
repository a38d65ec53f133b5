// The indexed routing table against a plain scan of the same entries:
// random registrations and removals over a small alphabet (so that prefixes,
// case variants and ties are frequent), checking every kind of lookup after
// each step. The seeds are fixed, so a failure repeats.
#include "service/routingtable.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using UlmarComms::Address;
using UlmarComms::IMessageRouter;
using UlmarCommsService::RoutingEntry;
using UlmarCommsService::RoutingTable;

namespace {

// The table as the scan sees it: entries in table order.
struct Reference {
    std::vector<RoutingEntry*> entries;

    RoutingEntry* best(const Address& address) const
    {
        RoutingEntry* best = nullptr;
        int bestScore = -1;
        for (RoutingEntry* entry : entries) {
            int score = -1;
            if (entry->address.match(address, score) && score > bestScore) {
                best = entry;
                bestScore = score;
            }
        }
        return best;
    }
    RoutingEntry* firstEqual(const Address& address) const
    {
        for (RoutingEntry* entry : entries) {
            if (entry->address == address)
                return entry;
        }
        return nullptr;
    }
    RoutingEntry* firstMatchNotOwnedBy(const Address& address, unsigned uid) const
    {
        for (RoutingEntry* entry : entries) {
            int score = -1;
            if (entry->owner != uid && entry->address.match(address, score))
                return entry;
        }
        return nullptr;
    }
    void erase(const RoutingEntry* entry) { std::erase(entries, entry); }
};

// A random path of 0 to 3 names from a few that share letters and case.
std::string randomPath(std::mt19937& random)
{
    static const char* const names[] = {"a", "A", "b", "ab", "aB", "c"};
    std::uniform_int_distribution<int> depth(0, 3);
    std::uniform_int_distribution<size_t> pick(0, std::size(names) - 1);
    std::string path;
    const int count = depth(random) == 0 && depth(random) == 0 ? 0 : 1 + depth(random) % 3;
    for (int i = 0; i < count; ++i)
        path += std::string(i == 0 ? "" : "/") + names[pick(random)];
    return "alpha@" + path;
}

IMessageRouter* fakeRouter(int n)
{
    return reinterpret_cast<IMessageRouter*>(static_cast<uintptr_t>(0x1000 + 0x10 * n));
}

void expectSameLookups(const RoutingTable& table, const Reference& reference, std::mt19937& random)
{
    ASSERT_EQ(table.size(), reference.entries.size());
    for (int i = 0; i < 8; ++i) {
        const Address query(randomPath(random));
        const unsigned uid = static_cast<unsigned>(random() % 3);
        EXPECT_EQ(table.best(query), reference.best(query)) << query.toString();
        EXPECT_EQ(table.firstEqual(query), reference.firstEqual(query)) << query.toString();
        EXPECT_EQ(table.firstMatchNotOwnedBy(query, uid), reference.firstMatchNotOwnedBy(query, uid))
            << query.toString() << " uid " << uid;
    }
    size_t position = 0;
    for (const auto& [sequence, entry] : table.entries())
        EXPECT_EQ(entry, reference.entries.at(position++));
}

} // namespace

TEST(RoutingTable, LookupsEqualAScanOverRandomChanges)
{
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::mt19937 random(seed);
        RoutingTable table;
        Reference reference;
        for (int step = 0; step < 300; ++step) {
            const int action = static_cast<int>(random() % 10);
            if (action < 5) {
                RoutingEntry* added =
                    table.append(Address(randomPath(random)), fakeRouter(static_cast<int>(random() % 3)),
                                 static_cast<unsigned>(random() % 3));
                reference.entries.push_back(added);
            } else if (action < 7 && !reference.entries.empty()) {
                RoutingEntry* doomed = reference.entries[random() % reference.entries.size()];
                reference.erase(doomed);
                table.erase(doomed);
            } else if (action < 9 && !reference.entries.empty()) {
                RoutingEntry* changed = reference.entries[random() % reference.entries.size()];
                table.assign(changed, fakeRouter(static_cast<int>(random() % 3)), static_cast<unsigned>(random() % 3));
            } else {
                IMessageRouter* router = fakeRouter(static_cast<int>(random() % 3));
                size_t held = 0;
                for (RoutingEntry* entry : reference.entries)
                    held += entry->router == router ? 1 : 0;
                EXPECT_EQ(table.countFor(router), held);
                std::erase_if(reference.entries, [router](RoutingEntry* entry) { return entry->router == router; });
                table.eraseRouter(router);
                EXPECT_EQ(table.countFor(router), 0u);
            }
            expectSameLookups(table, reference, random);
            if (HasFailure())
                return;
        }
    }
}
