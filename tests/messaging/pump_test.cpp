// Message pumps end to end through a real router worker: building, posting,
// requests, replies, errors, sender ids, callbacks that post or change the
// table, and many application threads posting at once.
#include "messaging_support.h"
#include "support/logcapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>

using namespace MessagingTest;

TEST(MessagePumpAddress, HostIsFilledInLocalhostReplacedAndInterfacesKept)
{
    MessagePump plain("svc/a", nullptr);
    EXPECT_EQ(std::string(plain.address()), local("svc/a"));
    MessagePump named("localhost@svc", nullptr);
    EXPECT_EQ(std::string(named.address()), local("svc"));
    MessagePump remote("far@svc//b/", nullptr);
    EXPECT_EQ(std::string(remote.address()), "far@svc/b");

    // An empty interface text is refused and keeps the list.
    MessagePump pump("p", nullptr);
    EXPECT_EQ(pump.getInterfaceNames(), nullptr);
    EXPECT_FALSE(pump.setInterfaceNames(nullptr));
    EXPECT_TRUE(pump.setInterfaceNames("a, b"));
    EXPECT_FALSE(pump.setInterfaceNames(""));
    EXPECT_STREQ(pump.getInterfaceNames(), "a, b");
}

TEST(MessagePumpBuilders, KeysComeInTheirFixedOrderWithExactTexts)
{
    MessagePump pump("builder", nullptr);
    const std::string me = pump.address();
    // "_t", "_f", "_m", the pairs given, "_s", then the trailing pairs.
    auto expected = [&](const char* to, const char* method, Pairs middle, const char* id, Pairs tail = {}) {
        Pairs all = {{"_t", to}, {"_f", me}, {"_m", method}};
        all.insert(all.end(), middle.begin(), middle.end());
        all.emplace_back("_s", id);
        all.insert(all.end(), tail.begin(), tail.end());
        return all;
    };
    const Pairs registration = {{"rname", "tick"}, {"retm", "onTick"}};
    // Each builder takes the next sender id.
    const std::vector<std::pair<std::function<MessageItem*()>, Pairs>> cases = {
        {[&] { return pump.createSystemListHostsMessage(); }, expected("/system", "#HsList", {}, "1")},
        {[&] { return pump.createListInterfacesMessage("dest"); }, expected("dest", "#IsList", {}, "2")},
        {[&] { return pump.createListEventsMessage("dest"); }, expected("dest", "#EsList", {}, "3")},
        {[&] { return pump.createHasInterfacesMessage("dest", "a,b"); },
         expected("dest", "#IsHas", {{"inters", "a,b"}}, "4")},
        {[&] { return pump.createListHostsSupportingInterfaces("i", true); },
         expected("/system", "NetHostSupportInterfaces", {{"inters", "i"}, {"match", "1"}}, "5")},
        {[&] { return pump.createListHostsSupportingInterfaces("i", false); },
         expected("/system", "NetHostSupportInterfaces", {{"inters", "i"}, {"match", "0"}}, "6")},
        {[&] { return pump.createSystemGetAddressesSupportingInterfacesMessage("far", "i"); },
         expected("far@/system", "#AdsSupIs", {{"inters", "i"}}, "7")},
        {[&] { return pump.createSystemGetAddressesSupportingInterfacesMessage("", "i"); },
         expected("/system", "#AdsSupIs", {{"inters", "i"}}, "8")},
        {[&] { return pump.createEventRegistrationMessage("onTick", "dest", "tick", true); },
         expected("dest", "#reg", registration, "9", {{"reg", "t"}})},
        {[&] { return pump.createEventRegistrationMessage("onTick", "dest", "tick", false); },
         expected("dest", "#reg", registration, "10")},
        {[&] { return pump.createMessage("dest", ""); }, expected("dest", "", {}, "11")},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        MessageItem* m = cases[i].first();
        ASSERT_NE(m, nullptr) << "builder " << i;
        EXPECT_EQ(pairsOf(m), cases[i].second) << "builder " << i;
        MessageItem::release(m);
    }
}

