// Socket creation, set-up, request posting, connection events, the record
// registry that makes deletion safe, and the socket layer's logger.
//
// The registry maps record ids to records. A worker turns an event's id into
// a hold on the record (SocketHold); deleting a socket removes its id, so no
// new hold can be taken, and then waits until holds taken by other threads
// are released. Holds taken by the deleting thread itself (a callback that
// deletes its own socket) are not waited for; that worker checks the hold
// after every callback and stops touching the socket once it is gone.
//
// Lock order: a socket's record lock may be held while the registry lock is
// taken, never the other way round; neither is held across a callback.
#include "platform/socket.h"

#include "core/core.h"
#include "platform/socketselector.h"
#include "platform/sockettimeout.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>

using UlmarComms::Core;

namespace UlmarCommsSystem {

namespace {

// The registry lock guards the id map, record owners and hold counts, and
// the links between listeners and accepted sockets. It is a plain mutex
// because deletion waits on a condition bound to it; it is never held across
// a callback, so it never needs to be re-entered.
std::mutex registryLock;
std::condition_variable holdsReleased;
std::unordered_map<uint64_t, std::shared_ptr<BSDSocketPlatformData>> registry;
std::atomic<uint64_t> nextRecordId{1};

// Records this thread holds, to tell own holds from others' at deletion.
thread_local std::vector<const BSDSocketPlatformData*> heldByThisThread;

// The selector installed by init() and the epoll descriptor sockets register
// with (-1 while there is none).
Mutex initLock;
std::atomic<SocketSelector*> installedSelector{nullptr};
std::atomic<int> selectorHandle{-1};

// The socket layer's logger and its gate.
Mutex loggingLock;
std::atomic<Socket::Logger> socketLogger{nullptr};
std::atomic<int> socketLoggingLevel{Core::LogWarning};

void deliver(Socket::Logger logger, int level, const char* format, va_list args)
{
    MutexLocker locker(loggingLock);
    // Applications receive the platform's va_list as char*.
    logger(level, format, reinterpret_cast<char*>(args));
}

// Takes a hold while the registry lock is held.
bool takeHoldLocked(BSDSocketPlatformData* record)
{
    if (record == nullptr || record->owner.load() == nullptr)
        return false;
    ++record->holds;
    heldByThisThread.push_back(record);
    return true;
}

epoll_event makeEvent(uint32_t events, uint64_t data)
{
    epoll_event event;
    std::memset(&event, 0, sizeof(event));
    event.events = events;
    event.data.u64 = data;
    return event;
}

// Pointers in log lines where the format keeps %d for them.
int asNumber(const void* pointer)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(pointer));
}

template <typename Function> void* functionAsPointer(Function function)
{
    return reinterpret_cast<void*>(function);
}

} // namespace

// ---------------------------------------------------------------------------
// Records and holds

BSDSocketPlatformData::BSDSocketPlatformData(Socket* socket) : id(nextRecordId++), owner(socket) {}

SocketHold::SocketHold(std::shared_ptr<BSDSocketPlatformData> record) : m_record(std::move(record)) {}

SocketHold SocketHold::byId(uint64_t id)
{
    std::lock_guard<std::mutex> locker(registryLock);
    auto found = registry.find(id);
    if (found == registry.end() || !takeHoldLocked(found->second.get()))
        return SocketHold();
    return SocketHold(found->second);
}

SocketHold::SocketHold(Socket* socket)
{
    if (socket == nullptr)
        return;
    std::lock_guard<std::mutex> locker(registryLock);
    if (takeHoldLocked(socket->m_platform.get()))
        m_record = socket->m_platform;
}

SocketHold::SocketHold(SocketHold&& other) noexcept : m_record(std::move(other.m_record)) {}

SocketHold::~SocketHold()
{
    release();
}

void SocketHold::release()
{
    if (!m_record)
        return;
    {
        std::lock_guard<std::mutex> locker(registryLock);
        --m_record->holds;
        auto mine = std::find(heldByThisThread.begin(), heldByThisThread.end(), m_record.get());
        if (mine != heldByThisThread.end())
            heldByThisThread.erase(mine);
    }
    holdsReleased.notify_all();
    m_record.reset();
}

