// The record registry that turns an event into its socket, and the socket's
// construction and release.
//
// The registry maps record ids to records. A worker turns an event's id into
// a SocketHold inside a reaper section (socketreaper.h). Releasing a socket
// removes its id, so no later event finds it, retires it at once (closed,
// unlinked from its listener or clients, callbacks forgotten) and hands the
// object to the reaper. A worker that found it before the release is in a
// section that began earlier, so the object outlives what that worker does;
// its hold reports the socket gone from the release on, and it stops after
// the callback that saw the release. Nothing waits for other threads, so
// nothing needs to know which thread still works on a socket.
#include "platform/socket.h"

#include "platform/socketinternal.h"
#include "platform/socketreaper.h"

#include <algorithm>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace UlmarCommsSystem {

namespace SocketLayer {

std::mutex registryLock;

} // namespace SocketLayer

using namespace UlmarCommsSystem::SocketLayer;

namespace {

std::unordered_map<uint64_t, std::shared_ptr<BSDSocketPlatformData>> registry;
std::atomic<uint64_t> nextRecordId{1};

} // namespace

// ---------------------------------------------------------------------------
// Records and holds

BSDSocketPlatformData::BSDSocketPlatformData(Socket* socket) : id(nextRecordId++), owner(socket)
{
}

SocketHold::SocketHold(std::shared_ptr<BSDSocketPlatformData> record) : m_record(std::move(record))
{
}

SocketHold SocketHold::byId(uint64_t id)
{
    std::lock_guard<std::mutex> locker(registryLock);
    auto found = registry.find(id);
    if (found == registry.end() || found->second->owner.load() == nullptr)
        return SocketHold();
    return SocketHold(found->second);
}

SocketHold::SocketHold(Socket* socket)
{
    if (socket != nullptr && socket->m_platform->owner.load() != nullptr)
        m_record = socket->m_platform;
}

Socket* SocketHold::socket() const
{
    return m_record ? m_record->owner.load() : nullptr;
}

// ---------------------------------------------------------------------------
// Construction and release

Socket::ServerMode::~ServerMode() = default;

Socket::Socket()
    : m_pParent(nullptr),
      m_handle(BadSocketValue),
      m_errorCallback(nullptr),
      m_pErrorUser(nullptr),
      m_streamSent(nullptr),
      m_streamReceived(nullptr),
      m_datagramSent(nullptr),
      m_datagramReceived(nullptr),
      m_pTransferUser(nullptr),
      m_connected(nullptr),
      m_disconnected(nullptr),
      m_pConnectionUser(nullptr),
      m_platform(std::make_shared<BSDSocketPlatformData>(this)),
      m_pServerMode(nullptr),
      m_pUserData(nullptr)
{
    std::lock_guard<std::mutex> locker(registryLock);
    registry.emplace(m_platform->id, m_platform);
}

// Everything was undone by retire(); the record lives on while a SocketWait
// still keeps it.
Socket::~Socket() = default;

void Socket::release(Socket* socket)
{
    if (socket == nullptr)
        return;
    // Logged where the socket's end begins, before the close it causes.
    message("Socket::~Socket() this= %p \n", static_cast<void*>(socket));
    if (socket->retire())
        SocketReaper::defer(&Socket::destroy, socket);
}

void Socket::destroy(void* socket)
{
    delete static_cast<Socket*>(socket);
}

bool Socket::retire()
{
    BSDSocketPlatformData* record = m_platform.get();
    {
        std::lock_guard<std::mutex> locker(registryLock);
        if (record->owner.load() == nullptr)
            return false;
        record->owner = nullptr;
        registry.erase(record->id);
        if (m_pParent != nullptr && m_pParent->m_pServerMode != nullptr) {
            std::vector<Socket*>& siblings = m_pParent->m_pServerMode->accepted;
            siblings.erase(std::remove(siblings.begin(), siblings.end(), this), siblings.end());
        }
        m_pParent = nullptr;
        if (m_pServerMode != nullptr) {
            for (Socket* child : m_pServerMode->accepted)
                child->m_pParent = nullptr;
            m_pServerMode->accepted.clear();
        }
    }
    // Closed now, so the peer sees the end at once and the selector reports
    // nothing more of it (close() also drops the server mode); only the
    // memory waits for the reaper. The callbacks go too: a worker that had
    // not yet picked one up calls nothing. The user data stays, for a
    // callback already running that asks for it.
    close();
    MutexLocker locker(record->lock);
    forgetCallbacksLocked();
    return true;
}

uint64_t Socket::token(bool write) const
{
    // The record id and the request: 1 the read, 2 the write.
    return (m_platform->id << 2) | (write ? 2u : 1u);
}

} // namespace UlmarCommsSystem
