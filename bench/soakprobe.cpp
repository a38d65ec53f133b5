// The probe pump and the stalled consumer. The probe asks again every
// 250 ms the pumps that have not answered yet: a request sent while the
// coordinator's own link is still down, or before a pump is announced, may
// get no answer at all, so asking once would not do.
#include "soakprobe.h"

#include "bus.h"
#include "process.h"
#include "soak.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <ulmarcomms.h>
#include <unistd.h>

namespace UlmarCommsBench {

namespace {

// The coordinator's library log, in the run's directory.
FILE* g_log = nullptr;

// The library's log lines, appended to g_log.
void logToFile(int level, const char* format, char* args)
{
    if (g_log == nullptr)
        return;
    std::fprintf(g_log, "coordinator level %d: ", level);
    std::vfprintf(g_log, format, *reinterpret_cast<va_list*>(args));
    std::fflush(g_log);
}

// Reads "/aN/pM" at the end of a pump's address; false for anything else.
bool parsePumpAddress(const char* from, unsigned& app, unsigned& pump)
{
    if (from == nullptr)
        return false;
    const std::string address = from;
    const size_t a = address.rfind("/a");
    const size_t p = address.rfind("/p");
    if (a == std::string::npos || p == std::string::npos || p < a)
        return false;
    app = unsigned(std::strtoul(address.c_str() + a + 2, nullptr, 10));
    pump = unsigned(std::strtoul(address.c_str() + p + 2, nullptr, 10));
    return true;
}

// Appends a big-endian 32-bit number.
void appendBig32(std::string& out, uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(char((value >> shift) & 0xFF));
}

// A command frame (type 2) with code and text: header, code, text length
// with its NUL, text and NUL.
std::string commandFrame(unsigned char code, const std::string& text)
{
    std::string record(1, char(code));
    appendBig32(record, uint32_t(text.size() + 1));
    record += text;
    record.push_back('\0');
    std::string frame(1, char(2));
    appendBig32(frame, uint32_t(record.size()));
    appendBig32(frame, 1);
    return frame + record;
}

} // namespace

bool SoakProbe::start(const Options& options)
{
    m_options = options;
    if (!startLibrary(options.pipe, "ulmar.messagerouter.reannounce.all=1"))
        return false;
    // The link's complaints while the daemon is down are expected; they go
    // to the run's log beside the applications' and the daemon's.
    g_log = std::fopen((options.soakDir + "/coordinator.log").c_str(), "a");
    if (g_log != nullptr) {
        UlmarCommsSetLogger(logToFile);
        UlmarCommsSocketsSetLogger(logToFile);
    }
    m_pump = UlmarCommsCreateMessagePump(("ulmarsoak" + options.tag + "/probe").c_str(), this, nullptr,
                                         &SoakProbe::onResponse, nullptr, nullptr);
    return m_pump != nullptr;
}

void SoakProbe::stop()
{
    if (m_pump != nullptr)
        UlmarCommsDestroyMessagePump(m_pump);
    m_pump = nullptr;
    UlmarCommsShutdown();
    if (g_log != nullptr)
        std::fclose(g_log);
    g_log = nullptr;
}

void SoakProbe::onResponse(void* context, unsigned, void* message)
{
    SoakProbe* self = static_cast<SoakProbe*>(context);
    unsigned app = 0;
    unsigned pump = 0;
    if (!parsePumpAddress(UlmarCommsMessageValue(message, "at"), app, pump))
        return;
    std::lock_guard<std::mutex> guard(self->m_lock);
    self->m_answered.emplace(app, pump);
    self->m_changed.notify_all();
}

bool SoakProbe::awaitReachable(const std::vector<unsigned>& apps, std::chrono::seconds limit)
{
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_answered.clear();
    }
    const auto deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        std::vector<std::pair<unsigned, unsigned>> missing;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            for (unsigned app : apps)
                for (unsigned pump = 0; pump < m_options.soakPumps; ++pump)
                    if (m_answered.count({app, pump}) == 0)
                        missing.emplace_back(app, pump);
        }
        if (missing.empty())
            return true;
        for (const auto& [app, pump] : missing) {
            void* message = UlmarCommsCreateMessage(m_pump, soakPumpName(m_options, app, pump).c_str(), kSoakProbe);
            if (message != nullptr)
                UlmarCommsPostMessage(m_pump, message);
        }
        const size_t before = apps.size() * m_options.soakPumps - missing.size();
        std::unique_lock<std::mutex> guard(m_lock);
        m_changed.wait_for(guard, std::chrono::milliseconds(250),
                           [&] { return m_answered.size() >= before + missing.size(); });
    }
    return false;
}

bool StallPeer::connect(const std::string& pipe, const std::string& address)
{
    close();
    sockaddr_un local;
    const socklen_t size = localLinkAddress(pipe, local);
    m_fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0)
        return false;
    const std::string frame = commandFrame(1, address);
    if (::connect(m_fd, reinterpret_cast<const sockaddr*>(&local), size) != 0 ||
        ::send(m_fd, frame.data(), frame.size(), MSG_NOSIGNAL) != ssize_t(frame.size())) {
        close();
        return false;
    }
    return true;
}

void StallPeer::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

} // namespace UlmarCommsBench