Socket* SocketHold::socket() const
{
    return m_record ? m_record->owner.load() : nullptr;
}

// ---------------------------------------------------------------------------
// Construction and deletion

Socket::ServerMode::~ServerMode() = default;

Socket::Socket()
    : m_pParent(nullptr), m_handle(BadSocketValue), m_errorCallback(nullptr), m_pErrorUser(nullptr),
      m_streamSent(nullptr), m_streamReceived(nullptr), m_datagramSent(nullptr), m_datagramReceived(nullptr),
      m_pTransferUser(nullptr), m_connected(nullptr), m_disconnected(nullptr), m_pConnectionUser(nullptr),
      m_platform(std::make_shared<BSDSocketPlatformData>(this)), m_pServerMode(nullptr), m_pUserData(nullptr)
{
    std::lock_guard<std::mutex> locker(registryLock);
    registry.emplace(m_platform->id, m_platform);
}

Socket::~Socket()
{
    message("Socket::~Socket() this= %p \n", static_cast<void*>(this));
    retire();
}

void Socket::retire()
{
    BSDSocketPlatformData* record = m_platform.get();
    {
        std::unique_lock<std::mutex> locker(registryLock);
        if (record->owner.load() == nullptr)
            return;
        record->owner = nullptr;
        registry.erase(record->id);
        if (m_pParent != nullptr && m_pParent->m_pServerMode != nullptr) {
            std::vector<Socket*>& siblings = m_pParent->m_pServerMode->accepted;
            siblings.erase(std::remove(siblings.begin(), siblings.end(), this), siblings.end());
        }
        m_pParent = nullptr;
        if (m_pServerMode != nullptr) {
            for (Socket* child : m_pServerMode->accepted)
                child->m_pParent = nullptr;
            m_pServerMode->accepted.clear();
        }
        const auto own = std::count(heldByThisThread.begin(), heldByThisThread.end(), record);
        holdsReleased.wait(locker, [&] { return record->holds <= static_cast<unsigned>(own); });
    }
    // No other thread works on the socket any more. A socket left open would
    // stay registered and keep its descriptors: finish what close() does.
    bool open = false;
    {
        MutexLocker locker(record->lock);
        open = m_handle != BadSocketValue;
    }
    if (open)
        close();
    MutexLocker locker(record->lock);
    delete m_pServerMode;
    m_pServerMode = nullptr;
}

uint64_t Socket::token(bool write) const
{
    // The record id and the request: 1 the read, 2 the write.
    return (m_platform->id << 2) | (write ? 2u : 1u);
}

// ---------------------------------------------------------------------------
// Set-up

unsigned char Socket::create()
{
    {
        MutexLocker locker(m_platform->lock);
        if (m_handle != BadSocketValue)
            return SocketAlreadlyCreated;
    }
    const int handle = ::socket(getFamily(), getType(), getProtocol());
    if (handle < 0)
        return BSDSocketsErrorCode(errno);
    const unsigned char code = set(handle);
    if (code != NoSocketError)
        ::close(handle);
    return code;
}