TEST(MessagePumpBuilders, RefuseMissingArguments)
{
    MessagePump pump("builder", nullptr);
    EXPECT_EQ(pump.createListInterfacesMessage(nullptr), nullptr);
    EXPECT_EQ(pump.createListInterfacesMessage(""), nullptr);
    EXPECT_EQ(pump.createListEventsMessage(""), nullptr);
    EXPECT_EQ(pump.createHasInterfacesMessage("", "a"), nullptr);
    EXPECT_EQ(pump.createHasInterfacesMessage("d", ""), nullptr);
    EXPECT_EQ(pump.createListHostsSupportingInterfaces("", true), nullptr);
    EXPECT_EQ(pump.createSystemGetAddressesSupportingInterfacesMessage("h", nullptr), nullptr);
    EXPECT_EQ(pump.createEventRegistrationMessage("", "d", "e", true), nullptr);
    EXPECT_EQ(pump.createEventRegistrationMessage("r", "", "e", true), nullptr);
    EXPECT_EQ(pump.createEventRegistrationMessage("r", "d", "", true), nullptr);
    EXPECT_EQ(pump.createMessage(nullptr, "m"), nullptr);
    EXPECT_EQ(pump.createMessage("d", nullptr), nullptr);
    EXPECT_EQ(pump.createEventMessage("never-created"), nullptr);
    EXPECT_EQ(pump.createEventMessage(""), nullptr);
    // None of the refusals used up a sender id; handler() reads it back.
    MessageItem* m = pump.createMessage("d", "m");
    EXPECT_STREQ(m->value("_s"), "1");
    EXPECT_EQ(pump.handler(m), 1u);
    MessageItem::release(m);
    MessageItem* bare = MessageItem::create();
    EXPECT_EQ(pump.handler(bare), 0xFFFFFFFFu);
    MessageItem::release(bare);
}

TEST(MessagePumpReplies, ReplyTakesSenderAndIdAndCopiesTheMode)
{
    MessagePump pump("replier", nullptr);
    MessageItem* request = MessageItem::create();
    request->add("_f", "asker");
    request->add("_s", "41");
    MessageItem* reply = pump.createReplyMessage(request, "fine");
    EXPECT_EQ(pairsOf(reply),
              (Pairs{{"_t", "asker"}, {"_R", "41"}, {"_f", pump.address()}, {"_r", "fine"}, {"_s", "1"}}));
    MessageItem::release(reply);
    reply = pump.createReplyMessage(request, nullptr);
    EXPECT_FALSE(reply->hasKey("_r"));
    MessageItem::release(reply);
    request->add("_M", "E");
    reply = pump.createReplyMessage(request, "x");
    EXPECT_STREQ(reply->value("_M"), "E") << "a reply to an error-mode request is in error mode";
    MessageItem::release(reply);
    MessageItem::release(request);

    MessageItem* anonymous = MessageItem::create();
    anonymous->add("_s", "1");
    EXPECT_EQ(pump.createReplyMessage(anonymous, "x"), nullptr);
    EXPECT_EQ(pump.createReplyMessage(nullptr, "x"), nullptr);
    MessageItem::release(anonymous);
}

// post() takes the message whatever its result; sendErrorMessage() leaves
// the request with its caller.
TEST(MessagePumpPost, ResultCodesAndOwnershipOfPostAndSendErrorMessage)
{
    MessagePump orphan("orphan", nullptr);
    EXPECT_EQ(orphan.post(MessageRef(nullptr)), 4);
    MessageItem* m = orphan.createMessage("d", "m");
    m->incrementCount();
    EXPECT_EQ(orphan.post(MessageRef(m)), 6) << "no router";
    EXPECT_EQ(m->count(), 1) << "and released";
    MessageItem::release(m);

    EXPECT_EQ(orphan.sendErrorMessage(7, nullptr), 4);
    MessageItem* request = MessageItem::create();
    request->add("_f", "asker");
    EXPECT_EQ(orphan.sendErrorMessage(7, request), 5) << "no sender id";
    request->add("_s", "3");
    EXPECT_EQ(orphan.sendErrorMessage(7, request), 6) << "built, but the pump has no router";
    EXPECT_EQ(request->count(), 1);
    MessageItem::release(request);

    RunningRouter running;
    MessagePump pump("poster", &running.router);
    MessageItem* event = MessageItem::create();
    event->setEventName("undeclared");
    event->incrementCount();
    EXPECT_EQ(pump.post(MessageRef(event)), 1003);
    EXPECT_EQ(event->count(), 1);
    MessageItem::release(event);
}

