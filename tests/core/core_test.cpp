// Core: the settings table and its insert-only rule, the logging gate, the
// host name cache and the error reply.
#include "core/core.h"

#include "messaging/messaging.h"
#include "messaging/messaging_support.h"
#include "platform/thread.h"

#include "support/logcapture.h"
#include "support/scopedhostname.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using MessagingTest::pairsOf;
using UlmarComms::Core;
using UlmarComms::MessageItem;
using UlmarCommsTest::LogCapture;
using UlmarCommsTest::ScopedHostName;

namespace {

Core* core()
{
    return Core::instance();
}

std::string pointerText(const void* pointer)
{
    char buffer[64];
    std::snprintf(buffer, sizeof(buffer), "%p", pointer);
    return buffer;
}

} // namespace

// ---------------------------------------------------------------- settings

TEST(CoreSettings, TableHoldsTheTwentyFiveDefaults)
{
    const std::vector<std::pair<const char*, int>> numbers = {
        {"socket.selection.timeout", 500},
        {"socket.selection.noworkerthreads", 1},
        {"socket.selection.systemmode.noworkerthreads", 1},
        {"dataframehandler.inbound.size", 4096},
        {"dataframehandler.outbound.size", 4096},
        {"socketmessagerouterproxy.inbound.size", 4096},
        {"socketmessagerouterproxy.outbound.size", 4096},
        {"socketsystemrouterproxy.inbound.size", 4096},
        {"socketsystemrouterproxy.outbound.size", 4096},
        {"ulmar.systemrouter.ip4", 0},
        {"ulmar.systemrouter.pipe", 1},
        {"ulmar.networkrouter", 0},
        {"ulmar.networkrouter.discovery", 0},
        {"ulmar.networkrouter.discovery.timeout", 5000},
        {"ulmar.networkrouter.isMaster", 0},
        {"ulmar.networkrouter.isLowerOrder", 0},
        {"ulmar.networkrouter.inStelthMode", 0},
        {"ulmar.networkrouter.ip4", 1},
        {"ulmar.networkrouter.ip6", 0},
    };
    const std::vector<std::pair<const char*, const char*>> texts = {
        {"ulmar.systemrouter.ip4.port", "13001"},       {"ulmar.systemrouter.ip4.addresses", "127.0.0.1"},
        {"ulmar.systemrouter.pipe.name", "ulmarcomms"}, {"ulmar.networkrouter.ip4.networks", "*"},
        {"ulmar.networkrouter.ip4.addresses", "*"},     {"ulmar.networkrouter.ip4.port", "34001"},
    };
    ASSERT_EQ(numbers.size() + texts.size(), 25u);
    for (const auto& [key, value] : numbers) {
        SCOPED_TRACE(key);
        // Present in the number map (a zero default must be a stored entry).
        ASSERT_EQ(core()->numberSettings().count(key), 1u);
        EXPECT_EQ(core()->getNumber(key), value);
        EXPECT_EQ(core()->stringSettings().count(key), 0u) << "a number key is not also a text";
    }
    for (const auto& [key, value] : texts) {
        SCOPED_TRACE(key);
        ASSERT_EQ(core()->stringSettings().count(key), 1u);
        EXPECT_EQ(core()->getString(key), value);
        EXPECT_EQ(core()->numberSettings().count(key), 0u) << "ports and addresses are texts";
    }
    // The misspelling is the key; the corrected spelling is not one.
    EXPECT_EQ(core()->numberSettings().count("ulmar.networkrouter.inStealthMode"), 0u);
}

