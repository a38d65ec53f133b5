// The discovery datagram: its exact bytes, the reader's checks, hostile and
// broken datagrams, and what reaches the router (own announcements do not).
#include "framing/dataobject.h"
#include "network/networkinterface.h"
#include "network/networkrouter.h"
#include "platform/socket.h"

#include "network/network_support.h"
#include "support/logcapture.h"
#include "support/networkrouterstub.h"
#include "support/scopedhostname.h"

#include <gtest/gtest.h>

#include <chrono>

#include <random>

using UlmarComms::NetworkDiscoveryInfo;
using UlmarComms::NetworkRouterInterface;
using UlmarCommsSystem::SocketAddress;
using namespace UlmarCommsTest;

namespace {

// The announcement of "hostA" at 10.77.1.2:34001, written out by hand.
const std::vector<unsigned char> HostAAnnouncement = {
    0xF1, 0x2A, // magic
    0x00, 0x00, 0x00, 0x1E, // total length 30
    0x00, // type 0
    0x00, 0x00, 0x00, 0x00, // value 0
    0x00, 0x00, 0x00, 0x05, // name length
    'h',  'o',  's',  't',  'A', // name
    0x00, 0x02, // AF_INET
    0x84, 0xD1, // port 34001
    0x0A, 0x4D, 0x01, 0x02, // 10.77.1.2
    0xAA, 0x87, // trailer
};

NetworkRouterInterface::ParseResult parse(const std::vector<unsigned char>& bytes, NetworkDiscoveryInfo& info)
{
    return NetworkRouterInterface::parseInfo(bytes.data(), static_cast<unsigned>(bytes.size()), info);
}

// A router double that records what discovery reports.
class RecordingRouter : public NetworkRouterStub {
public:
    void infoAboutHost(const std::string& hostName, const SocketAddress& address, NetworkRouterInterface*) override
    {
        std::lock_guard<std::mutex> guard(lock);
        names.push_back(hostName);
        addresses.push_back(address.asString());
    }
    size_t heard()
    {
        std::lock_guard<std::mutex> guard(lock);
        return names.size();
    }

    std::mutex lock;
    std::vector<std::string> names;
    std::vector<std::string> addresses;
};

} // namespace

TEST(DiscoveryDatagram, BuildsTheAnnouncementByteForByteOrNothing)
{
    unsigned char buffer[NetworkRouterInterface::DiscoveryBufferSize];
    unsigned length = 0;
    ASSERT_TRUE(NetworkRouterInterface::buildInfo(buffer, sizeof(buffer), "hostA", ip4("10.77.1.2", "34001"), length));
    EXPECT_EQ(std::vector<unsigned char>(buffer, buffer + length), HostAAnnouncement);

    // An interface's own buffer uses the host name and its local address,
    // and stays empty when the name does not fit.
    LogCapture log;
    RecordingRouter router;
    for (const std::string& host : {std::string("hostA"), std::string(1100, 'n')}) {
        ScopedHostName name(host);
        NetworkRouterInterface interface(&router, ip4("10.77.1.2", "34001"), ip4("10.77.1.255", "34001"),
                                         ip4("10.77.1.0", "0"));
        interface.buildInfoBuffer();
        const std::vector<unsigned char> built(interface.infoBuffer(), interface.infoBuffer() + interface.infoLength());
        EXPECT_EQ(built, host == "hostA" ? HostAAnnouncement : std::vector<unsigned char>{});
    }
    EXPECT_TRUE(log.contains("NetworkRouterInterface::buildInfoBuffer() Failed to write header."));
}

