// The requests every pump answers by itself ("#IsHas", "#IsList", "#EsList",
// "#reg") and event fan-out, through a real router worker.
#include "messaging_support.h"

#include <gtest/gtest.h>

using namespace MessagingTest;

namespace {

class BuiltIn : public ::testing::Test {
protected:
    RunningRouter running;
    Endpoint asker{running.router, "asker"};

    void SetUp() override { ASSERT_TRUE(asker.join()); }
    void TearDown() override { running.router.finish(); }

    // Posts a request from asker and returns the reply's "_r" (or "<absent>").
    std::string ask(MessageItem* request)
    {
        const size_t before = asker.count();
        EXPECT_EQ(asker.pump.post(MessageRef(request)), 0);
        if (!asker.waitForCount(before + 1))
            return "<no reply>";
        const Received reply = asker.received().at(before);
        EXPECT_EQ(reply.kind, Received::Response);
        return reply.value("_r");
    }
    std::string askHas(Endpoint& target, const char* interfaces)
    {
        return ask(asker.pump.createHasInterfacesMessage(target.address().c_str(), interfaces));
    }
    std::string askRegister(Endpoint& target, const char* event, const char* method, bool reg)
    {
        return ask(asker.pump.createEventRegistrationMessage(method, target.address().c_str(), event, reg));
    }
};

} // namespace

TEST_F(BuiltIn, IsHasComparesWholeNamesWithoutTrimmingAndOtherHashMethodsReachTheCallback)
{
    Endpoint ab(running.router, "ab", "a,b");
    Endpoint spaced(running.router, "spaced", "a, b");
    ASSERT_TRUE(ab.join());
    ASSERT_TRUE(spaced.join());
    EXPECT_EQ(askHas(ab, "b"), "true");
    EXPECT_EQ(askHas(ab, "a"), "true");
    EXPECT_EQ(askHas(ab, "a,b"), "false") << "the request is not split";
    EXPECT_EQ(askHas(ab, "c"), "false");
    EXPECT_EQ(askHas(spaced, "b"), "false");
    EXPECT_EQ(askHas(spaced, " b"), "true");
    EXPECT_EQ(ab.count(), 0u) << "built-in requests never reach the message callback";
    // Other methods starting with '#' do.
    ASSERT_EQ(asker.pump.post(MessageRef(asker.pump.createMessage(ab.address().c_str(), "#HsList"))), 0);
    ASSERT_EQ(asker.pump.post(MessageRef(asker.pump.createMessage(ab.address().c_str(), "#custom"))), 0);
    ASSERT_TRUE(ab.waitForCount(2));
    EXPECT_EQ(ab.received()[0].method, "#HsList");
    EXPECT_EQ(ab.received()[1].method, "#custom");

    // Without "inters" the answer is "false".
    MessageItem* bare = asker.pump.createMessage(ab.address().c_str(), "#IsHas");
    EXPECT_EQ(ask(bare), "false");

    // An empty piece between commas is a name too.
    Endpoint gap(running.router, "gap", "a,,b");
    ASSERT_TRUE(gap.join());
    MessageItem* empty = asker.pump.createMessage(gap.address().c_str(), "#IsHas");
    empty->add("inters", "");
    EXPECT_EQ(ask(empty), "true");
}

TEST_F(BuiltIn, IsHasOnAPumpWithoutInterfacesStaysSilent)
{
    Endpoint silent(running.router, "silent");
    ASSERT_TRUE(silent.join());
    silent.requestHook = [&](MessageItem* request, const char*, const char*) {
        silent.pump.post(MessageRef(silent.pump.createReplyMessage(request, "barrier")));
    };
    ASSERT_EQ(asker.pump.post(MessageRef(asker.pump.createHasInterfacesMessage(silent.address().c_str(), "a"))), 0);
    // A reply to the "#IsHas" would be queued before the barrier's reply.
    ASSERT_EQ(asker.pump.post(MessageRef(asker.pump.createMessage(silent.address().c_str(), "ping"))), 0);
    ASSERT_TRUE(asker.waitForCount(1));
    running.router.finish();
    const auto replies = asker.received();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].value("_r"), "barrier");
    ASSERT_EQ(silent.count(), 1u) << "the #IsHas never reached the message callback";
    EXPECT_EQ(silent.received()[0].method, "ping");
}

TEST_F(BuiltIn, IsListAnswersTheListAsSetOrNothing)
{
    Endpoint listed(running.router, "listed", "a, b,c");
    Endpoint bare(running.router, "bare");
    ASSERT_TRUE(listed.join());
    ASSERT_TRUE(bare.join());
    MessageItem* request = asker.pump.createListInterfacesMessage(listed.address().c_str());
    const unsigned id = asker.pump.handler(request);
    EXPECT_EQ(ask(request), "a, b,c");
    EXPECT_EQ(asker.received().at(0).responseId, id) << "the reply carries the request's sender id";
    EXPECT_EQ(ask(asker.pump.createListInterfacesMessage(bare.address().c_str())), "<absent>");
}

