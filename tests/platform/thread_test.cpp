// The thread base: start and join, the exit value, the catch-all around
// run(), cancellation and the time helpers.
#include "platform/thread.h"

#include "support/logcapture.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

using UlmarComms::Core;
using UlmarCommsSystem::Thread;
using UlmarCommsTest::LogCapture;
using UlmarCommsTest::waitUntil;

namespace {

// Publishes what it saw inside run(), then runs its body (which returns or
// throws), so the test can check it and join the POSIX thread itself to read
// the exit value.
class ProbeThread : public Thread {
public:
    explicit ProbeThread(std::function<unsigned()> body) : m_body(std::move(body)) {}
    unsigned run() override
    {
        m_handle = pthread_self();
        m_kernelId = static_cast<int>(syscall(SYS_gettid));
        m_reportedId = Thread::threadId();
        m_runningInside = isRunning();
        m_published = true;
        return m_body();
    }

    bool waitPublished()
    {
        return waitUntil([this] { return m_published.load(); });
    }

    // Joins through POSIX directly and returns the thread's exit value.
    uintptr_t joinForResult()
    {
        void* result = reinterpret_cast<void*>(uintptr_t(0xdead));
        EXPECT_EQ(pthread_join(m_handle, &result), 0);
        return reinterpret_cast<uintptr_t>(result);
    }

    std::function<unsigned()> m_body;
    pthread_t m_handle{};
    int m_kernelId = 0;
    int m_reportedId = 0;
    bool m_runningInside = false;
    std::atomic<bool> m_published{false};
};

// Runs until cancelled or stopped.
class EndlessThread : public Thread {
public:
    unsigned run() override
    {
        while (!m_stop) {
            m_loops++;
            Thread::sleep(1); // a cancellation point
        }
        return 0;
    }
    std::atomic<unsigned> m_loops{0};
    std::atomic<bool> m_stop{false};
};

// The same clock tick() reads, in whole seconds as 32-bit milliseconds.
unsigned wallSecondsInMilliseconds()
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<unsigned>(now.tv_sec) * 1000u;
}

std::string line(const char* format, int id)
{
    char buffer[256];
    std::snprintf(buffer, sizeof(buffer), format, id);
    return buffer;
}

} // namespace

TEST(Thread, StartRunsTheBodyOnItsOwnKernelThreadAndJoins)
{
    ProbeThread thread([] { return 3u; });
    EXPECT_FALSE(thread.isStarted());
    EXPECT_FALSE(thread.isRunning());
    ASSERT_TRUE(thread.start());
    EXPECT_TRUE(thread.isStarted());
    thread.waitToFinish();
    ASSERT_TRUE(thread.m_published);
    EXPECT_TRUE(thread.m_runningInside) << "running must be set before run() is called";
    EXPECT_FALSE(thread.isRunning()) << "running must be cleared when run() returns";
    EXPECT_NE(thread.m_kernelId, Thread::threadId());
    EXPECT_EQ(thread.m_reportedId, thread.m_kernelId) << "threadId() is the kernel id (gettid)";
    EXPECT_EQ(Thread::threadId(), static_cast<int>(syscall(SYS_gettid)));
    EXPECT_TRUE(thread.isStarted()) << "only kill() clears started";
}

TEST(Thread, RunResultIsTheExitValueAndIsLoggedOnStopAtMessageLevel)
{
    {
        LogCapture quiet(Core::LogWarning);
        ProbeThread other([] { return 1u; });
        ASSERT_TRUE(other.start());
        other.waitToFinish();
        EXPECT_TRUE(quiet.lines().empty()) << "start and stop lines are message level only";
    }
    LogCapture capture(Core::LogMessage);
    ProbeThread thread([] { return 42u; });
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(thread.waitPublished());
    EXPECT_EQ(thread.joinForResult(), 42u);

    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, Core::LogMessage);
    EXPECT_EQ(lines[0].text, line("Thread::RunnerPThreads() Starting Thread=%d\n", thread.m_kernelId));
    EXPECT_EQ(lines[1].level, Core::LogMessage);
    EXPECT_EQ(lines[1].text,
              "Thread::RunnerPThreads() Stopping Thread=" + std::to_string(thread.m_kernelId) + " return=42\n");
}

