// The local link end to end, in one process: a real SystemRouter with its
// LocalSocketServerInterface (the "service") and one or more MessageRouters
// on SocketSystemRouterProxies (the "applications"), talking over a UNIX
// socket with a name unique to each test (one case over TCP on 127.0.0.1).
// Everything waits with deadlines; the reconnection cases take a few seconds
// because the proxy retries every two seconds on a whole-second timer.
#include "link/localsocketserverinterface.h"
#include "link/socketsystemrouterproxy.h"

#include "core/core.h"
#include "messaging/messaging.h"
#include "messaging/messaging_support.h"
#include "platform/socket.h"
#include "platform/sockettimeout.h"
#include "service/systemrouter.h"
#include "support/logcapture.h"
#include "support/rawpeer.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

using MessagingTest::Endpoint;
using MessagingTest::Received;
using UlmarComms::CommandMessage;
using UlmarComms::DataFrame;
using UlmarComms::LocalSocketServerInterface;
using UlmarComms::MessageItem;
using UlmarComms::MessageRef;
using UlmarComms::MessageRouter;
using UlmarComms::SocketMessageRouterProxy;
using UlmarComms::SocketSystemRouterProxy;
using UlmarCommsService::SystemRouter;
using UlmarCommsSystem::Socket;
using UlmarCommsSystem::SocketAddress;
using UlmarCommsSystem::SocketTimeout;
using UlmarCommsTest::LogCapture;
using UlmarCommsTest::rawFrame;
using UlmarCommsTest::RawPeer;
using UlmarCommsTest::uniqueUnixAddress;
using UlmarCommsTest::waitUntil;
using UlmarCommsTest::wireOf;

namespace {

const std::chrono::milliseconds kDeadline(10000);

// A recording pump, kept in pumps and joined to router.
Endpoint& joinPump(std::deque<Endpoint>& pumps, MessageRouter& router, const char* name,
                   const char* interfaces = nullptr)
{
    Endpoint& pump = pumps.emplace_back(router, name, interfaces);
    EXPECT_TRUE(pump.join());
    return pump;
}

// The service: system router, its listener and a router for its own pumps.
struct Service {
    explicit Service(const SocketAddress& address) : server(new LocalSocketServerInterface(&router, address))
    {
        router.addLinkServer(server);
        EXPECT_TRUE(router.start());
        local.setSystemRouter(&router);
        EXPECT_TRUE(local.start());
    }
    // The service shut-down order: routers, system router, links, objects.
    ~Service()
    {
        pumps.clear();
        local.finish();
        router.finish();
        router.remove(&local);
        server->closeAllLinks();
        delete server;
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    Endpoint& join(const char* name) { return joinPump(pumps, local, name); }
    std::string table()
    {
        std::ostringstream out;
        router.dumpSystemRouterTable(out);
        return out.str();
    }
    bool hasEntry(const std::string& address) { return table().find("\n" + address + ",") != std::string::npos; }
    bool hasEntry(const std::string& address, const std::string& interfaces)
    {
        return table().find("\n" + address + "," + interfaces + "\n") != std::string::npos;
    }
    bool waitForEntries(const std::vector<std::string>& addresses)
    {
        return waitUntil(
            [&] {
                for (const std::string& address : addresses)
                    if (!hasEntry(address))
                        return false;
                return true;
            },
            kDeadline);
    }
    // The address applications connect to (with the port the system chose).
    SocketAddress boundAddress()
    {
        SocketAddress bound = server->address();
        if (bound.isIP4Address()) {
            EXPECT_EQ(server->listeningSocket()->getLocalAddress(bound), Socket::NoSocketError);
        }
        return bound;
    }

    SystemRouter router;
    LocalSocketServerInterface* server;
    MessageRouter local;
    std::deque<Endpoint> pumps;
};

// An application: its router on a proxy to the service.
struct Application {
    explicit Application(const SocketAddress& address) : proxy(address)
    {
        router.setSystemRouter(&proxy);
        EXPECT_TRUE(router.start());
    }
    // The pumps leave before the router finishes, as they would in a program.
    ~Application()
    {
        pumps.clear();
        shutdown();
    }
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    Endpoint& join(const char* name, const char* interfaces = nullptr)
    {
        return joinPump(pumps, router, name, interfaces);
    }
    // Starts the link and waits until the service lists every pump joined so far.
    bool connect(Service& service)
    {
        if (!proxy.start())
            return false;
        std::vector<std::string> addresses;
        for (Endpoint& pump : pumps)
            addresses.push_back(pump.address());
        return service.waitForEntries(addresses);
    }