TEST_F(BuiltIn, EsListNamesEventsInByteOrderEachFollowedByABar)
{
    Endpoint publisher(running.router, "publisher");
    ASSERT_TRUE(publisher.join());
    EXPECT_EQ(ask(asker.pump.createListEventsMessage(publisher.address().c_str())), "");
    publisher.pump.eventCreate("beta");
    publisher.pump.eventCreate("alpha");
    publisher.pump.eventCreate("Zeta");
    EXPECT_EQ(ask(asker.pump.createListEventsMessage(publisher.address().c_str())), "Zeta|alpha|beta|");
    publisher.pump.eventDestroy("Zeta");
    publisher.pump.eventDestroy("unknown");
    EXPECT_EQ(ask(asker.pump.createListEventsMessage(publisher.address().c_str())), "alpha|beta|");
}

TEST_F(BuiltIn, RegistrationReplacesAnIdenticalEntryAndUnregistrationRemovesIt)
{
    Endpoint publisher(running.router, "publisher");
    ASSERT_TRUE(publisher.join());
    publisher.pump.eventCreate("tick");
    EXPECT_EQ(askRegister(publisher, "tick", "onTick", true), "y");
    EXPECT_EQ(askRegister(publisher, "tick", "onTick", true), "y");
    EXPECT_EQ(publisher.pump.eventListeners("tick").size(), 1u) << "registered once";
    EXPECT_EQ(askRegister(publisher, "tick", "onOther", true), "y");
    EXPECT_EQ(publisher.pump.eventListeners("tick").size(), 2u);
    EXPECT_EQ(askRegister(publisher, "tick", "onTick", false), "y");
    const auto left = publisher.pump.eventListeners("tick");
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].returnMethod, "onOther");
    EXPECT_EQ(left[0].address, asker.address());
    EXPECT_EQ(askRegister(publisher, "tick", "onTick", false), "n") << "nothing to remove";
    EXPECT_EQ(askRegister(publisher, "nosuch", "onTick", true), "n") << "unknown event";

    MessageItem* incomplete = asker.pump.createMessage(publisher.address().c_str(), "#reg");
    incomplete->add("rname", "tick");
    EXPECT_EQ(ask(incomplete), "n") << "no retm";
    EXPECT_EQ(publisher.count(), 0u);

    // Creating an existing event keeps its listeners; destroying drops them.
    publisher.pump.eventCreate("tick");
    EXPECT_EQ(publisher.pump.eventListeners("tick").size(), 1u);
    publisher.pump.eventDestroy("tick");
    EXPECT_TRUE(publisher.pump.eventListeners("tick").empty());
}

TEST_F(BuiltIn, EventsFanOutToListenersInRegistrationOrder)
{
    Endpoint publisher(running.router, "publisher");
    Endpoint second(running.router, "second");
    ASSERT_TRUE(publisher.join());
    ASSERT_TRUE(second.join());
    publisher.pump.eventCreate("tick");
    EXPECT_EQ(askRegister(publisher, "tick", "onTick", true), "y");
    EXPECT_EQ(second.pump.post(MessageRef(
                  second.pump.createEventRegistrationMessage("gotTick", publisher.address().c_str(), "tick", true))),
              0);
    ASSERT_TRUE(second.waitForCount(1));
    ASSERT_EQ(publisher.pump.eventListeners("tick").size(), 2u);

    MessageItem* event = publisher.pump.createEventMessage("tick");
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(pairsOf(event), (Pairs{{"_f", publisher.address()}}));
    event->add("count", "7");
    ASSERT_EQ(publisher.pump.post(MessageRef(event)), 0);

    ASSERT_TRUE(asker.waitForCount(2));
    ASSERT_TRUE(second.waitForCount(2));
    const Received atAsker = asker.received().at(1);
    EXPECT_EQ(atAsker.kind, Received::Request);
    EXPECT_EQ(atAsker.method, "onTick");
    EXPECT_EQ(atAsker.to, asker.address());
    EXPECT_EQ(atAsker.value("count"), "7");
    EXPECT_EQ(atAsker.value("_f"), publisher.address());
    const Received atSecond = second.received().at(1);
    EXPECT_EQ(atSecond.method, "gotTick");
    // Copies are made in registration order, each with a fresh sender id.
    EXPECT_LT(std::stoul(atAsker.value("_s")), std::stoul(atSecond.value("_s")));

    // 24 pairs leave room for one key only: the target, so every listener
    // still gets its copy.
    MessageItem* full = publisher.pump.createEventMessage("tick");
    for (int i = 1; i < 24; ++i)
        full->add(("k" + std::to_string(i)).c_str(), "v");
    ASSERT_EQ(full->numberOfArguments(), 24);
    ASSERT_EQ(publisher.pump.post(MessageRef(full)), 0);
    ASSERT_TRUE(asker.waitForCount(3));
    ASSERT_TRUE(second.waitForCount(3));
    EXPECT_EQ(asker.received().at(2).to, asker.address());
    EXPECT_EQ(asker.received().at(2).value("k23"), "v");
    EXPECT_EQ(second.received().at(2).to, second.address());
    EXPECT_EQ(second.received().at(2).pairs.size(), 25u);

    // 25 pairs leave no room for the target: no copy goes anywhere, and the
    // next event arrives as the listeners' next message.
    MessageItem* brim = publisher.pump.createEventMessage("tick");
    for (int i = 1; i < 25; ++i)
        brim->add(("k" + std::to_string(i)).c_str(), "brim");
    ASSERT_EQ(publisher.pump.post(MessageRef(brim)), 0);
    MessageItem* after = publisher.pump.createEventMessage("tick");
    after->add("count", "8");
    ASSERT_EQ(publisher.pump.post(MessageRef(after)), 0);
    ASSERT_TRUE(asker.waitForCount(4));
    ASSERT_TRUE(second.waitForCount(4));
    EXPECT_EQ(asker.received().at(3).value("count"), "8");
    EXPECT_EQ(second.received().at(3).value("count"), "8");
}

