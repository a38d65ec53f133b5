// The client end to end against a real daemon on a private pipe name:
// every command in text and JSON, the exit statuses, time-outs, the "no
// service" report, clean exits on Ctrl-C, and what the long-running commands
// do when the daemon restarts under them.
#include "tools/bus.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sstream>

using namespace UlmarCommsToolsTest;

namespace {

bool contains(const std::string& text, const std::string& needle)
{
    return text.find(needle) != std::string::npos;
}

TEST(UlmarcommsWithoutService, ReportsNoServiceWithThePipeName)
{
    const std::string pipe = uniquePipeName();
    RunResult text = client(pipe, {"info"});
    EXPECT_EQ(text.status, 3) << text.transcript();
    EXPECT_TRUE(contains(text.err, "no service reachable on pipe name '" + pipe + "'")) << text.err;
    EXPECT_EQ(text.out, "");

    RunResult json = client(pipe, {"--json", "call", "x", "M"});
    EXPECT_EQ(json.status, 3) << json.transcript();
    EXPECT_TRUE(contains(json.out, "\"status\":\"no-service\"")) << json.out;
    EXPECT_TRUE(contains(json.out, "\"pipeName\":\"" + pipe + "\"")) << json.out;
}

TEST(UlmarcommsWithoutService, RefusedStartsAndUsageErrors)
{
    struct Case {
        std::vector<std::string> args;
        int status;
        std::vector<std::string> reasons; // on stderr
    };
    const std::vector<Case> cases = {
        {{"--set", "ulmar.systemrouter.pipe=0", "table"}, 3, {"no local link"}},
        {{"--set", "ulmar.systemrouter.pipe=yes", "table"}, 2, {}},
        {{"frobnicate"}, 2, {"unknown command 'frobnicate'"}},
        {{}, 2, {}},
    };
    for (const Case& item : cases) {
        std::vector<std::string> argv = {toolPath("ulmarcomms")};
        argv.insert(argv.end(), item.args.begin(), item.args.end());
        RunResult refused = runTool(argv);
        EXPECT_EQ(refused.status, item.status) << refused.transcript();
        for (const std::string& reason : item.reasons)
            EXPECT_TRUE(contains(refused.err, reason)) << refused.err;
    }
}

TEST(UlmarcommsWithoutService, HelpAndVersion)
{
    // Every command's help text is checked on the parser; here the program prints it.
    RunResult help = runTool({toolPath("ulmarcomms"), "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(contains(help.out, "Exit status"));
    RunResult commandHelp = runTool({toolPath("ulmarcomms"), "has", "--help"});
    EXPECT_EQ(commandHelp.status, 0);
    EXPECT_TRUE(contains(commandHelp.out, "] has")) << commandHelp.out;
    RunResult version = runTool({toolPath("ulmarcomms"), "--version"});
    EXPECT_EQ(version.out, "ulmarcomms " ULMARCOMMS_TOOLS_VERSION "\n");
}

class Ulmarcomms : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_daemon = std::make_unique<Daemon>(uniquePipeName());
        ASSERT_TRUE(m_daemon->waitReady()) << m_daemon->process().transcript();
    }

    const std::string& pipe() const { return m_daemon->pipeName(); }
    RunResult run(const std::vector<std::string>& args) { return client(pipe(), args); }

    // Starts a long-running client command and waits for its ready line.
    std::unique_ptr<ChildProcess> start(const std::vector<std::string>& args, const std::string& readyText)
    {
        auto child = std::make_unique<ChildProcess>(clientArgs(pipe(), args));
        EXPECT_TRUE(child->waitForOut(readyText)) << child->transcript();
        return child;
    }

    std::string address(const std::string& name) const { return hostName() + "@" + name; }

    std::unique_ptr<Daemon> m_daemon;
};

TEST_F(Ulmarcomms, InfoInTextAndJson)
{
    RunResult text = run({"info"});
    ASSERT_EQ(text.status, 0) << text.transcript();
    EXPECT_TRUE(contains(text.out, "name=" + hostName() + "\nos=linux\n")) << text.out;

    RunResult json = run({"info", "--json"});
    ASSERT_EQ(json.status, 0) << json.transcript();
    EXPECT_TRUE(
        contains(json.out, "{\"command\":\"info\",\"to\":\"/system\",\"method\":\"SystemInfo\",\"status\":\"reply\""))
        << json.out;
    EXPECT_TRUE(contains(json.out, "\"info\":{\"name\":\"" + hostName() + "\",\"os\":\"linux\"")) << json.out;
    EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), 1) << "one object per line";

    RunResult byHost = run({"info", "--host", hostName()});
    EXPECT_EQ(byHost.status, 0) << byHost.transcript();
    EXPECT_EQ(byHost.out, text.out);
}