    // The application shut-down order.
    void shutdown()
    {
        if (m_down)
            return;
        m_down = true;
        router.finish();
        proxy.remove(&router);
        proxy.finish();
    }

    SocketSystemRouterProxy proxy;
    MessageRouter router;
    std::deque<Endpoint> pumps;

private:
    bool m_down = false;
};

class LocalLinkTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(Socket::init(3));
        address = uniqueUnixAddress("link_");
    }
    void TearDown() override { Socket::deinit(); }

    SocketAddress address;
};

// Posts a one-way message from one pump to another and waits until the
// receiver holds `total` messages.
bool deliver(Endpoint& from, Endpoint& to, const char* method, size_t total)
{
    return from.pump.post(MessageRef(from.pump.createMessage(to.address().c_str(), method))) == 0 &&
        to.waitForCount(total);
}

} // namespace

// ---------------------------------------------------------------------------
// Announcements and traffic

TEST_F(LocalLinkTest, PumpsAreAnnouncedAndMessagesFlowBothWaysOverUnixAndTcp)
{
    SocketAddress loopback;
    ASSERT_TRUE(loopback.setIP4Address("127.0.0.1", "0"));
    for (const SocketAddress& listenOn : {address, loopback}) {
        SCOPED_TRACE(listenOn.asString());
        Service service(listenOn);
        Endpoint& svc = service.join("svc");
        svc.requestHook = [&](MessageItem* request, const char*, const char*) {
            svc.pump.post(MessageRef(svc.pump.createReplyMessage(request, "pong")));
        };

        Application app(service.boundAddress());
        Endpoint& first = app.join("first");
        Endpoint& second = app.join("second", "ifA,ifB");
        ASSERT_TRUE(app.connect(service)) << service.table();
        EXPECT_EQ(app.proxy.state(), SocketSystemRouterProxy::StateConnected);
        ASSERT_TRUE(service.waitForEntries({svc.address()})) << service.table();
        EXPECT_TRUE(service.hasEntry(second.address(), "ifA-ifB")) << service.table();
        ASSERT_EQ(service.server->links().size(), 1u);

        // Application to service, and the reply back.
        MessageItem* request = first.pump.createMessage(svc.address().c_str(), "ping");
        request->add("payload", "over the link");
        ASSERT_EQ(first.pump.post(MessageRef(request)), 0);
        ASSERT_TRUE(svc.waitForCount(1));
        EXPECT_EQ(svc.received()[0].method, "ping");
        EXPECT_EQ(svc.received()[0].value("payload"), "over the link");
        ASSERT_TRUE(first.waitForCount(1));
        EXPECT_EQ(first.received()[0].kind, Received::Response);
        EXPECT_EQ(first.received()[0].value(MessageItem::ArgumentKey_Response), "pong");

        // Service to application.
        ASSERT_TRUE(deliver(svc, second, "notice", 1));
        EXPECT_EQ(second.received()[0].method, "notice");

        // A burst of one-way messages arrives whole.
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(first.pump.post(MessageRef(first.pump.createMessage(svc.address().c_str(), "tick"))), 0);
        ASSERT_TRUE(svc.waitForCount(51));
    }
}

