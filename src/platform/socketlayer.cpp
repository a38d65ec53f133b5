// The socket layer's process-wide pieces: the selector every socket
// registers with, the timers, and the layer's own logger, gated like the
// core logger.
#include "platform/socket.h"

#include "core/core.h"
#include "core/logthrottle.h"
#include "platform/socketinternal.h"
#include "platform/socketreaper.h"
#include "platform/socketselector.h"
#include "platform/sockettimeout.h"

#include <cstdarg>
#include <new>

using UlmarComms::Core;

namespace UlmarCommsSystem {

namespace SocketLayer {

std::atomic<int> selectorHandle{-1};

} // namespace SocketLayer

using namespace UlmarCommsSystem::SocketLayer;

namespace {

// The selector installed by init(); the epoll descriptor sockets register
// with is SocketLayer::selectorHandle.
Mutex initLock;
std::atomic<SocketSelector*> installedSelector{nullptr};

// The socket layer's logger and its gate.
Mutex loggingLock;
std::atomic<Socket::Logger> socketLogger{nullptr};
std::atomic<int> socketLoggingLevel{Core::LogWarning};

// Keeps each of the layer's log texts to a few lines a second; under
// loggingLock.
UlmarComms::LogThrottle throttle;

void deliver(Socket::Logger logger, int level, const char* format, va_list args)
{
    MutexLocker locker(loggingLock);
    throttle.write(logger, level, format, args);
}

} // namespace

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
    // No worker is left to reap: what was handed over goes now.
    SocketReaper::drain();
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

void Socket::flushLogSummaries()
{
    Logger logger = socketLogger;
    if (logger == nullptr || !throttle.hasPending())
        return;
    MutexLocker locker(loggingLock);
    throttle.flush(logger);
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

} // namespace UlmarCommsSystem
