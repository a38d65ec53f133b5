// The message record: building, the "localhost" rule, lookups and the header
// scan, comparison, copies and reference counts, and the packet form with
// its round trips and the malformed packets a peer might send.
#include "messaging/messaging.h"

#include "support/scopedhostname.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using UlmarComms::MessageItem;
using UlmarCommsTest::ScopedHostName;

namespace {

using Bytes = std::vector<unsigned char>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

struct Releaser {
    void operator()(MessageItem* item) const { MessageItem::release(item); }
};
// Owns one reference; the leak check then proves every path frees.
using Message = std::unique_ptr<MessageItem, Releaser>;

Message create()
{
    Message item(MessageItem::create());
    EXPECT_NE(item, nullptr);
    return item;
}

Message build(const Pairs& pairs)
{
    Message item = create();
    for (const auto& [key, value] : pairs)
        EXPECT_TRUE(item->add(key.c_str(), value.c_str()));
    return item;
}

Pairs pairsOf(const MessageItem& item)
{
    Pairs pairs;
    for (int i = 0; i < item.numberOfArguments(); ++i)
        pairs.emplace_back(item.key(i), item.value(i));
    return pairs;
}

Bytes serialise(const MessageItem& item)
{
    unsigned size = 0;
    EXPECT_FALSE(item.toBuffer(size, nullptr, 0));
    Bytes bytes(size);
    unsigned written = 0;
    EXPECT_TRUE(item.toBuffer(written, bytes.data(), size));
    EXPECT_EQ(written, size);
    return bytes;
}

// Parses from a heap block of exactly the given bytes, so any read past the
// end is caught by the address sanitizer.
bool parse(const Bytes& bytes, MessageItem& into)
{
    std::unique_ptr<unsigned char[]> exact(new unsigned char[bytes.size() > 0 ? bytes.size() : 1]);
    if (!bytes.empty())
        std::memcpy(exact.get(), bytes.data(), bytes.size());
    return into.fromBuffer(exact.get(), static_cast<unsigned>(bytes.size()));
}

void putU32(Bytes& bytes, size_t offset, uint32_t value)
{
    bytes[offset] = static_cast<unsigned char>(value >> 24);
    bytes[offset + 1] = static_cast<unsigned char>(value >> 16);
    bytes[offset + 2] = static_cast<unsigned char>(value >> 8);
    bytes[offset + 3] = static_cast<unsigned char>(value);
}

// A message on a host named myhost, for the "localhost" rule.
class MessageItemTest : public ::testing::Test {
protected:
    ScopedHostName m_host{"myhost"};
};

} // namespace

// ---------------------------------------------------------------- building

TEST_F(MessageItemTest, AddStoresUpToTwentyFivePairsWithTheirLengths)
{
    Message item = create();
    EXPECT_EQ(item->numberOfArguments(), 0);
    EXPECT_EQ(item->count(), 1);
    EXPECT_EQ(item->m_pNext, nullptr);
    EXPECT_TRUE(item->eventName().empty());
    EXPECT_FALSE(item->add(nullptr, "v"));
    EXPECT_FALSE(item->add("k", nullptr));
    EXPECT_EQ(item->numberOfArguments(), 0);
    ASSERT_TRUE(item->add("key", "value!"));
    ASSERT_TRUE(item->add("key", "second")) << "duplicate keys are kept";
    ASSERT_TRUE(item->add("", "")) << "empty texts are texts";
    EXPECT_STREQ(item->value("key"), "value!") << "lookups see the first";
    unsigned length = 999;
    EXPECT_STREQ(item->key(0, length), "key");
    EXPECT_EQ(length, 4u) << "stored lengths include the NUL";
    EXPECT_STREQ(item->value(0, length), "value!");
    EXPECT_EQ(length, 7u);
    for (int index : {-1, 3, 25, -100}) {
        SCOPED_TRACE(index);
        length = 999;
        EXPECT_EQ(item->key(index), nullptr);
        EXPECT_EQ(item->value(index), nullptr);
        EXPECT_EQ(item->key(index, length), nullptr);
        EXPECT_EQ(item->value(index, length), nullptr);
        EXPECT_EQ(length, 999u);
    }

    for (int i = 3; i < MessageItem::s_maxNumberArguments; ++i)
        ASSERT_TRUE(item->add(("k" + std::to_string(i)).c_str(), std::to_string(i * 3).c_str()));
    EXPECT_FALSE(item->add("k25", "x"));
    EXPECT_EQ(item->numberOfArguments(), 25);
    EXPECT_STREQ(item->key(24), "k24");
    EXPECT_STREQ(item->value(24), "72");
    EXPECT_EQ(item->value("k25"), nullptr);
}

