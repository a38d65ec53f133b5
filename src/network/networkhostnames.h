// The network router's table of host names: each name a peer announced or
// named in a hello, with the id the routing table keys on and when it was
// last heard.
//
// The table is bounded (Limits::NetworkHostNames) and names leave it: the
// router forgets a name once nothing binds it any more, and when the table
// is full a new name takes the place of the oldest name the router lets go
// (never one with a live link, which the router decides: the table does not
// know the routing table). Ids run 1, 2, 3 ... in order of first sight; a
// name that comes back after being forgotten gets a new id, so a host's id
// never comes to mean another host while anything still holds it.
//
// No lock of its own: the router's lock guards it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace UlmarComms {

class NetworkHostNames {
public:
    using Clock = std::chrono::steady_clock;

    // A table of at most capacity names.
    explicit NetworkHostNames(size_t capacity);

    // Whether a peer's name may be kept at all: not empty, within maxLength
    // bytes, and without a NUL (which would make two names print alike).
    static bool acceptable(const std::string& name, size_t maxLength);

    // The id of a known name, 0 for an unknown one.
    int32_t idOf(const std::string& name) const;
    // The name of an id, or "<unknown>".
    std::string nameOf(int32_t id) const;
    // When the name was last heard (added, touched, or looked up by add); a
    // default time point for an unknown id.
    Clock::time_point lastHeard(int32_t id) const;
    // Marks a known name as heard now.
    void touch(int32_t id, Clock::time_point now);
    // The id of name, registering it when new and marking it heard now.
    // When the table is full, the oldest name that mayForget lets go is
    // forgotten first and its id written to forgotten; 0 when no name may go.
    int32_t add(const std::string& name, Clock::time_point now, const std::function<bool(int32_t)>& mayForget,
                int32_t& forgotten);
    // Forgets every name that gone says has gone; the ids forgotten.
    std::vector<int32_t> forgetIf(const std::function<bool(int32_t)>& gone);
    // Whether the table holds as many names as it may.
    bool full() const { return m_byName.size() >= m_capacity; }
    // The number of names.
    size_t size() const { return m_byName.size(); }
    // Every name, in name order.
    std::vector<std::string> names() const;

private:
    struct Host {
        int32_t id;
        Clock::time_point lastHeard;
    };

    // The next id not in use.
    int32_t takeNextId();
    // Forgets the name of an id; false when it is not known.
    bool forget(int32_t id);

    size_t m_capacity;
    int32_t m_nextId;
    std::map<std::string, Host> m_byName;
    std::map<int32_t, std::string> m_byId;
};

} // namespace UlmarComms
