// Recursive mutexes, the scoped locker, the wake-up condition and the
// deliberately unimplemented read-write mutex.
#include "platform/mutex.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <sys/time.h>

// glibc's assertion handler, declared here so that the abort below happens in
// release builds too (<cassert> hides it under NDEBUG).
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line, const char* function) noexcept
    __attribute__((noreturn));

// The read-write mutex aborts with exactly this assertion text and file name.
#define ULMAR_NOT_IMPLEMENTED() __assert_fail("false&&\"Not implemented!\"", "src/mutex", __LINE__, __func__)

namespace UlmarCommsSystem {

Mutex::Mutex()
{
    pthread_mutexattr_init(&m_attr);
    pthread_mutexattr_settype(&m_attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &m_attr);
}

Mutex::~Mutex()
{
    pthread_mutex_destroy(&m_mutex);
    pthread_mutexattr_destroy(&m_attr);
}

int Mutex::lock()
{
    return pthread_mutex_lock(&m_mutex);
}

int Mutex::release()
{
    return pthread_mutex_unlock(&m_mutex);
}

bool Mutex::tryLock()
{
    return pthread_mutex_trylock(&m_mutex) == 0;
}

MutexLocker::MutexLocker(Mutex* mutex) : m_pMutex(mutex)
{
    m_pMutex->lock();
}

MutexLocker::MutexLocker(Mutex& mutex) : m_pMutex(&mutex)
{
    m_pMutex->lock();
}

MutexLocker::~MutexLocker()
{
    m_pMutex->release();
    m_pMutex = nullptr;
}

ConditionValue::ConditionValue() : m_valid(false)
{
    if (pthread_mutexattr_init(&m_attr) != 0)
        return;
    if (pthread_mutexattr_settype(&m_attr, PTHREAD_MUTEX_RECURSIVE) != 0)
        return;
    if (pthread_mutex_init(&m_mutex, &m_attr) != 0)
        return;
    if (pthread_cond_init(&m_cond, nullptr) != 0)
        return;
    m_valid = true;
}

ConditionValue::~ConditionValue()
{
    if (!m_valid)
        return;
    pthread_cond_destroy(&m_cond);
    pthread_mutex_destroy(&m_mutex);
    pthread_mutexattr_destroy(&m_attr);
}

bool ConditionValue::wait()
{
    if (!m_valid)
        return false;
    if (pthread_mutex_lock(&m_mutex) != 0)
        return true; // a failed lock reports success; callers loop anyway
    const int waited = pthread_cond_wait(&m_cond, &m_mutex);
    if (waited != 0)
        std::printf("pthread_cond_wait() returned %d\n", waited);
    const int unlocked = pthread_mutex_unlock(&m_mutex);
    return waited == 0 && unlocked == 0;
}

namespace {

// No carry into the seconds: a nanosecond part of a second or more is
// refused by the wait (EINVAL), so only short delays really wait.
struct timespec deadlineAfter(unsigned ms)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct timespec deadline;
    deadline.tv_sec = now.tv_sec;
    deadline.tv_nsec = (static_cast<long>(ms) * 1000 + now.tv_usec) * 1000;
    return deadline;
}

// The same deadline carried into the seconds. The router threads wait in
// short loops: with the unnormalised deadline every wait in the last few
// milliseconds of each second returned at once, and those threads spun
// there, taking the processor from the very threads that had work.
struct timespec normalisedDeadlineAfter(unsigned ms)
{
    struct timespec deadline = deadlineAfter(ms);
    deadline.tv_sec += deadline.tv_nsec / 1000000000L;
    deadline.tv_nsec %= 1000000000L;
    return deadline;
}

// Releases a locked mutex when the scope ends, also when a cancelled wait
// unwinds the thread with the mutex re-acquired.
class UnlockOnExit {
public:
    explicit UnlockOnExit(pthread_mutex_t* mutex) : m_mutex(mutex) {}
    ~UnlockOnExit() { pthread_mutex_unlock(m_mutex); }
    UnlockOnExit(const UnlockOnExit&) = delete;
    UnlockOnExit& operator=(const UnlockOnExit&) = delete;

private:
    pthread_mutex_t* m_mutex;
};

} // namespace

bool ConditionValue::timedWait(unsigned ms)
{
    if (!m_valid)
        return false;
    if (pthread_mutex_lock(&m_mutex) != 0)
        return true;
    const struct timespec deadline = deadlineAfter(ms);
    const int waited = pthread_cond_timedwait(&m_cond, &m_mutex, &deadline);
    pthread_mutex_unlock(&m_mutex);
    return waited == 0 || waited == ETIMEDOUT;
}

bool ConditionValue::timedWaitUnless(unsigned ms, bool (*ready)(void* context), void* context)
{
    const struct timespec deadline = normalisedDeadlineAfter(ms);
    return waitUnlessBefore(&deadline, ready, context);
}

bool ConditionValue::waitUnless(bool (*ready)(void* context), void* context)
{
    return waitUnlessBefore(nullptr, ready, context);
}

bool ConditionValue::waitUnlessBefore(const struct timespec* deadline, bool (*ready)(void* context), void* context)
{
    if (!m_valid)
        return false;
    if (pthread_mutex_lock(&m_mutex) != 0)
        return true;
    UnlockOnExit unlock(&m_mutex);
    if (ready != nullptr && ready(context))
        return true;
    const int waited = deadline != nullptr ? pthread_cond_timedwait(&m_cond, &m_mutex, deadline)
                                           : pthread_cond_wait(&m_cond, &m_mutex);
    return waited == 0 || waited == ETIMEDOUT;
}

bool ConditionValue::broadcastLocked()
{
    if (!m_valid)
        return false;
    if (pthread_mutex_lock(&m_mutex) != 0)
        return broadcast();
    // Passing through the mutex is what closes the gap: a waiter has either
    // not made its last check yet (and will see the new state) or is inside
    // the wait. Broadcasting after the unlock spares the woken thread from
    // blocking at once on the mutex its waker still holds.
    pthread_mutex_unlock(&m_mutex);
    return pthread_cond_broadcast(&m_cond) == 0;
}

bool ConditionValue::signal()
{
    if (!m_valid)
        return false;
    return pthread_cond_signal(&m_cond) == 0;
}

bool ConditionValue::broadcast()
{
    if (!m_valid)
        return false;
    return pthread_cond_broadcast(&m_cond) == 0;
}

ReadWriteMutex::ReadWriteMutex()
{
    ULMAR_NOT_IMPLEMENTED();
}
ReadWriteMutex::~ReadWriteMutex()
{
    ULMAR_NOT_IMPLEMENTED();
}
void ReadWriteMutex::lock(LockType)
{
    ULMAR_NOT_IMPLEMENTED();
}
void ReadWriteMutex::release()
{
    ULMAR_NOT_IMPLEMENTED();
}

ReadWriteMutexLocker::ReadWriteMutexLocker(ReadWriteMutex* mutex, ReadWriteMutex::LockType type) : m_pMutex(mutex)
{
    m_pMutex->lock(type);
}

ReadWriteMutexLocker::ReadWriteMutexLocker(ReadWriteMutex& mutex, ReadWriteMutex::LockType type) : m_pMutex(&mutex)
{
    m_pMutex->lock(type);
}

ReadWriteMutexLocker::~ReadWriteMutexLocker()
{
    m_pMutex->release();
}

} // namespace UlmarCommsSystem