unsigned char Socket::set(int handle)
{
    if (handle == BadSocketValue)
        return SocketNotCreated;
    MutexLocker locker(m_platform->lock);
    if (m_handle != BadSocketValue)
        return SocketAlreadlyCreated;
    int on = 1;
    setsockopt(handle, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    verbose("Socket::set() Doing duplicate\n");
    const int writeHandle = ::dup(handle);
    if (writeHandle < 0)
        return BSDSocketsErrorCode(errno);
    // The read request stays the registration's data for the whole life of
    // the descriptor, so an error event always finds a request record.
    epoll_event event = makeEvent(EPOLLERR | EPOLLET, token(false));
    if (epoll_ctl(selectorHandle.load(), EPOLL_CTL_ADD, handle, &event) != 0) {
        log(Core::LogError, "Socket::set() call to epoll_ctl failed errno %d\n", errno);
        ::close(writeHandle);
        return SocketNotCreated;
    }
    m_handle = handle;
    m_platform->writeHandle = writeHandle;
    m_platform->readRequest = BSDSocketPlatformData::Request();
    m_platform->writeRequest = BSDSocketPlatformData::Request();
    m_platform->readTaken = false;
    m_platform->ended = false;
    m_platform->connecting = false;
    m_platform->connectStarted = false;
    return NoSocketError;
}

unsigned char Socket::bind(const SocketAddress& address)
{
    message("Binding %p to address %s\n", static_cast<void*>(this), address.asString().c_str());
    MutexLocker locker(m_platform->lock);
    if (m_handle == BadSocketValue)
        return SocketNotCreated;
    if (!address.isValid())
        return BadAddress;
    if (address.isUNIXAddress()) {
        const char* path = reinterpret_cast<const sockaddr_un*>(address.getAddress())->sun_path;
        // Abstract names have an empty path here, so this fails and logs:
        // expected, and harmless.
        if (unlink(path) != 0)
            Core::log(Core::LogError, "Socket::bind() Unable to unlink '%s' due to %d", path, errno);
    }
    return goodAPICall(::bind(m_handle, address.getAddress(), SocketAddress::getAddressSizeOfSocketType(this)));
}

unsigned char Socket::listen(ClientConnectCallback clientConnect, ClientDisconnectCallback clientDisconnect, void* user)
{
    {
        MutexLocker locker(m_platform->lock);
        if (m_handle == BadSocketValue)
            return SocketNotCreated;
        if (::listen(m_handle, ListenBacklog) != 0)
            return BSDSocketsErrorCode(errno);
        // Accepting happens on the workers, which must never block.
        SetNonBlocking(m_handle);
        // The server mode exists before the first client can be signalled,
        // so that the first event already finds a listener.
        buildServerMode(clientConnect, clientDisconnect, user);
        if (!armRead(EPOLLIN | EPOLLERR | EPOLLET)) {
            log(Core::LogError, "Socket::listen() Unable to start the epoll off\n");
            return UnableToSchedualAsyncJob;
        }
    }
    message("Listening on Socket %p\n", static_cast<void*>(this));
    return NoSocketError;
}

unsigned char Socket::connect(const SocketAddress& address, ConnectionCallback connected,
                              ConnectionCallback disconnected, void* user)
{
    int handle = BadSocketValue;
    {
        MutexLocker locker(m_platform->lock);
        m_connected = connected;
        m_disconnected = disconnected;
        m_pConnectionUser = user;
        handle = m_handle;
    }
    // The blocking connect runs without the lock; closing the socket from
    // another thread meanwhile is the owner's mistake.
    if (handle == BadSocketValue
        || ::connect(handle, address.getAddress(), SocketAddress::getAddressSizeOfSocketType(this)) != 0) {
        const unsigned char code = handle == BadSocketValue ? SocketNotCreated : BSDSocketsErrorCode(errno);
        log(Core::LogError, "Socket::connect( '%s', %p, %p, %p ) this=%d Error on the connection Error:%d.\n",
            address.asString().c_str(), functionAsPointer(connected), functionAsPointer(disconnected), user,
            asNumber(this), code);
        return code;
    }
    SetNonBlocking(handle);
    onConnectedAction();
    return NoSocketError;
}

unsigned char Socket::connectAsync(const SocketAddress& address, ConnectionCallback connected,
                                   ConnectionCallback disconnected, void* user)
{
    MutexLocker locker(m_platform->lock);
    m_connected = connected;
    m_disconnected = disconnected;
    m_pConnectionUser = user;
    if (m_handle == BadSocketValue)
        return SocketNotCreated;
    // A second start while one is under way, or after a send was posted,
    // would take the write handle's one registration from it.
    if (m_platform->connectStarted || m_platform->writeRequest.pending)
        return SocketConnected;
    m_platform->connectStarted = true;
    SetNonBlocking(m_handle);
    if (::connect(m_handle, address.getAddress(), SocketAddress::getAddressSizeOfSocketType(this)) != 0
        && errno != EINPROGRESS) {
        const unsigned char code = BSDSocketsErrorCode(errno);
        log(Core::LogError, "Socket::connect( '%s', %p, %p, %p ) this=%d Error on the connection Error:%d.\n",
            address.asString().c_str(), functionAsPointer(connected), functionAsPointer(disconnected), user,
            asNumber(this), code);
        return code;
    }
    // Writability of the connecting socket is its completion, success or
    // failure alike; even an immediate success is reported by a worker, so
    // the callback never runs on the caller's thread, under its locks.
    m_platform->connecting = true;
    epoll_event event = makeEvent(EPOLLOUT | EPOLLERR | EPOLLET, token(true));
    if (epoll_ctl(selectorHandle.load(), EPOLL_CTL_ADD, m_platform->writeHandle, &event) != 0) {
        m_platform->connecting = false;
        log(Core::LogError, "Socket::connectAsync() this=%p epoll_ctl failed error:%d.\n", static_cast<void*>(this),
            errno);
        return UnknownError;
    }
    return NoSocketError;
}

unsigned char Socket::close()
{
    MutexLocker locker(m_platform->lock);
    if (m_handle == BadSocketValue)
        return SocketNotCreated;
    // No transfer can begin while the lock is held; one already running is
    // a single non-blocking system call.
    while (m_platform->transfers.load() > 0)
        std::this_thread::yield();
    const int selector = selectorHandle.load();
    epoll_ctl(selector, EPOLL_CTL_DEL, m_handle, nullptr);
    if (m_platform->writeHandle != BadSocketValue) {
        if (m_platform->writeRequest.pending || m_platform->connecting)
            epoll_ctl(selector, EPOLL_CTL_DEL, m_platform->writeHandle, nullptr);
        ::close(m_platform->writeHandle);
        m_platform->writeHandle = BadSocketValue;
    }
    int on = 1;
    setsockopt(m_handle, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    ::close(m_handle);
    m_handle = BadSocketValue;
    m_platform->readRequest.pending = false;
    m_platform->readTaken = false;
    m_platform->writeRequest.pending = false;
    m_platform->connecting = false;
    destroyServerMode();
    return NoSocketError;
}

unsigned char Socket::setBroadcastMode(bool on)
{
    MutexLocker locker(m_platform->lock);
    int value = on ? 1 : 0;
    return goodAPICall(setsockopt(m_handle, SOL_SOCKET, SO_BROADCAST, &value, sizeof(value)));
}

void Socket::buildServerMode(ClientConnectCallback clientConnect, ClientDisconnectCallback clientDisconnect,
                             void* user)
{
    BSDSocketServiceMode* mode = new BSDSocketServiceMode();
    mode->clientConnect = clientConnect;
    mode->clientDisconnect = clientDisconnect;
    mode->user = user;
    BSDSocketServiceMode* previous = nullptr;
    {
        std::lock_guard<std::mutex> locker(registryLock);
        previous = m_pServerMode;
        if (previous != nullptr)
            mode->accepted.swap(previous->accepted);
        m_pServerMode = mode;
    }
    delete previous;
}

void Socket::destroyServerMode()
{
    BSDSocketServiceMode* mode = nullptr;
    {
        std::lock_guard<std::mutex> locker(registryLock);
        mode = m_pServerMode;
        m_pServerMode = nullptr;
        if (mode != nullptr)
            for (Socket* child : mode->accepted)
                child->m_pParent = nullptr;
    }
    delete mode;
}

bool Socket::armRead(uint32_t events)
{
    epoll_event event = makeEvent(events, token(false));
    return epoll_ctl(selectorHandle.load(), EPOLL_CTL_MOD, m_handle, &event) == 0;
}

// ---------------------------------------------------------------------------
// Accepting

unsigned char Socket::rearmListener()
{
    MutexLocker locker(m_platform->lock);
    if (m_handle == BadSocketValue || m_pServerMode == nullptr)
        return NoSocketError; // closed meanwhile: nothing to re-arm
    return armRead(EPOLLIN | EPOLLERR | EPOLLET) ? NoSocketError : UnableToSchedualAsyncJob;
}

void Socket::refuseClient(int handle)
{
    log(Core::LogWarning, "Socket::doAccept() this=%p Too many clients, dropping a new one.\n",
        static_cast<void*>(this));
    ::close(handle);
}

unsigned char Socket::doAccept()
{
    std::shared_ptr<BSDSocketPlatformData> record = m_platform;
    sockaddr_un peerStorage;
    std::memset(&peerStorage, 0, sizeof(peerStorage));
    // The peer length is that of an IPv4 address whatever the family.
    socklen_t length = sizeof(sockaddr_in);
    int handle = BadSocketValue;
    int error = 0;
    {
        MutexLocker locker(record->lock);
        if (m_handle == BadSocketValue)
            return NoSocketError;
        handle = ::accept(m_handle, reinterpret_cast<sockaddr*>(&peerStorage), &length);
        error = errno;
    }
    if (handle < 0) {
        // Another worker took the client, or it gave up before we got to
        // it: neither ends the listener.
        if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ECONNABORTED)
            return rearmListener();
        return BSDSocketsErrorCode(error);
    }
    SetNonBlocking(handle);

    size_t alive = 0;
    {
        std::lock_guard<std::mutex> locker(registryLock);
        alive = m_pServerMode != nullptr ? m_pServerMode->accepted.size() : 0;
    }
    if (alive >= MaxAcceptedSockets) {
        refuseClient(handle);
        return rearmListener();
    }

    Socket* accepted = createOfType();
    if (accepted == nullptr) {
        ::close(handle);
        return UnknownError;
    }
    const unsigned char code = accepted->set(handle);
    if (code != NoSocketError) {
        delete accepted;
        ::close(handle);
        return code;
    }
    SocketAddress peer;
    peer.setAddressByFamily(reinterpret_cast<const sockaddr*>(&peerStorage), peerStorage.sun_family);

    // Accepted sockets are linked to their listener so that the end of a
    // client's connection reaches the listener's client-disconnect callback.
    // The link exists only while the listener is listening, so that the
    // listener's end can always undo it.
    ClientConnectCallback clientConnect = nullptr;
    void* user = nullptr;
    {
        MutexLocker locker(record->lock);
        std::lock_guard<std::mutex> registryLocker(registryLock);
        if (m_pServerMode != nullptr) {
            accepted->m_pParent = this;
            m_pServerMode->accepted.push_back(accepted);
            clientConnect = m_pServerMode->clientConnect;
            user = m_pServerMode->user;
        }
    }
    if (clientConnect != nullptr) {
        clientConnect(this, peer, accepted, user);
    } else {
        // Nobody would own it.
        accepted->close();
        delete accepted;
    }
    if (record->owner.load() == nullptr)
        return NoSocketError; // the callback deleted the listener
    return rearmListener();
}

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
    if (buffer == nullptr || size == 0 || getType() != SOCK_STREAM)
        return 0;
    int handle = BadSocketValue;
    {
        MutexLocker locker(m_platform->lock);
        // A posted send keeps its place: bytes never overtake it (the owner
        // posts sends and calls this under one lock of its own).
        if (m_handle == BadSocketValue || m_platform->writeRequest.pending || m_platform->connecting
            || m_platform->ended)
            return 0;
        handle = m_platform->writeHandle >= 0 ? m_platform->writeHandle : m_handle;
        ++m_platform->transfers;
    }
    message("Doing send() on a socket.\n");
    // Outside the lock, so a worker receiving on this socket meanwhile is
    // not kept waiting; close() waits for the transfer instead.
    const ssize_t count = ::send(handle, buffer, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    --m_platform->transfers;
    return count > 0 ? static_cast<unsigned>(count) : 0;
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
        log(Core::LogError, "Socket::sendTo( %p, %d ) this=%p epoll_ctl failed error:%d.\n",
            static_cast<void*>(buffer), size, static_cast<void*>(this), EEXIST);
        return UnknownError;
    }
    request.buffer = buffer;
    request.size = size;
    request.address = address;
    request.pending = true;
    epoll_event event = makeEvent(EPOLLOUT | EPOLLERR | EPOLLET, token(true));
    if (epoll_ctl(selectorHandle.load(), EPOLL_CTL_ADD, m_platform->writeHandle, &event) != 0) {
        request.pending = false;
        log(Core::LogError, "Socket::sendTo( %p, %d ) this=%p epoll_ctl failed error:%d.\n",
            static_cast<void*>(buffer), size, static_cast<void*>(this), errno);
        return UnknownError;
    }
    return NoSocketError;
}

