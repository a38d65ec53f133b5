// Helpers for the network router tests: a recording system router, scoped
// setting overrides, free loopback ports and a raw frame client that speaks
// the link protocol byte for byte without the library's frame handler.
#pragma once

#include "core/core.h"
#include "framing/dataframe.h"
#include "messaging/messaging.h"
#include "platform/socketaddress.h"

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

// A system router that keeps every message posted to it.
class RecordingSystemRouter : public UlmarComms::ISystemRouter {
public:
    ~RecordingSystemRouter() override
    {
        for (UlmarComms::MessageItem* item : m_items)
            UlmarComms::MessageItem::release(item);
    }
    bool start() override { return true; }
    void finish() override {}
    bool add(UlmarComms::IMessageRouter*) override { return true; }
    bool remove(UlmarComms::IMessageRouter*) override { return true; }
    bool post(UlmarComms::MessageItem* message) override
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_items.push_back(message);
        return true;
    }
    void handleCommand(UlmarComms::IMessageRouter*, unsigned char, const char*) override {}

    // Messages received so far.
    size_t count()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_items.size();
    }
    // The value of key in message i ("" when absent).
    std::string value(size_t i, const char* key)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (i >= m_items.size())
            return std::string();
        const char* text = m_items[i]->value(key);
        return text != nullptr ? text : "";
    }

private:
    std::mutex m_lock;
    std::vector<UlmarComms::MessageItem*> m_items;
};

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
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0
        && ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

// 127.0.0.1 with a port.
inline UlmarCommsSystem::SocketAddress loopback(unsigned short port)
{
    UlmarCommsSystem::SocketAddress address;
    address.setIP4Address("127.0.0.1", std::to_string(port));
    return address;
}

// A blocking TCP client on loopback that writes and reads whole frames.
class RawFrameClient {
public:
    explicit RawFrameClient(unsigned short port)
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        timeval limit{};
        limit.tv_sec = 5;
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_connected = ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~RawFrameClient() { ::close(m_fd); }
    RawFrameClient(const RawFrameClient&) = delete;
    RawFrameClient& operator=(const RawFrameClient&) = delete;

    bool connected() const { return m_connected; }

    // Sends one command frame.
    bool sendCommand(unsigned id, unsigned char code, const char* text)
    {
        UlmarComms::DataFrame frame(id, code, text);
        return sendFrame(frame);
    }
    // Sends one message frame.
    bool sendMessage(unsigned id, const UlmarComms::MessageItem* item)
    {
        UlmarComms::DataFrame frame(id, item);
        return sendFrame(frame);
    }
    // Reads one frame's header and payload; false on time-out or close.
    bool readFrame(unsigned char& type, std::vector<unsigned char>& payload)
    {
        unsigned char header[UlmarComms::DataFrame::HeaderSize];
        if (!readExactly(header, sizeof(header)))
            return false;
        unsigned size = 0;
        unsigned id = 0;
        UlmarComms::DataFrame::readHeaderFromBuffer(header, type, size, id);
        payload.assign(size, 0);
        return size == 0 || readExactly(payload.data(), size);
    }

private:
    bool sendFrame(UlmarComms::DataFrame& frame)
    {
        if (frame.frameType() == UlmarComms::DataFrame::FrameTypeNone)
            return false;
        std::vector<unsigned char> bytes(frame.dataSize() + UlmarComms::DataFrame::HeaderSize);
        unsigned count = 0;
        if (!frame.writeOut(bytes.data(), static_cast<unsigned>(bytes.size()), count))
            return false;
        return ::send(m_fd, bytes.data(), count, MSG_NOSIGNAL) == static_cast<ssize_t>(count);
    }
    bool readExactly(unsigned char* out, size_t size)
    {
        size_t done = 0;
        while (done < size) {
            const ssize_t got = ::recv(m_fd, out + done, size - done, 0);
            if (got <= 0)
                return false;
            done += static_cast<size_t>(got);
        }
        return true;
    }

    int m_fd;
    bool m_connected;
};

} // namespace UlmarCommsTest
