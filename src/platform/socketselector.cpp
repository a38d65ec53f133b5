// The selector workers' loop and the completion of each socket request.
//
// A completion first consumes the request's pending flag under the socket's
// lock; an event for a request that is not pending (an edge reported twice,
// or one that arrived after close) is dropped. The system call of the
// completion runs under that lock too, so close() on another thread can never
// pull the descriptor away mid-call; callbacks always run without it.
//
// Every callback may release the socket. After each one the worker asks its
// hold whether the socket is still live before it goes on; the object itself
// stays valid until the event's reaper section ends.
#include "platform/socketselector.h"

#include "core/core.h"
#include "core/memorytrim.h"
#include "platform/socket.h"
#include "platform/socketreaper.h"
#include "platform/sockettimeout.h"

#include <cerrno>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

using UlmarComms::Core;

namespace UlmarCommsSystem {

namespace {

// The direction bits of a registration's data (the rest is the record id).
const uint64_t DirectionMask = 3;
const uint64_t ReadDirection = 1;
const uint64_t WriteDirection = 2;

bool wouldBlock(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// The running selector's reap eventfd, -1 when none runs.
std::atomic<int> reapWakeHandle{-1};

void kickReaper()
{
    const int handle = reapWakeHandle.load();
    const uint64_t one = 1;
    if (handle >= 0 && write(handle, &one, sizeof(one)) < 0 && errno != EAGAIN)
        Socket::log(Core::LogError, "SocketSelector: unable to wake a worker to reap errno=%d\n", errno);
}

void drainReapWake(int handle)
{
    uint64_t count = 0;
    while (handle >= 0 && read(handle, &count, sizeof(count)) > 0) {}
}

} // namespace

// ---------------------------------------------------------------------------
// Selector

SocketSelector::SocketSelector() : m_handle(-1), m_maxEvents(40), m_timeout(500), m_wakeHandle(-1), m_reapHandle(-1)
{
}

SocketSelector::~SocketSelector()
{
    if (!m_workers.empty() || m_handle != -1)
        stop();
}

bool SocketSelector::start(unsigned n)
{
    Socket::message("SocketSelector::Start( %d )\n", n);
    Socket::message("SocketSelector::Start() Using EPOLL\n");
    if (m_handle != -1 || !m_workers.empty())
        return false;
    const int handle = epoll_create(m_maxEvents);
    if (handle < 0) {
        Socket::log(Core::LogFatal, "SocketSelector::Start() Unable to create epoll error:%d\n", errno);
        return false;
    }
    // Level-triggered and never read: once written it wakes every waiter.
    m_wakeHandle = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_wakeHandle >= 0) {
        epoll_event wake{};
        wake.events = EPOLLIN;
        wake.data.u64 = WakeToken;
        epoll_ctl(handle, EPOLL_CTL_ADD, m_wakeHandle, &wake);
    }
    // Edge-triggered: each hand-over to an idle reaper wakes one worker or
    // few; without it the workers still reap after every wait time-out.
    m_reapHandle = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_reapHandle >= 0) {
        epoll_event reap{};
        reap.events = EPOLLIN | EPOLLET;
        reap.data.u64 = ReapToken;
        epoll_ctl(handle, EPOLL_CTL_ADD, m_reapHandle, &reap);
        reapWakeHandle = m_reapHandle;
        SocketReaper::setKick(&kickReaper);
    }
    m_handle = handle;
    for (unsigned i = 0; i < n; ++i) {
        SocketSelectorWorker* worker = new SocketSelectorWorker(this, handle);
        if (!worker->start()) {
            delete worker;
            continue;
        }
        m_workers.push_back(worker);
    }
    Socket::message("SocketSelector::Start() Done\n");
    return true;
}

