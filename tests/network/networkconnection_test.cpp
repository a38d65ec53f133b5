// Network connections over real sockets on loopback: two network routers in
// one process, each with an interface whose listener is on 127.0.0.1. The
// process has one host name, so both ends name themselves alike; the tests
// look at what each side's table and system router end up with.
#include "core/bigendian.h"
#include "network/networkconnection.h"
#include "network/networkinterface.h"
#include "network/networkrouter.h"
#include "platform/socket.h"

#include "network/network_support.h"
#include "support/logcapture.h"
#include "support/rawpeer.h"
#include "support/scopedhostname.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <thread>

using UlmarComms::CommandMessage;
using UlmarComms::DataFrame;
using UlmarComms::MessageItem;
using UlmarComms::MessageRef;
using UlmarComms::NetworkRouter;
using UlmarComms::NetworkRouterInterface;
using UlmarCommsSystem::SocketAddress;
using namespace UlmarCommsTest;

namespace {

// This process's resident memory in KiB, -1 when unknown.
long residentKiB()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    return -1;
}

MessageItem* request(const char* to, const char* value)
{
    MessageItem* item = MessageItem::create();
    item->set(to, "hostA@asker", "hello", "5");
    item->add("k", value);
    return item;
}

// One side: a network router with one interface on 127.0.0.1 and a
// recording system router.
struct Side {
    // memory: the account every link charges as well (null: none).
    explicit Side(bool listen, std::shared_ptr<UlmarComms::ByteAccount> memory = nullptr)
    {
        router = std::make_unique<NetworkRouter>();
        router->setMemoryAccount(std::move(memory));
        router->add(&systemRouter);
        port = freeLoopbackPort();
        SocketAddress network;
        network.setIP4Address("127.0.0.0", "0");
        router->add(loopback(port), loopback(freeLoopbackPort(SOCK_DGRAM)), network);
        interface = router->interfaceAt(0);
        if (listen)
            listening = interface->messagingStart();
    }
    ~Side() { router->stop(); }

    RecordingSystemRouter systemRouter;
    std::unique_ptr<NetworkRouter> router;
    NetworkRouterInterface* interface = nullptr;
    unsigned short port = 0;
    bool listening = false;
};

class NetworkConnection : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(UlmarCommsSystem::Socket::init(2)); }
    void TearDown() override { UlmarCommsSystem::Socket::deinit(); }

    ScopedHostName name{"hostA"};
};

} // namespace

TEST_F(NetworkConnection, FirstPostConnectsExchangesNamesAndDelivers)
{
    Side a(false);
    Side b(true);
    ASSERT_TRUE(b.listening);
    a.router->infoAboutHost("hostB", loopback(b.port), a.interface);

    MessageItem* item = request("hostB@pump", "one");
    ASSERT_TRUE(a.router->post("hostB", MessageRef(item)));
    ASSERT_TRUE(waitUntil([&] { return b.systemRouter.count() == 1; }));
    EXPECT_EQ(b.systemRouter.value(0, MessageItem::ArgumentKey_To), "hostB@pump");
    EXPECT_EQ(b.systemRouter.value(0, "k"), "one");

    // The acceptor entered the connection under the name that command 100 gave.
    ASSERT_TRUE(waitUntil([&] { return b.router->hostIsConnected("hostA"); }));
    EXPECT_EQ(b.interface->connectionCount(), 1u);
    // The initiator heard 101 and holds its connection in the discovered entry.
    ASSERT_TRUE(waitUntil([&] { return a.router->getKnownHosts(false) == "hostA\nhostB\n"; }));
    EXPECT_TRUE(a.router->hostIsConnected("hostB"));
    EXPECT_EQ(a.router->getRoutingTable().rfind("hostB,false,127.0.0.1:" + std::to_string(b.port) + ",", 0), 0u);
    EXPECT_EQ(a.interface->connectionCount(), 1u);

    // Later posts reuse the connection, in order.
    ASSERT_TRUE(a.router->post("hostB", MessageRef(request("hostB@pump", "two"))));
    ASSERT_TRUE(a.router->post("hostB", MessageRef(request("hostB@pump", "three"))));
    ASSERT_TRUE(waitUntil([&] { return b.systemRouter.count() == 3; }));
    EXPECT_EQ(b.systemRouter.value(1, "k"), "two");
    EXPECT_EQ(b.systemRouter.value(2, "k"), "three");
    EXPECT_EQ(a.interface->connectionCount(), 1u);
    EXPECT_EQ(b.interface->connectionCount(), 1u);
}

