// Helpers for the network router tests: scoped setting overrides and free
// loopback ports (the recording system router and the raw frame peer are
// shared with other tests).
#pragma once

#include "core/core.h"
#include "framing/dataframe.h"
#include "messaging/messaging.h"
#include "platform/socketaddress.h"
#include "support/recordingsystemrouter.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace UlmarCommsTest {

// Overrides a number or text setting and puts the old value back.
class ScopedSetting {
public:
    ScopedSetting(const std::string& key, int value)
        : m_key(key), m_number(true), m_oldNumber(UlmarComms::Core::instance()->getNumber(key))
    {
        UlmarComms::Core::instance()->overrideSetting(key, value);
    }
    ScopedSetting(const std::string& key, const std::string& value)
        : m_key(key), m_number(false), m_oldNumber(0), m_oldText(UlmarComms::Core::instance()->getString(key))
    {
        UlmarComms::Core::instance()->overrideSetting(key, value);
    }
    ~ScopedSetting()
    {
        if (m_number)
            UlmarComms::Core::instance()->overrideSetting(m_key, m_oldNumber);
        else
            UlmarComms::Core::instance()->overrideSetting(m_key, m_oldText);
    }
    ScopedSetting(const ScopedSetting&) = delete;
    ScopedSetting& operator=(const ScopedSetting&) = delete;

private:
    std::string m_key;
    bool m_number;
    int m_oldNumber;
    std::string m_oldText;
};

// A loopback port that was free a moment ago (type SOCK_STREAM or SOCK_DGRAM).
inline unsigned short freeLoopbackPort(int type = SOCK_STREAM)
{
    const int fd = ::socket(AF_INET, type, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    unsigned short port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

// An IPv4 address from its texts (never looked up when numeric).
inline UlmarCommsSystem::SocketAddress ip4(const char* host, const char* port)
{
    UlmarCommsSystem::SocketAddress address;
    address.setIP4Address(host, port);
    return address;
}

// 127.0.0.1 with a port.
inline UlmarCommsSystem::SocketAddress loopback(unsigned short port)
{
    UlmarCommsSystem::SocketAddress address;
    address.setIP4Address("127.0.0.1", std::to_string(port));
    return address;
}

} // namespace UlmarCommsTest