TEST(DiscoveryDatagram, ReadsBackWhatWasBuiltAndToleratesAWrongTrailer)
{
    NetworkDiscoveryInfo info;
    ASSERT_EQ(parse(HostAAnnouncement, info), NetworkRouterInterface::ParseOk);
    EXPECT_EQ(info.totalLength, 30u);
    EXPECT_EQ(info.type, 0);
    EXPECT_EQ(info.value, 0u);
    EXPECT_EQ(info.hostName, "hostA");
    EXPECT_EQ(info.address.asString(), "10.77.1.2:34001");
    EXPECT_EQ(info.trailer, 0xAA87);

    // A wrong trailer is tolerated with an error line.
    LogCapture log;
    std::vector<unsigned char> wrongTrailer = HostAAnnouncement;
    wrongTrailer[29] = 0x88;
    EXPECT_EQ(parse(wrongTrailer, info), NetworkRouterInterface::ParseOk);
    EXPECT_EQ(info.hostName, "hostA");
    EXPECT_TRUE(log.contains("NetworkRouterInterface::readHeader() Header is bad."));
}

TEST(DiscoveryDatagram, BadMagicWrongLengthOrANameRunningPastTheEndAreRefused)
{
    LogCapture log;
    NetworkDiscoveryInfo info;
    std::vector<unsigned char> badMagic = HostAAnnouncement;
    badMagic[1] = 0x2B;
    EXPECT_EQ(parse(badMagic, info), NetworkRouterInterface::ParseBadMagic);

    std::vector<unsigned char> longer = HostAAnnouncement;
    longer.push_back(0);
    EXPECT_EQ(parse(longer, info), NetworkRouterInterface::ParseBadHeader);
    // Embedded length first, the datagram's second.
    EXPECT_TRUE(log.contains("mismatch between size ( 30 ) of data and embedded size ( 31 )."));

    std::vector<unsigned char> wrongField = HostAAnnouncement;
    wrongField[5] = 0x1F;
    EXPECT_EQ(parse(wrongField, info), NetworkRouterInterface::ParseBadHeader);

    for (uint32_t nameLength : {16u, 20u, 1000u, 0x7FFFFFFFu, 0xFFFFFFF0u, 0xFFFFFFFFu}) {
        std::vector<unsigned char> bytes = HostAAnnouncement;
        bytes[11] = static_cast<unsigned char>(nameLength >> 24);
        bytes[12] = static_cast<unsigned char>(nameLength >> 16);
        bytes[13] = static_cast<unsigned char>(nameLength >> 8);
        bytes[14] = static_cast<unsigned char>(nameLength);
        EXPECT_NE(parse(bytes, info), NetworkRouterInterface::ParseOk) << nameLength;
    }
}

TEST(DiscoveryDatagram, EveryTruncationIsRefused)
{
    NetworkDiscoveryInfo info;
    for (size_t cut = 0; cut < HostAAnnouncement.size(); ++cut) {
        std::vector<unsigned char> bytes(HostAAnnouncement.begin(), HostAAnnouncement.begin() + cut);
        // A consistent embedded length makes the reader rely on the fields alone.
        if (cut >= 6)
            bytes[5] = static_cast<unsigned char>(cut);
        EXPECT_NE(parse(bytes, info), NetworkRouterInterface::ParseOk) << cut;
    }
}

TEST(DiscoveryDatagram, RandomBytesNeverPassUnlessConsistent)
{
    std::mt19937 random(1234);
    NetworkDiscoveryInfo info;
    for (int round = 0; round < 20000; ++round) {
        std::vector<unsigned char> bytes(random() % 1025);
        for (unsigned char& byte : bytes)
            byte = static_cast<unsigned char>(random());
        // Half the rounds get a valid magic so the header reader is reached.
        if (bytes.size() >= 2 && (round & 1)) {
            bytes[0] = 0xF1;
            bytes[1] = 0x2A;
        }
        if (parse(bytes, info) == NetworkRouterInterface::ParseOk) {
            EXPECT_EQ(info.totalLength, bytes.size());
            EXPECT_LE(info.hostName.size(), bytes.size());
        }
    }
}

