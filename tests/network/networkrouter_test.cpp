// The network router's table: host ids, entries and their texts, the known
// hosts, interface texts, start with the router switched off, and posting to
// hosts that cannot be reached. No connection is made here except to a port
// that refuses it.
#include "network/networkconnection.h"
#include "network/networkinterface.h"
#include "network/networkrouter.h"
#include "platform/socket.h"

#include "network/network_support.h"
#include "support/logcapture.h"
#include "support/scopedhostname.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

using UlmarComms::MessageItem;
using UlmarComms::MessageRef;
using UlmarComms::NetworkRouter;
using UlmarComms::NetworkRouterConnection;
using UlmarComms::NetworkRouterInterface;
using UlmarCommsSystem::SocketAddress;
using namespace UlmarCommsTest;

namespace {

// A router with two (not started) interfaces on two networks.
class NetworkRouterTable : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(router.add(ip4("10.77.1.1", "34001"), ip4("10.77.1.255", "34001"), ip4("10.77.1.0", "0")));
        ASSERT_TRUE(router.add(ip4("10.77.2.1", "34001"), ip4("10.77.2.255", "34001"), ip4("10.77.2.0", "0")));
        first = router.interfaceAt(0);
        second = router.interfaceAt(1);
    }

    NetworkRouter router;
    NetworkRouterInterface* first = nullptr;
    NetworkRouterInterface* second = nullptr;
};

} // namespace

TEST(NetworkRouterHostIds, RunInOrderOfFirstSightAndAreNeverReused)
{
    NetworkRouter router;
    EXPECT_EQ(router.addHostId("charlie"), 1);
    EXPECT_EQ(router.addHostId("alpha"), 2);
    EXPECT_EQ(router.addHostId("charlie"), 1);
    EXPECT_EQ(router.addHostId("bravo"), 3);
    EXPECT_EQ(router.getHostId("alpha"), 2);
    EXPECT_EQ(router.getHostId("delta"), 0);
    EXPECT_EQ(router.lookUpHostId(3), "bravo");
    EXPECT_EQ(router.lookUpHostId(4), "<unknown>");
    EXPECT_EQ(router.lookUpHostId(0), "<unknown>");
    // Stopping keeps the names and their ids.
    router.stop();
    EXPECT_EQ(router.getHostId("bravo"), 3);
    EXPECT_EQ(router.addHostId("delta"), 4);
}

TEST(NetworkRouterHostIds, NamesAPeerInventsAreRefusedOrBounded)
{
    NetworkRouter router;
    EXPECT_EQ(router.addHostId(""), 0);
    EXPECT_EQ(router.addHostId(std::string(NetworkRouter::MaxHostNameLength + 1, 'x')), 0);
    EXPECT_EQ(router.addHostId(std::string("a\0b", 3)), 0);
    for (size_t i = 0; i < NetworkRouter::MaxHostNames; ++i)
        ASSERT_EQ(router.addHostId("host" + std::to_string(i)), static_cast<int32_t>(i + 1));
    // Full: a newcomer takes the place of the name heard least recently,
    // with an id never given before.
    EXPECT_EQ(router.addHostId("onemore"), static_cast<int32_t>(NetworkRouter::MaxHostNames + 1));
    EXPECT_EQ(router.getHostId("host0"), 0);
    EXPECT_EQ(router.addHostId("host7"), 8);
    const std::string known = router.getKnownHosts(false);
    EXPECT_EQ(static_cast<size_t>(std::count(known.begin(), known.end(), '\n')), NetworkRouter::MaxHostNames);
}

TEST_F(NetworkRouterTable, InfoAboutHostAddsOneEntryPerHostAddressAndInterface)
{
    LogCapture log;
    router.infoAboutHost("hostB", ip4("10.77.1.2", "34001"), first);
    EXPECT_TRUE(log.contains("Adding 'hostB' into the routing table with address of '10.77.1.2:34001'"));
    router.infoAboutHost("hostB", ip4("10.77.1.2", "34001"), first);
    EXPECT_EQ(router.routingTableSize(), 1u);
    EXPECT_EQ(log.count("Adding 'hostB'"), 1u);

    // The same host on another interface, or at another port of its
    // address: new entries under the same id.
    router.infoAboutHost("hostB", ip4("10.77.2.2", "34001"), second);
    router.infoAboutHost("hostB", ip4("10.77.1.2", "34002"), first);
    EXPECT_EQ(router.routingTableSize(), 3u);
    EXPECT_EQ(router.getHostId("hostB"), 1);

    // An interface that is not the router's own is refused.
    router.infoAboutHost("hostC", ip4("10.77.1.3", "34001"), nullptr);
    EXPECT_EQ(router.routingTableSize(), 3u);
    EXPECT_EQ(router.getHostId("hostC"), 0);
}