TEST_F(Ulmarcomms, SettingsShowTheDaemonsOverride)
{
    RunResult text = run({"settings"});
    ASSERT_EQ(text.status, 0) << text.transcript();
    EXPECT_TRUE(contains(text.out, "string,ulmar.systemrouter.pipe.name," + pipe() + "\n")) << text.out;
    EXPECT_TRUE(contains(text.out, "# numbers\n"));
    EXPECT_TRUE(contains(text.out, "number,ulmar.systemrouter.pipe,1\n"));

    RunResult json = run({"--json", "settings"});
    ASSERT_EQ(json.status, 0) << json.transcript();
    EXPECT_TRUE(contains(json.out, "\"ulmar.systemrouter.pipe.name\":\"" + pipe() + "\"")) << json.out;
    EXPECT_TRUE(contains(json.out, "\"ulmar.networkrouter.discovery.timeout\":5000")) << json.out;
}

// Two listeners, one with interfaces and one without, as the table, the
// interface queries and "has" see them.
TEST_F(Ulmarcomms, QueriesAboutListeners)
{
    auto listener = start({"listen", "ifpump", "--interfaces", "i.one,i.two"}, "listening on");
    auto bare = start({"listen", "bare"}, "listening on");
    RunResult text = run({"table"});
    ASSERT_EQ(text.status, 0) << text.transcript();
    EXPECT_TRUE(contains(text.out, "# System Routing Table \nAddress,Interfaces\n")) << text.out;
    EXPECT_TRUE(contains(text.out, address("system") + ",quendrelis.ulmar.comms.system\n")) << text.out;
    EXPECT_TRUE(contains(text.out, address("ifpump") + ",i.one-i.two\n")) << text.out;
    RunResult table = run({"table", "--json"});
    ASSERT_EQ(table.status, 0) << table.transcript();
    EXPECT_TRUE(contains(table.out, "{\"address\":\"" + address("ifpump") + "\",\"interfaces\":[\"i.one\",\"i.two\"]}"))
        << table.out;

    RunResult any = run({"who-supports", "i.one,i.three"});
    ASSERT_EQ(any.status, 0) << any.transcript();
    EXPECT_EQ(any.out, address("ifpump") + "\n");
    RunResult all = run({"who-supports", "i.one,i.three", "--all"});
    ASSERT_EQ(all.status, 0) << all.transcript();
    EXPECT_EQ(all.out, "");
    RunResult both = run({"--json", "who-supports", "i.two,i.one", "--all"});
    ASSERT_EQ(both.status, 0) << both.transcript();
    EXPECT_TRUE(contains(both.out, "\"addresses\":[\"" + address("ifpump") + "\"]")) << both.out;

    RunResult list = run({"interfaces", "ifpump"});
    ASSERT_EQ(list.status, 0) << list.transcript();
    EXPECT_EQ(list.out, "i.one\ni.two\n");
    RunResult json = run({"interfaces", address("ifpump"), "--json"});
    ASSERT_EQ(json.status, 0) << json.transcript();
    EXPECT_TRUE(contains(json.out, "\"interfaces\":[\"i.one\",\"i.two\"]")) << json.out;
    RunResult empty = run({"interfaces", "bare"});
    ASSERT_EQ(empty.status, 0) << empty.transcript();
    EXPECT_EQ(empty.out, "") << "a pump without interfaces answers #IsList without a list";

    RunResult yes = run({"has", "ifpump", "i.two"});
    ASSERT_EQ(yes.status, 0) << yes.transcript();
    EXPECT_EQ(yes.out, "true\n");
    RunResult no = run({"--json", "has", "ifpump", "i.three"});
    ASSERT_EQ(no.status, 0) << no.transcript();
    EXPECT_TRUE(contains(no.out, "\"response\":\"false\",\"supported\":false")) << no.out;
    // A pump without interfaces never answers "has": the wait ends clearly.
    RunResult silent = run({"--timeout", "300", "has", "bare", "x"});
    EXPECT_EQ(silent.status, 3) << silent.transcript();
    EXPECT_TRUE(contains(silent.err, "no reply from 'bare' to #IsHas within 300 ms")) << silent.err;
    EXPECT_TRUE(contains(silent.err, "never answers")) << silent.err;
    RunResult timeout = run({"--timeout", "300", "--json", "has", "bare", "x"});
    EXPECT_EQ(timeout.status, 3);
    EXPECT_TRUE(contains(timeout.out, "\"status\":\"timeout\",\"timeoutMs\":300")) << timeout.out;
}

