// The big-endian stream and the CRC-32: byte layouts, the offset-first rule
// on refused operations, and the checksum's reference values.
#include "framing/dataobject.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace UlmarComms;

namespace {

std::vector<unsigned char> bytesOf(const unsigned char* data, unsigned n)
{
    return std::vector<unsigned char>(data, data + n);
}

} // namespace

TEST(DataObject, EveryTypeIsWrittenBigEndianAndRoundTripsWithItsSign)
{
    unsigned char buffer[64] = {};
    DataObject out(buffer, sizeof buffer, DataObject::ModeWrite);
    out << static_cast<signed char>(-5) << static_cast<unsigned char>(250) << static_cast<short>(-12345)
        << static_cast<unsigned short>(54321) << int(-123456789) << 4000000000u << -1234567890123ll
        << 18000000000000000000ull;
    ASSERT_TRUE(out.isValid());
    ASSERT_EQ(out.size(), 30u);
    const std::vector<unsigned char> expected = {0xFB, 0xFA, 0xCF, 0xC7, 0xD4, 0x31, 0xF8, 0xA4, 0x32, 0xEB,
                                                 0xEE, 0x6B, 0x28, 0x00, 0xFF, 0xFF, 0xFE, 0xE0, 0x8E, 0x04,
                                                 0xFB, 0x35, 0xF9, 0xCC, 0xD8, 0xA1, 0xC5, 0x08, 0x00, 0x00};
    EXPECT_EQ(bytesOf(buffer, 30), expected);

    DataObject in(buffer, out.size(), DataObject::ModeRead);
    signed char sc = 0;
    unsigned char uc = 0;
    short s = 0;
    unsigned short us = 0;
    int i = 0;
    unsigned u = 0;
    long long ll = 0;
    unsigned long long ull = 0;
    in >> sc >> uc >> s >> us >> i >> u >> ll >> ull;
    EXPECT_TRUE(in.isValid());
    EXPECT_EQ(sc, -5);
    EXPECT_EQ(uc, 250);
    EXPECT_EQ(s, -12345);
    EXPECT_EQ(us, 54321);
    EXPECT_EQ(i, -123456789);
    EXPECT_EQ(u, 4000000000u);
    EXPECT_EQ(ll, -1234567890123ll);
    EXPECT_EQ(ull, 18000000000000000000ull);
}

TEST(DataObject, OverflowMovesTheOffsetFirstAndRefusesLaterWrites)
{
    unsigned char buffer[8];
    std::memset(buffer, 0xEE, sizeof buffer);
    DataObject out(buffer, 5, DataObject::ModeWrite);
    out << static_cast<unsigned char>(0x11);
    ASSERT_EQ(out.size(), 1u);
    out << static_cast<unsigned char>(0x22) << int(0x01020304); // 3 free bytes, 4 needed
    EXPECT_EQ(out.size(), 6u) << "the refused write still counts its width";
    EXPECT_FALSE(out.isValid());
    EXPECT_EQ(buffer[2], 0xEE) << "nothing of the refused value was written";
    out << static_cast<unsigned char>(0x33); // would have fitted at the cursor
    EXPECT_EQ(out.size(), 7u);
    EXPECT_EQ(buffer[2], 0xEE) << "once invalid, everything after is refused";
}

TEST(DataObject, WrongModeLeavesTargetsUntouchedButMovesTheOffset)
{
    unsigned char buffer[8] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    DataObject writer(buffer, sizeof buffer, DataObject::ModeWrite);
    int value = 42;
    writer >> value;
    EXPECT_EQ(value, 42);
    EXPECT_EQ(writer.size(), 4u);
    EXPECT_TRUE(writer.isValid());

    // On a reader, a refused write leaves the offset ahead of the cursor:
    // the next read still starts at the first byte.
    DataObject reader(buffer, sizeof buffer, DataObject::ModeRead);
    reader << int(7);
    EXPECT_EQ(buffer[0], 0x01);
    EXPECT_EQ(reader.size(), 4u);
    EXPECT_TRUE(reader.isValid());
    int first = 0;
    reader >> first;
    EXPECT_EQ(first, 0x01020304);
    EXPECT_EQ(reader.size(), 8u);
}

