// Transfers of the base socket: receiving and sending on streams and
// datagrams, and the read a router worker may take over to wait for input
// itself. Each request is posted to the selector and completed by a worker.
//
// A taken read is waited for outside any reaper section, so the socket may
// be released meanwhile: the wait (SocketWait) keeps the record and the
// descriptor instead of the socket, and the taker finds the socket again,
// inside a section, to complete or return the read.
#include "platform/socket.h"

#include "core/core.h"
#include "platform/socketinternal.h"
#include "platform/socketselector.h"

#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

using UlmarComms::Core;

namespace UlmarCommsSystem {

using namespace UlmarCommsSystem::SocketLayer;

// ---------------------------------------------------------------------------
// Transfers

unsigned char Socket::recv(unsigned char* buffer, unsigned size)
{
    if (getType() != SOCK_STREAM)
        return InvalidFunctionOnSocketType;
    MutexLocker locker(m_platform->lock);
    if (m_handle == BadSocketValue) {
        log(Core::LogError, "Socket::recv( %p, %d ) this=%p Bad Socket.\n", static_cast<void*>(buffer), size,
            static_cast<void*>(this));
        return SocketNotCreated;
    }
    BSDSocketPlatformData::Request& request = m_platform->readRequest;
    request.buffer = buffer;
    request.size = size;
    request.pending = true;
    // One-shot: the kernel disarms the registration as it reports the event,
    // which is the one completion per recv() the selector needs, without a
    // system call of its own. A listener keeps its own arming (accepts).
    const uint32_t oneShot = m_pServerMode == nullptr ? EPOLLONESHOT : 0u;
    if (!armRead(EPOLLIN | EPOLLERR | EPOLLET | oneShot)) {
        request.pending = false;
        log(Core::LogError, "Socket::recv( %p, %d ) this=%p epoll_ctl failed error:%d.\n", static_cast<void*>(buffer),
            size, static_cast<void*>(this), errno);
        return UnableToSchedualAsyncJob;
    }
    return NoSocketError;
}

int Socket::takeRead()
{
    if (getType() != SOCK_STREAM)
        return BadSocketValue;
    MutexLocker locker(m_platform->lock);
    return takeReadLocked();
}

SocketWait Socket::waitOnTakenRead()
{
    if (getType() != SOCK_STREAM)
        return SocketWait();
    MutexLocker locker(m_platform->lock);
    const int handle = takeReadLocked();
    if (handle == BadSocketValue)
        return SocketWait();
    // A transfer, so close() leaves the descriptor to the wait's end; a
    // wait, so close() shuts the connection down to end the wait at once.
    m_platform->beginTransfer();
    ++m_platform->waits;
    return SocketWait(m_platform, handle);
}

int Socket::takeReadLocked()
{
    BSDSocketPlatformData& record = *m_platform;
    if (m_handle == BadSocketValue || m_pServerMode != nullptr)
        return BadSocketValue;
    if (record.readTaken)
        return m_handle;
    if (!record.readRequest.pending)
        return BadSocketValue;
    // The registration keeps reporting errors but no longer data, so no
    // worker wakes for bytes the taker reads.
    if (!armRead(EPOLLERR | EPOLLET))
        return BadSocketValue;
    record.readRequest.pending = false;
    record.readTaken = true;
    return m_handle;
}

SocketWait::SocketWait(std::shared_ptr<BSDSocketPlatformData> record, int handle)
    : m_record(std::move(record)), m_handle(handle)
{
}

SocketWait::SocketWait(SocketWait&& other) noexcept : m_record(std::move(other.m_record)), m_handle(other.m_handle)
{
    other.m_handle = -1;
}

SocketWait& SocketWait::operator=(SocketWait&& other) noexcept
{
    if (this != &other) {
        end();
        m_record = std::move(other.m_record);
        m_handle = other.m_handle;
        other.m_handle = -1;
    }
    return *this;
}

SocketWait::~SocketWait()
{
    end();
}

void SocketWait::end()
{
    if (!m_record)
        return;
    {
        MutexLocker locker(m_record->lock);
        --m_record->waits;
    }
    m_record->endTransfer();
    m_record.reset();
    m_handle = -1;
}

void Socket::returnRead()
{
    MutexLocker locker(m_platform->lock);
    BSDSocketPlatformData& record = *m_platform;
    if (!record.readTaken || m_handle == BadSocketValue)
        return;
    record.readTaken = false;
    record.readRequest.pending = true;
    // Bytes that arrived while the read was taken are reported at once.
    if (!armRead(EPOLLIN | EPOLLERR | EPOLLET | EPOLLONESHOT)) {
        record.readRequest.pending = false;
        record.readTaken = true; // the taker still completes it
        log(Core::LogError, "Socket::returnRead() this=%p epoll_ctl failed error:%d.\n", static_cast<void*>(this),
            errno);
    }
}

void Socket::completeTakenRead(SocketHold& hold)
{
    if (hold.socket() != this)
        return;
    SocketSelectorWorker::completeTakenRead(hold);
}

unsigned char Socket::send(unsigned char* buffer, unsigned size)
{
    if (getType() != SOCK_STREAM)
        return InvalidFunctionOnSocketType;
    MutexLocker locker(m_platform->lock);
    if (m_handle == BadSocketValue)
        return SocketNotCreated;
    if (m_platform->connecting)
        return SocketNotConnected;
    BSDSocketPlatformData::Request& request = m_platform->writeRequest;
    if (request.pending) {
        // The selector refuses a second registration of the write handle;
        // refusing here keeps the outstanding request intact.
        log(Core::LogError, "Socket::send( %p, %d ) this=%p epoll_ctl failed error:%d.\n", static_cast<void*>(buffer),
            size, static_cast<void*>(this), EEXIST);
        return UnknownError;
    }
    request.buffer = buffer;
    request.size = size;
    request.pending = true;
    epoll_event event = makeEvent(EPOLLOUT | EPOLLERR | EPOLLET, token(true));
    if (epoll_ctl(selectorHandle.load(), EPOLL_CTL_ADD, m_platform->writeHandle, &event) != 0) {
        request.pending = false;
        log(Core::LogError, "Socket::send( %p, %d ) this=%p epoll_ctl failed error:%d.\n", static_cast<void*>(buffer),
            size, static_cast<void*>(this), errno);
        return UnknownError;
    }
    return NoSocketError;
}

unsigned Socket::trySend(const unsigned char* buffer, unsigned size)
{
    if (buffer == nullptr || size == 0)
        return 0;
    iovec part{const_cast<unsigned char*>(buffer), size};
    return trySendv(&part, 1);
}

unsigned Socket::trySendv(const iovec* parts, int count)
{
    if (parts == nullptr || count <= 0 || getType() != SOCK_STREAM)
        return 0;
    int handle = BadSocketValue;
    {
        MutexLocker locker(m_platform->lock);
        // A posted send keeps its place: bytes never overtake it (the owner
        // posts sends and calls this under one lock of its own).
        if (m_handle == BadSocketValue || m_platform->writeRequest.pending || m_platform->connecting ||
            m_platform->ended)
            return 0;
        handle = m_platform->writeHandle >= 0 ? m_platform->writeHandle : m_handle;
        m_platform->beginTransfer();
    }
    message("Doing send() on a socket.\n");
    // Outside the lock, so a worker receiving on this socket meanwhile is
    // not kept waiting; a close() meanwhile leaves the descriptor to it.
    msghdr header{};
    header.msg_iov = const_cast<iovec*>(parts);
    header.msg_iovlen = static_cast<size_t>(count);
    const ssize_t sent = ::sendmsg(handle, &header, MSG_NOSIGNAL | MSG_DONTWAIT);
    m_platform->endTransfer();
    return sent > 0 ? static_cast<unsigned>(sent) : 0;
}

unsigned char Socket::recvFrom(unsigned char* buffer, unsigned size)
{
    if (getType() != SOCK_DGRAM) {
        log(Core::LogError, "Socket::recvFrom() Not a datagram socket.\n");
        return InvalidFunctionOnSocketType;
    }
    MutexLocker locker(m_platform->lock);
    if (m_handle == BadSocketValue)
        return SocketNotCreated;
    BSDSocketPlatformData::Request& request = m_platform->readRequest;
    request.buffer = buffer;
    request.size = size;
    request.pending = true;
    // Level-triggered: a datagram already queued is reported at once.
    if (!armRead(EPOLLIN | EPOLLERR)) {
        request.pending = false;
        log(Core::LogWarning, "**** Socket::recvFrom() << Error in epoll set errno=%d\n", errno);
        return UnableToSchedualAsyncJob;
    }
    return NoSocketError;
}

unsigned char Socket::sendTo(const SocketAddress& address, unsigned char* buffer, unsigned size)
{
    if (getType() != SOCK_DGRAM)
        return InvalidFunctionOnSocketType;
    MutexLocker locker(m_platform->lock);
    if (m_handle == BadSocketValue)
        return SocketNotCreated;
    BSDSocketPlatformData::Request& request = m_platform->writeRequest;
    if (request.pending) {
        log(Core::LogError, "Socket::sendTo( %p, %d ) this=%p epoll_ctl failed error:%d.\n", static_cast<void*>(buffer),
            size, static_cast<void*>(this), EEXIST);
        return UnknownError;
    }
    request.buffer = buffer;
    request.size = size;
    request.address = address;
    request.pending = true;
    epoll_event event = makeEvent(EPOLLOUT | EPOLLERR | EPOLLET, token(true));
    if (epoll_ctl(selectorHandle.load(), EPOLL_CTL_ADD, m_platform->writeHandle, &event) != 0) {
        request.pending = false;
        log(Core::LogError, "Socket::sendTo( %p, %d ) this=%p epoll_ctl failed error:%d.\n", static_cast<void*>(buffer),
            size, static_cast<void*>(this), errno);
        return UnknownError;
    }
    return NoSocketError;
}

} // namespace UlmarCommsSystem
