// ulmarcommsd: runs this machine's system router service in the foreground.
//
// SIGINT and SIGTERM are blocked before the library starts any thread, so
// every thread inherits the mask and the signals stay pending until main
// collects them with sigwait: no handler runs, so nothing here needs to be
// async-signal-safe. The daemon refuses to start when a service already
// answers on the chosen local link, because the library's own start-up
// would report success without listening; for the same reason it checks
// after start-up that its own listener answers. Each local link costs two
// descriptors, so the descriptor limit is raised to its hard limit first:
// the service's bound on links follows it.
#include "common/logsink.h"
#include "common/probe.h"
#include "ulmarcommsd/daemonoptions.h"

#include <ulmarcomms.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

using namespace UlmarCommsTools;

namespace {

const int kExitOk = 0;
const int kExitFailed = 1;
const int kExitUsage = 2;
// How long a TCP probe waits for the connect to complete.
const int kProbeTimeoutMs = 1000;

std::string startCodeMeaning(int code)
{
    switch (code) {
    case ULMARCOMMS_START_NETWORK_ROUTER: return "the network router did not start";
    case ULMARCOMMS_START_LOCAL_LINK: return "the local link could not be set up";
    case ULMARCOMMS_START_MESSAGE_ROUTER: return "the message router or the system endpoint could not be created";
    case ULMARCOMMS_BAD_ARGUMENT: return "the start argument was refused (see the log line above)";
    case ULMARCOMMS_NOT_STARTED: return "the runtime could not be created";
    default: return "unknown start-up failure";
    }
}

void installLoggers(int level)
{
    UlmarCommsSetLogger(stderrLogger);
    UlmarCommsSetLoggerLevel(level);
    UlmarCommsSocketsSetLogger(stderrLogger);
    UlmarCommsSocketsSetLoggerLevel(level);
}

// Blocks the stop signals in this thread and so in every thread started
// later; ignoring SIGPIPE keeps a peer that vanishes mid-send from killing
// the service.
void blockStopSignals(sigset_t& stopSignals)
{
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

int waitForStopSignal(const sigset_t& stopSignals)
{
    int signal = 0;
    while (sigwait(&stopSignals, &signal) != 0) {}
    return signal;
}

void say(const std::string& line)
{
    std::fprintf(stdout, "ulmarcommsd: %s\n", line.c_str());
    std::fflush(stdout);
}

void complain(const std::string& line)
{
    std::fprintf(stderr, "ulmarcommsd: %s\n", line.c_str());
}

// Raises the soft descriptor limit to the hard one; silent when done (or
// nothing to do), a warning when refused: the service then serves fewer links.
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
        return;
    const rlim_t soft = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) == 0)
        return;
    complain("warning: could not raise the descriptor limit from " + std::to_string(soft) + " to " +
             std::to_string(limit.rlim_max) + " (" + std::strerror(errno) + "); fewer local links will be served");
}

} // namespace

int main(int argc, char** argv)
{
    DaemonOptions options;
    std::string error;
    switch (parseDaemonOptions(std::vector<std::string>(argv + 1, argv + argc), options, error)) {
    case DaemonParse::Help: std::fputs(daemonUsage().c_str(), stdout); return kExitOk;
    case DaemonParse::Version: std::printf("ulmarcommsd %s\n", ULMARCOMMS_TOOLS_VERSION); return kExitOk;
    case DaemonParse::Usage:
        complain(error);
        complain("try 'ulmarcommsd --help'");
        return kExitUsage;
    case DaemonParse::Run: break;
    }

    LinkTarget link;
    if (!options.settings.linkTarget(link, error)) {
        complain(error);
        return kExitUsage;
    }
    if (link.kind == LinkTarget::Kind::None) {
        complain("ulmar.systemrouter.pipe and ulmar.systemrouter.ip4 are both 0: the service would have no local link");
        return kExitUsage;
    }
    std::string detail;
    if (probeService(link, kProbeTimeoutMs, detail) == ProbeResult::Answered) {
        complain("a service already answers on " + link.describe() + "; not starting another one");
        return kExitFailed;
    }

    raiseDescriptorLimit();
    sigset_t stopSignals;
    blockStopSignals(stopSignals);
    installLoggers(options.logLevel);

    const std::string argument = options.settings.startArgument();
    const int started = UlmarCommsSystemStartUp(argument.c_str());
    if (started != ULMARCOMMS_OK) {
        complain("start-up failed with code " + std::to_string(started) + ": " + startCodeMeaning(started));
        // Whatever start-up built before it failed is torn down again.
        UlmarCommsSystemShutdown();
        return kExitFailed;
    }
    // The library reports success even when its listener could not be set
    // up (the address is unusable); only a connect shows that it listens.
    if (probeService(link, kProbeTimeoutMs, detail) != ProbeResult::Answered) {
        complain("the service started but does not listen on " + link.describe() + " (" + detail +
                 "); see the log lines above");
        UlmarCommsSystemShutdown();
        return kExitFailed;
    }
    say("service running on " + link.describe() + ", pid " + std::to_string(getpid()));

    const int signal = waitForStopSignal(stopSignals);
    say(std::string("received ") + (signal == SIGINT ? "SIGINT" : "SIGTERM") + ", shutting down");
    UlmarCommsSystemShutdown();
    say("service stopped");
    return kExitOk;
}
