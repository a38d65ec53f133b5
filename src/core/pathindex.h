// An index of entries by address path that finds the best match for a path
// without walking the entries, with the same result and tie order as a scan
// in table order (Address::match: prefix match of names, ignoring ASCII
// case; the highest score wins, ties go to the earlier entry).
//
// Each entry comes with its position in the table (a number: a smaller one
// comes first) and a tag (the owner's user, say; 0 when unused). Two indexes
// by case-folded path (names lower-cased in ASCII, joined by "/"; names never
// hold "/" and are never empty): "under" lists, for every leading run of
// names of every entry, the entries that begin with it; "exact" lists the
// entries whose whole path it is. Each list is ordered by position and counts
// its entries per tag.
//
// Why this is enough for the best match: an entry matches a query of k names
// with score k exactly when it begins with those k names, and with a score
// s < k exactly when its whole path is the query's first s names. So the best
// entry is the first of "under" for the whole query, else the first of
// "exact" for the longest shorter run, down to the entries without names
// (score 0). A query without names matches every entry with score 0: the
// first of the table, which the owner knows without an index.
//
// A template over the entry type, so that each table keeps its own entries;
// not thread-safe: the owner's lock guards it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace UlmarComms {

// The folded keys of the leading runs of parts: keys[i] holds i+1 names.
std::vector<std::string> foldedPrefixKeys(const std::vector<std::string>& parts);
// The folded key of all of parts, written into key (its old text is lost).
void foldKey(const std::vector<std::string>& parts, std::string& key);

template <typename Entry> class PathIndex {
public:
    // Entries of one key, in table order, each with its tag, and how many
    // entries each tag has.
    struct Bucket {
        // Position -> (entry, tag).
        std::map<uint64_t, std::pair<Entry*, unsigned>> entries;
        // Tag -> entries carrying it.
        std::unordered_map<unsigned, size_t> tags;
        // The first entry (never null: empty buckets are dropped).
        Entry* first() const { return entries.begin()->second.first; }
        // The first entry whose tag is not tag, or null.
        Entry* firstNotTagged(unsigned tag) const;
    };

    // Adds entry, whose path is parts, at position (unique among entries).
    void insert(const std::vector<std::string>& parts, uint64_t position, Entry* entry, unsigned tag = 0);
    // Takes the entry at position, whose path is parts and tag is tag, out.
    void erase(const std::vector<std::string>& parts, uint64_t position, unsigned tag = 0);
    // The best entry for a query of at least one name, or null.
    Entry* best(const std::vector<std::string>& parts) const;
    // The entries that begin with the names of key, or null.
    const Bucket* under(const std::string& key) const { return find(m_under, key); }
    // The entries whose whole path is key, or null.
    const Bucket* exact(const std::string& key) const { return find(m_exact, key); }
    // Forgets every entry.
    void clear();

private:
    using Index = std::unordered_map<std::string, Bucket>;

    static void add(Index& index, const std::string& key, uint64_t position, Entry* entry, unsigned tag);
    static void drop(Index& index, const std::string& key, uint64_t position, unsigned tag);
    static const Bucket* find(const Index& index, const std::string& key);

    Index m_under;
    Index m_exact;
};

template <typename Entry> Entry* PathIndex<Entry>::Bucket::firstNotTagged(unsigned tag) const
{
    // Counting tags spares the walk when every entry has the one tag.
    if (tags.empty() || (tags.size() == 1 && tags.begin()->first == tag))
        return nullptr;
    for (const auto& [position, tagged] : entries) {
        if (tagged.second != tag)
            return tagged.first;
    }
    return nullptr;
}

template <typename Entry>
void PathIndex<Entry>::insert(const std::vector<std::string>& parts, uint64_t position, Entry* entry, unsigned tag)
{
    const std::vector<std::string> keys = foldedPrefixKeys(parts);
    for (const std::string& key : keys)
        add(m_under, key, position, entry, tag);
    add(m_exact, keys.empty() ? std::string() : keys.back(), position, entry, tag);
}

template <typename Entry>
void PathIndex<Entry>::erase(const std::vector<std::string>& parts, uint64_t position, unsigned tag)
{
    const std::vector<std::string> keys = foldedPrefixKeys(parts);
    for (const std::string& key : keys)
        drop(m_under, key, position, tag);
    drop(m_exact, keys.empty() ? std::string() : keys.back(), position, tag);
}

template <typename Entry> Entry* PathIndex<Entry>::best(const std::vector<std::string>& parts) const
{
    if (parts.empty())
        return nullptr;
    // Every message is looked up, so the key lives in one buffer per thread
    // and a lookup allocates nothing once the buffer has held the longest
    // path. Names never hold "/", so cutting the key at its last "/" leaves
    // the key of one name fewer.
    thread_local std::string key;
    foldKey(parts, key);
    if (const Bucket* all = under(key))
        return all->first();
    // Shorter entries, longest first; the entries without names last.
    for (size_t names = parts.size() - 1; names > 0; --names) {
        key.resize(key.rfind('/'));
        if (const Bucket* whole = exact(key))
            return whole->first();
    }
    key.clear();
    const Bucket* unnamed = exact(key);
    return unnamed != nullptr ? unnamed->first() : nullptr;
}

template <typename Entry> void PathIndex<Entry>::clear()
{
    m_under.clear();
    m_exact.clear();
}

template <typename Entry>
void PathIndex<Entry>::add(Index& index, const std::string& key, uint64_t position, Entry* entry, unsigned tag)
{
    Bucket& bucket = index[key];
    // Appended entries have the highest position, so the hint makes this
    // constant for them.
    bucket.entries.emplace_hint(bucket.entries.end(), position, std::make_pair(entry, tag));
    ++bucket.tags[tag];
}

template <typename Entry>
void PathIndex<Entry>::drop(Index& index, const std::string& key, uint64_t position, unsigned tag)
{
    auto found = index.find(key);
    if (found == index.end())
        return;
    Bucket& bucket = found->second;
    if (bucket.entries.erase(position) == 0)
        return; // never added (an insert that ran out of memory part-way)
    auto counted = bucket.tags.find(tag);
    if (counted != bucket.tags.end() && --counted->second == 0)
        bucket.tags.erase(counted);
    if (bucket.entries.empty())
        index.erase(found);
}

template <typename Entry>
const typename PathIndex<Entry>::Bucket* PathIndex<Entry>::find(const Index& index, const std::string& key)
{
    auto found = index.find(key);
    return found == index.end() ? nullptr : &found->second;
}

} // namespace UlmarComms
