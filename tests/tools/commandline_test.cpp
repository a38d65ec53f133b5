// The client's command line: every command's arguments land in the right
// fields, global options work before and after the command, and mistakes
// are usage errors with a reason instead of guesses.
#include "ulmarcomms/commandline.h"
#include "ulmarcomms/output.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace UlmarCommsTools;

namespace {

struct Parsed {
    ParseOutcome outcome;
    Invocation invocation;
    std::string text;
};

Parsed parse(const std::vector<std::string>& args)
{
    Parsed parsed;
    parsed.outcome = parseCommandLine(args, parsed.invocation, parsed.text);
    return parsed;
}

TEST(ClientCommandLine, CallTakesAddressMethodPairsAndShownKeys)
{
    const Parsed parsed = parse({"call", "host@a/b", "Ping", "x=1", "y=a=b", "--key", "k1", "--key=k2"});
    ASSERT_EQ(parsed.outcome, ParseOutcome::Run) << parsed.text;
    const Command& command = parsed.invocation.command;
    EXPECT_EQ(command.kind, CommandKind::Call);
    EXPECT_EQ(command.word, "call");
    EXPECT_EQ(command.address, "host@a/b");
    EXPECT_EQ(command.method, "Ping");
    ASSERT_EQ(command.pairs.size(), 2u);
    EXPECT_EQ(command.pairs[0], KeyValue("x", "1"));
    EXPECT_EQ(command.pairs[1], KeyValue("y", "a=b"));
    EXPECT_EQ(command.shownKeys, (std::vector<std::string>{"k1", "k2"}));
}

TEST(ClientCommandLine, GlobalOptionsBeforeAndAfterTheCommand)
{
    const Parsed parsed = parse({"--set", "ulmar.systemrouter.pipe.name=t1", "--timeout=250", "info", "--json",
                                 "--set=socket.selection.noworkerthreads=2", "--log-level", "3"});
    ASSERT_EQ(parsed.outcome, ParseOutcome::Run) << parsed.text;
    const GlobalOptions& global = parsed.invocation.global;
    EXPECT_EQ(global.timeoutMs, 250);
    EXPECT_TRUE(global.json);
    EXPECT_EQ(global.logLevel, 3);
    EXPECT_EQ(global.settings.startArgument(), "ulmar.systemrouter.pipe.name=t1;socket.selection.noworkerthreads=2");
    EXPECT_EQ(parsed.invocation.command.kind, CommandKind::Info);
}

TEST(ClientCommandLine, DefaultsWithoutOptions)
{
    const Parsed parsed = parse({"table"});
    ASSERT_EQ(parsed.outcome, ParseOutcome::Run);
    EXPECT_EQ(parsed.invocation.global.timeoutMs, 5000);
    EXPECT_FALSE(parsed.invocation.global.json);
    EXPECT_EQ(parsed.invocation.global.logLevel, -1);
    EXPECT_TRUE(parsed.invocation.global.settings.empty());
    EXPECT_EQ(parsed.invocation.command.count, 0);
    EXPECT_EQ(parsed.invocation.command.everyMs, 1000);
}

TEST(ClientCommandLine, QueriesBuildTheirRequests)
{
    using Builder = RequestPlan::Builder;
    struct Case {
        std::vector<std::string> args;
        Builder builder;
        std::string to;
        std::string method;
        std::vector<KeyValue> pairs;
    };
    const std::vector<Case> cases = {
        {{"info"}, Builder::Plain, "/system", "SystemInfo", {}},
        {{"settings", "--host", "beta"}, Builder::Plain, "beta@/system", "ReadUlmarCommsSettings", {}},
        {{"table"}, Builder::Plain, "/system", "ViewSystemRouterRoutingTable", {}},
        {{"hosts"}, Builder::Plain, "/system", "KnownHosts", {}},
        {{"hosts", "--active"}, Builder::Plain, "/system", "KnownHosts", {{"activeonly", "true"}}},
        {{"host-info", "gamma"}, Builder::Plain, "/system", "HostInformation", {{"host", "gamma"}}},
        {{"net-table", "--host=beta"}, Builder::Plain, "beta@/system", "NetworkRoutingTable", {}},
        {{"who-supports", "a,b"},
         Builder::Plain,
         "/system",
         "#AddressSupportingInterfaces",
         {{"inters", "a,b"}, {"match", "0"}}},
        {{"who-supports", "a,b", "--all"},
         Builder::Plain,
         "/system",
         "#AddressSupportingInterfaces",
         {{"inters", "a,b"}, {"match", "1"}}},
        // The built-in queries use the pump's own builders.
        {{"interfaces", "x@p"}, Builder::ListInterfaces, "x@p", "", {}},
        {{"has", "p", "iface.one"}, Builder::HasInterface, "p", "#IsHas", {}},
        {{"events", "p"}, Builder::ListEvents, "p", "#EsList", {}},
    };
    for (const Case& item : cases) {
        const Parsed parsed = parse(item.args);
        ASSERT_EQ(parsed.outcome, ParseOutcome::Run) << item.args[0] << ": " << parsed.text;
        const RequestPlan plan = planRequest(parsed.invocation.command);
        EXPECT_EQ(plan.builder, item.builder) << item.args[0];
        EXPECT_EQ(plan.to, item.to) << item.args[0];
        if (item.builder == Builder::Plain || !item.method.empty()) {
            EXPECT_EQ(plan.method, item.method) << item.args[0];
        }
        if (item.builder == Builder::Plain) {
            EXPECT_EQ(plan.pairs, item.pairs) << item.args[0];
        }
    }
    EXPECT_EQ(parse({"has", "p", "iface.one"}).invocation.command.interfaces, "iface.one");
    EXPECT_EQ(systemAddress(""), "/system");
    EXPECT_EQ(systemAddress("beta"), "beta@/system");
}

TEST(ClientCommandLine, ListenSubscribePublish)
{
    Parsed parsed = parse({"listen", "svc", "--interfaces", "a,b", "--reply", "pong", "--count", "3", "--key", "k"});
    ASSERT_EQ(parsed.outcome, ParseOutcome::Run) << parsed.text;
    EXPECT_EQ(parsed.invocation.command.name, "svc");
    EXPECT_EQ(parsed.invocation.command.interfaces, "a,b");
    EXPECT_EQ(parsed.invocation.command.answer, ListenAnswer::Reply);
    EXPECT_EQ(parsed.invocation.command.replyText, "pong");
    EXPECT_EQ(parsed.invocation.command.count, 3);

    parsed = parse({"listen", "svc", "--echo"});
    ASSERT_EQ(parsed.outcome, ParseOutcome::Run);
    EXPECT_EQ(parsed.invocation.command.answer, ListenAnswer::Echo);

    parsed = parse({"subscribe", "pub", "tick", "--count", "2"});
    ASSERT_EQ(parsed.outcome, ParseOutcome::Run);
    EXPECT_EQ(parsed.invocation.command.address, "pub");
    EXPECT_EQ(parsed.invocation.command.event, "tick");
    EXPECT_EQ(parsed.invocation.command.count, 2);

    parsed = parse({"publish", "pub", "tick", "a=1", "--every", "50", "--count", "4"});
    ASSERT_EQ(parsed.outcome, ParseOutcome::Run);
    EXPECT_EQ(parsed.invocation.command.name, "pub");
    EXPECT_EQ(parsed.invocation.command.event, "tick");
    EXPECT_EQ(parsed.invocation.command.pairs, (std::vector<KeyValue>{{"a", "1"}}));
    EXPECT_EQ(parsed.invocation.command.everyMs, 50);
    EXPECT_EQ(parsed.invocation.command.count, 4);
}

TEST(ClientCommandLine, DoubleDashEndsOptions)
{
    const Parsed parsed = parse({"listen", "svc", "--reply", "x", "--", "--json"});
    EXPECT_EQ(parsed.outcome, ParseOutcome::Usage) << "a word after -- is an argument, and listen takes no more";
    const Parsed call = parse({"call", "--", "--odd-name", "M"});
    ASSERT_EQ(call.outcome, ParseOutcome::Run) << call.text;
    EXPECT_EQ(call.invocation.command.address, "--odd-name");
}

TEST(ClientCommandLine, UsageErrorsCarryAReason)
{
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"frobnicate"},
        {"call", "addr"},
        {"call", "addr", "M", "novalue"},
        {"call", "addr", "M", "=v"},
        {"call", "addr", "M", "_t=x"},
        {"info", "extra"},
        {"info", "--active"},
        {"hosts", "--host"},
        {"hosts", "--host", "a@b"},
        {"has", "addr"},
        {"listen", "svc", "--echo", "--reply", "x"},
        {"listen", "svc", "--count", "0"},
        {"listen", "svc", "--count", "-1"},
        {"listen", "svc", "--count", "2x"},
        {"publish", "p", "e", "--every", "0"},
        {"subscribe", "p", "e", "--echo"},
        {"--timeout", "0", "info"},
        {"--timeout", "abc", "info"},
        {"--log-level", "5", "info"},
        {"--set", "novalue", "info"},
        {"--set", "a=b;c=d", "info"},
        {"--bogus", "info"},
        {"info", "--bogus"},
        {"call", "", "M"},
        {"info", "--timeout"},
        {"listen", "svc", "--echo=yes"},
    };
    for (const auto& args : wrong) {
        const Parsed parsed = parse(args);
        std::string joined;
        for (const std::string& arg : args)
            joined += "'" + arg + "' ";
        EXPECT_EQ(parsed.outcome, ParseOutcome::Usage) << joined;
        EXPECT_FALSE(parsed.text.empty()) << joined;
    }
}

TEST(ClientCommandLine, HelpForEveryCommand)
{
    Parsed parsed = parse({"--help"});
    ASSERT_EQ(parsed.outcome, ParseOutcome::Help);
    for (const char* word : {"call", "info", "settings", "table", "hosts", "host-info", "net-table", "who-supports",
                             "interfaces", "has", "events", "listen", "subscribe", "publish"}) {
        EXPECT_NE(parsed.text.find(std::string("  ") + word + " "), std::string::npos) << word;
        const Parsed command = parse({word, "--help"});
        ASSERT_EQ(command.outcome, ParseOutcome::Help) << word;
        EXPECT_NE(command.text.find(std::string("Usage: ulmarcomms [GLOBAL OPTIONS] ") + word), std::string::npos)
            << word;
        EXPECT_EQ(command.text, commandHelp(word));
    }
    parsed = parse({"help", "has"});
    ASSERT_EQ(parsed.outcome, ParseOutcome::Help);
    EXPECT_NE(parsed.text.find("never answers"), std::string::npos);
    EXPECT_EQ(parse({"--version"}).outcome, ParseOutcome::Version);
    EXPECT_TRUE(commandHelp("nonsense").empty());
}

} // namespace
