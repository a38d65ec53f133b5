// The thread base of every long-lived activity: the router worker, the system
// router, the selector workers. Subclasses supply run(); its result becomes
// the thread's exit value. No exception ever leaves a thread body: the entry
// point catches everything and logs it.
//
// Destroying a Thread does nothing to the running thread: owners stop and
// join their threads first.
#pragma once

#include <atomic>
#include <pthread.h>

namespace UlmarCommsSystem {

class Thread {
public:
    Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // The thread body. Declared before the destructor: the virtual slots are
    // run, destructor, start, waitToFinish, in that order.
    virtual unsigned run() = 0;
    // Does not cancel or join the thread.
    virtual ~Thread();
    // Creates the POSIX thread running run(); false (and logged) on failure.
    virtual bool start();
    // Joins the thread; its result is discarded.
    virtual void waitToFinish();
    // Cancels a started thread outright; only owners that cannot join use it.
    void kill();

    // True while run() executes.
    bool isRunning() const { return m_running; }
    // True from a successful start() until kill().
    bool isStarted() const { return m_started; }

    // Sleeps for ms milliseconds.
    static void sleep(unsigned ms);
    // Gives the processor away for a moment.
    static void yieldTime();
    // The kernel thread id, as shown in log lines.
    static int threadId();
    // Wall-clock milliseconds in whole seconds (steps of 1000, wrapping modulo
    // 2^32): the time base of the timers.
    static unsigned tick();

private:
    static void* runnerPThreads(void* object);

    std::atomic<bool> m_running;
    pthread_t m_thread;
    bool m_started;
};

} // namespace UlmarCommsSystem