void SocketSelector::stop()
{
    Socket::message("SocketSelector::Stop()\n");
    // New registrations fail from here on, and hand-overs reap at once on
    // the caller's thread (Socket::deinit destroys the rest).
    const int handle = m_handle.exchange(-1);
    SocketReaper::setKick(nullptr);
    reapWakeHandle = -1;
    for (SocketSelectorWorker* worker : m_workers)
        worker->stop();
    if (m_wakeHandle >= 0) {
        const uint64_t one = 1;
        if (write(m_wakeHandle, &one, sizeof(one)) < 0)
            Socket::log(Core::LogError, "SocketSelector::Stop() Unable to wake the workers errno=%d\n", errno);
    }
    // Workers without timers wait for this wake-up; the write fails only on
    // a full counter, which wakes them just the same.
    for (SocketSelectorWorker* worker : m_workers) {
        worker->waitToFinish();
        delete worker;
    }
    m_workers.clear();
    if (handle >= 0)
        ::close(handle);
    if (m_wakeHandle >= 0)
        ::close(m_wakeHandle);
    m_wakeHandle = -1;
    if (m_reapHandle >= 0)
        ::close(m_reapHandle);
    m_reapHandle = -1;
    Socket::message("SocketSelector::Stop() Done\n");
}

// ---------------------------------------------------------------------------
// Worker loop

SocketSelectorWorker::SocketSelectorWorker(SocketSelector* selector, int handle)
    : m_pSelector(selector), m_running(false), m_handle(handle)
{
}

SocketSelectorWorker::~SocketSelectorWorker() = default;

bool SocketSelectorWorker::start()
{
    m_running = true;
    if (Thread::start())
        return true;
    m_running = false;
    return false;
}

void SocketSelectorWorker::stop()
{
    m_running = false;
}

unsigned SocketSelectorWorker::run()
{
    const int maxEvents = m_pSelector->getMaxEvents();
    SocketTimeout* timers = SocketTimeout::instance();
    const bool captured = timers->capture();
    // Only the worker that runs the timers (and the periodic chores below)
    // wakes on its own; the others sleep until an event, a reap kick or the
    // stop wake-up, when both of those eventfds exist.
    int timeout = m_pSelector->getTimeout() == 0 ? 100 : m_pSelector->getTimeout();
    if (!captured && m_pSelector->wakesWorkers())
        timeout = -1;
    if (captured)
        Socket::message("SocketSelectorWorker() this=%p Get to capture the timer object.\n", static_cast<void*>(this));
    else
        Socket::message("SocketSelectorWorker() this=%p Didn't get to capture the timer object.\n",
                        static_cast<void*>(this));
    Socket::message("SocketSelectorWorker() this=%p Using EPOLL Thread=%d Timeout=%d MaxNoEvents=%d\n",
                    static_cast<void*>(this), threadId(), timeout, maxEvents);
    unsigned result = 0;
    try {
        loop(maxEvents, timeout, captured);
    } catch (...) {
        Socket::log(Core::LogFatal, "Unhandled Exception in SocketSelectorWorker::Run(), exiting thread.\n");
        result = 1;
    }
    // Hand the timers back, so that a selector started later runs them again.
    if (captured)
        timers->releaseCapture();
    Socket::message("Stopped SocketSelectorWorker on Thread %d", threadId());
    return result;
}

void SocketSelectorWorker::loop(int maxEvents, int timeout, bool timers)
{
    std::vector<epoll_event> events(static_cast<size_t>(maxEvents));
    while (m_running) {
        const int count = epoll_wait(m_handle, events.data(), maxEvents, timeout);
        if (count < 0) {
            const int error = errno;
            if (error == EBADF || error == EINVAL)
                Socket::log(Core::LogError,
                            "SocketSelectorWorker::Run() Got a EBADF or EINTVAL in select worker thread.\n");
            else if (error == EINTR)
                Socket::log(Core::LogError,
                            "SocketSelectorWorker::Run() Got EINTR while doing something in select worker thread.\n");
            else
                Socket::log(Core::LogError, "SocketSelectorWorker::Run() Unknown error errno:%d.\n", error);
        }
        for (int i = 0; i < count; ++i) {
            if (events[i].data.u64 == SocketSelector::WakeToken)
                continue;
            if (events[i].data.u64 == SocketSelector::ReapToken) {
                drainReapWake(reapWakeHandle.load());
                continue;
            }
            try {
                if (!processEvent(&events[i]))
                    Socket::log(Core::LogError, "SocketSelectorWorker::Run() ProcessEvent failed.\n");
            } catch (...) {
                Socket::log(Core::LogError,
                            "SocketSelectorWorker::Run() Got an unhandled exception while processing an event.\n");
            }
        }
        if (timers)
            SocketTimeout::instance()->handle();
        // Between turns this worker is in no section, so it may destroy.
        SocketReaper::reap();
        // The timer worker wakes at least every half second (the wait
        // time-out), so a log text that went quiet after a burst is still
        // summarised.
        Core::flushLogSummaries();
        Socket::flushLogSummaries();
        // Memory a cleared backlog freed goes back to the system.
        UlmarComms::MemoryTrim::tick();
    }
}