// -------------------------------------------------------- "localhost" rule

TEST_F(MessageItemTest, LocalhostAtTheStartOfAnAddressIsTheHostName)
{
    Message item = build({
        {"_t", "localhost"},
        {"_f", "localhost/echo"},
        {"_t", "localhostess"}, // not anchored to a separator, deliberately
        {"_tail", "localhost@x"}, // any key beginning with _t or _f
        {"_from", "localhost"},
    });
    EXPECT_EQ(
        pairsOf(*item),
        (Pairs{
            {"_t", "myhost"}, {"_f", "myhost/echo"}, {"_t", "myhostess"}, {"_tail", "myhost@x"}, {"_from", "myhost"}}));
    unsigned length = 0;
    item->value(1, length);
    EXPECT_EQ(length, std::strlen("myhost/echo") + 1) << "the length is that of the stored text";

    const Pairs unchanged = {
        {"_x", "localhost"}, {"_t", "LocalHost"}, {"_t", "xlocalhost"}, {"_t", "localhos"}, {"t", "localhost"},
        {"_T", "localhost"}, {"_m", "localhost"}, {"ft", "localhost"},  {"_", "localhost"}, {"", "localhost"},
    };
    EXPECT_EQ(pairsOf(*build(unchanged)), unchanged);

    // Substitution follows the host name current at each add.
    {
        ScopedHostName other("other");
        ASSERT_TRUE(item->add("_t", "localhost/b"));
    }
    EXPECT_STREQ(item->value(5), "other/b");
}

// ------------------------------------------------------------ header forms

TEST_F(MessageItemTest, SetAndSetResponseAddTheirKeysInOrderAndStopAtTheFirstFailure)
{
    Message item = create();
    ASSERT_TRUE(item->set("beta@svc", "alpha@app", "ping", "5"));
    ASSERT_TRUE(item->setResponse("pong", "6"));
    EXPECT_EQ(
        pairsOf(*item),
        (Pairs{{"_t", "beta@svc"}, {"_f", "alpha@app"}, {"_m", "ping"}, {"_s", "5"}, {"_r", "pong"}, {"_R", "6"}}));

    Message refused = create();
    EXPECT_FALSE(refused->set("t", "f", "m", nullptr));
    EXPECT_FALSE(refused->set(nullptr, "f", "m", "s"));
    EXPECT_FALSE(refused->setResponse(nullptr, "5"));
    EXPECT_EQ(refused->numberOfArguments(), 0) << "a null argument adds nothing";

    Message full = create();
    for (int i = 0; i < 23; ++i)
        ASSERT_TRUE(full->add("p", "v"));
    EXPECT_FALSE(full->set("t", "f", "m", "s"));
    EXPECT_EQ(full->numberOfArguments(), 25);
    EXPECT_STREQ(full->value("_t"), "t");
    EXPECT_STREQ(full->value("_f"), "f");
    EXPECT_FALSE(full->hasKey("_m"));
}

// ----------------------------------------------------------------- lookups

namespace {

// The seven outputs of the header scan, each starting at the given value.
struct Header {
    explicit Header(char* start = nullptr)
        : to(start), from(start), mode(start), senderId(start), responseId(start), response(start), method(start)
    {
    }
    void scan(const MessageItem& item)
    {
        const_cast<MessageItem&>(item).getMandatoryFields(&to, &from, &mode, &senderId, &responseId, &response,
                                                          &method);
    }
    char *to, *from, *mode, *senderId, *responseId, *response, *method;
};

} // namespace

