// The connect probe. It mirrors the library's address exactly: the UNIX
// address is the abstract name written from the second byte of a zeroed
// 108-byte path and connected with the full address length (110), so the
// trailing NULs are part of the name; a shorter length would name a
// different socket and never find the service.
#include "common/probe.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace UlmarCommsTools {

namespace {

// Closes the descriptor when the probe returns, whichever way.
class FdGuard {
public:
    explicit FdGuard(int fd) : m_fd(fd) {}
    ~FdGuard()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    FdGuard(const FdGuard&) = delete;
    FdGuard& operator=(const FdGuard&) = delete;
    int get() const { return m_fd; }
    // Hands the descriptor to the caller.
    int release()
    {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }

private:
    int m_fd;
};

std::string errnoText(const char* what, int error)
{
    return std::string(what) + ": " + std::strerror(error);
}

// Waits for a non-blocking connect to finish; its errno-style result, or
// ETIMEDOUT when nothing happened before the time-out.
int finishConnect(int fd, int timeoutMs)
{
    pollfd entry{};
    entry.fd = fd;
    entry.events = POLLOUT;
    int ready;
    do {
        ready = ::poll(&entry, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR);
    if (ready < 0)
        return errno;
    if (ready == 0)
        return ETIMEDOUT;
    int error = 0;
    socklen_t length = sizeof(error);
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        return errno;
    return error;
}

ProbeResult classify(int error, std::string& detail)
{
    if (error == 0)
        return ProbeResult::Answered;
    detail = errnoText("connect", error);
    switch (error) {
    case ECONNREFUSED:
    case ENOENT:
    case ETIMEDOUT:
    case EHOSTUNREACH:
    case ENETUNREACH:
    case ECONNRESET: return ProbeResult::NoService;
    default: return ProbeResult::Failed;
    }
}

ProbeResult probeUnix(const LinkTarget& target, std::string& detail, int* kept)
{
    FdGuard fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        detail = errnoText("socket", errno);
        return ProbeResult::Failed;
    }
    sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1, "%s",
                  abstractSocketName(target.pipeName).c_str());
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        if (kept != nullptr)
            *kept = fd.release();
        return ProbeResult::Answered;
    }
    // A listener whose backlog is full still proves that the service is
    // there.
    if (errno == EAGAIN || errno == EINPROGRESS)
        return ProbeResult::Answered;
    return classify(errno, detail);
}

ProbeResult probeTcp(const LinkTarget& target, int timeoutMs, std::string& detail, int* kept)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int resolved = ::getaddrinfo(target.address.c_str(), target.port.c_str(), &hints, &found);
    if (resolved != 0 || found == nullptr) {
        detail = std::string("cannot resolve ") + target.address + ":" + target.port + ": " + gai_strerror(resolved);
        return ProbeResult::Failed;
    }
    sockaddr_in address{};
    std::memcpy(&address, found->ai_addr, sizeof(address));
    ::freeaddrinfo(found);

    FdGuard fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        detail = errnoText("socket", errno);
        return ProbeResult::Failed;
    }
    ProbeResult result = ProbeResult::Answered;
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        result = errno != EINPROGRESS ? classify(errno, detail) : classify(finishConnect(fd.get(), timeoutMs), detail);
    if (result == ProbeResult::Answered && kept != nullptr)
        *kept = fd.release();
    return result;
}

ProbeResult probe(const LinkTarget& target, int timeoutMs, std::string& detail, int* kept)
{
    detail.clear();
    switch (target.kind) {
    case LinkTarget::Kind::Unix: return probeUnix(target, detail, kept);
    case LinkTarget::Kind::Tcp: return probeTcp(target, timeoutMs, detail, kept);
    case LinkTarget::Kind::None: break;
    }
    detail = "no local link is configured";
    return ProbeResult::NoService;
}

} // namespace

std::string LinkTarget::describe() const
{
    switch (kind) {
    case Kind::Unix: return "pipe name '" + pipeName + "' (abstract socket " + abstractSocketName(pipeName) + ")";
    case Kind::Tcp: return "TCP " + address + ":" + port;
    case Kind::None: break;
    }
    return "no local link (ulmar.systemrouter.pipe and ulmar.systemrouter.ip4 are both 0)";
}

std::string abstractSocketName(const std::string& pipeName)
{
    return "__" + pipeName + ".sock";
}

ProbeResult probeService(const LinkTarget& target, int timeoutMs, std::string& detail)
{
    return probe(target, timeoutMs, detail, nullptr);
}

ProbeConnection::~ProbeConnection()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

ProbeResult ProbeConnection::open(const LinkTarget& target, int timeoutMs, std::string& detail)
{
    return probe(target, timeoutMs, detail, &m_fd);
}

bool ProbeConnection::refusedByService(int waitMs) const
{
    if (m_fd < 0)
        return false;
    pollfd entry{};
    entry.fd = m_fd;
    entry.events = POLLIN | POLLRDHUP;
    int ready;
    do {
        ready = ::poll(&entry, 1, waitMs);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0)
        return false;
    char byte = 0;
    const ssize_t got = ::recv(m_fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got == 0 || (got < 0 && (errno == ECONNRESET || errno == EPIPE));
}

bool ProbeConnection::serviceUser(unsigned& uid) const
{
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (m_fd < 0 || ::getsockopt(m_fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
        length != sizeof(credentials) || credentials.pid == 0)
        return false;
    uid = static_cast<unsigned>(credentials.uid);
    return true;
}

} // namespace UlmarCommsTools
