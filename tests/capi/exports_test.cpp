// The shared library exports exactly the 43 functions of the C interface.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

#ifndef ULMARCOMMS_LIBRARY_FILE
#error "the test build defines ULMARCOMMS_LIBRARY_FILE"
#endif

namespace {

std::set<std::string> definedDynamicSymbols(const std::string& library)
{
    std::set<std::string> symbols;
    const std::string command = "nm -D --defined-only '" + library + "' 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return symbols;
    char line[512];
    while (std::fgets(line, sizeof(line), pipe) != nullptr) {
        char address[64];
        char type[8];
        char name[400];
        if (std::sscanf(line, "%63s %7s %399s", address, type, name) != 3)
            continue;
        std::string symbol = name;
        symbol = symbol.substr(0, symbol.find('@')); // drop the version suffix
        symbols.insert(symbol);
    }
    pclose(pipe);
    return symbols;
}

TEST(SharedLibrary, ExportsExactlyTheCInterface)
{
    const std::set<std::string> expected = {
        "UlmarCommsStart",
        "UlmarCommsShutdown",
        "UlmarCommsSystemStartUp",
        "UlmarCommsSystemShutdown",
        "UlmarCommsCreateMessagePump",
        "UlmarCommsDestroyMessagePump",
        "UlmarCommsMessagePumpAddress",
        "UlmarCommsMessagePumpCreateEvent",
        "UlmarCommsMessagePumpDestroyEvent",
        "UlmarCommsCreateMessage",
        "UlmarCommsCreateReplyMessage",
        "UlmarCommsCreateSystemListHostsMessage",
        "UlmarCommsCreateListHostsSupportingInterfaces",
        "UlmarCommsCreateSystemGetAddressesSupportingInterfacesMessage",
        "UlmarCommsCreateHasInterfacesMessage",
        "UlmarCommsCreateListInterfacesMessage",
        "UlmarCommsCreateListEventsMessage",
        "UlmarCommsCreateEventRegistrationMessage",
        "UlmarCommsCreateEventMessage",
        "UlmarCommsPostMessage",
        "UlmarCommsSendErrorMessage",
        "UlmarCommsGetTo",
        "UlmarCommsGetFrom",
        "UlmarCommsGetMode",
        "UlmarCommsGetSenderId",
        "UlmarCommsGetResponseId",
        "UlmarCommsGetResponse",
        "UlmarCommsGetMethod",
        "UlmarCommsGetMandatoryFields",
        "UlmarCommsMessageHasKey",
        "UlmarCommsMessageValue",
        "UlmarCommsMessageAddKeyValue",
        "UlmarCommsMessageId",
        "UlmarCommsIncCounterMessage",
        "UlmarCommsDestroyMessage",
        "UlmarCommsSetOptionNumber",
        "UlmarCommsSetOptionString",
        "UlmarCommsSetLogger",
        "UlmarCommsSetLoggerLevel",
        "UlmarCommsSocketsSetLogger",
        "UlmarCommsSocketsSetLoggerLevel",
        "UlmarCommsSocketsSetOptionString",
        "UlmarCommsScoketsSetOptionNumber",
    };
    ASSERT_EQ(expected.size(), 43u);
    std::set<std::string> exported = definedDynamicSymbols(ULMARCOMMS_LIBRARY_FILE);
    // The version node itself shows up as a defined absolute symbol.
    exported.erase("ULMARCOMMS_1");
    EXPECT_EQ(exported, expected);
}

} // namespace
