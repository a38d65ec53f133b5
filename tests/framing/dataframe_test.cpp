// Frames on the wire: exact bytes, piecewise sending, reassembly from any
// split of the stream, and the refusals that protect a receiver from a
// hostile peer.
#include "framing/dataframe.h"

#include "core/core.h"
#include "messaging/messaging.h"
#include "support/logcapture.h"
#include "support/rawpeer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace UlmarComms;

namespace {

using UlmarCommsTest::append;
using UlmarCommsTest::Bytes;
using UlmarCommsTest::rawFrame;
using UlmarCommsTest::wireOf;

MessageRef makeMessage(const std::vector<std::pair<std::string, std::string>>& pairs)
{
    MessageRef item(MessageItem::create());
    for (const auto& [key, value] : pairs)
        EXPECT_TRUE(item->add(key.c_str(), value.c_str()));
    return item;
}

// Error lines, so tests can check the exact formats.
class DataFrameLogTest : public ::testing::Test {
protected:
    std::vector<std::string> formats() const
    {
        std::vector<std::string> out;
        for (const UlmarCommsTest::LogLine& line : m_log.lines())
            out.push_back(line.format);
        return out;
    }
    UlmarCommsTest::LogCapture m_log{Core::LogError};
};

Bytes messageForm(const MessageItem& item)
{
    Bytes out(item.memSize());
    unsigned size = 0;
    EXPECT_TRUE(item.toBuffer(size, out.data(), static_cast<unsigned>(out.size())));
    return out;
}

// One frame as the receiver saw it.
struct Received {
    unsigned char type;
    unsigned id;
    Bytes payload;
};

// Feeds a stream in the given piece sizes through the receive loop a frame
// handler runs, collecting every complete frame's payload.
std::vector<Received> reassemble(const Bytes& stream, const std::vector<unsigned>& pieces)
{
    std::vector<Received> frames;
    DataFrame frame;
    size_t at = 0;
    for (unsigned piece : pieces) {
        const unsigned char* rest = stream.data() + at;
        unsigned remaining = piece;
        at += piece;
        while (remaining > 0) {
            bool complete = false;
            unsigned consumed = 0;
            if (!frame.readIn(rest, remaining, complete, consumed)) {
                ADD_FAILURE() << "readIn refused a well-formed stream";
                return frames;
            }
            EXPECT_LE(consumed, remaining);
            if (complete) {
                // The payload is reported in a form both kinds can be
                // compared in: code and text for a command, the message
                // serialised again for a message.
                Received got{frame.frameType(), frame.id(), {}};
                if (frame.frameType() == DataFrame::FrameTypeCommand) {
                    unsigned char code = 0;
                    std::string text;
                    EXPECT_TRUE(frame.extractCommand(code, text));
                    got.payload.resize(text.size() + 1);
                    got.payload[0] = code;
                    std::copy(text.begin(), text.end(), got.payload.begin() + 1);
                } else if (frame.frameType() == DataFrame::FrameTypeMessage) {
                    MessageRef item(MessageItem::create());
                    EXPECT_TRUE(frame.extractMessage(*item.get()));
                    got.payload = messageForm(*item.get());
                }
                frames.push_back(std::move(got));
                frame.reset();
            } else {
                EXPECT_GT(consumed, 0u) << "an incomplete frame must make progress";
                if (consumed == 0)
                    return frames;
            }
            rest += consumed;
            remaining -= consumed;
        }
    }
    EXPECT_EQ(at, stream.size());
    return frames;
}

// The payload form reassemble() reports for a command.
Bytes commandForm(unsigned char code, const std::string& text)
{
    Bytes out(text.size() + 2, 0); // code, text, NUL
    out[0] = code;
    std::copy(text.begin(), text.end(), out.begin() + 1);
    return out;
}

} // namespace

// ------------------------------------------------------------- wire bytes

