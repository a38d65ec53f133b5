// The soak's coordinator. It starts a daemon on a pipe name of its own, the
// applications, the probe and (at --soak-stall-at) the stalled consumer,
// then works through a timeline of faults, one at a time: a daemon stop
// (SIGTERM, every --soak-sigkill-every-th time SIGKILL) and restart, or
// --soak-kill-count applications killed with SIGKILL and started again as
// a new generation. Each fault opens a window that closes once the probe
// has reached every pump concerned plus --soak-settle-ms; the window also
// reaches back that margin before the fault, since a message posted just
// before it may still have sat in a queue that the fault destroyed.
// A thread samples the daemon's VmRSS once a second throughout.
#include "soak.h"

#include "common.h"
#include "process.h"
#include "soakprobe.h"
#include "soakrecords.h"
#include "soakreport.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <numeric>
#include <random>
#include <thread>
#include <unistd.h>

namespace UlmarCommsBench {

namespace {

// How long start-up and a recovery may take before the run fails.
constexpr std::chrono::seconds kStartLimit{180};
constexpr std::chrono::seconds kRecoveryLimit{60};

// A line of progress on stderr, with the second of the soak it happened at.
void note(int64_t startNs, const std::string& text)
{
    const double at = startNs > 0 ? double(monotonicNs() - startNs) / 1e9 : 0;
    std::fprintf(stderr, "soak %6.1f s: %s\n", at, text.c_str());
}

// One planned fault: seconds after the start, and which.
struct Fault {
    enum Kind { DaemonRestart, AppKill, Stall } kind;
    unsigned at;
};

// Samples the daemon's resident memory once a second on its own thread.
class MemorySampler {
public:
    // Starts sampling; times are taken relative to origin.
    void start(int64_t origin)
    {
        m_origin = origin;
        m_thread = std::thread([this] { run(); });
    }
    // Ends the thread and hands the samples over.
    std::vector<MemorySample> finish()
    {
        m_done.store(true);
        m_thread.join();
        return m_samples;
    }
    // The daemon to sample from now on (0: none).
    void follow(pid_t pid, unsigned instance)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_pid = pid;
        m_instance = instance;
    }

private:
    void run()
    {
        while (!m_done.load()) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            std::lock_guard<std::mutex> guard(m_lock);
            const long kib = m_pid > 0 ? residentKiBOf(m_pid) : 0;
            if (kib > 0)
                m_samples.push_back({double(monotonicNs() - m_origin) / 1e9, m_instance, kib});
        }
    }

    std::thread m_thread;
    std::atomic<bool> m_done{false};
    std::mutex m_lock; // guards the fields below
    pid_t m_pid = 0;
    unsigned m_instance = 0;
    int64_t m_origin = 0;
    std::vector<MemorySample> m_samples;
};

// The coordinator's whole state.
struct SoakRun {
    Options options;
    Daemon daemon;
    SoakProbe probe;
    StallPeer stall;
    bool stalling = false; // the stalled consumer has appeared
    MemorySampler memory;
    std::vector<Child> apps;
    std::vector<unsigned> generations;
    std::vector<Window> windows;
    SoakResult result;
    std::mt19937 random{12345};
    unsigned daemonInstance = 0;
    int64_t startNs = 0; // every application reachable: the soak proper begins

    int64_t settleNs() const { return int64_t(options.soakSettleMs) * 1000000; }

    // Starts application app as its current generation; false when it did
    // not say READY.
    bool startApp(unsigned app)
    {
        Options one = options;
        one.soakIndex = app;
        std::vector<std::string> arguments = childArguments(one, "soak-app");
        arguments.insert(arguments.end(),
                         {"--soak-index", std::to_string(app), "--soak-generation", std::to_string(generations[app])});
        apps[app] = spawn(selfPath(), arguments, true, options.soakDir + "/applications.log");
        return apps[app].pid > 0 && awaitLine(apps[app], "READY", kStartLimit);
    }

    // Starts the daemon on the run's pipe; the stalled consumer comes back
    // with it.
    bool startDaemon()
    {
        if (!daemon.launch(options, options.pipe, options.soakDir + "/daemon.log"))
            return false;
        memory.follow(daemon.child.pid, ++daemonInstance);
        if (stalling && !stall.connect(options.pipe, soakStallName(options)))
            std::fprintf(stderr, "ulmarcomms-bench: the stalled consumer could not connect again\n");
        return true;
    }

    // Every application's number.
    std::vector<unsigned> everyApp() const
    {
        std::vector<unsigned> all(options.soakApps);
        std::iota(all.begin(), all.end(), 0u);
        return all;
    }