TEST_F(MessageItemTest, HasKeyAndValueCompareWholeKeys)
{
    Message empty = create();
    EXPECT_FALSE(empty->hasKey("_t"));
    EXPECT_EQ(empty->value("k"), nullptr);
    Message item = build({{"_tail", "a"}, {"k", "v"}});
    EXPECT_FALSE(item->hasKey(nullptr));
    EXPECT_FALSE(item->hasKey("_t")) << "a prefix is not the key";
    EXPECT_FALSE(item->hasKey("_taily"));
    EXPECT_TRUE(item->hasKey("_tail"));
    EXPECT_TRUE(item->hasKey("k"));
    EXPECT_EQ(item->value(static_cast<const char*>(nullptr)), nullptr);

    Header header;
    header.scan(*item);
    EXPECT_STREQ(header.to, "a") << "_tail counts as the target in the header scan";
    EXPECT_EQ(header.from, nullptr);
}

TEST_F(MessageItemTest, HeaderScansFillEachFieldBySecondCharacterAndSeeTheLast)
{
    Message item = build({{"_to", "T"},
                          {"_fx", "F"},
                          {"_Mode", "E"},
                          {"_method", "first"},
                          {"_resp", "r"},
                          {"_sid", "S"},
                          {"_Rid", "R"},
                          {"_h", "H"},
                          {"x_t", "no"},
                          {"_z", "no"},
                          {"_method", "M"}});
    EXPECT_STREQ(item->value("_method"), "first") << "value() sees the first";
    Header header;
    header.scan(*item);
    EXPECT_STREQ(header.to, "T");
    EXPECT_STREQ(header.from, "F");
    EXPECT_STREQ(header.mode, "E");
    EXPECT_STREQ(header.method, "M");
    EXPECT_STREQ(header.response, "r");
    EXPECT_STREQ(header.senderId, "S");
    EXPECT_STREQ(header.responseId, "R");

    Message routed = build({{"_m", "x"}, {"_f", "F"}, {"_s", "1"}, {"_to", "T"}, {"_t", "t2"}});
    char* to = nullptr;
    char* from = nullptr;
    routed->getMandatoryRoutingFields(&to, &from);
    EXPECT_STREQ(to, "t2") << "the routing scan sees the last too";
    EXPECT_STREQ(from, "F");

    // Absent fields: the header scan leaves its outputs, the routing scan clears them.
    char sentinelText[] = "sentinel";
    char* const sentinel = sentinelText;
    Message sparse = build({{"_m", "only"}, {"k", "v"}});
    Header untouched(sentinel);
    untouched.scan(*sparse);
    EXPECT_STREQ(untouched.method, "only");
    for (char* field :
         {untouched.to, untouched.from, untouched.mode, untouched.senderId, untouched.responseId, untouched.response})
        EXPECT_EQ(field, sentinel);
    to = from = sentinel;
    sparse->getMandatoryRoutingFields(&to, &from);
    EXPECT_EQ(to, nullptr);
    EXPECT_EQ(from, nullptr);
}

// -------------------------------------------------------------- comparison

TEST_F(MessageItemTest, CompareNeedsTheSameKeysValuesAndCountInAnyOrder)
{
    Message one = build({{"a", "1"}, {"b", "2"}, {"c", "3"}});
    Message two = build({{"c", "3"}, {"a", "1"}, {"b", "2"}});
    one->setEventName("first");
    two->setEventName("second");
    EXPECT_TRUE(one->compare(two.get())) << "order and event name do not count";
    EXPECT_TRUE(two->compare(one.get()));
    EXPECT_TRUE(*one == *two);

    Message base = build({{"a", "1"}, {"b", "2"}});
    EXPECT_FALSE(base->compare(nullptr));
    EXPECT_FALSE(base->compare(build({{"a", "1"}}).get()));
    EXPECT_FALSE(base->compare(build({{"a", "1"}, {"b", "2"}, {"c", "3"}}).get()));
    EXPECT_FALSE(base->compare(build({{"a", "1"}, {"b", "20"}}).get()));
    EXPECT_FALSE(base->compare(build({{"a", "1"}, {"B", "2"}}).get()));
    EXPECT_FALSE(*base == *build({{"a", "1"}, {"c", "2"}}));
    EXPECT_TRUE(create()->compare(create().get()));
}

