// Locks and the wake-up condition, with its predicate wait: the check runs
// under the condition's mutex, so a waker using broadcastLocked cannot slip
// between check and wait.
#include "platform/mutex.h"
#include "platform/thread.h"

#include "support/wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace UlmarCommsSystem;
using UlmarCommsTest::waitUntil;

namespace {

// Whether another thread can take the lock now (it lets go at once).
bool takenElsewhere(Mutex& mutex)
{
    bool taken = false;
    std::thread other([&] {
        taken = mutex.tryLock();
        if (taken)
            mutex.release();
    });
    other.join();
    return taken;
}

bool readFlag(void* context)
{
    return static_cast<std::atomic<bool>*>(context)->load();
}

} // namespace

TEST(Mutex, IsRecursiveAndExcludesOtherThreadsUntilTheLastRelease)
{
    Mutex mutex;
    ASSERT_EQ(mutex.lock(), 0);
    ASSERT_EQ(mutex.lock(), 0); // the owner re-enters without deadlock
    EXPECT_FALSE(takenElsewhere(mutex));
    mutex.release();
    EXPECT_FALSE(takenElsewhere(mutex)) << "one release of two must keep the lock";
    mutex.release();
    EXPECT_TRUE(takenElsewhere(mutex));

    // The blocking form waits until both releases.
    ASSERT_EQ(mutex.lock(), 0);
    ASSERT_EQ(mutex.lock(), 0);
    std::atomic<bool> trying{false};
    std::atomic<bool> acquired{false};
    std::thread blocked([&] {
        trying = true;
        mutex.lock(); // blocking form
        acquired = true;
        mutex.release();
    });
    ASSERT_TRUE(waitUntil([&] { return trying.load(); }));
    ASSERT_EQ(mutex.release(), 0);
    // One release of two: the other thread must still be blocked.
    EXPECT_FALSE(waitUntil([&] { return acquired.load(); }, std::chrono::milliseconds(50)));
    ASSERT_EQ(mutex.release(), 0);
    EXPECT_TRUE(waitUntil([&] { return acquired.load(); }));
    blocked.join();
}

TEST(MutexLocker, HoldsForItsScopeAndNests)
{
    Mutex mutex;
    {
        MutexLocker outer(mutex);
        {
            MutexLocker inner(&mutex); // re-entered through the pointer form
            EXPECT_FALSE(takenElsewhere(mutex));
        }
        EXPECT_FALSE(takenElsewhere(mutex)) << "the outer locker still holds it";
    }
    EXPECT_TRUE(takenElsewhere(mutex));
}

TEST(MutexLocker, SerialisesThreads)
{
    Mutex mutex;
    long counter = 0; // plain on purpose: only the lock protects it
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) {
                MutexLocker locker(mutex);
                ++counter;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 40000);
}

TEST(ConditionValue, DeadlineArithmeticRefusesASecondOrMore)
{
    ConditionValue condition;
    ASSERT_TRUE(condition.isValid());
    // 1500 ms can never form a valid nanosecond part: refused at once.
    EXPECT_FALSE(condition.timedWait(1500));
    // A zero wait times out at once and counts as success.
    EXPECT_TRUE(condition.timedWait(0));
    // 1000 ms is the first value whose nanosecond part reaches a second
    // whatever the current microseconds are.
    EXPECT_FALSE(condition.timedWait(1000));
}

TEST(ConditionValue, ShortWaitEndsByTimeOutAtItsDeadline)
{
    ConditionValue condition;
    // A 100 ms deadline stays below one second only early in a second: wait
    // for the first half of one so the deadline is valid.
    ASSERT_TRUE(waitUntil([] {
        struct timeval now;
        gettimeofday(&now, nullptr);
        return now.tv_usec < 500000;
    }));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(condition.timedWait(100));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(95));
}

TEST(ConditionValue, BroadcastWakesEveryWaiter)
{
    ConditionValue condition;
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            if (condition.wait())
                ++woken;
        });
    EXPECT_TRUE(waitUntil([&] {
        condition.broadcast();
        return woken.load() == 3;
    }));
    for (auto& waiter : waiters)
        waiter.join();
}

