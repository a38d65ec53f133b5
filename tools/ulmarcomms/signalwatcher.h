// Ctrl-C and SIGTERM for the client, without a signal handler.
//
// The constructor blocks SIGINT, SIGTERM and SIGHUP in the calling thread
// before the library starts any thread, so every thread inherits the mask,
// and starts one thread that collects them with sigwait and reports each to
// a callback in ordinary thread context (no async-signal-safety needed
// there). The destructor stops and joins that thread.
#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

namespace UlmarCommsTools {

class SignalWatcher {
public:
    // Blocks the signals and starts watching; onSignal runs on the watcher.
    explicit SignalWatcher(std::function<void(int)> onSignal);
    // Stops watching and joins the watcher thread.
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

private:
    void run();

    sigset_t m_signals;
    std::function<void(int)> m_onSignal;
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
};

} // namespace UlmarCommsTools
