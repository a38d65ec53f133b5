// Frame handler and frame server over real sockets: UNIX sockets in the
// abstract namespace (a name unique to each test) and TCP on 127.0.0.1.
//
// Handlers on both ends record what they receive; a plain POSIX peer stands
// in where the test needs to see or craft the exact bytes on the wire (slow
// readers, ids and order, hostile input). Everything waits with deadlines.
#include "framing/dataframehandler.h"
#include "framing/dataframeserver.h"
#include "framing/writebatch.h"

#include "core/core.h"
#include "messaging/messaging.h"
#include "messaging/messaging_support.h"
#include "platform/socket.h"
#include "platform/socketreaper.h"
#include "support/logcapture.h"
#include "support/rawpeer.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <utility>
#include <vector>

using MessagingTest::Pairs;
using MessagingTest::pairsOf;
using UlmarComms::CommandMessage;
using UlmarComms::DataFrame;
using UlmarComms::DataFrameHandler;
using UlmarComms::DataFrameServer;
using UlmarComms::MessageItem;
using UlmarComms::MessageRef;
using UlmarComms::WriteBatch;
using UlmarCommsSystem::Socket;
using UlmarCommsSystem::SocketAddress;
using UlmarCommsSystem::SocketReaper;
using UlmarCommsTest::Bytes;
using UlmarCommsTest::commandFrame;
using UlmarCommsTest::LogCapture;
using UlmarCommsTest::messageFrame;
using UlmarCommsTest::rawFrame;
using UlmarCommsTest::RawPeer;
using UlmarCommsTest::uniqueUnixAddress;
using UlmarCommsTest::operator+;
using UlmarCommsTest::append;
using UlmarCommsTest::waitUntil;

namespace {

const std::chrono::milliseconds kDeadline(10000);

// A message tagged in "_m", padded with a value of padding bytes.
MessageRef makeMessage(const std::string& tag, size_t padding)
{
    MessageRef message(MessageItem::create());
    message->add(MessageItem::ArgumentKey_To, "peer@sink");
    message->add(MessageItem::ArgumentKey_Method, tag.c_str());
    message->add("pad", std::string(padding, static_cast<char>('a' + padding % 26)).c_str());
    return message;
}

// Queues a message on a handler; the handler copies it, so it is released here.
bool queueMessage(DataFrameHandler& handler, const std::string& tag, size_t padding)
{
    return handler.addToOutbound(makeMessage(tag, padding).get());
}

Pairs expectedPairs(const std::string& tag, size_t padding)
{
    return pairsOf(makeMessage(tag, padding).get());
}

SocketAddress loopbackAnyPort()
{
    SocketAddress address;
    EXPECT_TRUE(address.setIP4Address("127.0.0.1", "0"));
    return address;
}

// Ordered record of what happened, shared by a server and its handlers.
class Journal {
public:
    void add(const std::string& event)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back(event);
    }
    std::vector<std::string> events()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }
    size_t count(const std::string& event)
    {
        const std::vector<std::string> all = events();
        return static_cast<size_t>(std::count(all.begin(), all.end(), event));
    }
    // Position of the first event equal to event, or -1.
    int indexOf(const std::string& event)
    {
        const std::vector<std::string> all = events();
        const auto found = std::find(all.begin(), all.end(), event);
        return found == all.end() ? -1 : static_cast<int>(found - all.begin());
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_events;
};

// A handler that records what arrives. It owns its socket: the error
// callback releases it, as every owner of a link does, and so does its
// release.
class Recorder : public DataFrameHandler {
public:
    Recorder(unsigned inbound = 0, unsigned outbound = 0, Journal* journal = nullptr) : m_pJournal(journal)
    {
        createBuffers(inbound, outbound);
    }

    void retireLink() override { dropSocket(); }

    void dropSocket() { Socket::release(takeSocket()); }