TEST_F(NetworkConnection, PeerGoingAwayClearsTheEntryAndTheNextPostReconnects)
{
    Side a(false);
    auto b = std::make_unique<Side>(true);
    const unsigned short port = b->port;
    a.router->infoAboutHost("hostB", loopback(port), a.interface);
    ASSERT_TRUE(a.router->post("hostB", MessageRef(request("hostB@pump", "one"))));
    ASSERT_TRUE(waitUntil([&] { return b->systemRouter.count() == 1; }));
    ASSERT_TRUE(waitUntil([&] { return a.interface->connectionCount() == 1; }));

    b.reset();
    // The drop deletes the connection and leaves the entry, now without one.
    ASSERT_TRUE(waitUntil([&] { return a.interface->connectionCount() == 0; }));
    EXPECT_FALSE(a.router->hostIsConnected("hostB"));
    EXPECT_NE(a.router->getRoutingTable().find("hostB,true,"), std::string::npos);

    // The same host back on the same port: the next post opens a new link.
    RecordingSystemRouter systemRouter;
    NetworkRouter restarted;
    restarted.add(&systemRouter);
    SocketAddress network;
    network.setIP4Address("127.0.0.0", "0");
    ASSERT_TRUE(restarted.add(loopback(port), loopback(freeLoopbackPort(SOCK_DGRAM)), network));
    ASSERT_TRUE(restarted.interfaceAt(0)->messagingStart());
    ASSERT_TRUE(a.router->post("hostB", MessageRef(request("hostB@pump", "again"))));
    ASSERT_TRUE(waitUntil([&] { return systemRouter.count() == 1; }));
    EXPECT_EQ(systemRouter.value(0, "k"), "again");
    EXPECT_TRUE(a.router->hostIsConnected("hostB"));
    restarted.stop();
}

TEST_F(NetworkConnection, HostNameExchangeOnTheWireAndTheClientLeaving)
{
    LogCapture log;
    Side b(true);
    RawPeer client;
    ASSERT_TRUE(client.connectTo(loopback(b.port)));

    // Messages flow before any name is given, but the table stays empty.
    MessageItem* item = request("hostA@pump", "early");
    ASSERT_TRUE(client.sendAll(messageFrame(1, item)));
    MessageItem::release(item);
    ASSERT_TRUE(waitUntil([&] { return b.systemRouter.count() == 1; }));
    EXPECT_EQ(b.systemRouter.value(0, "k"), "early");
    EXPECT_EQ(b.router->routingTableSize(), 0u);

    // Other codes do nothing on a network link.
    ASSERT_TRUE(client.sendAll(commandFrame(2, CommandMessage::AddMessagePump, "rawhost@pump")));
    ASSERT_TRUE(client.sendAll(commandFrame(3, 101 + 1, "rawhost")));
    ASSERT_TRUE(log.waitFor("NetworkRouterConnection::doHandleCommand( 102, 'rawhost' )"));
    EXPECT_EQ(b.router->routingTableSize(), 0u);

    // Command 100 is answered with 101 and this host's name.
    ASSERT_TRUE(client.sendAll(commandFrame(4, CommandMessage::NetworkHostName, "rawhost")));
    unsigned char type = 0;
    uint32_t id = 0;
    std::vector<unsigned char> payload;
    ASSERT_TRUE(client.readFrame(type, id, payload));
    EXPECT_EQ(type, DataFrame::FrameTypeCommand);
    unsigned char code = 0;
    std::string text;
    ASSERT_TRUE(CommandMessage::fromBuffer(payload.data(), static_cast<unsigned>(payload.size()), code, text));
    EXPECT_EQ(code, CommandMessage::NetworkHostNameReply);
    EXPECT_EQ(std::string(text.c_str()), "hostA");
    ASSERT_TRUE(waitUntil([&] { return b.router->hostIsConnected("rawhost"); }));
    EXPECT_EQ(b.router->getKnownHosts(false), "rawhost\n");
    EXPECT_EQ(b.interface->connectionCount(), 1u);

    // The client leaving is forgotten, its connection deleted once.
    client.closeNow();
    ASSERT_TRUE(waitUntil([&] { return b.interface->connectionCount() == 0; }));
    EXPECT_FALSE(b.router->hostIsConnected("rawhost"));
    EXPECT_EQ(b.router->routingTableSize(), 1u);
    EXPECT_NE(b.router->getRoutingTable().find("rawhost,true,127.0.0.1:"), std::string::npos);
}

