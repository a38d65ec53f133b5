// The coordinator's two connections to the soak's bus.
//
// SoakProbe is a pump of the coordinator's own: it asks every pump in
// question until each has answered, which is how the soak decides that
// applications are reachable (after start-up, a daemon restart or an
// application's restart). StallPeer is the stalled consumer: a plain socket
// on the local link that announces one pump and never reads, so the daemon
// has to hold or drop whatever is sent to it.
#pragma once

#include "options.h"

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace UlmarCommsBench {

class SoakProbe {
public:
    // Starts the library on the run's pipe and creates the probe pump.
    bool start(const Options& options);
    // Ends the pump and the library.
    void stop();
    // Asks every pump of apps until each has answered or limit has passed;
    // true when all answered.
    bool awaitReachable(const std::vector<unsigned>& apps, std::chrono::seconds limit);

private:
    // A pump's reply: marks it answered. Runs on the router's worker thread.
    static void onResponse(void* context, unsigned, void* message);

    Options m_options; // the run's settings
    void* m_pump = nullptr; // the probe pump
    std::mutex m_lock; // guards m_answered
    std::condition_variable m_changed; // signalled at each answer
    std::set<std::pair<unsigned, unsigned>> m_answered; // (application, pump) that answered
};

class StallPeer {
public:
    ~StallPeer() { close(); }
    // Connects to the daemon of pipe and announces address; false when
    // either failed.
    bool connect(const std::string& pipe, const std::string& address);
    // Closes the socket, if open.
    void close();
    // Whether it is connected.
    bool connected() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

} // namespace UlmarCommsBench
