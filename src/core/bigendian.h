// Big-endian 32-bit loads and stores on raw byte buffers.
//
// Every length and id the library puts on the wire is big-endian. The
// message packet codec (messaging), the link command record (messaging) and
// the frame header (framing) all read and write them in place, so the two
// helpers live here at the bottom of the layers, where all of them can reach.
#pragma once

#include <cstdint>

namespace UlmarComms {

// The 4 bytes at p as a big-endian number.
inline uint32_t readU32(const unsigned char* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

// Stores value at p as 4 big-endian bytes.
inline void writeU32(unsigned char* p, uint32_t value)
{
    p[0] = static_cast<unsigned char>(value >> 24);
    p[1] = static_cast<unsigned char>(value >> 16);
    p[2] = static_cast<unsigned char>(value >> 8);
    p[3] = static_cast<unsigned char>(value);
}

} // namespace UlmarComms