TEST_F(Ulmarcomms, NetworkQueries)
{
    RunResult hosts = run({"hosts"});
    ASSERT_EQ(hosts.status, 0) << hosts.transcript();
    EXPECT_TRUE(contains(hosts.out, hostName() + "\n")) << hosts.out;
    RunResult active = run({"hosts", "--active", "--json"});
    ASSERT_EQ(active.status, 0) << active.transcript();
    EXPECT_TRUE(contains(active.out, "\"hosts\":[\"" + hostName() + "\"]")) << active.out;

    RunResult info = run({"host-info", "elsewhere"});
    ASSERT_EQ(info.status, 0) << info.transcript();
    EXPECT_EQ(info.out, "host:elsewhere\n");

    RunResult table = run({"net-table", "--json"});
    ASSERT_EQ(table.status, 0) << table.transcript();
    EXPECT_TRUE(contains(table.out, "\"method\":\"NetworkRoutingTable\",\"status\":\"reply\"")) << table.out;
}

TEST_F(Ulmarcomms, CallAListenerThatReplies)
{
    auto listener = start({"listen", "echoer", "--reply", "pong", "--key", "a", "--count", "2"}, "listening on");
    RunResult text = run({"call", "echoer", "Ping", "a=1", "b=2", "--key", "a", "--key", "b"});
    ASSERT_EQ(text.status, 0) << text.transcript();
    EXPECT_EQ(text.out, "pong\na=1\n") << "the listener copies back only the key it shows";

    RunResult json = run({"--json", "call", address("echoer"), "Second", "a=x y"});
    ASSERT_EQ(json.status, 0) << json.transcript() << listener->transcript() << m_daemon->process().transcript();
    EXPECT_TRUE(contains(json.out, "\"status\":\"reply\",\"from\":\"" + address("echoer") + "\",\"response\":\"pong\""))
        << json.out;

    // --count 2: the listener leaves by itself after the second request.
    EXPECT_EQ(listener->waitExit(), 0) << listener->transcript();
    EXPECT_TRUE(contains(listener->out(), "request Ping from " + hostName() + "@ulmarcomms.cli.")) << listener->out();
    EXPECT_TRUE(contains(listener->out(), " a=1 | replied: pong\n")) << listener->out();
    EXPECT_TRUE(contains(listener->out(), "request Second from ")) << listener->out();
    EXPECT_TRUE(contains(listener->out(), " a=x y | replied: pong\n")) << listener->out();
}

TEST_F(Ulmarcomms, ListenEchoInJsonAndCtrlC)
{
    auto listener = start({"--json", "listen", "jsonecho", "--echo"}, "\"status\":\"listening\"");
    RunResult reply = run({"call", "jsonecho", "Hello"});
    ASSERT_EQ(reply.status, 0) << reply.transcript();
    EXPECT_EQ(reply.out, "Hello\n");
    ASSERT_TRUE(listener->waitForOut("\"method\":\"Hello\"")) << listener->transcript();
    EXPECT_TRUE(contains(listener->out(), "\"reply\":{\"response\":\"Hello\",\"result\":0}")) << listener->out();

    listener->signal(SIGINT);
    EXPECT_EQ(listener->waitExit(), 0) << listener->transcript();

    // Once it has gone, its address no longer answers.
    RunResult gone = run({"--timeout", "300", "call", "jsonecho", "Hello"});
    EXPECT_NE(gone.status, 0) << gone.transcript();
}

TEST_F(Ulmarcomms, ErrorRepliesExitOne)
{
    RunResult text = run({"call", "/system", "NoSuchQuery"});
    EXPECT_EQ(text.status, 1) << text.transcript();
    EXPECT_EQ(text.out, "error 1002: unknown query, or a required key is missing\n");

    RunResult missing = run({"--json", "call", "/system", "#AdsSupIs"});
    EXPECT_EQ(missing.status, 1) << missing.transcript();
    EXPECT_TRUE(contains(missing.out, "\"status\":\"error\",\"code\":1002")) << missing.out;
}