// ---------------------------------------------------------------------------
// Addresses and accessors

unsigned char Socket::getRemoteAddress(SocketAddress& address)
{
    MutexLocker locker(m_platform->lock);
    if (m_handle == BadSocketValue) {
        log(Core::LogError, "Socket::getRemoteAddress() this=%p Socket not created.\n", static_cast<void*>(this));
        return SocketNotCreated;
    }
    sockaddr_un peer;
    std::memset(&peer, 0, sizeof(peer));
    socklen_t length = sizeof(sockaddr_in);
    if (getpeername(m_handle, reinterpret_cast<sockaddr*>(&peer), &length) != 0) {
        const unsigned char code = BSDSocketsErrorCode(errno);
        log(Core::LogError, "Socket::getRemoteAddress() this=%p Failed getpeername error:%d.\n",
            static_cast<void*>(this), code);
        return code;
    }
    address.setAddressByFamily(reinterpret_cast<const sockaddr*>(&peer), peer.sun_family);
    return NoSocketError;
}

unsigned char Socket::getLocalAddress(SocketAddress& address)
{
    MutexLocker locker(m_platform->lock);
    if (m_handle == BadSocketValue)
        return SocketNotCreated;
    sockaddr_un local;
    std::memset(&local, 0, sizeof(local));
    socklen_t length = sizeof(local);
    if (getsockname(m_handle, reinterpret_cast<sockaddr*>(&local), &length) != 0)
        return BSDSocketsErrorCode(errno);
    address.setAddressByFamily(reinterpret_cast<const sockaddr*>(&local), local.sun_family);
    return NoSocketError;
}

