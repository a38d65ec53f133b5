// Captures what the library logs, for tests that check log lines: the
// library's logger or the socket layer's own one.
//
// The library hands its logger the format and the call's va_list passed as
// char*. Where va_list is an array type (x86_64: one __va_list_tag) the
// pointer that arrives is the array's decayed element pointer, so it must be
// cast back to that decayed type; casting &args to va_list* would read the
// char* variable itself as the argument state. formatLogArguments does this
// portably through std::decay_t<va_list>.
//
// The logger is a plain function pointer with no user data, so the captured
// lines live in one process-wide store; only one LogCapture may exist at a
// time. The library calls the logger from its own threads (under its logging
// lock); the store has its own lock so tests can read while threads log.
#pragma once

#include "core/core.h"
#include "platform/socket.h"

#include "support/wait.h"

#include <cassert>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

namespace UlmarCommsTest {

// Formats a format and the char*-passed va_list that a logger receives. The
// argument list is consumed, as by any v*printf call.
inline std::string formatLogArguments(const char* format, char* args)
{
    using PassedList = std::decay_t<va_list>;
    va_list measure;
    va_copy(measure, reinterpret_cast<PassedList>(args));
    const int needed = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (needed < 0)
        return std::string();
    std::string text(static_cast<size_t>(needed), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, reinterpret_cast<PassedList>(args));
    return text;
}

// One call of the logger.
struct LogLine {
    int level; // the level the library passed
    const char* format; // the format pointer exactly as passed
    std::string text; // the formatted line
};

// Installs a capturing logger (and a logging level) for its lifetime; the
// destructor removes the logger and restores the previous level.
class LogCapture {
public:
    enum Source { Library, SocketLayer };

    explicit LogCapture(int level = UlmarComms::Core::LogVerbose, Source source = Library)
        : m_source(source), m_previousLevel(getLevel())
    {
        std::lock_guard<std::mutex> guard(store().lock);
        assert(!store().active && "only one LogCapture at a time");
        store().active = true;
        store().lines.clear();
        setLevel(level);
        setLogger(&LogCapture::logger);
    }

    ~LogCapture()
    {
        setLogger(nullptr);
        setLevel(m_previousLevel);
        std::lock_guard<std::mutex> guard(store().lock);
        store().active = false;
        store().lines.clear();
    }

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // A snapshot of every line captured so far, in order.
    std::vector<LogLine> lines() const
    {
        std::lock_guard<std::mutex> guard(store().lock);
        return store().lines;
    }

    // How many captured lines contain needle.
    size_t count(const std::string& needle) const
    {
        std::lock_guard<std::mutex> guard(store().lock);
        size_t found = 0;
        for (const LogLine& line : store().lines)
            found += line.text.find(needle) != std::string::npos ? 1 : 0;
        return found;
    }

    // Whether any captured line contains needle.
    bool contains(const std::string& needle) const { return count(needle) > 0; }

    // Polls until a line containing needle arrives or the deadline passes.
    bool waitFor(const std::string& needle, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const
    {
        return waitUntil([&] { return contains(needle); }, timeout);
    }

    // Forgets the lines captured so far.
    void clear()
    {
        std::lock_guard<std::mutex> guard(store().lock);
        store().lines.clear();
    }

private:
    struct Store {
        std::mutex lock;
        bool active = false;
        std::vector<LogLine> lines;
    };

    static Store& store()
    {
        static Store s_store;
        return s_store;
    }

    int getLevel() const
    {
        return m_source == Library ? UlmarComms::Core::getLoggingLevel() : UlmarCommsSystem::Socket::getLoggingLevel();
    }
    void setLevel(int level) const
    {
        m_source == Library ? UlmarComms::Core::setLoggingLevel(level)
                            : UlmarCommsSystem::Socket::setLoggingLevel(level);
    }
    void setLogger(void (*logger)(int, const char*, char*)) const
    {
        m_source == Library ? UlmarComms::Core::setLogger(logger) : UlmarCommsSystem::Socket::setLogger(logger);
    }

    static void logger(int level, const char* format, char* args)
    {
        std::string text = formatLogArguments(format, args);
        std::lock_guard<std::mutex> guard(store().lock);
        store().lines.push_back(LogLine{level, format, std::move(text)});
    }

    Source m_source;
    int m_previousLevel;
};

} // namespace UlmarCommsTest
