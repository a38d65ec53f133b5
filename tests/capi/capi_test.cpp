// The C interface: results for a library that is not started, for bad
// arguments, and the start argument. A started runtime here has no service to
// talk to (a pipe name nobody listens on): start-up still succeeds, since the
// link keeps retrying in the background.
#include "ulmarcomms.h"

#include "core/core.h"
#include "platform/socket.h"
#include "runtime/runtimesupport.h"
#include "support/logcapture.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <unistd.h>

using UlmarComms::Core;
using UlmarCommsSDKSupport::RuntimeSupport;
using UlmarCommsSystem::Socket;

namespace {

// Start-up changes process-wide settings; every test puts them back.
class CInterface : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_numbers = Core::instance()->numberSettings();
        m_strings = Core::instance()->stringSettings();
    }
    void TearDown() override
    {
        UlmarCommsShutdown();
        for (const auto& [key, value] : m_numbers)
            Core::instance()->overrideSetting(key, value);
        for (const auto& [key, value] : m_strings)
            Core::instance()->overrideSetting(key, value);
    }
    static std::string lonelyPipe() { return "ulmar.systemrouter.pipe.name=capi_nobody_" + std::to_string(getpid()); }

    std::map<std::string, int> m_numbers;
    std::map<std::string, std::string> m_strings;
};

void noMessage(void*, void*, const char*, const char*)
{
}

