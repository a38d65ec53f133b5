// What the socket layer's source files share, and nothing else may use.
//
// The base socket is one class family, but its implementation is spread over
// several files by concern (set-up and events, transfers, the record
// registry, the process-wide selector and logger, error codes, the concrete
// socket types). The few pieces of state more than one of them touches are
// declared here; each is defined once, in the file named beside it.
#pragma once

#include "platform/socket.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <sys/epoll.h>

namespace UlmarCommsSystem {
namespace SocketLayer {

// The registry lock guards the id map, record owners, and the links between
// listeners and accepted sockets. It is never held across a callback, so it
// never needs to be re-entered, and nothing waits under it.
// (socketregistry.cpp)
extern std::mutex registryLock;

// The epoll descriptor sockets register with, -1 while no selector is
// installed. (socketlayer.cpp)
extern std::atomic<int> selectorHandle;

// An epoll registration for the given events carrying data.
inline epoll_event makeEvent(uint32_t events, uint64_t data)
{
    epoll_event event;
    std::memset(&event, 0, sizeof(event));
    event.events = events;
    event.data.u64 = data;
    return event;
}

} // namespace SocketLayer
} // namespace UlmarCommsSystem
