// Locks and the wake-up signal every long-lived activity of the library uses.
//
// Every Mutex is recursive: code paths of the routers and links re-enter
// their own locks (a callback may post back into the object that called it),
// so a non-recursive lock would deadlock them. A Mutex is taken only through
// the scoped MutexLocker, so no path can leave one held. A few leaf locks
// that never re-enter (the socket registry, a connection interface's
// retirement count) are plain std::mutex.
// docs/architecture.md gives the order in which the system's locks nest.
//
// ConditionValue is a bare wake-up hint with no predicate: a signal that finds
// nobody waiting is lost, and every waiter re-checks its own state after each
// return. Its deadline arithmetic deliberately does not carry nanoseconds
// into seconds: a deadline whose sub-second part reaches a second is refused
// by the wait at once, so only short delays really wait.
#pragma once

#include <pthread.h>

namespace UlmarCommsSystem {

// A recursive POSIX mutex.
class Mutex {
public:
    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Locks (re-entrant for the owning thread); the POSIX result, 0 on success.
    int lock();
    // Releases one level of locking; the POSIX result, 0 on success.
    int release();
    // Takes the lock only if it is free or already ours.
    bool tryLock();

private:
    pthread_mutex_t m_mutex;
    pthread_mutexattr_t m_attr;
};

// Holds a Mutex for the lifetime of the locker.
class MutexLocker {
public:
    explicit MutexLocker(Mutex* mutex);
    explicit MutexLocker(Mutex& mutex);
    ~MutexLocker();
    MutexLocker(const MutexLocker&) = delete;
    MutexLocker& operator=(const MutexLocker&) = delete;

private:
    Mutex* m_pMutex;
};

// A wake-up signal over a condition variable and its own recursive mutex.
class ConditionValue {
public:
    ConditionValue();
    ~ConditionValue();
    ConditionValue(const ConditionValue&) = delete;
    ConditionValue& operator=(const ConditionValue&) = delete;

    // Waits for a signal; true when both the wait and the unlock succeeded.
    bool wait();
    // Waits for a signal or until ms have passed; true on signal or time-out.
    // Deadlines whose sub-second part reaches one second are refused at once.
    bool timedWait(unsigned ms);
    // Wakes one waiter, if any is waiting now.
    bool signal();
    // Wakes every waiter that is waiting now.
    bool broadcast();
    // timedWait that first asks ready(context) under the condition's own mutex
    // and returns true at once when it holds. Paired with broadcastLocked() by
    // the waker, a wake-up cannot fall between the waiter's last check and its
    // wait. Its deadline is carried into the seconds, so it really waits at
    // any moment. Cancellation inside the wait leaves the mutex released.
    bool timedWaitUnless(unsigned ms, bool (*ready)(void* context), void* context);
    // timedWaitUnless without a time-out: returns once ready(context) holds
    // under the condition's mutex or a broadcastLocked() wakes the wait.
    bool waitUnless(bool (*ready)(void* context), void* context);
    // broadcast() once the condition's mutex has been taken and released
    // (the waker's half of timedWaitUnless).
    bool broadcastLocked();
    // Whether construction fully succeeded; an invalid object never blocks.
    bool isValid() const { return m_valid; }

private:
    // The predicate wait of both: until deadline, or untimed when it is null.
    bool waitUnlessBefore(const struct timespec* deadline, bool (*ready)(void* context), void* context);

    pthread_mutex_t m_mutex;
    pthread_mutexattr_t m_attr;
    pthread_cond_t m_cond;
    bool m_valid;
};

// Declared so that its names exist; every operation aborts, and nothing in
// the system constructs one.
class ReadWriteMutex {
public:
    enum LockType { LockRead = 0, LockWrite = 1 };

    ReadWriteMutex();
    ~ReadWriteMutex();
    // Aborts: not implemented.
    void lock(LockType type);
    // Aborts: not implemented.
    void release();
};

// The scoped locker of ReadWriteMutex; using it aborts like the mutex itself.
class ReadWriteMutexLocker {
public:
    ReadWriteMutexLocker(ReadWriteMutex* mutex, ReadWriteMutex::LockType type);
    ReadWriteMutexLocker(ReadWriteMutex& mutex, ReadWriteMutex::LockType type);
    ~ReadWriteMutexLocker();

private:
    ReadWriteMutex* m_pMutex;
};

} // namespace UlmarCommsSystem
