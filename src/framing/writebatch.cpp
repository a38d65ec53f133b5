// The write batch of one received block. See writebatch.h for the rules.
#include "framing/writebatch.h"

#include "framing/dataframehandler.h"

#include <algorithm>

namespace UlmarComms {

namespace {

// The batch open on this thread: a batch spans one call stack on one thread,
// and the handlers queueing into it are reached through the routers' calls.
thread_local WriteBatch* t_openBatch = nullptr;

} // namespace

WriteBatch::WriteBatch() : m_outermost(t_openBatch == nullptr)
{
    if (m_outermost)
        t_openBatch = this;
}

WriteBatch::~WriteBatch()
{
    if (!m_outermost)
        return;
    // Closed before writing: nothing written below waits for this batch.
    t_openBatch = nullptr;
    for (const std::shared_ptr<Member>& member : m_members) {
        std::lock_guard<std::mutex> locker(member->lock);
        if (member->handler != nullptr)
            member->handler->writeBatched();
    }
}

WriteBatch* WriteBatch::current()
{
    return t_openBatch;
}

bool WriteBatch::add(const std::shared_ptr<Member>& member)
{
    const bool listed = std::any_of(m_members.begin(), m_members.end(),
                                    [&](const std::shared_ptr<Member>& known) { return known == member; });
    if (listed)
        return true;
    try {
        m_members.push_back(member);
    } catch (...) {
        return false;
    }
    return true;
}

void WriteBatch::forget(Member& member)
{
    std::lock_guard<std::mutex> locker(member.lock);
    member.handler = nullptr;
}

} // namespace UlmarComms
