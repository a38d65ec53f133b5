// ulmarcomms-stall-bench: what one stalled consumer costs the daemon.
//
// Starts the given ulmarcommsd on a private pipe, connects a plain socket that
// announces one pump and never reads (the stalled consumer), and posts
// --count requests with a "data" value of --bytes bytes to it from an
// application (public C interface only). It samples the daemon's VmRSS
// throughout and prints one RESULT line: the daemon's size before the flood,
// its peak, whether the daemon ended the stalled link, and its size a few
// seconds after the backlog is gone (the daemon ended the link, or this
// program closes it after the flood). Figures, not checks: it exits 0 unless
// something could not be started.
#include "process.h"
#include "ulmarcomms.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int connectLink(const std::string& pipe)
{
    sockaddr_un address;
    const socklen_t size = UlmarCommsBench::localLinkAddress(pipe, address);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), size) == 0)
        return fd;
    if (fd >= 0)
        ::close(fd);
    return -1;
}

void appendBig32(std::string& out, uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(char((value >> shift) & 0xFF));
}

// The command frame that announces a pump (code 1): header, code, text
// length with its NUL, text and NUL.
std::string addPumpFrame(const std::string& address)
{
    std::string record(1, char(1));
    appendBig32(record, uint32_t(address.size() + 1));
    record += address;
    record.push_back('\0');
    std::string frame(1, char(2));
    appendBig32(frame, uint32_t(record.size()));
    appendBig32(frame, 1);
    return frame + record;
}

// Whether the daemon has ended the link (shut its side down).
bool peerEnded(int fd)
{
    pollfd entry{fd, POLLRDHUP, 0};
    return ::poll(&entry, 1, 0) > 0 && (entry.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

// Waits up to timeout for one byte to read on fd.
bool readable(int fd, int timeoutMs)
{
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, timeoutMs) > 0;
}

pid_t startDaemon(const std::string& program, const std::string& pipe, const std::vector<std::string>& extra)
{
    std::vector<std::string> args = {program, "--set", "ulmar.systemrouter.pipe.name=" + pipe};
    args.insert(args.end(), extra.begin(), extra.end());
    const pid_t pid = ::fork();
    if (pid != 0)
        return pid;
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1);
    if (std::getenv("STALL_BENCH_DAEMON_LOG") == nullptr)
        ::dup2(null, 2);
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    ::execv(program.c_str(), argv.data());
    std::_Exit(127);
}

struct Settings {
    std::string daemon;
    unsigned bytes = 1;
    unsigned count = 100000;
    std::vector<std::string> daemonArgs; // after "--"
};

bool parse(int argc, char** argv, Settings& settings)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            settings.daemonArgs.assign(argv + i + 1, argv + argc);
            break;
        }
        if (i + 1 >= argc)
            return false;
        if (arg == "--daemon")
            settings.daemon = argv[++i];
        else if (arg == "--bytes")
            settings.bytes = unsigned(std::strtoul(argv[++i], nullptr, 10));
        else if (arg == "--count")
            settings.count = unsigned(std::strtoul(argv[++i], nullptr, 10));
        else
            return false;
    }
    return !settings.daemon.empty();
}

} // namespace

int main(int argc, char** argv)
{
    Settings settings;
    if (!parse(argc, argv, settings)) {
        std::fprintf(stderr, "usage: ulmarcomms-stall-bench --daemon PATH [--bytes N] [--count N] [-- DAEMON ARGS]\n");
        return 2;
    }
    ::signal(SIGPIPE, SIG_IGN);
    const std::string pipe = "stallbench" + std::to_string(getpid());
    const pid_t daemon = startDaemon(settings.daemon, pipe, settings.daemonArgs);
    int probe = -1;
    for (auto until = Clock::now() + std::chrono::seconds(10); probe < 0 && Clock::now() < until;) {
        probe = connectLink(pipe);
        if (probe < 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (probe < 0) {
        std::fprintf(stderr, "ulmarcomms-stall-bench: the daemon does not listen\n");
        ::kill(daemon, SIGKILL);
        return 1;
    }
    ::close(probe);

    const std::string start = "ulmar.systemrouter.pipe.name=" + pipe;
    int failed = 1;
    if (UlmarCommsStart(start.c_str()) == 0) {
        void* pump = UlmarCommsCreateMessagePump("sender", nullptr, nullptr, nullptr, nullptr, nullptr);
        const std::string stalled = pipe + "/stall";
        const int stall = connectLink(pipe);
        const std::string announce = addPumpFrame(stalled);
        bool reached = stall >= 0 && ::send(stall, announce.data(), announce.size(), MSG_NOSIGNAL) > 0;
        // The first request reaches the consumer once the daemon knows its pump.
        bool delivered = false;
        for (int attempt = 0; reached && attempt < 50 && !delivered; ++attempt) {
            UlmarCommsPostMessage(pump, UlmarCommsCreateMessage(pump, stalled.c_str(), "hello"));
            delivered = readable(stall, 200);
        }
        if (pump != nullptr && delivered) {
            char drain[4096];
            while (::recv(stall, drain, sizeof(drain), MSG_DONTWAIT) > 0) {}
            const long idle = UlmarCommsBench::residentKiBOf(daemon);
            long peak = idle;
            unsigned refused = 0;
            unsigned endedAfter = 0;
            const std::string data(settings.bytes, 'd');
            for (unsigned i = 0; i < settings.count; ++i) {
                void* message = UlmarCommsCreateMessage(pump, stalled.c_str(), "flood");
                UlmarCommsMessageAddKeyValue(message, "data", data.c_str());
                refused += UlmarCommsPostMessage(pump, message) != 0 ? 1 : 0;
                if (i % 1000 == 999) {
                    peak = std::max(peak, UlmarCommsBench::residentKiBOf(daemon));
                    if (endedAfter == 0 && peerEnded(stall))
                        endedAfter = i + 1;
                }
            }
            // The daemon works through what is still on its way.
            for (auto until = Clock::now() + std::chrono::seconds(3); Clock::now() < until;) {
                peak = std::max(peak, UlmarCommsBench::residentKiBOf(daemon));
                if (endedAfter == 0 && peerEnded(stall))
                    endedAfter = settings.count;
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            const long held = UlmarCommsBench::residentKiBOf(daemon);
            ::close(stall); // the backlog goes with the link, if it is still there
            long after = held;
            for (auto until = Clock::now() + std::chrono::seconds(5); Clock::now() < until;) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                after = UlmarCommsBench::residentKiBOf(daemon);
            }
            std::printf("RESULT bytes=%u count=%u idle_kib=%ld peak_kib=%ld held_kib=%ld ended=%d ended_after=%u "
                        "refused=%u after_kib=%ld\n",
                        settings.bytes, settings.count, idle, peak, held, endedAfter != 0 ? 1 : 0, endedAfter, refused,
                        after);
            failed = 0;
        } else {
            std::fprintf(stderr, "ulmarcomms-stall-bench: the stalled consumer was never reached\n");
            if (stall >= 0)
                ::close(stall);
        }
        if (pump != nullptr)
            UlmarCommsDestroyMessagePump(pump);
        UlmarCommsShutdown();
    }
    ::kill(daemon, SIGTERM);
    int status = 0;
    ::waitpid(daemon, &status, 0);
    return failed;
}
