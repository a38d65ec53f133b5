// The client's output: reply texts of the system endpoint parsed into JSON
// structure, text and JSON renderings of answers, and JSON escaping.
#include "ulmarcomms/json.h"
#include "ulmarcomms/output.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace UlmarCommsTools;

namespace {

Invocation invocationFor(CommandKind kind, const std::string& word, bool json)
{
    Invocation invocation;
    invocation.command.kind = kind;
    invocation.command.word = word;
    invocation.global.json = json;
    return invocation;
}

Received reply(const std::string& from, const char* response)
{
    Received received;
    received.kind = Received::Kind::Reply;
    received.from = from;
    received.hasResponse = response != nullptr;
    received.response = response == nullptr ? "" : response;
    return received;
}

TEST(ClientJson, EscapesEverythingJsonRequires)
{
    EXPECT_EQ(jsonString("plain"), "\"plain\"");
    EXPECT_EQ(jsonString("a\"b\\c"), "\"a\\\"b\\\\c\"");
    EXPECT_EQ(jsonString("l1\nl2\tx\r"), "\"l1\\nl2\\tx\\r\"");
    EXPECT_EQ(jsonString(std::string("\x01\x1f", 2)), "\"\\u0001\\u001f\"");
    EXPECT_EQ(jsonString("caf\xc3\xa9"), "\"caf\xc3\xa9\"");
}

TEST(ClientJson, ObjectsKeepInsertionOrderAndNest)
{
    JsonObject inner;
    inner.add("k", "v").addNull("n");
    JsonObject object;
    object.add("s", "x")
        .add("i", -3)
        .addBool("b", false)
        .add("list", std::vector<std::string>{"a", "b"})
        .add("empty", std::vector<std::string>{})
        .add("o", inner)
        .add("c", static_cast<const char*>(nullptr));
    EXPECT_EQ(object.str(),
              R"({"s":"x","i":-3,"b":false,"list":["a","b"],"empty":[],"o":{"k":"v","n":null},"c":null})");
}

TEST(ClientReplyTexts, SplitKeepsOrDropsEmptyPieces)
{
    EXPECT_EQ(splitText("a,,b", ',', false), (std::vector<std::string>{"a", "", "b"}));
    EXPECT_EQ(splitText("a,,b,", ',', true), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(splitText("", ',', false).empty());
    EXPECT_TRUE(splitText("", ',', true).empty());
    EXPECT_EQ(splitText("alpha|beta|", '|', true), (std::vector<std::string>{"alpha", "beta"}));
}

TEST(ClientReplyTexts, SystemInfoLines)
{
    const auto pairs =
        parseKeyValueLines("name=alpha\nos=linux\ninterfaces=1\ninterface0=10.0.0.0,10.0.0.255,10.0.0.2\n");
    ASSERT_EQ(pairs.size(), 4u);
    EXPECT_EQ(pairs[0], KeyValue("name", "alpha"));
    EXPECT_EQ(pairs[1], KeyValue("os", "linux"));
    EXPECT_EQ(pairs[3], KeyValue("interface0", "10.0.0.0,10.0.0.255,10.0.0.2"));
}

TEST(ClientReplyTexts, SettingsListing)
{
    const SettingsListing listing = parseSettingsListing("string,ulmar.systemrouter.pipe.name,ulmarcomms\nstring,odd,a,"
                                                         "b\n# numbers\nnumber,ulmar.systemrouter.pipe,1\n");
    ASSERT_EQ(listing.strings.size(), 2u);
    EXPECT_EQ(listing.strings[0], KeyValue("ulmar.systemrouter.pipe.name", "ulmarcomms"));
    EXPECT_EQ(listing.strings[1], KeyValue("odd", "a,b")) << "values may hold commas";
    ASSERT_EQ(listing.numbers.size(), 1u);
    EXPECT_EQ(listing.numbers[0], KeyValue("ulmar.systemrouter.pipe", "1"));
}

TEST(ClientReplyTexts, RoutingTableDump)
{
    const auto entries =
        parseRoutingTable("# System Routing Table \nAddress,Interfaces\nalpha@system,quendrelis.ulmar.comms.system\n"
                          "alpha@listener,a-b\nalpha@bare,\n");
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].address, "alpha@system");
    EXPECT_EQ(entries[0].interfaces, (std::vector<std::string>{"quendrelis.ulmar.comms.system"}));
    EXPECT_EQ(entries[1].interfaces, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(entries[2].address, "alpha@bare");
    EXPECT_TRUE(entries[2].interfaces.empty());
}

TEST(ClientAnswers, RenderingByCommandInTextAndJson)
{
    struct Case {
        CommandKind kind;
        const char* word;
        bool json;
        const char* response; // nullptr: the reply has none
        std::string expected; // text: the whole output; JSON: a part of it
    };
    const char* settings = "string,k,v\n# numbers\nnumber,n,42\nnumber,bad,x\n";
    const std::vector<Case> cases = {
        {CommandKind::Info, "info", false, "name=a\nos=linux\n", "name=a\nos=linux\n"},
        // A text without its final newline gets one.
        {CommandKind::Hosts, "hosts", false, "alpha", "alpha\n"},
        {CommandKind::WhoSupports, "who-supports", false, "a@x,a@y", "a@x\na@y\n"},
        {CommandKind::WhoSupports, "who-supports", false, "", ""},
        // Names are shown exactly as announced.
        {CommandKind::Interfaces, "interfaces", false, "i1, i2", "i1\n i2\n"},
        {CommandKind::Interfaces, "interfaces", false, nullptr, ""},
        {CommandKind::Events, "events", false, "alpha|beta|", "alpha\nbeta\n"},
        {CommandKind::Has, "has", false, "false", "false\n"},
        {CommandKind::Settings, "settings", true, settings, R"("strings":{"k":"v"})"},
        {CommandKind::Settings, "settings", true, settings, R"("numbers":{"n":42,"bad":"x"})"},
        {CommandKind::Table, "table", true, "# System Routing Table \nAddress,Interfaces\na@p,i-j\n",
         R"("entries":[{"address":"a@p","interfaces":["i","j"]}])"},
        {CommandKind::Has, "has", true, "true", R"("supported":true)"},
        {CommandKind::Interfaces, "interfaces", true, nullptr, R"("response":null,"interfaces":[])"},
        {CommandKind::Hosts, "hosts", true, "beta\ngamma\nalpha", R"("hosts":["beta","gamma","alpha"])"},
    };
    for (const Case& item : cases) {
        const Invocation invocation = invocationFor(item.kind, item.word, item.json);
        const std::string line = formatAnswer(invocation, planRequest(invocation.command), reply("a@p", item.response));
        if (item.json)
            EXPECT_NE(line.find(item.expected), std::string::npos) << line;
        else
            EXPECT_EQ(line, item.expected) << item.word;
    }
}

TEST(ClientAnswers, CallShowsResponseThenRequestedPairs)
{
    Invocation call = invocationFor(CommandKind::Call, "call", false);
    call.command.address = "svc";
    call.command.method = "Get";
    call.command.shownKeys = {"k", "missing"};
    Received answer = reply("a@svc", "done");
    answer.shown = {{"k", std::string("v")}, {"missing", std::nullopt}};
    EXPECT_EQ(formatAnswer(call, planRequest(call.command), answer), "done\nk=v\n");

    call.global.json = true;
    EXPECT_EQ(
        formatAnswer(call, planRequest(call.command), answer),
        R"({"command":"call","to":"svc","method":"Get","status":"reply","from":"a@svc","response":"done","pairs":{"k":"v","missing":null}})"
        "\n");
}

TEST(ClientAnswers, ErrorsAndTimeouts)
{
    Invocation call = invocationFor(CommandKind::Call, "call", false);
    call.command.address = "svc";
    call.command.method = "Get";
    call.global.timeoutMs = 300;
    Received error;
    error.kind = Received::Kind::Error;
    error.errorCode = 400;
    const RequestPlan plan = planRequest(call.command);
    EXPECT_EQ(formatAnswer(call, plan, error), "error 400: no path to the address\n");
    EXPECT_EQ(formatTimeout(call, plan), "") << "in text mode a time-out is only explained on stderr";
    EXPECT_EQ(timeoutMessage(call, plan), "no reply from 'svc' to Get within 300 ms");

    call.global.json = true;
    EXPECT_EQ(
        formatAnswer(call, plan, error),
        R"({"command":"call","to":"svc","method":"Get","status":"error","code":400,"meaning":"no path to the address"})"
        "\n");
    EXPECT_EQ(formatTimeout(call, plan),
              R"({"command":"call","to":"svc","method":"Get","status":"timeout","timeoutMs":300})"
              "\n");

    Invocation has = invocationFor(CommandKind::Has, "has", false);
    has.command.address = "p";
    EXPECT_NE(timeoutMessage(has, planRequest(has.command)).find("never answers #IsHas"), std::string::npos);
}

TEST(ClientAnswers, StreamingCommandLines)
{
    Invocation listen = invocationFor(CommandKind::Listen, "listen", false);
    listen.command.shownKeys = {"a"};
    Received request;
    request.method = "Ping";
    request.from = "h@cli";
    request.to = "h@svc";
    request.senderId = "7";
    request.shown = {{"a", std::string("1")}};
    request.answered = true;
    request.answerText = "pong";
    EXPECT_EQ(formatListening(listen, "h@svc"), "listening on h@svc\n");
    EXPECT_EQ(formatRequest(listen, request), "request Ping from h@cli a=1 | replied: pong\n");
    request.answerResult = 6;
    EXPECT_EQ(formatRequest(listen, request), "request Ping from h@cli a=1 | reply failed: code 6\n");

    listen.global.json = true;
    request.answerResult = 0;
    EXPECT_EQ(
        formatRequest(listen, request),
        R"({"command":"listen","status":"request","to":"h@svc","from":"h@cli","method":"Ping","senderId":"7","pairs":{"a":"1"},"reply":{"response":"pong","result":0}})"
        "\n");

    Invocation subscribe = invocationFor(CommandKind::Subscribe, "subscribe", false);
    subscribe.command.address = "pub";
    subscribe.command.event = "tick";
    Received event;
    event.from = "h@pub";
    EXPECT_EQ(formatSubscribed(subscribe, "h@sub"), "subscribed to tick at pub\n");
    EXPECT_EQ(formatEvent(subscribe, event), "event tick from h@pub\n");
    EXPECT_EQ(formatUnsubscribed(subscribe, true, ""), "unsubscribed from tick at pub\n");
    subscribe.global.json = true;
    EXPECT_EQ(
        formatUnsubscribed(subscribe, false, "interrupted"),
        R"({"command":"subscribe","status":"unsubscribed","to":"pub","event":"tick","confirmed":false,"reason":"interrupted"})"
        "\n");

    Invocation publish = invocationFor(CommandKind::Publish, "publish", false);
    publish.command.event = "tick";
    EXPECT_EQ(formatPublishing(publish, "h@pub"), "publishing tick on h@pub\n");
    EXPECT_EQ(formatPublished(publish, 3, 0), "published tick #3\n");
    EXPECT_EQ(formatPublished(publish, 4, 1003), "publishing tick #4 failed: code 1003\n");
    publish.global.json = true;
    EXPECT_EQ(formatPublished(publish, 3, 0),
              R"({"command":"publish","status":"published","event":"tick","sequence":3,"result":0})"
              "\n");
}

} // namespace
