// The trust policy's CIDR parsing and matching, table-driven.
#include "network/networkpolicy.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

using UlmarComms::Ip4Network;
using UlmarComms::NetworkPolicy;

namespace {

uint32_t addr(const char* text)
{
    in_addr parsed{};
    EXPECT_EQ(inet_pton(AF_INET, text, &parsed), 1) << text;
    return ntohl(parsed.s_addr);
}

} // namespace

TEST(NetworkPolicy, ParsesNetworksAndSaysWhatIsWrongWithBadOnes)
{
    const struct {
        const char* text;
        const char* parsed; // null: refused
        const char* errorPart; // a piece of the error when refused
    } cases[] = {
        {"10.1.2.0/24", "10.1.2.0/24", nullptr},
        {" 192.168.0.0/16 ", "192.168.0.0/16", nullptr},
        {"10.1.2.3", "10.1.2.3/32", nullptr},
        {"0.0.0.0/0", "0.0.0.0/0", nullptr},
        {"10.1.2.3/32", "10.1.2.3/32", nullptr},
        {"10.1.2.3/24", nullptr, "host bits set beyond /24; the network is 10.1.2.0/24"},
        {"10.1.2.0/33", nullptr, "prefix length must be a number from 0 to 32"},
        {"10.1.2.0/", nullptr, "prefix length"},
        {"10.1.2.0/-1", nullptr, "prefix length"},
        {"10.1.2.0/2a", nullptr, "prefix length"},
        {"10.1.2.0/024", nullptr, "prefix length"},
        {"10.1", nullptr, "'10.1' is not a dotted IPv4 address"},
        {"256.1.1.1/8", nullptr, "not a dotted IPv4 address"},
        {"host.example/24", nullptr, "not a dotted IPv4 address"},
        {"", nullptr, "not a dotted IPv4 address"},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.text);
        Ip4Network network;
        std::string error;
        const bool ok = UlmarComms::parseIp4Network(item.text, network, error);
        ASSERT_EQ(ok, item.parsed != nullptr) << error;
        if (ok)
            EXPECT_EQ(network.asString(), item.parsed);
        else
            EXPECT_NE(error.find(item.errorPart), std::string::npos) << error;
    }
}

TEST(NetworkPolicy, ListsMatchingAndTheDefaultTrust)
{
    std::vector<Ip4Network> networks;
    std::string error;
    ASSERT_TRUE(UlmarComms::parseIp4NetworkList(" 10.0.0.0/8 ,, 192.168.5.7 ,", networks, error)) << error;
    ASSERT_EQ(networks.size(), 2u);
    EXPECT_FALSE(UlmarComms::parseIp4NetworkList("10.0.0.0/8,bad", networks, error));
    EXPECT_NE(error.find("'bad'"), std::string::npos) << error;

    // Loopback alone by default; listed networks and "any" widen it.
    NetworkPolicy policy;
    const struct {
        const char* address;
        bool byDefault;
        bool withList;
    } cases[] = {
        {"127.0.0.1", true, true},       {"127.255.0.9", true, true}, {"10.77.1.2", false, true},
        {"10.255.255.255", false, true}, {"11.0.0.1", false, false},  {"192.168.5.7", false, true},
        {"192.168.5.8", false, false},   {"0.0.0.0", false, false},
    };
    for (const auto& item : cases)
        EXPECT_EQ(policy.allows(addr(item.address)), item.byDefault) << item.address;
    for (const Ip4Network& network : networks)
        policy.allow(network);
    policy.allow(networks[0]);
    EXPECT_EQ(policy.describe(), "127.0.0.0/8,10.0.0.0/8,192.168.5.7/32");
    for (const auto& item : cases)
        EXPECT_EQ(policy.allows(addr(item.address)), item.withList) << item.address;
    policy.allowAny(true);
    EXPECT_TRUE(policy.allows(addr("11.0.0.1")));
    EXPECT_EQ(policy.describe(), "any");

    // An interface's subnet from its network and broadcast addresses.
    Ip4Network subnet;
    ASSERT_TRUE(UlmarComms::ip4NetworkFromBroadcast(addr("10.77.1.0"), addr("10.77.1.255"), subnet));
    EXPECT_EQ(subnet.asString(), "10.77.1.0/24");
    ASSERT_TRUE(UlmarComms::ip4NetworkFromBroadcast(addr("10.77.1.9"), addr("10.77.1.9"), subnet));
    EXPECT_EQ(subnet.asString(), "10.77.1.9/32");
    EXPECT_FALSE(UlmarComms::ip4NetworkFromBroadcast(addr("10.77.1.0"), addr("10.77.1.254"), subnet));
    EXPECT_FALSE(UlmarComms::ip4NetworkFromBroadcast(addr("10.77.1.1"), addr("10.77.1.255"), subnet));
}
