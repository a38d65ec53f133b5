// The process router: its table, what it announces to the system router,
// where it routes, and its queue and worker life cycle.
#include "messaging_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

using namespace MessagingTest;
using UlmarComms::MessageQueue;

namespace {

// A message to `to` with one marker pair.
MessageItem* messageTo(const std::string& to, const char* marker = "m")
{
    MessageItem* message = MessageItem::create();
    message->add("_t", to.c_str());
    message->add("marker", marker);
    return message;
}

} // namespace

TEST(MessageQueue, IsFirstInFirstOutLinksThroughTheMessageAndClosedRefuses)
{
    MessageQueue queue;
    MessageItem* a = MessageItem::create();
    MessageItem* b = MessageItem::create();
    EXPECT_FALSE(queue.push(MessageRef()));
    ASSERT_TRUE(queue.push(MessageRef(a)));
    ASSERT_TRUE(queue.push(MessageRef(b)));
    EXPECT_EQ(queue.count(), 2u);
    EXPECT_EQ(a->m_pNext, b);
    MessageRef first = queue.pop();
    EXPECT_EQ(first.get(), a);
    EXPECT_EQ(a->m_pNext, nullptr);
    EXPECT_EQ(queue.pop().get(), b);
    EXPECT_FALSE(queue.pop());
    EXPECT_EQ(queue.count(), 0u);
}

TEST(MessageQueue, ClosedQueueRefusesAndReleasesLeftoversOnDestruction)
{
    MessageRef kept(MessageItem::create());
    MessageRef refused(MessageItem::create());
    {
        MessageQueue queue;
        ASSERT_TRUE(queue.push(kept.share()));
        queue.lock();
        EXPECT_FALSE(queue.push(refused.share()));
        EXPECT_EQ(refused->count(), 1) << "a refused push releases the message";
        EXPECT_FALSE(queue.pop());
        EXPECT_EQ(queue.count(), 1u);
    }
    EXPECT_EQ(kept->count(), 1) << "the queue's reference is dropped with it";
}

TEST(MessageRouterAnnouncements, AddChangeAndRemoveAreAnnouncedInOrder)
{
    RecordingSystemRouter system;
    MessageRouter router;
    ASSERT_TRUE(router.setSystemRouter(&system));
    ASSERT_EQ(system.routers(), std::vector<IMessageRouter*>{&router});
    EXPECT_FALSE(router.setSystemRouter(nullptr));
    EXPECT_EQ(router.systemRouter(), &system) << "null keeps the earlier system router";

    MessagePump plain("plain", &router);
    MessagePump rich("rich/one", &router);
    rich.setInterfaceNames("a,b");
    ASSERT_TRUE(router.add(&plain));
    ASSERT_TRUE(router.add(&rich));
    ASSERT_TRUE(router.remove(&plain));
    EXPECT_EQ(system.commandLines(),
              (std::vector<std::string>{
                  "1 " + local("plain"),
                  "1 " + local("rich/one"),
                  "3 " + local("rich/one") + ":a,b",
                  "2 " + local("plain"),
              }));
    for (const auto& command : system.commands())
        EXPECT_EQ(command.from, &router);

    // A change of interfaces sends the pump's list.
    system.clearCommands();
    rich.setInterfaceNames("x,y");
    EXPECT_TRUE(router.changeInterfaceNames(&rich, "x,y"));
    EXPECT_EQ(system.commandLines(), std::vector<std::string>{"3 " + local("rich/one") + ":x,y"});
    router.remove(&rich);

    // Removal is announced even for a pump the router does not know.
    system.clearCommands();
    MessagePump stranger("stranger", &router);
    EXPECT_FALSE(router.remove(&stranger));
    EXPECT_EQ(system.commandLines(), std::vector<std::string>{"2 " + local("stranger")});
}

TEST(MessageRouterAnnouncements, WithoutSystemRouterPumpsStillJoin)
{
    MessageRouter router;
    MessagePump pump("alone", &router);
    EXPECT_TRUE(router.add(&pump));
    EXPECT_EQ(router.numberOfPumps(), 1u);
    EXPECT_FALSE(router.changeInterfaceNames(&pump, "x")) << "no system router to tell";
    EXPECT_TRUE(router.remove(&pump));
}

