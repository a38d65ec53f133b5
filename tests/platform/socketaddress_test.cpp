// Socket addresses: text forms, matching, both serialised forms, the padded
// abstract UNIX name, and the listing of local interfaces.
#include "framing/addressform.h"
#include "framing/dataobject.h"
#include "platform/socket.h"
#include "platform/socketaddress.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <memory>
#include <vector>

using namespace UlmarCommsSystem;
using UlmarComms::DataObject;

namespace {

SocketAddress ip4(const char* host, const char* port)
{
    SocketAddress address;
    EXPECT_TRUE(address.setIP4Address(host, port));
    return address;
}

std::vector<unsigned char> written(const SocketAddress& address)
{
    unsigned char buffer[16];
    std::memset(buffer, 0xEE, sizeof(buffer));
    DataObject data(buffer, sizeof(buffer), DataObject::ModeWrite);
    EXPECT_TRUE(UlmarComms::writeAddress(data, address));
    return std::vector<unsigned char>(buffer, buffer + data.size());
}

} // namespace

TEST(SocketAddress, TextFormsWildcardBroadcastAndRefusedInput)
{
    EXPECT_EQ(ip4("10.0.0.1", "13001").asString(), "10.0.0.1:13001");
    SocketAddress pipe;
    ASSERT_TRUE(pipe.setUNIXAddress("ulmarcomms", "ignored"));
    EXPECT_EQ(pipe.asString(), "#__ulmarcomms.sock");
    EXPECT_EQ(SocketAddress().asString(), "Needs Defining");

    // The wildcard and broadcast need no lookup; the wildcard prints its trace.
    testing::internal::CaptureStdout();
    SocketAddress any = ip4("*", "34001");
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed, "Doen with it\n");
    EXPECT_EQ(any.asString(), "0.0.0.0:34001");
    EXPECT_EQ(any.getPort(), 34001);
    EXPECT_EQ(ip4("broadcast", "34001").asString(), "255.255.255.255:34001");

    SocketAddress address;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(address.setIP4Address("", ""));
    EXPECT_FALSE(address.setIP4Address("not an address!", "80"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_FALSE(address.isValid());
}

TEST(SocketAddress, AbstractNameIsPaddedToTheFullPathAndSizesFollowTheFamily)
{
    SocketAddress address;
    address.setUNIXAddress("abc");
    ASSERT_TRUE(address.isUNIXAddress());
    EXPECT_EQ(address.getAddressSize(), 110u);
    const sockaddr_un* raw = reinterpret_cast<const sockaddr_un*>(address.getAddress());
    EXPECT_EQ(raw->sun_path[0], 0);
    EXPECT_EQ(std::memcmp(raw->sun_path + 1, "__abc.sock", 10), 0);
    for (size_t i = 11; i < sizeof(raw->sun_path); ++i)
        ASSERT_EQ(raw->sun_path[i], 0) << "byte " << i;

    const std::unique_ptr<Socket, Socket::Releaser> tcp(new SocketTCPIP());
    const std::unique_ptr<Socket, Socket::Releaser> local(new SocketUNIX());
    const std::unique_ptr<Socket, Socket::Releaser> udp(new SocketUDP());
    EXPECT_EQ(SocketAddress::getAddressSizeOfSocketType(tcp.get()), 16u);
    EXPECT_EQ(SocketAddress::getAddressSizeOfSocketType(local.get()), 110u);
    EXPECT_EQ(SocketAddress::getAddressSizeOfSocketType(udp.get()), 16u);
    EXPECT_EQ(SocketAddress::getAddressSizeOfSocketType(nullptr), 0u);
}

TEST(SocketAddress, MatchAndPortsApplyToIPv4Only)
{
    const SocketAddress a = ip4("127.0.0.1", "80");
    EXPECT_TRUE(a.match(ip4("127.0.0.1", "80"), true));
    EXPECT_FALSE(a.match(ip4("127.0.0.1", "81"), true));
    EXPECT_TRUE(a.match(ip4("127.0.0.1", "81"), false));
    EXPECT_FALSE(a.match(ip4("127.0.0.2", "80"), false));
    SocketAddress pipe1, pipe2;
    pipe1.setUNIXAddress("same");
    pipe2.setUNIXAddress("same");
    EXPECT_FALSE(pipe1.match(pipe2, true));
    EXPECT_FALSE(pipe1.match(pipe2, false));

    SocketAddress address = ip4("127.0.0.1", "1");
    address.setPort(static_cast<unsigned short>(4242));
    EXPECT_EQ(address.asString(), "127.0.0.1:4242");
    EXPECT_TRUE(address.setPort(std::string("13001")));
    EXPECT_EQ(address.getPort(), 13001);
    SocketAddress pipe;
    pipe.setUNIXAddress("p");
    EXPECT_FALSE(pipe.setPort(std::string("1")));
    EXPECT_EQ(pipe.getPort(), 0);
}

TEST(SocketAddress, WrittenFormIsEightBytesBigEndianForIPv4AndTheFamilyOtherwise)
{
    // Only serialised, never contacted.
    const std::vector<unsigned char> expected{0x00, 0x02, 0x00, 0x50, 0xC0, 0xA8, 0x01, 0x02};
    EXPECT_EQ(written(ip4("192.168.1.2", "80")), expected);

    SocketAddress back;
    std::vector<unsigned char> bytes = expected;
    DataObject data(bytes.data(), static_cast<unsigned>(bytes.size()), DataObject::ModeRead);
    ASSERT_TRUE(UlmarComms::readAddress(data, back));
    EXPECT_EQ(data.size(), 8u);
    EXPECT_EQ(back.asString(), "192.168.1.2:80");

    // Other families write and consume only the family.
    SocketAddress pipe;
    pipe.setUNIXAddress("x");
    EXPECT_EQ(written(pipe), (std::vector<unsigned char>{0x00, 0x01}));

    unsigned char otherFamily[] = {0x00, 0x01, 0x00, 0x50, 0xC0, 0xA8, 0x01, 0x02};
    SocketAddress kept = ip4("127.0.0.1", "9");
    DataObject otherData(otherFamily, sizeof(otherFamily), DataObject::ModeRead);
    EXPECT_FALSE(UlmarComms::readAddress(otherData, kept));
    EXPECT_EQ(otherData.size(), 2u);
    EXPECT_EQ(kept.asString(), "127.0.0.1:9");

    unsigned char truncated[] = {0x00, 0x02, 0x00, 0x50, 0xC0};
    DataObject shortData(truncated, sizeof(truncated), DataObject::ModeRead);
    EXPECT_FALSE(UlmarComms::readAddress(shortData, kept));
    EXPECT_EQ(kept.asString(), "127.0.0.1:9") << "a truncated record changes nothing";
}

TEST(SocketAddress, BufferFormIsSevenBytesButNeedsRoomForEight)
{
    const SocketAddress address = ip4("192.168.1.2", "80");
    unsigned written = 99;
    EXPECT_TRUE(address.toBuffer(written, nullptr, 0));
    EXPECT_EQ(written, 7u);

    unsigned char buffer[8];
    EXPECT_FALSE(address.toBuffer(written, buffer, 7));
    EXPECT_EQ(written, 0u);

    std::memset(buffer, 0xEE, sizeof(buffer));
    ASSERT_TRUE(address.toBuffer(written, buffer, 8));
    EXPECT_EQ(written, 7u);
    const unsigned char expected[] = {0x02, 0x00, 0x50, 0xC0, 0xA8, 0x01, 0x02, 0xEE};
    EXPECT_EQ(std::memcmp(buffer, expected, sizeof(expected)), 0);

    SocketAddress back;
    EXPECT_FALSE(back.fromBuffer(buffer, 6));
    EXPECT_FALSE(back.fromBuffer(buffer, 0));
    ASSERT_TRUE(back.fromBuffer(buffer, 7));
    EXPECT_TRUE(back.match(address, true));

    buffer[0] = 1;
    SocketAddress untouched;
    EXPECT_FALSE(untouched.fromBuffer(buffer, 7));
    EXPECT_FALSE(untouched.isValid());

    SocketAddress pipe;
    pipe.setUNIXAddress("x");
    EXPECT_FALSE(pipe.toBuffer(written, buffer, sizeof(buffer)));
    EXPECT_EQ(written, 0u);
}

TEST(SocketAddress, CopiesSystemAddressesOfKnownFamiliesOnly)
{
    sockaddr_in raw{};
    raw.sin_family = AF_INET;
    raw.sin_port = htons(7);
    raw.sin_addr.s_addr = htonl(0x7F000001);
    SocketAddress address(*reinterpret_cast<const sockaddr*>(&raw));
    EXPECT_EQ(address.asString(), "127.0.0.1:7");

    sockaddr_in6 other{};
    other.sin6_family = AF_INET6;
    address = *reinterpret_cast<const sockaddr*>(&other);
    EXPECT_FALSE(address.isValid());
    EXPECT_FALSE(address.setAddressByFamily(reinterpret_cast<const sockaddr*>(&other), AF_INET6));
    EXPECT_FALSE(address.isIP6Address());
}

TEST(NetworkInterface, ListsTheLoopbackWithItsNetwork)
{
    const std::vector<NetworkInterface> all = NetworkInterface::interfaces();
    const NetworkInterface* loopback = nullptr;
    for (const NetworkInterface& item : all) {
        EXPECT_TRUE(item.getAddress().isIP4Address()) << item.getName();
        if (item.isLoopback() && item.getAddress().asString() == "127.0.0.1:0")
            loopback = &item;
    }
    ASSERT_NE(loopback, nullptr) << "no IPv4 loopback interface listed";
    EXPECT_TRUE(loopback->isUp());
    EXPECT_EQ(loopback->getNetwork().asString(), "127.0.0.0:0");
    EXPECT_FALSE(loopback->getBroadcast().isValid()) << "loopback has no broadcast";

    EXPECT_TRUE(loopback->matchOnAddress({ip4("10.1.1.1", "1"), ip4("127.0.0.1", "34001")}));
    EXPECT_FALSE(loopback->matchOnAddress({ip4("127.0.0.2", "0")}));
    EXPECT_TRUE(loopback->matchOnNetwork({ip4("127.0.0.0", "0")}));
    EXPECT_FALSE(loopback->matchOnNetwork({ip4("127.0.0.1", "0")}));

    NetworkInterface copy = *loopback;
    EXPECT_EQ(copy.getName(), loopback->getName());
    copy.clear();
    EXPECT_FALSE(copy.getAddress().isValid());
    EXPECT_FALSE(copy.isUp());
}
