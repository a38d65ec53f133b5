// The local bus as users run it: a service process hosting the system router
// and application processes talking through it, each a real process built on
// the C interface alone, on a pipe name unique to the test.
#include "support/participant.h"

#include <gtest/gtest.h>

#include <atomic>
#include <list>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>

#ifndef ULMARCOMMS_TESTAPP
#error "the test build defines ULMARCOMMS_TESTAPP"
#endif

using UlmarCommsTest::Participant;
using UlmarCommsTest::uniquePipe;

namespace {

class LocalBus : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_pipe = uniquePipe();
        m_service = std::make_unique<Participant>(m_pipe, true);
        ASSERT_TRUE(m_service->waitFor("started 0"));
        m_service->ask("pump admin", "pump admin");
    }
    std::unique_ptr<Participant> application()
    {
        auto app = std::make_unique<Participant>(m_pipe, false);
        EXPECT_TRUE(app->waitFor("started 0"));
        return app;
    }
    // Waits until the service's table lists (or no longer lists) an address.
    bool tableHas(const std::string& address, bool present)
    {
        for (int attempt = 0; attempt < 200; ++attempt) {
            const std::string table = m_service->query("admin", "ViewSystemRouterRoutingTable");
            if ((table.find(address) != std::string::npos) == present)
                return true;
            usleep(20000);
        }
        return false;
    }

    std::string m_pipe;
    std::unique_ptr<Participant> m_service;
};

TEST_F(LocalBus, RequestsRepliesAndErrorsCrossProcesses)
{
    auto server = application();
    auto client = application();
    server->ask("pump calc", "pump calc");
    server->ask("pump broken", "pump broken");
    server->ask("answer broken error 77", "answer broken");
    client->ask("pump user", "pump user");
    ASSERT_TRUE(tableHas("@calc", true));
    ASSERT_TRUE(tableHas("@broken", true));

    const std::string sent = client->ask("send user calc add seq=5", "sent user ");
    EXPECT_EQ(sent, "sent user 1 0");
    std::string line;
    ASSERT_TRUE(server->waitFor("request calc ", &line));
    EXPECT_NE(line.find(" add 1 seq=5"), std::string::npos) << line;
    ASSERT_TRUE(client->waitFor("response user 1 ", &line));
    EXPECT_EQ(line, "response user 1 add seq=5");

    client->ask("send user broken add", "sent user 2 0");
    ASSERT_TRUE(client->waitFor("error user ", &line));
    EXPECT_EQ(line, "error user 2 77");
}

TEST_F(LocalBus, EventsReachListenersInOtherProcesses)
{
    auto publisher = application();
    auto listener = application();
    publisher->ask("pump clock", "pump clock");
    publisher->ask("event clock tick", "event clock 0");
    listener->ask("pump first", "pump first"); // the first pump is not what listens
    listener->ask("pump ear", "pump ear");
    listener->ask("answer ear silent", "answer ear"); // replies would use sender ids
    ASSERT_TRUE(tableHas("@clock", true));
    ASSERT_TRUE(tableHas("@ear", true));

    listener->ask("register ear clock tick onTick", "sent ear 1 0");
    std::string line;
    ASSERT_TRUE(listener->waitFor("response ear 1 ", &line));
    EXPECT_EQ(line, "response ear 1 y");

    publisher->ask("publish clock tick data=42", "published clock 0");
    ASSERT_TRUE(listener->waitFor("request ear ", &line));
    EXPECT_NE(line.find(" onTick "), std::string::npos) << line;
    EXPECT_NE(line.find("data=42"), std::string::npos) << line;

    listener->ask("unregister ear clock tick onTick", "sent ear 2 0");
    ASSERT_TRUE(listener->waitFor("response ear 2 ", &line));
    EXPECT_EQ(line, "response ear 2 y");
    publisher->ask("publish clock tick data=43", "published clock 0");
    // A request sent after the event proves the event was not delivered.
    publisher->ask("send clock ear ping", "sent clock");
    ASSERT_TRUE(listener->waitFor("request ear ", &line));
    EXPECT_NE(line.find(" ping "), std::string::npos) << line;
}

