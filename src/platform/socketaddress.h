// Socket addresses and the machine's network interfaces.
//
// SocketAddress is a plain value over an IPv4 or UNIX-domain address kept in
// the form the socket calls take (port and IPv4 address in network order), so
// it can be handed to bind/connect without conversion. UNIX addresses live in
// the Linux abstract namespace and are always used with the full structure
// size: the name other programs connect to is "\0__NAME.sock" padded with NULs
// to the end of the path, not just its visible characters.
//
// Two serialised forms exist for IPv4 addresses: the older 7-byte buffer form
// here, and the 8-byte written form used inside discovery datagrams, which
// belongs to the stream it is written into (framing/addressform.h).
//
// NetworkInterface is one IPv4 address of one local interface, as the system
// lists it, with its mask, broadcast and network addresses.
#pragma once

#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace UlmarCommsSystem {

class Socket;

// An IPv4 or UNIX-domain socket address (family 0 when empty).
class SocketAddress {
public:
    // The empty address.
    SocketAddress();
    // Loads from a system address (see copy()).
    explicit SocketAddress(const sockaddr& address);
    SocketAddress(const SocketAddress& other) = default;
    SocketAddress& operator=(const SocketAddress& other) = default;
    // Loads from a system address (see copy()).
    SocketAddress& operator=(const sockaddr& address);

    // Empties the address.
    void clear();

    // Host "*" is any address, "broadcast" the broadcast address, anything
    // else is resolved (IPv4 only); false when both are empty or lookup fails.
    bool setIP4Address(const std::string& host, const std::string& port);
    // Reverse lookup of the host name and the port as decimal text.
    bool getIP4Address(std::string& host, std::string& port) const;
    // The abstract-namespace address "\0__name.sock"; extra is never read.
    bool setUNIXAddress(const std::string& name, const std::string& extra = std::string());

    // IPv6 is declared only: always false.
    bool setIP6Address(const std::string& host, const std::string& port);
    // IPv6 is declared only: always false.
    bool getIP6Address(std::string& host, std::string& port) const;
    // IPv6 is declared only: always false.
    bool isIP6Address() const;
    // Named pipes of other platforms: always false.
    bool setWin32NamedPipeAddress(const std::string& name);
    // Named pipes of other platforms: always false.
    bool isWin32NamedPipeAddress() const;

    // Sets the port of an IPv4 address (host order in).
    void setPort(unsigned short port);
    // Sets the port of an IPv4 address from decimal text; false if not IPv4.
    bool setPort(const std::string& port);
    // The port of an IPv4 address in host order, 0 otherwise.
    unsigned short getPort() const;
    // The IPv4 host address in host byte order, 0 otherwise.
    uint32_t getIP4HostOrder() const;

    // "a.b.c.d:port", the UNIX path ("#name" for abstract names) or
    // "Needs Defining".
    std::string asString() const;
    // True only for two IPv4 addresses with equal hosts (and ports if asked).
    bool match(const SocketAddress& other, bool withPort) const;

    // Whether the address is IPv4 or UNIX.
    bool isValid() const;
    // Whether the family is AF_INET.
    bool isIP4Address() const;
    // Whether the family is AF_UNIX.
    bool isUNIXAddress() const;
    // The address family, 0 when empty.
    unsigned short getFamily() const;
    // The system form, for bind/connect.
    const sockaddr* getAddress() const;
    // The system form, writable.
    sockaddr* getAddress();
    // 16 for IPv4, 110 for UNIX, 0 otherwise.
    unsigned getAddressSize() const;
    // The address length for a socket's family: 16, 28 or 110, else 0.
    static unsigned getAddressSizeOfSocketType(const Socket* socket);

    // Copies 110 bytes of a UNIX or 16 of an IPv4 address; empties otherwise.
    void copy(const sockaddr& address);
    // As copy(), for a raw pointer and an explicit family; false otherwise.
    bool setAddressByFamily(const sockaddr* address, int family);

    // The 7-byte form; a null buffer only reports the size.
    bool toBuffer(unsigned& written, unsigned char* buffer, unsigned capacity) const;
    // Loads the 7-byte form.
    bool fromBuffer(const unsigned char* buffer, unsigned size);

private:
    const sockaddr_in* ip4() const;
    sockaddr_in* ip4();
    const sockaddr_un* unixAddress() const;

    sockaddr_storage m_storage;
};

// One IPv4 address of one local interface.
class NetworkInterface {
public:
    // An empty entry.
    NetworkInterface();
    NetworkInterface(const NetworkInterface& other) = default;
    NetworkInterface& operator=(const NetworkInterface& other) = default;

    // Every local interface address that is IPv4, in the system's order;
    // empty when the system cannot list them.
    static std::vector<NetworkInterface> interfaces();

    // Empties every field.
    void clear();
    // Whether the interface's address equals (port ignored) any of these.
    bool matchOnAddress(const std::vector<SocketAddress>& addresses) const;
    // Whether the interface's network address equals any of these.
    bool matchOnNetwork(const std::vector<SocketAddress>& networks) const;

    // IFF_UP.
    bool isUp() const;
    // IFF_LOOPBACK.
    bool isLoopback() const;
    // IFF_BROADCAST.
    bool supportsBroadcast() const;
    // IFF_MULTICAST.
    bool supportsMulticast() const;

    // The interface's address.
    const SocketAddress& getAddress() const { return m_address; }
    // Its netmask.
    const SocketAddress& getNetmask() const { return m_netmask; }
    // Its broadcast address (empty without broadcast support).
    const SocketAddress& getBroadcast() const { return m_broadcast; }
    // Address AND netmask, port 0.
    const SocketAddress& getNetwork() const { return m_network; }
    // The interface flags word.
    unsigned getFlags() const { return m_flags; }
    // The interface name.
    const std::string& getName() const { return m_name; }

private:
    SocketAddress m_address;
    SocketAddress m_netmask;
    SocketAddress m_broadcast;
    SocketAddress m_network;
    unsigned m_flags;
    std::string m_name;
};

} // namespace UlmarCommsSystem
