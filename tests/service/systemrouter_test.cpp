// The system router: table, link commands, routing decision, queries.
#include "service/systemrouter.h"

#include "core/core.h"
#include "framing/dataframe.h"
#include "messaging/messagepump.h"
#include "network/networkrouter.h"
#include "support/logcapture.h"
#include "support/networkrouterstub.h"
#include "support/scopedhostname.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

using UlmarComms::Address;
using UlmarComms::CommandMessage;
using UlmarComms::IMessageRouter;
using UlmarComms::ISystemRouter;
using UlmarComms::MessageItem;
using UlmarComms::MessageRef;
using UlmarCommsService::SystemRouter;
using UlmarCommsTest::ScopedHostName;
using UlmarCommsTest::waitUntil;

namespace {

// Stands for a process router: keeps what it is handed (or refuses it).
class RecordingRouter : public IMessageRouter {
public:
    bool setSystemRouter(ISystemRouter*) override { return true; }
    bool post(MessageRef message) override
    {
        if (m_refuse)
            return false;
        std::lock_guard<std::mutex> guard(m_lock);
        m_messages.push_back(std::move(message));
        return true;
    }
    void commandHandler(unsigned char, const char*) override {}

    size_t count()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_messages.size();
    }
    MessageItem* at(size_t i)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_messages.at(i).get();
    }
    std::atomic<bool> m_refuse{false};

private:
    std::mutex m_lock;
    std::vector<MessageRef> m_messages;
};

// A process behind a local link, of the given user.
class LinkRouter : public RecordingRouter {
public:
    explicit LinkRouter(unsigned uid) : m_uid(uid) {}
    bool linkUser(unsigned& uid) const override
    {
        uid = m_uid;
        return true;
    }

private:
    unsigned m_uid;
};

MessageItem* request(const char* to, const char* from, const char* senderId = "7")
{
    MessageItem* message = MessageItem::create();
    message->add(MessageItem::ArgumentKey_To, to);
    if (from != nullptr)
        message->add(MessageItem::ArgumentKey_From, from);
    message->add(MessageItem::ArgumentKey_Method, "doIt");
    if (senderId != nullptr)
        message->add(MessageItem::ArgumentKey_SenderId, senderId);
    return message;
}

// Stands for the network router: keeps what is handed to it per host.
class RecordingNetworkRouter : public UlmarCommsTest::NetworkRouterStub {
public:
    bool post(const std::string& host, MessageRef item) override
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_sent.emplace_back(host, std::move(item));
        return true;
    }
    bool post(const std::string&, unsigned char, const char*) override { return true; }

    size_t count()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_sent.size();
    }
    std::pair<std::string, MessageItem*> at(size_t i)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return {m_sent.at(i).first, m_sent.at(i).second.get()};
    }

private:
    std::mutex m_lock;
    std::vector<std::pair<std::string, MessageRef>> m_sent;
};

class SystemRouterTest : public ::testing::Test {
protected:
    SystemRouterTest() : m_host("alpha") {}
    ~SystemRouterTest() override
    {
        m_router.finish();
        m_router.setNetworkRouter(nullptr);
    }
    std::string dump()
    {
        std::ostringstream out;
        m_router.dumpSystemRouterTable(out);
        return out.str();
    }

    // Starts the router with the recording network router attached.
    void startWithNetwork()
    {
        m_router.setNetworkRouter(&m_network);
        ASSERT_TRUE(m_router.start());
    }

    ScopedHostName m_host;
    RecordingNetworkRouter m_network; // outlives the router, which finishes first
    SystemRouter m_router;
    RecordingRouter m_appA;
    RecordingRouter m_appB;
};

TEST_F(SystemRouterTest, LinkCommandsBuildTheTable)
{
    m_router.handleCommand(&m_appA, CommandMessage::AddMessagePump, "alpha@echo");
    m_router.handleCommand(&m_appB, CommandMessage::AddMessagePump, "alpha@clock/tick");
    m_router.handleCommand(&m_appB, CommandMessage::AddInterfaceNamesToMessagePump, "alpha@clock/tick:time,alarm");
    m_router.handleCommand(&m_appA, CommandMessage::AddInterfaceNamesToMessagePump, "alpha@echo"); // no ':'
    m_router.handleCommand(&m_appA, CommandMessage::AddInterfaceNamesToMessagePump, "alpha@echo:"); // no names
    m_router.handleCommand(&m_appA, CommandMessage::AddInterfaceNamesToMessagePump, "alpha@nobody:x");
    m_router.handleCommand(&m_appA, 9, "alpha@ignored");
    m_router.handleCommand(&m_appA, CommandMessage::AddMessagePump, nullptr);
    EXPECT_EQ(dump(), "# System Routing Table \nAddress,Interfaces\nalpha@echo,\nalpha@clock/tick,time-alarm\n");

    // Removal by name ignores hosts and the router that asks.
    m_router.handleCommand(&m_appB, CommandMessage::RemoveMessagePump, "beta@echo");
    EXPECT_EQ(dump(), "# System Routing Table \nAddress,Interfaces\nalpha@clock/tick,time-alarm\n");
    EXPECT_FALSE(m_router.remove(&m_appA, "alpha@echo"));
}

