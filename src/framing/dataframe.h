// The data frame every stream link carries.
//
// A frame is a 9-byte big-endian header (type, payload size, id) followed by
// the payload: one serialised MessageItem or one command record. The same
// class builds frames for sending (header and payload in the buffer) and
// reassembles received frames from pieces of any size (header first, then
// the payload from position 0 of the buffer, overwriting the header bytes).
//
// Frames carry no magic, version or checksum, so a peer can announce any
// payload size. The receive side refuses a payload above MaxDataSize before
// allocating anything and then stays refused: the bytes after a refused
// header cannot be framed again, so the only way on is to end the link.
// Below the bound, the buffer grows with the bytes that actually arrive, so
// a peer cannot make us hold memory it has only announced; each growth can
// be charged to a ByteAccount first, and a refused charge refuses the stream
// like a header over the bound.
//
// heldBytes() is what a frame costs in memory (buffer capacity and object),
// the figure every account charges. A built frame that has to wait in a
// queue can shrinkToFit(), so a short message does not hold a 4 KiB buffer.
#pragma once

#include "core/byteaccount.h"
#include "core/limits.h"
#include "messaging/commandmessage.h"

#include <cstdint>
#include <string>

namespace UlmarComms {

class MessageItem;

// One frame, built for sending or being reassembled from a stream.
class DataFrame {
public:
    // Frame types (the first header byte).
    static constexpr unsigned char FrameTypeNone = 0;
    // The payload is a serialised MessageItem.
    static constexpr unsigned char FrameTypeMessage = 1;
    // The payload is a command record.
    static constexpr unsigned char FrameTypeCommand = 2;

    // Bytes of the header.
    static constexpr unsigned HeaderSize = 9;
    // Buffer every frame starts with.
    static constexpr unsigned InitialBufferSize = 4096;
    // Largest payload a frame is built with or accepted with (core/limits.h).
    // The receive buffer follows the bytes received up to this size; real
    // messages are a few kilobytes, so the bound never touches honest traffic.
    static constexpr unsigned MaxDataSize = Limits::FramePayloadBytes;

    // Why readIn refused a stream; the state is sticky.
    enum ReadError {
        ReadErrorNone = 0, // the stream is usable
        ReadErrorTooLarge = 1, // a header announced more than MaxDataSize
        ReadErrorNoMemory = 2, // the payload buffer could not be allocated
        ReadErrorOverAccount = 3, // the growth account refused the payload buffer
    };

    // What each heap block costs beyond the bytes asked for (the allocator's
    // header and rounding), as the accounts reckon it.
    static constexpr unsigned AllocationOverhead = 16;

    // An empty frame with a fresh 4096-byte buffer.
    DataFrame();
    // A message frame; check frameType() for the insertion's outcome.
    DataFrame(unsigned id, const MessageItem* item);
    // A command frame; check frameType() for the insertion's outcome.
    DataFrame(unsigned id, unsigned char code, const char* text);
    // Frees the buffer.
    ~DataFrame();
    // Owns its buffer: not copyable.
    DataFrame(const DataFrame&) = delete;
    DataFrame& operator=(const DataFrame&) = delete;

    // reset(), then a fresh buffer of InitialBufferSize (construction only).
    void clear();
    // Forgets the frame (type, size, id, progress); keeps the buffer and a
    // read rejection.
    void reset();
    // Ensures the buffer holds size bytes (contents not kept); buffers only
    // grow. False when memory ran out or size exceeds a whole maximal frame.
    bool alloc(unsigned size);

    // The frame type.
    unsigned char frameType() const { return m_frameType; }
    // The payload size.
    unsigned dataSize() const { return m_dataSize; }
    // The sender's frame number.
    unsigned id() const { return m_id; }
    // The buffer's capacity in bytes.
    unsigned capacity() const { return m_capacity; }
    // The bytes the frame takes on the wire: header and payload.
    uint64_t wireSize() const { return uint64_t(m_dataSize) + HeaderSize; }
    // The bytes the frame holds in memory: its buffer, itself, and the
    // allocator's overhead for both.
    uint64_t heldBytes() const { return uint64_t(m_capacity) + sizeof(DataFrame) + 2 * AllocationOverhead; }
    // Reallocates a built frame's buffer to its wire size when that saves
    // real memory; true when it did (heldBytes() has then shrunk).
    bool shrinkToFit();
    // Charges every later growth of the receive buffer to account (null:
    // none) within bounds, before the memory is taken.
    void chargeGrowthTo(ByteAccount* account, ByteAccount::Bounds bounds)
    {
        m_pGrowthAccount = account;
        m_growthBounds = bounds;
    }
    // The account that refused a growth (ReadErrorOverAccount), or null.
    const ByteAccount* refusingAccount() const { return m_pRefuser; }

    // Writes the 9-byte header.
    static void writeHeaderToBuffer(unsigned char* buffer, unsigned char type, unsigned size, unsigned id);
    // Reads the 9-byte header.
    static void readHeaderFromBuffer(const unsigned char* buffer, unsigned char& type, unsigned& size, unsigned& id);

    // Builds a message frame; false (and logged) on failure.
    bool insertMessage(unsigned id, const MessageItem* item);
    // Builds a command frame; a null text always fails, "" does not.
    bool insertCommand(unsigned id, unsigned char code, const char* text);

    // Copies the next unsent piece, at most max bytes, to destination;
    // progress does not move until doneWriteOut.
    bool writeOut(unsigned char* destination, unsigned max, unsigned& count);
    // The unsent rest of a built frame, in place (for a gathering write);
    // false for a frame that is not built. Progress moves by doneWriteOut.
    bool unsent(const unsigned char*& data, unsigned& count) const;
    // Records count bytes as sent; true once the whole frame is out.
    bool doneWriteOut(unsigned count);

    // Takes bytes of the stream, never beyond the end of this frame.
    // consumed tells how many were taken, complete whether the frame is
    // whole. False for no input, and for a rejected stream (isRejected()):
    // retrying that never succeeds, so the caller ends the link instead.
    bool readIn(const unsigned char* data, unsigned length, bool& complete, unsigned& consumed);
    // Whether the stream was refused; the caller must end the link.
    bool isRejected() const { return m_readError != ReadErrorNone; }
    // Why the stream was refused.
    ReadError readError() const { return m_readError; }
    // Refuses, like an oversized frame, a command frame whose header
    // announces more than bytes of payload (0: MaxDataSize only); kept by reset().
    void limitCommands(unsigned bytes) { m_commandLimit = bytes; }

    // Parses the payload of a completely received frame into an empty
    // message.
    bool extractMessage(MessageItem& item) const;
    // Parses the payload of a completely received frame as a command.
    bool extractCommand(unsigned char& code, std::string& text) const;

private:
    // The largest payload the current header may announce.
    unsigned limit() const;
    bool reject(ReadError error);
    bool reserveReceived(unsigned needed);
    bool payloadReadable() const;

    uint8_t m_frameType;
    uint32_t m_dataSize;
    uint32_t m_id;
    unsigned char* m_buffer;
    uint32_t m_capacity;
    uint32_t m_progress;
    // The header is complete and the payload is being read. Kept apart from
    // the frame type so that a header of type 0 cannot stall the stream.
    bool m_inPayload;
    ReadError m_readError;
    ByteAccount* m_pGrowthAccount;
    ByteAccount::Bounds m_growthBounds;
    const ByteAccount* m_pRefuser;
    // Largest command payload taken; 0 for MaxDataSize.
    unsigned m_commandLimit;
};

} // namespace UlmarComms
