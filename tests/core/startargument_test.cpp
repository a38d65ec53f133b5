// The start argument: overrides of table settings, all or nothing; a text
// without '=' is ignored.
#include "core/core.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

using UlmarComms::Core;

namespace {

// Core is process-wide: every test puts the settings back as it found them.
class StartArgument : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_numbers = Core::instance()->numberSettings();
        m_strings = Core::instance()->stringSettings();
    }
    void TearDown() override
    {
        for (const auto& [key, value] : m_numbers)
            Core::instance()->overrideSetting(key, value);
        for (const auto& [key, value] : m_strings)
            Core::instance()->overrideSetting(key, value);
    }
    Core* core() { return Core::instance(); }

    std::map<std::string, int> m_numbers;
    std::map<std::string, std::string> m_strings;
};

TEST_F(StartArgument, EmptyArgumentOrTextWithoutEqualsChangesNothing)
{
    for (const char* arg : {"", " ; ;  ", "myapp", "ulmar.networkrouter", "my app; ulmar.networkrouter; 1"})
        EXPECT_TRUE(core()->applyStartArgument(arg)) << arg;
    EXPECT_EQ(core()->numberSettings(), m_numbers);
    EXPECT_EQ(core()->stringSettings(), m_strings);
}

TEST_F(StartArgument, OverridesNumbersAndTextsWithBlanksTrimmedAndEqualsSignsInValues)
{
    ASSERT_TRUE(core()->applyStartArgument(
        " ulmar.systemrouter.pipe.name = test1 ;;ulmar.networkrouter=1; socket.selection.noworkerthreads=-3 "));
    EXPECT_EQ(core()->getString("ulmar.systemrouter.pipe.name"), "test1");
    EXPECT_EQ(core()->getNumber("ulmar.networkrouter"), 1);
    EXPECT_EQ(core()->getNumber("socket.selection.noworkerthreads"), -3);
    // A text key keeps its value as it stands, digits included.
    ASSERT_TRUE(core()->applyStartArgument("ulmar.networkrouter.ip4.port=034001"));
    EXPECT_EQ(core()->getString("ulmar.networkrouter.ip4.port"), "034001");
    // The value runs from the first '=' to the item's end.
    ASSERT_TRUE(core()->applyStartArgument("ulmar.systemrouter.pipe.name=a=b"));
    EXPECT_EQ(core()->getString("ulmar.systemrouter.pipe.name"), "a=b");
}

TEST_F(StartArgument, RefusedItemOrKeyNotInTheTableChangesNothingAtAll)
{
    const char* refused[] = {
        "ulmar.networkrouter=1;no.such.key=3", // unknown key
        "ulmar.networkrouter=1;ulmar.networkrouter", // item without '='
        "ulmar.networkrouter=yes", // not a number
        "ulmar.networkrouter=1x", // trailing garbage
        "ulmar.networkrouter=", // empty number
        "ulmar.networkrouter=99999999999", // out of range
        "Ulmar.NetworkRouter=1", // keys are case-sensitive
    };
    for (const char* arg : refused) {
        EXPECT_FALSE(core()->applyStartArgument(arg)) << arg;
        EXPECT_EQ(core()->numberSettings(), m_numbers) << arg;
        EXPECT_EQ(core()->stringSettings(), m_strings) << arg;
    }
    // Keys added later are not table keys.
    core()->addSetting("application.own.key", 5);
    EXPECT_FALSE(core()->applyStartArgument("application.own.key=6"));
    EXPECT_EQ(core()->getNumber("application.own.key"), 5);
}

} // namespace
