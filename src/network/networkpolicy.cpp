// CIDR parsing and matching. inet_pton takes exactly four decimal parts, so
// shorthand forms ("10.1") are refused rather than read in some other way.
#include "network/networkpolicy.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>

namespace UlmarComms {

namespace {

std::string trimmed(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return std::string();
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool parseAddress(const std::string& text, uint32_t& address)
{
    in_addr parsed{};
    if (text.empty() || inet_pton(AF_INET, text.c_str(), &parsed) != 1)
        return false;
    address = ntohl(parsed.s_addr);
    return true;
}

bool parsePrefix(const std::string& text, unsigned& prefix)
{
    if (text.empty() || text.size() > 2)
        return false;
    for (char c : text)
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
    prefix = static_cast<unsigned>(std::stoul(text));
    return prefix <= 32;
}

std::string addressText(uint32_t address)
{
    return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xFF) + "." +
        std::to_string((address >> 8) & 0xFF) + "." + std::to_string(address & 0xFF);
}

} // namespace

uint32_t Ip4Network::mask() const
{
    return prefix == 0 ? 0u : ~uint32_t{0} << (32 - prefix);
}

bool Ip4Network::contains(uint32_t hostOrderAddress) const
{
    return (hostOrderAddress & mask()) == address;
}

std::string Ip4Network::asString() const
{
    return addressText(address) + "/" + std::to_string(prefix);
}

bool parseIp4Network(const std::string& text, Ip4Network& network, std::string& error)
{
    const std::string item = trimmed(text);
    const size_t slash = item.find('/');
    const std::string addressPart = item.substr(0, slash);
    uint32_t address = 0;
    if (!parseAddress(addressPart, address)) {
        error = "'" + item + "' is not an IPv4 network: '" + addressPart + "' is not a dotted IPv4 address";
        return false;
    }
    unsigned prefix = 32;
    if (slash != std::string::npos && !parsePrefix(item.substr(slash + 1), prefix)) {
        error = "'" + item + "' is not an IPv4 network: the prefix length must be a number from 0 to 32";
        return false;
    }
    Ip4Network parsed;
    parsed.prefix = prefix;
    parsed.address = address & parsed.mask();
    if (parsed.address != address) {
        error = "'" + item + "' has host bits set beyond /" + std::to_string(prefix) + "; the network is " +
            parsed.asString();
        return false;
    }
    network = parsed;
    return true;
}

bool parseIp4NetworkList(const std::string& text, std::vector<Ip4Network>& networks, std::string& error)
{
    size_t start = 0;
    while (start <= text.size()) {
        const size_t end = std::min(text.find(',', start), text.size());
        const std::string item = trimmed(text.substr(start, end - start));
        start = end + 1;
        if (item.empty())
            continue;
        Ip4Network network;
        if (!parseIp4Network(item, network, error))
            return false;
        networks.push_back(network);
    }
    return true;
}

bool ip4NetworkFromBroadcast(uint32_t network, uint32_t broadcast, Ip4Network& out)
{
    const uint32_t hostBits = network ^ broadcast;
    // The host bits must be a run of low ones (0, 1, 3, 7 ...).
    if ((hostBits & (hostBits + 1)) != 0 || (network & hostBits) != 0)
        return false;
    unsigned prefix = 32;
    for (uint32_t bits = hostBits; bits != 0; bits >>= 1)
        --prefix;
    out.address = network;
    out.prefix = prefix;
    return true;
}

NetworkPolicy::NetworkPolicy() : m_any(false)
{
    Ip4Network loopback;
    loopback.address = 0x7F000000u;
    loopback.prefix = 8;
    m_networks.push_back(loopback);
}

void NetworkPolicy::allow(const Ip4Network& network)
{
    const bool listed = std::any_of(m_networks.begin(), m_networks.end(), [&](const Ip4Network& known) {
        return known.address == network.address && known.prefix == network.prefix;
    });
    if (!listed)
        m_networks.push_back(network);
}

bool NetworkPolicy::allows(uint32_t hostOrderAddress) const
{
    if (m_any)
        return true;
    return std::any_of(m_networks.begin(), m_networks.end(),
                       [&](const Ip4Network& network) { return network.contains(hostOrderAddress); });
}

std::string NetworkPolicy::describe() const
{
    if (m_any)
        return "any";
    std::string text;
    for (const Ip4Network& network : m_networks)
        text += (text.empty() ? "" : ",") + network.asString();
    return text;
}

} // namespace UlmarComms
