// The message record that every part builds, reads and serialises.
//
// A message is an ordered list of at most 25 text pairs; the routing header
// is a set of reserved keys inside that list. Messages are reference counted
// by hand and have no lock: one thread changes a message at a time, and
// messages cross threads through a router queue, whose lock orders the
// hand-over. The count itself is atomic, because an application may keep a
// delivered message and release it on its own thread while the router
// worker still holds its reference: adding a reference is relaxed (only a
// holder of one can add another), dropping one is acquire-release, so that
// every holder's last use happens before the message is freed.
// A message read from a packet keeps that packet verbatim (its pairs point
// into it), as long as the packet is canonical: its size field equals its
// length and its end marker is its last byte. Such a message serialises by
// copying the packet, so a relay passes on exactly the bytes it received
// without rebuilding them; any change to the pairs forgets the packet, and
// the message is then serialised pair by pair. The packet's bytes are never
// written once stored, so a frame may read them while the message is shared.
// Ownership: every post takes its message, on success and on failure alike
// (MessageRef below makes that visible in the signatures); a delivered
// message is released after the callback unless the callback took a
// reference.
#pragma once

#include "core/limits.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace UlmarComms {

class MessageItem {
public:
    // Pairs one message holds at most (core/limits.h).
    static constexpr int s_maxNumberArguments = Limits::MessagePairs;

    // Reserved header keys.
    static const char* const ArgumentKey_To;
    static const char* const ArgumentKey_From;
    static const char* const ArgumentKey_Mode;
    static const char* const ArgumentKey_Method;
    static const char* const ArgumentKey_Response;
    static const char* const ArgumentKey_SenderId;
    static const char* const ArgumentKey_ResponseId;
    static const char* const ArgumentKey_ErrorRoutingHostId;

    // Mode codes (the first character of "_M").
    static constexpr char Mode_Normal = 'N';
    static constexpr char Mode_Error = 'E';
    // The same codes as texts, for adding as values.
    static const char* const Mode_NormalText;
    static const char* const Mode_ErrorText;

    // Byte constants of the packet form; the command pair is declared only.
    static constexpr unsigned char DataPacket_MessageHead = 0xA4;
    static constexpr unsigned char DataPacket_MessageEnd = 0x8B;
    static constexpr unsigned char DataPacket_CommandHead = 0xB4;
    static constexpr unsigned char DataPacket_CommandEnd = 0x4B;

    // A new empty message with count 1, or null when memory ran out.
    static MessageItem* create();
    // Drops one reference; the last one frees the message. Null is ignored.
    static void release(MessageItem* item);
    // A new message (count 1) with every pair of source added in order; the
    // event name is not copied. Null for a null source.
    static MessageItem* createAndCopy(MessageItem* source);

    // Adds one reference.
    void incrementCount();
    // The current reference count.
    int32_t count() const { return m_count.load(std::memory_order_relaxed); }

    // Appends a pair; false for a null text, a full message or no memory.
    // "_t"/"_f" values beginning with "localhost" get the host name instead.
    bool add(const char* key, const char* value);
    // Adds "_t", "_f", "_m", "_s" in that order; false at the first failure.
    bool set(const char* to, const char* from, const char* method, const char* senderId);
    // Adds "_r" then "_R"; false at the first failure.
    bool setResponse(const char* response, const char* responseId);
    // Names the event this message announces (never serialised).
    void setEventName(const std::string& name);
    // The event name; empty for ordinary messages.
    const std::string& eventName() const { return m_eventName; }

    // The number of stored pairs.
    uint8_t numberOfArguments() const { return m_argumentCount; }
    // The key of pair i, or null for a bad index.
    const char* key(int i) const;
    // The value of pair i, or null for a bad index.
    const char* value(int i) const;
    // The key of pair i and its stored length (NUL included).
    const char* key(int i, unsigned& length) const;
    // The value of pair i and its stored length (NUL included).
    const char* value(int i, unsigned& length) const;
    // Whether any pair has this key.
    bool hasKey(const char* key) const;
    // The value of the first pair with this key, or null.
    const char* value(const char* key) const;
    // Scans "_t" and "_f" (last occurrence wins); both outputs cleared first.
    void getMandatoryRoutingFields(char** to, char** from) const;
    // Scans the seven header keys (last occurrence wins); outputs whose key
    // is absent are left as they were.
    void getMandatoryFields(char** to, char** from, char** mode, char** senderId, char** responseId, char** response,
                            char** method) const;

    // Same pairs regardless of order (first values compared by key).
    bool compare(const MessageItem* other) const;
    // Same as compare.
    bool operator==(const MessageItem& other) const { return compare(&other); }

