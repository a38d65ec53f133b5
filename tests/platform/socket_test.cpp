// Sockets through real links: socketpairs, TCP on 127.0.0.1, UDP on
// loopback and abstract UNIX names unique to each test, driven by the real
// selector workers.
#include "platform/socket.h"
#include "platform/socketaddress.h"
#include "platform/socketreaper.h"
#include "platform/socketselector.h"

#include "support/logcapture.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <memory>
#include <mutex>
#include <poll.h>
#include <stddef.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace UlmarCommsSystem;
using UlmarCommsTest::LogCapture;
using UlmarCommsTest::waitUntil;

namespace {

// A socket the test owns outright: released when it goes.
using SocketPtr = std::unique_ptr<Socket, Socket::Releaser>;

// An abstract name no other test (or run) uses.
std::string uniqueName(const char* what)
{
    static std::atomic<int> counter{0};
    return std::string("sockettest_") + what + "_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
}

SocketAddress loopback(unsigned short port)
{
    SocketAddress address;
    address.setIP4Address("127.0.0.1", std::to_string(port));
    return address;
}

// The test's owner of one stream socket: collects what arrives (re-posting
// recv each time), writes queued data one send at a time resuming partial
// sends, and records connection events in order.
struct Endpoint {
    std::mutex lock;
    Socket* socket = nullptr;
    std::vector<unsigned char> inbound = std::vector<unsigned char>(64 * 1024);
    std::string received;
    std::string outbox;
    std::vector<unsigned char> inFlight;
    bool sending = false;
    size_t bytesSent = 0;
    int partialSends = 0;
    std::vector<unsigned char> errors;
    std::vector<std::string> events;
    std::thread::id lastReceiver;
    bool echo = false;
    bool deleteOnError = false;
    bool deleted = false;

    ~Endpoint() { destroy(); }

    // Takes the socket away from this endpoint, closes and releases it, and
    // waits until none of its callbacks, which use this endpoint, still runs.
    void destroy()
    {
        Socket* s = nullptr;
        {
            std::lock_guard<std::mutex> guard(lock);
            std::swap(s, socket);
        }
        if (s != nullptr) {
            s->close();
            Socket::release(s);
        }
        SocketReaper::synchronize();
    }

    void attach(Socket* s)
    {
        std::lock_guard<std::mutex> guard(lock);
        socket = s;
        s->setStreamCallbacks(&Endpoint::onSent, &Endpoint::onReceived, this);
        s->setErrorCallback(&Endpoint::onError, this);
        s->setConnectionCallback(nullptr, &Endpoint::onDisconnected, this);
    }

    unsigned char startReceiving()
    {
        std::lock_guard<std::mutex> guard(lock);
        return socket->recv(inbound.data(), static_cast<unsigned>(inbound.size()));
    }

    void write(const std::string& data)
    {
        std::lock_guard<std::mutex> guard(lock);
        outbox += data;
        if (!sending)
            sendNextLocked();
    }

    void sendNextLocked()
    {
        if (outbox.empty() || socket == nullptr) {
            sending = false;
            return;
        }
        inFlight.assign(outbox.begin(), outbox.end());
        outbox.clear();
        sending = socket->send(inFlight.data(), static_cast<unsigned>(inFlight.size())) == Socket::NoSocketError;
    }

    template <typename T> T read(T Endpoint::*field)
    {
        std::lock_guard<std::mutex> guard(lock);
        return this->*field;
    }

    static void onSent(Socket* s, unsigned char* buffer, unsigned count, unsigned size, void* user, unsigned char error)
    {
        Endpoint* self = static_cast<Endpoint*>(user);
        std::lock_guard<std::mutex> guard(self->lock);
        EXPECT_EQ(error, Socket::NoSocketError);
        EXPECT_EQ(buffer, self->inFlight.data());
        EXPECT_LE(count, size);
        self->bytesSent += count;
        if (self->socket != s)
            return;
        if (count < size) {
            ++self->partialSends;
            self->inFlight.erase(self->inFlight.begin(), self->inFlight.begin() + count);
            self->sending =
                s->send(self->inFlight.data(), static_cast<unsigned>(self->inFlight.size())) == Socket::NoSocketError;
            return;
        }
        self->sendNextLocked();
    }

    static void onReceived(Socket* s, unsigned char* buffer, unsigned count, unsigned size, void* user,
                           unsigned char error)
    {
        Endpoint* self = static_cast<Endpoint*>(user);
        std::lock_guard<std::mutex> guard(self->lock);
        EXPECT_EQ(error, Socket::NoSocketError);
        EXPECT_EQ(buffer, self->inbound.data());
        EXPECT_EQ(size, self->inbound.size());
        EXPECT_GT(count, 0u);
        self->received.append(reinterpret_cast<char*>(buffer), count);
        self->lastReceiver = std::this_thread::get_id();
        if (self->socket != s)
            return;
        if (self->echo) {
            self->outbox.append(reinterpret_cast<char*>(buffer), count);
            if (!self->sending)
                self->sendNextLocked();
        }
        s->recv(self->inbound.data(), static_cast<unsigned>(self->inbound.size()));
    }

