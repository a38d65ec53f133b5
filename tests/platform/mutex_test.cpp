// Locks and the wake-up condition.
#include "platform/mutex.h"
#include "platform/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace UlmarCommsSystem;

TEST(Mutex, IsRecursiveAndExcludesOtherThreads)
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
}

TEST(ConditionValue, DeadlineArithmeticRefusesASecondOrMore)
{
    ConditionValue condition;
    ASSERT_TRUE(condition.isValid());
    // 1500 ms can never form a valid nanosecond part: refused at once.
    EXPECT_FALSE(condition.timedWait(1500));
    // A zero wait times out at once and counts as success.
    EXPECT_TRUE(condition.timedWait(0));
}

TEST(ConditionValue, SignalBeforeWaitIsLost)
{
    ConditionValue condition;
    EXPECT_TRUE(condition.signal());
    EXPECT_TRUE(condition.broadcast());
    // Nothing was remembered: the wait ends by time-out, still true.
    EXPECT_TRUE(condition.timedWait(1));
}

TEST(ConditionValueDeathTest, ReadWriteMutexAborts)
{
    EXPECT_DEATH({ ReadWriteMutex mutex; }, "Not implemented!");
}
