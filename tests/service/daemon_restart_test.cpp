// The daemon stopped with applications connected: it exits cleanly, and the
// applications find a new daemon on the same local link by themselves.
#include "support/childprocess.h"
#include "support/participant.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>

#ifdef ULMARCOMMS_TOOLS_DIR

using UlmarCommsTest::ChildProcess;
using UlmarCommsTest::Participant;
using UlmarCommsTest::uniquePipe;

namespace {

std::unique_ptr<ChildProcess> startDaemon(const std::string& pipe)
{
    auto daemon = std::make_unique<ChildProcess>(std::string(ULMARCOMMS_TOOLS_DIR) + "/ulmarcommsd",
                                                 std::vector<std::string>{"--set", "ulmar.systemrouter.pipe.name=" + pipe});
    EXPECT_TRUE(daemon->waitForPrefix("ulmarcommsd: service running on")) << "daemon did not start";
    return daemon;
}

// Sends requests until one is answered (the link may still be coming back).
bool callUntilAnswered(Participant& client, const std::string& target)
{
    for (int attempt = 0; attempt < 60; ++attempt) {
        const std::string sent = client.ask("send client " + target + " ping", "sent client ");
        const std::string id = sent.substr(12, sent.find(' ', 12) - 12);
        if (client.waitFor("response client " + id + " ", nullptr, std::chrono::milliseconds(250)))
            return true;
    }
    return false;
}

TEST(DaemonRestart, ApplicationsOutliveTheDaemonAndReturnToTheNextOne)
{
    const std::string pipe = uniquePipe();
    auto daemon = startDaemon(pipe);
    Participant server(pipe, false);
    Participant client(pipe, false);
    ASSERT_TRUE(server.waitFor("started 0"));
    ASSERT_TRUE(client.waitFor("started 0"));
    // Each application's first pump is deliberately not announced again
    // after a reconnection, so the pumps that matter come second.
    server.ask("pump spare1", "pump spare1");
    server.ask("pump echo", "pump echo");
    client.ask("pump spare2", "pump spare2");
    client.ask("pump client", "pump client");
    ASSERT_TRUE(callUntilAnswered(client, "echo"));

    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), 0) << "the daemon must shut down cleanly with applications connected";

    daemon = startDaemon(pipe);
    EXPECT_TRUE(callUntilAnswered(client, "echo")) << "the applications did not come back to the new daemon";
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), 0);
}

} // namespace

#endif