TEST_F(SystemRouterTest, PrefixRegistrationUpdatesTheExistingEntry)
{
    m_router.add(&m_appA, "alpha@a/b");
    m_router.add(&m_appB, "alpha@a");
    EXPECT_EQ(dump(), "# System Routing Table \nAddress,Interfaces\nalpha@a/b,\n");
    m_router.post(MessageRef(request("alpha@a/b", "alpha@x")));
    EXPECT_EQ(m_appB.count(), 1u);
    EXPECT_EQ(m_appA.count(), 0u);
}

TEST_F(SystemRouterTest, RemovingARouterDropsAllItsEntries)
{
    m_router.add(&m_appA);
    m_router.add(&m_appA, "alpha@one");
    m_router.add(&m_appB, "alpha@two");
    m_router.add(&m_appA, "alpha@three");
    EXPECT_TRUE(m_router.remove(&m_appA));
    EXPECT_EQ(dump(), "# System Routing Table \nAddress,Interfaces\nalpha@two,\n");
}

TEST_F(SystemRouterTest, BestScoreWinsAndTiesGoToTheEarlierEntry)
{
    m_router.add(&m_appA, "alpha@x");
    m_router.add(&m_appB, "alpha@y");
    // "x/deep/er" matches entry "x" as a prefix, so it only changes its router.
    m_router.add(&m_appB, "alpha@x/deep/er");
    EXPECT_EQ(dump(), "# System Routing Table \nAddress,Interfaces\nalpha@x,\nalpha@y,\n");
    m_router.post(MessageRef(request("alpha@Y/z", "alpha@s")));
    EXPECT_EQ(m_appB.count(), 1u);
    // An address without names matches every entry with score 0: the first.
    m_router.post(MessageRef(request("alpha@", "alpha@s")));
    EXPECT_EQ(m_appB.count(), 2u); // entry x now belongs to B
}

TEST_F(SystemRouterTest, LocalhostIsNotThisHostWhenFinding)
{
    m_router.add(&m_appA, "alpha@echo");
    ASSERT_TRUE(m_router.find(Address("alpha@echo")) != nullptr);
    EXPECT_EQ(m_router.find(Address("localhost@echo")), nullptr);
    EXPECT_EQ(m_router.find(Address("beta@echo")), nullptr);
}

TEST_F(SystemRouterTest, MessagesForOtherHostsGoToTheNetworkRouter)
{
    startWithNetwork();
    m_router.add(&m_appA, "alpha@far"); // a local pump of the same name is never used
    m_router.post(MessageRef(request("beta@far", "alpha@asker")));
    ASSERT_TRUE(waitUntil([&] { return m_network.count() == 1; }));
    EXPECT_EQ(m_network.at(0).first, "beta");
    EXPECT_STREQ(m_network.at(0).second->value("_t"), "beta@far");
    EXPECT_EQ(m_appA.count(), 0u);
}

TEST_F(SystemRouterTest, NoPathAnswersARemoteSenderWithError400)
{
    startWithNetwork();
    // The sender has no entry here (it is on beta), so it is told.
    m_router.post(MessageRef(request("alpha@missing", "beta@asker", "12")));
    ASSERT_TRUE(waitUntil([&] { return m_network.count() == 1; }));
    MessageItem* reply = m_network.at(0).second;
    EXPECT_EQ(m_network.at(0).first, "beta");
    EXPECT_STREQ(reply->value("_t"), "beta@asker");
    EXPECT_STREQ(reply->value("_R"), "12");
    EXPECT_STREQ(reply->value("_f"), "alpha@missing");
    EXPECT_STREQ(reply->value("_M"), "E");
    EXPECT_STREQ(reply->value("_s"), "0");
    EXPECT_STREQ(reply->value("_h"), "alpha");
    EXPECT_STREQ(reply->value("_m"), "400");
}