    // Restarts the daemon after stopping it with signal (0: it died on its
    // own); false when the applications did not come back.
    bool restartDaemon(int signal)
    {
        const int64_t faultNs = monotonicNs();
        note(startNs,
             signal == SIGKILL       ? "daemon stopped with SIGKILL"
                 : signal == SIGTERM ? "daemon stopped with SIGTERM"
                                     : "daemon ended on its own");
        if (signal != 0)
            daemon.stopWith(signal);
        memory.follow(0, daemonInstance);
        if (!startDaemon()) {
            result.failures.push_back("the daemon could not be started again");
            return false;
        }
        const int64_t upNs = monotonicNs();
        const bool back = probe.awaitReachable(everyApp(), kRecoveryLimit);
        const int64_t reachableNs = monotonicNs();
        result.restarts.push_back({double(faultNs - startNs) / 1e9, signal, double(upNs - faultNs) / 1e6,
                                   double(reachableNs - upNs) / 1e6, back});
        windows.push_back({faultNs - settleNs(), reachableNs + settleNs(), -1});
        note(startNs, back ? "every pump reachable again" : "NOT every pump reachable again");
        if (!back)
            result.failures.push_back("applications not reachable within 60 s of a daemon restart");
        return back;
    }

    // Kills --soak-kill-count applications and starts them again.
    bool killApps()
    {
        std::vector<unsigned> victims = everyApp();
        std::shuffle(victims.begin(), victims.end(), random);
        victims.resize(options.soakKillCount);
        const int64_t faultNs = monotonicNs();
        note(startNs, std::to_string(victims.size()) + " applications killed with SIGKILL");
        bool started = true;
        for (unsigned app : victims) {
            ::kill(apps[app].pid, SIGKILL);
            finish(apps[app], std::chrono::seconds(10));
            ++generations[app];
            started = startApp(app) && started;
        }
        const bool back = started && probe.awaitReachable(victims, kRecoveryLimit);
        const int64_t reachableNs = monotonicNs();
        for (unsigned app : victims)
            windows.push_back({faultNs - settleNs(), reachableNs + settleNs(), int(app)});
        result.kills.push_back({double(faultNs - startNs) / 1e9, victims, double(reachableNs - faultNs) / 1e6, back});
        note(startNs, back ? "killed applications reachable again" : "killed applications NOT reachable again");
        if (!back)
            result.failures.push_back("killed applications not reachable again within 60 s");
        return back;
    }

    // Sleeps until second at of the soak, restarting a daemon that died on
    // its own meanwhile; false when that restart failed.
    bool waitUntil(double at)
    {
        const int64_t until = startNs + int64_t(at * 1e9);
        while (monotonicNs() < until) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (!daemon.ended())
                continue;
            ++result.daemonDeaths;
            result.failures.push_back("the daemon ended on its own");
            if (!restartDaemon(0))
                return false;
        }
        return true;
    }

    // Carries out one fault; false when the bus did not recover.
    bool carryOut(const Fault& fault)
    {
        switch (fault.kind) {
        case Fault::DaemonRestart: {
            const unsigned n = unsigned(result.restarts.size()) + 1;
            const bool hard = options.soakSigkillEvery > 0 && n % options.soakSigkillEvery == 0;
            return restartDaemon(hard ? SIGKILL : SIGTERM);
        }
        case Fault::AppKill: return killApps();
        case Fault::Stall:
            note(startNs, "the stalled consumer connects");
            stalling = stall.connect(options.pipe, soakStallName(options));
            result.stallAt = double(monotonicNs() - startNs) / 1e9;
            if (!stalling)
                result.failures.push_back("the stalled consumer could not connect");
            return stalling;
        }
        return false;
    }
};

// The faults of a run in time order; none in the last tenth (at least 5 s)
// so that the last window has closed before the end.
std::vector<Fault> planFaults(const Options& options)
{
    std::vector<Fault> faults;
    const unsigned quiet = std::max(5u, options.soakSeconds / 10);
    const unsigned last = options.soakSeconds > quiet ? options.soakSeconds - quiet : 0;
    auto every = [&](unsigned interval, Fault::Kind kind) {
        for (unsigned at = interval; interval > 0 && at < last; at += interval)
            faults.push_back({kind, at});
    };
    every(options.soakDaemonEvery, Fault::DaemonRestart);
    if (options.soakKillCount > 0)
        every(options.soakKillEvery, Fault::AppKill);
    if (options.soakStallAt > 0 && options.soakStallAt < options.soakSeconds)
        faults.push_back({Fault::Stall, options.soakStallAt});
    // An application kill due at the same second as a restart goes first.
    std::stable_sort(faults.begin(), faults.end(), [](const Fault& a, const Fault& b) { return a.at < b.at; });
    return faults;
}

