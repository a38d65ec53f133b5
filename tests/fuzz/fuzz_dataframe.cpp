// Fuzzes the whole receive path of a stream link: the input (after two
// bytes that choose how it is cut) is offered to readIn in pieces, in the
// loop a frame handler runs, and every complete frame is extracted as a
// message or a command. Besides memory safety it checks the loop's
// contract: no piece is over-consumed, an incomplete frame always makes
// progress, and readIn fails only by refusing the stream for good.
#include "framing/dataframe.h"
#include "messaging/messaging.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

using UlmarComms::DataFrame;
using UlmarComms::MessageItem;

namespace {

// Piece sizes: a cap picked by the first byte, a sequence by both.
class Pieces {
public:
    Pieces(uint8_t a, uint8_t b) : m_state(0x9E3779B9u ^ (uint32_t(a) << 8 | b))
    {
        static const unsigned caps[16] = {1, 2, 3, 5, 8, 9, 10, 16, 17, 31, 64, 100, 255, 1024, 4096, 65536};
        m_cap = caps[a & 0x0F];
    }
    unsigned next()
    {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 17;
        m_state ^= m_state << 5;
        return m_state % m_cap + 1;
    }

private:
    uint32_t m_state;
    unsigned m_cap;
};

// Sends an extracted message out again in small pieces, as the send path
// does after a partial write, and checks the bytes match its packet form.
void resend(const MessageItem& item, Pieces& pieces)
{
    DataFrame frame(1, &item);
    if (frame.frameType() != DataFrame::FrameTypeMessage)
        __builtin_trap();
    std::vector<unsigned char> wire;
    unsigned char piece[64];
    for (;;) {
        unsigned count = 0;
        if (!frame.writeOut(piece, std::min(pieces.next(), unsigned(sizeof piece)), count) || count == 0)
            __builtin_trap();
        wire.insert(wire.end(), piece, piece + count);
        if (frame.doneWriteOut(count))
            break;
    }
    std::vector<unsigned char> packet(item.memSize());
    unsigned size = 0;
    if (!item.toBuffer(size, packet.data(), static_cast<unsigned>(packet.size())) ||
        wire.size() != packet.size() + DataFrame::HeaderSize ||
        !std::equal(packet.begin(), packet.end(), wire.begin() + DataFrame::HeaderSize))
        __builtin_trap();
}

// What a frame handler does with one complete frame.
void dispatch(const DataFrame& frame, Pieces& pieces)
{
    if (frame.frameType() == DataFrame::FrameTypeMessage) {
        MessageItem* item = MessageItem::create();
        if (item != nullptr && frame.extractMessage(*item))
            resend(*item, pieces);
        MessageItem::release(item);
    } else if (frame.frameType() == DataFrame::FrameTypeCommand) {
        unsigned char code = 0;
        std::string text;
        frame.extractCommand(code, text);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || size > 1u << 20)
        return 0;
    Pieces pieces(data[0], data[1]);
    const uint8_t* stream = data + 2;
    const size_t length = size - 2;

    DataFrame frame;
    size_t at = 0;
    while (at < length) {
        unsigned remaining = static_cast<unsigned>(std::min<size_t>(pieces.next(), length - at));
        const uint8_t* rest = stream + at;
        at += remaining;
        while (remaining > 0) {
            bool complete = false;
            unsigned consumed = 0;
            if (!frame.readIn(rest, remaining, complete, consumed)) {
                // The only failure on real input is a refused stream, and
                // it must stay refused: the handler ends the link.
                if (!frame.isRejected())
                    __builtin_trap();
                if (frame.readIn(rest, remaining, complete, consumed) || consumed != 0)
                    __builtin_trap();
                return 0;
            }
            if (consumed > remaining)
                __builtin_trap();
            if (complete) {
                dispatch(frame, pieces);
                frame.reset();
            } else if (consumed == 0) {
                __builtin_trap();
            }
            rest += consumed;
            remaining -= consumed;
        }
    }
    return 0;
}
