// The predicate wait of ConditionValue: the check runs under the condition's
// mutex, so a waker using broadcastLocked cannot slip between check and wait.
#include "platform/mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <sys/time.h>
#include <thread>

using namespace UlmarCommsSystem;

namespace {

bool readFlag(void* context)
{
    return static_cast<std::atomic<bool>*>(context)->load();
}

} // namespace

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
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    struct timeval now;
    do {
        gettimeofday(&now, nullptr);
    } while ((now.tv_usec < 996000 || now.tv_usec > 998500) && std::chrono::steady_clock::now() < giveUp);
    ASSERT_LT(std::chrono::steady_clock::now(), giveUp) << "never saw the end of a second";
    EXPECT_TRUE(condition.timedWaitUnless(5, &readFlag, &never));
}