// Starts everything and waits until every pump answers; false on failure.
bool startUp(SoakRun& run)
{
    if (!run.startDaemon() || !run.probe.start(run.options)) {
        run.result.failures.push_back("the daemon or the probe could not be started");
        return false;
    }
    run.apps.resize(run.options.soakApps);
    run.generations.assign(run.options.soakApps, 0);
    for (unsigned app = 0; app < run.options.soakApps; ++app) {
        if (!run.startApp(app)) {
            run.result.failures.push_back("application " + std::to_string(app) + " did not start");
            return false;
        }
    }
    if (!run.probe.awaitReachable(run.everyApp(), kStartLimit)) {
        run.result.failures.push_back("not every application was reachable after start-up");
        return false;
    }
    run.startNs = monotonicNs();
    note(run.startNs, "every pump reachable; the soak begins");
    // Start-up is a window too: applications posted before all were known.
    run.windows.push_back({0, run.startNs + run.settleNs(), -1});
    return true;
}

// Stops the applications (they drain, then end) and everything else.
void shutDown(SoakRun& run)
{
    note(run.startNs, "stopping the applications");
    for (Child& app : run.apps)
        if (app.pid > 0)
            ::kill(app.pid, SIGTERM);
    for (unsigned app = 0; app < run.apps.size(); ++app) {
        if (run.apps[app].pid <= 0)
            continue;
        Figures figures;
        if (finish(run.apps[app], std::chrono::seconds(60)) != 0 || !parseResult(run.apps[app].collected, figures)) {
            run.result.failures.push_back("application " + std::to_string(app) + " did not end cleanly");
            continue;
        }
        run.result.replies += figures["replies"];
        run.result.errorReplies += figures["errors"];
    }
    run.stall.close();
    run.probe.stop();
    if (run.daemon.ended()) {
        ++run.result.daemonDeaths;
        run.result.failures.push_back("the daemon ended on its own");
    }
    run.daemon.stopWith(SIGTERM);
}

// Removes the records directory and what is in it.
void removeRecords(const std::string& dir, const std::vector<unsigned>& generations)
{
    for (unsigned app = 0; app < generations.size(); ++app) {
        for (unsigned generation = 0; generation <= generations[app]; ++generation) {
            ::unlink(sentPath(dir, app, generation).c_str());
            ::unlink(receivedPath(dir, app, generation).c_str());
        }
    }
    for (const char* log : {"/applications.log", "/daemon.log", "/coordinator.log"})
        ::unlink((dir + log).c_str());
    ::rmdir(dir.c_str());
}

} // namespace

int runSoak(Options options)
{
    if (!options.pipe.empty()) {
        std::fprintf(stderr, "ulmarcomms-bench: the soak starts and restarts its own daemon (no --pipe)\n");
        return 2;
    }
    if (options.tag.empty())
        options.tag = std::to_string(getpid());
    options.pipe = "ulmarsoak" + options.tag;
    const char* tmp = std::getenv("TMPDIR");
    std::string dir = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/ulmarsoak.XXXXXX";
    if (::mkdtemp(dir.data()) == nullptr) {
        std::fprintf(stderr, "ulmarcomms-bench: cannot create %s\n", dir.c_str());
        return 1;
    }
    options.soakDir = dir;
    SoakRun run;
    run.options = options;
    const int64_t originNs = monotonicNs();
    run.memory.start(originNs);
    bool ok = startUp(run);
    for (const Fault& fault : ok ? planFaults(options) : std::vector<Fault>()) {
        ok = run.waitUntil(fault.at) && run.carryOut(fault);
        if (!ok)
            break;
    }
    ok = ok && run.waitUntil(options.soakSeconds);
    const int64_t endNs = monotonicNs();
    shutDown(run);
    run.result.samples = run.memory.finish();
    // Sample times count from the start of the soak proper (start-up is negative).
    for (MemorySample& sample : run.result.samples)
        sample.at -= run.startNs > 0 ? double(run.startNs - originNs) / 1e9 : 0;
    run.result.tally = tallyRecords(dir, run.generations, run.windows);
    run.result.seconds = double(endNs - run.startNs) / 1e9;
    run.result.windows = run.windows.size();
    printSoakReport(options, run.result);
    if (!soakPassed(run.result)) {
        std::fprintf(stderr, "soak: records and logs kept in %s\n", dir.c_str());
        return 1;
    }
    removeRecords(dir, run.generations);
    return 0;
}

} // namespace UlmarCommsBench
