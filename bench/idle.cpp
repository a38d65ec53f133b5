// ulmarcomms-idle-bench: what an idle bus costs, in wake-ups and processor.
//
// Starts its own daemon on a private pipe name and N applications (this
// program again with --app), each with one pump, waits until every one has
// its pump, lets registrations settle, then counts over a window the
// context switches (voluntary and not, summed over every thread) and the
// processor time (user + system) of the daemon and of the applications.
// Nothing is sent during the window: whatever wakes a process then is its
// own machinery. Prints one RESULT line per process kind; figures, not
// checks. Ends only the processes it started, by pid.
//
//   ulmarcomms-idle-bench [--daemon PATH] [--apps N] [--seconds S]
//
// An application runs until it gets SIGTERM (from the coordinator, or as
// the coordinator dies), so none outlives the run.
#include "process.h"
#include "ulmarcomms.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <string>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace UlmarCommsBench;

struct Settings {
    Options daemon; // only its daemon path is used
    int apps = 100;
    int seconds = 10;
};

// A process's counters at one moment.
struct Sample {
    unsigned long long switches = 0; // context switches over all threads
    double cpuUs = 0; // utime + stime, microseconds
};

void onMessage(void*, void*, const char*, const char*)
{
}

void onResponse(void*, unsigned, void*)
{
}

void onError(void*, unsigned, int)
{
}

// The application role: one pump, then wait for SIGTERM. The signal is
// blocked before the library starts, so that every thread inherits the mask
// and sigwait() here takes it.
int runApplication(const std::string& pipe, int index)
{
    sigset_t terminate;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &terminate, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() == 1 || UlmarCommsStart(pipeSetting(pipe).c_str()) != 0)
        return 1;
    const std::string name = "idlebench.app" + std::to_string(index);
    void* pump = UlmarCommsCreateMessagePump(name.c_str(), nullptr, onMessage, onResponse, onError, nullptr);
    if (pump == nullptr) {
        UlmarCommsShutdown();
        return 1;
    }
    std::printf("READY\n");
    std::fflush(stdout);
    int signal = 0;
    sigwait(&terminate, &signal);
    UlmarCommsDestroyMessagePump(pump);
    UlmarCommsShutdown();
    return 0;
}

// Sum of both context-switch counts over every thread of pid.
unsigned long long switchesOf(pid_t pid)
{
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    DIR* tasks = opendir(dir.c_str());
    if (tasks == nullptr)
        return 0;
    unsigned long long total = 0;
    while (dirent* task = readdir(tasks)) {
        if (task->d_name[0] == '.')
            continue;
        FILE* status = std::fopen((dir + "/" + task->d_name + "/status").c_str(), "r");
        if (status == nullptr)
            continue; // the thread ended meanwhile
        char line[256];
        unsigned long long value = 0;
        while (std::fgets(line, sizeof(line), status) != nullptr) {
            if (std::sscanf(line, "voluntary_ctxt_switches: %llu", &value) == 1 ||
                std::sscanf(line, "nonvoluntary_ctxt_switches: %llu", &value) == 1)
                total += value;
        }
        std::fclose(status);
    }
    closedir(tasks);
    return total;
}

Sample sampleOf(pid_t pid)
{
    return Sample{switchesOf(pid), cpuMicrosecondsOf(pid)};
}

void printFigures(const char* kind, const Sample& before, const Sample& after, int processes, double seconds)
{
    const double wakeups = static_cast<double>(after.switches - before.switches) / seconds / processes;
    const double cpu = (after.cpuUs - before.cpuUs) / 1e6 / seconds * 100.0 / processes;
    std::printf("RESULT %s processes=%d seconds=%.0f wakeups_per_s=%.1f cpu_percent=%.3f\n", kind, processes, seconds,
                wakeups, cpu);
}

// Parses the options; false on a bad one.
bool parse(int argc, char** argv, Settings& settings)
{
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (i + 1 >= argc)
            return false;
        if (option == "--daemon")
            settings.daemon.daemon = argv[++i];
        else if (option == "--apps")
            settings.apps = std::atoi(argv[++i]);
        else if (option == "--seconds")
            settings.seconds = std::atoi(argv[++i]);
        else
            return false;
    }
    return settings.apps > 0 && settings.seconds > 0;
}

// The figures' window: samples every process, waits, samples again.
void measure(pid_t daemon, const std::vector<pid_t>& apps, int seconds)
{
    std::vector<Sample> before;
    for (pid_t app : apps)
        before.push_back(sampleOf(app));
    const Sample daemonBefore = sampleOf(daemon);
    const Clock::time_point begin = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const Sample daemonAfter = sampleOf(daemon);
    const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
    Sample allBefore;
    Sample allAfter;
    for (size_t i = 0; i < apps.size(); ++i) {
        const Sample after = sampleOf(apps[i]);
        allBefore.switches += before[i].switches;
        allBefore.cpuUs += before[i].cpuUs;
        allAfter.switches += after.switches;
        allAfter.cpuUs += after.cpuUs;
    }
    printFigures("daemon", daemonBefore, daemonAfter, 1, elapsed);
    printFigures("application", allBefore, allAfter, static_cast<int>(apps.size()), elapsed);
}

// Ends every application (SIGTERM, by pid) and reaps it.
void endApplications(std::vector<Child>& apps)
{
    for (Child& app : apps) {
        if (app.pid > 0)
            kill(app.pid, SIGTERM);
    }
    finishAll(apps, std::chrono::seconds(20));
}

int runCoordinator(Settings& settings)
{
    const std::string pipe = "idlebench" + std::to_string(getpid());
    Daemon daemon;
    if (!daemon.launch(settings.daemon, pipe))
        return 1;
    std::vector<Child> apps;
    for (int i = 0; i < settings.apps; ++i)
        apps.push_back(spawn(selfPath(), {"--app", pipe, std::to_string(i)}, true));
    int result = 1;
    if (awaitAll(apps, "READY", std::chrono::seconds(60), "application")) {
        // Registrations and the links' first checks settle first.
        std::this_thread::sleep_for(std::chrono::seconds(2));
        std::vector<pid_t> pids;
        for (const Child& app : apps)
            pids.push_back(app.pid);
        measure(daemon.child.pid, pids, settings.seconds);
        result = 0;
    }
    endApplications(apps);
    daemon.stop();
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::string(argv[1]) == "--app")
        return runApplication(argv[2], std::atoi(argv[3]));
    Settings settings;
    if (!parse(argc, argv, settings)) {
        std::fprintf(stderr, "Usage: ulmarcomms-idle-bench [--daemon PATH] [--apps N] [--seconds S]\n");
        return 2;
    }
    return runCoordinator(settings);
}