TEST(CoreSettings, KeysAreInsertOnlyPerMapAndAbsentKeysAreEmpty)
{
    // Defaults and new keys alike keep their first value.
    core()->addSetting("ulmar.networkrouter", 1);
    EXPECT_EQ(core()->getNumber("ulmar.networkrouter"), 0);
    core()->addSetting("ulmar.systemrouter.pipe.name", std::string("elsewhere"));
    EXPECT_EQ(core()->getString("ulmar.systemrouter.pipe.name"), "ulmarcomms");
    core()->addSetting("coretest.insertonly.number", 7);
    core()->addSetting("coretest.insertonly.number", 9);
    EXPECT_EQ(core()->getNumber("coretest.insertonly.number"), 7);
    core()->addSetting("coretest.insertonly.text", std::string("first"));
    core()->addSetting("coretest.insertonly.text", std::string("second"));
    EXPECT_EQ(core()->getString("coretest.insertonly.text"), "first");

    // The number and text maps are separate; text is never parsed as a number.
    core()->addSetting("coretest.separate.textonly", std::string("12"));
    EXPECT_EQ(core()->getNumber("coretest.separate.textonly"), 0);
    EXPECT_EQ(core()->getString("coretest.insertonly.number"), "");
    core()->addSetting("coretest.separate.both", 5);
    core()->addSetting("coretest.separate.both", std::string("five"));
    EXPECT_EQ(core()->getNumber("coretest.separate.both"), 5);
    EXPECT_EQ(core()->getString("coretest.separate.both"), "five");

    EXPECT_EQ(core()->getNumber("coretest.absent"), 0);
    const std::string& first = core()->getString("coretest.absent.one");
    EXPECT_TRUE(first.empty());
    EXPECT_EQ(&first, &core()->getString("coretest.absent.two")) << "one shared empty text";
    EXPECT_EQ(core()->numberSettings().count("coretest.absent"), 0u) << "a lookup stores nothing";
}

// ----------------------------------------------------------------- logging

TEST(CoreLogging, TheLevelGatesEachCallAndLinesKeepTheirOwnLevel)
{
    EXPECT_EQ(Core::getLoggingLevel(), Core::LogWarning) << "the default level";
    struct Case {
        int threshold;
        std::vector<int> passed; // levels of the lines that reach the logger, in order
    };
    // Each case logs: verbose(), message(), then log() at warning, error, fatal
    // and 7, each level with a text of its own (a text repeated more than five
    // times a second would be throttled).
    const std::vector<Case> cases = {
        {Core::LogWarning, {Core::LogWarning, Core::LogError, Core::LogFatal, 7}},
        {Core::LogError, {Core::LogError, Core::LogFatal, 7}},
        {Core::LogMessage, {Core::LogMessage, Core::LogWarning, Core::LogError, Core::LogFatal, 7}},
        {Core::LogVerbose, {Core::LogVerbose, Core::LogMessage, Core::LogWarning, Core::LogError, Core::LogFatal, 7}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.threshold);
        LogCapture capture(c.threshold);
        Core::verbose("v %d\n", Core::LogVerbose);
        Core::message("m %d\n", Core::LogMessage);
        Core::log(Core::LogWarning, "w %d\n", Core::LogWarning);
        Core::log(Core::LogError, "e %d\n", Core::LogError);
        Core::log(Core::LogFatal, "f %d\n", Core::LogFatal);
        Core::log(7, "s %d\n", 7);
        const auto lines = capture.lines();
        ASSERT_EQ(lines.size(), c.passed.size());
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(lines[i].level, c.passed[i]);
            EXPECT_EQ(lines[i].text.substr(2), std::to_string(c.passed[i]) + "\n");
        }
    }

    LogCapture capture(Core::LogVerbose);
    Core::setLogger(nullptr); // the level stays at verbose: no logger, no lines
    Core::verbose("CoreTest::verbose()\n");
    Core::message("CoreTest::message()\n");
    for (int level = Core::LogVerbose; level <= Core::LogFatal; ++level)
        Core::log(level, "CoreTest::log( %d )\n", level);
    EXPECT_TRUE(capture.lines().empty());
}

TEST(CoreLogging, LoggerGetsTheFormatUnchangedAndTheArguments)
{
    LogCapture capture(Core::LogVerbose);
    static const char format[] = "CoreTest::args( %p ) n=%d u=%u s='%s' c=%c d=%.3f big=%lld\n";
    int object = 0;
    Core::log(Core::LogWarning, format, static_cast<void*>(&object), -12, 4000000000u, "text", 'x', 2.5, -9000000000LL);
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].format, format) << "the very format pointer, not a copy or a formatted text";
    EXPECT_EQ(lines[0].text,
              "CoreTest::args( " + pointerText(&object) +
                  " ) n=-12 u=4000000000 s='text' c=x d=2.500 big=-9000000000\n");
}

