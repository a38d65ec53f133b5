// The relay's three processes: the forwarder, its server and its client.
// Every read and write moves one whole record (MSG_WAITALL on receive), and
// both ends find each other by abstract socket names derived from the run's
// tag, so concurrent runs never meet.
#include "relay.h"

#include "oneway.h"
#include "pipelined.h"
#include "process.h"
#include "roundtrip.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace UlmarCommsBench {

const unsigned char kRelayEcho = 'E';
const unsigned char kRelayEchoReply = 'e';
const unsigned char kRelayOneWay = 'O';
const unsigned char kRelayFlood = 'F';
const unsigned char kRelayAck = 'a';
const unsigned char kRelayDone = 'D';
const unsigned char kRelayDoneReply = 'd';
const unsigned char kRelayQuit = 'Q';

namespace {

// The smallest record: type, sequence and the in-order flag fit.
const unsigned kRelayMinimum = 16;

// The abstract UNIX address for name, and its length.
sockaddr_un abstractAddress(const std::string& name, socklen_t& length)
{
    sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1, "%s", name.c_str());
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

// The abstract socket name of one side ("s" or "c") of this run's relay.
std::string relayName(const Options& options, const char* side)
{
    return "ulmarbench-relay-" + options.tag + "." + side;
}

// Connects to the abstract socket name, retrying until limit; -1 on failure.
int connectAbstract(const std::string& name, std::chrono::seconds limit)
{
    const Clock::time_point deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return -1;
        socklen_t length = 0;
        const sockaddr_un address = abstractAddress(name, length);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0)
            return fd;
        ::close(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
}

// Listens on the abstract socket name; -1 on failure.
int listenAbstract(const std::string& name)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    socklen_t length = 0;
    const sockaddr_un address = abstractAddress(name, length);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0 || ::listen(fd, 4) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// One whole record per call (MSG_WAITALL); false at the end of the stream.
bool readRecord(int fd, unsigned char* buffer, unsigned size)
{
    unsigned done = 0;
    while (done < size) {
        const ssize_t n = ::recv(fd, buffer + done, size - done, MSG_WAITALL);
        if (n <= 0) {
            if (n < 0 && errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<unsigned>(n);
    }
    return true;
}

// Writes one whole record; false when the socket failed.
bool writeRecord(int fd, const unsigned char* buffer, unsigned size)
{
    unsigned done = 0;
    while (done < size) {
        const ssize_t n = ::send(fd, buffer + done, size - done, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<unsigned>(n);
    }
    return true;
}

// Writes type and sequence at the head of record.
void putSequence(unsigned char* record, unsigned char type, uint64_t sequence)
{
    record[0] = type;
    std::memcpy(record + 1, &sequence, sizeof(sequence));
}

// The sequence number at the head of record.
uint64_t getSequence(const unsigned char* record)
{
    uint64_t sequence = 0;
    std::memcpy(&sequence, record + 1, sizeof(sequence));
    return sequence;
}

// The record size of this run: the bus's frame size, at least the minimum.
unsigned recordSize(const Options& options)
{
    return std::max(options.frameBytes, kRelayMinimum);
}

// Copies records from one socket to the other until either side ends.
void forward(int from, int to, unsigned size)
{
    std::vector<unsigned char> record(size);
    while (readRecord(from, record.data(), size) && writeRecord(to, record.data(), size)) {}
    ::shutdown(to, SHUT_WR);
}

// Answers one record received by the relay server; false to stop serving.
bool serveRecord(int fd, std::vector<unsigned char>& record, OneWayTally& tally)
{
    const unsigned size = static_cast<unsigned>(record.size());
    const unsigned char type = record[0];
    if (type == kRelayEcho) {
        record[0] = kRelayEchoReply;
        return writeRecord(fd, record.data(), size);
    }
    if (type == kRelayOneWay) {
        if (!tally.count(getSequence(record.data())))
            return true;
        putSequence(record.data(), kRelayAck, tally.received);
        return writeRecord(fd, record.data(), size);
    }
    if (type == kRelayFlood) {
        tally.count(getSequence(record.data()));
        return true;
    }
    if (type == kRelayDone) {
        putSequence(record.data(), kRelayDoneReply, tally.received);
        record[9] = tally.inOrder ? 1 : 0;
        tally.reset();
        return writeRecord(fd, record.data(), size);
    }
    return type != kRelayQuit;
}

} // namespace

void RelayLink::put(unsigned char type, uint64_t sequence)
{
    putSequence(out.data(), type, sequence);
}

bool RelayLink::write()
{
    return writeRecord(fd, out.data(), size);
}

bool RelayLink::send(unsigned char type, uint64_t sequence)
{
    put(type, sequence);
    return write();
}

bool RelayLink::receive()
{
    return readRecord(fd, in.data(), size);
}

uint64_t RelayLink::sequence() const
{
    return getSequence(in.data());
}

// One thread per direction, each reading a record and writing it on.
int runRelay(const Options& options)
{
    const unsigned size = recordSize(options);
    const int serverSide = listenAbstract(relayName(options, "s"));
    const int clientSide = listenAbstract(relayName(options, "c"));
    if (serverSide < 0 || clientSide < 0) {
        std::fprintf(stderr, "ulmarcomms-bench: the relay could not listen\n");
        return 1;
    }
    std::printf("READY\n");
    std::fflush(stdout);
    const int server = ::accept4(serverSide, nullptr, nullptr, SOCK_CLOEXEC);
    const int client = ::accept4(clientSide, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(serverSide);
    ::close(clientSide);
    if (server < 0 || client < 0)
        return 1;
    std::thread up(forward, client, server, size);
    forward(server, client, size);
    up.join();
    ::close(server);
    ::close(client);
    return 0;
}

int runRelayServer(const Options& options)
{
    const unsigned size = recordSize(options);
    const int fd = connectAbstract(relayName(options, "s"), std::chrono::seconds(10));
    if (fd < 0)
        return 1;
    std::vector<unsigned char> record(size, 'x');
    OneWayTally tally;
    tally.ackInterval = ackEvery(options);
    while (readRecord(fd, record.data(), size) && serveRecord(fd, record, tally)) {}
    ::close(fd);
    return 0;
}

// The measurements in order, each with the relay's CPU time per message
// when the coordinator passed its pid.
int runRelayClient(const Options& options)
{
    RelayLink link;
    link.size = recordSize(options);
    link.fd = connectAbstract(relayName(options, "c"), std::chrono::seconds(10));
    if (link.fd < 0)
        return 1;
    link.out.assign(link.size, 'x');
    link.in.assign(link.size, 0);
    Figures figures;
    const double roundTrips = double(options.warmup) + options.requests;
    const struct {
        const char* name;
        bool (*run)(RelayLink&, const Options&, Figures&);
        double messages;
    } steps[] = {
        {"rtt", relayRoundTrips, 2 * roundTrips},
        {"oneway", relayOneWay, options.messages + options.messages / double(ackEvery(options)) + 2},
        {"oneway_unwindowed", relayOneWayUnwindowed, options.messages + 2.0},
        {"pipelined", relayPipelined, 2.0 * options.requests},
    };
    CpuMeter relay(options.daemonPid);
    for (const auto& step : steps) {
        relay.begin();
        if (!step.run(link, options, figures))
            return 1;
        relay.end(step.name, step.messages, figures);
    }
    figures["frame_bytes"] = link.size;
    link.send(kRelayQuit, 0);
    ::close(link.fd);
    printResult(figures);
    return 0;
}

} // namespace UlmarCommsBench
