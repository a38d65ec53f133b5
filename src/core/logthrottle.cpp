// Per-text windows of the log throttle; see logthrottle.h.
#include "core/logthrottle.h"

#include "core/limits.h"

#include <algorithm>
#include <chrono>

namespace UlmarComms {

namespace {

// Calls the logger with a format and its arguments as a va_list.
void call(LogThrottle::Logger logger, int level, const char* format, va_list args)
{
    // The logger receives the platform's va_list as char*, as applications
    // of this library expect.
    logger(level, format, reinterpret_cast<char*>(args));
}

// Calls the logger with a format of our own and its arguments.
__attribute__((format(printf, 3, 4))) void callFormatted(LogThrottle::Logger logger, int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    call(logger, level, format, args);
    va_end(args);
}

uint64_t steadyMs()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

} // namespace

void LogThrottle::summarise(const char* format, Site& site, std::vector<Summary>& due)
{
    due.push_back(Summary{format, site.level, site.suppressed});
    site.suppressed = 0;
    --m_pending;
    m_held.store(m_pending != 0, std::memory_order_relaxed);
}

bool LogThrottle::admit(const char* format, int level, uint64_t nowMs, std::vector<Summary>& due)
{
    auto found = m_sites.find(format);
    if (found == m_sites.end()) {
        // Formats are literals, so the texts are as many as the call sites;
        // a format made at run time beyond the bound is written unthrottled.
        if (m_sites.size() >= Limits::LogTexts)
            return true;
        found = m_sites.emplace(format, Site()).first;
    }
    Site& site = found->second;
    if (site.written == 0 || nowMs - site.windowStart >= WindowMs) {
        if (site.suppressed != 0)
            summarise(format, site, due);
        site.windowStart = nowMs;
        site.written = 0;
    }
    if (site.written < Limits::LogLinesPerSecond) {
        ++site.written;
        return true;
    }
    if (site.suppressed == 0) {
        ++m_pending;
        m_held.store(true, std::memory_order_relaxed);
        site.level = level;
    }
    site.level = std::max(site.level, level);
    ++site.suppressed;
    return false;
}

void LogThrottle::collect(uint64_t nowMs, std::vector<Summary>& due)
{
    if (m_pending == 0)
        return;
    for (auto& [format, site] : m_sites) {
        if (site.suppressed != 0 && nowMs - site.windowStart >= WindowMs)
            summarise(format, site, due);
    }
}

} // namespace UlmarComms

namespace UlmarComms {

void LogThrottle::writeSummaries(Logger logger, const std::vector<Summary>& due)
{
    // The text held back is shown as it is written in the code, so a reader
    // can tell which line it stands for.
    for (const Summary& summary : due)
        callFormatted(logger, summary.level, "... %u similar lines suppressed: %s", summary.suppressed, summary.format);
}

void LogThrottle::write(Logger logger, int level, const char* format, va_list args)
{
    std::vector<Summary> due;
    const bool admitted = admit(format, level, steadyMs(), due);
    writeSummaries(logger, due);
    if (admitted)
        call(logger, level, format, args);
}

void LogThrottle::flush(Logger logger)
{
    std::vector<Summary> due;
    collect(steadyMs(), due);
    writeSummaries(logger, due);
}

} // namespace UlmarComms
