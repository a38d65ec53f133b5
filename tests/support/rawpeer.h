// Frames as bytes on the wire, and a plain POSIX stream peer (not built on
// this library) that writes and reads them with deadlines: for the tests that
// must see or craft the exact bytes (slow readers, ids and order, hostile
// input).
#pragma once

#include "framing/dataframe.h"
#include "messaging/messaging.h"
#include "platform/socketaddress.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace UlmarCommsTest {

typedef std::vector<unsigned char> Bytes;

// The bytes a built frame puts on the wire.
inline Bytes wireOf(UlmarComms::DataFrame& frame)
{
    Bytes bytes(frame.dataSize() + UlmarComms::DataFrame::HeaderSize);
    unsigned count = 0;
    EXPECT_TRUE(frame.writeOut(bytes.data(), static_cast<unsigned>(bytes.size()), count));
    bytes.resize(count);
    return bytes;
}
inline Bytes wireOf(UlmarComms::DataFrame&& frame)
{
    return wireOf(frame);
}

inline Bytes messageFrame(unsigned id, const UlmarComms::MessageItem* message)
{
    return wireOf(UlmarComms::DataFrame(id, message));
}

inline Bytes commandFrame(unsigned id, unsigned char code, const char* text)
{
    return wireOf(UlmarComms::DataFrame(id, code, text));
}

// A header with whatever size it is given, then the payload bytes.
inline Bytes rawFrame(unsigned char type, uint32_t size, uint32_t id, const Bytes& payload)
{
    Bytes bytes(UlmarComms::DataFrame::HeaderSize);
    UlmarComms::DataFrame::writeHeaderToBuffer(bytes.data(), type, size, id);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

inline void append(Bytes& to, const Bytes& more)
{
    to.insert(to.end(), more.begin(), more.end());
}

inline Bytes operator+(Bytes left, const Bytes& right)
{
    append(left, right);
    return left;
}

// An abstract UNIX address unique to the running test (and process).
inline UlmarCommsSystem::SocketAddress uniqueUnixAddress(const std::string& prefix)
{
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = prefix + info->name() + "_" + std::to_string(getpid());
    for (char& c : name)
        if (c == '/')
            c = '_';
    UlmarCommsSystem::SocketAddress address;
    EXPECT_TRUE(address.setUNIXAddress(name));
    return address;
}

// A plain POSIX stream peer over UNIX or TCP.
class RawPeer {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kDeadline{10000};

    RawPeer() = default;
    explicit RawPeer(const UlmarCommsSystem::SocketAddress& address) { EXPECT_TRUE(connectTo(address)); }
    ~RawPeer() { closeNow(); }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    bool connectTo(const UlmarCommsSystem::SocketAddress& address)
    {
        m_fd = ::socket(address.isUNIXAddress() ? AF_UNIX : AF_INET, SOCK_STREAM, 0);
        return m_fd >= 0 && ::connect(m_fd, address.getAddress(), address.getAddressSize()) == 0;
    }
    bool sendAll(const Bytes& bytes)
    {
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }
    // Reads exactly n bytes unless the deadline passes or the stream ends.
    bool readExactly(size_t n, Bytes& out)
    {
        out.resize(n);
        size_t done = 0;
        const auto deadline = Clock::now() + kDeadline;
        while (done < n) {
            if (!waitReadable(deadline))
                return false;
            const ssize_t got = ::recv(m_fd, out.data() + done, n - done, 0);
            if (got <= 0)
                return false;
            done += static_cast<size_t>(got);
        }
        return true;
    }
    // Reads one frame: header fields and payload.
    bool readFrame(unsigned char& type, uint32_t& id, Bytes& payload)
    {
        Bytes header;
        if (!readExactly(UlmarComms::DataFrame::HeaderSize, header))
            return false;
        unsigned size = 0;
        unsigned frameId = 0;
        UlmarComms::DataFrame::readHeaderFromBuffer(header.data(), type, size, frameId);
        id = frameId;
        return readExactly(size, payload);
    }
    // True once the other side has ended the stream within the timeout
    // (bytes before the end are skipped); a zero timeout looks once.
    bool waitForEnd(std::chrono::milliseconds timeout = kDeadline)
    {
        const auto deadline = Clock::now() + timeout;
        unsigned char scratch[4096];
        for (;;) {
            if (!waitReadable(deadline))
                return false;
            const ssize_t got = ::recv(m_fd, scratch, sizeof(scratch), MSG_DONTWAIT);
            if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR))
                return true;
        }
    }
    // Whether the other side has shut the stream down, without reading
    // anything: for a peer that must stay a non-reader.
    bool peerHasShutDown()
    {
        pollfd entry{m_fd, POLLRDHUP, 0};
        return ::poll(&entry, 1, 0) > 0 && (entry.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
    }
    // Closes with a reset instead of an orderly end.
    void resetNow()
    {
        linger option{1, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &option, sizeof(option));
        closeNow();
    }
    void closeNow()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    // Polls at least once, however little time is left.
    bool waitReadable(Clock::time_point deadline)
    {
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            pollfd entry{m_fd, POLLIN, 0};
            const int ready = ::poll(&entry, 1, static_cast<int>(std::max<long long>(0, left.count())));
            if (ready > 0)
                return true;
            if ((ready < 0 && errno != EINTR) || left.count() <= 0)
                return false;
        }
    }

    int m_fd = -1;
};

} // namespace UlmarCommsTest