TEST_F(NetworkRouterTable, AKnownNameMovesToANewAddressOnlyOnceTheOldOneHasGoneQuiet)
{
    // Quiet means QuietPeriods periods without an announcement.
    ScopedSetting period("ulmar.networkrouter.discovery.timeout", 200);
    LogCapture log;
    const std::string moved = "hostB,true,10.77.1.9:34001,10.77.1.0:0,10.77.1.255:34001,10.77.1.1:34001\n";
    router.infoAboutHost("hostB", ip4("10.77.1.2", "34001"), first);
    router.infoAboutHost("hostB", ip4("10.77.1.9", "34001"), first);
    EXPECT_EQ(router.getRoutingTable(), "hostB,true,10.77.1.2:34001,10.77.1.0:0,10.77.1.255:34001,10.77.1.1:34001\n");
    EXPECT_TRUE(log.contains("NetworkRouter::infoAboutHost() Ignored announcement of 'hostB' at '10.77.1.9:34001'"));

    // Once the old address has gone quiet the name moves, under the same id.
    ASSERT_TRUE(waitUntil([&] {
        router.infoAboutHost("hostB", ip4("10.77.1.9", "34001"), first);
        return router.getRoutingTable() == moved;
    }));
    EXPECT_EQ(router.getHostId("hostB"), 1);
    // And it is bound there now: the old address is the newcomer.
    router.infoAboutHost("hostB", ip4("10.77.1.2", "34001"), first);
    EXPECT_EQ(router.getRoutingTable(), moved);
}

TEST_F(NetworkRouterTable, HostsThatFallSilentAgeOutAndDeadOnesNeverKeepALiveHostOut)
{
    {
        // A minute's period: nothing ages while the table fills.
        ScopedSetting period("ulmar.networkrouter.discovery.timeout", 60000);
        for (size_t i = 0; i < NetworkRouter::MaxHostNames; ++i)
            router.infoAboutHost("fake" + std::to_string(i), ip4("10.77.1.7", std::to_string(1000 + i).c_str()), first);
        ASSERT_EQ(router.routingTableSize(), NetworkRouter::MaxHostNames);
    }
    // Quiet after QuietPeriods periods: 150 ms from here on.
    ScopedSetting period("ulmar.networkrouter.discovery.timeout", 50);

    // A real host that keeps announcing stays; the silent ones age out.
    ASSERT_TRUE(waitUntil([&] {
        router.infoAboutHost("real", ip4("10.77.1.2", "34001"), first);
        return router.getKnownHosts(false) == "real\n";
    }));
    EXPECT_EQ(router.routingTableSize(), 1u);
    // And it ages out the same way once it falls silent.
    EXPECT_TRUE(waitUntil([&] { return router.getKnownHosts(false).empty(); }));
    EXPECT_EQ(router.getRoutingTable(), "");
}

TEST_F(NetworkRouterTable, AFullTableOfLiveNamesForgetsTheOldestUnlinkedOneNeverALinkedOne)
{
    // The oldest name has a link, so the next oldest goes for the newcomer.
    NetworkRouterConnection* link = new NetworkRouterConnection(first, ip4("10.77.1.2", "40000"));
    ASSERT_TRUE(router.routingTableNewConnection("linked", first, link));
    for (size_t i = 1; i < NetworkRouter::MaxHostNames; ++i)
        ASSERT_NE(router.addHostId("host" + std::to_string(i)), 0);
    LogCapture log;
    EXPECT_NE(router.addHostId("newcomer"), 0);
    EXPECT_NE(router.getHostId("linked"), 0);
    EXPECT_TRUE(router.hostIsConnected("linked"));
    EXPECT_EQ(router.getHostId("host1"), 0);
    EXPECT_TRUE(log.contains("host names known: forgot the one heard least recently"));
    UlmarComms::DataFrameHandler::release(link);
    EXPECT_FALSE(router.hostIsConnected("linked"));
}

