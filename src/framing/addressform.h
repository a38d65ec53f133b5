// The written form of a socket address inside a DataObject stream.
//
// Discovery datagrams carry an IPv4 address as 8 bytes: the family (2 bytes,
// big-endian), then port and host exactly as the socket calls hold them
// (already in network order). Other families write only their 2-byte family.
// The form is a stream record, not a property of the address, so it lives
// with the stream in the framing layer and the platform's SocketAddress stays
// free of any serialisation format above it.
#pragma once

namespace UlmarCommsSystem {
class SocketAddress;
}

namespace UlmarComms {

class DataObject;

// Writes the address's written form (8 bytes for IPv4, 2 otherwise); the
// stream's validity afterwards.
bool writeAddress(DataObject& data, const UlmarCommsSystem::SocketAddress& address);
// Reads a written form into address; a family other than IPv4 consumes its
// 2 bytes and changes nothing, and so does a truncated record. True when an
// IPv4 address was read.
bool readAddress(DataObject& data, UlmarCommsSystem::SocketAddress& address);

} // namespace UlmarComms