TEST_F(Ulmarcomms, PublishAndSubscribe)
{
    auto publisher = start({"publish", "ticker", "tick", "k=v", "n=1", "--every", "50"}, "publishing tick on");
    RunResult events = run({"events", "ticker"});
    ASSERT_EQ(events.status, 0) << events.transcript();
    EXPECT_EQ(events.out, "tick\n");

    RunResult subscribed = run({"subscribe", "ticker", "tick", "--count", "2", "--key", "k", "--key", "absent"});
    ASSERT_EQ(subscribed.status, 0) << subscribed.transcript() << publisher->transcript();
    const std::string event = "event tick from " + address("ticker") + " k=v\n";
    EXPECT_TRUE(contains(subscribed.out,
                         "subscribed to tick at ticker\n" + event + event + "unsubscribed from tick at ticker\n"))
        << subscribed.out;

    RunResult json = run({"--json", "subscribe", "ticker", "tick", "--count", "1", "--key", "n"});
    ASSERT_EQ(json.status, 0) << json.transcript();
    EXPECT_TRUE(contains(json.out, "\"status\":\"subscribed\"")) << json.out;
    EXPECT_TRUE(contains(json.out,
                         "\"status\":\"event\",\"event\":\"tick\",\"from\":\"" + address("ticker") +
                             "\",\"pairs\":{\"n\":\"1\"}"))
        << json.out;
    EXPECT_TRUE(
        contains(json.out, "\"status\":\"unsubscribed\",\"to\":\"ticker\",\"event\":\"tick\",\"confirmed\":true"))
        << json.out;

    publisher->signal(SIGINT);
    EXPECT_EQ(publisher->waitExit(), 0) << publisher->transcript();
    EXPECT_TRUE(contains(publisher->out(), "published tick #1\n")) << publisher->out();
}

TEST_F(Ulmarcomms, SubscribeLeavesCleanlyOnCtrlCAndUnknownEventsAreRefused)
{
    auto publisher = start({"publish", "slow", "beat", "--every", "60000"}, "published beat #1");
    RunResult refused = run({"subscribe", "slow", "unknown"});
    EXPECT_EQ(refused.status, 1) << refused.transcript();
    EXPECT_TRUE(contains(refused.err, "refused the registration for unknown")) << refused.err;

    auto subscriber = start({"subscribe", "slow", "beat"}, "subscribed to beat at slow");
    subscriber->signal(SIGINT);
    EXPECT_EQ(subscriber->waitExit(), 0) << subscriber->transcript();
    EXPECT_TRUE(contains(subscriber->out(), "unsubscribed from beat at slow\n")) << subscriber->out();

    RunResult count = run({"--json", "publish", "counted", "once", "--count", "1"});
    ASSERT_EQ(count.status, 0) << count.transcript();
    EXPECT_TRUE(contains(count.out, "\"status\":\"published\",\"event\":\"once\",\"sequence\":1,\"result\":0"))
        << count.out;
}

size_t occurrences(const std::string& text, const std::string& needle)
{
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size()))
        ++count;
    return count;
}

bool waitForErr(ChildProcess& child, const std::string& needle)
{
    return child.waitFor([&] { return contains(child.err(), needle); }, std::chrono::seconds(30));
}

// The publisher's JSON lines from its first "link lost" to the first "link
// restored" after it hold no "published" line, the sequence numbers count
// only the others, and the closing summary agrees.
void expectPublishedOnlyWhileLinked(const std::string& out)
{
    std::istringstream lines(out);
    std::string line;
    bool linked = true;
    long sequence = 0;
    bool summary = false;
    while (std::getline(lines, line)) {
        if (contains(line, "\"status\":\"link lost\""))
            linked = false;
        else if (contains(line, "\"status\":\"link restored\""))
            linked = true;
        else if (contains(line, "\"status\":\"published\"")) {
            EXPECT_TRUE(linked) << "published without a link: " << line;
            ++sequence;
            EXPECT_TRUE(contains(line, "\"sequence\":" + std::to_string(sequence) + ",")) << line;
        } else if (contains(line, "\"status\":\"done\"")) {
            summary = true;
            EXPECT_TRUE(contains(line, "\"published\":" + std::to_string(sequence) + ",")) << line;
            EXPECT_FALSE(contains(line, "\"withoutLink\":0}")) << "ticks went on while the link was down: " << line;
        }
    }
    EXPECT_TRUE(summary) << out;
    EXPECT_GT(sequence, 0) << out;
}