TEST_F(NetworkRouterTable, TextsOfTheTableAndInterfacesAndAStopThatEndsBothButKeepsTheNames)
{
    LogCapture log;
    // The routing table says which hosts still need a connection.
    router.infoAboutHost("zulu", ip4("10.77.1.2", "34001"), first);
    router.infoAboutHost("alpha", ip4("10.77.2.3", "34001"), second);
    EXPECT_EQ(router.getRoutingTable(),
              "zulu,true,10.77.1.2:34001,10.77.1.0:0,10.77.1.255:34001,10.77.1.1:34001\n"
              "alpha,true,10.77.2.3:34001,10.77.2.0:0,10.77.2.255:34001,10.77.2.1:34001\n");
    std::ostringstream out;
    router.getCurrentNetworkInterfaces(out);
    EXPECT_EQ(out.str(),
              "interfaces=2\n"
              "interface0=10.77.1.0:0,10.77.1.255:34001,10.77.1.1:34001\n"
              "interface1=10.77.2.0:0,10.77.2.255:34001,10.77.2.1:34001\n");

    // Every name known, in name order, even after a stop, which shuts
    // down every interface and empties the table.
    EXPECT_EQ(router.getKnownHosts(false), "alpha\nzulu\n");
    EXPECT_EQ(router.getKnownHosts(true), "alpha\nzulu\n");
    router.stop();
    EXPECT_TRUE(log.contains("NetworkRouter::stop() Shuting down interface 0 of 2"));
    EXPECT_TRUE(log.contains("NetworkRouter::stop() Shuting down interface 1 of 2"));
    EXPECT_EQ(router.interfaceCount(), 0u);
    EXPECT_EQ(router.routingTableSize(), 0u);
    EXPECT_EQ(router.getRoutingTable(), "");
    EXPECT_EQ(router.getKnownHosts(false), "alpha\nzulu\n");
    EXPECT_EQ(router.getHostInfo("whoever"), "host:whoever\n");
}

TEST_F(NetworkRouterTable, RoutingTableIsBoundedUntilItsEntriesGoQuiet)
{
    {
        ScopedSetting period("ulmar.networkrouter.discovery.timeout", 60000);
        for (size_t i = 0; i < NetworkRouter::MaxRoutingTableEntries + 10; ++i) {
            const std::string port = std::to_string(1000 + i);
            router.infoAboutHost("hostB", ip4("10.77.1.2", port.c_str()), first);
        }
        EXPECT_EQ(router.routingTableSize(), NetworkRouter::MaxRoutingTableEntries);
        router.infoAboutHost("hostC", ip4("10.77.1.3", "34001"), first);
        EXPECT_EQ(router.getRoutingTable().find("hostC"), std::string::npos);
    }
    // Once those entries are quiet, a full table takes a new host at once.
    ScopedSetting period("ulmar.networkrouter.discovery.timeout", 50);
    EXPECT_TRUE(waitUntil([&] {
        router.infoAboutHost("hostC", ip4("10.77.1.3", "34001"), first);
        return router.getRoutingTable().find("hostC,true,10.77.1.3:34001") != std::string::npos;
    }));
}

TEST_F(NetworkRouterTable, PostToAnUnknownHostTakesTheMessage)
{
    MessageRef item(MessageItem::create());
    ASSERT_TRUE(item->set("nowhere@pump", "me@pump", "m", "1"));
    EXPECT_FALSE(router.post("nowhere", item.share()));
    EXPECT_EQ(item->count(), 1) << "the router dropped its reference";
    EXPECT_FALSE(router.post("nowhere", UlmarComms::CommandMessage::NetworkHostName, "x"));
    EXPECT_FALSE(router.post("nowhere", MessageRef()));
}