// ------------------------------------------------------ copies and counts

TEST_F(MessageItemTest, CreateAndCopyCopiesEveryPairButNotTheEventNameAndSubstitutesAgain)
{
    EXPECT_EQ(MessageItem::createAndCopy(nullptr), nullptr);
    Message source = build({{"_t", "beta@x"}, {"k", "v"}, {"k", "w"}});
    source->setEventName("changed");
    source->incrementCount();
    Message copy(MessageItem::createAndCopy(source.get()));
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy.get(), source.get());
    EXPECT_EQ(copy->count(), 1);
    EXPECT_TRUE(copy->eventName().empty());
    EXPECT_EQ(pairsOf(*copy), pairsOf(*source));
    MessageItem::release(source.get()); // the extra reference
    source.reset();
    EXPECT_STREQ(copy->value("k"), "v") << "the copy owns its own texts";

    // A parsed packet stores texts as they arrived; copying adds them anew,
    // with the "localhost" rule. The packet holds "_u" = "localhost/x" (not
    // substituted), its key renamed to "_t".
    Bytes bytes = serialise(*build({{"_u", "localhost/x"}}));
    ASSERT_EQ(bytes[12], 'u');
    bytes[12] = 't';
    Message parsed = create();
    ASSERT_TRUE(parse(bytes, *parsed));
    EXPECT_STREQ(parsed->value("_t"), "localhost/x") << "parsing does not substitute";
    EXPECT_STREQ(Message(MessageItem::createAndCopy(parsed.get()))->value("_t"), "myhost/x");
}

TEST_F(MessageItemTest, ReferenceCountKeepsTheMessageUntilTheLastRelease)
{
    MessageItem* item = MessageItem::create();
    ASSERT_NE(item, nullptr);
    item->add("k", "v");
    item->incrementCount();
    item->incrementCount();
    EXPECT_EQ(item->count(), 3);
    MessageItem::release(item);
    MessageItem::release(item);
    EXPECT_EQ(item->count(), 1);
    EXPECT_STREQ(item->value("k"), "v"); // still alive: the sanitizer would object otherwise
    MessageItem::release(item); // the last one frees it (the leak check sees that)
    MessageItem::release(nullptr); // accepted, does nothing

    // A kept message may be released on another thread while the router
    // worker holds its own reference: no count is lost either way.
    MessageItem* shared = MessageItem::create();
    ASSERT_NE(shared, nullptr);
    auto churn = [shared] {
        for (int i = 0; i < 100000; ++i) {
            shared->incrementCount();
            MessageItem::release(shared);
        }
    };
    std::thread other(churn);
    churn();
    other.join();
    EXPECT_EQ(shared->count(), 1);
    MessageItem::release(shared);
}

// ------------------------------------------------------------- packet form

