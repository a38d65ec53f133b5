// The local bus as users run it: a service process hosting the system router
// and application processes talking through it, each a real process built on
// the C interface alone, on a pipe name unique to the test. Plain requests,
// replies, errors and events across processes are covered by the tools'
// process tests (tests/tools); these keep what only a flood or a restart of
// the service with several applications shows.
#include "support/participant.h"

#include <gtest/gtest.h>

#include <memory>
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
    bool tableHas(const std::string& address, bool present = true)
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
    ASSERT_TRUE(tableHas("@sink"));
    ASSERT_TRUE(tableHas("@echo"));

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
