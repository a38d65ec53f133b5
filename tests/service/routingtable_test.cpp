// Both indexed tables (the system router's and a process router's) against
// a plain scan of the same entries in table order: random registrations and
// removals over a small alphabet (so that prefixes, case variants, paths
// without names and ties are frequent), checking every kind of lookup after
// each step. The seeds are fixed, so a failure repeats.
#include "messaging/pumptable.h"
#include "service/routingtable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

using UlmarComms::Address;
using UlmarComms::IMessageRouter;
using UlmarComms::MessagePump;
using UlmarComms::PumpTable;
using UlmarCommsService::RoutingEntry;
using UlmarCommsService::RoutingTable;

namespace {

// The best match as a scan finds it: the highest score, ties to the first.
template <typename Entries, typename AddressOf>
auto scanBest(const Entries& entries, const Address& address, AddressOf addressOf)
{
    typename Entries::value_type best{};
    int bestScore = -1;
    for (const auto& entry : entries) {
        int score = -1;
        if (addressOf(entry).match(address, score) && score > bestScore) {
            best = entry;
            bestScore = score;
        }
    }
    return best;
}

// The table as the scan sees it: entries in table order.
struct Reference {
    std::vector<RoutingEntry*> entries;

    RoutingEntry* best(const Address& address) const
    {
        return scanBest(entries, address, [](const RoutingEntry* entry) -> const Address& { return entry->address; });
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

// A random path of 0 to 3 names from a few that share letters and case,
// with a host or without one (the tables ignore hosts).
std::string randomPath(std::mt19937& random)
{
    static const char* const names[] = {"a", "A", "b", "ab", "aB", "c"};
    std::uniform_int_distribution<int> depth(0, 3);
    std::uniform_int_distribution<size_t> pick(0, std::size(names) - 1);
    std::string path;
    const int count = depth(random) == 0 && depth(random) == 0 ? 0 : 1 + depth(random) % 3;
    for (int i = 0; i < count; ++i)
        path += std::string(i == 0 ? "" : "/") + names[pick(random)];
    return random() % 4 == 0 ? path : "alpha@" + path;
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

// For each of 20 fixed seeds, a new table and reference and 300 random
// steps of step(table, reference, random); stops at the first failure.
template <typename Table, typename Scan, typename Step> void randomRuns(Step step)
{
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::mt19937 random(seed);
        Table table;
        Scan reference;
        for (int i = 0; i < 300; ++i) {
            step(table, reference, random);
            if (::testing::Test::HasFailure())
                return;
        }
    }
}

} // namespace

TEST(RoutingTable, LookupsEqualAScanOverRandomChanges)
{
    randomRuns<RoutingTable, Reference>([](RoutingTable& table, Reference& reference, std::mt19937& random) {
        const int action = static_cast<int>(random() % 10);
        if (action < 5) {
            RoutingEntry* added = table.append(Address(randomPath(random)), fakeRouter(static_cast<int>(random() % 3)),
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
    });
}

namespace {

// A process router's table as the scan sees it: a pump and its address per
// slot, the last entry taking a removed one's slot.
struct PumpReference {
    std::vector<std::pair<Address, MessagePump*>> entries;

    MessagePump* best(const Address& address) const
    {
        using Entry = std::pair<Address, MessagePump*>;
        return scanBest(entries, address, [](const Entry& entry) -> const Address& { return entry.first; }).second;
    }
    bool remove(const MessagePump* pump)
    {
        for (size_t slot = 0; slot < entries.size(); ++slot) {
            if (entries[slot].second != pump)
                continue;
            entries[slot] = entries.back();
            entries.pop_back();
            return true;
        }
        return false;
    }
};

MessagePump* fakePump(int n)
{
    return reinterpret_cast<MessagePump*>(static_cast<uintptr_t>(0x2000 + 0x10 * n));
}

} // namespace

TEST(PumpTable, BestEqualsAScanOverRandomChanges)
{
    randomRuns<PumpTable, PumpReference>([](PumpTable& table, PumpReference& reference, std::mt19937& random) {
        // Few pumps, so that a pump is now and then removed when it has
        // no entry; one with an entry is not added again (a pump's second
        // entry is left alone by the slot index, which is not this test's
        // subject).
        MessagePump* pump = fakePump(static_cast<int>(random() % 40));
        const bool present = std::any_of(reference.entries.begin(), reference.entries.end(),
                                         [pump](const auto& entry) { return entry.second == pump; });
        if (!present && random() % 10 < 6) {
            const Address address(randomPath(random));
            ASSERT_TRUE(table.add(pump, address));
            reference.entries.emplace_back(address, pump);
        } else {
            EXPECT_EQ(table.remove(pump), reference.remove(pump));
        }
        ASSERT_EQ(table.size(), reference.entries.size());
        for (unsigned slot = 0; slot < table.size(); ++slot)
            EXPECT_EQ(table.at(slot), reference.entries[slot].second) << "slot " << slot;
        for (int i = 0; i < 8; ++i) {
            const Address query(randomPath(random));
            EXPECT_EQ(table.best(query), reference.best(query)) << query.toString();
        }
    });
}
