// The concrete socket types: TCP over IPv4, stream sockets in the UNIX
// abstract namespace, and UDP datagrams. Each only names its family, type
// and protocol; the base socket does the work. Each destructor retires the
// socket first, while its overrides still apply, so workers still using the
// socket finish with it before any part of it is destroyed.
#include "platform/socket.h"

#include <sys/socket.h>

namespace UlmarCommsSystem {

// ---------------------------------------------------------------------------
// The concrete classes

SocketTCPIP::SocketTCPIP() = default;

SocketTCPIP::~SocketTCPIP()
{
    retire();
}

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

SocketUNIX::~SocketUNIX()
{
    retire();
}

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

SocketUDP::~SocketUDP()
{
    retire();
}

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