// ---------------------------------------------------------------------------
// Completions
//
// The event's reaper section keeps the socket object from being freed, but
// its release may happen on another thread at any time; from then on
// hold.socket() is null, and every step below that looks the socket up again
// stops there: a released socket has nothing left to complete.

bool SocketSelectorWorker::processEvent(epoll_event* event)
{
    // Whatever this event calls stays alive until it has been completed.
    SocketReaper::Section section;
    const uint64_t data = event->data.u64;
    SocketHold hold = SocketHold::byId(data >> 2);
    if (hold.socket() == nullptr) {
        Socket::log(Core::LogError,
                    "SocketSelectorWorker::ProcessEvent() Unable to get plantform data object. Bugging out!\n");
        return false;
    }
    if ((data & DirectionMask) == WriteDirection)
        processWrite(hold, event->events);
    else if ((data & DirectionMask) == ReadDirection)
        processRead(hold, event->events);
    else
        Socket::log(Core::LogWarning,
                    "SocketSelectorWorker::ProcessEvent() We don't have a known handle to play with!!\n");
    return true;
}

void SocketSelectorWorker::endConnection(SocketHold& hold, unsigned char code)
{
    Socket* socket = hold.socket();
    if (socket == nullptr)
        return;
    {
        // A read and a write failing together must not report the end twice:
        // owners release the socket when they hear of it.
        MutexLocker locker(hold.record()->lock);
        if (hold.record()->ended)
            return;
        hold.record()->ended = true;
    }
    socket->onDisconnectAction(code);
    if (hold.socket() == nullptr)
        return;
    socket->errored(code);
}

void SocketSelectorWorker::processAccept(SocketHold& hold)
{
    Socket::message("SocketSelectorWorker::ProcessEvent() this=%p Socket in listening mode so doing connect\n",
                    static_cast<void*>(this));
    Socket* listener = hold.socket();
    if (listener == nullptr)
        return;
    const unsigned char code = listener->doAccept();
    if (code == Socket::NoSocketError)
        return;
    Socket::log(Core::LogError,
                "SocketSelectorWorker::ProcessEvent( epoll ) this=%p pTheSocket->doAccept() Failed error:%d.\n",
                static_cast<void*>(this), code);
    endConnection(hold, code);
}

void SocketSelectorWorker::rearmOneShotRead(SocketHold& hold)
{
    // A one-shot stream registration reported something other than data
    // and so disarmed itself; the recv() still waiting must stay armed.
    Socket* socket = hold.socket();
    if (socket == nullptr)
        return;
    MutexLocker locker(hold.record()->lock);
    if (socket->getType() != SOCK_STREAM || socket->m_pServerMode != nullptr || !hold.record()->readRequest.pending ||
        socket->m_handle == Socket::BadSocketValue)
        return;
    epoll_event rearm{};
    rearm.events = EPOLLIN | EPOLLERR | EPOLLET | EPOLLONESHOT;
    rearm.data.u64 = socket->token(false);
    epoll_ctl(m_handle, EPOLL_CTL_MOD, socket->m_handle, &rearm);
}