    static void onError(Socket* s, unsigned char error, void* user)
    {
        Endpoint* self = static_cast<Endpoint*>(user);
        bool remove = false;
        {
            std::lock_guard<std::mutex> guard(self->lock);
            self->errors.push_back(error);
            self->events.push_back("error");
            remove = self->deleteOnError && self->socket == s;
            if (remove)
                self->socket = nullptr;
        }
        // Released inside its own callback: the object stays valid until the
        // callback returns.
        if (remove) {
            s->close();
            Socket::release(s);
            std::lock_guard<std::mutex> guard(self->lock);
            self->deleted = true;
        }
    }

    static void onDisconnected(Socket*, void* user)
    {
        Endpoint* self = static_cast<Endpoint*>(user);
        std::lock_guard<std::mutex> guard(self->lock);
        self->events.push_back("disconnected");
    }
};

// The test's owner of a listener: takes every accepted socket into an
// Endpoint and records the listener callbacks.
struct Server {
    std::mutex lock;
    Socket* listener = nullptr;
    std::vector<std::unique_ptr<Endpoint>> endpoints;
    std::vector<SocketAddress> peers;
    std::vector<Socket*> parents;
    std::vector<Socket*> clientDisconnects;
    bool echo = false;

    ~Server()
    {
        if (listener != nullptr) {
            listener->close();
            Socket::release(listener);
        }
        // The listener's callbacks use this server.
        SocketReaper::synchronize();
    }

    unsigned char listen(Socket* socket, const SocketAddress& address)
    {
        listener = socket;
        EXPECT_EQ(socket->create(), Socket::NoSocketError);
        const unsigned char code = socket->bind(address);
        if (code != Socket::NoSocketError)
            return code;
        return socket->listen(&Server::onClientConnect, &Server::onClientDisconnect, this);
    }

    size_t accepted()
    {
        std::lock_guard<std::mutex> guard(lock);
        return endpoints.size();
    }

    Endpoint* endpoint(size_t i)
    {
        std::lock_guard<std::mutex> guard(lock);
        return endpoints.at(i).get();
    }

    static void onClientConnect(Socket* listener, const SocketAddress& peer, Socket* accepted, void* user)
    {
        Server* self = static_cast<Server*>(user);
        EXPECT_EQ(listener, self->listener);
        auto endpoint = std::make_unique<Endpoint>();
        endpoint->echo = self->echo;
        endpoint->attach(accepted);
        EXPECT_EQ(endpoint->startReceiving(), Socket::NoSocketError);
        std::lock_guard<std::mutex> guard(self->lock);
        self->peers.push_back(peer);
        self->parents.push_back(accepted->getParent());
        self->endpoints.push_back(std::move(endpoint));
    }

    static void onClientDisconnect(Socket* listener, Socket* accepted, void* user)
    {
        Server* self = static_cast<Server*>(user);
        EXPECT_EQ(listener, self->listener);
        std::lock_guard<std::mutex> guard(self->lock);
        self->clientDisconnects.push_back(accepted);
        for (auto& endpoint : self->endpoints) {
            std::lock_guard<std::mutex> inner(endpoint->lock);
            if (endpoint->socket == accepted)
                endpoint->events.push_back("client-disconnect");
        }
    }
};

void onConnected(Socket*, void* user)
{
    static_cast<std::atomic<int>*>(user)->fetch_add(1);
}

class SocketTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(Socket::init(2)); }
    void TearDown() override { Socket::deinit(); }

    // A listening TCP server on 127.0.0.1 with a free port.
    SocketAddress listenOnLoopback(Server& server)
    {
        EXPECT_EQ(server.listen(new SocketTCPIP(), loopback(0)), Socket::NoSocketError);
        SocketAddress bound;
        EXPECT_EQ(server.listener->getLocalAddress(bound), Socket::NoSocketError);
        return bound;
    }

    // Gives end one side of a socketpair (receiving if asked), leaves a send
    // of a megabyte outstanding on it and then closes the other side.
    void stallWriter(Endpoint& end, bool receiving)
    {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        ASSERT_TRUE(SetNonBlocking(fds[0]));
        int small = 4096;
        setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
        Socket* socket = new SocketUNIX();
        ASSERT_EQ(socket->set(fds[0]), Socket::NoSocketError);
        end.attach(socket);
        ASSERT_TRUE(!receiving || end.startReceiving() == Socket::NoSocketError);
        end.write(std::string(1024 * 1024, 'x'));
        ASSERT_TRUE(waitUntil([&] { return end.read(&Endpoint::partialSends) > 0; }));
        close(fds[1]);
    }

    // A socketpair (non-blocking unless asked) whose two ends are owned by
    // left and right.
    void makeEndpoints(Endpoint& left, Endpoint& right, bool nonBlocking = true)
    {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        Endpoint* ends[] = {&left, &right};
        for (int i = 0; i < 2; ++i) {
            ASSERT_TRUE(!nonBlocking || SetNonBlocking(fds[i]));
            Socket* socket = new SocketUNIX();
            ASSERT_EQ(socket->set(fds[i]), Socket::NoSocketError);
            ends[i]->attach(socket);
        }
    }
};

