// The base asynchronous socket: set-up, accepting, addresses and accessors,
// and the connection events. Transfers are in socketio.cpp, the record
// registry and the release of sockets in socketregistry.cpp, the process-wide
// selector and logger in socketlayer.cpp, error codes in socketerrors.cpp and
// the concrete socket types in sockettypes.cpp.
//
// Lock order: a socket's record lock may be held while the registry lock is
// taken, never the other way round; neither is held across a callback.
#include "platform/socket.h"

#include "core/core.h"
#include "platform/socketinternal.h"
#include "platform/socketreaper.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

using UlmarComms::Core;

namespace UlmarCommsSystem {

using namespace UlmarCommsSystem::SocketLayer;

namespace {

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
// Transfers and closing

void BSDSocketPlatformData::closeHandle(int handle)
{
    // No transfer begins while the lock is held; one already running is a
    // single non-blocking system call on this number, or a thread waiting on
    // a taken read; the number must not be reused until they end.
    if (transfers == 0) {
        ::close(handle);
        return;
    }
    // A wait may last: the peer must see the end now, and the waiter wakes.
    if (waits > 0)
        ::shutdown(handle, SHUT_RDWR);
    closedHandles.push_back(handle);
}

void BSDSocketPlatformData::endTransfer()
{
    MutexLocker locker(lock);
    if (--transfers > 0)
        return;
    for (int handle : closedHandles)
        ::close(handle);
    closedHandles.clear();
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
    // The caller owns the socket, but its error callback on a worker may
    // release it while the connect blocks; the section keeps the object
    // until this returns, and lets the connected callback hand objects to
    // the reaper.
    SocketReaper::Section section;
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
    if (handle == BadSocketValue ||
        ::connect(handle, address.getAddress(), SocketAddress::getAddressSizeOfSocketType(this)) != 0) {
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
    if (::connect(m_handle, address.getAddress(), SocketAddress::getAddressSizeOfSocketType(this)) != 0 &&
        errno != EINPROGRESS) {
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
    const int selector = selectorHandle.load();
    epoll_ctl(selector, EPOLL_CTL_DEL, m_handle, nullptr);
    if (m_platform->writeHandle != BadSocketValue) {
        if (m_platform->writeRequest.pending || m_platform->connecting)
            epoll_ctl(selector, EPOLL_CTL_DEL, m_platform->writeHandle, nullptr);
        m_platform->closeHandle(m_platform->writeHandle);
        m_platform->writeHandle = BadSocketValue;
    }
    int on = 1;
    setsockopt(m_handle, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    m_platform->closeHandle(m_handle);
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

void Socket::buildServerMode(ClientConnectCallback clientConnect, ClientDisconnectCallback clientDisconnect, void* user)
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
    if (alive >= m_maxAccepted.load()) {
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
        release(accepted);
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
        release(accepted);
    }
    if (record->owner.load() == nullptr)
        return NoSocketError; // the callback released the listener
    return rearmListener();
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

void Socket::forgetCallbacksLocked()
{
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
}

void Socket::clear()
{
    setParent(nullptr);
    MutexLocker locker(m_platform->lock);
    forgetCallbacksLocked();
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
            log(Core::LogWarning, "Socket::onConnectedAction() this=%p Socket handle bad.\n", static_cast<void*>(this));
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
    // Its release inside a callback shows here.
    BSDSocketPlatformData* record = m_platform.get();
    {
        MutexLocker locker(record->lock);
        if (m_handle == BadSocketValue)
            return;
    }
    // The listener is found under the registry lock, which its release takes
    // to unlink this socket, so the caller's reaper section keeps it valid
    // for its callback.
    Socket* listener = nullptr;
    {
        std::lock_guard<std::mutex> locker(registryLock);
        if (m_pParent != nullptr && m_pParent->m_pServerMode != nullptr)
            listener = m_pParent;
    }
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
            return; // the listener's owner released this socket
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

} // namespace UlmarCommsSystem