TEST_F(SystemRouterTest, NoPathStaysSilentForKnownSendersErrorsAndSenderless)
{
    startWithNetwork();
    m_router.add(&m_appA, "alpha@asker");
    // The sender has an entry: no reply (the inverted test is kept).
    m_router.post(MessageRef(request("alpha@missing", "alpha@asker")));
    // An error that cannot be delivered is dropped, never bounced.
    MessageItem* error = request("alpha@missing", "beta@asker");
    error->add("_M", "E");
    m_router.post(MessageRef(error));
    // Without a sender id no reply can be built (and nothing is freed twice).
    m_router.post(MessageRef(request("alpha@missing", "beta@asker", nullptr)));
    // A probe that is answered proves the three before it were processed.
    m_router.post(MessageRef(request("alpha@missing", "beta@probe")));
    ASSERT_TRUE(waitUntil([&] { return m_network.count() == 1; }));
    EXPECT_STREQ(m_network.at(0).second->value("_t"), "beta@probe");
    EXPECT_EQ(m_appA.count(), 0u);
}

// Messages queued while their target had no entry are routed by the table
// as it stands when the worker takes them: delivered, or released when the
// router refuses (the sender is local, so no error reply is built).
TEST_F(SystemRouterTest, QueuedMessagesAreRoutedByTheTableAtTheirTurn)
{
    m_router.post(MessageRef(request("alpha@late", "alpha@asker", "1")));
    m_router.post(MessageRef(request("alpha@refuser", "alpha@asker", "2")));
    m_router.post(MessageRef(request("alpha@late", "alpha@asker", "3")));
    m_router.add(&m_appA, "alpha@late");
    m_router.add(&m_appA, "alpha@asker");
    m_appB.m_refuse = true;
    m_router.add(&m_appB, "alpha@refuser");
    ASSERT_TRUE(m_router.start());
    ASSERT_TRUE(waitUntil([&] { return m_appA.count() == 2; }));
    EXPECT_STREQ(m_appA.at(0)->value("_s"), "1");
    EXPECT_STREQ(m_appA.at(1)->value("_s"), "3");
    EXPECT_EQ(m_appB.count(), 0u);
}

TEST_F(SystemRouterTest, RefusingRouterDoesNotLeakTheMessage)
{
    m_appA.m_refuse = true;
    m_router.add(&m_appA, "alpha@refuser");
    EXPECT_TRUE(m_router.post(MessageRef(request("alpha@refuser", "alpha@x"))));
    EXPECT_EQ(m_appA.count(), 0u); // released by the system router (ASan checks)
}

TEST_F(SystemRouterTest, InterfaceQueries)
{
    m_router.add(&m_appA, "alpha@one");
    m_router.add(&m_appA, "alpha@two");
    m_router.add(&m_appA, "alpha@three");
    m_router.handleCommand(&m_appA, CommandMessage::AddInterfaceNamesToMessagePump, "alpha@one:a,b");
    m_router.handleCommand(&m_appA, CommandMessage::AddInterfaceNamesToMessagePump, "alpha@two:b,b");
    m_router.handleCommand(&m_appA, CommandMessage::AddInterfaceNamesToMessagePump, "alpha@three:c");

    EXPECT_TRUE(m_router.interfaceDoesAddressSupport(Address("alpha@one"), "a"));
    EXPECT_FALSE(m_router.interfaceDoesAddressSupport(Address("alpha@one"), "a,b"));
    EXPECT_FALSE(m_router.interfaceDoesAddressSupport(Address("alpha@nobody"), "a"));

    std::vector<Address> supporting{Address("alpha@kept")};
    m_router.interfaceGetAddressSupporting("b", supporting);
    ASSERT_EQ(supporting.size(), 3u); // appended, not cleared
    EXPECT_EQ(supporting[1].toString(), "alpha@one");
    EXPECT_EQ(supporting[2].toString(), "alpha@two");

    std::vector<std::string> wanted{"b"};
    EXPECT_EQ(m_router.getAddressesSupportingInterfaces(wanted, false), "alpha@one,alpha@two");
    // all: equal pairs are counted, so a name listed twice counts twice.
    EXPECT_EQ(m_router.getAddressesSupportingInterfaces(wanted, true), "alpha@one");
    // "b,b" asked of [a,b] gives two equal pairs; of [b,b], four.
    wanted = {"b", "b"};
    EXPECT_EQ(m_router.getAddressesSupportingInterfaces(wanted, true), "alpha@one");
    // [b,b] asked for "a,b" also counts two pairs and is selected.
    wanted = {"a", "b"};
    EXPECT_EQ(m_router.getAddressesSupportingInterfaces(wanted, true), "alpha@one,alpha@two");
    wanted.clear();
    EXPECT_EQ(m_router.getAddressesSupportingInterfaces(wanted, true), "alpha@one,alpha@two,alpha@three");
    EXPECT_EQ(m_router.getAddressesSupportingInterfaces(wanted, false), "");
}