// A plain POSIX client, not built on this library.
int rawConnect(const sockaddr* address, socklen_t length, int family)
{
    const int fd = socket(family, SOCK_STREAM, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, address, length) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

} // namespace

// ---------------------------------------------------------------------------
// Error codes

TEST(SocketErrors, SystemErrorsMapToSocketCodes)
{
    const std::vector<std::pair<int, unsigned char>> table{
        {EACCES, Socket::PermissionDenied},
        {EFAULT, Socket::BadAddress},
        {EMFILE, Socket::TooManyOpenFiles},
        {ENONET, Socket::NoNetwork},
        {76, Socket::AddressAlreadyUsed},
        {EADDRINUSE, Socket::AddressAlreadyUsed},
        {EMSGSIZE, Socket::MessageTooLong},
        {EADDRNOTAVAIL, Socket::CantAssignAddress},
        {ENETDOWN, Socket::NetworkDown},
        {ENETUNREACH, Socket::NetworkUnreachable},
        {ENETRESET, Socket::NetworkDownOnReset},
        {ECONNABORTED, Socket::ConnectionAbort},
        {ECONNRESET, Socket::ConnectionResetByPeer},
        {EISCONN, Socket::SocketConnected},
        {ESHUTDOWN, Socket::CannotSendAfterSocketShutdown},
        {ETIMEDOUT, Socket::TimeOut},
        {ECONNREFUSED, Socket::ConnectionRefused},
        {EHOSTDOWN, Socket::HostIsDown},
        {EHOSTUNREACH, Socket::NoRouteToHost},
        {EPIPE, Socket::UnknownError},
        {EAGAIN, Socket::UnknownError},
        {0, Socket::UnknownError},
    };
    for (const auto& [error, code] : table)
        EXPECT_EQ(Socket::BSDSocketsErrorCode(error), code) << "errno " << error;
    // The codes are plain numbers in results and log lines, so their values are pinned.
    EXPECT_EQ(Socket::AddressAlreadyUsed, 6);
    EXPECT_EQ(Socket::ConnectionResetByPeer, 10);
    EXPECT_EQ(Socket::InvalidFunctionOnSocketType, 29);
    EXPECT_EQ(Socket::UnableToSchedualAsyncJob, 30);

    EXPECT_EQ(Socket::goodAPICall(0), Socket::NoSocketError);
    errno = ECONNREFUSED;
    EXPECT_EQ(Socket::goodAPICall(-1), Socket::ConnectionRefused);
}

TEST_F(SocketTest, OperationsBeforeCreateOrOnTheWrongKindOfSocketAreRefused)
{
    unsigned char byte = 0;
    SocketAddress peer;
    SocketPtr tcp(new SocketTCPIP());
    EXPECT_EQ(tcp->recv(&byte, 1), Socket::SocketNotCreated);
    EXPECT_EQ(tcp->send(&byte, 1), Socket::SocketNotCreated);
    EXPECT_EQ(tcp->bind(loopback(0)), Socket::SocketNotCreated);
    EXPECT_EQ(tcp->listen(nullptr, nullptr, nullptr), Socket::SocketNotCreated);
    EXPECT_EQ(tcp->getRemoteAddress(peer), Socket::SocketNotCreated);
    EXPECT_EQ(tcp->set(Socket::BadSocketValue), Socket::SocketNotCreated);
    SocketPtr udp(new SocketUDP());
    EXPECT_EQ(udp->recvFrom(&byte, 1), Socket::SocketNotCreated);

    ASSERT_EQ(udp->create(), Socket::NoSocketError);
    EXPECT_EQ(udp->recv(&byte, 1), Socket::InvalidFunctionOnSocketType);
    EXPECT_EQ(udp->send(&byte, 1), Socket::InvalidFunctionOnSocketType);
    ASSERT_EQ(tcp->create(), Socket::NoSocketError);
    EXPECT_EQ(tcp->recvFrom(&byte, 1), Socket::InvalidFunctionOnSocketType);
    EXPECT_EQ(tcp->sendTo(loopback(9), &byte, 1), Socket::InvalidFunctionOnSocketType);

    EXPECT_EQ(tcp->create(), Socket::SocketAlreadlyCreated);
    EXPECT_EQ(tcp->close(), Socket::NoSocketError);
    EXPECT_EQ(tcp->close(), Socket::SocketNotCreated);
    EXPECT_EQ(udp->close(), Socket::NoSocketError);
    EXPECT_EQ(Socket::createByAddressType(SocketAddress()), nullptr) << "no socket for an undefined address";
}