int Socket::getHandle() const
{
    MutexLocker locker(m_platform->lock);
    return m_handle;
}

bool Socket::isListening() const
{
    std::lock_guard<std::mutex> locker(registryLock);
    return m_pServerMode != nullptr;
}

Socket* Socket::getParent() const
{
    std::lock_guard<std::mutex> locker(registryLock);
    return m_pParent;
}

void Socket::setParent(Socket* listener)
{
    std::lock_guard<std::mutex> locker(registryLock);
    if (m_pParent != nullptr && m_pParent->m_pServerMode != nullptr) {
        std::vector<Socket*>& siblings = m_pParent->m_pServerMode->accepted;
        siblings.erase(std::remove(siblings.begin(), siblings.end(), this), siblings.end());
    }
    m_pParent = nullptr;
    // Only a listening socket keeps the list through which its end unlinks
    // its clients; any other "parent" could be left dangling.
    if (listener != nullptr && listener != this && listener->m_pServerMode != nullptr) {
        m_pParent = listener;
        listener->m_pServerMode->accepted.push_back(this);
    }
}

std::vector<Socket*> Socket::getAcceptedSockets() const
{
    std::lock_guard<std::mutex> locker(registryLock);
    return m_pServerMode != nullptr ? m_pServerMode->accepted : std::vector<Socket*>();
}

