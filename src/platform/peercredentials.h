// Who is at the other end of a connected local socket: the peer's pid, uid
// and gid as the kernel recorded them when the connection was made.
//
// A UNIX-domain socket carries them itself (SO_PEERCRED). A TCP connection
// over the loopback carries none, so for one the kernel's socket table
// (/proc/net/tcp and tcp6) is read instead: the peer's socket is listed
// there, with the uid of the user that made it, because both ends live on
// this machine. The pid and gid are not known then (pid 0, gid -1).
#pragma once

#include <sys/types.h>

namespace UlmarCommsSystem {

struct PeerCredentials {
    // The peer process, or 0 when the connection does not tell.
    pid_t pid = 0;
    // The user that made the peer's socket.
    uid_t uid = static_cast<uid_t>(-1);
    // The peer's primary group, or -1 when the connection does not tell.
    gid_t gid = static_cast<gid_t>(-1);
};

// Fills credentials for the connected socket handle; false when the peer
// cannot be told (not a local peer, or the socket is gone).
bool readPeerCredentials(int handle, PeerCredentials& credentials);

} // namespace UlmarCommsSystem