TEST_F(SocketTest, BindAndConnectFailuresCarryTheirCodes)
{
    SocketPtr tcp(new SocketTCPIP());
    ASSERT_EQ(tcp->create(), Socket::NoSocketError);
    EXPECT_EQ(tcp->bind(SocketAddress()), Socket::BadAddress);

    // A bound port without a listener refuses connections.
    const int holder = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(holder, 0);
    SocketAddress any = loopback(0);
    ASSERT_EQ(::bind(holder, any.getAddress(), any.getAddressSize()), 0);
    sockaddr_in bound{};
    socklen_t length = sizeof(bound);
    ASSERT_EQ(getsockname(holder, reinterpret_cast<sockaddr*>(&bound), &length), 0);
    std::atomic<int> connected{0};
    EXPECT_EQ(tcp->connect(loopback(ntohs(bound.sin_port)), &onConnected, nullptr, &connected),
              Socket::ConnectionRefused);
    EXPECT_EQ(connected.load(), 0);
    close(holder);

    // A port with a listener cannot be bound again.
    Server server;
    const SocketAddress address = listenOnLoopback(server);
    SocketPtr second(new SocketTCPIP());
    ASSERT_EQ(second->create(), Socket::NoSocketError);
    EXPECT_EQ(second->bind(address), Socket::AddressAlreadyUsed);
}

// ---------------------------------------------------------------------------
// Transfers

// A thread may take a pending read off the selector, wait for it itself and
// complete it there; a read given back goes to the selector again, and bytes
// that came while it was taken are not missed.
TEST_F(SocketTest, ATakenReadCompletesOnTheTakingThreadAndAReturnedOneOnTheSelector)
{
    Endpoint left, right;
    makeEndpoints(left, right);
    Socket* a = left.socket;
    Socket* b = right.socket;
    auto peerWrites = [&](const char* text) {
        ASSERT_EQ(::send(b->getHandle(), text, std::strlen(text), MSG_NOSIGNAL),
                  static_cast<ssize_t>(std::strlen(text)));
    };
    auto waitReadable = [](int fd) {
        pollfd entry{fd, POLLIN, 0};
        return ::poll(&entry, 1, 10000) == 1;
    };
    auto completeHere = [&] {
        SocketHold hold(a);
        a->completeTakenRead(hold);
    };
    EXPECT_EQ(a->takeRead(), Socket::BadSocketValue) << "no read is pending yet";
    ASSERT_EQ(left.startReceiving(), Socket::NoSocketError);

    const int handle = a->takeRead();
    ASSERT_NE(handle, Socket::BadSocketValue);
    EXPECT_EQ(a->takeRead(), handle) << "taking it again finds it taken";
    peerWrites("x");
    ASSERT_TRUE(waitReadable(handle));
    completeHere();
    EXPECT_EQ(left.read(&Endpoint::received), "x");
    EXPECT_EQ(left.read(&Endpoint::lastReceiver), std::this_thread::get_id());

    // The callback posted the next read, which the selector completes.
    peerWrites("y");
    ASSERT_TRUE(waitUntil([&] { return left.read(&Endpoint::received) == "xy"; }));
    EXPECT_NE(left.read(&Endpoint::lastReceiver), std::this_thread::get_id());

    // Given back before and after the bytes arrive.
    ASSERT_NE(a->takeRead(), Socket::BadSocketValue);
    a->returnRead();
    peerWrites("z");
    ASSERT_TRUE(waitUntil([&] { return left.read(&Endpoint::received) == "xyz"; }));
    ASSERT_NE(a->takeRead(), Socket::BadSocketValue);
    peerWrites("w");
    ASSERT_TRUE(waitReadable(handle));
    EXPECT_EQ(left.read(&Endpoint::received), "xyz") << "nobody reads a taken read but its taker";
    a->returnRead();
    ASSERT_TRUE(waitUntil([&] { return left.read(&Endpoint::received) == "xyzw"; }));

    // The peer's end, found by the taker, is reported once.
    ASSERT_NE(a->takeRead(), Socket::BadSocketValue);
    right.destroy();
    ASSERT_TRUE(waitReadable(handle));
    completeHere();
    EXPECT_EQ(left.read(&Endpoint::events), (std::vector<std::string>{"disconnected", "error"}));
    EXPECT_EQ(left.read(&Endpoint::errors), (std::vector<unsigned char>{Socket::NoSocketError}));
}

TEST_F(SocketTest, SecondSendBeforeCompletionIsRefusedAndTheFirstSurvives)
{
    Endpoint left, right;
    makeEndpoints(left, right);
    Socket* a = left.socket;
    // Fill the link so that the first send cannot complete yet.
    std::string filler;
    char chunk[4096];
    std::memset(chunk, 'f', sizeof(chunk));
    for (;;) {
        const ssize_t written = ::send(a->getHandle(), chunk, sizeof(chunk), MSG_DONTWAIT);
        if (written <= 0)
            break;
        filler.append(chunk, static_cast<size_t>(written));
    }
    ASSERT_FALSE(filler.empty());
    unsigned char second[] = "second";
    {
        std::lock_guard<std::mutex> guard(left.lock);
        left.inFlight.assign({'f', 'i', 'r', 's', 't'});
        ASSERT_EQ(a->send(left.inFlight.data(), 5), Socket::NoSocketError);
    }
    EXPECT_EQ(a->send(second, 6), Socket::UnknownError);
    ASSERT_EQ(right.startReceiving(), Socket::NoSocketError);
    ASSERT_TRUE(waitUntil([&] { return right.read(&Endpoint::received).size() >= filler.size() + 5; }));
    EXPECT_EQ(left.read(&Endpoint::bytesSent), 5u);
    EXPECT_TRUE(right.read(&Endpoint::received) == filler + "first") << "the refused send must not leak out";
}

