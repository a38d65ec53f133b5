// The process side of the local link: connecting, the reconnection timer,
// and traffic both ways between the MessageRouter and the frame handler.
//
// Deadlock rules kept here: the proxy's timer lock is never held while
// calling into the timer list (whose callbacks take the timer lock), nor
// across connect().
//
// The router worker's wait for the link (waitForInput) polls outside any
// reaper section, so it never holds back the reaper or a synchronize(): it
// takes the read and a SocketWait that keeps only the descriptor open, and
// finds the link again inside a section to complete or return the read. A
// link released during the poll is shut down at once, which ends the poll.
#include "link/socketsystemrouterproxy.h"

#include "core/core.h"
#include "platform/peercredentials.h"
#include "platform/socket.h"
#include "platform/socketreaper.h"
#include "platform/sockettimeout.h"
#include "service/userpolicy.h"

#include <poll.h>
#include <unistd.h>

namespace UlmarComms {

using UlmarCommsSystem::MutexLocker;
using UlmarCommsSystem::Socket;
using UlmarCommsSystem::SocketTimeout;

namespace {

const char* printable(const char* text)
{
    return text != nullptr ? text : "(null)";
}

unsigned setting(const char* key)
{
    const int value = Core::instance()->getNumber(key);
    return value > 0 ? static_cast<unsigned>(value) : 0u;
}

} // namespace

SocketSystemRouterProxy::SocketSystemRouterProxy(const SocketAddress& systemRouterAddress)
    : m_state(StateDown),
      m_reconnectPending(false),
      m_live(false),
      m_systemRouterAddress(systemRouterAddress),
      m_pMessageRouter(nullptr),
      m_serviceRefused(false)
{
    Core::message("SocketSystemRouterProxy::SocketSystemRouterProxy( '%s' ) this=%p\n",
                  m_systemRouterAddress.asString().c_str(), static_cast<void*>(this));
    const unsigned outbound = setting("socketsystemrouterproxy.outbound.size");
    const unsigned inbound = setting("socketsystemrouterproxy.inbound.size");
    createBuffers(inbound, outbound);
}

SocketSystemRouterProxy::~SocketSystemRouterProxy()
{
    Core::message("SocketSystemRouterProxy::~SocketSystemRouterProxy() this=%p.\n", static_cast<void*>(this));
    SocketSystemRouterProxy::retireLink();
    Core::message("SocketSystemRouterProxy::~SocketSystemRouterProxy() Done.\n");
}

void SocketSystemRouterProxy::retireLink()
{
    // The runtime deletes a proxy whose start failed without finishing it,
    // and a failed create schedules a retry: an entry left behind would fire
    // on a deleted proxy.
    if (SocketTimeout::instance()->count(onDoReconnect, this) > 0)
        Socket::removeFromTimer(onDoReconnect, this);
    dropSocket(false);
}

void SocketSystemRouterProxy::dropSocket(bool close)
{
    Socket* socket = takeSocket();
    if (socket == nullptr)
        return;
    if (close)
        Core::message("SocketSystemRouterProxy::finish() Closing socket %p\n", static_cast<void*>(socket));
    Socket::release(socket);
}

// ------------------------------------------------------------------ control

bool SocketSystemRouterProxy::start()
{
    {
        MutexLocker locker(m_timerLock);
        m_live = true;
    }
    m_state = StateConnecting;
    return connect();
}

void SocketSystemRouterProxy::finish()
{
    Core::message("SocketSystemRouterProxy::finish() this=%p\n", static_cast<void*>(this));
    // Neither the lock nor the pending flag is touched here, and the proxy
    // deliberately stays live: finish() itself removes the retry and drops the
    // socket, so the live flag is not what ends reconnection, and the owner
    // deletes the proxy next.
    Socket::removeFromTimer(onDoReconnect, this);
    {
        MutexLocker locker(m_timerLock);
        m_live = true;
    }
    dropSocket(true);
    // An error that was being handled meanwhile may have scheduled an
    // attempt, or an attempt may just have made a socket; nothing of the
    // link may outlive finish(), since the owner deletes the proxy next.
    UlmarCommsSystem::SocketReaper::synchronize();
    while (socket() != nullptr || SocketTimeout::instance()->count(onDoReconnect, this) > 0) {
        Socket::removeFromTimer(onDoReconnect, this);
        dropSocket(true);
        UlmarCommsSystem::SocketReaper::synchronize();
    }
}

bool SocketSystemRouterProxy::add(IMessageRouter* router)
{
    m_pMessageRouter = router;
    return true;
}

bool SocketSystemRouterProxy::remove(IMessageRouter* router)
{
    IMessageRouter* expected = router;
    if (router != nullptr && m_pMessageRouter.compare_exchange_strong(expected, nullptr))
        // The warning is deliberately given when the router does match and is
        // detached, the inverse of what its text says; the text stays as is.
        Core::log(Core::LogWarning,
                  "SocketSystemRouterProxy::remove( %p ) this=%p Trying to remove the wronge message router.\n",
                  static_cast<void*>(router), static_cast<void*>(this));
    return true;
}

bool SocketSystemRouterProxy::isLive()
{
    MutexLocker locker(m_timerLock);
    return m_live;
}

bool SocketSystemRouterProxy::isReconnectPending()
{
    MutexLocker locker(m_timerLock);
    return m_reconnectPending;
}

// ----------------------------------------------------------------- traffic

bool SocketSystemRouterProxy::post(MessageRef message)
{
    if (socket() == nullptr)
        return false;
    // The frame holds a copy: the message is done with either way.
    if (!addToOutbound(message.get())) {
        Core::log(Core::LogError, "SocketSystemRouterProxy::post( %p ) this=%p Failed to add to the outbound queue.\n",
                  static_cast<void*>(message.get()), static_cast<void*>(this));
        return false;
    }
    return true;
}

void SocketSystemRouterProxy::handleCommand(IMessageRouter* router, unsigned char code, const char* text)
{
    if (router != m_pMessageRouter.load()) {
        Core::log(Core::LogError,
                  "SocketSystemRouterProxy::handleCommand( %p, %d, '%s' ) this=%p message router mismatch.\n",
                  static_cast<void*>(router), code, printable(text), static_cast<void*>(this));
        return;
    }
    if (!addToOutbound(code, text))
        Core::log(
            Core::LogError,
            "SocketSystemRouterProxy::handleCommand( %p, %d, '%s' ) this=%p Unalbe to add to the outbound queue.\n",
            static_cast<void*>(router), code, printable(text), static_cast<void*>(this));
}

void SocketSystemRouterProxy::doHandleMessage(MessageItem* item)
{
    MessageRef message(item);
    IMessageRouter* router = m_pMessageRouter.load();
    if (router == nullptr) {
        Core::log(Core::LogError, "SocketSystemRouterProxy::doHandleMessage() this=%p message Router is NULL.\n",
                  static_cast<void*>(this));
        return;
    }
    if (!router->post(std::move(message)))
        Core::log(Core::LogError,
                  "SocketSystemRouterProxy::doHandleMessage() this=%p Unable to post message to message Router.\n",
                  static_cast<void*>(this));
}

int SocketSystemRouterProxy::waitForInput(int wakeHandle)
{
    UlmarCommsSystem::SocketWait wait;
    {
        UlmarCommsSystem::SocketReaper::Section section;
        UlmarCommsSystem::SocketHold hold = holdSocket();
        Socket* link = hold.socket();
        if (link == nullptr)
            return InputUnsupported;
        // A read being completed by a selector worker right now cannot be
        // taken; that worker wakes the router as usual.
        wait = link->waitOnTakenRead();
    }
    if (wait.handle() < 0)
        return InputUnsupported;
    pollfd waits[2] = {{wait.handle(), POLLIN, 0}, {wakeHandle, POLLIN, 0}};
    // No time-out: input, the link's end (its release shuts it down) or a
    // kick on wakeHandle is what the worker waits for.
    ::poll(waits, 2, -1);
    if ((waits[1].revents & POLLIN) != 0) {
        uint64_t count = 0;
        ssize_t drained = ::read(wakeHandle, &count, sizeof(count));
        (void)drained;
    }
    UlmarCommsSystem::SocketReaper::Section section;
    UlmarCommsSystem::SocketHold hold = holdSocket();
    Socket* link = hold.socket();
    // Released meanwhile, its read with it, or replaced: nothing is left taken.
    if (link == nullptr || !wait.of(hold))
        return InputDone;
    if ((waits[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0)
        link->completeTakenRead(hold);
    else
        link->returnRead(); // woken: the worker has work and the selector reads again
    return InputDone;
}

void SocketSystemRouterProxy::doHandleCommand(unsigned char code, const std::string& text)
{
    IMessageRouter* router = m_pMessageRouter.load();
    if (router == nullptr) {
        Core::log(Core::LogError, "SocketSystemRouterProxy::doHandleCommand() this=%p No message router.\n",
                  static_cast<void*>(this));
        return;
    }
    router->commandHandler(code, text.c_str());
}

void SocketSystemRouterProxy::setSocket(Socket* socket)
{
    DataFrameHandler::setSocket(socket);
}

// -------------------------------------------------------------- connection

bool SocketSystemRouterProxy::connect()
{
    Core::message("SocketSystemRouterProxy::connect() this=%p\n", static_cast<void*>(this));
    Socket* socket = Socket::createByAddressType(m_systemRouterAddress);
    if (socket == nullptr) {
        Core::log(Core::LogError, "SocketSystemRouterProxy::connect() this=%p No Socket object.\n",
                  static_cast<void*>(this));
        return false;
    }
    unsigned char error = socket->create();
    if (error != Socket::NoSocketError) {
        Socket::release(socket);
        Core::log(Core::LogError,
                  "SocketSystemRouterProxy::connect() this=%p Unable to start of the create Socket object. Error:%d\n",
                  static_cast<void*>(this), error);
        doTimerReconnect();
        return false;
    }
    // Nothing is written until the connection stands: a frame sent on a
    // socket that is still connecting would fail it.
    holdOutbound();
    setSocket(socket);
    m_state = StateConnecting;
    error = socket->connect(m_systemRouterAddress, DataFrameHandler::onConnectedFunction,
                            DataFrameHandler::onDisconnectFunction, static_cast<DataFrameHandler*>(this));
    if (error != Socket::NoSocketError) {
        Socket::release(takeSocketIf(socket));
        Core::log(Core::LogError,
                  "SocketSystemRouterProxy::connect() this=%p Unable to start of the Connect. Error:%d\n",
                  static_cast<void*>(this), error);
        doTimerReconnect();
    } else if (m_serviceRefused.exchange(false)) {
        Socket* refused = takeSocketIf(socket);
        if (refused != nullptr) {
            m_state = StateDown;
            Socket::release(refused);
        }
        doTimerReconnect();
    }
    // True also when the connect could not be started: a retry is on its way.
    Core::message("SocketSystemRouterProxy::connect() Done.\n");
    return true;
}

void SocketSystemRouterProxy::onConnected(Socket* socket)
{
    if (socket == nullptr || socket != this->socket()) {
        Core::log(Core::LogError, "SSRProxy::onConnected() this=%p Socket Missmatch\n", static_cast<void*>(this));
        return;
    }
    removeReconnectionTimerFunction();
    if (!trustsService(socket)) {
        m_serviceRefused = true;
        return;
    }
    if (!recvData()) {
        Core::log(Core::LogError, "SSRProxy::OnConnected() this=%p Failed to start recv data from the network.\n",
                  static_cast<void*>(this));
        return;
    }
    m_state = StateConnected;
    // Frames queued while connecting may leave ahead of the routing table.
    releaseOutbound();
    IMessageRouter* router = m_pMessageRouter.load();
    if (router == nullptr) {
        Core::log(Core::LogFatal,
                  "SocketSystemRouterProxy::onConnected() NO MESSAGE ROUTER!  Something very bad happend.\n");
        return;
    }
    // Every (re)connection announces the table again, so the service
    // rebuilds its picture of this process after a restart of either side.
    router->sendRoutingTableToSystemRouter();
}

bool SocketSystemRouterProxy::trustsService(Socket* socket)
{
    UlmarCommsSystem::PeerCredentials service;
    if (!UlmarCommsSystem::readPeerCredentials(socket->getHandle(), service)) {
        Core::log(Core::LogError,
                  "SocketSystemRouterProxy: not using the service on '%s': its user cannot be told; retrying.\n",
                  m_systemRouterAddress.asString().c_str());
        return false;
    }
    if (UlmarCommsService::isTrustedServiceUser(service.uid))
        return true;
    Core::log(Core::LogError,
              "SocketSystemRouterProxy: not using the service on '%s': it runs as uid %u (pid %d), which is not root, "
              "this process's user or ulmar.systemrouter.pipe.serviceuser '%s'; retrying.\n",
              m_systemRouterAddress.asString().c_str(), static_cast<unsigned>(service.uid),
              static_cast<int>(service.pid),
              Core::instance()->stringOrDefault("ulmar.systemrouter.pipe.serviceuser").c_str());
    return false;
}

void SocketSystemRouterProxy::onDisconnect(Socket* socket)
{
    if (socket == nullptr || socket != this->socket()) {
        Core::log(Core::LogWarning, "SocketSystemRouterProxy::onDisconnect() this=%p No Socket object on object.\n",
                  static_cast<void*>(this));
        return;
    }
    Core::message("SocketSystemRouterProxy::onDisconnect( %p ) this=%p.\n", static_cast<void*>(socket),
                  static_cast<void*>(this));
    Core::message("SocketSystemRouterProxy::onDisconnect() Done.\n");
}

void SocketSystemRouterProxy::onError(Socket* socket, unsigned char error)
{
    // The socket layer reports every end of the link here, an orderly close
    // by the service included (error 0), so a restarted service is always
    // reconnected to.
    Core::message("SocketSystemRouterProxy::onError( %p, %d )\n", static_cast<void*>(socket), error);
    Socket* mine = takeSocketIf(socket);
    if (mine == nullptr) {
        Core::log(Core::LogError, "SocketSystemRouterProxy::onError( %p, %d ) Sockets dont match up.\n",
                  static_cast<void*>(socket), error);
        return;
    }
    m_state = StateDown;
    // This is the socket's own callback, where releasing it is allowed.
    Socket::release(mine);
    doTimerReconnect();
}

// ------------------------------------------------------------ reconnection

void SocketSystemRouterProxy::doTimerReconnect()
{
    Core::message("SocketSystemRouterProxy::DoTimerReconnect()\n");
    {
        MutexLocker locker(m_timerLock);
        if (!m_live)
            return;
        Core::message("SocketSystemRouterProxy::doTimerReconnect() this=%p The object is in live mode so will try to "
                      "reconnect.\n",
                      static_cast<void*>(this));
        if (m_reconnectPending)
            return;
        m_reconnectPending = true;
    }
    Core::message("SocketSystemRouterProxy::Adding to timer func=%p data=%p\n",
                  reinterpret_cast<void*>(&SocketSystemRouterProxy::onDoReconnect), static_cast<void*>(this));
    // Outside the proxy's lock: the timer list runs callbacks under its own
    // lock, and onDoReconnect takes the proxy's.
    if (!Socket::addToTimer(onDoReconnect, this, ReconnectDelay, true)) {
        MutexLocker locker(m_timerLock);
        m_reconnectPending = false;
        Core::log(Core::LogError, "SocketSystemRouterProxy::doTimerReconnect() this=%p Unable to add the timer.\n",
                  static_cast<void*>(this));
    }
}

void SocketSystemRouterProxy::removeReconnectionTimerFunction()
{
    bool pending = false;
    {
        MutexLocker locker(m_timerLock);
        pending = m_reconnectPending;
        m_reconnectPending = false;
    }
    if (pending)
        Socket::removeFromTimer(onDoReconnect, this);
}

void SocketSystemRouterProxy::onDoReconnect(void* data)
{
    if (data == nullptr) {
        Core::log(Core::LogWarning,
                  "SocketSystemRouterProxy::onDoReconnect() Timed out but didn't have any user data.\n");
        return;
    }
    SocketSystemRouterProxy* proxy = static_cast<SocketSystemRouterProxy*>(data);
    try {
        {
            MutexLocker locker(proxy->m_timerLock);
            proxy->m_reconnectPending = false;
        }
        Core::message("SocketSystemRouterProxy::onDoReconnect() Redoing Connect()\n");
        proxy->connect();
    } catch (...) {
        Core::log(Core::LogError, "SocketSystemRouterProxy::onDoReconnect() this=%p Unhandled exception.\n", data);
    }
}

} // namespace UlmarComms