TEST(NetworkRouterPost, HostWhoseListenerIsDownEndsWithoutAConnection)
{
    ASSERT_TRUE(UlmarCommsSystem::Socket::init(2));
    {
        LogCapture log;
        NetworkRouter router;
        const unsigned short closed = freeLoopbackPort();
        ASSERT_TRUE(
            router.add(loopback(freeLoopbackPort()), loopback(freeLoopbackPort(SOCK_DGRAM)), ip4("127.0.0.0", "0")));
        router.infoAboutHost("hostB", loopback(closed), router.interfaceAt(0));
        // Usually the connect only starts here: the message waits on the new
        // connection, which is stored at once and fails on a worker. A
        // refusal the kernel gives at once fails the post; the router takes
        // the message either way.
        MessageRef item(MessageItem::create());
        ASSERT_TRUE(item->set("hostB@pump", "me@pump", "m", "1"));
        if (router.post("hostB", std::move(item))) {
            EXPECT_TRUE(waitUntil([&] { return log.contains("NetworkRouterConnection::onError("); }));
        } else {
            EXPECT_TRUE(log.contains("NetworkRouter::post( %message% ) Failed to on connectTo( '127.0.0.1:" +
                                     std::to_string(closed) + "' )"));
        }
        EXPECT_TRUE(waitUntil([&] { return !router.hostIsConnected("hostB"); }));
        EXPECT_NE(router.getRoutingTable().find("hostB,true,"), std::string::npos);
        EXPECT_EQ(router.interfaceAt(0)->connectionCount(), 0u);

        // The entry's own connect starts one too and counts as connected,
        // since starting it a second time fails while it is under way.
        UlmarComms::NetworkRouterRoutingTableEntry entry;
        entry.m_address = loopback(closed);
        entry.m_pInterface = router.interfaceAt(0);
        EXPECT_TRUE(entry.connect());
        EXPECT_NE(entry.m_pConnection, nullptr);
        EXPECT_FALSE(entry.post(MessageRef()));
    }
    UlmarCommsSystem::Socket::deinit();
}

TEST(NetworkRouterStart, SwitchedOffStartsNothing)
{
    LogCapture log;
    ScopedSetting off("ulmar.networkrouter", 0);
    ScopedSetting discovery("ulmar.networkrouter.discovery", 1);
    ScopedSetting master("ulmar.networkrouter.isMaster", 1);
    NetworkRouter router;
    EXPECT_TRUE(router.start());
    EXPECT_EQ(router.interfaceCount(), 0u);
    EXPECT_FALSE(router.isMaster());
    EXPECT_TRUE(log.contains("Not starting the network router as defined in configureation."));
    router.stop();
    EXPECT_TRUE(log.contains("NetworkRouter::stop() start"));
    EXPECT_TRUE(log.contains("NetworkRouter::stop() stop"));
}

TEST(NetworkRouterStart, FlagsAreReadInOrderSoOverridesWinOverMaster)
{
    ScopedSetting on("ulmar.networkrouter", 1);
    ScopedSetting ip4Off("ulmar.networkrouter.ip4", 0);
    ScopedSetting master("ulmar.networkrouter.isMaster", 1);
    // Stealth mode is read after the master flag and turns it off again.
    for (const int stealth : {0, 1}) {
        SCOPED_TRACE(stealth);
        ScopedSetting stealthMode("ulmar.networkrouter.inStelthMode", stealth);
        NetworkRouter router;
        EXPECT_TRUE(router.start());
        EXPECT_EQ(router.isMaster(), stealth == 0);
        EXPECT_EQ(router.inStealthMode(), stealth == 1);
        EXPECT_EQ(router.interfaceCount(), 0u);
    }
}

TEST(NetworkRouterStart, EveryInterfaceButLoopbackIsTakenByDefaultAndLoopbackNeverEvenWhenListed)
{
    {
        ScopedSetting addresses("ulmar.networkrouter.ip4.addresses", "*");
        ScopedSetting networks("ulmar.networkrouter.ip4.networks", "");
        NetworkRouter router;
        ASSERT_TRUE(router.buildNetworkInterfaces());
        size_t expected = 0;
        for (const UlmarCommsSystem::NetworkInterface& candidate : UlmarCommsSystem::NetworkInterface::interfaces())
            expected += candidate.isLoopback() ? 0 : 1;
        EXPECT_EQ(router.interfaceCount(), expected);
        for (size_t i = 0; i < router.interfaceCount(); ++i) {
            EXPECT_EQ(router.interfaceAt(i)->getLocalAddress().getPort(), 34001);
            EXPECT_NE(router.interfaceAt(i)->getLocalAddress().asString().rfind("127.", 0), 0u);
        }
    }
    ScopedSetting addresses("ulmar.networkrouter.ip4.addresses", "127.0.0.1");
    ScopedSetting networks("ulmar.networkrouter.ip4.networks", "127.0.0.0");
    NetworkRouter router;
    ASSERT_TRUE(router.buildNetworkInterfaces());
    EXPECT_EQ(router.interfaceCount(), 0u);
}

