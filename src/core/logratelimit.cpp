// The log gate: a fixed one-second window, counted under a leaf lock.
#include "core/logratelimit.h"

namespace UlmarComms {

bool LogRateLimit::admit(unsigned long& heldBack)
{
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> locker(m_lock);
    if (now - m_windowStart >= std::chrono::seconds(1)) {
        m_windowStart = now;
        m_inWindow = 0;
    }
    if (m_inWindow >= m_perSecond) {
        ++m_heldBack;
        return false;
    }
    ++m_inWindow;
    heldBack = m_heldBack;
    m_heldBack = 0;
    return true;
}

} // namespace UlmarComms
