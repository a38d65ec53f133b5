// ulmarcomms: the command-line client of the message bus.
//
// Order of a run: parse the command line; probe the local link (so "no
// service" is reported at once, naming the pipe name tried, instead of the
// library retrying in the background) and keep the probe's connection open:
// a service that does not let this user in closes it at once, which is how a
// refusal is told from a time-out (a refused user, or a service that holds
// as many links as it may); block the stop signals and start the
// signal watcher before the library starts any thread; start the runtime;
// run the command; then destroy the pumps and shut the runtime down in that
// order, on every path including Ctrl-C. --timeout counts from the start of
// the run: connecting, starting and the first exchange share it, so a run
// that cannot get through ends when it says it would.
#include "common/logsink.h"
#include "common/probe.h"
#include "ulmarcomms/commandline.h"
#include "ulmarcomms/inbox.h"
#include "ulmarcomms/linkwatch.h"
#include "ulmarcomms/output.h"
#include "ulmarcomms/session.h"
#include "ulmarcomms/signalwatcher.h"

#include <ulmarcomms.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

using namespace UlmarCommsTools;

namespace {

// How long a TCP probe waits for the connect to complete.
const int kProbeTimeoutMs = 1000;
// How long a subscriber waits between attempts to register again after its
// link came back (the publisher's own link may return later than ours).
const std::chrono::milliseconds kRegisterAgainEvery{500};
// How long a failed run waits for the kept probe connection to show a
// refusal; the service closes a refused connection as it accepts it, so by
// the time a run fails that has long happened.
const int kRefusalWaitMs = 200;

void out(const std::string& text)
{
    if (text.empty())
        return;
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

void complain(const std::string& line)
{
    std::fprintf(stderr, "ulmarcomms: %s\n", line.c_str());
    std::fflush(stderr);
}

// The name of the client's own pump: unique per process, so replies come
// back to this run only.
std::string clientPumpName(const char* role)
{
    return std::string("ulmarcomms.") + role + "." + std::to_string(getpid());
}

std::string eventReturnMethod(const std::string& event)
{
    // A prefix keeps an event named like a built-in method ("#reg") from
    // being taken for one when it reaches our pump.
    return "event." + event;
}

class Client {
public:
    explicit Client(const Invocation& invocation)
        : m_invocation(invocation),
          m_command(invocation.command),
          m_deadline(Inbox::Clock::now() + std::chrono::milliseconds(invocation.global.timeoutMs))
    {
    }

    int run()
    {
        LinkTarget link;
        std::string reason;
        if (!m_invocation.global.settings.linkTarget(link, reason)) {
            complain(reason);
            return kExitUsage;
        }
        std::string detail;
        if (m_probe.open(link, std::min(kProbeTimeoutMs, remainingMs()), detail) != ProbeResult::Answered) {
            complain("no service reachable on " + link.describe() + (detail.empty() ? "" : " (" + detail + ")"));
            out(formatNoService(m_invocation, link, detail));
            return kExitUnreachable;
        }

        Inbox inbox;
        SignalWatcher watcher([&inbox](int) { inbox.interrupt(); });
        const int logLevel = m_invocation.global.logLevel;
        // Without --log-level the library's errors are shown during start-up
        // only, where they explain a refused --set item; afterwards the
        // client's own lines say what went wrong.
        UlmarCommsSetLogger(stderrLogger);
        UlmarCommsSetLoggerLevel(logLevel >= 0 ? logLevel : ULMARCOMMS_LOG_ERROR);
        if (logLevel >= 0) {
            UlmarCommsSocketsSetLogger(stderrLogger);
            UlmarCommsSocketsSetLoggerLevel(logLevel);
        }
        Runtime runtime;
        const int started = runtime.start(m_invocation.global.settings.startArgument());
        if (logLevel < 0)
            UlmarCommsSetLogger(nullptr);
        if (started != ULMARCOMMS_OK)
            return startFailure(started);
        // The service handles the probe's connection before the library's
        // own, so a refusal is usually visible by now; otherwise a run that
        // fails looks again before it reports.
        if (m_probe.refusedByService(0))
            return closedByService();
        return dispatch(inbox);
    }

private:
    // What is left of --timeout, counted from the start of the run.
    int remainingMs() const
    {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(m_deadline - Inbox::Clock::now()).count();
        return static_cast<int>(std::max<long long>(0, left));
    }

    // The service closed our connection unasked: a refused user, or a
    // service that holds as many links as it may. Root and the service's own
    // user are never refused, so for them it is the second.
    int closedByService()
    {
        unsigned serviceUid = 0;
        const unsigned self = static_cast<unsigned>(getuid());
        if (self == 0 || (m_probe.serviceUser(serviceUid) && serviceUid == self))
            return notAccepting();
        return userRefused();
    }

    int notAccepting()
    {
        const std::string reason = "the service is not accepting connections: it closed this one at once, as it "
                                   "does when it holds as many links as it may (for this user or in all)";
        complain(reason);
        out(formatFailure(m_invocation, "not-accepting", reason, 0));
        return kExitNotAccepting;
    }

    int userRefused()
    {
        const std::string reason = "the bus refused this user (uid " + std::to_string(getuid()) +
            "): the service lets in only root, its own user and the users and groups it is told to (or it is "
            "not accepting connections: it holds as many links as it may)";
        complain(reason);
        out(formatFailure(m_invocation, "user-refused", reason, 0));
        return kExitUserRefused;
    }

    // A run that got no answer or lost its link: refused, when the service
    // closed the probe's connection unasked.
    bool refusedUser() const { return m_probe.refusedByService(kRefusalWaitMs); }

    int startFailure(int code)
    {
        std::string reason;
        int exitCode = kExitRefused;
        if (code == ULMARCOMMS_BAD_ARGUMENT) {
            reason = "the library refused the --set items (unknown key, or a number key without a number)";
            exitCode = kExitUsage;
        } else if (code == ULMARCOMMS_START_LOCAL_LINK) {
            reason = "the local link to the service could not be set up";
            exitCode = kExitUnreachable;
        } else {
            reason = "the runtime did not start";
        }
        complain(reason + " (code " + std::to_string(code) + ")");
        out(formatFailure(m_invocation, "start-failed", reason, code));
        return exitCode;
    }

    int dispatch(Inbox& inbox)
    {
        if (isRequestCommand(m_command.kind))
            return request(inbox);
        switch (m_command.kind) {
        case CommandKind::Listen: return listen(inbox);
        case CommandKind::Subscribe: return subscribe(inbox);
        default: return publish(inbox);
        }
    }

    int refused(const std::string& reason, int code)
    {
        complain(reason + " (code " + std::to_string(code) + ")");
        out(formatFailure(m_invocation, "refused", reason, code));
        return kExitRefused;
    }

    int pumpFailed(const std::string& name)
    {
        return refused("the library refused to create the pump '" + name + "'", 0);
    }

    int interrupted()
    {
        complain("interrupted before the reply arrived");
        out(formatFailure(m_invocation, "interrupted", "interrupted before the reply arrived", 0));
        return kExitRefused;
    }

    // The common ending of a request that got no answer.
    int notAnswered(const Exchange& exchange, const RequestPlan& plan)
    {
        switch (exchange.result) {
        case Exchange::Result::NotBuilt:
            return refused("the library refused to build the " + plan.method + " request (too many pairs?)", 0);
        case Exchange::Result::NotPosted:
            if (exchange.postCode == ULMARCOMMS_NOT_ROUTED && refusedUser())
                return closedByService();
            if (exchange.postCode == ULMARCOMMS_NOT_ROUTED) {
                complain("the local link to the service is down; the request could not be sent");
                out(formatFailure(m_invocation, "link-down", "the request could not be sent", exchange.postCode));
                return kExitUnreachable;
            }
            return refused("the library refused to post the " + plan.method + " request", exchange.postCode);
        case Exchange::Result::TimedOut:
            if (refusedUser())
                return closedByService();
            complain(timeoutMessage(m_invocation, plan));
            out(formatTimeout(m_invocation, plan));
            return kExitUnreachable;
        case Exchange::Result::Interrupted: return interrupted();
        case Exchange::Result::Answered: break;
        }
        return kExitOk;
    }

    int request(Inbox& inbox)
    {
        PumpBehaviour behaviour;
        behaviour.shownKeys = m_command.shownKeys;
        ClientPump pump(inbox, behaviour);
        const std::string name = clientPumpName("cli");
        if (!pump.create(name, ""))
            return pumpFailed(name);
        const RequestPlan plan = planRequest(m_command);
        const Exchange result = exchange(pump, inbox, buildRequest(pump, plan, m_command), remainingMs(), 0);
        if (result.result != Exchange::Result::Answered)
            return notAnswered(result, plan);
        out(formatAnswer(m_invocation, plan, result.answer));
        return result.answer.kind == Received::Kind::Error ? kExitRefused : kExitOk;
    }

    // Everything this process sends -- pump announcements, replies, event
    // messages -- leaves over the one local link in order, so one answered
    // query posted afterwards proves that all of it has reached the service.
    // listen and publish sync before printing their address as ready, and
    // again before leaving, since the library has no flush and shutting
    // down at once could drop a reply or event still queued on the link.
    // When leaving, a first Ctrl-C has already ended the work, so only a
    // second one cuts the wait short.
    int syncWithService(Inbox& inbox, bool leaving)
    {
        const unsigned interruptBaseline = leaving ? inbox.interrupts() : 0;
        ClientPump helper(inbox, PumpBehaviour());
        const std::string name = clientPumpName("sync");
        if (!helper.create(name, ""))
            return pumpFailed(name);
        RequestPlan plan;
        plan.to = systemAddress("");
        plan.method = "SystemInfo";
        // The first sync is part of getting through; the last one has a
        // --timeout of its own.
        const int timeoutMs = leaving ? m_invocation.global.timeoutMs : remainingMs();
        const Exchange result =
            exchange(helper, inbox, buildRequest(helper, plan, m_command), timeoutMs, interruptBaseline);
        if (result.result == Exchange::Result::Answered)
            return kExitOk;
        if (leaving && result.result == Exchange::Result::Interrupted)
            return kExitOk;
        return notAnswered(result, plan);
    }

    int listen(Inbox& inbox)
    {
        PumpBehaviour behaviour;
        behaviour.shownKeys = m_command.shownKeys;
        behaviour.acceptRequest = [](const std::string&) { return true; };
        behaviour.answer = m_command.answer;
        behaviour.replyText = m_command.replyText;
        ClientPump pump(inbox, behaviour);
        if (!pump.create(m_command.name, m_command.interfaces))
            return pumpFailed(m_command.name);
        if (const int confirmed = syncWithService(inbox, false); confirmed != kExitOk)
            return confirmed;
        out(formatListening(m_invocation, pump.address()));
        LinkWatch watch(inbox);
        if (!watch.start(clientPumpName("link")))
            return pumpFailed(clientPumpName("link"));
        const auto isRequest = [](const Received& item) {
            return item.kind == Received::Kind::Request || item.kind == Received::Kind::Link;
        };
        bool answered = false;
        for (long received = 0; m_command.count == 0 || received < m_command.count;) {
            Received request;
            if (inbox.waitFor(isRequest, std::nullopt, 0, request) != Inbox::Wait::Got)
                break;
            if (request.kind == Received::Kind::Link) {
                reportLink(request.linkUp);
                continue;
            }
            ++received;
            answered = answered || request.answered;
            out(formatRequest(m_invocation, request));
        }
        return answered ? syncWithService(inbox, true) : kExitOk;
    }

    int subscribe(Inbox& inbox)
    {
        const std::string returnMethod = eventReturnMethod(m_command.event);
        PumpBehaviour behaviour;
        behaviour.shownKeys = m_command.shownKeys;
        behaviour.acceptRequest = [returnMethod](const std::string& method) { return method == returnMethod; };
        ClientPump pump(inbox, behaviour);
        const std::string name = clientPumpName("sub");
        if (!pump.create(name, ""))
            return pumpFailed(name);

        RequestPlan plan;
        plan.to = m_command.address;
        plan.method = "#reg";
        const Exchange registered = exchange(pump, inbox, registration(pump, returnMethod, true), remainingMs(), 0);
        if (registered.result != Exchange::Result::Answered)
            return notAnswered(registered, plan);
        if (registered.answer.kind == Received::Kind::Error) {
            out(formatAnswer(m_invocation, plan, registered.answer));
            return kExitRefused;
        }
        if (registered.answer.response != "y")
            return refused(m_command.address + " refused the registration for " + m_command.event +
                               " (it publishes no such event)",
                           0);
        out(formatSubscribed(m_invocation, pump.address()));
        LinkWatch watch(inbox);
        if (!watch.start(clientPumpName("link")))
            return pumpFailed(clientPumpName("link"));

        const auto isEvent = [&returnMethod](const Received& item) {
            return (item.kind == Received::Kind::Request && item.method == returnMethod) ||
                item.kind == Received::Kind::Link;
        };
        // After the link returns the registration is sent again until the
        // publisher accepts it: a service that restarted, or a publisher
        // that did, no longer routes its events to us.
        bool linked = true;
        std::optional<Inbox::Clock::time_point> registerAgainAt;
        for (long received = 0; m_command.count == 0 || received < m_command.count;) {
            Received event;
            const Inbox::Wait waited = inbox.waitFor(isEvent, linked ? registerAgainAt : std::nullopt, 0, event);
            if (waited == Inbox::Wait::Interrupted)
                break;
            if (waited == Inbox::Wait::TimedOut) {
                const RegisterAgain again = registerAgain(pump, inbox, returnMethod);
                if (again == RegisterAgain::Interrupted)
                    break;
                registerAgainAt = again == RegisterAgain::Accepted
                    ? std::nullopt
                    : std::optional(Inbox::Clock::now() + kRegisterAgainEvery);
                continue;
            }
            if (event.kind == Received::Kind::Link) {
                reportLink(event.linkUp);
                linked = event.linkUp;
                if (linked)
                    registerAgainAt = Inbox::Clock::now();
                continue;
            }
            ++received;
            out(formatEvent(m_invocation, event));
        }
        return unsubscribe(pump, inbox, returnMethod);
    }

    enum class RegisterAgain { Accepted, NotYet, Interrupted };

    // One attempt; a refusal is said once per return of the link, the
    // attempts go on quietly.
    RegisterAgain registerAgain(ClientPump& pump, Inbox& inbox, const std::string& returnMethod)
    {
        const Exchange result =
            exchange(pump, inbox, registration(pump, returnMethod, true), m_invocation.global.timeoutMs, 0);
        if (result.result == Exchange::Result::Interrupted)
            return RegisterAgain::Interrupted;
        if (result.result == Exchange::Result::Answered && result.answer.kind == Received::Kind::Reply &&
            result.answer.response == "y") {
            m_registerComplained = false;
            out(formatSubscribed(m_invocation, pump.address()));
            return RegisterAgain::Accepted;
        }
        if (!m_registerComplained) {
            m_registerComplained = true;
            complain("registering again for " + m_command.event + " at " + m_command.address +
                     " not accepted yet; trying again every " + std::to_string(kRegisterAgainEvery.count()) + " ms");
        }
        return RegisterAgain::NotYet;
    }

    void reportLink(bool up)
    {
        complain(up ? "link restored" : "link lost");
        out(formatLink(m_invocation, up));
    }

    void* registration(ClientPump& pump, const std::string& returnMethod, bool reg)
    {
        return UlmarCommsCreateEventRegistrationMessage(pump.handle(), returnMethod.c_str(), m_command.address.c_str(),
                                                        m_command.event.c_str(), reg);
    }

    // After a first Ctrl-C the goodbye still waits for its reply; a second
    // one cuts it short.
    int unsubscribe(ClientPump& pump, Inbox& inbox, const std::string& returnMethod)
    {
        const Exchange result = exchange(pump, inbox, registration(pump, returnMethod, false),
                                         m_invocation.global.timeoutMs, inbox.interrupts());
        std::string why;
        int exitCode = kExitRefused;
        switch (result.result) {
        case Exchange::Result::Answered:
            if (result.answer.kind == Received::Kind::Reply && result.answer.response == "y") {
                out(formatUnsubscribed(m_invocation, true, ""));
                return kExitOk;
            }
            why = result.answer.kind == Received::Kind::Error ? "error " + std::to_string(result.answer.errorCode)
                                                              : "the publisher had no such registration";
            break;
        case Exchange::Result::TimedOut:
            why = "no reply within " + std::to_string(m_invocation.global.timeoutMs) + " ms";
            exitCode = kExitUnreachable;
            break;
        case Exchange::Result::Interrupted:
            why = "interrupted";
            exitCode = kExitOk;
            break;
        default: why = "the request could not be sent (code " + std::to_string(result.postCode) + ")"; break;
        }
        complain("unsubscribing from " + m_command.event + " at " + m_command.address + " not confirmed: " + why);
        out(formatUnsubscribed(m_invocation, false, why));
        return exitCode;
    }

    // Ticks from a second pump make the publisher emit on the router worker
    // thread, where the library also handles registrations: the events
    // table is never walked and changed from two threads at once.
    int publish(Inbox& inbox)
    {
        PumpBehaviour behaviour;
        behaviour.eventName = m_command.event;
        behaviour.eventPairs = m_command.pairs;
        ClientPump publisher(inbox, behaviour);
        if (!publisher.create(m_command.name, ""))
            return pumpFailed(m_command.name);
        const int created = UlmarCommsMessagePumpCreateEvent(publisher.handle(), m_command.event.c_str());
        if (created != ULMARCOMMS_OK)
            return refused("the library refused to create the event " + m_command.event, created);
        ClientPump ticker(inbox, PumpBehaviour());
        const std::string tickerName = clientPumpName("tick");
        if (!ticker.create(tickerName, ""))
            return pumpFailed(tickerName);
        publisher.setTickSource(ticker.address());
        if (const int confirmed = syncWithService(inbox, false); confirmed != kExitOk)
            return confirmed;
        const std::string publisherAddress = publisher.address();
        out(formatPublishing(m_invocation, publisherAddress));

        LinkWatch watch(inbox);
        if (!watch.start(clientPumpName("link")))
            return pumpFailed(clientPumpName("link"));

        // Events emitted while the link is down reach no other process; they
        // are counted apart, and --count counts only the others.
        long published = 0;
        long withoutLink = 0;
        bool linked = true;
        const auto isPublished = [](const Received& item) {
            return item.kind == Received::Kind::Published || item.kind == Received::Kind::Link;
        };
        const auto isLink = [](const Received& item) { return item.kind == Received::Kind::Link; };
        const Inbox::Clock::time_point start = Inbox::Clock::now();
        bool stop = false;
        for (long ticks = 1; !stop && (m_command.count == 0 || published < m_command.count); ++ticks) {
            void* tick = UlmarCommsCreateMessage(ticker.handle(), publisherAddress.c_str(), kTickMethod);
            const int posted = tick == nullptr ? ULMARCOMMS_FAILED : UlmarCommsPostMessage(ticker.handle(), tick);
            if (posted != ULMARCOMMS_OK) {
                if (posted == ULMARCOMMS_NOT_STARTED || posted == ULMARCOMMS_BAD_ARGUMENT)
                    UlmarCommsDestroyMessage(tick);
                return refused("the library refused to post the tick that emits the event", posted);
            }
            Received emitted;
            const auto deadline = Inbox::Clock::now() + std::chrono::milliseconds(m_invocation.global.timeoutMs);
            Inbox::Wait waited;
            while ((waited = inbox.waitFor(isPublished, deadline, 0, emitted)) == Inbox::Wait::Got &&
                   emitted.kind == Received::Kind::Link) {
                reportLink(emitted.linkUp);
                linked = emitted.linkUp;
            }
            if (waited == Inbox::Wait::Interrupted)
                break;
            if (waited == Inbox::Wait::TimedOut)
                return refused("the publisher pump did not emit the event", 0);
            if (emitted.publishResult != ULMARCOMMS_OK) {
                out(formatPublished(m_invocation, published + 1, emitted.publishResult));
                return kExitRefused;
            }
            if (!linked) {
                ++withoutLink;
            } else {
                ++published;
                out(formatPublished(m_invocation, published, emitted.publishResult));
            }
            if (m_command.count != 0 && published >= m_command.count)
                break;
            // Until the next tick, changes of the link are reported as they come.
            const auto next = start + std::chrono::milliseconds(m_command.everyMs * ticks);
            Received change;
            while ((waited = inbox.waitFor(isLink, next, 0, change)) == Inbox::Wait::Got) {
                reportLink(change.linkUp);
                linked = change.linkUp;
            }
            stop = waited == Inbox::Wait::Interrupted;
        }
        out(formatPublishSummary(m_invocation, published, withoutLink));
        return syncWithService(inbox, true);
    }

    const Invocation& m_invocation;
    const Command& m_command;
    // The probe's connection, kept for the run to tell a refusal.
    ProbeConnection m_probe;
    // subscribe: a registration that is not accepted again was reported.
    bool m_registerComplained = false;
    // The end of --timeout, counted from the start of the run.
    const Inbox::Clock::time_point m_deadline;
};

} // namespace

int main(int argc, char** argv)
{
    Invocation invocation;
    std::string text;
    switch (parseCommandLine(std::vector<std::string>(argv + 1, argv + argc), invocation, text)) {
    case ParseOutcome::Help: out(text); return kExitOk;
    case ParseOutcome::Version: out(std::string("ulmarcomms ") + ULMARCOMMS_TOOLS_VERSION + "\n"); return kExitOk;
    case ParseOutcome::Usage:
        complain(text);
        complain("try 'ulmarcomms --help'");
        return kExitUsage;
    case ParseOutcome::Run: break;
    }
    return Client(invocation).run();
}
