// Peer credentials: SO_PEERCRED for UNIX-domain sockets, the kernel's TCP
// socket table for loopback TCP. In that table each line names a socket by
// its local and remote address (hex, in the kernel's byte order) and gives
// its owner's uid; the peer's socket is the one whose local address is our
// remote one and whose remote address is our local one.
#include "platform/peercredentials.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <string>
#include <sys/socket.h>

namespace UlmarCommsSystem {

namespace {

// An address as /proc/net/tcp writes it: the address words as the kernel
// holds them (so each 32-bit word in host order), then ":" and the port.
std::string procAddress(const sockaddr_storage& address)
{
    char text[64] = {};
    if (address.ss_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(&address);
        std::snprintf(text, sizeof(text), "%08X:%04X", static_cast<unsigned>(in->sin_addr.s_addr),
                      static_cast<unsigned>(ntohs(in->sin_port)));
        return text;
    }
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&address);
    uint32_t words[4];
    std::memcpy(words, &in6->sin6_addr, sizeof(words));
    std::snprintf(text, sizeof(text), "%08X%08X%08X%08X:%04X", static_cast<unsigned>(words[0]),
                  static_cast<unsigned>(words[1]), static_cast<unsigned>(words[2]), static_cast<unsigned>(words[3]),
                  static_cast<unsigned>(ntohs(in6->sin6_port)));
    return text;
}

// The uid of the socket whose local address is local and remote one remote.
bool findTcpOwner(const char* table, const std::string& local, const std::string& remote, uid_t& uid)
{
    std::ifstream file(table);
    std::string line;
    std::getline(file, line); // the heading
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string slot, localText, remoteText, state, queues, timer, retransmits;
        unsigned long owner = 0;
        if (!(fields >> slot >> localText >> remoteText >> state >> queues >> timer >> retransmits >> owner))
            continue;
        if (localText == local && remoteText == remote) {
            uid = static_cast<uid_t>(owner);
            return true;
        }
    }
    return false;
}

bool readTcpPeer(int handle, PeerCredentials& credentials)
{
    sockaddr_storage local{};
    sockaddr_storage remote{};
    socklen_t localLength = sizeof(local);
    socklen_t remoteLength = sizeof(remote);
    if (::getsockname(handle, reinterpret_cast<sockaddr*>(&local), &localLength) != 0 ||
        ::getpeername(handle, reinterpret_cast<sockaddr*>(&remote), &remoteLength) != 0)
        return false;
    const char* table = local.ss_family == AF_INET ? "/proc/net/tcp" : "/proc/net/tcp6";
    return findTcpOwner(table, procAddress(remote), procAddress(local), credentials.uid);
}

} // namespace

bool readPeerCredentials(int handle, PeerCredentials& credentials)
{
    if (handle < 0)
        return false;
    sockaddr_storage local{};
    socklen_t length = sizeof(local);
    if (::getsockname(handle, reinterpret_cast<sockaddr*>(&local), &length) != 0)
        return false;
    if (local.ss_family == AF_INET || local.ss_family == AF_INET6)
        return readTcpPeer(handle, credentials);
    if (local.ss_family != AF_UNIX)
        return false;
    ucred peer{};
    socklen_t peerLength = sizeof(peer);
    if (::getsockopt(handle, SOL_SOCKET, SO_PEERCRED, &peer, &peerLength) != 0)
        return false;
    credentials.pid = peer.pid;
    credentials.uid = peer.uid;
    credentials.gid = peer.gid;
    return true;
}

} // namespace UlmarCommsSystem
