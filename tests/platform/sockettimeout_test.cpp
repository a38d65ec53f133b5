// Timers driven by the selector's capturing worker. The clock has one-second
// steps, so these tests are few and wait in seconds.
#include "platform/socket.h"
#include "platform/sockettimeout.h"
#include "platform/thread.h"

#include "support/logcapture.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

using namespace UlmarCommsSystem;
using UlmarCommsTest::LogCapture;
using UlmarCommsTest::waitUntil;

namespace {

// Counts its firings and the tick of each.
struct Counter {
    std::mutex lock;
    std::vector<unsigned> ticks;
    std::function<void(Counter&)> onFire;

    size_t fired()
    {
        std::lock_guard<std::mutex> guard(lock);
        return ticks.size();
    }

    static void fire(void* data)
    {
        Counter* self = static_cast<Counter*>(data);
        {
            std::lock_guard<std::mutex> guard(self->lock);
            self->ticks.push_back(Thread::tick());
        }
        if (self->onFire)
            self->onFire(*self);
    }
};

class SocketTimeoutTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(Socket::init(1)); }

    void TearDown() override
    {
        // No check runs after this, so the counters may go.
        Socket::deinit();
        for (Counter* counter : m_counters)
            while (SocketTimeout::instance()->count(&Counter::fire, counter) > 0)
                SocketTimeout::instance()->remove(&Counter::fire, counter);
    }

    Counter* counter()
    {
        m_owned.push_back(std::make_unique<Counter>());
        m_counters.push_back(m_owned.back().get());
        return m_counters.back();
    }

    // Waits until a check after this call has run a fresh once-timer.
    void waitForTwoChecks()
    {
        Counter* marker = counter();
        ASSERT_TRUE(Socket::addToTimer(&Counter::fire, marker, 0, true));
        ASSERT_TRUE(waitUntil([&] { return marker->fired() == 1; }));
    }

    std::vector<std::unique_ptr<Counter>> m_owned;
    std::vector<Counter*> m_counters;
};

} // namespace

TEST_F(SocketTimeoutTest, OnceTimersFireOnceAndRepeatingOnesUntilRemoved)
{
    Counter* once = counter();
    Counter* repeating = counter();
    const unsigned added = Thread::tick();
    ASSERT_TRUE(Socket::addToTimer(&Counter::fire, once, 1500, true));
    ASSERT_TRUE(Socket::addToTimer(&Counter::fire, repeating, 0, false));
    ASSERT_TRUE(waitUntil([&] { return repeating->fired() >= 3; }));
    EXPECT_EQ(once->fired(), 1u);
    EXPECT_EQ(SocketTimeout::instance()->count(&Counter::fire, once), 0u) << "a once-timer leaves the list";
    {
        std::lock_guard<std::mutex> guard(once->lock);
        EXPECT_GT(once->ticks[0] - added, 1500u) << "fired before its interval";
    }
    {
        std::lock_guard<std::mutex> guard(repeating->lock);
        for (size_t i = 1; i < repeating->ticks.size(); ++i)
            EXPECT_GE(repeating->ticks[i] - repeating->ticks[i - 1], 1000u) << "checked more than once a second";
    }

    EXPECT_TRUE(Socket::removeFromTimer(&Counter::fire, repeating)) << "it heads the active list";
    const size_t firedBefore = repeating->fired();
    waitForTwoChecks();
    EXPECT_EQ(repeating->fired(), firedBefore);
}

TEST_F(SocketTimeoutTest, RemovalBelowTheHeadRemovesButAnswersFalse)
{
    Counter* first = counter();
    Counter* second = counter();
    // Added in one period: the later one heads the pending list.
    ASSERT_TRUE(Socket::addToTimer(&Counter::fire, first, 0, true));
    ASSERT_TRUE(Socket::addToTimer(&Counter::fire, second, 0, true));
    std::vector<std::string> warnings;
    {
        LogCapture log(2, LogCapture::SocketLayer);
        EXPECT_FALSE(Socket::removeFromTimer(&Counter::fire, first));
        for (const auto& line : log.lines())
            if (line.level == 2 && std::strstr(line.format, "SocketTimeout") != nullptr)
                warnings.push_back(line.format);
    }
    EXPECT_EQ(warnings, std::vector<std::string>{"SocketTimeout::Remove( %p, %p ) Not removed!\n"});
    EXPECT_EQ(SocketTimeout::instance()->count(&Counter::fire, first), 0u);

    ASSERT_TRUE(waitUntil([&] { return second->fired() == 1; }));
    EXPECT_EQ(first->fired(), 0u) << "it was removed all the same";
}

TEST(SocketTimeoutLists, HeadRemovalStopsAtTheHead)
{
    // No selector: nothing is checked or merged while this runs.
    Socket::deinit();
    SocketTimeout* timers = SocketTimeout::instance();
    int a = 0, b = 0;
    ASSERT_TRUE(timers->add(&Counter::fire, &a, 100, true));
    ASSERT_TRUE(timers->add(&Counter::fire, &b, 100, true));
    ASSERT_TRUE(timers->add(&Counter::fire, &a, 100, true)); // pending: a, b, a
    EXPECT_TRUE(timers->remove(&Counter::fire, &a));
    EXPECT_EQ(timers->count(&Counter::fire, &a), 1u) << "a head match returns at once";
    EXPECT_TRUE(timers->remove(&Counter::fire, &b));
    EXPECT_TRUE(timers->remove(&Counter::fire, &a));
    EXPECT_FALSE(timers->remove(&Counter::fire, &a));
    EXPECT_EQ(timers->count(&Counter::fire, &a) + timers->count(&Counter::fire, &b), 0u);

    // More than one block of entries comes and goes through the free list.
    std::vector<int> many(3 * SocketTimeout::BlockSize);
    for (int& item : many)
        ASSERT_TRUE(timers->add(&Counter::fire, &item, 0, false));
    for (auto item = many.rbegin(); item != many.rend(); ++item)
        EXPECT_TRUE(timers->remove(&Counter::fire, &*item)) << "each is the head when removed newest first";
}

TEST_F(SocketTimeoutTest, CallbacksMayAddAndRemoveTimers)
{
    Counter* later = counter();
    Counter* adder = counter();
    Counter* selfRemoving = counter();
    adder->onFire = [later](Counter&) { Socket::addToTimer(&Counter::fire, later, 0, true); };
    selfRemoving->onFire = [](Counter& self) {
        if (self.fired() == 2)
            Socket::removeFromTimer(&Counter::fire, &self);
    };
    ASSERT_TRUE(Socket::addToTimer(&Counter::fire, adder, 0, true));
    ASSERT_TRUE(Socket::addToTimer(&Counter::fire, selfRemoving, 0, false));
    ASSERT_TRUE(waitUntil([&] { return later->fired() == 1 && selfRemoving->fired() >= 2; }));
    waitForTwoChecks();
    EXPECT_EQ(adder->fired(), 1u);
    EXPECT_EQ(later->fired(), 1u);
    EXPECT_EQ(selfRemoving->fired(), 2u);
    EXPECT_EQ(SocketTimeout::instance()->count(&Counter::fire, selfRemoving), 0u);
}

TEST_F(SocketTimeoutTest, ARestartedSelectorRunsTheTimersAgain)
{
    Socket::deinit();
    ASSERT_TRUE(Socket::init(2));
    Counter* once = counter();
    ASSERT_TRUE(Socket::addToTimer(&Counter::fire, once, 0, true));
    EXPECT_TRUE(waitUntil([&] { return once->fired() == 1; }));
}
