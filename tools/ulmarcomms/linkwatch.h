// Watches the application's link to the service for the long-running
// commands, so they can say when it drops and when it returns.
//
// The library reconnects on its own but tells nobody; what it does show is
// that a post to another process fails at once while no link exists, and
// that the system endpoint answers once one does. A thread of ours asks the
// endpoint for SystemInfo a few times a second from a pump of its own: a
// post refused by the library, or no answer within the probe's time, means
// the link is lost; the first answer after that means it is back. Each
// change is pushed to the client's inbox as a Link item, so the main thread
// sees it in order with the requests, events and emissions around it.
#pragma once

#include "ulmarcomms/inbox.h"
#include "ulmarcomms/session.h"

#include <chrono>
#include <thread>

namespace UlmarCommsTools {

class LinkWatch {
public:
    // How often the endpoint is asked, and how long one answer may take.
    static constexpr std::chrono::milliseconds kPeriod{100};
    static constexpr int kProbeTimeoutMs = 2000;

    explicit LinkWatch(Inbox& reportTo);
    // Stops the thread before the pump goes.
    ~LinkWatch();
    LinkWatch(const LinkWatch&) = delete;
    LinkWatch& operator=(const LinkWatch&) = delete;

    // Creates the watch's pump and starts watching a link that is up now;
    // false if the library refused the pump.
    bool start(const std::string& pumpName);

private:
    void run();
    // Whether the endpoint answered one probe; stopping is set when the
    // watch was told to end during it.
    bool probe(bool& stopping);

    Inbox& m_reportTo;
    // The answers to the probes (and the stop request, as an interrupt).
    Inbox m_answers;
    ClientPump m_pump;
    std::thread m_thread;
};

} // namespace UlmarCommsTools
