// The 8-byte written form of an IPv4 socket address in a stream.
#include "framing/addressform.h"

#include "framing/dataobject.h"
#include "platform/socketaddress.h"

#include <cstring>
#include <netinet/in.h>

namespace UlmarComms {

using UlmarCommsSystem::SocketAddress;

bool writeAddress(DataObject& data, const SocketAddress& address)
{
    data << static_cast<unsigned short>(address.getFamily());
    if (address.isIP4Address()) {
        // Port and address are already in network order: copied as they are.
        const sockaddr_in* ip4 = reinterpret_cast<const sockaddr_in*>(address.getAddress());
        data.writeRaw(&ip4->sin_port, 2);
        data.writeRaw(&ip4->sin_addr, 4);
    }
    return data.isValid();
}

bool readAddress(DataObject& data, SocketAddress& address)
{
    unsigned short family = 0;
    data >> family;
    if (!data.isValid() || family != AF_INET)
        return false;
    unsigned char port[2] = {0, 0};
    unsigned char host[4] = {0, 0, 0, 0};
    data.readRaw(port, sizeof(port));
    data.readRaw(host, sizeof(host));
    if (!data.isValid())
        return false;
    address.clear();
    sockaddr_in* ip4 = reinterpret_cast<sockaddr_in*>(address.getAddress());
    ip4->sin_family = AF_INET;
    std::memcpy(&ip4->sin_port, port, sizeof(port));
    std::memcpy(&ip4->sin_addr, host, sizeof(host));
    return true;
}

} // namespace UlmarComms
