// Addresses: parsing, printing, the host rules, equality, matching, and the
// shared text splitters.
#include "core/address.h"

#include "support/scopedhostname.h"

#include <gtest/gtest.h>

#include <string>
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

TEST_F(AddressTest, HostAndPathParseAndPrintBack)
{
    Address address("beta@a/b");
    EXPECT_EQ(address.host(), "beta");
    EXPECT_EQ(address.parts(), (Parts{"a", "b"}));
    EXPECT_EQ(address.toString(), "beta@a/b");
}

TEST_F(AddressTest, PathWithoutHostGetsTheLocalHost)
{
    Address address("a/b");
    EXPECT_EQ(address.host(), "alpha");
    EXPECT_EQ(address.parts(), (Parts{"a", "b"}));
    EXPECT_EQ(address.toString(), "alpha@a/b");
}

TEST_F(AddressTest, HostWithoutPathPrintsWithItsAt)
{
    Address address("beta@");
    EXPECT_EQ(address.host(), "beta");
    EXPECT_TRUE(address.parts().empty());
    EXPECT_EQ(address.toString(), "beta@");
}

TEST_F(AddressTest, LoneAtAndEmptyTextGiveTheLocalHostAndNoParts)
{
    for (const char* text : {"@", ""}) {
        SCOPED_TRACE(text);
        Address address(text);
        EXPECT_EQ(address.host(), "alpha");
        EXPECT_TRUE(address.parts().empty());
        EXPECT_EQ(address.toString(), "alpha@");
    }
    Address fromNull(static_cast<const char*>(nullptr));
    EXPECT_EQ(fromNull.host(), "alpha");
    EXPECT_TRUE(fromNull.parts().empty());
}

TEST_F(AddressTest, SlashRunsAndEdgesProduceNoEmptyNames)
{
    EXPECT_EQ(Address("x//y/").parts(), (Parts{"x", "y"}));
    for (const char* text : {"@/system", "@system", "@//system/"}) {
        SCOPED_TRACE(text);
        Address address(text);
        EXPECT_EQ(address.parts(), (Parts{"system"}));
        EXPECT_EQ(address.toString(), "alpha@system") << "printing adds no leading slash";
    }
    EXPECT_TRUE(Address("beta@///").parts().empty());
}

TEST_F(AddressTest, OnlyTheFirstAtSeparates)
{
    Address address("h@a@b/c");
    EXPECT_EQ(address.host(), "h");
    EXPECT_EQ(address.parts(), (Parts{"a@b", "c"}));
}

TEST_F(AddressTest, DotsNeverSplit)
{
    Address address("beta@quendrelis.ulmar.comms.system");
    EXPECT_EQ(address.parts(), (Parts{"quendrelis.ulmar.comms.system"}));
}

TEST_F(AddressTest, SetWithoutAtKeepsTheHostAndReplacesThePath)
{
    Address address("beta@x/y/z");
    address.set("p/q");
    EXPECT_EQ(address.host(), "beta");
    EXPECT_EQ(address.parts(), (Parts{"p", "q"}));
    address.set("gamma@r");
    EXPECT_EQ(address.host(), "gamma");
    EXPECT_EQ(address.parts(), (Parts{"r"}));
}

TEST_F(AddressTest, SetWithEmptyTextKeepsEverything)
{
    Address address("beta@x/y");
    address.set("");
    EXPECT_EQ(address.host(), "beta");
    EXPECT_EQ(address.parts(), (Parts{"x", "y"}));
}

TEST_F(AddressTest, DefaultConstructionIsEmpty)
{
    Address address;
    EXPECT_TRUE(address.host().empty());
    EXPECT_TRUE(address.parts().empty());
    EXPECT_EQ(address.toString(), "") << "no host, no @";
}

// ------------------------------------------------------------- host rules

TEST_F(AddressTest, LocalhostSurvivesParsingUntilSetHost)
{
    Address address("localhost@a");
    EXPECT_EQ(address.host(), "localhost");
    address.setHost();
    EXPECT_EQ(address.host(), "alpha");
    EXPECT_EQ(address.parts(), (Parts{"a"}));
}