TEST(ConditionValue, SignalBeforeWaitIsLostAndALaterOneWakesTheWaiter)
{
    ConditionValue condition;
    EXPECT_TRUE(condition.signal());
    EXPECT_TRUE(condition.broadcast());
    std::atomic<bool> done{false};
    bool result = false;
    std::thread waiter([&] {
        result = condition.wait();
        done = true;
    });
    // Nothing was remembered: the waiter stays blocked until a new signal
    // (one that finds nobody waiting yet is lost too, so keep signalling).
    EXPECT_FALSE(waitUntil([&] { return done.load(); }, std::chrono::milliseconds(50)));
    EXPECT_TRUE(waitUntil([&] {
        condition.signal();
        return done.load();
    }));
    waiter.join();
    EXPECT_TRUE(result);
}

TEST(ConditionValueDeathTest, ReadWriteMutexAborts)
{
    // The assertion names the lock classes' source file and the expression.
    EXPECT_DEATH({ ReadWriteMutex mutex; }, "src/mutex:[0-9]+: .*false&&\"Not implemented!\"");
}

TEST(ConditionValuePredicate, ReadyBeforeWaitingReturnsWithoutWaiting)
{
    ConditionValue condition;
    std::atomic<bool> flag{true};
    int calls = 0;
    auto counting = [](void* context) {
        ++*static_cast<int*>(context);
        return true;
    };
    EXPECT_TRUE(condition.timedWaitUnless(900, counting, &calls));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(condition.timedWaitUnless(900, &readFlag, &flag));
    // Without a predicate it is a plain timed wait.
    EXPECT_TRUE(condition.timedWaitUnless(0, nullptr, nullptr));
}

TEST(ConditionValuePredicate, AnUntimedWaitEndsOnTheOneBroadcastThatFollowsTheChange)
{
    // The routers' idle waits have no time-out: a single broadcastLocked
    // after the state changed must end the wait wherever the waiter is.
    ConditionValue condition;
    std::atomic<bool> ready{true};
    EXPECT_TRUE(condition.waitUnless(&readFlag, &ready));
    for (int round = 0; round < 200; ++round) {
        ready = false;
        std::atomic<bool> done{false};
        std::thread waiter([&] {
            while (!ready.load())
                condition.waitUnless(&readFlag, &ready);
            done = true;
        });
        ready = true;
        condition.broadcastLocked();
        const bool ended = waitUntil([&] { return done.load(); });
        EXPECT_TRUE(ended) << "round " << round;
        // A lost wake-up is reported above; more broadcasts let the thread go.
        waitUntil([&] {
            condition.broadcastLocked();
            return done.load();
        });
        waiter.join();
        if (!ended)
            return;
    }
}

TEST(ConditionValuePredicate, BroadcastLockedWaitsWhileTheWaiterChecks)
{
    // While the predicate runs the waiter holds the condition's mutex, so a
    // waker's broadcastLocked cannot complete in the gap before the wait.
    ConditionValue condition;
    struct Probe {
        ConditionValue* condition;
        std::thread waker;
        std::atomic<bool> broadcastDone{false};
        bool doneDuringCheck = false;
    } probe;
    probe.condition = &condition;
    auto check = [](void* context) {
        Probe* p = static_cast<Probe*>(context);
        p->waker = std::thread([p] {
            p->condition->broadcastLocked();
            p->broadcastDone = true;
        });
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
        while (std::chrono::steady_clock::now() < end && !p->broadcastDone.load())
            std::this_thread::yield();
        p->doneDuringCheck = p->broadcastDone.load();
        return false;
    };
    condition.timedWaitUnless(5, check, &probe);
    probe.waker.join();
    EXPECT_FALSE(probe.doneDuringCheck);
    EXPECT_TRUE(probe.broadcastDone.load());
}

TEST(ConditionValuePredicate, WaitsAlsoInTheLastMillisecondsOfASecond)
{
    // A 5 ms deadline taken late in a second runs into the next one; the
    // router threads' waits must still wait there instead of failing at once.
    ConditionValue condition;
    std::atomic<bool> never{false};
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    struct timeval now;
    for (;;) {
        gettimeofday(&now, nullptr);
        if ((now.tv_usec >= 996000 && now.tv_usec <= 998500) || std::chrono::steady_clock::now() >= giveUp)
            break;
        // Sleep to just before the window and look from there, so that a
        // busy machine does not keep this thread off the processor for it.
        if (now.tv_usec < 995000)
            usleep(static_cast<useconds_t>(995000 - now.tv_usec));
    }
    ASSERT_LT(std::chrono::steady_clock::now(), giveUp) << "never saw the end of a second";
    EXPECT_TRUE(condition.timedWaitUnless(5, &readFlag, &never));
}
