// A bounded count of bytes held, optionally charged to a parent as well. See
// byteaccount.h for the rules.
#include "core/byteaccount.h"

#include <utility>

namespace UlmarComms {

ByteAccount::ByteAccount(uint64_t limit, ByteAccount* parent, const char* name)
    : m_limit(limit), m_pParent(parent), m_name(name != nullptr ? name : ""), m_used(0)
{
}

ByteAccount::ByteAccount(uint64_t limit, std::shared_ptr<ByteAccount> parent, const char* name)
    : m_limit(limit),
      m_pKeptParent(std::move(parent)),
      m_pParent(m_pKeptParent.get()),
      m_name(name != nullptr ? name : ""),
      m_used(0)
{
}

ByteAccount::~ByteAccount()
{
    releaseAll();
}

bool ByteAccount::chargeOwn(uint64_t bytes, bool bounded)
{
    uint64_t used = m_used.load(std::memory_order_relaxed);
    do {
        if (bounded && used > 0 && used + bytes > m_limit)
            return false;
    } while (!m_used.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
    return true;
}

const ByteAccount* ByteAccount::chargeOrRefuser(uint64_t bytes, Bounds bounds)
{
    if (!chargeOwn(bytes, bounds == Bounds::All))
        return this;
    if (m_pParent == nullptr)
        return nullptr;
    const ByteAccount* refuser = m_pParent->chargeOrRefuser(bytes, bounds == Bounds::None ? Bounds::None : Bounds::All);
    if (refuser != nullptr)
        m_used.fetch_sub(bytes, std::memory_order_relaxed);
    return refuser;
}

void ByteAccount::release(uint64_t bytes)
{
    m_used.fetch_sub(bytes, std::memory_order_relaxed);
    if (m_pParent != nullptr)
        m_pParent->release(bytes);
}

void ByteAccount::releaseAll()
{
    const uint64_t used = m_used.exchange(0, std::memory_order_relaxed);
    if (m_pParent != nullptr && used > 0)
        m_pParent->release(used);
}

} // namespace UlmarComms