void Socket::setStreamCallbacks(StreamCallback sent, StreamCallback received, void* user)
{
    MutexLocker locker(m_platform->lock);
    m_streamSent = sent;
    m_streamReceived = received;
    m_pTransferUser = user;
}

void Socket::setDatagramCallbacks(DatagramCallback sent, DatagramCallback received, void* user)
{
    MutexLocker locker(m_platform->lock);
    m_datagramSent = sent;
    m_datagramReceived = received;
    m_pTransferUser = user;
}

void Socket::setErrorCallback(ErrorCallback callback, void* user)
{
    MutexLocker locker(m_platform->lock);
    m_errorCallback = callback;
    m_pErrorUser = user;
}

void Socket::setConnectionCallback(ConnectionCallback connected, ConnectionCallback disconnected, void* user)
{
    MutexLocker locker(m_platform->lock);
    m_connected = connected;
    m_disconnected = disconnected;
    m_pConnectionUser = user;
}

void Socket::setUserData(void* data)
{
    MutexLocker locker(m_platform->lock);
    m_pUserData = data;
}

void* Socket::getUserData() const
{
    MutexLocker locker(m_platform->lock);
    return m_pUserData;
}

void Socket::clear()
{
    setParent(nullptr);
    MutexLocker locker(m_platform->lock);
    m_errorCallback = nullptr;
    m_pErrorUser = nullptr;
    m_streamSent = nullptr;
    m_streamReceived = nullptr;
    m_datagramSent = nullptr;
    m_datagramReceived = nullptr;
    m_pTransferUser = nullptr;
    m_connected = nullptr;
    m_disconnected = nullptr;
    m_pConnectionUser = nullptr;
    m_pUserData = nullptr;
}

