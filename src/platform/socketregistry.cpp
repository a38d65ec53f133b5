// The record registry that makes deleting a socket safe, and the socket's
// construction and deletion.
//
// The registry maps record ids to records. A worker turns an event's id into
// a hold on the record (SocketHold); deleting a socket removes its id, so no
// new hold can be taken, and then waits until holds taken by other threads
// are released. Holds taken by the deleting thread itself (a callback that
// deletes its own socket) are not waited for; that worker checks the hold
// after every callback and stops touching the socket once it is gone.
#include "platform/socket.h"

#include "platform/socketinternal.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace UlmarCommsSystem {

namespace SocketLayer {

std::mutex registryLock;

} // namespace SocketLayer

using namespace UlmarCommsSystem::SocketLayer;

namespace {

std::condition_variable holdsReleased;
std::unordered_map<uint64_t, std::shared_ptr<BSDSocketPlatformData>> registry;
std::atomic<uint64_t> nextRecordId{1};

// Records this thread holds, to tell own holds from others' at deletion.
// Thread-local because only the deleting thread can tell which holds are its
// own (a socket deleted inside its own callback must not wait for them), and
// sockets are still deleted by their owners rather than through the reaper.
thread_local std::vector<const BSDSocketPlatformData*> heldByThisThread;

} // namespace

namespace SocketLayer {

// Takes a hold while the registry lock is held.
bool takeHoldLocked(BSDSocketPlatformData* record)
{
    if (record == nullptr || record->owner.load() == nullptr)
        return false;
    ++record->holds;
    heldByThisThread.push_back(record);
    return true;
}

} // namespace SocketLayer

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
    if (found == registry.end() || !takeHoldLocked(found->second.get()))
        return SocketHold();
    return SocketHold(found->second);
}

SocketHold::SocketHold(Socket* socket)
{
    if (socket == nullptr)
        return;
    std::lock_guard<std::mutex> locker(registryLock);
    if (takeHoldLocked(socket->m_platform.get()))
        m_record = socket->m_platform;
}

SocketHold::SocketHold(SocketHold&& other) noexcept : m_record(std::move(other.m_record))
{
}

SocketHold::~SocketHold()
{
    release();
}

void SocketHold::release()
{
    if (!m_record)
        return;
    {
        std::lock_guard<std::mutex> locker(registryLock);
        --m_record->holds;
        auto mine = std::find(heldByThisThread.begin(), heldByThisThread.end(), m_record.get());
        if (mine != heldByThisThread.end())
            heldByThisThread.erase(mine);
    }
    holdsReleased.notify_all();
    m_record.reset();
}

Socket* SocketHold::socket() const
{
    return m_record ? m_record->owner.load() : nullptr;
}

// ---------------------------------------------------------------------------
// Construction and deletion

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

Socket::~Socket()
{
    message("Socket::~Socket() this= %p \n", static_cast<void*>(this));
    retire();
}

void Socket::retire()
{
    BSDSocketPlatformData* record = m_platform.get();
    {
        std::unique_lock<std::mutex> locker(registryLock);
        if (record->owner.load() == nullptr)
            return;
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
        const auto own = std::count(heldByThisThread.begin(), heldByThisThread.end(), record);
        holdsReleased.wait(locker, [&] { return record->holds <= static_cast<unsigned>(own); });
    }
    // No other thread works on the socket any more. A socket left open would
    // stay registered and keep its descriptors: finish what close() does.
    bool open = false;
    {
        MutexLocker locker(record->lock);
        open = m_handle != BadSocketValue;
    }
    if (open)
        close();
    MutexLocker locker(record->lock);
    delete m_pServerMode;
    m_pServerMode = nullptr;
}

uint64_t Socket::token(bool write) const
{
    // The record id and the request: 1 the read, 2 the write.
    return (m_platform->id << 2) | (write ? 2u : 1u);
}

} // namespace UlmarCommsSystem