void SocketSelectorWorker::processRead(SocketHold& hold, uint32_t events)
{
    Socket* socket = hold.socket();
    if (socket == nullptr)
        return;
    BSDSocketPlatformData* record = hold.record();
    if ((events & EPOLLIN) == 0) {
        rearmOneShotRead(hold);
        if ((events & EPOLLHUP) != 0) {
            Socket::message("SocketSelectorWorker::ProcessEvent() Have other states for read socket EPOLLHUP\n");
        } else if ((events & EPOLLERR) != 0) {
            Socket::message("SocketSelectorWorker::ProcessEvent() Have other states for read socket EPOLLERR\n");
        } else {
            Socket::message(
                "SocketSelectorWorker::ProcessEvent() Have other states for read socket Unknown error: %d\n",
                static_cast<int>(events));
            endConnection(hold, Socket::UnknownError);
        }
        return;
    }
    if (socket->isListening()) {
        processAccept(hold);
        return;
    }

    const bool datagram = socket->getType() == SOCK_DGRAM;
    Socket::StreamCallback streamReceived = nullptr;
    Socket::DatagramCallback datagramReceived = nullptr;
    void* user = nullptr;
    unsigned char* buffer = nullptr;
    unsigned size = 0;
    ssize_t count = 0;
    int error = 0;
    int disarmError = 0;
    int streamHandle = Socket::BadSocketValue;
    SocketAddress source;
    {
        MutexLocker locker(record->lock);
        BSDSocketPlatformData::Request& request = record->readRequest;
        if (!request.pending || socket->m_handle == Socket::BadSocketValue)
            return;
        request.pending = false;
        // Disarm: one completion per recv(). A stream recv() registers
        // one-shot, so the kernel has disarmed it already; a datagram
        // registration is disarmed here. The read request stays the
        // registration's data, so an error event in between finds a record.
        epoll_event disarm{};
        disarm.events = EPOLLERR | EPOLLET;
        disarm.data.u64 = socket->token(false);
        if (datagram && epoll_ctl(m_handle, EPOLL_CTL_MOD, socket->m_handle, &disarm) != 0) {
            disarmError = errno;
        } else {
            streamReceived = socket->m_streamReceived;
            datagramReceived = socket->m_datagramReceived;
            user = socket->m_pTransferUser;
            buffer = request.buffer;
            size = request.size;
            if ((datagram ? datagramReceived == nullptr : streamReceived == nullptr))
                return;
            if (datagram) {
                sockaddr_un from{};
                socklen_t length = sizeof(from);
                count = ::recvfrom(socket->m_handle, buffer, size, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from),
                                   &length);
                error = errno;
                if (count >= 0) {
                    request.address.setAddressByFamily(reinterpret_cast<const sockaddr*>(&from), from.sun_family);
                    source = request.address;
                }
                // MSG_DONTWAIT: a worker never blocks (a datagram dropped for
                // its checksum after readiness was reported would otherwise
                // hang it). A readiness report that finds nothing to read is
                // not the end of anything: put the request back and wait again.
                if (count < 0 && wouldBlock(error)) {
                    request.pending = true;
                    epoll_event rearm{};
                    rearm.events = EPOLLIN | EPOLLERR;
                    rearm.data.u64 = socket->token(false);
                    if (epoll_ctl(m_handle, EPOLL_CTL_MOD, socket->m_handle, &rearm) == 0)
                        return;
                    request.pending = false;
                }
            } else {
                streamHandle = socket->m_handle;
                record->beginTransfer();
            }
        }
    }
    if (streamHandle != Socket::BadSocketValue) {
        // The receive runs without the socket's lock, so a send on the same
        // socket from another thread does not wait for it.
        count = ::recv(streamHandle, buffer, size, MSG_DONTWAIT);
        error = errno;
        record->endTransfer();
        if (count < 0 && wouldBlock(error) && rearmAfterNothing(hold))
            return;
    }
    if (disarmError != 0) {
        Socket::log(Core::LogError,
                    "SocketSelectorWorker::ProcessEvent() this=%p  Updating the EPOLL failed. error=%d errno=%d\n",
                    static_cast<void*>(this), Socket::BSDSocketsErrorCode(disarmError), disarmError);
        endConnection(hold, Socket::BSDSocketsErrorCode(disarmError));
        return;
    }
    if (datagram) {
        if (count < 0) {
            const unsigned char code = Socket::BSDSocketsErrorCode(error);
            Socket::log(
                Core::LogError,
                "SocketSelectorWorker::ProcessEvent() Call in selector for recvfrom() which errored with %d [ %d ]\n",
                code, error);
            socket->errored(code);
            return;
        }
        datagramReceived(socket, source, buffer, static_cast<unsigned>(count), size, user, Socket::NoSocketError);
        return;
    }
    reportStreamRead(hold, streamReceived, user, buffer, size, count, error, this);
}