// ---------------------------------------------------------------------------
// Connection events

void Socket::onConnectedAction()
{
    ConnectionCallback connected = nullptr;
    void* user = nullptr;
    {
        MutexLocker locker(m_platform->lock);
        if (m_handle == BadSocketValue) {
            log(Core::LogWarning, "Socket::onConnectedAction() this=%p Socket handle bad.\n",
                static_cast<void*>(this));
            return;
        }
        connected = m_connected;
        user = m_pConnectionUser;
    }
    if (connected != nullptr)
        connected(this, user);
}

void Socket::onDisconnectAction(unsigned char code)
{
    message("Socket::onDisconnectAction( %d ) this = %p \n", code, static_cast<void*>(this));
    // Kept so that the socket's deletion inside a callback can be noticed.
    std::shared_ptr<BSDSocketPlatformData> record = m_platform;
    {
        MutexLocker locker(record->lock);
        if (m_handle == BadSocketValue)
            return;
    }
    // The listener is held while its callback runs, so that deleting it
    // elsewhere waits for the callback.
    Socket* listener = nullptr;
    std::shared_ptr<BSDSocketPlatformData> listenerRecord;
    {
        std::lock_guard<std::mutex> locker(registryLock);
        if (m_pParent != nullptr && m_pParent->m_pServerMode != nullptr
            && takeHoldLocked(m_pParent->m_platform.get())) {
            listener = m_pParent;
            listenerRecord = listener->m_platform;
        }
    }
    SocketHold listenerHold(std::move(listenerRecord));
    if (listener != nullptr) {
        ClientDisconnectCallback clientDisconnect = nullptr;
        void* user = nullptr;
        {
            MutexLocker locker(listener->m_platform->lock);
            if (listener->m_pServerMode != nullptr) {
                clientDisconnect = listener->m_pServerMode->clientDisconnect;
                user = listener->m_pServerMode->user;
            }
        }
        if (clientDisconnect != nullptr) {
            message("Socket::onDisconnectAction() Calling server object as well..\n");
            clientDisconnect(listener, this, user);
        }
        if (record->owner.load() == nullptr)
            return; // the listener's owner deleted this socket
    }
    ConnectionCallback disconnected = nullptr;
    void* user = nullptr;
    {
        MutexLocker locker(record->lock);
        disconnected = m_disconnected;
        user = m_pConnectionUser;
    }
    if (disconnected == nullptr) {
        message("Socket::onDisconnectAction() ! Calling callback.\n");
        return;
    }
    message("Socket::onDisconnectAction() Calling callback.\n");
    disconnected(this, user);
}

void Socket::errored(unsigned char code)
{
    log(Core::LogError, "Socket::errored( %d ) this= %p \n", code, static_cast<void*>(this));
    ErrorCallback callback = nullptr;
    void* user = nullptr;
    {
        MutexLocker locker(m_platform->lock);
        callback = m_errorCallback;
        user = m_pErrorUser;
    }
    if (callback != nullptr)
        callback(this, code, user);
}

// ---------------------------------------------------------------------------
// The selector and timers

