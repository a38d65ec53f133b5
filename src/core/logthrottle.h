// Keeps any one log text from flooding the log.
//
// A log text is known by its format's address: every call site passes a
// literal, so one address is one text (two sites with the same literal
// share it, which is what a reader would want). Each text may be written
// LogLinesPerSecond times in a one-second window that starts with its first
// line; what is held back past that is counted, and once the window has
// ended the count is reported in one summary line, before that text's next
// line or at the next collect(), whichever comes first. The texts themselves
// are never changed. The library's logger (Core) and the socket layer's
// each keep one, used under their own logging lock.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace UlmarComms {

class LogThrottle {
public:
    // A logger as applications install it: level, format, the va_list as char*.
    typedef void (*Logger)(int level, const char* format, char* args);

    // A window's held-back lines of one text, to be reported.
    struct Summary {
        const char* format; // the text held back
        int level; // the highest level among the lines held back
        uint32_t suppressed;
    };

    // Length of a window in milliseconds.
    static constexpr uint64_t WindowMs = 1000;

    // True when a line of format may be written at nowMs (a steady clock in
    // milliseconds); appends to due the summary of format's ended window.
    bool admit(const char* format, int level, uint64_t nowMs, std::vector<Summary>& due);
    // Appends the summaries of every text whose window has ended by nowMs.
    void collect(uint64_t nowMs, std::vector<Summary>& due);
    // True when some text has lines held back that are not yet summarised;
    // may be read without the lock.
    bool hasPending() const { return m_held.load(std::memory_order_relaxed); }

    // Writes one line to logger unless its text is over its rate, after any
    // summary that is due for that text. The caller holds the lock that
    // guards this throttle.
    void write(Logger logger, int level, const char* format, va_list args);
    // Writes the summaries of windows that have ended; same lock.
    void flush(Logger logger);

private:
    struct Site {
        uint64_t windowStart = 0;
        uint32_t written = 0;
        uint32_t suppressed = 0;
        int level = 0;
    };

    // Moves site's held-back count into due.
    void summarise(const char* format, Site& site, std::vector<Summary>& due);
    // Writes each summary in due as one line.
    static void writeSummaries(Logger logger, const std::vector<Summary>& due);

    std::unordered_map<const char*, Site> m_sites;
    size_t m_pending = 0; // sites with suppressed != 0
    std::atomic<bool> m_held{false}; // m_pending != 0, for readers without the lock
};

} // namespace UlmarComms