// 4 MiB never fits a socket buffer in one go. With one worker and blocking
// descriptors, a send that blocked the worker would leave nobody to receive.
TEST_F(SocketTest, LargeTransfersResumeAfterPartialSendsAndNeverBlockTheOnlyWorker)
{
    for (const bool blockingWithOneWorker : {false, true}) {
        SCOPED_TRACE(blockingWithOneWorker ? "blocking descriptors, one worker" : "non-blocking");
        if (blockingWithOneWorker) {
            Socket::deinit();
            ASSERT_TRUE(Socket::init(1));
        }
        Endpoint sender, receiver;
        makeEndpoints(sender, receiver, !blockingWithOneWorker);
        ASSERT_EQ(receiver.startReceiving(), Socket::NoSocketError);

        std::string payload(4 * 1024 * 1024, '\0');
        for (size_t i = 0; i < payload.size(); ++i)
            payload[i] = static_cast<char>((i * 131 + i / 4096) & 0xFF);
        sender.write(payload);
        ASSERT_TRUE(waitUntil([&] { return receiver.read(&Endpoint::received).size() >= payload.size(); },
                              std::chrono::seconds(60)));
        EXPECT_TRUE(receiver.read(&Endpoint::received) == payload) << "bytes lost, reordered or duplicated";
        EXPECT_EQ(sender.read(&Endpoint::bytesSent), payload.size());
        EXPECT_GT(sender.read(&Endpoint::partialSends), 0);
    }
}

TEST_F(SocketTest, DatagramsTravelOverLoopback)
{
    struct Datagrams {
        std::mutex lock;
        std::vector<std::pair<std::string, SocketAddress>> received;
        std::vector<std::pair<unsigned, SocketAddress>> sent;
        unsigned char buffer[256];
        Socket* socket = nullptr;
        static void onSent(Socket*, const SocketAddress& peer, unsigned char*, unsigned count, unsigned, void* user,
                           unsigned char error)
        {
            Datagrams* self = static_cast<Datagrams*>(user);
            EXPECT_EQ(error, Socket::NoSocketError);
            std::lock_guard<std::mutex> guard(self->lock);
            self->sent.emplace_back(count, peer);
        }
        static void onReceived(Socket* s, const SocketAddress& peer, unsigned char* buffer, unsigned count,
                               unsigned size, void* user, unsigned char error)
        {
            Datagrams* self = static_cast<Datagrams*>(user);
            EXPECT_EQ(error, Socket::NoSocketError);
            EXPECT_EQ(size, sizeof(self->buffer));
            std::lock_guard<std::mutex> guard(self->lock);
            self->received.emplace_back(std::string(reinterpret_cast<char*>(buffer), count), peer);
            s->recvFrom(self->buffer, sizeof(self->buffer));
        }
    } senderSide, receiverSide;

    SocketPtr sender(new SocketUDP());
    SocketPtr receiver(new SocketUDP());
    for (Socket* socket : {sender.get(), receiver.get()}) {
        ASSERT_EQ(socket->create(), Socket::NoSocketError);
        ASSERT_EQ(socket->bind(loopback(0)), Socket::NoSocketError);
    }
    EXPECT_EQ(sender->setBroadcastMode(true), Socket::NoSocketError);
    SocketAddress from, to;
    ASSERT_EQ(sender->getLocalAddress(from), Socket::NoSocketError);
    ASSERT_EQ(receiver->getLocalAddress(to), Socket::NoSocketError);
    sender->setDatagramCallbacks(&Datagrams::onSent, &Datagrams::onReceived, &senderSide);
    receiver->setDatagramCallbacks(&Datagrams::onSent, &Datagrams::onReceived, &receiverSide);
    {
        std::lock_guard<std::mutex> guard(receiverSide.lock);
        ASSERT_EQ(receiver->recvFrom(receiverSide.buffer, sizeof(receiverSide.buffer)), Socket::NoSocketError);
    }

    const std::vector<std::string> messages{"one", "two two", "three three three"};
    for (const std::string& text : messages) {
        std::vector<unsigned char> bytes(text.begin(), text.end());
        const size_t before = senderSide.sent.size();
        ASSERT_EQ(sender->sendTo(to, bytes.data(), static_cast<unsigned>(bytes.size())), Socket::NoSocketError);
        ASSERT_TRUE(waitUntil([&] {
            std::lock_guard<std::mutex> guard(senderSide.lock);
            return senderSide.sent.size() > before;
        }));
    }
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard<std::mutex> guard(receiverSide.lock);
        return receiverSide.received.size() == messages.size();
    }));
    std::lock_guard<std::mutex> guard(receiverSide.lock);
    for (size_t i = 0; i < messages.size(); ++i) {
        EXPECT_EQ(receiverSide.received[i].first, messages[i]);
        EXPECT_TRUE(receiverSide.received[i].second.match(from, true)) << receiverSide.received[i].second.asString();
        EXPECT_EQ(senderSide.sent[i].first, messages[i].size());
        EXPECT_TRUE(senderSide.sent[i].second.match(to, true));
    }
    sender->close();
    receiver->close();
    // The callbacks use the two recorders, which go before the sockets' release.
    SocketReaper::synchronize();
}

