// The link watch's thread and probe.
#include "ulmarcomms/linkwatch.h"

#include <ulmarcomms.h>

namespace UlmarCommsTools {

LinkWatch::LinkWatch(Inbox& reportTo) : m_reportTo(reportTo), m_pump(m_answers, PumpBehaviour())
{
}

LinkWatch::~LinkWatch()
{
    m_answers.interrupt();
    if (m_thread.joinable())
        m_thread.join();
}

bool LinkWatch::start(const std::string& pumpName)
{
    if (!m_pump.create(pumpName, ""))
        return false;
    m_thread = std::thread([this] { run(); });
    return true;
}

// Nothing may leave a thread body; a watch that failed only stops
// reporting.
void LinkWatch::run()
{
    try {
        bool linked = true;
        bool stopping = false;
        while (!stopping) {
            const auto next = Inbox::Clock::now() + kPeriod;
            const bool answered = probe(stopping);
            if (stopping)
                break;
            if (answered != linked) {
                linked = answered;
                Received change;
                change.kind = Received::Kind::Link;
                change.linkUp = linked;
                m_reportTo.push(std::move(change));
            }
            stopping = m_answers.sleepUntil(next, 0) == Inbox::Wait::Interrupted;
        }
    } catch (...) {
    }
}

bool LinkWatch::probe(bool& stopping)
{
    // A late answer to an earlier probe is of no use any more.
    m_answers.clear();
    RequestPlan plan;
    plan.to = systemAddress("");
    plan.method = "SystemInfo";
    const Exchange result = exchange(m_pump, m_answers, buildRequest(m_pump, plan, Command()), kProbeTimeoutMs, 0);
    stopping = result.result == Exchange::Result::Interrupted;
    return result.result == Exchange::Result::Answered && result.answer.kind == Received::Kind::Reply;
}

} // namespace UlmarCommsTools