TEST_F(NetworkConnection, APeerNamingAHostKnownAtAnotherAddressIsRefusedAndGetsNothing)
{
    LogCapture log;
    Side b(true);
    b.router->infoAboutHost("hostB", ip4("127.0.0.2", "34001"), b.interface);

    // A peer on 127.0.0.1 says it is hostB and sends a message behind it:
    // no answer, the link ends, the message goes nowhere.
    for (int attempt = 0; attempt < 5; ++attempt) {
        RawPeer client;
        ASSERT_TRUE(client.connectTo(loopback(b.port)));
        MessageItem* item = request("hostA@pump", "smuggled");
        ASSERT_TRUE(client.sendAll(commandFrame(1, CommandMessage::NetworkHostName, "hostB") + messageFrame(2, item)));
        MessageItem::release(item);
        unsigned char type = 0;
        uint32_t id = 0;
        std::vector<unsigned char> payload;
        EXPECT_FALSE(client.readFrame(type, id, payload)) << "the refused peer was answered";
        EXPECT_TRUE(client.waitForEnd());
    }
    ASSERT_TRUE(waitUntil([&] { return b.interface->connectionCount() == 0; }));
    EXPECT_EQ(b.systemRouter.count(), 0u);
    EXPECT_FALSE(b.router->hostIsConnected("hostB"));
    EXPECT_EQ(b.router->getRoutingTable(),
              "hostB,true,127.0.0.2:34001,127.0.0.0:0," + b.interface->getBroadcastAddress().asString() +
                  ",127.0.0.1:" + std::to_string(b.port) + "\n");
    EXPECT_TRUE(log.contains("Refused link from '127.0.0.1:"));
    EXPECT_TRUE(log.contains("naming host 'hostB', which is known at another address"));
}

TEST_F(NetworkConnection, EntryConnectCountsASecondFailedStartAsConnected)
{
    LogCapture log;
    Side a(false);
    Side b(true);
    UlmarComms::NetworkRouterRoutingTableEntry entry;
    entry.m_address = loopback(b.port);
    entry.m_pInterface = a.interface;
    ASSERT_TRUE(entry.connect());
    ASSERT_NE(entry.m_pConnection, nullptr);
    EXPECT_TRUE(entry.m_pConnection->isInitiator());
    EXPECT_TRUE(log.contains("NetworkRouterConnection::connect() Failed to do the connect() on the socket."));
    EXPECT_TRUE(entry.connect());
    EXPECT_TRUE(entry.post(MessageRef(request("hostB@pump", "via entry"))));
    EXPECT_TRUE(entry.post(CommandMessage::AddMessagePump, "ignored"));
    ASSERT_TRUE(waitUntil([&] { return b.systemRouter.count() == 1; }));
    EXPECT_EQ(b.systemRouter.value(0, "k"), "via entry");
    // The interface owns the connection; the record only pointed at it.
    a.router->stop();
}