void SocketSelectorWorker::reportStreamRead(SocketHold& hold, Socket::StreamCallback received, void* user,
                                            unsigned char* buffer, unsigned size, ssize_t count, int error,
                                            const void* who)
{
    Socket* socket = hold.socket();
    if (socket == nullptr)
        return;
    if (count < 0) {
        const unsigned char code = Socket::BSDSocketsErrorCode(error);
        Socket::log(Core::LogError, "SocketSelectorWorker::ProcessEvent() this=%p recv errored error=%d errno=%d\n",
                    who, code, error);
        endConnection(hold, code);
        return;
    }
    if (count == 0) {
        Socket::message("SocketSelectorWorker::ProcessEvent() this = %p recv other end shutdown socket = %p .\n", who,
                        static_cast<void*>(socket));
        endConnection(hold, Socket::NoSocketError);
        return;
    }
    received(socket, buffer, static_cast<unsigned>(count), size, user, Socket::NoSocketError);
}

bool SocketSelectorWorker::rearmAfterNothing(SocketHold& hold)
{
    Socket* socket = hold.socket();
    BSDSocketPlatformData* record = hold.record();
    MutexLocker locker(record->lock);
    if (socket == nullptr || socket->m_handle == Socket::BadSocketValue)
        return true; // released or closed meanwhile: nothing to wait for
    record->readRequest.pending = true;
    if (socket->armRead(EPOLLIN | EPOLLERR | EPOLLET | EPOLLONESHOT))
        return true;
    record->readRequest.pending = false;
    return false;
}

void SocketSelectorWorker::completeTakenRead(SocketHold& hold)
{
    SocketReaper::Section section;
    Socket* socket = hold.socket();
    BSDSocketPlatformData* record = hold.record();
    if (socket == nullptr)
        return;
    Socket::StreamCallback received = nullptr;
    void* user = nullptr;
    unsigned char* buffer = nullptr;
    unsigned size = 0;
    int handle = Socket::BadSocketValue;
    {
        MutexLocker locker(record->lock);
        if (!record->readTaken || socket->m_handle == Socket::BadSocketValue)
            return;
        record->readTaken = false;
        received = socket->m_streamReceived;
        user = socket->m_pTransferUser;
        buffer = record->readRequest.buffer;
        size = record->readRequest.size;
        if (received == nullptr)
            return;
        handle = socket->m_handle;
        record->beginTransfer();
    }
    const ssize_t count = ::recv(handle, buffer, size, MSG_DONTWAIT);
    const int error = errno;
    record->endTransfer();
    // Readiness without data: the selector waits for it again.
    if (count < 0 && wouldBlock(error) && rearmAfterNothing(hold))
        return;
    reportStreamRead(hold, received, user, buffer, size, count, error, socket);
}

