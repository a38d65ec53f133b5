// Which IPv4 networks the network router trusts: the one place that decides
// whether a link or a discovery datagram from an address is taken.
//
// A policy is a list of networks (address and prefix length) plus an "any"
// switch. The router builds one at start from loopback, the subnet of every
// interface it broadcasts on, the networks listed in
// "ulmar.networkrouter.ip4.allow" (added to those, never replacing them) and
// "ulmar.networkrouter.ip4.allow.any", and hands each interface a copy before
// the interface starts; afterwards it is only read, so it needs no lock.
//
// Parsing is strict and says what is wrong: "10.1.2.0/24" or a bare address
// (a /32); a prefix above 32, a malformed address or host bits set beyond
// the prefix ("10.1.2.3/24") are errors, not guesses. The code here uses no
// other part of the library, so the daemon checks its options with it before
// it starts anything.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace UlmarComms {

// One IPv4 network; addresses are in host byte order.
struct Ip4Network {
    uint32_t address = 0;
    unsigned prefix = 0;

    // The netmask of the prefix (0 for /0).
    uint32_t mask() const;
    // Whether an address lies in the network.
    bool contains(uint32_t hostOrderAddress) const;
    // "a.b.c.d/n".
    std::string asString() const;
};

// Parses "a.b.c.d/n" or "a.b.c.d"; false with a reason in error.
bool parseIp4Network(const std::string& text, Ip4Network& network, std::string& error);
// Parses a ','-separated list (blanks around items and empty items ignored);
// false with the reason for the first bad item.
bool parseIp4NetworkList(const std::string& text, std::vector<Ip4Network>& networks, std::string& error);
// The network whose network and broadcast addresses these are; false when
// they do not describe one (the host bits are not a run of low ones).
bool ip4NetworkFromBroadcast(uint32_t network, uint32_t broadcast, Ip4Network& out);

class NetworkPolicy {
public:
    // Loopback (127.0.0.0/8) only.
    NetworkPolicy();

    // Trusts a network too (a network already listed is not added twice).
    void allow(const Ip4Network& network);
    // Trusts every address, or goes back to the list.
    void allowAny(bool any) { m_any = any; }
    // Whether an address may reach us.
    bool allows(uint32_t hostOrderAddress) const;
    // The networks trusted, loopback first.
    const std::vector<Ip4Network>& networks() const { return m_networks; }
    // Whether every address is trusted.
    bool allowsAny() const { return m_any; }
    // "any", or the networks joined by ",", for log lines.
    std::string describe() const;

private:
    std::vector<Ip4Network> m_networks;
    bool m_any;
};

} // namespace UlmarComms