TEST(DataFrameWire, CommandAndMessageFramesAndHeadersAreByteExact)
{
    DataFrame command(3, 7, "ab");
    EXPECT_EQ(command.frameType(), DataFrame::FrameTypeCommand);
    EXPECT_EQ(command.dataSize(), 8u);
    EXPECT_EQ(
        wireOf(command),
        (Bytes{0x02, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00, 0x03, 0x07, 0x00, 0x00, 0x00, 0x03, 0x61, 0x62, 0x00}));

    MessageRef item = makeMessage({{"a", "bc"}});
    DataFrame message(0x01020304, item.get());
    EXPECT_EQ(wireOf(message), (Bytes{0x01, 0x00, 0x00, 0x00, 0x11, 0x01, 0x02, 0x03, 0x04, 0xA4, 0x00, 0x00, 0x00,
                                      0x11, 0x01, 0x02, 0x00, 0x00, 0x00, 0x03, 0x61, 0x00, 0x62, 0x63, 0x00, 0x8B}))
        << "a message frame carries the packet form";
    EXPECT_EQ(message.id(), 0x01020304u);

    const Bytes bytes = rawFrame(0xAB, 0xDEADBEEF, 0x00C0FFEE, {});
    EXPECT_EQ(bytes, (Bytes{0xAB, 0xDE, 0xAD, 0xBE, 0xEF, 0x00, 0xC0, 0xFF, 0xEE}));
    unsigned char type = 0;
    unsigned size = 0;
    unsigned id = 0;
    DataFrame::readHeaderFromBuffer(bytes.data(), type, size, id);
    EXPECT_EQ(type, 0xAB);
    EXPECT_EQ(size, 0xDEADBEEFu);
    EXPECT_EQ(id, 0x00C0FFEEu);
}

TEST(CommandMessage, RecordLayoutAndSizes)
{
    EXPECT_EQ(CommandMessage::calcBuffer("ab"), 8u);
    EXPECT_EQ(CommandMessage::calcBuffer(""), 6u);
    EXPECT_EQ(CommandMessage::calcBuffer(nullptr), 1u);

    unsigned char buffer[16];
    std::fill(std::begin(buffer), std::end(buffer), 0xEE);
    unsigned written = 99;
    EXPECT_FALSE(CommandMessage::toBuffer(written, 1, "ab", buffer, 7));
    EXPECT_EQ(written, 99u);
    EXPECT_FALSE(CommandMessage::toBuffer(written, 1, "ab", nullptr, 16));
    ASSERT_TRUE(CommandMessage::toBuffer(written, 1, "ab", buffer, 8));
    EXPECT_EQ(written, 8u);
    EXPECT_EQ(Bytes(buffer, buffer + 9), (Bytes{1, 0, 0, 0, 3, 'a', 'b', 0, 0xEE}));

    // A null text needs 5 bytes and writes a zero length.
    ASSERT_TRUE(CommandMessage::toBuffer(written, 9, nullptr, buffer, 5));
    EXPECT_EQ(written, 5u);
    EXPECT_EQ(Bytes(buffer, buffer + 5), (Bytes{9, 0, 0, 0, 0}));
}

TEST(CommandMessage, FromBufferKeepsTheNulAndRefusesATextRunningPastThePayload)
{
    unsigned char code = 0;
    std::string text;
    const Bytes record = {7, 0, 0, 0, 3, 'a', 'b', 0};
    ASSERT_TRUE(CommandMessage::fromBuffer(record.data(), 8, code, text));
    EXPECT_EQ(code, 7);
    EXPECT_EQ(text, std::string("ab", 3));
    const Bytes empty = {4, 0, 0, 0, 0};
    text = "stale";
    ASSERT_TRUE(CommandMessage::fromBuffer(empty.data(), 5, code, text));
    EXPECT_EQ(code, 4);
    EXPECT_TRUE(text.empty());

    EXPECT_FALSE(CommandMessage::fromBuffer(empty.data(), 4, code, text));
    EXPECT_FALSE(CommandMessage::fromBuffer(nullptr, 5, code, text));
    const Bytes shortRecord = {1, 0, 0, 0, 4, 'a', 'b', 0}; // length 4, 3 text bytes
    EXPECT_FALSE(CommandMessage::fromBuffer(shortRecord.data(), 8, code, text));
    EXPECT_TRUE(text.empty());
    const Bytes huge = {1, 0xFF, 0xFF, 0xFF, 0xFF, 'a'};
    EXPECT_FALSE(CommandMessage::fromBuffer(huge.data(), 6, code, text));
}

// ----------------------------------------------------------- building