// ---------------------------------------------------------------------------
// What the service relays

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// The packet form, written here byte by byte: the test's own reading of
// what a peer puts on the wire, independent of the library's writer.
UlmarCommsTest::Bytes packetOf(const Pairs& pairs)
{
    UlmarCommsTest::Bytes bytes = {MessageItem::DataPacket_MessageHead,     0, 0, 0, 0,
                                   static_cast<unsigned char>(pairs.size())};
    auto putU32 = [&](size_t at, uint32_t value) {
        for (int i = 0; i < 4; ++i)
            bytes[at + i] = static_cast<unsigned char>(value >> (24 - 8 * i));
    };
    for (const auto& [key, value] : pairs) {
        const size_t at = bytes.size();
        bytes.resize(at + 5);
        bytes[at] = static_cast<unsigned char>(key.size() + 1);
        putU32(at + 1, static_cast<uint32_t>(value.size() + 1));
        bytes.insert(bytes.end(), key.c_str(), key.c_str() + key.size() + 1);
        bytes.insert(bytes.end(), value.c_str(), value.c_str() + value.size() + 1);
    }
    bytes.push_back(MessageItem::DataPacket_MessageEnd);
    putU32(1, static_cast<uint32_t>(bytes.size()));
    return bytes;
}

// The next message frame a raw peer reads (commands are skipped); its id
// goes to id.
bool readMessagePayload(RawPeer& peer, uint32_t& id, UlmarCommsTest::Bytes& payload)
{
    unsigned char type = DataFrame::FrameTypeNone;
    do {
        if (!peer.readFrame(type, id, payload))
            return false;
    } while (type != DataFrame::FrameTypeMessage);
    return true;
}

} // namespace

// Two plain peers on the service: what one writes for the other arrives as
// the very bytes it wrote when its packet is canonical (duplicate keys, an
// address that names "localhost", the largest packet a frame may carry), and
// as the packet's canonical form when it is not; frame ids are the receiving
// link's own.
TEST_F(LocalLinkTest, ThePacketsOfRelayedMessagesArriveByteForByte)
{
    Service service(address);
    const std::string host = UlmarComms::Core::instance()->getHostName();
    const std::string rx = host + "@rx";
    RawPeer sender(address);
    RawPeer receiver(address);
    ASSERT_TRUE(receiver.sendAll(wireOf(DataFrame(1, CommandMessage::AddMessagePump, rx.c_str()))));
    ASSERT_TRUE(service.waitForEntries({rx}));

    const Pairs head = {{"_t", rx}, {"_f", host + "@tx"}, {"_m", "relay"}};
    auto with = [&](Pairs more) {
        Pairs pairs = head;
        pairs.insert(pairs.end(), more.begin(), more.end());
        return pairs;
    };
    const UlmarCommsTest::Bytes ordinary = packetOf(with({{"_s", "1"}, {"payload", std::string(150, 'p')}}));
    const UlmarCommsTest::Bytes duplicates =
        packetOf(with({{"k", "first"}, {"k", "second"}, {"_m", "later"}, {"_t", rx}}));
    const UlmarCommsTest::Bytes localhost = packetOf(with({{"_fx", "localhost/x"}, {"_s", "localhost"}}));
    const size_t room = DataFrame::MaxDataSize - packetOf(with({{"big", ""}})).size();
    const UlmarCommsTest::Bytes largest = packetOf(with({{"big", std::string(room, 'b')}}));
    ASSERT_EQ(largest.size(), DataFrame::MaxDataSize);
    // Not canonical: a byte after the end marker, counted by the size field
    // or not, and a size field short of the packet. They leave rebuilt.
    UlmarCommsTest::Bytes counted = ordinary;
    counted.push_back(0x00);
    UlmarCommsTest::Bytes uncounted = counted;
    UlmarCommsTest::Bytes shortSize = ordinary;
    auto setSize = [](UlmarCommsTest::Bytes& bytes, uint32_t size) {
        for (int i = 0; i < 4; ++i)
            bytes[1 + i] = static_cast<unsigned char>(size >> (24 - 8 * i));
    };
    setSize(counted, static_cast<uint32_t>(counted.size()));
    setSize(shortSize, static_cast<uint32_t>(ordinary.size() - 1));
    const std::vector<std::pair<UlmarCommsTest::Bytes, UlmarCommsTest::Bytes>> cases = {
        {ordinary, ordinary}, {duplicates, duplicates}, {localhost, localhost}, {largest, largest},
        {counted, ordinary},  {uncounted, ordinary},    {shortSize, ordinary}};
    // One at a time: a link's queue holds one frame of any size, not two.
    uint32_t sentId = 1000;
    uint32_t lastId = 0;
    for (const auto& [sent, expected] : cases) {
        ASSERT_TRUE(
            sender.sendAll(rawFrame(DataFrame::FrameTypeMessage, static_cast<uint32_t>(sent.size()), ++sentId, sent)));
        uint32_t id = 0;
        UlmarCommsTest::Bytes payload;
        ASSERT_TRUE(readMessagePayload(receiver, id, payload));
        EXPECT_TRUE(payload == expected) << "a packet of " << sent.size() << " bytes changed on the way";
        EXPECT_GT(id, lastId) << "frame ids are the receiving link's own";
        EXPECT_LT(id, 1000u);
        lastId = id;
    }
}