bool SocketSelectorWorker::processConnect(SocketHold& hold)
{
    Socket* socket = hold.socket();
    BSDSocketPlatformData* record = hold.record();
    int error = 0;
    {
        MutexLocker locker(record->lock);
        if (!record->connecting || socket == nullptr)
            return false;
        record->connecting = false;
        epoll_ctl(m_handle, EPOLL_CTL_DEL, record->writeHandle, nullptr);
        if (socket->m_handle == Socket::BadSocketValue)
            return true;
        socklen_t length = sizeof(error);
        if (getsockopt(socket->m_handle, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
            error = errno;
    }
    if (error == 0) {
        socket->onConnectedAction();
        return true;
    }
    const unsigned char code = Socket::BSDSocketsErrorCode(error);
    Socket::log(Core::LogError, "SocketSelectorWorker::ProcessEvent() this=%p connect failed error:%d errno=%d\n",
                static_cast<void*>(this), code, error);
    endConnection(hold, code);
    return true;
}

void SocketSelectorWorker::processWrite(SocketHold& hold, uint32_t events)
{
    if (processConnect(hold))
        return;
    // A socket released on another thread since the event was taken (the
    // section keeps the object) has nothing left to complete.
    Socket* socket = hold.socket();
    if (socket == nullptr)
        return;
    BSDSocketPlatformData* record = hold.record();
    if ((events & EPOLLOUT) == 0) {
        if ((events & EPOLLERR) == 0) {
            Socket::log(Core::LogWarning,
                        "SocketSelectorWorker::ProcessEvent() Have other operations on write handle.\n");
            return;
        }
        {
            MutexLocker locker(record->lock);
            if (!record->writeRequest.pending)
                return;
            record->writeRequest.pending = false;
            epoll_ctl(m_handle, EPOLL_CTL_DEL, record->writeHandle, nullptr);
        }
        Socket::log(Core::LogError, "SocketSelectorWorker::ProcessEvent() Got an error in the epoll processing!\n");
        endConnection(hold, Socket::UnknownError);
        return;
    }

    const bool datagram = socket->getType() == SOCK_DGRAM;
    Socket::StreamCallback streamSent = nullptr;
    Socket::DatagramCallback datagramSent = nullptr;
    void* user = nullptr;
    unsigned char* buffer = nullptr;
    unsigned size = 0;
    ssize_t count = 0;
    int error = 0;
    int removeError = 0;
    SocketAddress destination;
    {
        MutexLocker locker(record->lock);
        BSDSocketPlatformData::Request& request = record->writeRequest;
        if (!request.pending || socket->m_handle == Socket::BadSocketValue)
            return;
        request.pending = false;
        // One completion per send(): the write handle leaves the set.
        if (epoll_ctl(m_handle, EPOLL_CTL_DEL, record->writeHandle, nullptr) != 0) {
            removeError = errno;
        } else {
            streamSent = socket->m_streamSent;
            datagramSent = socket->m_datagramSent;
            user = socket->m_pTransferUser;
            buffer = request.buffer;
            size = request.size;
            destination = request.address;
            if ((datagram ? datagramSent == nullptr : streamSent == nullptr))
                return;
            // MSG_NOSIGNAL: a peer that has gone must give an error, not a
            // SIGPIPE that ends the process. MSG_DONTWAIT: a worker never
            // blocks, whatever mode the descriptor is in.
            if (datagram) {
                count = ::sendto(socket->m_handle, buffer, size, MSG_NOSIGNAL | MSG_DONTWAIT, destination.getAddress(),
                                 destination.getAddressSize());
            } else {
                Socket::message("Doing send() on a socket.\n");
                count = ::send(record->writeHandle, buffer, size, MSG_NOSIGNAL | MSG_DONTWAIT);
            }
            error = errno;
            if (count < 0 && wouldBlock(error)) {
                request.pending = true;
                epoll_event again{};
                again.events = EPOLLOUT | EPOLLERR | EPOLLET;
                again.data.u64 = socket->token(true);
                if (epoll_ctl(m_handle, EPOLL_CTL_ADD, record->writeHandle, &again) == 0)
                    return;
                request.pending = false;
            }
        }
    }
    if (removeError != 0) {
        Socket::log(Core::LogError,
                    "SocketSelectorWorker::ProcessEvent() this=%p Deleting the old write operation failed errno=%d\n",
                    static_cast<void*>(this), removeError);
        endConnection(hold, Socket::BSDSocketsErrorCode(removeError));
        return;
    }
    if (datagram) {
        if (count < 0) {
            const unsigned char code = Socket::BSDSocketsErrorCode(error);
            Socket::log(Core::LogError,
                        "SocketSelectorWorker::ProcessEvent() Call in selector for sendto()\n->> which errored with %d "
                        "[ %d ]\n",
                        code, error);
            datagramSent(socket, destination, buffer, static_cast<unsigned>(-1), size, user, code);
            return;
        }
        datagramSent(socket, destination, buffer, static_cast<unsigned>(count), size, user, Socket::NoSocketError);
        return;
    }
    if (count < 0) {
        const unsigned char code = Socket::BSDSocketsErrorCode(error);
        Socket::message(
            "SocketSelectorWorker::ProcessEvent() this=%p Socket=%p disconnecting due to error Error=%d errno=%d\n",
            static_cast<void*>(this), static_cast<void*>(socket), code, error);
        endConnection(hold, code);
        return;
    }
    streamSent(socket, buffer, static_cast<unsigned>(count), size, user, Socket::NoSocketError);
}

} // namespace UlmarCommsSystem