TEST_F(CInterface, EverythingAnswersNotStarted)
{
    int dummy = 0;
    void* handle = &dummy;
    EXPECT_EQ(UlmarCommsCreateMessagePump("p", nullptr, noMessage, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(UlmarCommsDestroyMessagePump(handle), 1);
    EXPECT_EQ(UlmarCommsMessagePumpAddress(handle), nullptr);
    EXPECT_EQ(UlmarCommsMessagePumpCreateEvent(handle, "e"), 1);
    EXPECT_EQ(UlmarCommsMessagePumpDestroyEvent(handle, "e"), 1);
    EXPECT_EQ(UlmarCommsCreateMessage(handle, "a", "m"), nullptr);
    EXPECT_EQ(UlmarCommsCreateReplyMessage(handle, handle, "r"), nullptr);
    EXPECT_EQ(UlmarCommsCreateSystemListHostsMessage(handle), nullptr);
    EXPECT_EQ(UlmarCommsCreateListHostsSupportingInterfaces(handle, "i", true), nullptr);
    EXPECT_EQ(UlmarCommsCreateSystemGetAddressesSupportingInterfacesMessage(handle, "", "i"), nullptr);
    EXPECT_EQ(UlmarCommsCreateHasInterfacesMessage(handle, "a", "i"), nullptr);
    EXPECT_EQ(UlmarCommsCreateListInterfacesMessage(handle, "a"), nullptr);
    EXPECT_EQ(UlmarCommsCreateListEventsMessage(handle, "a"), nullptr);
    EXPECT_EQ(UlmarCommsCreateEventRegistrationMessage(handle, "m", "a", "e", true), nullptr);
    EXPECT_EQ(UlmarCommsCreateEventMessage(handle, "e"), nullptr);
    EXPECT_EQ(UlmarCommsPostMessage(handle, handle), 1);
    EXPECT_EQ(UlmarCommsSendErrorMessage(handle, handle, 9), 1);
    EXPECT_EQ(UlmarCommsGetTo(handle), nullptr);
    EXPECT_EQ(UlmarCommsGetFrom(handle), nullptr);
    EXPECT_EQ(UlmarCommsGetMode(handle), nullptr);
    EXPECT_EQ(UlmarCommsGetSenderId(handle), nullptr);
    EXPECT_EQ(UlmarCommsGetResponseId(handle), nullptr);
    EXPECT_EQ(UlmarCommsGetResponse(handle), nullptr);
    EXPECT_EQ(UlmarCommsGetMethod(handle), nullptr);
    EXPECT_EQ(UlmarCommsGetMandatoryFields(handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(UlmarCommsMessageHasKey(handle, "k"), 0);
    EXPECT_EQ(UlmarCommsMessageValue(handle, "k"), nullptr);
    EXPECT_EQ(UlmarCommsMessageAddKeyValue(handle, "k", "v"), 1);
    EXPECT_EQ(UlmarCommsMessageId(handle, handle), 1); // the same number as a real id 1
    EXPECT_EQ(UlmarCommsIncCounterMessage(handle), 1);
    UlmarCommsDestroyMessage(handle); // does nothing
    // The setters work before start-up; the two socket option setters do nothing.
    EXPECT_EQ(UlmarCommsSocketsSetOptionString("k", "v"), 0);
    EXPECT_EQ(UlmarCommsScoketsSetOptionNumber("k", 1), 0);
}

TEST_F(CInterface, ShutdownWithoutStartChangesNothing)
{
    // A socket layer some other part of the process set up.
    ASSERT_TRUE(Socket::init(1));
    {
        UlmarCommsTest::LogCapture log;
        EXPECT_EQ(UlmarCommsShutdown(), 1);
        EXPECT_EQ(UlmarCommsSystemShutdown(), 1);
        // Application shutdown of a runtime that never started.
        RuntimeSupport* runtime = RuntimeSupport::instanceInc();
        ASSERT_NE(runtime, nullptr);
        EXPECT_EQ(runtime->ulmarCommsShutdown(), 0);
        RuntimeSupport::instanceRelease();
        EXPECT_TRUE(log.lines().empty()) << log.lines().front().text;
    }
    EXPECT_NE(Socket::getSelector(), nullptr);
    Socket::deinit();
}

TEST_F(CInterface, OptionSettersAreInsertOnly)
{
    UlmarCommsSetOptionNumber("ulmar.networkrouter", 1);
    EXPECT_EQ(Core::instance()->getNumber("ulmar.networkrouter"), 0);
    UlmarCommsSetOptionString("capi.test.own.key", "first");
    UlmarCommsSetOptionString("capi.test.own.key", "second");
    EXPECT_EQ(Core::instance()->getString("capi.test.own.key"), "first");
}

TEST_F(CInterface, StartTextWithoutEqualsIsIgnoredAndBadOverridesAreRefused)
{
    EXPECT_EQ(UlmarCommsStart("no.such.key=1"), 4);
    EXPECT_EQ(UlmarCommsStart("ulmar.networkrouter=1;ulmar.networkrouter"), 4);
    EXPECT_EQ(UlmarCommsStart("ulmar.networkrouter=yes"), 4);
    EXPECT_EQ(UlmarCommsSystemStartUp("ulmar.networkrouter=yes"), 4);
    EXPECT_EQ(UlmarCommsShutdown(), 1) << "a refused start must leave the library not started";
    EXPECT_EQ(Core::instance()->getNumber("ulmar.networkrouter"), 0);

    // A pipe nobody else uses, so the texts below need not name one.
    Core::instance()->overrideSetting("ulmar.systemrouter.pipe.name", "capi_text_" + std::to_string(getpid()));
    const auto numbers = Core::instance()->numberSettings();
    const auto strings = Core::instance()->stringSettings();
    for (const char* text : {"myapp", "", "my app; v2"}) {
        ASSERT_EQ(UlmarCommsStart(text), 0) << text;
        EXPECT_EQ(UlmarCommsShutdown(), 0) << text;
        ASSERT_EQ(UlmarCommsSystemStartUp(text), 0) << text;
        EXPECT_EQ(UlmarCommsSystemShutdown(), 0) << text;
        EXPECT_EQ(UlmarCommsShutdown(), 0) << text;
        EXPECT_EQ(Core::instance()->numberSettings(), numbers) << text;
        EXPECT_EQ(Core::instance()->stringSettings(), strings) << text;
    }
}

TEST_F(CInterface, StartedLibraryChecksItsArguments)
{
    ASSERT_EQ(UlmarCommsStart(lonelyPipe().c_str()), 0);
    EXPECT_EQ(UlmarCommsStart("no.such.key=1"), 0) << "a second start does nothing, not even parse";
    EXPECT_EQ(Core::instance()->getString("ulmar.systemrouter.pipe.name").rfind("capi_nobody_", 0), 0u);

    void* pump = UlmarCommsCreateMessagePump("capi/one", nullptr, noMessage, nullptr, nullptr, "x,y");
    ASSERT_NE(pump, nullptr);
    EXPECT_EQ(UlmarCommsCreateMessagePump(nullptr, nullptr, noMessage, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(std::string(UlmarCommsMessagePumpAddress(pump)), Core::instance()->getHostName() + "@capi/one");

    EXPECT_EQ(UlmarCommsDestroyMessagePump(nullptr), 7);
    EXPECT_EQ(UlmarCommsMessagePumpCreateEvent(nullptr, "e"), 4);
    EXPECT_EQ(UlmarCommsMessagePumpCreateEvent(pump, ""), 4);
    EXPECT_EQ(UlmarCommsMessagePumpCreateEvent(pump, "e"), 0);
    EXPECT_EQ(UlmarCommsMessagePumpCreateEvent(pump, "e"), 0);
    EXPECT_EQ(UlmarCommsMessagePumpDestroyEvent(pump, "unknown"), 0);
    EXPECT_EQ(UlmarCommsCreateEventMessage(pump, "unknown"), nullptr);
    EXPECT_EQ(UlmarCommsCreateMessage(nullptr, "a", "m"), nullptr);
    EXPECT_EQ(UlmarCommsCreateMessage(pump, nullptr, "m"), nullptr);

    void* message = UlmarCommsCreateMessage(pump, "capi/elsewhere", "hello");
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(UlmarCommsMessageId(pump, message), 1);
    EXPECT_EQ(UlmarCommsMessageId(nullptr, message), 0);
    EXPECT_EQ(UlmarCommsMessageAddKeyValue(message, nullptr, "v"), 4);
    EXPECT_EQ(UlmarCommsMessageAddKeyValue(message, "k", "v"), 0);
    EXPECT_EQ(UlmarCommsMessageHasKey(message, "k"), 1);
    EXPECT_EQ(UlmarCommsMessageHasKey(message, nullptr), 0);
    EXPECT_STREQ(UlmarCommsMessageValue(message, "k"), "v");
    EXPECT_STREQ(UlmarCommsGetMethod(message), "hello");
    EXPECT_STREQ(UlmarCommsGetSenderId(message), "1");
    EXPECT_EQ(UlmarCommsGetResponse(message), nullptr);

    const char* to = "untouched";
    const char* method = nullptr;
    EXPECT_EQ(UlmarCommsGetMandatoryFields(message, &to, nullptr, nullptr, nullptr, nullptr, nullptr, &method), 0);
    EXPECT_STREQ(to, "capi/elsewhere"); // stored as given
    EXPECT_STREQ(method, "hello");
    EXPECT_EQ(UlmarCommsGetMandatoryFields(message, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);

    // A request needs "_f" and "_s" to be answered with an error.
    void* bare = UlmarCommsCreateMessage(pump, "capi/elsewhere", "m");
    EXPECT_EQ(UlmarCommsSendErrorMessage(pump, nullptr, 5), 4);
    EXPECT_EQ(UlmarCommsIncCounterMessage(nullptr), 4);
    EXPECT_EQ(UlmarCommsIncCounterMessage(bare), 0);
    UlmarCommsDestroyMessage(bare);
    UlmarCommsDestroyMessage(bare);

    EXPECT_EQ(UlmarCommsPostMessage(pump, nullptr), 4);
    EXPECT_EQ(UlmarCommsPostMessage(nullptr, message), 4);
    // Nobody serves the link: the router cannot hand it on, and the message
    // is the library's all the same.
    EXPECT_EQ(UlmarCommsPostMessage(pump, message), 6);
    // A start after the pump was made leaves it served by the same runtime.
    EXPECT_EQ(UlmarCommsStart(nullptr), 0);
    EXPECT_EQ(UlmarCommsPostMessage(pump, UlmarCommsCreateMessage(pump, "capi/one", "self")), 0);

    EXPECT_EQ(UlmarCommsDestroyMessagePump(pump), 0);
    EXPECT_EQ(UlmarCommsShutdown(), 0);
    EXPECT_EQ(UlmarCommsShutdown(), 1);
}

// A pump left alive at shutdown, in either role, is cut off from the stopped
// runtime: the next runtime neither reaches it nor is reached through it.
TEST_F(CInterface, PumpLeftAtShutdownIsDetachedAndStillDestroyable)
{
    ASSERT_EQ(UlmarCommsStart(lonelyPipe().c_str()), 0);
    void* old = UlmarCommsCreateMessagePump("capi/old", nullptr, noMessage, nullptr, nullptr, nullptr);
    ASSERT_NE(old, nullptr);
    void* kept = UlmarCommsCreateMessage(old, "capi/old", "kept");
    ASSERT_EQ(UlmarCommsShutdown(), 0);
    ASSERT_EQ(UlmarCommsStart(lonelyPipe().c_str()), 0);
    void* fresh = UlmarCommsCreateMessagePump("capi/old", nullptr, noMessage, nullptr, nullptr, nullptr);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(UlmarCommsPostMessage(old, UlmarCommsCreateMessage(old, "capi/old", "late")), 6);
    EXPECT_STREQ(UlmarCommsGetMethod(kept), "kept");
    UlmarCommsDestroyMessage(kept);
    EXPECT_EQ(UlmarCommsDestroyMessagePump(old), 0);
    EXPECT_EQ(UlmarCommsDestroyMessagePump(fresh), 0);
    ASSERT_EQ(UlmarCommsShutdown(), 0);

    // The service's own pumps: the library still counts as started after
    // the service stops, and its pumps have no router left.
    Core::instance()->overrideSetting("ulmar.systemrouter.pipe.name", "capi_service_" + std::to_string(getpid()));
    ASSERT_EQ(UlmarCommsSystemStartUp(nullptr), 0);
    void* served = UlmarCommsCreateMessagePump("capi/served", nullptr, noMessage, nullptr, nullptr, nullptr);
    ASSERT_NE(served, nullptr);
    ASSERT_EQ(UlmarCommsSystemShutdown(), 0);
    EXPECT_EQ(UlmarCommsPostMessage(served, UlmarCommsCreateMessage(served, "capi/served", "late")), 6);
    EXPECT_EQ(UlmarCommsDestroyMessagePump(served), 0);
}

} // namespace