// ---------------------------------------------------------------------------
// Links that end

TEST_F(LocalLinkTest, AfterTheServiceRestartsTheApplicationReconnectsAndAnnouncesAllButItsFirstPump)
{
    auto service = std::make_unique<Service>(address);
    Application app(address);
    Endpoint& first = app.join("first");
    Endpoint& second = app.join("second", "ifX");
    Endpoint& third = app.join("third");
    ASSERT_TRUE(app.connect(*service));

    service.reset();
    ASSERT_TRUE(waitUntil([&] { return app.proxy.state() == SocketSystemRouterProxy::StateDown; }, kDeadline));

    service = std::make_unique<Service>(address);
    ASSERT_TRUE(waitUntil([&] { return app.proxy.state() == SocketSystemRouterProxy::StateConnected; }, kDeadline));
    ASSERT_TRUE(service->waitForEntries({second.address(), third.address()})) << service->table();
    EXPECT_TRUE(service->hasEntry(second.address(), "ifX"));
    // The table is announced in one go, so once the last entry is there the
    // first one would be too: it is deliberately never re-announced.
    EXPECT_FALSE(service->hasEntry(first.address())) << service->table();
    EXPECT_EQ(SocketTimeout::instance()->count(&SocketSystemRouterProxy::onDoReconnect, &app.proxy), 0u);

    // The restored link carries traffic again.
    EXPECT_TRUE(deliver(third, service->join("svc"), "again", 1));
}

// Each application gets a proxy of its own on the system router; when one
// goes, its entries go with it and the other link carries on, announcing a
// pump that joins late under its own link.
TEST_F(LocalLinkTest, AnApplicationThatGoesIsRemovedFromTheSystemRoutersTable)
{
    Service service(address);
    auto leaving = std::make_unique<Application>(address);
    Application staying(address);
    const std::string goneAddress = leaving->join("leaving").address();
    Endpoint& kept = staying.join("staying");
    ASSERT_TRUE(leaving->connect(service));
    ASSERT_TRUE(staying.connect(service));
    const std::vector<SocketMessageRouterProxy*> links = service.server->links();
    ASSERT_EQ(links.size(), 2u);
    EXPECT_NE(links[0], links[1]);

    // The process ends without withdrawing its pump: the drop alone must
    // clear its entries.
    leaving->shutdown();
    ASSERT_TRUE(waitUntil([&] { return service.server->links().size() == 1; }, kDeadline));
    ASSERT_TRUE(waitUntil([&] { return !service.hasEntry(goneAddress); }, kDeadline)) << service.table();
    EXPECT_TRUE(service.hasEntry(kept.address()));
    leaving.reset();

    // The remaining link still carries traffic, both ways.
    Endpoint& svc = service.join("svc");
    ASSERT_TRUE(deliver(kept, svc, "still here", 1));
    Endpoint& late = staying.join("late");
    ASSERT_TRUE(service.waitForEntries({late.address()}));
    EXPECT_TRUE(deliver(svc, late, "for the late one", 1));
}