// ---------------------------------------------------------------------------
// Listening, accepting and the end of connections

TEST_F(SocketTest, AcceptedClientsReachTheListenerAndItsCallbacks)
{
    Server server;
    server.echo = true;
    const SocketAddress address = listenOnLoopback(server);
    EXPECT_TRUE(server.listener->isListening());

    SocketTCPIP* client = new SocketTCPIP();
    Endpoint clientSide;
    ASSERT_EQ(client->create(), Socket::NoSocketError);
    clientSide.attach(client);
    std::atomic<int> connected{0};
    ASSERT_EQ(client->connect(address, &onConnected, nullptr, &connected), Socket::NoSocketError);
    EXPECT_EQ(connected.load(), 1) << "the connected callback runs inside connect()";
    client->setConnectionCallback(nullptr, &Endpoint::onDisconnected, &clientSide);
    ASSERT_EQ(clientSide.startReceiving(), Socket::NoSocketError);

    ASSERT_TRUE(waitUntil([&] { return server.accepted() == 1; }));
    SocketAddress clientAddress;
    ASSERT_EQ(client->getLocalAddress(clientAddress), Socket::NoSocketError);
    {
        std::lock_guard<std::mutex> guard(server.lock);
        EXPECT_TRUE(server.peers[0].match(clientAddress, true)) << server.peers[0].asString();
        EXPECT_EQ(server.parents[0], server.listener) << "accepted sockets are linked to their listener";
    }
    EXPECT_EQ(server.listener->getAcceptedSockets().size(), 1u);
    SocketAddress remote;
    ASSERT_EQ(client->getRemoteAddress(remote), Socket::NoSocketError);
    EXPECT_TRUE(remote.match(address, true));

    clientSide.write("ping");
    ASSERT_TRUE(waitUntil([&] { return clientSide.read(&Endpoint::received) == "ping"; }));

    // An orderly close: listener first, then the socket's own callbacks.
    Endpoint* accepted = server.endpoint(0);
    clientSide.destroy();
    ASSERT_TRUE(waitUntil([&] { return accepted->read(&Endpoint::errors).size() == 1; }));
    EXPECT_EQ(accepted->read(&Endpoint::errors)[0], Socket::NoSocketError);
    EXPECT_EQ(accepted->read(&Endpoint::events),
              (std::vector<std::string>{"client-disconnect", "disconnected", "error"}));
    std::lock_guard<std::mutex> guard(server.lock);
    ASSERT_EQ(server.clientDisconnects.size(), 1u);
}

// ---------------------------------------------------------------------------
// The abstract UNIX name as other programs see it

TEST_F(SocketTest, PaddedAbstractNameIsReachedByForeignClients)
{
    const std::string name = uniqueName("pipe");
    SocketAddress address;
    address.setUNIXAddress(name);
    Server server;
    server.echo = true;
    ASSERT_EQ(server.listen(new SocketUNIX(), address), Socket::NoSocketError);

    // The name the world sees: NUL, "__name.sock", NULs to the end of the path.
    sockaddr_un padded{};
    padded.sun_family = AF_UNIX;
    std::snprintf(padded.sun_path + 1, sizeof(padded.sun_path) - 1, "__%s.sock", name.c_str());
    const int raw = rawConnect(reinterpret_cast<sockaddr*>(&padded), sizeof(padded), AF_UNIX);
    ASSERT_GE(raw, 0) << "padded name not reachable: " << std::strerror(errno);
    ASSERT_EQ(::send(raw, "raw", 3, 0), 3);
    char reply[3];
    ASSERT_EQ(::recv(raw, reply, sizeof(reply), MSG_WAITALL), 3);
    EXPECT_EQ(std::string(reply, 3), "raw");
    close(raw);

    // The short form of the same characters is a different abstract name.
    const socklen_t shortLength =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + std::strlen(padded.sun_path + 1));
    EXPECT_LT(rawConnect(reinterpret_cast<sockaddr*>(&padded), shortLength, AF_UNIX), 0);
    EXPECT_EQ(errno, ECONNREFUSED);
}

// ---------------------------------------------------------------------------
// Release while workers run

TEST_F(SocketTest, ReadAndWriteFailingTogetherReportTheEndOnce)
{
    for (int round = 0; round < 20; ++round) {
        Endpoint end;
        end.deleteOnError = true;
        ASSERT_NO_FATAL_FAILURE(stallWriter(end, true));
        ASSERT_TRUE(waitUntil([&] { return end.read(&Endpoint::deleted); })) << "round " << round;
        EXPECT_EQ(end.read(&Endpoint::errors).size(), 1u) << "round " << round;
    }
}

