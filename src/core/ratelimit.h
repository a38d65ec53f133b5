// A gate for log lines that a peer can provoke at will (refused links,
// spoofed announcements): one RateLimitedLog per cause lets at most a few
// lines through per one-second window and counts the rest, so the next line
// that passes can say how many were held back. Nothing is formatted or
// logged here; the caller logs when admit() says so, with the count.
//
// Threads. Any thread may call admit(); one small std::mutex guards the
// window and the counts and is never held while anything else is called, so
// it may be taken under any other lock (docs/architecture.md, lock 23a).
#pragma once

#include "core/limits.h"

#include <chrono>
#include <cstdint>
#include <mutex>

namespace UlmarComms {

class RateLimitedLog {
public:
    using Clock = std::chrono::steady_clock;

    // Lines let through per cause in one window, by default.
    static constexpr unsigned DefaultLinesPerWindow = Limits::RefusalLogLinesPerSecond;

    explicit RateLimitedLog(unsigned linesPerWindow = DefaultLinesPerWindow,
                            Clock::duration window = std::chrono::seconds(1));
    RateLimitedLog(const RateLimitedLog&) = delete;
    RateLimitedLog& operator=(const RateLimitedLog&) = delete;

    // Whether a line may be logged now; heldBack receives the number of lines
    // refused since the last one let through (0 when none was).
    bool admit(uint64_t& heldBack);
    // The same at a given time, so tests need no sleeps.
    bool admitAt(Clock::time_point now, uint64_t& heldBack);

private:
    const unsigned m_linesPerWindow;
    const Clock::duration m_window;
    std::mutex m_lock;
    Clock::time_point m_windowStart;
    unsigned m_linesInWindow;
    uint64_t m_heldBack;
    bool m_started;
};

} // namespace UlmarComms