TEST(DataObject, StringsAreLengthThenBytesWrittenOnlyInWriteModeAndWhole)
{
    unsigned char buffer[16] = {};
    DataObject out(buffer, sizeof buffer, DataObject::ModeWrite);
    out << std::string("abc");
    ASSERT_EQ(out.size(), 7u);
    const std::vector<unsigned char> expected = {0x00, 0x00, 0x00, 0x03, 0x61, 0x62, 0x63};
    EXPECT_EQ(bytesOf(buffer, 7), expected);

    DataObject in(buffer, 7, DataObject::ModeRead);
    std::string text;
    in >> text;
    EXPECT_EQ(text, "abc");
    EXPECT_EQ(in.size(), 7u);
    EXPECT_TRUE(in.isValid());

    // The string writer checks the mode before the offset.
    unsigned char six[6] = {};
    DataObject reader(six, sizeof six, DataObject::ModeRead);
    reader << std::string("abc");
    EXPECT_EQ(reader.size(), 0u) << "wrong mode: the string writer does not count";
    DataObject small(six, sizeof six, DataObject::ModeWrite);
    small << std::string("abc"); // needs 7 of 6
    EXPECT_EQ(small.size(), 7u);
    EXPECT_FALSE(small.isValid());
    EXPECT_EQ(six[3], 0x00) << "an overflowing string writes nothing";
}

TEST(DataObject, StringReaderStopsAtEachBound)
{
    // A length field promising more bytes than there are.
    const unsigned char lying[] = {0x00, 0x00, 0x00, 0x09, 0x61, 0x62};
    DataObject in(const_cast<unsigned char*>(lying), sizeof lying, DataObject::ModeRead);
    std::string text = "kept";
    in >> text;
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(in.size(), 13u);
    EXPECT_FALSE(in.isValid());

    // Too short even for the length field.
    DataObject tiny(const_cast<unsigned char*>(lying), 3, DataObject::ModeRead);
    tiny >> text;
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(tiny.size(), 4u);

    DataObject writer(const_cast<unsigned char*>(lying), sizeof lying, DataObject::ModeWrite);
    writer >> text;
    EXPECT_EQ(writer.size(), 0u) << "the string reader does nothing in write mode";

    // A peer's string length near 2^32 must not wrap the offset back into range.
    unsigned char huge[8] = {0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b', 'c', 'd'};
    DataObject hostile(huge, sizeof(huge), DataObject::ModeRead);
    std::string untouched = "untouched";
    hostile >> untouched;
    EXPECT_FALSE(hostile.isValid());
    EXPECT_EQ(untouched, "untouched");
    unsigned int after = 7;
    hostile >> after; // refused: the stream is already past its end
    EXPECT_EQ(after, 7u);
    EXPECT_FALSE(hostile.isValid());
}

TEST(DataObject, RawCopiesIgnoreModeButNotCapacity)
{
    unsigned char buffer[4] = {};
    DataObject reader(buffer, sizeof buffer, DataObject::ModeRead);
    const unsigned char source[3] = {9, 8, 7};
    reader.writeRaw(source, 3);
    EXPECT_EQ(buffer[2], 7);
    reader.writeRaw(source, 3); // 6 > 4
    EXPECT_EQ(reader.size(), 6u);
    EXPECT_EQ(buffer[3], 0);

    DataObject writer(buffer, sizeof buffer, DataObject::ModeWrite);
    unsigned char target[4] = {};
    writer.readRaw(target, 4);
    EXPECT_EQ(target[1], 8);
    writer.setOffset(1);
    writer.readRaw(target, 2);
    EXPECT_EQ(target[0], 8);
    EXPECT_EQ(writer.size(), 3u);
}

TEST(GenerateCRC32, MatchesTheReferenceValues)
{
    EXPECT_EQ(GenerateCRC32("123456789", 9), 0xCBF43926u);
    EXPECT_EQ(GenerateCRC32("a", 1), 0xE8B7BE43u);
    const char fox[] = "The quick brown fox jumps over the lazy dog";
    EXPECT_EQ(GenerateCRC32(fox, sizeof fox - 1), 0x414FA339u);
    EXPECT_EQ(GenerateCRC32(nullptr, 0), 0u) << "an empty input never reads the pointer";
}