TEST_F(LocalLinkTest, CloseAllLinksUnregistersAndDeletesEveryProxy)
{
    Service service(address);
    Application one(address);
    Application two(address);
    Endpoint& a = one.join("a");
    Endpoint& b = two.join("b");
    ASSERT_TRUE(one.connect(service));
    ASSERT_TRUE(two.connect(service));

    // The service shut-down: the system router finishes (no more links are
    // accepted), then the accepted links close while the selector runs.
    service.router.finish();
    service.server->closeAllLinks();
    EXPECT_TRUE(service.server->links().empty());
    EXPECT_FALSE(service.hasEntry(a.address())) << service.table();
    EXPECT_FALSE(service.hasEntry(b.address())) << service.table();
    service.server->closeAllLinks(); // nothing left: harmless

    // The applications see their links end and wait to reconnect.
    ASSERT_TRUE(waitUntil([&] { return one.proxy.state() == SocketSystemRouterProxy::StateDown; }, kDeadline));
    ASSERT_TRUE(waitUntil([&] { return two.proxy.state() == SocketSystemRouterProxy::StateDown; }, kDeadline));
    // The state goes down before the error callback schedules the retry.
    EXPECT_TRUE(waitUntil([&] { return one.proxy.isReconnectPending(); }, kDeadline));
    EXPECT_EQ(one.proxy.socket(), nullptr);
}

// A link whose listener has already gone ends through the link's own error
// callback: the service side lets go of its socket by itself.
TEST_F(LocalLinkTest, ALinkThatOutlivesItsListenerClosesItsOwnSocket)
{
    Service service(address);
    Application leaving(address);
    leaving.join("pump");
    ASSERT_TRUE(leaving.connect(service));
    const std::vector<SocketMessageRouterProxy*> links = service.server->links();
    ASSERT_EQ(links.size(), 1u);

    service.server->finish(); // the listener goes; the accepted link stays
    leaving.shutdown();
    EXPECT_TRUE(waitUntil([&] { return links[0]->socket() == nullptr; }, kDeadline));
}

TEST_F(LocalLinkTest, AProcessThatBreaksTheFramingLosesItsLinkAndItsEntries)
{
    Service service(address);
    Application good(address);
    Endpoint& kept = good.join("kept");
    ASSERT_TRUE(good.connect(service));

    // A plain peer announces a pump the honest way, then sends a header
    // announcing far more than any frame may hold.
    RawPeer client(address);
    const std::string evil = UlmarComms::Core::instance()->getHostName() + "@evil";
    ASSERT_TRUE(client.sendAll(wireOf(DataFrame(1, CommandMessage::AddMessagePump, evil.c_str()))));
    ASSERT_TRUE(service.waitForEntries({kept.address(), evil}));
    ASSERT_EQ(service.server->links().size(), 2u);

    ASSERT_TRUE(client.sendAll(rawFrame(DataFrame::FrameTypeMessage, 0xFFFFFFFFu, 2, {})));
    ASSERT_TRUE(waitUntil([&] { return service.server->links().size() == 1 && !service.hasEntry(evil); }, kDeadline))
        << service.table();
    EXPECT_TRUE(client.waitForEnd(kDeadline)) << "the service ended the link";

    // The honest process is untouched.
    EXPECT_TRUE(service.hasEntry(kept.address()));
    EXPECT_TRUE(deliver(kept, service.join("svc"), "fine", 1));
}