TEST_F(NetworkConnection, BothHostsPostingAtOnce)
{
    Side a(true);
    Side b(true);
    a.router->infoAboutHost("hostB", loopback(b.port), a.interface);
    b.router->infoAboutHost("hostA", loopback(a.port), b.interface);
    std::atomic<int> posted{0};
    std::thread fromA([&] {
        for (int i = 0; i < 20; ++i)
            posted += a.router->post("hostB", MessageRef(request("hostB@pump", "from a"))) ? 1 : 0;
    });
    std::thread fromB([&] {
        for (int i = 0; i < 20; ++i)
            posted += b.router->post("hostA", MessageRef(request("hostA@pump", "from b"))) ? 1 : 0;
    });
    fromA.join();
    fromB.join();
    EXPECT_EQ(posted.load(), 40);
    ASSERT_TRUE(waitUntil([&] { return a.systemRouter.count() == 20 && b.systemRouter.count() == 20; }));
    EXPECT_TRUE(a.router->hostIsConnected("hostB"));
    EXPECT_TRUE(b.router->hostIsConnected("hostA"));
    // Each side opened a link unless the other's arrived first and was used
    // for the answer; a second link between the same hosts is kept.
    EXPECT_GE(a.interface->connectionCount(), 1u);
    EXPECT_LE(a.interface->connectionCount(), 2u);
    EXPECT_EQ(a.interface->connectionCount(), b.interface->connectionCount());
}

TEST_F(NetworkConnection, StopWhileTrafficFlows)
{
    Side a(false);
    auto b = std::make_unique<Side>(true);
    a.router->infoAboutHost("hostB", loopback(b->port), a.interface);
    std::atomic<bool> running{true};
    std::thread sender([&] {
        while (running) {
            a.router->post("hostB", MessageRef(request("hostB@pump", "flood")));
        }
    });
    ASSERT_TRUE(waitUntil([&] { return b->systemRouter.count() > 10; }));
    b.reset();
    a.router->stop();
    running = false;
    sender.join();
    EXPECT_EQ(a.router->interfaceCount(), 0u);
}

TEST_F(NetworkConnection, LinksThatNeverNameTheirHostAreClosedAndOneAddressHoldsFew)
{
    LogCapture log;
    Side b(false);
    b.interface->setHelloTimeout(std::chrono::milliseconds(300));
    ASSERT_TRUE(b.interface->messagingStart());

    RawPeer named(loopback(b.port));
    ASSERT_TRUE(named.sendAll(commandFrame(1, CommandMessage::NetworkHostName, "rawhost")));
    ASSERT_TRUE(waitUntil([&] { return b.router->hostIsConnected("rawhost"); }));
    // A silent link goes once the timeout has passed (the timer looks once
    // a second, so allow a few); the one that named its host stays.
    RawPeer silent(loopback(b.port));
    EXPECT_TRUE(silent.waitForEnd(std::chrono::milliseconds(5000)));
    EXPECT_TRUE(log.contains("Closed link from '127.0.0.1:"));
    EXPECT_TRUE(log.contains("no host name within 300 ms"));
    EXPECT_TRUE(waitUntil([&] { return b.interface->connectionCount() == 1; }));
    EXPECT_TRUE(b.router->hostIsConnected("rawhost"));

    // One source address holds at most MaxLinksPerSource accepted links;
    // the next is closed as it arrives, and the others stay.
    std::vector<std::unique_ptr<RawPeer>> peers;
    for (unsigned i = 1; i < NetworkRouterInterface::MaxLinksPerSource; ++i) {
        peers.push_back(std::make_unique<RawPeer>(loopback(b.port)));
        ASSERT_TRUE(peers.back()->sendAll(commandFrame(1, CommandMessage::NetworkHostName, "rawhost")));
    }
    ASSERT_TRUE(waitUntil([&] { return b.interface->connectionCount() == NetworkRouterInterface::MaxLinksPerSource; }));
    RawPeer onemore(loopback(b.port));
    EXPECT_TRUE(onemore.waitForEnd());
    EXPECT_TRUE(log.waitFor("links from that address already"));
    EXPECT_EQ(b.interface->connectionCount(), NetworkRouterInterface::MaxLinksPerSource);
    EXPECT_FALSE(named.waitForEnd(std::chrono::milliseconds(0)));
}

