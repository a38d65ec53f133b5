// The callback-to-main-thread queue.
#include "ulmarcomms/inbox.h"

namespace UlmarCommsTools {

bool Inbox::push(Received item)
{
    {
        std::lock_guard<std::mutex> locker(m_lock);
        if (m_items.size() >= kMaxItems)
            return false;
        m_items.push_back(std::move(item));
    }
    m_wake.notify_all();
    return true;
}

void Inbox::interrupt()
{
    {
        std::lock_guard<std::mutex> locker(m_lock);
        ++m_interrupts;
    }
    m_wake.notify_all();
}

unsigned Inbox::interrupts() const
{
    std::lock_guard<std::mutex> locker(m_lock);
    return m_interrupts;
}

size_t Inbox::size() const
{
    std::lock_guard<std::mutex> locker(m_lock);
    return m_items.size();
}

void Inbox::clear()
{
    std::lock_guard<std::mutex> locker(m_lock);
    m_items.clear();
}

// Interrupts are looked at first, then the queue, then the clock: an item
// that arrived together with the time-out is still taken.
Inbox::Wait Inbox::waitFor(const std::function<bool(const Received&)>& match, std::optional<Clock::time_point> deadline,
                           unsigned interruptBaseline, Received& out)
{
    std::unique_lock<std::mutex> locker(m_lock);
    while (true) {
        if (m_interrupts > interruptBaseline)
            return Wait::Interrupted;
        for (auto item = m_items.begin(); item != m_items.end(); ++item) {
            if (match(*item)) {
                out = std::move(*item);
                m_items.erase(item);
                return Wait::Got;
            }
        }
        if (!deadline) {
            m_wake.wait(locker);
            continue;
        }
        if (Clock::now() >= *deadline)
            return Wait::TimedOut;
        m_wake.wait_until(locker, *deadline);
    }
}

Inbox::Wait Inbox::sleepUntil(Clock::time_point deadline, unsigned interruptBaseline)
{
    std::unique_lock<std::mutex> locker(m_lock);
    while (true) {
        if (m_interrupts > interruptBaseline)
            return Wait::Interrupted;
        if (Clock::now() >= deadline)
            return Wait::TimedOut;
        m_wake.wait_until(locker, deadline);
    }
}

} // namespace UlmarCommsTools