TEST_F(BuiltIn, EventCopiesForOtherHostsGoToTheSystemRouterWithExactPairs)
{
    Endpoint publisher(running.router, "publisher");
    ASSERT_TRUE(publisher.join());
    publisher.pump.eventCreate("tick");
    // A registration as it would arrive from another host.
    MessageItem* remote = MessageItem::create();
    remote->add("_t", publisher.address().c_str());
    remote->add("_f", "farhost@listener");
    remote->add("_m", "#reg");
    remote->add("_s", "12");
    remote->add("rname", "tick");
    remote->add("retm", "onRemoteTick");
    remote->add("reg", "t");
    ASSERT_TRUE(running.router.post(MessageRef(remote)));
    // Its "y" reply goes to the other host, i.e. to the system router.
    ASSERT_TRUE(waitUntil([&] { return running.system.postedCount() == 1; }));
    EXPECT_EQ(running.system.posted()[0],
              (Pairs{{"_t", "farhost@listener"}, {"_R", "12"}, {"_f", publisher.address()}, {"_r", "y"}, {"_s", "1"}}));

    MessageItem* event = publisher.pump.createEventMessage("tick");
    event->add("k", "v");
    ASSERT_EQ(publisher.pump.post(MessageRef(event)), 0);
    ASSERT_EQ(running.system.postedCount(), 2u);
    EXPECT_EQ(
        running.system.posted()[1],
        (Pairs{
            {"_f", publisher.address()}, {"k", "v"}, {"_s", "2"}, {"_t", "farhost@listener"}, {"_m", "onRemoteTick"}}));

    // Too full for all three keys: the target, then the method, fill the
    // room left; the sender id that does not fit is still used up.
    MessageItem* crowded = publisher.pump.createEventMessage("tick");
    Pairs expected{{"_f", publisher.address()}};
    for (int i = 1; i < 23; ++i) {
        expected.emplace_back("k" + std::to_string(i), "v");
        crowded->add(expected.back().first.c_str(), "v");
    }
    ASSERT_EQ(publisher.pump.post(MessageRef(crowded)), 0);
    ASSERT_EQ(running.system.postedCount(), 3u);
    expected.insert(expected.end(), {{"_t", "farhost@listener"}, {"_m", "onRemoteTick"}});
    EXPECT_EQ(running.system.posted()[2], expected);
    MessageItem* next = publisher.pump.createMessage("farhost@listener", "after");
    EXPECT_EQ(publisher.pump.handler(next), 4u);
    MessageItem::release(next);
}

TEST_F(BuiltIn, EventsWithoutListenersOrUnknownAreHandledQuietly)
{
    Endpoint publisher(running.router, "publisher");
    ASSERT_TRUE(publisher.join());
    publisher.pump.eventCreate("lonely");
    MessageItem* event = publisher.pump.createEventMessage("lonely");
    EXPECT_EQ(publisher.pump.post(MessageRef(event)), 0);
    MessageItem* stale = publisher.pump.createEventMessage("lonely");
    publisher.pump.eventDestroy("lonely");
    EXPECT_EQ(publisher.pump.post(MessageRef(stale)), 1003);
    running.router.finish();
    EXPECT_EQ(running.system.postedCount(), 0u);
    EXPECT_EQ(asker.count(), 0u);
}
