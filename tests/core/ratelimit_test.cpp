// The rate-limited log gate: a few lines per window, the rest counted and
// reported with the next line let through. Time is passed in, so no sleeps.
#include "core/ratelimit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using std::chrono::milliseconds;
using UlmarComms::RateLimitedLog;

TEST(RateLimitedLog, LetsAFewLinesAWindowAndCountsTheRest)
{
    RateLimitedLog gate(3, milliseconds(1000));
    const RateLimitedLog::Clock::time_point start{};
    uint64_t heldBack = 99;
    // Three pass, seven are held back within the first window.
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(gate.admitAt(start + milliseconds(i), heldBack));
        EXPECT_EQ(heldBack, 0u);
    }
    for (int i = 0; i < 7; ++i)
        EXPECT_FALSE(gate.admitAt(start + milliseconds(10 + i), heldBack));
    EXPECT_FALSE(gate.admitAt(start + milliseconds(999), heldBack));

    // The next window's first line carries the count, once.
    EXPECT_TRUE(gate.admitAt(start + milliseconds(1000), heldBack));
    EXPECT_EQ(heldBack, 8u);
    EXPECT_TRUE(gate.admitAt(start + milliseconds(1001), heldBack));
    EXPECT_EQ(heldBack, 0u);

    // A clock seen going back starts a new window rather than blocking.
    EXPECT_TRUE(gate.admitAt(start, heldBack));
}

TEST(RateLimitedLog, ThreadsTogetherGetNoMoreThanTheWindowAllows)
{
    RateLimitedLog gate(3, std::chrono::hours(1));
    std::atomic<int> admitted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            uint64_t heldBack = 0;
            for (int i = 0; i < 500; ++i)
                if (gate.admit(heldBack))
                    ++admitted;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(admitted.load(), 3);
}