namespace {

std::atomic<int> g_inside{0};
std::atomic<int> g_mostInside{0};
long g_lines = 0; // deliberately unsynchronised: only the logging lock guards these
long g_suppressed = 0;

// Counts lines, and the lines that summaries say were held back.
void countingLogger(int, const char* format, char* args)
{
    const int now = ++g_inside;
    if (now > g_mostInside)
        g_mostInside = now;
    unsigned held = 0;
    if (std::sscanf(UlmarCommsTest::formatLogArguments(format, args).c_str(), "... %u similar", &held) == 1)
        g_suppressed += held;
    else
        ++g_lines;
    UlmarCommsSystem::Thread::yieldTime();
    --g_inside;
}

} // namespace

// Four threads log two texts 800 times each: the logger is entered by one
// thread at a time, each text writes at most a few lines a second, and the
// summaries account for every line held back, even once the texts go quiet.
TEST(CoreLogging, LoggerIsNeverEnteredByTwoThreadsAtOnceAndRepeatsAreSummarised)
{
    g_inside = 0;
    g_mostInside = 0;
    g_lines = 0;
    g_suppressed = 0;
    const int previousLevel = Core::getLoggingLevel();
    Core::setLoggingLevel(Core::LogVerbose);
    Core::setLogger(&countingLogger);
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                Core::message("CoreTest::message( %d )\n", i);
                Core::log(Core::LogError, "CoreTest::error( %d )\n", i);
            }
        });
    for (auto& thread : threads)
        thread.join();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
    const long mostLines = 2 * 5 * (seconds.count() + 1);
    EXPECT_TRUE(UlmarCommsTest::waitUntil(
        [] {
            Core::flushLogSummaries();
            return g_lines + g_suppressed == 4 * 200 * 2;
        },
        std::chrono::seconds(5)))
        << g_lines << " lines, " << g_suppressed << " held back";
    Core::setLogger(nullptr);
    Core::setLoggingLevel(previousLevel);
    EXPECT_EQ(g_mostInside.load(), 1);
    EXPECT_LE(g_lines, mostLines);
}

// The throttle on its own, with the clock given: five lines per text per
// window, a summary of the rest before the text's next line or on collect.
TEST(CoreLogging, EachTextWritesFiveLinesAWindowAndSummarisesTheRest)
{
    using UlmarComms::LogThrottle;
    LogThrottle throttle;
    std::vector<LogThrottle::Summary> due;
    static const char text[] = "one\n";
    static const char other[] = "other\n";
    int admitted = 0;
    for (int i = 0; i < 12; ++i)
        admitted += throttle.admit(text, i == 7 ? Core::LogError : Core::LogWarning, 100 + i, due) ? 1 : 0;
    EXPECT_EQ(admitted, 5);
    EXPECT_TRUE(throttle.admit(other, Core::LogWarning, 150, due)) << "texts are counted apart";
    EXPECT_TRUE(throttle.hasPending());
    throttle.collect(1099, due);
    EXPECT_TRUE(due.empty()) << "the window is not over yet";

    // The text's next line after the window brings its summary first.
    EXPECT_TRUE(throttle.admit(text, Core::LogWarning, 1100, due));
    ASSERT_EQ(due.size(), 1u);
    EXPECT_EQ(due[0].format, text);
    EXPECT_EQ(due[0].suppressed, 7u);
    EXPECT_EQ(due[0].level, Core::LogError) << "the highest level held back";
    EXPECT_FALSE(throttle.hasPending());

    // A text that goes quiet is summarised by collect once its window ends.
    due.clear();
    for (int i = 0; i < 7; ++i)
        throttle.admit(other, Core::LogWarning, 1200, due);
    throttle.collect(2199, due);
    EXPECT_TRUE(due.empty()) << "other's window began at 1200";
    throttle.collect(2200, due);
    ASSERT_EQ(due.size(), 1u);
    EXPECT_EQ(due[0].format, other);
    EXPECT_EQ(due[0].suppressed, 2u);
    due.clear();
    throttle.collect(5000, due);
    EXPECT_TRUE(due.empty()) << "each line held back is summarised once";
}