TEST_F(MessageItemTest, PacketsAreByteExact)
{
    Message empty = create();
    EXPECT_EQ(empty->memSize(), 7u);
    EXPECT_EQ(MessageItem::memSize(empty.get()), 7u);
    EXPECT_EQ(MessageItem::memSize(nullptr), 0u);
    const Bytes emptyPacket = {0xA4, 0x00, 0x00, 0x00, 0x07, 0x00, 0x8B};
    EXPECT_EQ(serialise(*empty), emptyPacket);
    Message parsed = create();
    EXPECT_FALSE(parse(emptyPacket, *parsed)) << "an empty packet does not parse back";
    EXPECT_EQ(parsed->numberOfArguments(), 0);

    Message item = build({{"a", "bc"}});
    EXPECT_EQ(item->memSize(), 17u);
    const Bytes expected = {0xA4, 0x00, 0x00, 0x00, 0x11, 0x01, 0x02, 0x00, 0x00,
                            0x00, 0x03, 0x61, 0x00, 0x62, 0x63, 0x00, 0x8B};
    EXPECT_EQ(serialise(*item), expected);
    Bytes longer = expected;
    longer.insert(longer.end(), {0x00, 0x11, 0x22}); // a packet at the start of a longer buffer
    ASSERT_TRUE(parse(longer, *parsed));
    EXPECT_EQ(pairsOf(*parsed), (Pairs{{"a", "bc"}}));
    unsigned length = 0;
    parsed->key(0, length);
    EXPECT_EQ(length, 2u);
    parsed->value(0, length);
    EXPECT_EQ(length, 3u);

    // Lengths are four bytes, big-endian.
    const std::string big(70000, 'v'); // 70001 with its NUL: 0x00011171
    const Bytes bytes = serialise(*build({{"k", big}}));
    ASSERT_EQ(bytes.size(), 6u + 5u + 2u + 70001u + 1u); // 70015: 0x0001117F
    EXPECT_EQ(Bytes(bytes.begin() + 1, bytes.begin() + 5), (Bytes{0x00, 0x01, 0x11, 0x7F}));
    EXPECT_EQ(Bytes(bytes.begin() + 7, bytes.begin() + 11), (Bytes{0x00, 0x01, 0x11, 0x71}));
    Message parsedBig = create();
    ASSERT_TRUE(parse(bytes, *parsedBig));
    EXPECT_EQ(parsedBig->value("k"), big);

    // One byte short (or no buffer) fails, writes nothing and reports the size.
    Bytes buffer(item->memSize(), 0xEE);
    unsigned size = 0;
    EXPECT_FALSE(item->toBuffer(size, buffer.data(), 16));
    EXPECT_EQ(size, 17u);
    EXPECT_EQ(buffer, Bytes(17, 0xEE)) << "nothing written on failure";
    size = 0;
    EXPECT_FALSE(item->toBuffer(size, nullptr, 1000));
    EXPECT_EQ(size, 17u);
}

// A canonical packet is kept and written back as it came, duplicate keys and
// "localhost" included; anything that serialises differently, and any change
// to the pairs, is written pair by pair.
TEST_F(MessageItemTest, ACanonicalPacketIsKeptVerbatimUntilItsPairsChange)
{
    // "_q" becomes "_t" in the bytes: a target of "localhost" as a peer sends it.
    Bytes canonical = serialise(*build({{"_q", "localhost/me"}, {"k", "1"}, {"k", "2"}, {"_t", "app@x"}}));
    canonical[12] = 't';
    Message parsed = create();
    ASSERT_TRUE(parse(canonical, *parsed));
    unsigned length = 0;
    const unsigned char* packet = parsed->packet(length);
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(Bytes(packet, packet + length), canonical);
    EXPECT_EQ(serialise(*parsed), canonical);
    EXPECT_STREQ(parsed->value("k"), "1");
    EXPECT_STREQ(parsed->value("_t"), "localhost/me") << "a received packet is taken as it is";

    // A size field below the length, or bytes after the end marker: parsed,
    // but written as serialising writes it.
    Bytes trailing = canonical;
    trailing.push_back(0x00);
    Bytes smallSize = trailing;
    putU32(smallSize, 1, static_cast<uint32_t>(canonical.size() - 1));
    for (const Bytes& bytes : {trailing, smallSize}) {
        Message other = create();
        ASSERT_TRUE(parse(bytes, *other));
        EXPECT_EQ(other->packet(length), nullptr);
        EXPECT_EQ(serialise(*other), canonical);
    }

    ASSERT_TRUE(parsed->add("_t", "localhost/late"));
    EXPECT_EQ(parsed->packet(length), nullptr) << "a change forgets the packet";
    Bytes grown = serialise(*parsed);
    EXPECT_EQ(grown.size(), canonical.size() + 5 + 3 + std::strlen("myhost/late") + 1);
    Message back = create();
    ASSERT_TRUE(parse(grown, *back));
    EXPECT_STREQ(back->value(4), "myhost/late");
    Message copy(MessageItem::createAndCopy(back.get()));
    EXPECT_EQ(copy->packet(length), nullptr) << "a copy is built pair by pair";
}

// ------------------------------------------------------------- round trips

