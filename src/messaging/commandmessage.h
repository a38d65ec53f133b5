// The link command record and its codes.
//
// Commands are what routers say to each other over a link besides messages:
// a process router announces and withdraws its pumps and their interfaces,
// and two network routers exchange host names when a link opens. They are
// the routers' vocabulary, so the codes and the record live in the messaging
// layer; the framing layer carries a record as a command frame's payload.
#pragma once

#include <string>

namespace UlmarComms {

// The record a command frame carries: code (1 byte), text length L with the
// NUL (4 bytes, big-endian), the text and its NUL. Static operations only.
class CommandMessage {
public:
    // No command.
    static constexpr unsigned char None = 0;
    // A process router announces one of its pumps to the system router.
    static constexpr unsigned char AddMessagePump = 1;
    // A process router withdraws one of its pumps.
    static constexpr unsigned char RemoveMessagePump = 2;
    // A process router announces interface names served by one of its pumps.
    static constexpr unsigned char AddInterfaceNamesToMessagePump = 3;
    // Opens a network link: the connecting host tells its name.
    static constexpr unsigned char NetworkHostName = 100;
    // Answers NetworkHostName with the accepting host's name.
    static constexpr unsigned char NetworkHostNameReply = 101;

    // Bytes toBuffer needs for this text: strlen + 6; 1 for a null text.
    static unsigned calcBuffer(const char* text);
    // Writes the record; written receives its size. False for a null
    // buffer or too little capacity.
    static bool toBuffer(unsigned& written, unsigned char code, const char* text, unsigned char* buffer,
                         unsigned capacity);
    // Reads a record; the text keeps its NUL as last character. False for
    // fewer than 5 bytes, a null buffer or a text running past size.
    static bool fromBuffer(const unsigned char* buffer, unsigned size, unsigned char& code, std::string& text);
};

} // namespace UlmarComms
