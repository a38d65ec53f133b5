// The window is fixed, not sliding: it starts at the first line after the
// previous window ended, which is enough to bound a flood to a few lines a
// second and costs one comparison per call.
#include "core/ratelimit.h"

namespace UlmarComms {

RateLimitedLog::RateLimitedLog(unsigned linesPerWindow, Clock::duration window)
    : m_linesPerWindow(linesPerWindow), m_window(window), m_linesInWindow(0), m_heldBack(0), m_started(false)
{
}

bool RateLimitedLog::admit(uint64_t& heldBack)
{
    return admitAt(Clock::now(), heldBack);
}

bool RateLimitedLog::admitAt(Clock::time_point now, uint64_t& heldBack)
{
    std::lock_guard<std::mutex> locker(m_lock);
    heldBack = 0;
    if (!m_started || now - m_windowStart >= m_window || now < m_windowStart) {
        m_started = true;
        m_windowStart = now;
        m_linesInWindow = 0;
    }
    if (m_linesInWindow >= m_linesPerWindow) {
        ++m_heldBack;
        return false;
    }
    ++m_linesInWindow;
    heldBack = m_heldBack;
    m_heldBack = 0;
    return true;
}

} // namespace UlmarComms