TEST_F(SocketTest, AFailedWriteAndALaterFailedReadEndTheConnectionOnce)
{
    Endpoint end;
    ASSERT_NO_FATAL_FAILURE(stallWriter(end, false));
    ASSERT_TRUE(waitUntil([&] { return end.read(&Endpoint::errors).size() == 1; }));
    EXPECT_NE(end.read(&Endpoint::errors)[0], Socket::NoSocketError);

    LogCapture log(1, LogCapture::SocketLayer);
    ASSERT_EQ(end.startReceiving(), Socket::NoSocketError);
    // The peer went with our data unread: its end shows as a reset or a close.
    ASSERT_TRUE(waitUntil([&] { return log.count("recv other end shutdown") + log.count("recv errored") == 1; }));
    EXPECT_EQ(end.read(&Endpoint::errors).size(), 1u) << "the end was reported twice";
    EXPECT_EQ(end.read(&Endpoint::events), (std::vector<std::string>{"disconnected", "error"}));
}

// What is handed to the reaper outlives every section that began before the
// hand-over and, when nothing else waits, only those; synchronize() returns
// only once they have ended.
TEST_F(SocketTest, TheReaperWaitsForEarlierSectionsOnly)
{
    struct SectionThread {
        std::promise<void> leave;
        std::thread thread;
        void start()
        {
            std::promise<void> entered;
            std::future<void> inside = entered.get_future();
            thread = std::thread([this, &entered, gate = leave.get_future()]() mutable {
                SocketReaper::Section section;
                entered.set_value();
                gate.wait();
            });
            inside.wait();
        }
        void end()
        {
            leave.set_value();
            thread.join();
        }
    };
    std::atomic<int> destroyed{0};
    const SocketReaper::Destroy count = [](void* counter) { static_cast<std::atomic<int>*>(counter)->fetch_add(1); };

    SectionThread before;
    SectionThread after;
    before.start();
    SocketReaper::defer(count, &destroyed);
    after.start();
    SocketReaper::reap();
    EXPECT_EQ(destroyed.load(), 0) << "destroyed while a section that began before still ran";
    before.end();
    EXPECT_TRUE(waitUntil([&] { return destroyed.load() == 1; })) << "a section begun later held it back";
    after.end();

    SectionThread running;
    running.start();
    std::atomic<bool> synchronized{false};
    std::thread waiter([&] {
        SocketReaper::synchronize();
        synchronized = true;
    });
    SocketReaper::reap();
    EXPECT_FALSE(synchronized.load()) << "synchronize() returned while an earlier section ran";
    running.end();
    waiter.join();
    EXPECT_TRUE(synchronized.load());
    EXPECT_EQ(SocketReaper::pending(), 0u);
}

// A released socket is closed at once and destroyed only after the callback
// running on it has returned, whether the callback released it itself or
// another thread did meanwhile; that release returns while the callback
// still runs.
TEST_F(SocketTest, AReleasedSocketOutlivesItsRunningCallbackAndTheReleaseNeverWaits)
{
    struct Tracked : SocketUNIX {
        explicit Tracked(std::atomic<bool>& flag) : destroyed(flag) {}
        ~Tracked() override { destroyed = true; }
        std::atomic<bool>& destroyed;
    };
    struct Owner {
        bool releaseInside = false;
        std::atomic<bool> destroyed{false};
        std::atomic<bool> inCallback{false};
        std::atomic<bool> released{false};
        std::atomic<bool> callbackDone{false};
        std::atomic<bool> destroyedDuringCallback{false};
        std::atomic<int> handleAfterRelease{0};
        unsigned char buffer[16];
        static void onReceived(Socket* s, unsigned char*, unsigned, unsigned, void* user, unsigned char)
        {
            Owner* self = static_cast<Owner*>(user);
            self->inCallback = true;
            if (self->releaseInside) {
                Socket::release(s);
                self->released = true;
            } else {
                waitUntil([&] { return self->released.load(); });
            }
            // Give the reaper every chance to destroy the socket too early.
            waitUntil([&] { return self->destroyed.load(); }, std::chrono::milliseconds(200));
            self->destroyedDuringCallback = self->destroyed.load();
            self->handleAfterRelease = s->getHandle();
            self->callbackDone = true;
        }
    };
    for (const bool inside : {true, false}) {
        SCOPED_TRACE(inside ? "released in its own callback" : "released from another thread");
        Owner owner;
        owner.releaseInside = inside;
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        ASSERT_TRUE(SetNonBlocking(fds[0]));
        Socket* a = new Tracked(owner.destroyed);
        ASSERT_EQ(a->set(fds[0]), Socket::NoSocketError);
        a->setStreamCallbacks(nullptr, &Owner::onReceived, &owner);
        ASSERT_EQ(a->recv(owner.buffer, sizeof(owner.buffer)), Socket::NoSocketError);
        ASSERT_EQ(::send(fds[1], "x", 1, 0), 1);
        ASSERT_TRUE(waitUntil([&] { return owner.inCallback.load(); }));
        if (!inside) {
            Socket::release(a);
            EXPECT_FALSE(owner.callbackDone.load()) << "the release waited for the callback";
            // The peer sees the end now, not when the object goes.
            pollfd peer{fds[1], POLLIN, 0};
            char byte = 0;
            EXPECT_EQ(::poll(&peer, 1, 10000), 1);
            EXPECT_EQ(::recv(fds[1], &byte, 1, MSG_DONTWAIT), 0);
            owner.released = true;
        }
        ASSERT_TRUE(waitUntil([&] { return owner.callbackDone.load() && owner.destroyed.load(); }));
        EXPECT_FALSE(owner.destroyedDuringCallback.load()) << "destroyed while its callback still ran";
        EXPECT_EQ(owner.handleAfterRelease.load(), Socket::BadSocketValue) << "a released socket is closed";
        close(fds[1]);
    }
}