TEST_F(SystemRouterTest, RouterThatPassesAMessageBackEndsItInsteadOfLooping)
{
    // A process router whose pump matches an entry only as a longer prefix:
    // the entry "a" is updated to point at it by "a/y", yet it cannot deliver
    // "a/z" and hands it straight back.
    UlmarComms::MessageRouter process;
    ASSERT_TRUE(process.setSystemRouter(&m_router));
    ASSERT_TRUE(process.start());
    m_router.add(&m_appA, "alpha@a");
    UlmarComms::MessagePump pump("a/y", &process);
    ASSERT_TRUE(pump.setCallbacks(nullptr, nullptr, nullptr, nullptr));
    EXPECT_TRUE(m_router.post(MessageRef(request("alpha@a/z", "alpha@s"))));
    EXPECT_EQ(m_appA.count(), 0u);
    process.remove(&pump);
    process.finish();
    m_router.remove(&process);
}

// A link at its bound of pumps gets the next one refused, logged, with the
// table as it was; names it holds already still update, a removal frees a
// place, and another link of the same user is not held back.
TEST_F(SystemRouterTest, ALinkHoldsAtMostItsBoundOfPumps)
{
    LinkRouter first(1000);
    LinkRouter second(1000);
    m_router.setPumpsPerLink(3);
    for (const char* name : {"alpha@p1", "alpha@p2", "alpha@p3/x"})
        EXPECT_TRUE(m_router.add(&first, name));
    const std::string full = dump();
    {
        UlmarCommsTest::LogCapture log(UlmarComms::Core::LogWarning);
        EXPECT_FALSE(m_router.add(&first, "alpha@p4"));
        EXPECT_TRUE(log.contains("refused the registration of 'alpha@p4' by a link of uid 1000: the link holds 3 "
                                 "pumps, its limit."));
    }
    EXPECT_EQ(dump(), full);
    EXPECT_EQ(m_router.entryCount(), 3u);
    // Its own entry (by prefix) is only updated, so it still fits.
    EXPECT_TRUE(m_router.add(&first, "alpha@p3"));
    // Taking over another link's entry counts as one more.
    EXPECT_TRUE(m_router.add(&second, "alpha@q"));
    EXPECT_FALSE(m_router.add(&first, "alpha@q/sub"));
    m_router.post(MessageRef(request("alpha@q", "alpha@s")));
    EXPECT_EQ(second.count(), 1u);
    EXPECT_EQ(first.count(), 0u);
    // The other link registers freely; a removal makes room for the first.
    for (const char* name : {"alpha@q2", "alpha@q3"})
        EXPECT_TRUE(m_router.add(&second, name));
    EXPECT_TRUE(m_router.remove(&first, "alpha@p1"));
    EXPECT_TRUE(m_router.add(&first, "alpha@p4"));
    // The service's own routers are not links and have no bound.
    for (const char* name : {"alpha@s1", "alpha@s2", "alpha@s3", "alpha@s4"})
        EXPECT_TRUE(m_router.add(&m_appA, name));
    EXPECT_EQ(m_router.entryCount(), 10u);
    m_router.remove(&first);
    m_router.remove(&second);
    EXPECT_EQ(m_router.entryCount(), 4u);
}

} // namespace

// A link's messages that wait in the queue are charged to the account it
// names while they wait; one that would pass its bound is dropped and said.
TEST_F(SystemRouterTest, MessagesQueuedFromALinkAreChargedToItsUserUntilRouted)
{
    class ChargedLink : public LinkRouter {
    public:
        ChargedLink(std::shared_ptr<UlmarComms::ByteAccount> account) : LinkRouter(1000), m_account(account) {}
        std::shared_ptr<UlmarComms::ByteAccount> heldMessagesAccount() const override { return m_account; }

    private:
        std::shared_ptr<UlmarComms::ByteAccount> m_account;
    };
    const uint64_t one = MessageRef(request("alpha@late", "alpha@sender"))->heldBytes();
    auto account = std::make_shared<UlmarComms::ByteAccount>(2 * one + one / 2, nullptr, "user");
    ChargedLink link(account);
    UlmarCommsTest::LogCapture log;
    for (const char* id : {"1", "2", "3"})
        m_router.postFromLink(&link, MessageRef(request("alpha@late", "alpha@sender", id)));
    EXPECT_EQ(account->used(), 2 * one);
    EXPECT_TRUE(log.contains("SystemRouter: dropped a message for 'alpha@late' from a link of uid 1000: the user "
                             "memory bound of " +
                             std::to_string(2 * one + one / 2) + " bytes is reached."));

    m_router.add(&m_appA, "alpha@late");
    ASSERT_TRUE(m_router.start());
    ASSERT_TRUE(waitUntil([&] { return m_appA.count() == 2; }));
    EXPECT_STREQ(m_appA.at(0)->value("_s"), "1");
    EXPECT_STREQ(m_appA.at(1)->value("_s"), "2");
    EXPECT_TRUE(waitUntil([&] { return account->used() == 0; }));
}
