// The process-wide selector: one epoll instance and a small pool of selector
// worker threads that wait on it and complete the sockets' requests by
// calling their callbacks. The first worker to start also drives the timers.
//
// Registrations are edge-triggered and re-armed per request, and every
// request carries a pending flag that its completion consumes under the
// socket's lock, so each request completes on exactly one worker even when
// an edge is reported twice. A read and a write of the same socket are
// separate requests and may complete at the same time on two workers.
//
// Stopping wakes the workers through an eventfd in the same epoll set and
// closes the epoll descriptor only after every worker has been joined, so no
// worker ever waits on a descriptor number that may have been reused.
//
// Lifetime. The selector alone decides when an object it may still call is
// destroyed (socketreaper.h): each event is completed inside a reaper
// section, owners hand what they are done with to the reaper, and after
// every turn a worker destroys what no section can still be using. A second
// eventfd, written when the first object is handed over, wakes one worker
// for that; Socket::deinit destroys what is left once the workers are gone.
#pragma once

#include "platform/socket.h"
#include "platform/thread.h"

#include <atomic>
#include <cstdint>
#include <sys/types.h>
#include <vector>

struct epoll_event;

namespace UlmarCommsSystem {

class SocketHold;
class SocketSelector;

// One thread waiting on the selector's epoll instance.
class SocketSelectorWorker : public Thread {
public:
    // A worker of selector, waiting on its epoll descriptor handle.
    SocketSelectorWorker(SocketSelector* selector, int handle);
    ~SocketSelectorWorker() override;

    // Sets the running flag and starts the thread.
    bool start() override;
    // Clears the running flag; the loop ends at its next turn.
    void stop();
    // The thread body: wait, complete, drive the timers if captured.
    unsigned run() override;
    // Completes one event; false when it names no live socket.
    bool processEvent(epoll_event* event);
    // Completes a read that a thread took off the selector (Socket::takeRead),
    // on that thread.
    static void completeTakenRead(SocketHold& hold);

private:
    // Completes the read request (or accepts, on a listener).
    void processRead(SocketHold& hold, uint32_t events);
    // Arms a one-shot stream read again after an event without data.
    void rearmOneShotRead(SocketHold& hold);
    // Puts a stream read that found nothing back with the selector; false
    // when the registration failed (the caller reports the error).
    static bool rearmAfterNothing(SocketHold& hold);
    // Completes the write request.
    void processWrite(SocketHold& hold, uint32_t events);
    // Reports the outcome of a connectAsync(); false when none was under way.
    bool processConnect(SocketHold& hold);
    // Accepts one client and reports a failure as the listener's end.
    void processAccept(SocketHold& hold);
    // Ends the connection once: disconnect actions, then the error callback.
    static void endConnection(SocketHold& hold, unsigned char code);
    // Reports a stream receive of count bytes (error: its errno) to the
    // socket's owner; who is the completing object, for the log.
    static void reportStreamRead(SocketHold& hold, Socket::StreamCallback received, void* user, unsigned char* buffer,
                                 unsigned size, ssize_t count, int error, const void* who);
    // Waits and completes until stopped; runs the timers when captured.
    void loop(int maxEvents, int timeout, bool timers);

    SocketSelector* m_pSelector;
    std::atomic<bool> m_running;
    // The epoll descriptor, fixed for the worker's life.
    int m_handle;
};

// The epoll instance and its workers.
class SocketSelector {
public:
    // The registration data that only wakes the workers.
    static constexpr uint64_t WakeToken = 0;
    // The registration data that wakes a worker to reap (no record has id 0).
    static constexpr uint64_t ReapToken = 3;

    SocketSelector();
    // Stops the workers if that has not been done.
    ~SocketSelector();
    SocketSelector(const SocketSelector&) = delete;
    SocketSelector& operator=(const SocketSelector&) = delete;

    // Creates the epoll instance and starts n workers.
    bool start(unsigned n);
    // Stops, joins and destroys every worker and closes the epoll instance.
    void stop();

    // The epoll descriptor, -1 when stopped.
    int getHandle() const { return m_handle; }
    // Events taken per wait (40).
    int getMaxEvents() const { return m_maxEvents; }
    // The wait time-out in milliseconds (500).
    int getTimeout() const { return m_timeout; }
    // Whether stop() and the reaper can wake every idle worker, so that the
    // workers without timers may wait without a time-out.
    bool wakesWorkers() const { return m_wakeHandle >= 0 && m_reapHandle >= 0; }
    // Workers whose thread started.
    unsigned workerCount() const { return static_cast<unsigned>(m_workers.size()); }

private:
    std::atomic<int> m_handle;
    int m_maxEvents;
    int m_timeout;
    std::vector<SocketSelectorWorker*> m_workers;
    // The eventfd that wakes every worker at stop.
    int m_wakeHandle;
    // The eventfd that wakes a worker to reap.
    int m_reapHandle;
};

} // namespace UlmarCommsSystem