TEST(MessageRouterAnnouncements, ReannouncementSkipsTheFirstEntryWhichRemovalCanChange)
{
    RecordingSystemRouter system;
    MessageRouter router;
    router.setSystemRouter(&system);
    MessagePump first("first", &router);
    first.setInterfaceNames("f");
    router.add(&first);
    system.clearCommands();
    EXPECT_TRUE(router.sendRoutingTableToSystemRouter());
    EXPECT_TRUE(system.commands().empty()) << "a table of one pump sends nothing";

    MessagePump second("second", &router);
    MessagePump third("third", &router);
    third.setInterfaceNames("t1,t2");
    router.add(&second);
    router.add(&third);
    system.clearCommands();
    EXPECT_TRUE(router.sendRoutingTableToSystemRouter());
    EXPECT_EQ(system.commandLines(),
              (std::vector<std::string>{
                  "1 " + local("second"),
                  "1 " + local("third"),
                  "3 " + local("third") + ":t1,t2",
              }));
    // Removal moves the last entry into the gap: the table is now third,
    // second, and the re-announcement skips third, now first.
    ASSERT_TRUE(router.remove(&first));
    system.clearCommands();
    router.sendRoutingTableToSystemRouter();
    EXPECT_EQ(system.commandLines(), std::vector<std::string>{"1 " + local("second")});
    router.remove(&second);
    router.remove(&third);
}

TEST(MessageRouterTable, EqualScoresGoToTheEarlierEntryHigherScoresWinAndOtherHostsNever)
{
    MessageRouter router;
    MessagePump xa("x/a", &router);
    MessagePump xb("x/b", &router);
    MessagePump x("x", &router);
    router.add(&xa);
    router.add(&xb);
    router.add(&x);
    // "x" scores 1 against all three: the earliest wins.
    EXPECT_EQ(router.findTargetMessagePump("x"), &xa);
    EXPECT_EQ(router.findTargetMessagePump("X/B/deeper"), &xb) << "score 2 beats the earlier score 1";
    EXPECT_EQ(router.findTargetMessagePump("y"), nullptr);
    // Other hosts are never local, nor is "localhost": only the real host name.
    EXPECT_EQ(router.findTargetMessagePump(local("x/b").c_str()), &xb);
    EXPECT_EQ(router.findTargetMessagePump(("not-" + host() + "@x").c_str()), nullptr);
    EXPECT_EQ(router.findTargetMessagePump("localhost@x"), nullptr);
    // After a removal the last entry (x) takes the first slot and so the tie.
    router.remove(&xa);
    EXPECT_EQ(router.findTargetMessagePump("x"), &x);
    router.remove(&xb);
    router.remove(&x);
}

TEST(MessageRouterTable, GrowsPastItsFirstCapacityAndRemovesInAnyOrder)
{
    RecordingSystemRouter system;
    MessageRouter router;
    router.setSystemRouter(&system);
    std::vector<std::unique_ptr<MessagePump>> pumps;
    for (int i = 0; i < 25; ++i) {
        pumps.push_back(std::make_unique<MessagePump>(("p" + std::to_string(i)).c_str(), &router));
        ASSERT_TRUE(router.add(pumps.back().get()));
    }
    EXPECT_EQ(router.numberOfPumps(), 25u);
    for (int i = 0; i < 25; ++i)
        EXPECT_EQ(router.findTargetMessagePump(("p" + std::to_string(i)).c_str()), pumps[i].get());
    EXPECT_EQ(system.commands().size(), 25u);
    // Removals move the last entry into the freed slot; every pump left must
    // still be found, and each removed once only.
    std::vector<bool> removed(25, false);
    for (int i : {0, 24, 3, 23, 12, 1, 2, 22, 5, 4, 6, 21, 7, 20, 8, 19, 9, 18, 10, 17, 11, 16, 13, 15, 14}) {
        EXPECT_TRUE(router.remove(pumps[i].get())) << "p" << i;
        EXPECT_FALSE(router.remove(pumps[i].get())) << "p" << i << " a second time";
        removed[i] = true;
        for (int j = 0; j < 25; ++j)
            EXPECT_EQ(router.findTargetMessagePump(("p" + std::to_string(j)).c_str()),
                      removed[j] ? nullptr : pumps[j].get())
                << "p" << j << " after removing p" << i;
    }
    EXPECT_EQ(router.numberOfPumps(), 0u);
}

TEST(MessageRouterLifecycle, StartNeedsASystemRouterAndCanBeRepeated)
{
    MessageRouter router;
    EXPECT_FALSE(router.start());
    EXPECT_FALSE(router.finish()) << "nothing to finish";
    RecordingSystemRouter system;
    router.setSystemRouter(&system);
    EXPECT_TRUE(router.start());
    EXPECT_TRUE(router.start()) << "a running worker is kept";
    EXPECT_TRUE(router.isStarted());
    EXPECT_TRUE(router.finish());
    EXPECT_FALSE(router.isStarted());
    EXPECT_TRUE(router.start()) << "a router can be restarted";
    EXPECT_TRUE(router.finish());
}

