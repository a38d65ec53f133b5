// Locks and the wake-up condition.
#include "platform/mutex.h"
#include "platform/thread.h"

#include "support/wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <sys/time.h>
#include <thread>
#include <vector>

using namespace UlmarCommsSystem;
using UlmarCommsTest::waitUntil;

TEST(Mutex, IsRecursiveAndExcludesOtherThreadsUntilTheLastRelease)
{
    Mutex mutex;
    ASSERT_EQ(mutex.lock(), 0);
    ASSERT_EQ(mutex.lock(), 0); // the owner re-enters without deadlock
    std::atomic<bool> taken{false};
    std::thread other([&] { taken = mutex.tryLock(); if (taken) mutex.release(); });
    other.join();
    EXPECT_FALSE(taken);
    mutex.release();
    std::thread stillHeld([&] { taken = mutex.tryLock(); if (taken) mutex.release(); });
    stillHeld.join();
    EXPECT_FALSE(taken) << "one release of two must keep the lock";
    mutex.release();
    std::thread free([&] { taken = mutex.tryLock(); if (taken) mutex.release(); });
    free.join();
    EXPECT_TRUE(taken);

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
    auto takenElsewhere = [&] {
        bool taken = false;
        std::thread other([&] { taken = mutex.tryLock(); if (taken) mutex.release(); });
        other.join();
        return taken;
    };
    {
        MutexLocker outer(mutex);
        {
            MutexLocker inner(&mutex); // re-entered through the pointer form
            EXPECT_FALSE(takenElsewhere());
        }
        EXPECT_FALSE(takenElsewhere()) << "the outer locker still holds it";
    }
    EXPECT_TRUE(takenElsewhere());
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