// Across a restart of the daemon the long-running commands say when their
// link drops and returns; the listener is reachable again with its
// interfaces; the subscriber registers again with a publisher that was
// itself restarted (and so forgot it); the publisher counts only what it
// emitted while linked.
TEST(UlmarcommsRestart, LongRunningCommandsFollowTheLinkAcrossADaemonRestart)
{
    const std::string pipe = uniquePipeName();
    auto first = std::make_unique<Daemon>(pipe);
    ASSERT_TRUE(first->waitReady()) << first->process().transcript();
    ChildProcess listener(clientArgs(pipe, {"listen", "survivor", "--interfaces", "r.one", "--reply", "here"}));
    ASSERT_TRUE(listener.waitForOut("listening on")) << listener.transcript();
    ChildProcess counter(clientArgs(pipe, {"--json", "publish", "counter", "beat", "--every", "100"}));
    ASSERT_TRUE(counter.waitForOut("\"sequence\":2,")) << counter.transcript();
    auto ticker = std::make_unique<ChildProcess>(clientArgs(pipe, {"publish", "ticker", "tick", "--every", "100"}));
    ASSERT_TRUE(ticker->waitForOut("publishing tick on")) << ticker->transcript();
    ChildProcess subscriber(clientArgs(pipe, {"subscribe", "ticker", "tick"}));
    ASSERT_TRUE(subscriber.waitForOut("event tick from")) << subscriber.transcript();
    ASSERT_EQ(client(pipe, {"call", "survivor", "Before"}).status, 0);

    // The ticker goes with the daemon, killed, so its registrations are lost.
    ticker->signal(SIGKILL);
    ticker->waitExit();
    ticker.reset();
    first->process().signal(SIGTERM);
    ASSERT_EQ(first->process().waitExit(), 0) << first->process().transcript();
    first.reset();
    EXPECT_TRUE(waitForErr(listener, "ulmarcomms: link lost\n")) << listener.transcript();
    EXPECT_TRUE(counter.waitForOut("{\"command\":\"publish\",\"status\":\"link lost\"}\n")) << counter.transcript();
    EXPECT_TRUE(waitForErr(counter, "ulmarcomms: link lost\n")) << counter.transcript();
    ASSERT_TRUE(waitForErr(subscriber, "ulmarcomms: link lost\n")) << subscriber.transcript();
    const size_t eventsBefore = occurrences(subscriber.out(), "event tick from");

    Daemon second(pipe);
    ASSERT_TRUE(second.waitReady()) << second.process().transcript();
    ChildProcess newTicker(clientArgs(pipe, {"publish", "ticker", "tick", "--every", "100"}));
    ASSERT_TRUE(newTicker.waitForOut("publishing tick on")) << newTicker.transcript();

    // The links retry every two seconds; these waits carry deadlines.
    EXPECT_TRUE(waitForErr(listener, "ulmarcomms: link restored\n")) << listener.transcript();
    EXPECT_TRUE(counter.waitForOut("\"status\":\"link restored\"")) << counter.transcript();
    EXPECT_TRUE(waitForErr(subscriber, "ulmarcomms: link restored\n")) << subscriber.transcript();
    EXPECT_TRUE(subscriber.waitFor([&] { return occurrences(subscriber.out(), "event tick from") > eventsBefore; },
                                   std::chrono::seconds(30)))
        << subscriber.transcript() << newTicker.transcript();
    EXPECT_EQ(occurrences(subscriber.out(), "subscribed to tick at ticker\n"), 2u) << subscriber.out();

    // Once back, the listener's pump is announced again, interfaces included.
    RunResult after;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    do {
        after = client(pipe, {"--timeout", "500", "call", "survivor", "After"});
    } while (after.status != 0 && std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(after.status, 0) << after.transcript() << listener.transcript();
    EXPECT_EQ(after.out, "here\n");
    RunResult who = client(pipe, {"who-supports", "r.one"});
    EXPECT_EQ(who.out, hostName() + "@survivor\n") << who.transcript();

    for (ChildProcess* child : {&subscriber, &newTicker, &counter, &listener}) {
        child->signal(SIGINT);
        EXPECT_EQ(child->waitExit(), 0) << child->transcript();
    }
    expectPublishedOnlyWhileLinked(counter.out());
    EXPECT_TRUE(contains(subscriber.out(), "unsubscribed from tick at ticker\n")) << subscriber.out();
}

TEST_F(Ulmarcomms, RefusedSettingsAreAUsageError)
{
    RunResult refused = run({"--set", "no.such.key=1", "info"});
    EXPECT_EQ(refused.status, 2) << refused.transcript();
    EXPECT_TRUE(contains(refused.err, "code 4")) << refused.err;
    EXPECT_TRUE(contains(refused.err, " ERROR ")) << "the library's reason is shown\n" << refused.err;
    EXPECT_TRUE(contains(refused.err, "no.such.key")) << refused.err;
}

} // namespace
