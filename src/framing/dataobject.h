// A bounded big-endian cursor over a caller's buffer, and the CRC-32 routine
// offered to applications.
//
// Every numeric operation advances the offset first, unconditionally, and
// only then checks mode and room: after a refused write, size() tells how big
// the whole record would have been, and isValid() turns false on overflow.
// Callers write or read a whole record and test isValid() once.
#pragma once

#include <cstdint>
#include <string>

namespace UlmarComms {

class DataObject {
public:
    enum Mode { ModeRead = 0, ModeWrite = 1 };

    DataObject(void* buffer, unsigned capacity, Mode mode);
    ~DataObject() = default;

    // Bytes consumed or produced so far, refused operations included.
    unsigned size() const { return m_offset; }
    // Moves offset and cursor to n (no range check).
    void setOffset(unsigned n);
    // Whether everything so far fitted.
    bool isValid() const { return m_offset <= m_capacity; }

    // Big-endian writers.
    DataObject& operator<<(signed char value);
    DataObject& operator<<(unsigned char value);
    DataObject& operator<<(short value);
    DataObject& operator<<(unsigned short value);
    DataObject& operator<<(int value);
    DataObject& operator<<(unsigned int value);
    DataObject& operator<<(long long value);
    DataObject& operator<<(unsigned long long value);
    // A 32-bit length, then the bytes without terminator.
    DataObject& operator<<(const std::string& value);

    // Big-endian readers; a refused read leaves the target untouched.
    DataObject& operator>>(signed char& value);
    DataObject& operator>>(unsigned char& value);
    DataObject& operator>>(short& value);
    DataObject& operator>>(unsigned short& value);
    DataObject& operator>>(int& value);
    DataObject& operator>>(unsigned int& value);
    DataObject& operator>>(long long& value);
    DataObject& operator>>(unsigned long long& value);
    // Reads the string form back.
    DataObject& operator>>(std::string& value);

    // Copies n bytes out, whatever the mode.
    void readRaw(void* destination, unsigned n);
    // Copies n bytes in, whatever the mode.
    void writeRaw(const void* source, unsigned n);

private:
    bool reserve(unsigned width, Mode needed);
    void putBigEndian(uint64_t value, unsigned width);
    uint64_t getBigEndian(unsigned width);
    template <typename T> DataObject& writeNumber(T value);
    template <typename T> DataObject& readNumber(T& value);

    Mode m_mode;
    unsigned char* m_base;
    unsigned char* m_cursor;
    uint32_t m_capacity;
    uint32_t m_offset;
};

// The CRC-32 of zlib and PNG (reflected 0xEDB88320); 0 for an empty input.
uint32_t GenerateCRC32(const void* data, unsigned length);

} // namespace UlmarComms
