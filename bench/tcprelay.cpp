// The relay between hosts over TCP. Records travel through RelayLink, the
// local relay's record reader and writer, so both relays move records the
// same way; the forwarder hands each received record to the other side by
// swapping buffers, so it copies nothing beyond the kernel's copies.
#include "tcprelay.h"

#include "oneway.h"
#include "pipelined.h"
#include "relay.h"
#include "roundtrip.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace UlmarCommsBench {

namespace {

// The smallest record the local relay sends: type, sequence and a flag.
const unsigned kSmallestRecord = 16;

// address:port as a socket address; false when address is not IPv4.
bool socketAddress(const std::string& address, unsigned port, sockaddr_in& out)
{
    out = sockaddr_in{};
    out.sin_family = AF_INET;
    out.sin_port = htons(static_cast<uint16_t>(port));
    return ::inet_pton(AF_INET, address.c_str(), &out.sin_addr) == 1;
}

// Turns Nagle off: every record leaves in the system call that writes it.
void sendAtOnce(int fd)
{
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

// Listens on address:port; -1 on failure.
int listenOn(const std::string& address, unsigned port)
{
    sockaddr_in where;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (!socketAddress(address, port, where) || ::bind(fd, reinterpret_cast<sockaddr*>(&where), sizeof(where)) != 0 ||
        ::listen(fd, 4) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Accepts one connection and closes the listener; -1 on failure.
int acceptOne(int listener)
{
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(listener);
    if (fd >= 0)
        sendAtOnce(fd);
    return fd;
}

// Connects to address:port, retrying until limit; -1 on failure.
int connectTo(const std::string& address, unsigned port, std::chrono::seconds limit)
{
    sockaddr_in where;
    if (!socketAddress(address, port, where))
        return -1;
    const Clock::time_point deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return -1;
        if (::connect(fd, reinterpret_cast<sockaddr*>(&where), sizeof(where)) == 0) {
            sendAtOnce(fd);
            return fd;
        }
        ::close(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
}

// A link over fd for records of this run's size.
RelayLink linkOver(int fd, const Options& options)
{
    RelayLink link;
    link.fd = fd;
    link.size = std::max(options.frameBytes, kSmallestRecord);
    link.out.assign(link.size, 'x');
    link.in.assign(link.size, 0);
    return link;
}

// Passes records from one link to the other until either side ends.
void forward(RelayLink from, RelayLink to)
{
    while (from.receive()) {
        std::swap(from.in, to.out);
        if (!to.write())
            break;
    }
    ::shutdown(to.fd, SHUT_WR);
}

// Answers the record just received; false to stop serving.
bool serve(RelayLink& link, OneWayTally& tally)
{
    const unsigned char type = link.in[0];
    if (type == kRelayEcho) {
        link.send(kRelayEchoReply, link.sequence());
        return true;
    }
    if (type == kRelayOneWay)
        return !tally.count(link.sequence()) || link.send(kRelayAck, tally.received);
    if (type == kRelayFlood) {
        tally.count(link.sequence());
        return true;
    }
    if (type == kRelayDone) {
        link.put(kRelayDoneReply, tally.received);
        link.out[9] = tally.inOrder ? 1 : 0;
        tally.reset();
        return link.write();
    }
    return type != kRelayQuit;
}

// Forwards between the side towards the client and the side towards the
// server, one thread per direction, until both close; 0, or 1 when either
// side could not be connected.
int relayBetween(int client, int server, const Options& options)
{
    if (client < 0 || server < 0) {
        std::fprintf(stderr, "ulmarcomms-netbench: a relay's side did not connect\n");
        if (client >= 0)
            ::close(client);
        if (server >= 0)
            ::close(server);
        return 1;
    }
    std::thread up(forward, linkOver(client, options), linkOver(server, options));
    forward(linkOver(server, options), linkOver(client, options));
    up.join();
    ::close(server);
    ::close(client);
    return 0;
}

// Where the server connects: the relay across, or the far relay beside it.
int connectServer(const TcpRelayPlace& place)
{
    if (place.hops == 3)
        return connectTo("127.0.0.1", place.port + 2, std::chrono::seconds(10));
    return connectTo(place.address, place.port, std::chrono::seconds(10));
}

} // namespace

int runTcpRelay(const Options& options, const TcpRelayPlace& place)
{
    const int farSide = listenOn(place.address, place.port);
    const int clientSide = listenOn("127.0.0.1", place.port + 1);
    if (farSide < 0 || clientSide < 0) {
        std::fprintf(stderr, "ulmarcomms-netbench: the relay could not listen on %s:%u\n", place.address.c_str(),
                     place.port);
        return 1;
    }
    std::printf("READY\n");
    std::fflush(stdout);
    const int far = acceptOne(farSide);
    return relayBetween(acceptOne(clientSide), far, options);
}

int runTcpFarRelay(const Options& options, const TcpRelayPlace& place)
{
    const int serverSide = listenOn("127.0.0.1", place.port + 2);
    if (serverSide < 0) {
        std::fprintf(stderr, "ulmarcomms-netbench: the far relay could not listen on port %u\n", place.port + 2);
        return 1;
    }
    std::printf("READY\n");
    std::fflush(stdout);
    const int relay = connectTo(place.address, place.port, std::chrono::seconds(10));
    return relayBetween(relay, acceptOne(serverSide), options);
}

int runTcpRelayServer(const Options& options, const TcpRelayPlace& place)
{
    const int fd = connectServer(place);
    if (fd < 0) {
        std::fprintf(stderr, "ulmarcomms-netbench: the relay server could not connect\n");
        return 1;
    }
    RelayLink link = linkOver(fd, options);
    OneWayTally tally;
    tally.ackInterval = ackEvery(options);
    while (link.receive() && serve(link, tally)) {}
    ::close(fd);
    return 0;
}

int runTcpRelayClient(const Options& options, const TcpRelayPlace& place)
{
    const int fd = connectTo("127.0.0.1", place.port + 1, std::chrono::seconds(10));
    if (fd < 0)
        return 1;
    RelayLink link = linkOver(fd, options);
    Figures figures;
    const bool measured = relayRoundTrips(link, options, figures) && relayOneWay(link, options, figures) &&
        relayOneWayUnwindowed(link, options, figures) && relayPipelined(link, options, figures);
    if (measured) {
        figures["frame_bytes"] = link.size;
        link.send(kRelayQuit, 0);
    }
    ::close(fd);
    if (measured)
        printResult(figures);
    return measured ? 0 : 1;
}

} // namespace UlmarCommsBench