// A key of 300 bytes wraps its one-byte length when written, so the receiver
// cannot parse that packet: it costs that one message, nothing else.
TEST_F(LocalLinkTest, AMessageWhoseKeyLengthWrapsIsDroppedAndTheLinkKeepsItsPumps)
{
    LogCapture log(UlmarComms::Core::LogError);
    Service service(address);
    Endpoint& svc = service.join("svc");
    Application app(address);
    Endpoint& first = app.join("first");
    Endpoint& second = app.join("second");
    ASSERT_TRUE(app.connect(service));

    MessageItem* longKey = first.pump.createMessage(svc.address().c_str(), "long");
    ASSERT_TRUE(longKey->add(std::string(300, 'k').c_str(), "v"));
    ASSERT_EQ(first.pump.post(MessageRef(longKey)), 0);
    ASSERT_TRUE(deliver(first, svc, "next", 1));
    EXPECT_EQ(svc.received()[0].method, "next");
    EXPECT_EQ(log.count("failed frame get.!"), 1u);

    EXPECT_EQ(app.proxy.state(), SocketSystemRouterProxy::StateConnected);
    EXPECT_EQ(service.server->links().size(), 1u);
    EXPECT_TRUE(service.hasEntry(first.address())) << service.table();
    EXPECT_TRUE(service.hasEntry(second.address())) << service.table();
    ASSERT_TRUE(deliver(second, svc, "still", 2));
    EXPECT_EQ(svc.count(), 2u);
}

// ---------------------------------------------------------------------------
// The process side on its own

TEST_F(LocalLinkTest, WithoutAServiceTheProxyRetriesEveryTwoSecondsWithOneTimerEntry)
{
    LogCapture log(UlmarComms::Core::LogMessage);
    Application app(address);
    auto entries = [&] {
        return SocketTimeout::instance()->count(&SocketSystemRouterProxy::onDoReconnect, &app.proxy);
    };

    // Connecting to nobody fails at once, after the socket exists: a retry
    // is scheduled and start() still reports the attempt as started.
    EXPECT_TRUE(app.proxy.start());
    EXPECT_TRUE(app.proxy.isReconnectPending());
    EXPECT_EQ(entries(), 1u);

    unsigned most = 0;
    ASSERT_TRUE(waitUntil(
        [&] {
            most = std::max(most, entries());
            return log.count("Redoing Connect()") >= 2;
        },
        kDeadline));
    EXPECT_LE(most, 1u) << "never more than one timer entry";
    EXPECT_EQ(entries(), 1u);

    Service service(address);
    ASSERT_TRUE(waitUntil([&] { return app.proxy.state() == SocketSystemRouterProxy::StateConnected; }, kDeadline));
    EXPECT_FALSE(app.proxy.isReconnectPending());
    EXPECT_EQ(entries(), 0u);
    app.shutdown();
    EXPECT_EQ(entries(), 0u);
    EXPECT_TRUE(app.proxy.isLive()) << "a finished proxy stays live";
    EXPECT_EQ(app.proxy.socket(), nullptr);
}

TEST_F(LocalLinkTest, AProxyDeletedAfterAFailedStartLeavesNoRetryBehind)
{
    Socket::deinit(); // without a selector no socket can be created
    auto proxy = std::make_unique<SocketSystemRouterProxy>(address);
    void* data = proxy.get();
    EXPECT_FALSE(proxy->start()) << "a socket that cannot be created fails the start";
    EXPECT_TRUE(proxy->isReconnectPending());
    EXPECT_EQ(SocketTimeout::instance()->count(&SocketSystemRouterProxy::onDoReconnect, data), 1u);
    proxy.reset(); // as the runtime does after a failed start, without finish()
    EXPECT_EQ(SocketTimeout::instance()->count(&SocketSystemRouterProxy::onDoReconnect, data), 0u);
}