TEST_F(NetworkConnection, CommandsLargerThanAHostNameEndTheLinkBeforeTheirPayload)
{
    LogCapture log;
    Side b(true);
    // The longest host name is still a hello like any other.
    {
        RawPeer client(loopback(b.port));
        const std::string longest(NetworkRouter::MaxHostNameLength, 'n');
        ASSERT_TRUE(client.sendAll(commandFrame(1, CommandMessage::NetworkHostName, longest.c_str())));
        unsigned char type = 0;
        uint32_t id = 0;
        std::vector<unsigned char> payload;
        ASSERT_TRUE(client.readFrame(type, id, payload));
        EXPECT_EQ(payload[0], CommandMessage::NetworkHostNameReply);
        EXPECT_TRUE(waitUntil([&] { return b.router->hostIsConnected(longest); }));
    }
    // A 60 MiB hello: the header alone ends the link, before a byte of the
    // name is sent, so nothing of it is ever buffered.
    {
        RawPeer client(loopback(b.port));
        const uint32_t size = 60u * 1024u * 1024u;
        Bytes record{CommandMessage::NetworkHostName};
        record.resize(5);
        UlmarComms::writeU32(record.data() + 1, size - 5);
        ASSERT_TRUE(client.sendAll(rawFrame(DataFrame::FrameTypeCommand, size, 1, record)));
        EXPECT_TRUE(client.waitForEnd());
        EXPECT_TRUE(log.contains("Refusing the stream: frame of type 2 announces 62914560 bytes (limit 261"));
    }
    // A record whose own length runs past its frame ends the link as well.
    {
        RawPeer client(loopback(b.port));
        Bytes record{CommandMessage::NetworkHostName};
        record.resize(12, 'x');
        UlmarComms::writeU32(record.data() + 1, 1000);
        ASSERT_TRUE(client.sendAll(rawFrame(DataFrame::FrameTypeCommand, 12, 1, record)));
        EXPECT_TRUE(client.waitForEnd());
        EXPECT_TRUE(log.contains("failed frame get for command"));
    }
    EXPECT_TRUE(waitUntil([&] { return b.interface->connectionCount() == 0; }));
}

TEST_F(NetworkConnection, ALinkClosedInTheMiddleOfALargeFrameGivesItsMemoryBackAsItCloses)
{
    // The service's account sees what the link holds, and gets it back.
    auto memory = std::make_shared<UlmarComms::ByteAccount>(256u * 1024u * 1024u, nullptr, "service");
    Side b(true, memory);
    const long before = residentKiB();
    ASSERT_GT(before, 0);
    {
        // A message frame may be large; the link holds what has arrived of it.
        RawPeer client(loopback(b.port));
        ASSERT_TRUE(client.sendAll(rawFrame(DataFrame::FrameTypeMessage, 40u * 1024u * 1024u, 1, {})));
        ASSERT_TRUE(client.sendAll(Bytes(24u * 1024u * 1024u, 'a')));
        ASSERT_TRUE(waitUntil([&] { return residentKiB() - before > 20 * 1024; }));
        EXPECT_TRUE(waitUntil([&] { return memory->used() >= 24u * 1024u * 1024u; })) << memory->used();
    }
    // Given back when the link ends, with no other link arriving to prompt it.
    EXPECT_TRUE(waitUntil([&] { return b.interface->connectionCount() == 0; }));
    EXPECT_TRUE(waitUntil([&] { return memory->used() == 0; })) << memory->used() << " bytes still charged";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers' allocators keep freed memory resident";
#endif
    EXPECT_TRUE(waitUntil([&] { return residentKiB() - before < 8 * 1024; }))
        << residentKiB() - before << " KiB still held";
}