TEST(DiscoveryDatagram, OtherHostsAreReportedButNeitherTheOwnAnnouncementNorBrokenOnes)
{
    LogCapture log;
    RecordingRouter router;
    NetworkRouterInterface interface(&router, ip4("10.77.1.1", "34001"), ip4("10.77.1.255", "34001"),
                                     ip4("10.77.1.0", "0"));
    interface.handleIncomingInfo(ip4("10.77.1.2", "34001"), HostAAnnouncement.data(),
                                 static_cast<unsigned>(HostAAnnouncement.size()));
    ASSERT_EQ(router.heard(), 1u);
    EXPECT_EQ(router.names[0], "hostA");
    EXPECT_EQ(router.addresses[0], "10.77.1.2:34001");
    EXPECT_TRUE(log.contains("Got Host information coming from '10.77.1.2:34001' with name 'hostA' and address of "
                             "'10.77.1.2:34001'"));

    NetworkRouterInterface self(&router, ip4("10.77.1.2", "34001"), ip4("10.77.1.255", "34001"), ip4("10.77.1.0", "0"));
    self.handleIncomingInfo(ip4("10.77.1.2", "34001"), HostAAnnouncement.data(),
                            static_cast<unsigned>(HostAAnnouncement.size()));
    EXPECT_EQ(router.heard(), 1u);

    // Broken datagrams reach no router.
    std::vector<unsigned char> badMagic = HostAAnnouncement;
    badMagic[0] = 0;
    interface.handleIncomingInfo(ip4("10.77.1.2", "1"), badMagic.data(), static_cast<unsigned>(badMagic.size()));
    EXPECT_TRUE(log.contains("NetworkRouterInterface::handleIncomingInfo() Header is bad."));

    std::vector<unsigned char> longer = HostAAnnouncement;
    longer.push_back(7);
    interface.handleIncomingInfo(ip4("10.77.1.2", "1"), longer.data(), static_cast<unsigned>(longer.size()));
    EXPECT_TRUE(log.contains("NetworkRouterInterface::handleIncomingInfo() Unable to get header."));

    // A name one byte too long swallows the address's first byte: the length
    // still fits, but no IPv4 address is left to reach the host on.
    std::vector<unsigned char> shifted = HostAAnnouncement;
    shifted[14] = 6;
    interface.handleIncomingInfo(ip4("10.77.1.2", "1"), shifted.data(), static_cast<unsigned>(shifted.size()));
    EXPECT_TRUE(log.contains("No IPv4 address announced."));

    interface.handleIncomingInfo(ip4("10.77.1.2", "1"), nullptr, 0);
    EXPECT_EQ(router.heard(), 1u);
}

TEST(DiscoveryDatagram, UntrustedImpossibleOrOwnNameAnnouncementsAreIgnoredAndLoggedSparingly)
{
    LogCapture log;
    ScopedHostName self("hostSelf");
    RecordingRouter router;
    NetworkRouterInterface interface(&router, ip4("10.77.1.1", "34001"), ip4("10.77.1.255", "34001"),
                                     ip4("10.77.1.0", "0"));
    auto announce = [&](const char* source, const char* name, const char* host, const char* port) {
        unsigned char bytes[NetworkRouterInterface::DiscoveryBufferSize];
        unsigned length = 0;
        ASSERT_TRUE(NetworkRouterInterface::buildInfo(bytes, sizeof(bytes), name, ip4(host, port), length));
        interface.handleIncomingInfo(ip4(source, "34001"), bytes, length);
    };
    const struct {
        const char* source;
        const char* name;
        const char* host;
        const char* port;
        const char* why;
    } ignored[] = {
        {"10.77.1.2", "hostB", "0.0.0.0", "34001", "no host can have that address"},
        {"10.77.1.2", "hostB", "255.255.255.255", "34001", "no host can have that address"},
        {"10.77.1.2", "hostB", "10.77.1.255", "34001", "no host can have that address"},
        {"10.77.1.2", "hostB", "10.77.1.2", "0", nullptr},
        {"10.77.1.2", "hostSelf", "10.77.1.9", "34001", "it names this host"},
        {"192.168.9.9", "hostB", "10.77.1.2", "34001", "sent from a network not allowed"},
        {"10.77.1.2", "hostB", "192.168.9.9", "34001", "the address is in a network not allowed"},
    };
    const auto start = std::chrono::steady_clock::now();
    for (const auto& item : ignored) {
        SCOPED_TRACE(std::string(item.name) + " at " + item.host + ":" + item.port + " from " + item.source);
        announce(item.source, item.name, item.host, item.port);
        EXPECT_EQ(router.heard(), 0u);
        if (item.why != nullptr) {
            EXPECT_TRUE(log.contains(std::string("Ignored announcement of '") + item.name + "' at '" + item.host + ":" +
                                     item.port + "' from '" + item.source + ":34001': " + item.why));
        }
    }

    // A flood of one cause logs a few lines a second, not one each.
    for (int i = 0; i < 50; ++i)
        announce("10.77.1.2", "hostB", "0.0.0.0", "34001");
    EXPECT_EQ(router.heard(), 0u);
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LE(log.count("no host can have that address"), UlmarComms::Limits::LogLinesPerSecond * (seconds + 1));

    // A wider policy lets the same source in.
    UlmarComms::NetworkPolicy any;
    any.allowAny(true);
    interface.setPolicy(any);
    announce("192.168.9.9", "hostB", "10.77.1.2", "34001");
    ASSERT_EQ(router.heard(), 1u);
    EXPECT_EQ(router.addresses[0], "10.77.1.2:34001");
}