class MessagePumpExchange : public ::testing::Test {
protected:
    RunningRouter running;
    Endpoint alice{running.router, "alice"};
    Endpoint bob{running.router, "bob"};

    void SetUp() override
    {
        ASSERT_TRUE(alice.join());
        ASSERT_TRUE(bob.join());
    }
    void TearDown() override { running.router.finish(); }
};

TEST_F(MessagePumpExchange, RequestAndReplyRoundTrip)
{
    bob.requestHook = [&](MessageItem* request, const char*, const char*) {
        bob.pump.post(MessageRef(bob.pump.createReplyMessage(request, "pong")));
    };
    MessageItem* ping = alice.pump.createMessage(bob.address().c_str(), "ping");
    ping->add("payload", "42");
    const unsigned id = alice.pump.handler(ping);
    ASSERT_EQ(alice.pump.post(MessageRef(ping)), 0);

    ASSERT_TRUE(alice.waitForCount(1));
    const Received request = bob.received().at(0);
    EXPECT_EQ(request.kind, Received::Request);
    EXPECT_EQ(request.to, bob.address());
    EXPECT_EQ(request.method, "ping");
    EXPECT_EQ(request.value("payload"), "42");
    EXPECT_EQ(request.value("_f"), alice.address());
    const Received reply = alice.received().at(0);
    EXPECT_EQ(reply.kind, Received::Response);
    EXPECT_EQ(reply.responseId, id);
    EXPECT_EQ(reply.value("_r"), "pong");
    EXPECT_EQ(reply.value("_f"), bob.address());
}

TEST_F(MessagePumpExchange, ErrorRepliesReachTheErrorCallbackAndUseTwoIds)
{
    bob.requestHook = [&](MessageItem* request, const char*, const char*) {
        EXPECT_EQ(bob.pump.sendErrorMessage(1234, request), 0);
        // The request still belongs to the delivery; reading it is fine.
        EXPECT_TRUE(request->hasKey("_s"));
    };
    MessageItem* ask = alice.pump.createMessage(bob.address().c_str(), "fail");
    EXPECT_STREQ(ask->value("_s"), "1") << "a pump's first message carries id 1";
    ASSERT_EQ(alice.pump.post(MessageRef(ask)), 0);
    ASSERT_TRUE(alice.waitForCount(1));
    const Received error = alice.received().at(0);
    EXPECT_EQ(error.kind, Received::Error);
    EXPECT_EQ(error.responseId, 1u);
    EXPECT_EQ(error.errorCode, 1234);

    // bob's error reply took id 1 and skipped 2: its next message has id 3.
    MessageItem* next = bob.pump.createMessage("x", "m");
    EXPECT_STREQ(next->value("_s"), "3");
    MessageItem::release(next);
}

// A message is a request when its response id is missing, zero or not a
// number; an error without a method gives code 2.
TEST_F(MessagePumpExchange, DeliveryTellsRequestsResponsesAndErrorsApart)
{
    const std::string to = alice.address();
    for (const Pairs& pairs :
         {Pairs{{"_t", to}, {"_m", "hello"}, {"_R", "0"}}, Pairs{{"_t", to}, {"_m", "hello"}, {"_R", "abc"}},
          Pairs{{"_t", to}, {"_R", "5"}}, Pairs{{"_t", to}, {"_M", "E"}, {"_R", "9"}}}) {
        MessageItem* message = MessageItem::create();
        for (const auto& [key, value] : pairs)
            message->add(key.c_str(), value.c_str());
        ASSERT_TRUE(running.router.post(MessageRef(message)));
    }
    ASSERT_TRUE(alice.waitForCount(4));
    const auto received = alice.received();
    EXPECT_EQ(received[0].kind, Received::Request);
    EXPECT_EQ(received[0].method, "hello");
    EXPECT_EQ(received[1].kind, Received::Request);
    EXPECT_EQ(received[2].kind, Received::Response);
    EXPECT_EQ(received[2].responseId, 5u);
    EXPECT_EQ(received[3].kind, Received::Error);
    EXPECT_EQ(received[3].responseId, 9u);
    EXPECT_EQ(received[3].errorCode, 2);
}