    void doHandleMessage(MessageItem* message) override
    {
        const Pairs pairs = pairsOf(message);
        if (echo)
            addToOutbound(message);
        std::string tag = "?";
        for (const auto& pair : pairs)
            if (pair.first == MessageItem::ArgumentKey_Method)
                tag = pair.second;
        if (onMessage)
            onMessage(message, tag);
        MessageItem::release(message);
        record("message:" + tag, [&] { m_messages.push_back(pairs); });
        if (throwOnNextMessage.exchange(false))
            throw std::runtime_error("subclass failure");
    }
    void doHandleCommand(unsigned char code, const std::string& text) override
    {
        record("command:" + std::string(text.c_str()), [&] { m_commands.emplace_back(code, text); });
    }
    void onConnected(Socket*) override
    {
        record("connected", [] {});
    }
    void onDisconnect(Socket*) override
    {
        record("disconnect", [] {});
    }
    void onError(Socket* socket, unsigned char error) override
    {
        // The clean-up first, so that a test that sees the error sees it done.
        Socket::release(takeSocketIf(socket));
        record("error", [&] { m_errors.push_back(error); });
        if (throwInOnError)
            throw std::runtime_error("owner failure");
    }
    void onSent(Socket* socket, unsigned char* buffer, unsigned count, unsigned size, unsigned char error) override
    {
        if (count < size && onPartialSend)
            onPartialSend(buffer, count, size);
        DataFrameHandler::onSent(socket, buffer, count, size, error);
    }

    // Snapshots, taken under the lock the callbacks record under.
    std::vector<Pairs> messages() { return locked(m_messages); }
    size_t messageCount() { return locked(m_messages).size(); }
    std::vector<std::pair<unsigned char, std::string>> commands() { return locked(m_commands); }
    size_t commandCount() { return locked(m_commands).size(); }
    std::vector<unsigned char> errors() { return locked(m_errors); }
    std::vector<std::string> events() { return locked(m_events); }

    bool echo = false;
    bool throwInOnError = false;
    std::atomic<bool> throwOnNextMessage{false};
    // Called with each message received, on the thread dispatching it.
    std::function<void(MessageItem* message, const std::string& tag)> onMessage;
    // Called when a posted send completes in part, before the handler sees it.
    std::function<void(const unsigned char* buffer, unsigned count, unsigned size)> onPartialSend;

private:
    template <typename T> T locked(const T& field)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return field;
    }
    template <typename Change> void record(const std::string& event, Change change)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        change();
        m_events.push_back(event);
        if (m_pJournal != nullptr)
            m_pJournal->add(event);
    }

    Journal* m_pJournal;
    std::mutex m_mutex;
    std::vector<Pairs> m_messages;
    std::vector<std::pair<unsigned char, std::string>> m_commands;
    std::vector<unsigned char> m_errors;
    std::vector<std::string> m_events;
};

// A server whose accepted links are Recorders (owned by the server).
class RecordingServer : public DataFrameServer {
public:
    RecordingServer(const SocketAddress& address, unsigned inbound = 0, unsigned outbound = 0)
        : DataFrameServer(address), m_inbound(inbound), m_outbound(outbound)
    {
    }
    ~RecordingServer() override
    {
        finish();
        for (Recorder* handler : handlers())
            DataFrameHandler::release(handler);
        // An error callback that took its socket may still be writing to
        // the journal.
        SocketReaper::synchronize();
    }

    void onClientConnect(Socket*, const SocketAddress&, Socket* accepted) override
    {
        Recorder* handler = new Recorder(m_inbound, m_outbound, &journal);
        handler->echo = echo;
        handler->setSocket(accepted);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_handlers.push_back(handler);
        }
        journal.add("client-connect");
        handler->recvData();
    }
    void onClientDisconnect(Socket*, Socket*) override { journal.add("client-disconnect"); }

    std::vector<Recorder*> handlers()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_handlers;
    }
    Recorder* handler(size_t i)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return i < m_handlers.size() ? m_handlers[i] : nullptr;
    }
    // Unlists a handler, releases its socket, and deletes it at
    // once, not through the reaper, so that a batch still open on this thread
    // outlives it.
    void destroy(Recorder* handler)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_handlers.erase(std::find(m_handlers.begin(), m_handlers.end(), handler));
        lock.unlock();
        handler->dropSocket();
        delete handler;
    }
    bool waitForClients(size_t n)
    {
        return waitUntil([&] { return handlers().size() >= n; }, kDeadline);
    }
    // The address clients connect to (with the port the system chose).
    SocketAddress boundAddress()
    {
        SocketAddress bound = address();
        if (bound.isIP4Address()) {
            EXPECT_EQ(listeningSocket()->getLocalAddress(bound), Socket::NoSocketError);
        }
        return bound;
    }

    Journal journal;
    bool echo = false;

private:
    unsigned m_inbound;
    unsigned m_outbound;
    std::mutex m_mutex;
    std::vector<Recorder*> m_handlers;
};