TEST(DiscoveryDatagram, DatagramArrivingOnTheDiscoverySocketReachesTheTable)
{
    // Discovery bound to a loopback port stands in for a broadcast address;
    // the test sends one announcement there from a plain UDP socket.
    ASSERT_TRUE(UlmarCommsSystem::Socket::init(2));
    ScopedSetting discovery("ulmar.networkrouter.discovery", 1);
    ScopedSetting period("ulmar.networkrouter.discovery.timeout", 60000);
    ScopedHostName name("hostSelf");
    {
        UlmarComms::NetworkRouter router;
        const unsigned short udpPort = freeLoopbackPort(SOCK_DGRAM);
        const unsigned short tcpPort = freeLoopbackPort(SOCK_STREAM);
        ASSERT_TRUE(router.add(loopback(tcpPort), loopback(udpPort), ip4("127.0.0.0", "0")));
        NetworkRouterInterface* interface = router.interfaceAt(0);
        ASSERT_TRUE(interface->start());
        EXPECT_TRUE(interface->discoveryRunning());
        EXPECT_NE(interface->listeningSocket(), nullptr);

        // A second start keeps the first socket and says so.
        {
            LogCapture log;
            EXPECT_TRUE(interface->discoveryStart());
            EXPECT_TRUE(log.contains("m_pDiscovery == NULL"));
        }

        unsigned char bytes[NetworkRouterInterface::DiscoveryBufferSize];
        unsigned length = 0;
        ASSERT_TRUE(NetworkRouterInterface::buildInfo(bytes, sizeof(bytes), "hostPeer", loopback(4), length));
        const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(udpPort);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        // Garbage first: discovery must keep receiving after it.
        const unsigned char junk[3] = {1, 2, 3};
        ::sendto(fd, junk, sizeof(junk), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
        ::sendto(fd, bytes, length, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
        ::close(fd);
        EXPECT_TRUE(waitUntil([&] { return router.getKnownHosts(false) == "hostPeer\n"; }));
        EXPECT_EQ(router.getRoutingTable(),
                  "hostPeer,true,127.0.0.1:4,127.0.0.0:0,127.0.0.1:" + std::to_string(udpPort) +
                      ",127.0.0.1:" + std::to_string(tcpPort) + "\n");
        router.stop();
        EXPECT_EQ(router.interfaceCount(), 0u);
    }
    UlmarCommsSystem::Socket::deinit();
}

TEST(DiscoveryDatagram, DiscoveryOffStartsNothing)
{
    LogCapture log;
    ScopedSetting discovery("ulmar.networkrouter.discovery", 0);
    RecordingRouter router;
    NetworkRouterInterface interface(&router, ip4("10.77.1.1", "34001"), ip4("10.77.1.255", "34001"),
                                     ip4("10.77.1.0", "0"));
    EXPECT_TRUE(interface.start());
    EXPECT_FALSE(interface.discoveryRunning());
    EXPECT_EQ(interface.listeningSocket(), nullptr);
    EXPECT_TRUE(log.contains("Not Starting Discovery on interface '10.77.1.1:34001'"));
}