// --------------------------------------------------------------- host name

TEST(CoreHostName, ComesFromTheSystemIsCachedAndSetHostNameReplacesIt)
{
    ScopedHostName restore("placeholder");
    core()->setHostName(""); // an empty cache is asked of the system again
    char expected[256] = {};
    ASSERT_EQ(gethostname(expected, 255), 0);
    const std::string& first = core()->getHostName();
    EXPECT_EQ(first, expected);
    EXPECT_EQ(&core()->getHostName(), &first);
    core()->setHostName("beta");
    EXPECT_EQ(core()->getHostName(), "beta");
}

// ------------------------------------------------------------ error replies

namespace {

MessageItem* failedMessage(bool withTo, bool withFrom, bool withSenderId)
{
    MessageItem* item = MessageItem::create();
    if (withTo)
        item->add(MessageItem::ArgumentKey_To, "beta@service/echo");
    item->add("payload", "kept out of the reply");
    if (withFrom)
        item->add(MessageItem::ArgumentKey_From, "alpha@app/client");
    item->add(MessageItem::ArgumentKey_Method, "ping");
    if (withSenderId)
        item->add(MessageItem::ArgumentKey_SenderId, "17");
    return item;
}

} // namespace

TEST(CoreErrorOut, BuildsTheReplyPairsInOrderWithTheCodeInDecimal)
{
    ScopedHostName host("gamma");
    const struct {
        bool withTo;
        int code;
        const char* text;
    } cases[] = {{true, 400, "400"},
                 {false, 400, "400"},
                 {true, 0, "0"},
                 {true, -5, "-5"},
                 {true, INT_MIN, "-2147483648"},
                 {true, INT_MAX, "2147483647"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text + std::string(c.withTo ? " with _t" : " without _t"));
        MessageItem* failed = failedMessage(c.withTo, true, true);
        MessageItem* reply = core()->errorOut(failed, c.code);
        ASSERT_NE(reply, nullptr);
        std::vector<std::pair<std::string, std::string>> expected = {
            {"_t", "alpha@app/client"}, {"_R", "17"}, {"_M", "E"}, {"_s", "0"}, {"_h", "gamma"}, {"_m", c.text},
        };
        if (c.withTo) // the failed message's target answers as the sender
            expected.insert(expected.begin() + 2, {"_f", "beta@service/echo"});
        EXPECT_EQ(pairsOf(reply), expected);
        EXPECT_EQ(reply->count(), 1);
        // The failed message is the caller's still: untouched and not released.
        EXPECT_EQ(failed->count(), 1);
        EXPECT_EQ(failed->numberOfArguments(), c.withTo ? 5 : 4);
        MessageItem::release(reply);
        MessageItem::release(failed);
    }
    EXPECT_EQ(core()->errorOut(nullptr, 400), nullptr);
}

TEST(CoreErrorOut, WithoutFromOrSenderIdReturnsNullLeavesTheMessageAndLogsOnce)
{
    struct Case {
        bool withFrom;
        bool withSenderId;
        const char* what;
    };
    for (const Case& c :
         {Case{false, true, "No From."}, Case{true, false, "No SenderId."}, Case{false, false, "No From."}}) {
        SCOPED_TRACE(c.what);
        LogCapture capture(Core::LogWarning);
        MessageItem* failed = failedMessage(true, c.withFrom, c.withSenderId);
        EXPECT_EQ(core()->errorOut(failed, 1002), nullptr);
        EXPECT_EQ(failed->count(), 1) << "errorOut never takes the failed message";
        const auto lines = capture.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, Core::LogError);
        EXPECT_EQ(lines[0].format, std::string("Core::errorOut( %p, %d ) ") + c.what + "\n");
        EXPECT_EQ(lines[0].text, "Core::errorOut( " + pointerText(failed) + ", 1002 ) " + c.what + "\n");
        MessageItem::release(failed);
    }
}