// Many messages arrive complete and in order. An idle router worker reads
// the link itself, a busy one leaves that to the selector; either way every
// callback runs on the one router worker thread.
TEST_F(LocalBus, ManyMessagesArriveInOrderAndCallbacksRunOnTheRouterWorker)
{
    auto server = application();
    auto client = application();
    server->ask("pump sink", "pump sink");
    server->ask("answer sink silent", "answer sink");
    server->ask("pump echo", "pump echo");
    client->ask("pump asker", "pump asker");
    ASSERT_TRUE(tableHas("@sink", true));
    ASSERT_TRUE(tableHas("@echo", true));

    const int count = 3000;
    client->ask("burst asker sink put " + std::to_string(count), "burst asker 0");
    for (int expected = 0; expected < count; ++expected) {
        std::string line;
        ASSERT_TRUE(server->waitFor("request sink ", &line)) << "message " << expected << " missing";
        ASSERT_NE(line.find(" seq=" + std::to_string(expected)), std::string::npos)
            << "expected seq " << expected << " in " << line;
    }
    const int echoed = 500;
    client->ask("burst asker echo ping " + std::to_string(echoed), "burst asker 0");
    for (int seen = 0; seen < echoed; ++seen)
        ASSERT_TRUE(client->waitFor("response asker ")) << "reply " << seen << " missing";
    for (int round = 0; round < 20; ++round) {
        client->ask("send asker echo ping seq=" + std::to_string(round), "sent asker ");
        ASSERT_TRUE(client->waitFor("response asker ")) << "single reply " << round << " missing";
    }
    EXPECT_EQ(server->ask("threads", "threads "), "threads 1");
    EXPECT_EQ(client->ask("threads", "threads "), "threads 1");
}

// An application that asks for every pump to be re-announced is reachable
// through its only pump after the service restarts; one that does not is
// back with every pump but its first.
TEST_F(LocalBus, ExitingApplicationLeavesTheTableAndOthersReconnectWithAllButTheirFirstPumpUnlessAskedForAll)
{
    auto transient = application();
    transient->ask("pump transient", "pump transient");
    auto app = application();
    app->ask("pump alpha", "pump alpha");
    app->ask("pump beta x,y", "pump beta");
    Participant solo(m_pipe, false, ";ulmar.messagerouter.reannounce.all=1");
    ASSERT_TRUE(solo.waitFor("started 0"));
    solo.ask("pump solo", "pump solo");
    ASSERT_TRUE(tableHas("@transient", true));
    ASSERT_TRUE(tableHas("@alpha", true));
    ASSERT_TRUE(tableHas("@beta", true));
    ASSERT_TRUE(tableHas("@solo", true));
    transient->process().closeInput();
    EXPECT_EQ(transient->process().wait(), 0);
    EXPECT_TRUE(tableHas("@transient", false));

    // The service goes away and a new one takes its place on the same name.
    m_service->process().closeInput();
    ASSERT_EQ(m_service->process().wait(), 0);
    m_service = std::make_unique<Participant>(m_pipe, true);
    ASSERT_TRUE(m_service->waitFor("started 0"));
    m_service->ask("pump admin", "pump admin");

    // Within a few seconds the applications are back: the first with every
    // pump but the first one it added (deliberately not re-announced), the
    // second with its only pump, which answers.
    ASSERT_TRUE(tableHas("@beta,x-y", true));
    EXPECT_TRUE(tableHas("@alpha", false));
    ASSERT_TRUE(tableHas("@solo", true));
    app->ask("send beta solo Ping", "sent beta");
    EXPECT_TRUE(solo.waitFor("request solo "));
    EXPECT_TRUE(app->waitFor("response beta "));
}

} // namespace