    // The size of the packet form in bytes.
    uint32_t memSize() const;
    // Static form used by the frame layer; null gives 0.
    static uint32_t memSize(const MessageItem* item) { return item != nullptr ? item->memSize() : 0; }
    // Writes the packet form; size always receives memSize().
    bool toBuffer(unsigned& size, unsigned char* buffer, unsigned capacity) const;
    // The memory the message holds: the object, and its texts where they
    // outgrew the space inside it.
    uint64_t heldBytes() const;
    // Reads a packet into this (empty) message; false for a malformed packet.
    bool fromBuffer(const unsigned char* buffer, unsigned length);
    // The canonical packet this message was read from and has not changed
    // since, with its length; null when it is built, changed or was read
    // from a packet that serialises differently.
    const unsigned char* packet(unsigned& length) const
    {
        length = m_packetLength;
        return m_pPacket;
    }

    // Next message while queued in a router queue; null otherwise.
    MessageItem* m_pNext;

private:
    MessageItem();
    ~MessageItem();
    MessageItem(const MessageItem&) = delete;
    MessageItem& operator=(const MessageItem&) = delete;

    // Texts of an ordinary message fit here, so building, receiving and
    // freeing one costs a single allocation: on the message path the
    // allocator was the largest cost of all.
    static constexpr unsigned s_inlineTextBytes = 320;

    // A block taken when the texts outgrow the inline space; its bytes
    // follow it. Blocks are never moved, so stored texts keep their address.
    struct TextBlock {
        TextBlock* next;
    };

    // Room for length text bytes; null when memory ran out.
    char* allocateText(size_t length);
    // Makes sure the next length text bytes need no further allocation.
    bool reserveText(size_t length);
    // Copies length bytes into the text storage; null when memory ran out.
    char* storeBytes(const char* text, size_t length);
    // Takes the pair record at offset of a stored packet, moving offset past
    // it; false when it overruns the packet or a text lacks its NUL.
    bool parseRecord(char* packet, unsigned length, size_t& offset);

    uint8_t m_argumentCount;
    std::atomic<int32_t> m_count;
    char* m_keys[s_maxNumberArguments];
    char* m_values[s_maxNumberArguments];
    uint32_t m_valueLengths[s_maxNumberArguments];
    uint8_t m_keyLengths[s_maxNumberArguments];
    static_assert(Limits::MessageKeyBytes == UINT8_MAX, "a key's length travels in one byte");
    std::string m_eventName;
    // Where the next text goes and how many bytes are left there.
    char* m_pFreeText;
    size_t m_freeTextBytes;
    // Overflow blocks, newest first.
    TextBlock* m_pBlocks;
    // Bytes of the overflow blocks (what heldBytes counts beyond the object).
    size_t m_blockBytes;
    // The verbatim packet (see the file comment) and its length; null when none.
    const unsigned char* m_pPacket;
    uint32_t m_packetLength;
    alignas(8) char m_inlineText[s_inlineTextBytes];
};

// One reference to a message, owned: move-only, released when the handle
// goes. Every post takes its message as a MessageRef by value, so a post
// takes the message on success and on failure alike, and a caller that wants
// the message afterwards (to try another route, to answer it) shares a
// reference of its own first. It is one pointer wide and costs no atomic
// operation beyond the release it replaces.
class MessageRef {
public:
    // An empty handle.
    MessageRef() noexcept : m_pMessage(nullptr) {}
    // Takes over one reference the caller holds (null gives an empty handle).
    explicit MessageRef(MessageItem* adopted) noexcept : m_pMessage(adopted) {}
    // Moves the reference; the source becomes empty.
    MessageRef(MessageRef&& other) noexcept : m_pMessage(other.m_pMessage) { other.m_pMessage = nullptr; }
    // Releases the held reference, then takes other's.
    MessageRef& operator=(MessageRef&& other) noexcept
    {
        if (this != &other) {
            MessageItem::release(m_pMessage);
            m_pMessage = other.m_pMessage;
            other.m_pMessage = nullptr;
        }
        return *this;
    }
    MessageRef(const MessageRef&) = delete;
    MessageRef& operator=(const MessageRef&) = delete;
    // Releases the held reference.
    ~MessageRef() { MessageItem::release(m_pMessage); }

    // A second handle with a reference of its own (empty for an empty one).
    MessageRef share() const noexcept
    {
        if (m_pMessage != nullptr)
            m_pMessage->incrementCount();
        return MessageRef(m_pMessage);
    }
    // The message, still owned by this handle; null when empty.
    MessageItem* get() const noexcept { return m_pMessage; }
    // The message, for reading and building.
    MessageItem* operator->() const noexcept { return m_pMessage; }
    // Whether the handle holds a message.
    explicit operator bool() const noexcept { return m_pMessage != nullptr; }
    // Gives the reference to the caller, who releases it; the handle empties.
    [[nodiscard]] MessageItem* release() noexcept
    {
        MessageItem* message = m_pMessage;
        m_pMessage = nullptr;
        return message;
    }

private:
    MessageItem* m_pMessage;
};

} // namespace UlmarComms