TEST(NetworkRouterStart, TrustsLoopbackEveryInterfaceSubnetAndTheAllowedNetworksOrRefusesABadList)
{
    ScopedSetting on("ulmar.networkrouter", 1);
    ScopedSetting discovery("ulmar.networkrouter.discovery", 0);
    {
        LogCapture log;
        ScopedSetting allow("ulmar.networkrouter.ip4.allow", "10.0.0.0/8,nonsense");
        NetworkRouter router;
        EXPECT_FALSE(router.start());
        EXPECT_EQ(router.interfaceCount(), 0u);
        EXPECT_TRUE(log.contains("NetworkRouter::start() Refused ulmar.networkrouter.ip4.allow: 'nonsense' is not an "
                                 "IPv4 network"));
    }
    auto address = [](const char* text) { return ip4(text, "1").getIP4HostOrder(); };
    for (const int any : {0, 1}) {
        SCOPED_TRACE(any);
        ScopedSetting allow("ulmar.networkrouter.ip4.allow", "10.0.0.0/8");
        ScopedSetting allowAny("ulmar.networkrouter.ip4.allow.any", any);
        NetworkRouter router;
        ASSERT_TRUE(router.start());
        if (router.interfaceCount() == 0)
            GTEST_SKIP() << "this machine has no interface but loopback";
        // Every interface trusts the same: every interface's address, and
        // the rest only when listed or when any address is.
        for (size_t i = 0; i < router.interfaceCount(); ++i) {
            const UlmarComms::NetworkPolicy& policy = router.interfaceAt(i)->policy();
            for (size_t j = 0; j < router.interfaceCount(); ++j)
                EXPECT_TRUE(policy.allows(router.interfaceAt(j)->getLocalAddress().getIP4HostOrder()));
            EXPECT_TRUE(policy.allows(address("127.0.0.1")));
            EXPECT_TRUE(policy.allows(address("10.200.3.4")));
            EXPECT_EQ(policy.allows(address("203.0.113.7")), any == 1) << policy.describe();
        }
        router.stop();
    }
}

TEST(NetworkRouterQueries, HostsSupportingInterfacesAsksEveryHostAndThisOne)
{
    ScopedHostName name("hostA");
    RecordingSystemRouter systemRouter;
    NetworkRouter router;
    router.add(&systemRouter);
    router.addHostId("hostC");
    router.addHostId("hostB");
    ASSERT_TRUE(router.getHostsSupportingInterfaces("hostA@asker", "17", "if.one,if.two", "1"));
    ASSERT_EQ(systemRouter.count(), 3u);
    EXPECT_EQ(systemRouter.value(0, MessageItem::ArgumentKey_To), "hostB@system");
    EXPECT_EQ(systemRouter.value(1, MessageItem::ArgumentKey_To), "hostC@system");
    EXPECT_EQ(systemRouter.value(2, MessageItem::ArgumentKey_To), "hostA@System");
    EXPECT_EQ(systemRouter.value(0, MessageItem::ArgumentKey_Method), "#AddressSupportingInterfaces");
    EXPECT_EQ(systemRouter.value(0, MessageItem::ArgumentKey_From), "hostA@asker");
    EXPECT_EQ(systemRouter.value(0, MessageItem::ArgumentKey_SenderId), "17");
    EXPECT_EQ(systemRouter.value(0, "inters"), "if.one,if.two");
    EXPECT_EQ(systemRouter.value(2, "match"), "1");

    LogCapture log;
    router.setNetworkWorkMode(1);
    EXPECT_FALSE(router.getHostsSupportingInterfaces("a@b", "1", "x", "0"));
    router.setNetworkWorkMode(7);
    EXPECT_FALSE(router.getHostsSupportingInterfaces("a@b", "1", "x", "0"));
    EXPECT_TRUE(log.contains("NetworkRouter::getHostsSupportingInterfaces() Network work mode is unknown!"));
    EXPECT_EQ(systemRouter.count(), 3u);

    EXPECT_TRUE(router.remove(&systemRouter));
    EXPECT_EQ(router.getSystemRouter(), nullptr);
}