TEST_F(AddressTest, SetHostReplacesOnlyEmptyOrExactLocalhost)
{
    Address other("beta@a");
    other.setHost();
    EXPECT_EQ(other.host(), "beta");

    Address capitalised("LocalHost@a");
    capitalised.setHost();
    EXPECT_EQ(capitalised.host(), "LocalHost");

    Address longer("localhost2@a");
    longer.setHost();
    EXPECT_EQ(longer.host(), "localhost2");

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

TEST_F(AddressTest, MatchIsACaseInsensitivePrefixTestScoringCommonNames)
{
    int score = -1;
    EXPECT_TRUE(Address("A/b").match(Address("a/B/c"), score));
    EXPECT_EQ(score, 2);
    score = -1;
    EXPECT_TRUE(Address("a/B/c").match(Address("A/b"), score)) << "prefix in either direction";
    EXPECT_EQ(score, 2);

    for (const char* query : {"x", "x/y", "x/y/z"}) {
        SCOPED_TRACE(query);
        score = -1;
        EXPECT_TRUE(Address("x").match(Address(query), score));
        EXPECT_EQ(score, 1);
    }
    score = -1;
    EXPECT_TRUE(Address("x/y").match(Address("x"), score));
    EXPECT_EQ(score, 1);
}

TEST_F(AddressTest, MismatchLeavesTheScoreUntouched)
{
    int score = 77;
    EXPECT_FALSE(Address("a/b").match(Address("a/c"), score));
    EXPECT_EQ(score, 77);
    EXPECT_FALSE(Address("ab").match(Address("a"), score)) << "lengths differ";
    EXPECT_FALSE(Address("a").match(Address("ab"), score));
    EXPECT_FALSE(Address("b/a").match(Address("a/a"), score));
    EXPECT_EQ(score, 77);
}

TEST_F(AddressTest, EmptyPathsMatchWithScoreZero)
{
    int score = -1;
    EXPECT_TRUE(Address("beta@").match(Address("a/b"), score));
    EXPECT_EQ(score, 0);
    score = -1;
    EXPECT_TRUE(Address("a/b").match(Address("beta@"), score));
    EXPECT_EQ(score, 0);
    score = -1;
    EXPECT_TRUE(Address("beta@").match(Address("gamma@"), score));
    EXPECT_EQ(score, 0);
}

TEST_F(AddressTest, MatchIgnoresHosts)
{
    int score = -1;
    EXPECT_TRUE(Address("beta@svc/echo").match(Address("gamma@SVC/Echo"), score));
    EXPECT_EQ(score, 2);
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
}

TEST(SplitOn, ListFormTreatsDelimitersAsACharacterSet)
{
    std::vector<std::string> out;
    splitOn("a-b+c+-d", "+-", out);
    EXPECT_EQ(out, (Parts{"a", "b", "c", "d"}));
}

TEST(SplitOn, ListFormOfOnlyDelimitersOrNothingIsEmpty)
{
    std::vector<std::string> out{"stale"};
    splitOn("////", "/", out);
    EXPECT_TRUE(out.empty());
    out.push_back("stale");
    splitOn("", "/", out);
    EXPECT_TRUE(out.empty());
}

TEST(SplitOn, PairFormSplitsAtTheFirstDelimiter)
{
    std::string left = "L";
    std::string right = "R";
    EXPECT_TRUE(splitOn("key=value=more", "=", left, right));
    EXPECT_EQ(left, "key");
    EXPECT_EQ(right, "value=more");

    EXPECT_TRUE(splitOn("a:b=c", "=:", left, right)) << "the first of any delimiter character";
    EXPECT_EQ(left, "a");
    EXPECT_EQ(right, "b=c");

    EXPECT_TRUE(splitOn("=tail", "=", left, right));
    EXPECT_EQ(left, "");
    EXPECT_EQ(right, "tail");

    EXPECT_TRUE(splitOn("head=", "=", left, right));
    EXPECT_EQ(left, "head");
    EXPECT_EQ(right, "");
}

TEST(SplitOn, PairFormWithoutDelimiterLeavesTheOutputs)
{
    std::string left = "L";
    std::string right = "R";
    EXPECT_FALSE(splitOn("nothing", "=:", left, right));
    EXPECT_EQ(left, "L");
    EXPECT_EQ(right, "R");
    EXPECT_FALSE(splitOn("", "=", left, right));
    EXPECT_EQ(left, "L");
    EXPECT_EQ(right, "R");
}