TEST_F(DataFrameLogTest, NullTextOrMessageFailsWithItsLogLineButEmptyTextWorks)
{
    DataFrame failed;
    EXPECT_FALSE(failed.insertCommand(1, 2, nullptr));
    EXPECT_EQ(failed.frameType(), DataFrame::FrameTypeNone);
    EXPECT_FALSE(failed.insertMessage(5, nullptr));
    EXPECT_EQ(formats(),
              (std::vector<std::string>{"DataFrame::insertCommand( %d, %d, %s )Failed to write command into buffer.\n",
                                        "DataFrame::Set( %d, %p ) Message is NULL.\n"}));

    DataFrame empty;
    ASSERT_TRUE(empty.insertCommand(1, 2, ""));
    EXPECT_EQ(empty.dataSize(), 6u);
    const Bytes bytes = wireOf(empty);
    EXPECT_EQ(Bytes(bytes.begin() + 9, bytes.end()), (Bytes{2, 0, 0, 0, 1, 0}));
    EXPECT_EQ(formats().size(), 2u) << "success logs nothing at error level";
}

TEST(DataFrameBuild, BufferGrowsForLargeMessagesAndIsKeptByReset)
{
    DataFrame frame;
    EXPECT_EQ(frame.capacity(), DataFrame::InitialBufferSize);
    MessageRef item = makeMessage({{"big", std::string(10000, 'v')}, {"k", "v"}});
    ASSERT_TRUE(frame.insertMessage(9, item.get()));
    EXPECT_EQ(frame.capacity(), item->memSize() + DataFrame::HeaderSize);
    frame.reset();
    EXPECT_EQ(frame.frameType(), DataFrame::FrameTypeNone);
    EXPECT_EQ(frame.dataSize(), 0u);
    EXPECT_EQ(frame.id(), 0u);
    EXPECT_TRUE(frame.alloc(100));
    EXPECT_EQ(frame.capacity(), item->memSize() + DataFrame::HeaderSize) << "buffers only grow";
    EXPECT_FALSE(frame.alloc(DataFrame::MaxDataSize + DataFrame::HeaderSize + 1));
    EXPECT_EQ(frame.capacity(), item->memSize() + DataFrame::HeaderSize);
}

// ------------------------------------------------------------- sending

TEST(DataFrameSend, WriteOutHandsOutPiecesUntilDoneWriteOut)
{
    DataFrame frame(3, 7, "ab");
    const Bytes whole = wireOf(frame);
    unsigned char piece[8];
    unsigned count = 0;

    ASSERT_TRUE(frame.writeOut(piece, 5, count));
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(Bytes(piece, piece + 5), Bytes(whole.begin(), whole.begin() + 5));
    ASSERT_TRUE(frame.writeOut(piece, 5, count));
    EXPECT_EQ(Bytes(piece, piece + 5), Bytes(whole.begin(), whole.begin() + 5))
        << "without doneWriteOut the same piece comes again";

    // The socket took only 2 of the 5: the next piece starts at byte 2.
    EXPECT_FALSE(frame.doneWriteOut(2));
    Bytes sent(whole.begin(), whole.begin() + 2);
    while (true) {
        ASSERT_TRUE(frame.writeOut(piece, 5, count));
        ASSERT_GT(count, 0u);
        sent.insert(sent.end(), piece, piece + count);
        if (frame.doneWriteOut(count))
            break;
    }
    EXPECT_EQ(sent, whole);

    EXPECT_FALSE(frame.writeOut(piece, 0, count));
    EXPECT_FALSE(frame.writeOut(nullptr, 5, count));
    DataFrame empty; // a frame that was never built, or failed to be, is not sent
    EXPECT_FALSE(empty.writeOut(piece, sizeof piece, count));
    DataFrame failed(1, 2, nullptr);
    EXPECT_FALSE(failed.writeOut(piece, sizeof piece, count));
}

// ----------------------------------------------------------- receiving

