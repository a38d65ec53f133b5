// Addresses: parsing, printing, the host rules, equality, matching, and the
// shared text splitters.
#include "core/address.h"

#include "support/scopedhostname.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using UlmarComms::Address;
using UlmarComms::splitOn;
using UlmarCommsTest::ScopedHostName;

namespace {

using Parts = std::vector<std::string>;

// Every test runs on a host with a known name.
class AddressTest : public ::testing::Test {
protected:
    ScopedHostName m_host{"alpha"};
};

} // namespace

// ----------------------------------------------------------------- parsing

TEST_F(AddressTest, TextsParseIntoHostAndPathAndPrintBack)
{
    struct Case {
        const char* text;
        std::string host;
        Parts parts;
        std::string printed;
    };
    const std::vector<Case> cases = {
        {"beta@a/b", "beta", {"a", "b"}, "beta@a/b"},
        {"a/b", "alpha", {"a", "b"}, "alpha@a/b"}, // no host: the local host
        {"beta@", "beta", {}, "beta@"},
        {"@", "alpha", {}, "alpha@"},
        {"", "alpha", {}, "alpha@"},
        {"x//y/", "alpha", {"x", "y"}, "alpha@x/y"}, // slash runs and edges give no empty names
        {"@/system", "alpha", {"system"}, "alpha@system"}, // printing adds no leading slash
        {"@system", "alpha", {"system"}, "alpha@system"},
        {"@//system/", "alpha", {"system"}, "alpha@system"},
        {"beta@///", "beta", {}, "beta@"},
        {"h@a@b/c", "h", {"a@b", "c"}, "h@a@b/c"}, // only the first @ separates
        {"beta@quendrelis.ulmar.comms.system",
         "beta",
         {"quendrelis.ulmar.comms.system"},
         "beta@quendrelis.ulmar.comms.system"}, // dots never split
        {"localhost@a", "localhost", {"a"}, "localhost@a"}, // kept until setHost()
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        Address address(c.text);
        EXPECT_EQ(address.host(), c.host);
        EXPECT_EQ(address.parts(), c.parts);
        EXPECT_EQ(address.toString(), c.printed);
    }
    Address fromNull(static_cast<const char*>(nullptr));
    EXPECT_EQ(fromNull.host(), "alpha");
    EXPECT_TRUE(fromNull.parts().empty());
    Address empty;
    EXPECT_TRUE(empty.host().empty());
    EXPECT_TRUE(empty.parts().empty());
    EXPECT_EQ(empty.toString(), "") << "no host, no @";
}

TEST_F(AddressTest, SetReplacesThePathAndTheHostOnlyWhenGiven)
{
    Address address("beta@x/y/z");
    address.set("");
    EXPECT_EQ(address.toString(), "beta@x/y/z") << "an empty text keeps everything";
    address.set("p/q");
    EXPECT_EQ(address.host(), "beta");
    EXPECT_EQ(address.parts(), (Parts{"p", "q"}));
    address.set("gamma@r");
    EXPECT_EQ(address.host(), "gamma");
    EXPECT_EQ(address.parts(), (Parts{"r"}));
}

// ------------------------------------------------------------- host rules

TEST_F(AddressTest, SetHostReplacesOnlyEmptyOrExactLocalhost)
{
    for (const auto& [text, host] : std::vector<std::pair<const char*, const char*>>{{"localhost@a", "alpha"},
                                                                                     {"beta@a", "beta"},
                                                                                     {"LocalHost@a", "LocalHost"},
                                                                                     {"localhost2@a", "localhost2"}}) {
        Address address(text);
        address.setHost();
        EXPECT_EQ(address.host(), host) << text;
        EXPECT_EQ(address.parts(), (Parts{"a"}));
    }
    Address empty;
    empty.setHost();
    EXPECT_EQ(empty.host(), "alpha");
}

TEST_F(AddressTest, TheHostNameIsReadWhenParsing)
{
    Address before("a");
    ScopedHostName renamed("delta");
    Address after("a");
    EXPECT_EQ(before.host(), "alpha");
    EXPECT_EQ(after.host(), "delta");
}

// ------------------------------------------------------------------ copies

