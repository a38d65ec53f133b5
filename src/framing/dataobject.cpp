// Big-endian stream and CRC-32.
#include "framing/dataobject.h"

#include <array>
#include <cstring>

namespace UlmarComms {

namespace {

// Offsets saturate instead of wrapping: a length near 2^32 read from a peer
// must leave the stream invalid, never make a wrapped offset look valid
// while the cursor runs ahead of it.
uint32_t saturated(uint64_t end)
{
    return end > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(end);
}

} // namespace

DataObject::DataObject(void* buffer, unsigned capacity, Mode mode)
    : m_mode(mode),
      m_base(static_cast<unsigned char*>(buffer)),
      m_cursor(static_cast<unsigned char*>(buffer)),
      m_capacity(capacity),
      m_offset(0)
{
}

void DataObject::setOffset(unsigned n)
{
    m_offset = n;
    m_cursor = m_base + n;
}

// Offset first, then the checks: a refused operation still counts its width.
bool DataObject::reserve(unsigned width, Mode needed)
{
    const uint64_t end = static_cast<uint64_t>(m_offset) + width;
    m_offset = saturated(end);
    return m_mode == needed && end <= m_capacity;
}

void DataObject::putBigEndian(uint64_t value, unsigned width)
{
    for (unsigned i = 0; i < width; ++i)
        m_cursor[i] = static_cast<unsigned char>(value >> (8 * (width - 1 - i)));
    m_cursor += width;
}

uint64_t DataObject::getBigEndian(unsigned width)
{
    uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i)
        value = (value << 8) | m_cursor[i];
    m_cursor += width;
    return value;
}

template <typename T> DataObject& DataObject::writeNumber(T value)
{
    if (reserve(sizeof(T), ModeWrite))
        putBigEndian(static_cast<uint64_t>(value), sizeof(T));
    return *this;
}

template <typename T> DataObject& DataObject::readNumber(T& value)
{
    if (reserve(sizeof(T), ModeRead))
        value = static_cast<T>(getBigEndian(sizeof(T)));
    return *this;
}

DataObject& DataObject::operator<<(signed char value)
{
    return writeNumber(value);
}
DataObject& DataObject::operator<<(unsigned char value)
{
    return writeNumber(value);
}
DataObject& DataObject::operator<<(short value)
{
    return writeNumber(value);
}
DataObject& DataObject::operator<<(unsigned short value)
{
    return writeNumber(value);
}
DataObject& DataObject::operator<<(int value)
{
    return writeNumber(value);
}
DataObject& DataObject::operator<<(unsigned int value)
{
    return writeNumber(value);
}
DataObject& DataObject::operator<<(long long value)
{
    return writeNumber(value);
}
DataObject& DataObject::operator<<(unsigned long long value)
{
    return writeNumber(value);
}

DataObject& DataObject::operator>>(signed char& value)
{
    return readNumber(value);
}
DataObject& DataObject::operator>>(unsigned char& value)
{
    return readNumber(value);
}
DataObject& DataObject::operator>>(short& value)
{
    return readNumber(value);
}
DataObject& DataObject::operator>>(unsigned short& value)
{
    return readNumber(value);
}
DataObject& DataObject::operator>>(int& value)
{
    return readNumber(value);
}
DataObject& DataObject::operator>>(unsigned int& value)
{
    return readNumber(value);
}
DataObject& DataObject::operator>>(long long& value)
{
    return readNumber(value);
}
DataObject& DataObject::operator>>(unsigned long long& value)
{
    return readNumber(value);
}

// The string writer checks the mode before it touches the offset.
DataObject& DataObject::operator<<(const std::string& value)
{
    if (m_mode != ModeWrite)
        return *this;
    const uint64_t end = static_cast<uint64_t>(m_offset) + 4 + value.size();
    m_offset = saturated(end);
    if (end > m_capacity)
        return *this;
    putBigEndian(static_cast<uint32_t>(value.size()), 4);
    std::memcpy(m_cursor, value.data(), value.size());
    m_cursor += value.size();
    return *this;
}

DataObject& DataObject::operator>>(std::string& value)
{
    if (m_mode != ModeRead)
        return *this;
    uint64_t end = static_cast<uint64_t>(m_offset) + 4;
    m_offset = saturated(end);
    if (end > m_capacity)
        return *this;
    const uint32_t length = static_cast<uint32_t>(getBigEndian(4));
    end += length;
    m_offset = saturated(end);
    if (end > m_capacity)
        return *this;
    value.assign(reinterpret_cast<const char*>(m_cursor), length);
    m_cursor += length;
    return *this;
}

void DataObject::readRaw(void* destination, unsigned n)
{
    const uint64_t end = static_cast<uint64_t>(m_offset) + n;
    m_offset = saturated(end);
    if (end > m_capacity)
        return;
    std::memcpy(destination, m_cursor, n);
    m_cursor += n;
}

void DataObject::writeRaw(const void* source, unsigned n)
{
    const uint64_t end = static_cast<uint64_t>(m_offset) + n;
    m_offset = saturated(end);
    if (end > m_capacity)
        return;
    std::memcpy(m_cursor, source, n);
    m_cursor += n;
}

namespace {

constexpr std::array<uint32_t, 256> makeCrcTable()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t n = 0; n < 256; ++n) {
        uint32_t c = n;
        for (int k = 0; k < 8; ++k)
            c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[n] = c;
    }
    return table;
}

constexpr std::array<uint32_t, 256> crcTable = makeCrcTable();
static_assert(crcTable[1] == 0x77073096u);

} // namespace

uint32_t GenerateCRC32(const void* data, unsigned length)
{
    if (length == 0)
        return 0;
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    uint32_t crc = 0xFFFFFFFFu;
    for (unsigned i = 0; i < length; ++i)
        crc = crcTable[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

} // namespace UlmarComms