// A recorder the test owns: released, not deleted, when it goes.
using RecorderPtr = std::unique_ptr<Recorder, DataFrameHandler::Releaser>;

// A connected client handler built on the library's sockets (the one given,
// or a new one).
RecorderPtr connectRecorder(const SocketAddress& address, unsigned inbound = 0, unsigned outbound = 0,
                            RecorderPtr client = nullptr)
{
    if (!client)
        client.reset(new Recorder(inbound, outbound));
    Socket* socket = Socket::createByAddressType(address);
    EXPECT_NE(socket, nullptr);
    EXPECT_EQ(socket->create(), Socket::NoSocketError);
    client->setSocket(socket);
    EXPECT_EQ(socket->connect(address, DataFrameHandler::onConnectedFunction, DataFrameHandler::onDisconnectFunction,
                              static_cast<DataFrameHandler*>(client.get())),
              Socket::NoSocketError);
    EXPECT_TRUE(client->recvData());
    return client;
}

// Connects a plain peer to server and gives the link the server made for it
// (null if none came).
Recorder* linkRawPeer(RecordingServer& server, RawPeer& peer)
{
    const size_t before = server.handlers().size();
    if (!peer.connectTo(server.boundAddress()) || !server.waitForClients(before + 1))
        return nullptr;
    return server.handler(before);
}

class FrameLinkTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(Socket::init(3)); }
    void TearDown() override { Socket::deinit(); }

    // A started server on a unique UNIX name.
    std::unique_ptr<RecordingServer> unixServer(unsigned inbound = 0, unsigned outbound = 0)
    {
        auto server = std::make_unique<RecordingServer>(uniqueUnixAddress("dfh_"), inbound, outbound);
        EXPECT_TRUE(server->start());
        return server;
    }
    // A started server on 127.0.0.1 with a port the system chose.
    std::unique_ptr<RecordingServer> tcpServer(unsigned inbound = 0, unsigned outbound = 0)
    {
        auto server = std::make_unique<RecordingServer>(loopbackAnyPort(), inbound, outbound);
        EXPECT_TRUE(server->start());
        return server;
    }
};

// Sends, from one handler to another, a command with every text length and a
// message with every padding in [0, limit), interleaved, and checks that each
// kind arrives complete and in its own order.
void exchangeEverySize(Recorder& from, Recorder& to, size_t limit)
{
    for (size_t n = 0; n < limit; ++n) {
        ASSERT_TRUE(queueMessage(from, "m" + std::to_string(n), n));
        const std::string text(n, static_cast<char>('A' + n % 26));
        ASSERT_TRUE(from.addToOutbound(static_cast<unsigned char>(n % 250 + 1), text.c_str()));
    }
    ASSERT_TRUE(waitUntil([&] { return to.messageCount() == limit && to.commandCount() == limit; }, kDeadline))
        << to.messageCount() << " messages, " << to.commandCount() << " commands";
    const std::vector<Pairs> messages = to.messages();
    const auto commands = to.commands();
    for (size_t n = 0; n < limit; ++n) {
        EXPECT_EQ(messages[n], expectedPairs("m" + std::to_string(n), n)) << "message " << n;
        EXPECT_EQ(commands[n].first, n % 250 + 1) << "command " << n;
        EXPECT_EQ(commands[n].second, std::string(n, static_cast<char>('A' + n % 26)) + '\0') << "command " << n;
    }
}

// Queues messages n1..n<total> of 700 to 999 padding bytes in one batch, as
// a received block's messages are: when the batch ends, the connection takes
// what it can at once and the next megabyte is posted, all before this
// returns. Gives the frames' bytes and, if asked, where each begins.
Bytes queueInOneBatch(Recorder& handler, unsigned total, std::vector<size_t>* starts = nullptr)
{
    Bytes frames;
    WriteBatch batch;
    for (unsigned i = 1; i <= total; ++i) {
        const MessageRef message = makeMessage("n" + std::to_string(i), 700 + i % 300);
        EXPECT_TRUE(handler.addToOutbound(message.get()));
        if (starts != nullptr)
            starts->push_back(frames.size());
        append(frames, messageFrame(i, message.get()));
    }
    return frames;
}

} // namespace

// ---------------------------------------------------------------------------
// Frames of every size, both ways