// A throwing callback costs only its own delivery; one that takes a
// reference keeps the message after the delivery is over.
TEST_F(MessagePumpExchange, ACallbackMayThrowOrKeepTheMessageByTakingAReference)
{
    MessageItem* kept = nullptr;
    bob.requestHook = [&](MessageItem* request, const char*, const char* method) {
        if (std::string(method) == "boom")
            throw std::runtime_error("application failure");
        request->incrementCount();
        kept = request;
    };
    ASSERT_EQ(alice.pump.post(MessageRef(alice.pump.createMessage(bob.address().c_str(), "boom"))), 0);
    ASSERT_EQ(alice.pump.post(MessageRef(alice.pump.createMessage(bob.address().c_str(), "keep"))), 0);
    ASSERT_TRUE(bob.waitForCount(2));
    EXPECT_EQ(bob.received().at(1).method, "keep");
    running.router.finish(); // orders the worker's writes before our reads
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->count(), 1);
    EXPECT_STREQ(kept->value("_m"), "keep");
    MessageItem::release(kept);
}

TEST_F(MessagePumpExchange, CallbacksMayAddAndRemovePumps)
{
    std::unique_ptr<Endpoint> carol;
    bob.requestHook = [&](MessageItem*, const char*, const char* method) {
        const std::string what = method;
        if (what == "spawn") {
            carol = std::make_unique<Endpoint>(running.router, "carol");
            ASSERT_TRUE(carol->join());
            bob.pump.post(MessageRef(bob.pump.createMessage(carol->address().c_str(), "welcome")));
        } else if (what == "leave") {
            EXPECT_TRUE(running.router.remove(&bob.pump));
        }
    };
    ASSERT_EQ(alice.pump.post(MessageRef(alice.pump.createMessage(bob.address().c_str(), "spawn"))), 0);
    ASSERT_TRUE(waitUntil([&] { return running.router.numberOfPumps() == 3; }));
    ASSERT_TRUE(waitUntil([&] { return carol->count() == 1; }));
    EXPECT_EQ(carol->received().at(0).method, "welcome");

    ASSERT_EQ(alice.pump.post(MessageRef(alice.pump.createMessage(bob.address().c_str(), "leave"))), 0);
    ASSERT_TRUE(waitUntil([&] { return running.router.numberOfPumps() == 2; }));
    // bob is gone from the table: a message for it now goes to the system router.
    ASSERT_EQ(alice.pump.post(MessageRef(alice.pump.createMessage(bob.address().c_str(), "late"))), 0);
    EXPECT_EQ(running.system.postedCount(), 1u);
    EXPECT_EQ(bob.count(), 2u);
    running.router.finish();
    carol.reset();
}

TEST_F(MessagePumpExchange, RemoveWaitsForADeliveryInProgressToThatPumpOnly)
{
    std::atomic<bool> inCallback{false};
    std::atomic<bool> release{false};
    std::atomic<bool> callbackDone{false};
    bob.requestHook = [&](MessageItem*, const char*, const char*) {
        inCallback = true;
        waitUntil([&] { return release.load(); });
        callbackDone = true;
    };
    ASSERT_EQ(alice.pump.post(MessageRef(alice.pump.createMessage(bob.address().c_str(), "slow"))), 0);
    ASSERT_TRUE(waitUntil([&] { return inCallback.load(); }));

    // Removing another pump does not wait; a message queued for it behind
    // the delivery in progress is dropped when its turn comes.
    UlmarCommsTest::LogCapture log;
    Endpoint carol(running.router, "carol");
    ASSERT_TRUE(carol.join());
    ASSERT_EQ(alice.pump.post(MessageRef(alice.pump.createMessage(carol.address().c_str(), "orphaned"))), 0);
    EXPECT_TRUE(running.router.remove(&carol.pump));

    std::atomic<bool> removed{false};
    bool doneWhenRemoveReturned = false;
    std::thread remover([&] {
        running.router.remove(&bob.pump);
        doneWhenRemoveReturned = callbackDone;
        removed = true;
    });
    // remove() must not come back while bob is still being delivered to.
    EXPECT_FALSE(waitUntil([&] { return removed.load(); }, std::chrono::milliseconds(100)));
    release = true;
    remover.join();
    EXPECT_TRUE(doneWhenRemoveReturned);
    EXPECT_TRUE(log.waitFor("Failed to process message"));
    EXPECT_EQ(carol.count(), 0u);
}

