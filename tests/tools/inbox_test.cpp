// The hand-over from callback threads to the client's main thread: items
// wait in order until taken, waits end on their deadline or an interrupt
// beyond their baseline, and a flood is bounded.
#include "ulmarcomms/inbox.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace UlmarCommsTools;
using namespace std::chrono_literals;

namespace {

Received replyTo(unsigned id)
{
    Received item;
    item.kind = Received::Kind::Reply;
    item.responseId = id;
    return item;
}

const auto anyItem = [](const Received&) { return true; };

TEST(Inbox, TakesTheFirstMatchAndKeepsTheRestInOrder)
{
    Inbox inbox;
    inbox.push(replyTo(1));
    inbox.push(replyTo(2));
    inbox.push(replyTo(3));
    Received out;
    ASSERT_EQ(inbox.waitFor([](const Received& item) { return item.responseId == 2; }, Inbox::Clock::now(), 0, out),
              Inbox::Wait::Got);
    EXPECT_EQ(out.responseId, 2u);
    ASSERT_EQ(inbox.waitFor(anyItem, Inbox::Clock::now(), 0, out), Inbox::Wait::Got);
    EXPECT_EQ(out.responseId, 1u);
    ASSERT_EQ(inbox.waitFor(anyItem, Inbox::Clock::now(), 0, out), Inbox::Wait::Got);
    EXPECT_EQ(out.responseId, 3u);
    EXPECT_EQ(inbox.size(), 0u);
}

TEST(Inbox, WaitsForAnItemFromAnotherThread)
{
    Inbox inbox;
    std::thread producer([&inbox] {
        inbox.push(replyTo(9));
        inbox.push(replyTo(7));
    });
    Received out;
    const auto waited =
        inbox.waitFor([](const Received& item) { return item.responseId == 7; }, Inbox::Clock::now() + 10s, 0, out);
    producer.join();
    ASSERT_EQ(waited, Inbox::Wait::Got);
    EXPECT_EQ(out.responseId, 7u);
    EXPECT_EQ(inbox.size(), 1u) << "the item nobody asked for stays queued";
}

TEST(Inbox, DeadlinePassesWithoutAMatch)
{
    Inbox inbox;
    inbox.push(replyTo(1));
    Received out;
    const auto start = Inbox::Clock::now();
    EXPECT_EQ(inbox.waitFor([](const Received& item) { return item.responseId == 2; }, start + 50ms, 0, out),
              Inbox::Wait::TimedOut);
    EXPECT_GE(Inbox::Clock::now(), start + 50ms);
    EXPECT_EQ(inbox.sleepUntil(Inbox::Clock::now() + 10ms, 0), Inbox::Wait::TimedOut);
}

TEST(Inbox, InterruptsWakeWaitsBeyondTheirBaseline)
{
    Inbox inbox;
    std::thread interrupter([&inbox] { inbox.interrupt(); });
    Received out;
    EXPECT_EQ(inbox.waitFor(anyItem, std::nullopt, 0, out), Inbox::Wait::Interrupted);
    interrupter.join();
    EXPECT_EQ(inbox.interrupts(), 1u);

    // A wait that already knows of the first interrupt is not ended by it...
    inbox.push(replyTo(5));
    ASSERT_EQ(inbox.waitFor(anyItem, std::nullopt, 1, out), Inbox::Wait::Got);
    EXPECT_EQ(inbox.sleepUntil(Inbox::Clock::now() + 10ms, 1), Inbox::Wait::TimedOut);
    // ...but by a second one.
    std::thread second([&inbox] { inbox.interrupt(); });
    EXPECT_EQ(inbox.sleepUntil(Inbox::Clock::now() + 10s, 1), Inbox::Wait::Interrupted);
    second.join();
}

TEST(Inbox, AFloodIsBounded)
{
    Inbox inbox;
    for (size_t index = 0; index < Inbox::kMaxItems; ++index)
        ASSERT_TRUE(inbox.push(replyTo(static_cast<unsigned>(index))));
    EXPECT_FALSE(inbox.push(replyTo(0)));
    EXPECT_EQ(inbox.size(), Inbox::kMaxItems);
    Received out;
    ASSERT_EQ(inbox.waitFor(anyItem, Inbox::Clock::now(), 0, out), Inbox::Wait::Got);
    EXPECT_TRUE(inbox.push(replyTo(1)));
}

} // namespace