TEST(MessageRouterPost, UnknownTargetsGoToTheSystemRouter)
{
    RunningRouter running;
    Endpoint echo(running.router, "echo");
    ASSERT_TRUE(echo.join());
    ASSERT_TRUE(running.router.post(MessageRef(messageTo("nobody/here", "1"))));
    ASSERT_TRUE(running.router.post(MessageRef(messageTo("elsewhere-" + host() + "@echo", "2"))));
    ASSERT_EQ(running.system.postedCount(), 2u) << "handed over synchronously";
    const auto posted = running.system.posted();
    EXPECT_EQ(posted[0].at(1).second, "1");
    EXPECT_EQ(posted[1].at(1).second, "2");
    // A local message posted afterwards arrives; the other-host one never did.
    ASSERT_TRUE(running.router.post(MessageRef(messageTo(local("echo"), "3"))));
    ASSERT_TRUE(echo.waitForCount(1));
    EXPECT_EQ(echo.received().at(0).value("marker"), "3");
    EXPECT_EQ(echo.count(), 1u);
}

// Every refusal takes the message: the router drops exactly the one
// reference it was given, and a pump reports the refusal as result 6.
TEST(MessageRouterPost, ARefusedPostTakesTheMessage)
{
    enum class Refusal { NotStarted, SystemRouterRefuses, Finished };
    for (Refusal refusal : {Refusal::NotStarted, Refusal::SystemRouterRefuses, Refusal::Finished}) {
        SCOPED_TRACE(static_cast<int>(refusal));
        RunningRouter running;
        MessageRouter neverStarted;
        neverStarted.setSystemRouter(&running.system);
        MessageRouter& router = refusal == Refusal::NotStarted ? neverStarted : running.router;
        Endpoint echo(router, "echo");
        ASSERT_TRUE(echo.join());
        std::string to = "echo";
        if (refusal == Refusal::Finished)
            running.router.finish();
        if (refusal == Refusal::SystemRouterRefuses) {
            running.system.setAccept(false);
            to = "nobody";
        }
        MessageRef kept(messageTo(to));
        EXPECT_FALSE(router.post(kept.share()));
        EXPECT_EQ(kept->count(), 1) << "the router dropped its reference";

        MessagePump pump("sender", &router);
        MessageRef viaPump(pump.createMessage(to.c_str(), "m"));
        EXPECT_EQ(pump.post(viaPump.share()), 6);
        EXPECT_EQ(viaPump->count(), 1);
    }
    MessageRouter idle;
    EXPECT_FALSE(idle.post(MessageRef()));
}

TEST(MessageRouterDelivery, AMessageWithoutPumpIsDroppedOnDelivery)
{
    RunningRouter running;
    MessageRef message(messageTo("gone"));
    EXPECT_FALSE(running.router.processMessage(message.share()));
    EXPECT_EQ(message->count(), 1) << "released, no error reply";
    EXPECT_FALSE(running.router.processMessage(MessageRef()));
    EXPECT_EQ(running.system.postedCount(), 0u);
}

TEST(MessageRouterStatics, CreateAddAndDestroy)
{
    MessageItem* message = MessageRouter::create("to/x", "from/y", "method");
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(keysOf(message), (std::vector<std::string>{"_t", "_f", "_m"}));
    EXPECT_FALSE(message->hasKey("_s"));
    EXPECT_TRUE(MessageRouter::addKeyValuePair(message, "k", "v"));
    EXPECT_STREQ(message->value("k"), "v");
    EXPECT_FALSE(MessageRouter::addKeyValuePair(nullptr, "k", "v"));
    MessageRouter::destroy(message);
    EXPECT_EQ(MessageRouter::create(nullptr, "f", "m"), nullptr);
}

TEST(MessageRouterLifecycle, DestroyingARunningRouterStopsItsWorkerAndClearsMaster)
{
    RecordingSystemRouter system;
    auto router = std::make_unique<MessageRouter>();
    router->setSystemRouter(&system);
    ASSERT_TRUE(router->start());
    MessageRouter::s_pMaster = router.get();
    MessagePump sink("sink", router.get());
    ASSERT_TRUE(sink.setCallbacks(nullptr, nullptr, nullptr, nullptr));
    for (int i = 0; i < 50; ++i)
        router->post(MessageRef(messageTo("sink")));
    router->remove(&sink);
    // Messages for the removed pump may still be queued: the destructor
    // stops the worker and releases them (the leak checker watches).
    router.reset();
    EXPECT_EQ(MessageRouter::s_pMaster, nullptr);
}