TEST_F(MessagePumpExchange, ReplyRefusedByTheSystemRouterIsReleasedOnce)
{
    running.system.setAccept(false);
    bob.requestHook = [&](MessageItem* request, const char*, const char*) {
        MessageItem* reply = bob.pump.createReplyMessage(request, "x");
        reply->add("_t", "elsewhere"); // the first "_t" still wins for value(), routing uses the last
        EXPECT_EQ(bob.pump.post(MessageRef(reply)), 6);
    };
    ASSERT_EQ(alice.pump.post(MessageRef(alice.pump.createMessage(bob.address().c_str(), "q"))), 0);
    ASSERT_TRUE(bob.waitForCount(1));
    // Nothing reached alice; the leak checker proves the reply was freed.
    running.router.finish();
    EXPECT_EQ(alice.count(), 0u);
}

TEST(MessagePumpConcurrency, ManyThreadsPostWithoutLossAndInOrderPerSender)
{
    RunningRouter running;
    Endpoint sink(running.router, "sink");
    ASSERT_TRUE(sink.join());
    const int kThreads = 4;
    const int kMessages = 2000;
    std::vector<std::unique_ptr<MessagePump>> senders;
    for (int t = 0; t < kThreads; ++t)
        senders.push_back(std::make_unique<MessagePump>(("sender" + std::to_string(t)).c_str(), &running.router));
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kMessages; ++i) {
                MessageItem* m = senders[t]->createMessage(sink.address().c_str(), "n");
                if (senders[t]->post(MessageRef(m)) != 0)
                    ++failures;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
    ASSERT_TRUE(sink.waitForCount(kThreads * kMessages));
    std::map<std::string, unsigned long> last;
    for (const Received& r : sink.received()) {
        const unsigned long id = std::stoul(r.value("_s"));
        EXPECT_GT(id, last[r.value("_f")]) << "per-sender order";
        last[r.value("_f")] = id;
    }
    ASSERT_EQ(last.size(), static_cast<size_t>(kThreads));
    for (const auto& sender : last)
        EXPECT_EQ(sender.second, static_cast<unsigned long>(kMessages));
    EXPECT_EQ(running.system.postedCount(), 0u);
}

TEST(MessagePumpConcurrency, PingPongChainsAcrossPumps)
{
    // Each reply triggers the next request: every hop waits on the worker
    // being woken, which is where a lost wake-up would show as a stall.
    RunningRouter running;
    Endpoint client(running.router, "client");
    Endpoint server(running.router, "server");
    ASSERT_TRUE(client.join());
    ASSERT_TRUE(server.join());
    const int kRounds = 500;
    std::atomic<int> rounds{0};
    std::atomic<bool> done{false};
    server.requestHook = [&](MessageItem* request, const char*, const char*) {
        server.pump.post(MessageRef(server.pump.createReplyMessage(request, "ok")));
    };
    // The next request is posted from an application thread, not the worker.
    std::thread driver([&] {
        for (int i = 0; i < kRounds; ++i) {
            const size_t before = client.count();
            client.pump.post(MessageRef(client.pump.createMessage(server.address().c_str(), "go")));
            if (!client.waitForCount(before + 1))
                break;
            ++rounds;
        }
        done = true;
    });
    driver.join();
    EXPECT_EQ(rounds.load(), kRounds);
    running.router.finish();
}
