// A gate for log lines that a peer can cause at will (a refused link, a
// refused name, a message that would go back where it came from): at most a
// few lines per second pass, and the next line that passes says how many
// were held back meanwhile. Without it a hostile or broken peer could fill
// the service's log as fast as it can write.
//
// One small lock of its own (a leaf: it takes nothing while held), so the
// gate may be asked under any lock of the library; the caller logs after
// asking, so the logging lock is never taken under it.
#pragma once

#include <chrono>
#include <mutex>

namespace UlmarComms {

class LogRateLimit {
public:
    // Lines let through per second by default.
    static constexpr unsigned DefaultPerSecond = 5;

    explicit LogRateLimit(unsigned perSecond = DefaultPerSecond) : m_perSecond(perSecond) {}

    // Whether one more line may be written now. When it may, heldBack is the
    // number of lines refused since the last one let through (then reset).
    bool admit(unsigned long& heldBack);

private:
    const unsigned m_perSecond;
    std::mutex m_lock;
    std::chrono::steady_clock::time_point m_windowStart{};
    unsigned m_inWindow = 0;
    unsigned long m_heldBack = 0;
};

} // namespace UlmarComms