TEST(Thread, ThrowingRunEndsWithResultZeroAndTheRaidedError)
{
    for (bool standard : {true, false}) {
        SCOPED_TRACE(standard ? "std::exception" : "int");
        LogCapture capture(Core::LogVerbose);
        ProbeThread thread([standard]() -> unsigned {
            if (standard)
                throw std::runtime_error("body failed");
            throw 17; // not derived from std::exception: must be caught too
        });
        ASSERT_TRUE(thread.start());
        EXPECT_TRUE(capture.waitFor("raided")); // logged on the thread itself
        ASSERT_TRUE(thread.waitPublished());
        EXPECT_EQ(thread.joinForResult(), 0u);
        EXPECT_FALSE(thread.isRunning());

        const auto lines = capture.lines();
        ASSERT_EQ(lines.size(), 2u) << "a Starting line and the error, no Stopping line";
        EXPECT_EQ(lines[0].text, line("Thread::RunnerPThreads() Starting Thread=%d\n", thread.m_kernelId));
        EXPECT_EQ(lines[1].level, Core::LogError);
        EXPECT_STREQ(lines[1].format,
                     "Thread::RunnerPThreads() Unhandled exception raided in run() function of Thread=%d\n");
        EXPECT_EQ(lines[1].text,
                  line("Thread::RunnerPThreads() Unhandled exception raided in run() function of Thread=%d\n",
                       thread.m_kernelId));
    }
    // The process goes on: another thread still starts and finishes.
    ProbeThread after([] { return 9u; });
    ASSERT_TRUE(after.start());
    after.waitToFinish();
    EXPECT_TRUE(after.m_published);
}

TEST(Thread, KillCancelsAStartedThreadAndClearsStartedAndDoesNothingOtherwise)
{
    EndlessThread thread;
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(waitUntil([&] { return thread.m_loops.load() > 0; }));
    EXPECT_TRUE(thread.isRunning()) << "running while the body executes";
    thread.kill();
    EXPECT_FALSE(thread.isStarted());
    const bool ended = waitUntil([&] { return !thread.isRunning(); });
    if (!ended)
        thread.m_stop = true; // not cancelled: end it so the test can fail cleanly
    thread.waitToFinish();
    EXPECT_TRUE(ended) << "the cancelled body must end and still clear running";
    const unsigned loops = thread.m_loops;
    thread.kill(); // not started any more: nothing happens
    EXPECT_EQ(thread.m_loops.load(), loops);

    ProbeThread unstarted([] { return 1u; });
    unstarted.kill(); // before start: nothing happens, and the thread is still usable
    EXPECT_FALSE(unstarted.isStarted());
    ASSERT_TRUE(unstarted.start());
    unstarted.waitToFinish();
    EXPECT_TRUE(unstarted.m_published);
}

// tick() is seconds x 1000 in 32-bit arithmetic. Today's epoch seconds x 1000
// is far beyond 2^32, so the wrapped value itself is not a multiple of 1000;
// what holds is that it moves only in whole steps of 1000 (modulo 2^32) and
// matches the wall clock's whole seconds.
TEST(Thread, TickCountsWholeSecondsInMillisecondsAndSleepLastsAtLeastItsTime)
{
    for (int i = 0; i < 50; ++i) {
        const unsigned before = wallSecondsInMilliseconds();
        const unsigned tick = Thread::tick();
        const unsigned after = wallSecondsInMilliseconds();
        // Unsigned differences are taken modulo 2^32, as tick() wraps.
        EXPECT_EQ((tick - before) % 1000u, 0u);
        EXPECT_LE(tick - before, after - before);
        EXPECT_LE(after - before, 1000u);
        Thread::yieldTime();
    }
    const auto start = std::chrono::steady_clock::now();
    Thread::sleep(20);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}