namespace {

Message randomMessage(std::mt19937& random)
{
    static const std::string keyCharacters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.#";
    Message item = create();
    const int count = std::uniform_int_distribution<int>(1, 25)(random);
    for (int i = 0; i < count; ++i) {
        std::string key(std::uniform_int_distribution<size_t>(0, 12)(random), 'k');
        for (char& c : key)
            c = keyCharacters[std::uniform_int_distribution<size_t>(0, keyCharacters.size() - 1)(random)];
        const size_t valueLength = std::uniform_int_distribution<int>(0, 9)(random) == 0
            ? std::uniform_int_distribution<size_t>(256, 2000)(random)
            : std::uniform_int_distribution<size_t>(0, 40)(random);
        std::string value(valueLength, 'v');
        for (char& c : value)
            c = static_cast<char>(std::uniform_int_distribution<int>(1, 255)(random)); // any byte but NUL
        EXPECT_TRUE(item->add(key.c_str(), value.c_str()));
    }
    return item;
}

} // namespace

TEST_F(MessageItemTest, RandomMessagesSurviveTheRoundTripExactly)
{
    std::mt19937 random(20240611);
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        Message original = randomMessage(random);
        const Bytes bytes = serialise(*original);
        ASSERT_EQ(bytes.size(), original->memSize());
        Message parsed = create();
        ASSERT_TRUE(parse(bytes, *parsed));
        ASSERT_EQ(parsed->numberOfArguments(), original->numberOfArguments());
        for (int i = 0; i < original->numberOfArguments(); ++i) {
            unsigned originalLength = 0;
            unsigned parsedLength = 0;
            EXPECT_STREQ(parsed->key(i, parsedLength), original->key(i, originalLength));
            EXPECT_EQ(parsedLength, originalLength);
            EXPECT_STREQ(parsed->value(i, parsedLength), original->value(i, originalLength));
            EXPECT_EQ(parsedLength, originalLength);
        }
        EXPECT_TRUE(parsed->compare(original.get()));
        EXPECT_EQ(serialise(*parsed), bytes);
    }
}

// -------------------------------------------------------- malformed packets

namespace {

// Offsets of the three records of threePairPacket().
constexpr size_t kFirstRecord = 6; // "_t" = "b@x"
constexpr size_t kSecondRecord = 18; // "k" = "value"
constexpr size_t kThirdRecord = 31; // "m" = ""

Bytes threePairPacket()
{
    Message item = create();
    item->add("_t", "b@x");
    item->add("k", "value");
    item->add("m", "");
    return serialise(*item);
}

bool parsesAlone(const Bytes& bytes)
{
    Message parsed = create();
    return parse(bytes, *parsed);
}

} // namespace

TEST_F(MessageItemTest, DamagedHeadersAndRecordsAreRejected)
{
    const Bytes good = threePairPacket();
    ASSERT_EQ(good.size(), 6u + (5 + 3 + 4) + (5 + 2 + 6) + (5 + 2 + 1) + 1u);
    ASSERT_EQ(good[kFirstRecord], 3);
    ASSERT_EQ(good[kSecondRecord + 5], 'k');
    ASSERT_EQ(good[kThirdRecord + 5], 'm');
    ASSERT_TRUE(parsesAlone(good));
    Message target = create();
    EXPECT_FALSE(target->fromBuffer(nullptr, 40));
    EXPECT_FALSE(target->fromBuffer(good.data(), 0));

    struct Damage {
        const char* what;
        std::function<void(Bytes&)> apply;
    };
    const std::vector<Damage> damages = {
        {"wrong head byte", [](Bytes& b) { b[0] = 0xB4; }},
        {"size past the buffer", [&](Bytes& b) { putU32(b, 1, static_cast<uint32_t>(good.size() + 1)); }},
        {"no records", [](Bytes& b) { b[5] = 0; }},
        {"twenty-six records", [](Bytes& b) { b[5] = 26; }},
        {"more records than present", [](Bytes& b) { b[5] = 4; }},
        {"value length all ones", [](Bytes& b) { putU32(b, kSecondRecord + 1, 0xFFFFFFFFu); }},
        {"value length sign bit", [](Bytes& b) { putU32(b, kSecondRecord + 1, 0x80000000u); }},
        {"value length 64 KiB", [](Bytes& b) { putU32(b, kSecondRecord + 1, 0x00010000u); }},
        {"value length 100", [](Bytes& b) { putU32(b, kSecondRecord + 1, 100u); }},
        {"value length 23", [](Bytes& b) { putU32(b, kSecondRecord + 1, 23u); }},
        {"key length past the end", [](Bytes& b) { b[kThirdRecord] = 0xFF; }},
        {"key without its NUL", [](Bytes& b) { b[kSecondRecord + 5 + 1] = 'X'; }},
        {"value without its NUL", [](Bytes& b) { b[kSecondRecord + 5 + 2 + 5] = 'X'; }},
        {"zero key length", [](Bytes& b) { b[kFirstRecord] = 0; }},
        {"zero value length", [](Bytes& b) { putU32(b, kFirstRecord + 1, 0); }},
    };
    for (const Damage& damage : damages) {
        SCOPED_TRACE(damage.what);
        Bytes bytes = good;
        damage.apply(bytes);
        EXPECT_FALSE(parsesAlone(bytes));
    }
}