TEST_F(FrameLinkTest, EveryFrameSizeCrossesSmallBuffersBothWays)
{
    // 64-byte buffers: frames from 6 to several hundred bytes start and end
    // at every offset of a transfer.
    auto server = unixServer(64, 64);
    auto client = connectRecorder(server->address(), 64, 64);
    ASSERT_TRUE(server->waitForClients(1));
    Recorder* accepted = server->handler(0);

    exchangeEverySize(*client, *accepted, 330);
    exchangeEverySize(*accepted, *client, 330);
    EXPECT_EQ(client->queuedFrames(), 0u);
    EXPECT_EQ(accepted->queuedFrames(), 0u);
}

// ---------------------------------------------------------------------------
// The outbound side, seen byte by byte by a plain peer

TEST_F(FrameLinkTest, SlowReaderGetsEveryByteThroughPartialSends)
{
    auto server = unixServer(0, 1u << 20);
    RawPeer peer;
    Recorder* accepted = linkRawPeer(*server, peer);
    ASSERT_NE(accepted, nullptr);

    const MessageRef big = makeMessage("big", 4u << 20);
    const Bytes expected = messageFrame(1, big.get()) + commandFrame(2, 5, "after");
    ASSERT_TRUE(accepted->addToOutbound(big.get()));
    ASSERT_TRUE(accepted->addToOutbound(5, "after"));

    // Until the peer reads, the socket can only take part of the first
    // megabyte (written at once by the caller): the frame is still waiting,
    // partly written. The rest leaves through the selector, each send
    // resumed where the last one stopped (whether the socket takes a posted
    // send whole depends on how fast the peer drains it).
    EXPECT_GT(accepted->queuedFrames(), 0u);
    Bytes received;
    ASSERT_TRUE(peer.readExactly(expected.size(), received));
    EXPECT_TRUE(received == expected) << "the bytes on the wire differ from the frames built";
    ASSERT_TRUE(waitUntil([&] { return accepted->queuedFrames() == 0; }, kDeadline));
}

// Frames that wait together leave together (several per system call); the
// peer must see exactly the frames one at a time would have written, with ids
// in queueing order across both kinds.
TEST_F(FrameLinkTest, FramesWaitingTogetherLeaveInTheOrderOneAtATimeWouldGive)
{
    auto server = unixServer();
    RawPeer peer;
    Recorder* accepted = linkRawPeer(*server, peer);
    ASSERT_NE(accepted, nullptr);

    accepted->holdOutbound();
    Bytes commands;
    Bytes messages;
    unsigned id = 0;
    for (int i = 0; i < 60; ++i) {
        const MessageRef message = makeMessage("m" + std::to_string(i), 20 + i);
        ASSERT_TRUE(accepted->addToOutbound(message.get()));
        append(messages, messageFrame(++id, message.get()));
        if (i % 20 == 7) {
            EXPECT_FALSE(accepted->addToOutbound(3, nullptr)) << "a null command text cannot be framed, nor take an id";
            const std::string text = "c" + std::to_string(i);
            ASSERT_TRUE(accepted->addToOutbound(3, text.c_str()));
            append(commands, commandFrame(++id, 3, text.c_str()));
        }
    }
    accepted->releaseOutbound();
    // Commands overtake the messages that were waiting with them.
    const Bytes expected = commands + messages;
    Bytes received;
    ASSERT_TRUE(peer.readExactly(expected.size(), received));
    EXPECT_TRUE(received == expected) << "the bytes on the wire differ from the frames built";
    EXPECT_TRUE(waitUntil([&] { return accepted->queuedFrames() == 0; }, kDeadline));
}

// A small send buffer and a peer that reads a little at a time while frames
// keep coming: writes end inside frames and between them, and gathered
// writes resume where the socket stopped. Every frame arrives, in order.
TEST_F(FrameLinkTest, GatheredWritesLoseNothingAndKeepOrderUnderPartialWrites)
{
    auto server = unixServer();
    RawPeer peer;
    Recorder* accepted = linkRawPeer(*server, peer);
    ASSERT_NE(accepted, nullptr);
    const int small = 4096;
    ASSERT_EQ(setsockopt(accepted->socket()->getHandle(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)), 0);

    Bytes expected;
    Bytes received;
    for (unsigned i = 0; i < 1500; ++i) {
        const MessageRef message = makeMessage("m" + std::to_string(i), (i * 37) % 1500);
        ASSERT_TRUE(accepted->addToOutbound(message.get()));
        append(expected, messageFrame(i + 1, message.get()));
        if (i % 10 == 9) {
            Bytes piece;
            const size_t want = std::min<size_t>(4000, expected.size() - received.size());
            ASSERT_TRUE(peer.readExactly(want, piece));
            append(received, piece);
        }
    }
    Bytes rest;
    ASSERT_TRUE(peer.readExactly(expected.size() - received.size(), rest));
    append(received, rest);
    EXPECT_TRUE(received == expected) << "the bytes on the wire differ from the frames built";
    EXPECT_TRUE(waitUntil([&] { return accepted->queuedFrames() == 0; }, kDeadline));
}

