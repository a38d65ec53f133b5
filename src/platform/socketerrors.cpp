// Error codes of the socket layer: the system's errno values mapped to the
// layer's own codes, and the non-blocking switch every descriptor gets.
#include "platform/socket.h"

#include "core/core.h"

#include <cerrno>
#include <fcntl.h>

using UlmarComms::Core;

namespace UlmarCommsSystem {

// ---------------------------------------------------------------------------
// Errors

unsigned char Socket::BSDSocketsErrorCode(int error)
{
    log(Core::LogWarning, "Call to BSDSocketsErrorCode( %d )\n", error);
    switch (error) {
    case EACCES: return PermissionDenied;
    case EFAULT: return BadAddress;
    case EMFILE: return TooManyOpenFiles;
    case ENONET: return NoNetwork;
    case 76: // a second number for an address in use, kept on purpose
    case EADDRINUSE: return AddressAlreadyUsed;
    case EMSGSIZE: return MessageTooLong;
    case EADDRNOTAVAIL: return CantAssignAddress;
    case ENETDOWN: return NetworkDown;
    case ENETUNREACH: return NetworkUnreachable;
    case ENETRESET: return NetworkDownOnReset;
    case ECONNABORTED: return ConnectionAbort;
    case ECONNRESET: return ConnectionResetByPeer;
    case EISCONN: return SocketConnected;
    case ESHUTDOWN: return CannotSendAfterSocketShutdown;
    case ETIMEDOUT: return TimeOut;
    case ECONNREFUSED: return ConnectionRefused;
    case EHOSTDOWN: return HostIsDown;
    case EHOSTUNREACH: return NoRouteToHost;
    default: return UnknownError;
    }
}

unsigned char Socket::goodAPICall(int result)
{
    return result >= 0 ? NoSocketError : BSDSocketsErrorCode(errno);
}

bool SetNonBlocking(int descriptor)
{
    const int flags = fcntl(descriptor, F_GETFL, 0);
    if (flags < 0) {
        Socket::message("Failed to block 1\n");
        return false;
    }
    if (fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) < 0) {
        Socket::message("Failed to block 2\n");
        return false;
    }
    Socket::message("It blocks\n");
    return true;
}

} // namespace UlmarCommsSystem