bool Socket::init(unsigned count)
{
    MutexLocker locker(initLock);
    message("SocketSelector::init( %d )\n", count);
    if (installedSelector.load() != nullptr)
        return true;
    SocketSelector* selector = new (std::nothrow) SocketSelector();
    if (selector == nullptr) {
        log(Core::LogFatal, "SocketSelector::init() Failed to create SocketSelector object.");
        return false;
    }
    if (!selector->start(count == 0 ? 1 : count)) {
        log(Core::LogFatal, "SocketSelector::init() Failed to start the SocketSelector object.");
        delete selector;
        return false;
    }
    selectorHandle = selector->getHandle();
    installedSelector = selector;
    message("SocketSelector::init() Done\n");
    return true;
}

void Socket::deinit()
{
    MutexLocker locker(initLock);
    message("SocketSelector::deinit()\n");
    SocketSelector* selector = installedSelector.exchange(nullptr);
    if (selector == nullptr)
        return;
    selectorHandle = -1;
    selector->stop();
    delete selector;
}

SocketSelector* Socket::getSelector()
{
    return installedSelector.load();
}

Socket* Socket::createByAddressType(const SocketAddress& address)
{
    if (address.isIP4Address())
        return new SocketTCPIP();
    if (address.isUNIXAddress())
        return new SocketUNIX();
    return nullptr;
}

bool Socket::addToTimer(TimerCallback callback, void* data, unsigned ms, bool once)
{
    return SocketTimeout::instance()->add(callback, data, ms, once);
}

bool Socket::removeFromTimer(TimerCallback callback, void* data)
{
    return SocketTimeout::instance()->remove(callback, data);
}

// ---------------------------------------------------------------------------
// Errors

unsigned char Socket::BSDSocketsErrorCode(int error)
{
    log(Core::LogWarning, "Call to BSDSocketsErrorCode( %d )\n", error);
    switch (error) {
    case EACCES:
        return PermissionDenied;
    case EFAULT:
        return BadAddress;
    case EMFILE:
        return TooManyOpenFiles;
    case ENONET:
        return NoNetwork;
    case 76: // a second number for an address in use, kept on purpose
    case EADDRINUSE:
        return AddressAlreadyUsed;
    case EMSGSIZE:
        return MessageTooLong;
    case EADDRNOTAVAIL:
        return CantAssignAddress;
    case ENETDOWN:
        return NetworkDown;
    case ENETUNREACH:
        return NetworkUnreachable;
    case ENETRESET:
        return NetworkDownOnReset;
    case ECONNABORTED:
        return ConnectionAbort;
    case ECONNRESET:
        return ConnectionResetByPeer;
    case EISCONN:
        return SocketConnected;
    case ESHUTDOWN:
        return CannotSendAfterSocketShutdown;
    case ETIMEDOUT:
        return TimeOut;
    case ECONNREFUSED:
        return ConnectionRefused;
    case EHOSTDOWN:
        return HostIsDown;
    case EHOSTUNREACH:
        return NoRouteToHost;
    default:
        return UnknownError;
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

// ---------------------------------------------------------------------------
// Logging

int Socket::setLogger(Logger logger)
{
    socketLogger = logger;
    return 0;
}

int Socket::setLoggingLevel(int level)
{
    socketLoggingLevel = level;
    return 0;
}

int Socket::getLoggingLevel()
{
    return socketLoggingLevel;
}

void Socket::message(const char* format, ...)
{
    Logger logger = socketLogger;
    if (logger == nullptr || socketLoggingLevel > Core::LogMessage)
        return;
    va_list args;
    va_start(args, format);
    deliver(logger, Core::LogMessage, format, args);
    va_end(args);
}

void Socket::verbose(const char* format, ...)
{
    Logger logger = socketLogger;
    if (logger == nullptr || socketLoggingLevel > Core::LogVerbose)
        return;
    va_list args;
    va_start(args, format);
    deliver(logger, Core::LogVerbose, format, args);
    va_end(args);
}

void Socket::log(int level, const char* format, ...)
{
    Logger logger = socketLogger;
    if (logger == nullptr || socketLoggingLevel > level)
        return;
    va_list args;
    va_start(args, format);
    deliver(logger, level, format, args);
    va_end(args);
}

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
