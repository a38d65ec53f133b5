// The concrete socket types: TCP over IPv4, stream sockets in the UNIX
// abstract namespace, and UDP datagrams. Each only names its family, type
// and protocol; the base socket does the work. A socket is retired by
// Socket::release() while the whole object, overrides included, still
// stands, so the destructors the reaper runs later have nothing left to do.
#include "platform/socket.h"

#include <sys/socket.h>

namespace UlmarCommsSystem {

// ---------------------------------------------------------------------------
// The concrete classes

SocketTCPIP::SocketTCPIP() = default;

Socket* SocketTCPIP::createOfType()
{
    return new (std::nothrow) SocketTCPIP();
}

int SocketTCPIP::getFamily() const
{
    return AF_INET;
}

int SocketTCPIP::getProtocol() const
{
    return IPPROTO_TCP;
}

int SocketTCPIP::getType() const
{
    return SOCK_STREAM;
}

SocketUNIX::SocketUNIX() = default;

Socket* SocketUNIX::createOfType()
{
    return new (std::nothrow) SocketUNIX();
}

int SocketUNIX::getFamily() const
{
    return AF_UNIX;
}

int SocketUNIX::getProtocol() const
{
    return 0;
}

int SocketUNIX::getType() const
{
    return SOCK_STREAM;
}

SocketUDP::SocketUDP() = default;

Socket* SocketUDP::createOfType()
{
    return new (std::nothrow) SocketUDP();
}

int SocketUDP::getFamily() const
{
    return AF_INET;
}

int SocketUDP::getProtocol() const
{
    return IPPROTO_UDP;
}

int SocketUDP::getType() const
{
    return SOCK_DGRAM;
}

} // namespace UlmarCommsSystem
