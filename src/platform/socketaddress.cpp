// Socket address text forms, name lookup, serialised forms and the listing of
// local interfaces.
#include "platform/socketaddress.h"

#include "core/limits.h"
#include "platform/socket.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>

namespace UlmarCommsSystem {

namespace {

const unsigned IP4AddressSize = sizeof(sockaddr_in); // 16
const unsigned IP6AddressSize = sizeof(sockaddr_in6); // 28
const unsigned UNIXAddressSize = sizeof(sockaddr_un); // 110
const unsigned BufferFormSize = 7;

// Decimal port text; anything unparsable or out of range gives 0.
unsigned short parsePort(const std::string& text)
{
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (end == text.c_str() || value > 0xFFFFu)
        return 0;
    return static_cast<unsigned short>(value);
}

} // namespace

SocketAddress::SocketAddress()
{
    clear();
}

SocketAddress::SocketAddress(const sockaddr& address)
{
    copy(address);
}

SocketAddress& SocketAddress::operator=(const sockaddr& address)
{
    copy(address);
    return *this;
}

void SocketAddress::clear()
{
    std::memset(&m_storage, 0, sizeof(m_storage));
}

const sockaddr_in* SocketAddress::ip4() const
{
    return reinterpret_cast<const sockaddr_in*>(&m_storage);
}

sockaddr_in* SocketAddress::ip4()
{
    return reinterpret_cast<sockaddr_in*>(&m_storage);
}

const sockaddr_un* SocketAddress::unixAddress() const
{
    return reinterpret_cast<const sockaddr_un*>(&m_storage);
}

bool SocketAddress::setIP4Address(const std::string& host, const std::string& port)
{
    if (host.empty() && port.empty())
        return false;
    if (host == "*" || host == "broadcast") {
        clear();
        ip4()->sin_family = AF_INET;
        ip4()->sin_addr.s_addr = htonl(host == "*" ? INADDR_ANY : INADDR_BROADCAST);
        ip4()->sin_port = htons(parsePort(port));
    } else {
        addrinfo hints;
        std::memset(&hints, 0, sizeof(hints));
        hints.ai_family = AF_INET;
        addrinfo* found = nullptr;
        if (getaddrinfo(host.empty() ? nullptr : host.c_str(), port.empty() ? nullptr : port.c_str(), &hints, &found) !=
                0 ||
            found == nullptr)
            return false;
        clear();
        std::memcpy(&m_storage, found->ai_addr, IP4AddressSize);
        freeaddrinfo(found);
    }
    // Resolving a name ends with this trace on standard output, misspelling
    // included; it is part of what the program prints and stays as is.
    std::printf("Doen with it\n");
    return true;
}

bool SocketAddress::getIP4Address(std::string& host, std::string& port) const
{
    if (!isIP4Address())
        return false;
    // The re-entrant form: lookups may run on several threads at once.
    hostent entry;
    hostent* result = nullptr;
    char scratch[2048];
    int lookupError = 0;
    if (gethostbyaddr_r(&ip4()->sin_addr, sizeof(in_addr), AF_INET, &entry, scratch, sizeof(scratch), &result,
                        &lookupError) != 0 ||
        result == nullptr || result->h_name == nullptr)
        return false;
    host = result->h_name;
    port = std::to_string(getPort());
    return true;
}

bool SocketAddress::setUNIXAddress(const std::string& name, const std::string& /*extra*/)
{
    clear();
    sockaddr_un* address = reinterpret_cast<sockaddr_un*>(&m_storage);
    address->sun_family = AF_UNIX;
    // The first byte stays 0: the name lives in the abstract namespace and
    // the rest of the path stays NUL-padded, which is part of the name.
    std::snprintf(address->sun_path + 1, sizeof(address->sun_path) - 1, "__%s.sock", name.c_str());
    // Less the leading NUL and snprintf's closing one.
    static_assert(sizeof(address->sun_path) - 2 - (sizeof("__.sock") - 1) == UlmarComms::Limits::PipeNameBytes,
                  "the longest pipe name kept whole");
    return true;
}

bool SocketAddress::setIP6Address(const std::string&, const std::string&)
{
    return false;
}

bool SocketAddress::getIP6Address(std::string&, std::string&) const
{
    return false;
}

bool SocketAddress::isIP6Address() const
{
    return false;
}

bool SocketAddress::setWin32NamedPipeAddress(const std::string&)
{
    return false;
}

bool SocketAddress::isWin32NamedPipeAddress() const
{
    return false;
}

void SocketAddress::setPort(unsigned short port)
{
    if (isIP4Address())
        ip4()->sin_port = htons(port);
}

bool SocketAddress::setPort(const std::string& port)
{
    if (!isIP4Address())
        return false;
    ip4()->sin_port = htons(parsePort(port));
    return true;
}

unsigned short SocketAddress::getPort() const
{
    return isIP4Address() ? ntohs(ip4()->sin_port) : 0;
}

uint32_t SocketAddress::getIP4HostOrder() const
{
    return isIP4Address() ? ntohl(ip4()->sin_addr.s_addr) : 0;
}

std::string SocketAddress::asString() const
{
    char text[160];
    if (isIP4Address()) {
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&ip4()->sin_addr);
        std::snprintf(text, sizeof(text), "%u.%u.%u.%u:%d", bytes[0], bytes[1], bytes[2], bytes[3],
                      static_cast<int>(getPort()));
        return text;
    }
    if (isUNIXAddress()) {
        const char* path = unixAddress()->sun_path;
        // Bounded copies: a path read from the system need not be terminated.
        const size_t room = sizeof(unixAddress()->sun_path);
        if (path[0] == 0)
            return "#" + std::string(path + 1, strnlen(path + 1, room - 1));
        return std::string(path, strnlen(path, room));
    }
    return "Needs Defining";
}