TEST_F(LocalLinkTest, WithoutALinkPostIsRefusedAndRemoveDetachesOnlyTheAttachedRouter)
{
    LogCapture log(UlmarComms::Core::LogWarning);
    SocketSystemRouterProxy proxy(address);
    MessageRef message(MessageRouter::create("somewhere@else", "me@here", "m"));
    EXPECT_FALSE(proxy.post(message.share()));
    EXPECT_EQ(message->count(), 1) << "the proxy dropped its reference";
    EXPECT_EQ(proxy.queuedFrames(), 0u);

    MessageRouter attached;
    MessageRouter other;
    ASSERT_TRUE(proxy.add(&attached));

    EXPECT_TRUE(proxy.remove(&other));
    EXPECT_EQ(proxy.messageRouter(), &attached);
    EXPECT_EQ(log.count("Trying to remove the wronge message router."), 0u);

    // Commands from a router that is not attached are not sent.
    proxy.handleCommand(&other, 1, "x@y");
    EXPECT_EQ(proxy.queuedFrames(), 0u);
    EXPECT_TRUE(log.contains("message router mismatch."));
    proxy.handleCommand(&attached, 1, "x@y");
    EXPECT_EQ(proxy.queuedFrames(), 1u) << "commands queue even before a link exists";

    EXPECT_TRUE(proxy.remove(&attached));
    EXPECT_EQ(proxy.messageRouter(), nullptr);
    EXPECT_EQ(log.count("Trying to remove the wronge message router."), 1u);
    proxy.finish();
}

TEST_F(LocalLinkTest, AConnectionWithoutARouterIsReportedAndAnnouncesNothing)
{
    Service service(address);
    LogCapture log(UlmarComms::Core::LogFatal);
    SocketSystemRouterProxy proxy(address);
    ASSERT_TRUE(proxy.start());
    EXPECT_EQ(proxy.state(), SocketSystemRouterProxy::StateConnected);
    EXPECT_TRUE(log.contains("NO MESSAGE ROUTER!  Something very bad happend."));
    ASSERT_TRUE(waitUntil([&] { return service.server->links().size() == 1; }, kDeadline));
    EXPECT_EQ(service.table(), "# System Routing Table \nAddress,Interfaces\n");
    proxy.finish();
    ASSERT_TRUE(waitUntil([&] { return service.server->links().empty(); }, kDeadline));
}

// ---------------------------------------------------------------------------
// The service side on its own

TEST_F(LocalLinkTest, DropsThatAreNotThisListenersChangeNothing)
{
    LogCapture log(UlmarComms::Core::LogWarning);
    Service service(address);
    Application app(address);
    ASSERT_TRUE(app.proxy.start());
    ASSERT_TRUE(waitUntil([&] { return service.server->links().size() == 1; }, kDeadline));

    // A socket with no proxy on it.
    const std::unique_ptr<UlmarCommsSystem::Socket, UlmarCommsSystem::Socket::Releaser> bare(
        new UlmarCommsSystem::SocketUNIX());
    service.server->onClientDisconnect(service.server->listeningSocket(), bare.get());
    EXPECT_TRUE(log.contains("no message router object set on socket object."));

    // A socket marked with a proxy of another listener.
    SocketMessageRouterProxy stranger;
    bare->setUserData(&stranger);
    service.server->onClientDisconnect(service.server->listeningSocket(), bare.get());
    EXPECT_TRUE(log.contains("message router object does not belong to this."));
    EXPECT_EQ(service.server->links().size(), 1u);

    // Removing a proxy that is not listed still detaches and unregisters it.
    stranger.setSystemRouter(&service.router);
    service.router.add(&stranger);
    service.server->remove(&stranger);
    EXPECT_EQ(stranger.systemRouter(), nullptr);
    EXPECT_TRUE(log.contains("Unable to find and remove a SocketMessageRouterProxy object."));
    EXPECT_EQ(service.server->links().size(), 1u);
}