TEST_F(AddressTest, CopiesTakeHostAndPathAndStayIndependent)
{
    Address original("beta@a/b");
    Address copied(original);
    EXPECT_EQ(copied.host(), "beta");
    EXPECT_EQ(copied.parts(), (Parts{"a", "b"}));

    Address target("gamma@x/y/z");
    target.copy(original);
    EXPECT_EQ(target.host(), "beta");
    EXPECT_EQ(target.parts(), (Parts{"a", "b"}));

    Address assigned;
    assigned = original;
    original.set("other@c");
    EXPECT_EQ(assigned.toString(), "beta@a/b");
    EXPECT_EQ(copied.toString(), "beta@a/b");
}

// ---------------------------------------------------------------- equality

TEST_F(AddressTest, EqualityComparesPathsOnlyByteForByte)
{
    EXPECT_TRUE(Address("alpha@a/b") == Address("beta@a/b"));
    EXPECT_FALSE(Address("a/b") == Address("a/B"));
    EXPECT_FALSE(Address("a/b") == Address("a/b/c"));
    EXPECT_FALSE(Address("a/b/c") == Address("a/b"));
    EXPECT_TRUE(Address("beta@") == Address("gamma@"));
}

// ---------------------------------------------------------------- matching

TEST_F(AddressTest, MatchIsACaseInsensitivePrefixTestOfPathsScoringCommonNames)
{
    struct Case {
        const char* left;
        const char* right;
        int score; // -1: no match, and the score is left alone
    };
    const std::vector<Case> cases = {
        {"A/b", "a/B/c", 2},
        {"a/B/c", "A/b", 2}, // a prefix in either direction
        {"x", "x", 1},
        {"x", "x/y", 1},
        {"x", "x/y/z", 1},
        {"x/y", "x", 1},
        {"beta@", "a/b", 0},
        {"a/b", "beta@", 0},
        {"beta@", "gamma@", 0}, // empty paths
        {"beta@svc/echo", "gamma@SVC/Echo", 2}, // hosts do not count
        {"a/b", "a/c", -1},
        {"ab", "a", -1},
        {"a", "ab", -1},
        {"b/a", "a/a", -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.left) + " ~ " + c.right);
        int score = 77;
        EXPECT_EQ(Address(c.left).match(Address(c.right), score), c.score >= 0);
        EXPECT_EQ(score, c.score >= 0 ? c.score : 77);
    }
}

// --------------------------------------------------------------- splitters

TEST(SplitOn, ListFormKeepsEveryNonEmptyRunInOrder)
{
    std::vector<std::string> out{"left", "over"};
    splitOn("a,b;;c", ",;", out);
    EXPECT_EQ(out, (Parts{"a", "b", "c"}));
    splitOn(",,lead,trail,,", ",", out);
    EXPECT_EQ(out, (Parts{"lead", "trail"})) << "the list is cleared first";
    splitOn("no delimiter here", ",", out);
    EXPECT_EQ(out, (Parts{"no delimiter here"}));
    splitOn("a-b+c+-d", "+-", out);
    EXPECT_EQ(out, (Parts{"a", "b", "c", "d"})) << "delimiters are a character set";
    splitOn("////", "/", out);
    EXPECT_TRUE(out.empty());
    out.push_back("stale");
    splitOn("", "/", out);
    EXPECT_TRUE(out.empty());
}

TEST(SplitOn, PairFormSplitsAtTheFirstDelimiterOrLeavesTheOutputs)
{
    const struct {
        const char* text;
        const char* delimiters;
        bool split;
        const char* left;
        const char* right;
    } cases[] = {
        {"key=value=more", "=", true, "key", "value=more"},
        {"a:b=c", "=:", true, "a", "b=c"}, // the first of any delimiter character
        {"=tail", "=", true, "", "tail"},
        {"head=", "=", true, "head", ""},
        {"nothing", "=:", false, "L", "R"}, // no delimiter: the outputs stay
        {"", "=", false, "L", "R"},
    };
    for (const auto& c : cases) {
        std::string left = "L";
        std::string right = "R";
        EXPECT_EQ(splitOn(c.text, c.delimiters, left, right), c.split) << c.text;
        EXPECT_EQ(left, c.left) << c.text;
        EXPECT_EQ(right, c.right) << c.text;
    }
}
