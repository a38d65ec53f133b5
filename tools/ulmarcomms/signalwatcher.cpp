// The sigwait thread. It is stopped by a SIGTERM sent to itself after the
// stopping flag is set, so a signal that arrives from outside at the same
// moment is harmless: the thread leaves either way.
#include "ulmarcomms/signalwatcher.h"

#include <pthread.h>

namespace UlmarCommsTools {

SignalWatcher::SignalWatcher(std::function<void(int)> onSignal) : m_onSignal(std::move(onSignal))
{
    sigemptyset(&m_signals);
    sigaddset(&m_signals, SIGINT);
    sigaddset(&m_signals, SIGTERM);
    sigaddset(&m_signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
    // A service that vanishes mid-send must not kill the client.
    std::signal(SIGPIPE, SIG_IGN);
    m_thread = std::thread(&SignalWatcher::run, this);
}

SignalWatcher::~SignalWatcher()
{
    m_stopping = true;
    pthread_kill(m_thread.native_handle(), SIGTERM);
    m_thread.join();
}

void SignalWatcher::run()
{
    while (true) {
        int signal = 0;
        if (sigwait(&m_signals, &signal) != 0)
            continue;
        if (m_stopping)
            return;
        m_onSignal(signal);
    }
}

} // namespace UlmarCommsTools