TEST_F(MessageItemTest, TruncatedPacketsAreRejected)
{
    const Bytes good = threePairPacket();
    for (size_t cut = 0; cut < good.size(); ++cut) {
        SCOPED_TRACE(cut);
        const Bytes truncated(good.begin(), good.begin() + static_cast<long>(cut));
        EXPECT_FALSE(parsesAlone(truncated));
        // The same cut with a size field that claims to fit: the records
        // themselves must be bounded by the buffer.
        if (cut >= 5) {
            Bytes lying = truncated;
            putU32(lying, 1, static_cast<uint32_t>(cut));
            EXPECT_FALSE(parsesAlone(lying));
        }
    }
}

TEST_F(MessageItemTest, AMissingOrWrongEndByteFailsAfterThePairsWereReadAndAFullMessageTakesNone)
{
    Bytes wrongEnd = threePairPacket();
    wrongEnd.back() = 0x8C;
    Bytes noEnd = threePairPacket();
    noEnd.pop_back();
    putU32(noEnd, 1, static_cast<uint32_t>(noEnd.size()));
    for (const Bytes& bytes : {wrongEnd, noEnd}) {
        Message parsed = create();
        EXPECT_FALSE(parse(bytes, *parsed));
        EXPECT_EQ(pairsOf(*parsed), (Pairs{{"_t", "b@x"}, {"k", "value"}, {"m", ""}}))
            << "the pairs were read; the caller releases them";
    }
    Message item = build({{"own", "pair"}});
    EXPECT_FALSE(parse(threePairPacket(), *item)) << "a message that holds pairs takes no packet";
    EXPECT_EQ(pairsOf(*item), (Pairs{{"own", "pair"}}));
}

TEST_F(MessageItemTest, MutatedPacketsParseOnlyIntoWhatTheyEncode)
{
    std::mt19937 random(77);
    for (int round = 0; round < 3000; ++round) {
        SCOPED_TRACE(round);
        Message source = randomMessage(random);
        Bytes bytes = serialise(*source);
        const int flips = std::uniform_int_distribution<int>(1, 3)(random);
        for (int f = 0; f < flips; ++f) {
            // Mostly the structural bytes near the start, sometimes anywhere.
            const size_t limit = std::uniform_int_distribution<int>(0, 1)(random) == 0
                ? std::min<size_t>(bytes.size(), 16)
                : bytes.size();
            bytes[std::uniform_int_distribution<size_t>(0, limit - 1)(random)] =
                static_cast<unsigned char>(std::uniform_int_distribution<int>(0, 255)(random));
        }
        if (std::uniform_int_distribution<int>(0, 3)(random) == 0)
            bytes.resize(std::uniform_int_distribution<size_t>(0, bytes.size())(random));
        Message parsed = create();
        if (!parse(bytes, *parsed))
            continue;
        // Accepted: writing it again reproduces the input (all but the size
        // field, which only has to fit the buffer).
        const Bytes again = serialise(*parsed);
        ASSERT_LE(again.size(), bytes.size());
        EXPECT_EQ(again[0], bytes[0]);
        EXPECT_TRUE(std::equal(again.begin() + 5, again.end(), bytes.begin() + 5));
    }
}