// A thread waiting on a taken read outside any section keeps the descriptor;
// releasing the socket meanwhile ends the wait and shows the peer the end at
// once, and the descriptor is closed when the wait goes.
TEST_F(SocketTest, ReleasingASocketEndsAWaitOnItsTakenReadAtOnce)
{
    Endpoint left, right;
    makeEndpoints(left, right);
    ASSERT_EQ(left.startReceiving(), Socket::NoSocketError);
    Socket* a = nullptr;
    {
        std::lock_guard<std::mutex> guard(left.lock);
        std::swap(a, left.socket);
    }
    SocketWait wait = a->waitOnTakenRead();
    const int handle = wait.handle();
    ASSERT_NE(handle, Socket::BadSocketValue);
    std::atomic<bool> woke{false};
    std::thread waiter([&] {
        pollfd entry{handle, POLLIN, 0};
        woke = ::poll(&entry, 1, 10000) == 1;
    });
    Socket::release(a);
    waiter.join();
    EXPECT_TRUE(woke.load()) << "the wait went on after the release";
    char byte = 0;
    EXPECT_EQ(::recv(right.read(&Endpoint::socket)->getHandle(), &byte, 1, MSG_DONTWAIT), 0)
        << "the peer does not see the end yet";
    EXPECT_NE(fcntl(handle, F_GETFD), -1) << "closed under the wait";
    wait = SocketWait();
    EXPECT_EQ(fcntl(handle, F_GETFD), -1) << "left open after the wait";
}

// ---------------------------------------------------------------------------
// The socket layer's logger and selector start-up

TEST(SocketLogging, GateFollowsLevelAndLogger)
{
    EXPECT_EQ(Socket::getLoggingLevel(), 2);
    Socket::BSDSocketsErrorCode(EPIPE); // no logger: nothing to see
    LogCapture log(2, LogCapture::SocketLayer);
    Socket::BSDSocketsErrorCode(EPIPE);
    Socket::verbose("not shown %d\n", 1);
    Socket::message("not shown either\n");
    Socket::setLoggingLevel(0);
    Socket::verbose("shown %d\n", 7);
    Socket::setLoggingLevel(4);
    Socket::log(3, "below the level\n");
    Socket::setLogger(nullptr);
    Socket::log(4, "no logger\n");
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, 2);
    EXPECT_EQ(lines[0].text, "Call to BSDSocketsErrorCode( 32 )\n");
    EXPECT_EQ(lines[1].level, 0);
    EXPECT_EQ(lines[1].text, "shown 7\n");
}

// A signal that interrupts a worker's wait is logged, and the workers go on
// serving.
TEST_F(SocketTest, ASignalInterruptingTheSelectorsWaitIsLoggedAndServingGoesOn)
{
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    // The workers started with SIGUSR1 open; blocked here, it goes to them.
    sigset_t usr1;
    sigset_t old;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &usr1, &old), 0);
    bool logged = false;
    {
        LogCapture log(UlmarComms::Core::LogError, LogCapture::SocketLayer);
        logged = waitUntil([&] { return kill(getpid(), SIGUSR1) == 0 && log.contains("Got EINTR"); });
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_TRUE(logged);

    Endpoint left, right;
    makeEndpoints(left, right);
    right.echo = true;
    ASSERT_EQ(left.startReceiving(), Socket::NoSocketError);
    ASSERT_EQ(right.startReceiving(), Socket::NoSocketError);
    left.write("still served");
    EXPECT_TRUE(waitUntil([&] { return left.read(&Endpoint::received) == "still served"; }));
}

TEST(SocketSelectorStart, InitStartsOnceAndDeinitJoins)
{
    Socket::deinit();
    ASSERT_TRUE(Socket::init(0));
    SocketSelector* selector = Socket::getSelector();
    ASSERT_NE(selector, nullptr);
    EXPECT_EQ(selector->workerCount(), 1u) << "0 workers means 1";
    EXPECT_GE(selector->getHandle(), 0);
    EXPECT_EQ(selector->getMaxEvents(), 40);
    EXPECT_EQ(selector->getTimeout(), 500);
    ASSERT_TRUE(Socket::init(5));
    EXPECT_EQ(Socket::getSelector(), selector);
    EXPECT_EQ(selector->workerCount(), 1u) << "a second init starts nothing";
    Socket::deinit();
    EXPECT_EQ(Socket::getSelector(), nullptr);
    Socket::deinit(); // harmless twice
    {
        SocketPtr socket(new SocketTCPIP());
        EXPECT_EQ(socket->create(), Socket::SocketNotCreated) << "nothing can be created without a selector";
        EXPECT_EQ(socket->getHandle(), Socket::BadSocketValue);
    }

    ASSERT_TRUE(Socket::init(3));
    EXPECT_EQ(Socket::getSelector()->workerCount(), 3u);
    Socket::deinit();
}