// No input is refused without touching the outputs, and does not disturb the
// frame that follows; that frame completes exactly at its last byte.
TEST(DataFrameReceive, NoInputIsRefusedAndOneByteAtATimeCompletesAtTheSeventeenthByte)
{
    DataFrame sent(3, 7, "ab");
    const Bytes stream = wireOf(sent);
    ASSERT_EQ(stream.size(), 17u);
    DataFrame frame;
    {
        bool complete = true;
        unsigned consumed = 42;
        EXPECT_FALSE(frame.readIn(nullptr, 5, complete, consumed));
        EXPECT_FALSE(frame.readIn(stream.data(), 0, complete, consumed));
        EXPECT_TRUE(complete);
        EXPECT_EQ(consumed, 42u);
        EXPECT_FALSE(frame.isRejected()) << "no input is not a broken stream";
    }
    for (unsigned i = 0; i < stream.size(); ++i) {
        bool complete = true;
        unsigned consumed = 99;
        ASSERT_TRUE(frame.readIn(&stream[i], 1, complete, consumed)) << "byte " << i + 1;
        EXPECT_EQ(consumed, 1u);
        EXPECT_EQ(complete, i == 16) << "byte " << i + 1;
        if (i == 15) {
            unsigned char code = 0;
            std::string text;
            EXPECT_FALSE(frame.extractCommand(code, text)) << "an incomplete frame is not extracted";
        }
    }
    EXPECT_EQ(frame.frameType(), DataFrame::FrameTypeCommand);
    EXPECT_EQ(frame.id(), 3u);
    unsigned char code = 0;
    std::string text;
    ASSERT_TRUE(frame.extractCommand(code, text));
    EXPECT_EQ(code, 7);
    ASSERT_EQ(text.size(), 3u);
    EXPECT_EQ(text.back(), '\0');
    EXPECT_STREQ(text.c_str(), "ab");
}

TEST(DataFrameReceive, EmptyPayloadCompletesOnTheNextByteWithoutTakingIt)
{
    Bytes stream = rawFrame(DataFrame::FrameTypeCommand, 0, 4, {});
    DataFrame frame;
    bool complete = true;
    unsigned consumed = 0;
    ASSERT_TRUE(frame.readIn(stream.data(), 9, complete, consumed));
    EXPECT_FALSE(complete);
    EXPECT_EQ(consumed, 9u);
    const unsigned char next = 0x02;
    ASSERT_TRUE(frame.readIn(&next, 1, complete, consumed));
    EXPECT_TRUE(complete);
    EXPECT_EQ(consumed, 0u);

    // With more input behind it, it completes in the same call.
    stream.push_back(0x02);
    DataFrame again;
    ASSERT_TRUE(again.readIn(stream.data(), 10, complete, consumed));
    EXPECT_TRUE(complete);
    EXPECT_EQ(consumed, 9u);
}

// Frames of both kinds and of sizes on both sides of the initial buffer,
// sent back to back and cut into random pieces, come out identical. Among
// them are frames of type 0, never sent but possible from a peer: their
// payload, made to look like an oversized header, must be skipped as a
// payload, not reread as headers (which would refuse the stream).
TEST(DataFrameReceive, RandomFramesReassembleFromRandomPieces)
{
    std::mt19937 random(20240611);
    auto pick = [&](unsigned low, unsigned high) { return std::uniform_int_distribution<unsigned>(low, high)(random); };
    auto text = [&](unsigned length) {
        std::string out;
        for (unsigned i = 0; i < length; ++i)
            out.push_back(static_cast<char>(pick(1, 255)));
        return out;
    };

    for (int round = 0; round < 20; ++round) {
        Bytes stream;
        std::vector<Received> sent;
        const unsigned frameCount = pick(1, 12);
        for (unsigned f = 0; f < frameCount; ++f) {
            const unsigned id = pick(0, 0xFFFFFFFFu);
            if (pick(0, 5) == 0) {
                const Bytes lure = rawFrame(DataFrame::FrameTypeCommand, 0xFFFFFFFFu, id, Bytes(pick(0, 20), 0xFF));
                append(stream, rawFrame(DataFrame::FrameTypeNone, static_cast<unsigned>(lure.size()), id, lure));
                sent.push_back({DataFrame::FrameTypeNone, id, {}});
            } else if (pick(0, 1) == 0) {
                const unsigned char code = static_cast<unsigned char>(pick(0, 255));
                const std::string body = text(pick(0, 1) ? pick(0, 40) : pick(4000, 9000));
                append(stream, wireOf(DataFrame(id, code, body.c_str())));
                sent.push_back({DataFrame::FrameTypeCommand, id, commandForm(code, body)});
            } else {
                std::vector<std::pair<std::string, std::string>> pairs;
                const unsigned n = pick(1, MessageItem::s_maxNumberArguments);
                for (unsigned p = 0; p < n; ++p)
                    pairs.emplace_back(text(pick(1, 12)), text(pick(0, 1) ? pick(0, 30) : pick(0, 800)));
                MessageRef item = makeMessage(pairs);
                append(stream, wireOf(DataFrame(id, item.get())));
                sent.push_back({DataFrame::FrameTypeMessage, id, messageForm(*item.get())});
            }
        }
        std::vector<unsigned> pieces;
        const unsigned maxPiece = pick(0, 2) == 0 ? 3 : pick(1, 6000);
        for (size_t left = stream.size(); left > 0;) {
            const unsigned piece = static_cast<unsigned>(std::min<size_t>(left, pick(1, maxPiece)));
            pieces.push_back(piece);
            left -= piece;
        }

        const std::vector<Received> got = reassemble(stream, pieces);
        ASSERT_EQ(got.size(), sent.size()) << "round " << round;
        for (size_t i = 0; i < sent.size(); ++i) {
            EXPECT_EQ(got[i].type, sent[i].type) << "round " << round << " frame " << i;
            EXPECT_EQ(got[i].id, sent[i].id) << "round " << round << " frame " << i;
            EXPECT_EQ(got[i].payload, sent[i].payload) << "round " << round << " frame " << i;
        }
    }
}