// Many small frames batched and then written against a peer that does not
// read: a send of a whole megabyte of them is posted, and the connection takes
// only part of it once the peer reads. A command queued before that send
// completes leaves right after the frame the connection stopped in: the
// frames it took nothing of were not written yet. Every byte still arrives,
// resumed where it stopped.
TEST_F(FrameLinkTest, UnderBackPressureACommandLeavesBeforeTheMessagesNotYetWritten)
{
    // Declared before the server: its handler's callbacks use them.
    std::mutex mutex;
    Bytes untaken;
    auto server = unixServer(0, 1u << 20);
    RawPeer peer;
    Recorder* accepted = linkRawPeer(*server, peer);
    ASSERT_NE(accepted, nullptr);

    const unsigned total = 3000;
    const Bytes command = commandFrame(total + 1, 7, "urgent");
    accepted->onPartialSend = [&](const unsigned char* buffer, unsigned count, unsigned size) {
        std::lock_guard<std::mutex> lock(mutex);
        if (!untaken.empty())
            return;
        untaken.assign(buffer + count, buffer + size);
        EXPECT_TRUE(accepted->addToOutbound(7, "urgent"));
    };
    std::vector<size_t> starts;
    const Bytes plain = queueInOneBatch(*accepted, total, &starts);
    ASSERT_GT(accepted->queuedFrames(), total / 2) << "the socket cannot have taken megabytes unread";

    // The peer reads a little at a time and pauses after each piece until a
    // send has completed in part: while it pauses, a send can take only the
    // room that reading freed, never the whole megabyte at once.
    auto sentInPart = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        return !untaken.empty();
    };
    Bytes received;
    const size_t wanted = plain.size() + command.size();
    while (!sentInPart() && received.size() + 4096 < wanted) {
        Bytes piece;
        ASSERT_TRUE(peer.readExactly(4096, piece));
        append(received, piece);
        waitUntil(sentInPart, std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(sentInPart()) << "a posted send of a megabyte completed in part";
    Bytes rest;
    ASSERT_TRUE(peer.readExactly(wanted - received.size(), rest));
    append(received, rest);
    // Where the connection stopped, in the stream the messages make alone.
    const auto found = std::search(plain.begin(), plain.end(), untaken.begin(), untaken.end());
    ASSERT_NE(found, plain.end());
    const size_t stop = static_cast<size_t>(found - plain.begin());
    const size_t ahead = static_cast<size_t>(std::lower_bound(starts.begin(), starts.end(), stop) - starts.begin());
    ASSERT_LT(ahead, total);
    const size_t nextEnd = ahead + 1 < total ? starts[ahead + 1] : plain.size();
    EXPECT_LE(nextEnd, stop + untaken.size()) << "the send held whole frames the connection took nothing of";
    Bytes expected(plain.begin(), plain.begin() + static_cast<long>(starts[ahead]));
    append(expected, command);
    expected.insert(expected.end(), plain.begin() + static_cast<long>(starts[ahead]), plain.end());
    EXPECT_TRUE(received == expected) << "the command must follow the frame the connection stopped in";
    EXPECT_TRUE(waitUntil([&] { return accepted->queuedFrames() == 0; }, kDeadline));
}

// When a link goes, the frames handed to its socket (the one being written
// and those posted in the same send) go with it; frames it never took wait
// for the next link.
TEST_F(FrameLinkTest, FramesHandedToAGoneSocketAreDroppedAndTheOthersWait)
{
    LogCapture log(UlmarComms::Core::LogWarning);
    auto server = unixServer(0, 1u << 20);
    RawPeer peer;
    Recorder* accepted = linkRawPeer(*server, peer);
    ASSERT_NE(accepted, nullptr);

    // The peer reads nothing, so the send posted at the batch's end stays
    // outstanding.
    const unsigned total = 3000;
    queueInOneBatch(*accepted, total);
    const size_t queued = accepted->queuedFrames();
    ASSERT_GT(queued, total / 2);

    accepted->dropSocket();
    const size_t dropped = log.count("handed to a link that has gone");
    EXPECT_GE(dropped, 2u) << "the frame being written and the frames posted with it";
    EXPECT_GT(accepted->queuedFrames(), 0u) << "frames the socket never took wait";
    EXPECT_LE(accepted->queuedFrames() + dropped, queued);
}

// A received block that fans out to other links: the messages it queues on
// them, on this thread, wait until the whole block is dispatched and then
// leave in the order queued; a command queued meanwhile writes the messages
// waiting before it and goes at once, so it overtakes none of them; a link
// deleted before the block ends is not written (nor touched) afterwards.
TEST_F(FrameLinkTest, ABlocksMessagesForOtherLinksLeaveWhenTheBlockEnds)
{
    auto server = unixServer();
    RawPeer source, sink, gone;
    Recorder* from = linkRawPeer(*server, source);
    Recorder* to = linkRawPeer(*server, sink);
    Recorder* doomed = linkRawPeer(*server, gone);
    ASSERT_TRUE(from && to && doomed);
    std::mutex mutex;
    std::vector<unsigned> waiting; // the sink link's queue after each step
    from->onMessage = [&](MessageItem* message, const std::string& tag) {
        std::lock_guard<std::mutex> lock(mutex);
        if (tag == "doomed") {
            EXPECT_TRUE(doomed->addToOutbound(message));
            server->destroy(doomed);
            return;
        }
        if (tag == "command")
            EXPECT_TRUE(to->addToOutbound(5, "after"));
        else
            EXPECT_TRUE(to->addToOutbound(message));
        waiting.push_back(to->queuedFrames());
    };

    const std::vector<std::string> tags = {"s1", "s2", "doomed", "command", "s3", "s4"};
    Bytes block;
    Bytes expected;
    unsigned id = 0;
    for (const std::string& tag : tags) {
        const MessageRef message = makeMessage(tag, 40);
        append(block, messageFrame(1, message.get()));
        if (tag == "command")
            append(expected, commandFrame(++id, 5, "after"));
        else if (tag != "doomed")
            append(expected, messageFrame(++id, message.get()));
    }
    ASSERT_TRUE(source.sendAll(block)); // one write, so one block

    Bytes received;
    ASSERT_TRUE(sink.readExactly(expected.size(), received));
    EXPECT_TRUE(received == expected) << "the bytes on the wire differ from the frames built";
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(waiting, (std::vector<unsigned>{1, 2, 0, 1, 2}))
        << "messages wait for the block's end; a command does not";
    Bytes none;
    EXPECT_FALSE(gone.readExactly(1, none)) << "a link deleted during the block is never written";
}

TEST_F(FrameLinkTest, FramesQueuedBeforeTheLinkLeaveOnceReleasedCommandsFirst)
{
    auto server = unixServer();
    RecorderPtr client(new Recorder());
    ASSERT_TRUE(queueMessage(*client, "early", 3));
    ASSERT_TRUE(client->addToOutbound(1, "announce"));
    EXPECT_EQ(client->queuedFrames(), 2u) << "without a socket, frames wait";

    client->holdOutbound();
    client = connectRecorder(server->address(), 0, 0, std::move(client));
    ASSERT_TRUE(server->waitForClients(1));
    EXPECT_EQ(client->queuedFrames(), 2u) << "held frames stay queued";

    client->releaseOutbound();
    Recorder* accepted = server->handler(0);
    ASSERT_TRUE(waitUntil([&] { return accepted->events().size() == 2; }, kDeadline));
    EXPECT_EQ(accepted->events(), (std::vector<std::string>{"command:announce", "message:early"}));
}

// ---------------------------------------------------------------------------
// The inbound side, fed by a plain peer

// A frame whose payload does not parse, or whose type is unknown, costs that
// frame: its header says where it ends, so the frame after it is delivered.
// An exception from the subclass's handler likewise costs only its frame.
TEST_F(FrameLinkTest, FramesThatCannotBeDecodedOrThrowAreDroppedAndTheLinkGoesOn)
{
    LogCapture log(UlmarComms::Core::LogWarning);
    auto server = unixServer();
    RawPeer peer;
    Recorder* accepted = linkRawPeer(*server, peer);
    ASSERT_NE(accepted, nullptr);

    const MessageRef after = makeMessage("after", 5);
    const MessageRef last = makeMessage("last", 6);
    const Bytes textPastRecord{1, 0, 0, 0, 100, 'a', 'b', 'c', 'd', 0};
    accepted->throwOnNextMessage = true;
    ASSERT_TRUE(peer.sendAll(rawFrame(7, 3, 1, {1, 2, 3}) + rawFrame(9, 0, 2, {}) +
                             rawFrame(DataFrame::FrameTypeMessage, 6, 3, {0xA4, 9, 9, 9, 9, 9}) +
                             rawFrame(DataFrame::FrameTypeCommand, 10, 4, textPastRecord) + commandFrame(5, 3, "kept") +
                             messageFrame(6, after.get()) + messageFrame(7, last.get())));
    ASSERT_TRUE(waitUntil([&] { return accepted->messageCount() == 2; }, kDeadline));
    EXPECT_FALSE(accepted->throwOnNextMessage) << "the first message threw";
    EXPECT_EQ(accepted->events(), (std::vector<std::string>{"command:kept", "message:after", "message:last"}));
    EXPECT_EQ(log.count("frame is Unknown!"), 2u);
    EXPECT_EQ(log.count("failed frame get.!"), 1u);
    EXPECT_EQ(log.count("failed frame get for command.!"), 1u);
    EXPECT_EQ(log.count("doHandleMessage threw; frame 6 dropped."), 1u);
    EXPECT_FALSE(accepted->isLinkEnding());
    EXPECT_TRUE(accepted->errors().empty());
}

// ---------------------------------------------------------------------------
// Ends of links

// An orderly close and a reset (after bytes the link never read) reach the
// listener, then the link's disconnect, then its error with the end's code.
TEST_F(FrameLinkTest, PeerCloseOrResetReachesTheListenerThenDisconnectThenError)
{
    for (const bool reset : {false, true}) {
        SCOPED_TRACE(reset ? "reset over TCP" : "orderly close over UNIX");
        auto server = reset ? tcpServer() : unixServer();
        RawPeer peer;
        Recorder* accepted = linkRawPeer(*server, peer);
        ASSERT_NE(accepted, nullptr);

        if (reset) {
            ASSERT_TRUE(peer.sendAll(rawFrame(DataFrame::FrameTypeMessage, 100, 1, Bytes(50, 'x'))));
            peer.resetNow();
        } else {
            peer.closeNow();
        }
        ASSERT_TRUE(waitUntil([&] { return accepted->errors().size() == 1; }, kDeadline));
        EXPECT_EQ(accepted->errors()[0], reset ? Socket::ConnectionResetByPeer : Socket::NoSocketError);
        const int listener = server->journal.indexOf("client-disconnect");
        const int disconnect = server->journal.indexOf("disconnect");
        const int error = server->journal.indexOf("error");
        EXPECT_GE(listener, 0);
        EXPECT_LT(listener, disconnect);
        EXPECT_LT(disconnect, error);
        EXPECT_EQ(server->journal.count("client-disconnect"), 1u);
        EXPECT_EQ(accepted->socket(), nullptr) << "the owner's error callback took the socket";
    }
}

TEST_F(FrameLinkTest, AnExceptionInTheOwnersErrorCallbackIsCaught)
{
    LogCapture log(UlmarComms::Core::LogError);
    auto server = unixServer();
    auto client = connectRecorder(server->address());
    ASSERT_TRUE(server->waitForClients(1));
    client->throwInOnError = true;

    server->finish();
    for (Recorder* handler : server->handlers())
        handler->dropSocket();
    ASSERT_TRUE(waitUntil([&] { return client->errors().size() == 1; }, kDeadline));
    EXPECT_TRUE(log.waitFor("onError callback handing an unhandled exception."));
}

// ---------------------------------------------------------------------------
// The server

TEST_F(FrameLinkTest, ManyConnectionsToOneServerEachGetTheirOwnLink)
{
    const size_t clients = 24;
    auto server = tcpServer();
    server->echo = true;
    std::vector<RecorderPtr> peers;
    for (size_t i = 0; i < clients; ++i)
        peers.push_back(connectRecorder(server->boundAddress()));
    ASSERT_TRUE(server->waitForClients(clients));

    for (size_t i = 0; i < clients; ++i)
        ASSERT_TRUE(queueMessage(*peers[i], "from" + std::to_string(i), i * 100));
    for (size_t i = 0; i < clients; ++i) {
        ASSERT_TRUE(waitUntil([&] { return peers[i]->messageCount() == 1; }, kDeadline)) << "client " << i;
        EXPECT_EQ(peers[i]->messages()[0], expectedPairs("from" + std::to_string(i), i * 100));
    }

    for (auto& peer : peers)
        peer->dropSocket();
    ASSERT_TRUE(waitUntil([&] { return server->journal.count("client-disconnect") == clients; }, kDeadline));
    ASSERT_TRUE(waitUntil([&] { return server->journal.count("error") == clients; }, kDeadline));
    for (Recorder* handler : server->handlers())
        EXPECT_EQ(handler->socket(), nullptr);
    EXPECT_TRUE(waitUntil([&] { return server->listeningSocket()->getAcceptedSockets().empty(); }, kDeadline))
        << "sockets deleted in their error callbacks leave their listener's list";
}

TEST_F(FrameLinkTest, ServerStartFailsOnATakenNameOrABadAddress)
{
    auto server = unixServer();
    RecordingServer second(server->address());
    EXPECT_FALSE(second.start());
    RecordingServer nowhere{SocketAddress()};
    EXPECT_FALSE(nowhere.start());

    // Finishing frees the name for a new listener.
    server->finish();
    EXPECT_TRUE(second.start());
}

// ---------------------------------------------------------------------------
// Hostile peers end only their own link

namespace {

struct HostileInput {
    const char* name;
    Bytes bytes;
    bool closeAfterwards;
};

// Names the input in test listings instead of dumping its bytes.
void PrintTo(const HostileInput& input, std::ostream* out)
{
    *out << input.name;
}

Bytes text(const char* chars)
{
    return Bytes(chars, chars + std::strlen(chars));
}

std::vector<HostileInput> hostileInputs()
{
    return {
        {"OversizedHeader", rawFrame(DataFrame::FrameTypeMessage, 0xFFFFFFF0u, 1, {1, 2, 3}), false},
        {"JustAboveTheLimit", rawFrame(DataFrame::FrameTypeCommand, DataFrame::MaxDataSize + 1, 1, {}), false},
        {"GarbageBytes", text("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"), false},
        {"HalfAFrameThenClose", rawFrame(DataFrame::FrameTypeMessage, 100, 1, Bytes(50, 'x')), true},
    };
}

class HostilePeerTest : public FrameLinkTest, public testing::WithParamInterface<HostileInput> {};

} // namespace

TEST_P(HostilePeerTest, EndsOnlyThatLink)
{
    auto server = unixServer();
    server->echo = true;
    auto bystander = connectRecorder(server->address());
    ASSERT_TRUE(server->waitForClients(1));
    RawPeer hostile;
    Recorder* victim = linkRawPeer(*server, hostile);
    ASSERT_NE(victim, nullptr);

    ASSERT_TRUE(hostile.sendAll(GetParam().bytes));
    if (GetParam().closeAfterwards)
        hostile.closeNow();
    else
        EXPECT_TRUE(hostile.waitForEnd()) << "the link to the hostile peer ends";

    // The owner's clean-up ran: listener told, error callback reached,
    // socket gone; nothing was delivered.
    ASSERT_TRUE(waitUntil([&] { return victim->errors().size() == 1; }, kDeadline));
    EXPECT_EQ(server->journal.count("client-disconnect"), 1u);
    EXPECT_EQ(victim->socket(), nullptr);
    EXPECT_EQ(victim->messageCount(), 0u);
    EXPECT_EQ(victim->commandCount(), 0u);

    // The other link is untouched.
    ASSERT_TRUE(queueMessage(*bystander, "still here", 42));
    ASSERT_TRUE(waitUntil([&] { return bystander->messageCount() == 1; }, kDeadline));
    EXPECT_EQ(bystander->messages()[0], expectedPairs("still here", 42));
    EXPECT_TRUE(bystander->errors().empty());
}

INSTANTIATE_TEST_SUITE_P(Inputs, HostilePeerTest, testing::ValuesIn(hostileInputs()),
                         [](const testing::TestParamInfo<HostileInput>& info) { return std::string(info.param.name); });
