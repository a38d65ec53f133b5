// Fuzzes the discovery datagram reader: any bytes a sender on the network can
// put in one datagram (up to the 1024-byte receive buffer). The reader is a
// pure function of the bytes, so no socket is involved; the input buffer is
// exactly as long as the datagram, so any read past its end is caught.
#include "network/networkinterface.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > UlmarComms::NetworkRouterInterface::DiscoveryBufferSize)
        return 0;
    UlmarComms::NetworkDiscoveryInfo info;
    const auto result = UlmarComms::NetworkRouterInterface::parseInfo(data, static_cast<unsigned>(size), info);
    if (result == UlmarComms::NetworkRouterInterface::ParseOk) {
        // Whatever is accepted is consistent with the bytes that carried it.
        if (info.totalLength != size || info.hostName.size() > size)
            std::abort();
    }
    return 0;
}
