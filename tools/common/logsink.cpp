// Log formatting and the stderr sink.
#include "common/logsink.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <unistd.h>
#include <vector>

namespace UlmarCommsTools {

std::string logLevelName(int level)
{
    switch (level) {
    case 0: return "VERBOSE";
    case 1: return "MESSAGE";
    case 2: return "WARNING";
    case 3: return "ERROR";
    case 4: return "FATAL";
    default: return "LEVEL " + std::to_string(level);
    }
}

std::string formatLogText(const char* format, char* args)
{
    if (format == nullptr)
        return std::string();
    if (args == nullptr)
        return format;
    std::vector<char> buffer(kMaxLogText + 1);
    va_list copy;
    va_copy(copy, *reinterpret_cast<va_list*>(args));
    const int written = std::vsnprintf(buffer.data(), buffer.size(), format, copy);
    va_end(copy);
    if (written < 0)
        return format;
    std::string text(buffer.data());
    if (static_cast<size_t>(written) > kMaxLogText)
        text += "...";
    return text;
}

std::string formatLogLine(int level, const timespec& when, const std::string& text)
{
    tm local{};
    const time_t seconds = when.tv_sec;
    localtime_r(&seconds, &local);
    char stamp[64];
    const size_t length = std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(stamp + length, sizeof(stamp) - length, ".%03ld", static_cast<long>(when.tv_nsec / 1000000));

    size_t end = text.size();
    while (end > 0 && (text[end - 1] == '\n' || text[end - 1] == '\r'))
        --end;
    return std::string(stamp) + " " + logLevelName(level) + " " + text.substr(0, end) + "\n";
}

void stderrLogger(int level, const char* format, char* args)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::string line = formatLogLine(level, now, formatLogText(format, args));
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t written = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        done += static_cast<size_t>(written);
    }
}

} // namespace UlmarCommsTools
