// A bounded count of bytes held, optionally charged to a parent as well. See
// byteaccount.h for the rules.
#include "core/byteaccount.h"

namespace UlmarComms {

ByteAccount::ByteAccount(uint64_t limit, ByteAccount* parent) : m_limit(limit), m_pParent(parent), m_used(0)
{
}

ByteAccount::~ByteAccount()
{
    releaseAll();
}

bool ByteAccount::chargeOwn(uint64_t bytes)
{
    uint64_t used = m_used.load(std::memory_order_relaxed);
    do {
        if (used > 0 && used + bytes > m_limit)
            return false;
    } while (!m_used.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
    return true;
}

bool ByteAccount::charge(uint64_t bytes)
{
    if (!chargeOwn(bytes))
        return false;
    if (m_pParent != nullptr && !m_pParent->charge(bytes)) {
        m_used.fetch_sub(bytes, std::memory_order_relaxed);
        return false;
    }
    return true;
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