bool SocketAddress::match(const SocketAddress& other, bool withPort) const
{
    if (!isIP4Address() || !other.isIP4Address())
        return false;
    if (ip4()->sin_addr.s_addr != other.ip4()->sin_addr.s_addr)
        return false;
    return !withPort || ip4()->sin_port == other.ip4()->sin_port;
}

bool SocketAddress::isValid() const
{
    return isIP4Address() || isUNIXAddress();
}

bool SocketAddress::isIP4Address() const
{
    return m_storage.ss_family == AF_INET;
}

bool SocketAddress::isUNIXAddress() const
{
    return m_storage.ss_family == AF_UNIX;
}

unsigned short SocketAddress::getFamily() const
{
    return m_storage.ss_family;
}

const sockaddr* SocketAddress::getAddress() const
{
    return reinterpret_cast<const sockaddr*>(&m_storage);
}

sockaddr* SocketAddress::getAddress()
{
    return reinterpret_cast<sockaddr*>(&m_storage);
}

unsigned SocketAddress::getAddressSize() const
{
    if (isIP4Address())
        return IP4AddressSize;
    if (isUNIXAddress())
        return UNIXAddressSize;
    return 0;
}

unsigned SocketAddress::getAddressSizeOfSocketType(const Socket* socket)
{
    if (socket == nullptr)
        return 0;
    switch (socket->getFamily()) {
    case AF_INET: return IP4AddressSize;
    case AF_INET6: return IP6AddressSize;
    case AF_UNIX: return UNIXAddressSize;
    default: return 0;
    }
}

void SocketAddress::copy(const sockaddr& address)
{
    if (!setAddressByFamily(&address, address.sa_family))
        clear();
}

bool SocketAddress::setAddressByFamily(const sockaddr* address, int family)
{
    if (address == nullptr)
        return false;
    unsigned size = 0;
    if (family == AF_UNIX)
        size = UNIXAddressSize;
    else if (family == AF_INET)
        size = IP4AddressSize;
    else
        return false;
    clear();
    std::memcpy(&m_storage, address, size);
    m_storage.ss_family = static_cast<sa_family_t>(family);
    return true;
}

bool SocketAddress::toBuffer(unsigned& written, unsigned char* buffer, unsigned capacity) const
{
    if (buffer == nullptr) {
        written = BufferFormSize;
        return true;
    }
    // One byte more than is written is deliberately demanded: a buffer of
    // exactly the written size is refused.
    if (capacity < BufferFormSize + 1 || !isIP4Address()) {
        written = 0;
        return false;
    }
    buffer[0] = AF_INET;
    std::memcpy(buffer + 1, &ip4()->sin_port, 2);
    std::memcpy(buffer + 3, &ip4()->sin_addr, 4);
    written = BufferFormSize;
    return true;
}

bool SocketAddress::fromBuffer(const unsigned char* buffer, unsigned size)
{
    if (buffer == nullptr || size < BufferFormSize || buffer[0] != AF_INET)
        return false;
    clear();
    ip4()->sin_family = AF_INET;
    std::memcpy(&ip4()->sin_port, buffer + 1, 2);
    std::memcpy(&ip4()->sin_addr, buffer + 3, 4);
    return true;
}

NetworkInterface::NetworkInterface() : m_flags(0)
{
}

void NetworkInterface::clear()
{
    m_address.clear();
    m_netmask.clear();
    m_broadcast.clear();
    m_network.clear();
    m_flags = 0;
    m_name.clear();
}

std::vector<NetworkInterface> NetworkInterface::interfaces()
{
    std::vector<NetworkInterface> result;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return result;
    for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET)
            continue;
        NetworkInterface item;
        item.m_name = entry->ifa_name != nullptr ? entry->ifa_name : "";
        item.m_flags = entry->ifa_flags;
        item.m_address.copy(*entry->ifa_addr);
        if (entry->ifa_netmask != nullptr)
            item.m_netmask.setAddressByFamily(entry->ifa_netmask, AF_INET);
        if ((entry->ifa_flags & IFF_BROADCAST) != 0 && entry->ifa_broadaddr != nullptr)
            item.m_broadcast.copy(*entry->ifa_broadaddr);
        const sockaddr_in* address = reinterpret_cast<const sockaddr_in*>(item.m_address.getAddress());
        const sockaddr_in* mask = reinterpret_cast<const sockaddr_in*>(item.m_netmask.getAddress());
        sockaddr_in network;
        std::memset(&network, 0, sizeof(network));
        network.sin_family = AF_INET;
        network.sin_addr.s_addr = address->sin_addr.s_addr & mask->sin_addr.s_addr;
        item.m_network.copy(*reinterpret_cast<const sockaddr*>(&network));
        result.push_back(item);
    }
    freeifaddrs(list);
    return result;
}

bool NetworkInterface::matchOnAddress(const std::vector<SocketAddress>& addresses) const
{
    for (const SocketAddress& candidate : addresses)
        if (m_address.match(candidate, false))
            return true;
    return false;
}

bool NetworkInterface::matchOnNetwork(const std::vector<SocketAddress>& networks) const
{
    for (const SocketAddress& candidate : networks)
        if (m_network.match(candidate, false))
            return true;
    return false;
}

bool NetworkInterface::isUp() const
{
    return (m_flags & IFF_UP) != 0;
}

bool NetworkInterface::isLoopback() const
{
    return (m_flags & IFF_LOOPBACK) != 0;
}

bool NetworkInterface::supportsBroadcast() const
{
    return (m_flags & IFF_BROADCAST) != 0;
}

bool NetworkInterface::supportsMulticast() const
{
    return (m_flags & IFF_MULTICAST) != 0;
}

} // namespace UlmarCommsSystem