// ---------------------------------------------------- hostile headers

TEST_F(DataFrameLogTest, OversizedHeaderIsRefusedWithoutAllocatingAndStaysRefused)
{
    for (unsigned announced : {DataFrame::MaxDataSize + 1, 0xFFFFFFFFu}) {
        const Bytes stream = rawFrame(DataFrame::FrameTypeMessage, announced, 1, Bytes(32, 0xA4));
        DataFrame frame;
        bool complete = true;
        unsigned consumed = 0;
        EXPECT_FALSE(frame.readIn(stream.data(), static_cast<unsigned>(stream.size()), complete, consumed));
        EXPECT_FALSE(complete);
        EXPECT_TRUE(frame.isRejected());
        EXPECT_EQ(frame.readError(), DataFrame::ReadErrorTooLarge);
        EXPECT_EQ(frame.dataSize(), announced) << "the refused header stays readable for the log";
        EXPECT_EQ(frame.capacity(), DataFrame::InitialBufferSize) << "nothing was allocated";

        // A handler retrying the same input gets the same answer and no
        // progress; reset() does not make the stream usable again.
        EXPECT_FALSE(frame.readIn(stream.data() + 9, 32, complete, consumed));
        EXPECT_EQ(consumed, 0u);
        frame.reset();
        EXPECT_FALSE(frame.readIn(stream.data(), static_cast<unsigned>(stream.size()), complete, consumed));
        EXPECT_TRUE(frame.isRejected());
        MessageRef item(MessageItem::create());
        EXPECT_FALSE(frame.extractMessage(*item.get()));
    }
    EXPECT_FALSE(formats().empty()) << "the refusal is logged";
}

TEST(DataFrameReceive, MemoryFollowsTheBytesReceivedNotTheAnnouncedSize)
{
    Bytes stream = rawFrame(DataFrame::FrameTypeCommand, DataFrame::MaxDataSize, 1, {});
    DataFrame frame;
    bool complete = false;
    unsigned consumed = 0;
    ASSERT_TRUE(frame.readIn(stream.data(), 9, complete, consumed)) << "the limit itself is accepted";
    EXPECT_FALSE(frame.isRejected());
    EXPECT_EQ(frame.capacity(), DataFrame::InitialBufferSize);

    const Bytes chunk(20000, 0x5A);
    ASSERT_TRUE(frame.readIn(chunk.data(), 20000, complete, consumed));
    EXPECT_EQ(consumed, 20000u);
    EXPECT_FALSE(complete);
    EXPECT_GE(frame.capacity(), 20000u);
    EXPECT_LE(frame.capacity(), 2u * 20000u);
}
