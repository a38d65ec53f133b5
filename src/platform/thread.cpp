// Thread start, join and cancel over POSIX threads, and the time helpers.
#include "platform/thread.h"

#include "core/core.h"

#include <cerrno>
#include <cxxabi.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

using UlmarComms::Core;

namespace UlmarCommsSystem {

Thread::Thread() : m_running(false), m_thread(), m_started(false)
{
}

Thread::~Thread() = default;

bool Thread::start()
{
    if (pthread_create(&m_thread, nullptr, &Thread::runnerPThreads, this) != 0) {
        Core::log(Core::LogFatal, "Thread::start(){pthreads} Thread handle was not created. Error:%d\n", errno);
        return false;
    }
    m_started = true;
    return true;
}

void Thread::waitToFinish()
{
    pthread_join(m_thread, nullptr);
}

void Thread::kill()
{
    if (!m_started)
        return;
    pthread_cancel(m_thread);
    m_started = false;
}

void Thread::sleep(unsigned ms)
{
    usleep(static_cast<useconds_t>(ms) * 1000);
}

void Thread::yieldTime()
{
    usleep(0);
}

int Thread::threadId()
{
    return static_cast<int>(syscall(SYS_gettid));
}

unsigned Thread::tick()
{
    struct timeval now;
    if (gettimeofday(&now, nullptr) != 0)
        return 0;
    // Whole seconds only: the timers rely on this one-second granularity.
    return static_cast<unsigned>(now.tv_sec) * 1000u;
}

// kill() cancels by a forced unwind, caught as abi::__forced_unwind and
// rethrown. The runtime binds that catch to a null object, which the
// sanitizer's null-reference check would report on every kill(), so the check
// is off here. __cxa_current_exception_type() cannot spot the unwind: for a
// foreign exception it reads memory before the unwind header.
__attribute__((no_sanitize("null"))) void* Thread::runnerPThreads(void* object)
{
    Thread* self = static_cast<Thread*>(object);
    try {
        self->m_running = true;
        Core::message("Thread::RunnerPThreads() Starting Thread=%d\n", threadId());
        const unsigned result = self->run();
        Core::message("Thread::RunnerPThreads() Stopping Thread=%d return=%d\n", threadId(), result);
        self->m_running = false;
        return reinterpret_cast<void*>(static_cast<unsigned long>(result));
    } catch (abi::__forced_unwind&) {
        self->m_running = false;
        throw;
    } catch (...) {
        Core::log(Core::LogError,
                  "Thread::RunnerPThreads() Unhandled exception raided in run() function of Thread=%d\n", threadId());
        self->m_running = false;
        return nullptr;
    }
}

} // namespace UlmarCommsSystem
