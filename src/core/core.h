// The process-wide services every part consults: the settings table, the
// logging gate in front of the application's logger, this machine's host
// name, and the error reply built when a message cannot be delivered.
//
// The library never formats log text: the logger receives the level, the
// format and the call's argument list, under one logging lock so that it is
// never entered by two threads at once. Each text is written at most a few
// times a second (core/logthrottle.h); lines held back are counted and
// summarised once the second has passed. Settings are insert-only: the first
// value stored for a key wins, and every key of the table holds its default
// from the moment the singleton exists.
#pragma once

#include "core/logthrottle.h"

#include <atomic>
#include <cstdarg>
#include <map>
#include <mutex>
#include <string>

namespace UlmarComms {

class MessageItem;

class Core {
public:
    // The application's log sink: level, printf format, the call's va_list.
    typedef void (*Logger)(int level, const char* format, char* args);

    static constexpr int LogVerbose = 0;
    static constexpr int LogMessage = 1;
    static constexpr int LogWarning = 2;
    static constexpr int LogError = 3;
    static constexpr int LogFatal = 4;

    // The singleton, made with all defaults on first call and never destroyed.
    static Core* instance();

    // Stores a number setting unless the key already holds one.
    void addSetting(const std::string& key, int value);
    // Stores a text setting unless the key already holds one.
    void addSetting(const std::string& key, const std::string& value);
    // A number setting, or 0 when absent.
    int getNumber(const std::string& key) const;
    // A text setting, or a shared empty text when absent.
    const std::string& getString(const std::string& key) const;
    // A number setting, or its table default when it was never stored (the
    // local-link policy keys are stored only when given).
    int numberOrDefault(const std::string& key) const;
    // A text setting, or its table default when it was never stored.
    std::string stringOrDefault(const std::string& key) const;
    // All number settings, in key order.
    const std::map<std::string, int>& numberSettings() const { return m_numbers; }
    // All text settings, in key order.
    const std::map<std::string, std::string>& stringSettings() const { return m_strings; }

    // Replaces a setting even if it exists: the one exception to the
    // insert-only rule, used by applyStartArgument before start-up reads any
    // setting. The C interface's option setters stay insert-only.
    void overrideSetting(const std::string& key, int value);
    // Text form of overrideSetting.
    void overrideSetting(const std::string& key, const std::string& value);
    // Applies a start argument "key=value;..." of table keys (blank items
    // ignored, blanks trimmed); false, logged and nothing changed when any
    // item is refused. A text without '=' is not an override list: accepted
    // and ignored.
    bool applyStartArgument(const std::string& arg);

    // This machine's host name, asked of the system once and cached.
    const std::string& getHostName();
    // Replaces the cached host name (empty: ask the system again). Call it
    // before other threads run: readers keep the text by reference.
    void setHostName(const std::string& name);

    // Installs the application's logger; null switches logging off.
    static int setLogger(Logger logger);
    // Sets the lowest level passed to the logger.
    static int setLoggingLevel(int level);
    // The lowest level passed to the logger.
    static int getLoggingLevel();
    // Logs at LogMessage.
    static void message(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // Logs at LogVerbose.
    static void verbose(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // Logs at the given level.
    static void log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
    // Writes the summaries of log texts held back in windows that have
    // ended; the selector workers call it as they wake, so a text that went
    // quiet is still summarised. Cheap when nothing is held back.
    static void flushLogSummaries();

    // Builds (does not send) the error reply to an undeliverable message;
    // null when it has no "from" or no sender id. `failed` stays the
    // caller's. Defined in src/messaging/errorreply.cpp.
    MessageItem* errorOut(const MessageItem* failed, int code);

private:
    Core();
    void installDefaults();

    // The logger and level are plain stores; atomics keep readers on other
    // threads well defined without a lock.
    std::atomic<Logger> m_logger;
    // The file-scope logging lock (it lives from library load to unload,
    // apart from the singleton); every call into the logger holds it.
    std::recursive_mutex* m_pLoggingProtection;
    // Passes one line through the throttle to the logger, under the lock.
    void deliver(Logger logger, int level, const char* format, va_list args);

    // Which lines reach the logger; used under the logging lock only.
    LogThrottle m_throttle;
    std::atomic<int> m_loggingLevel;
    // Filled once, on first use, by whichever thread asks first: the
    // service's main thread and its selector workers may ask at once.
    std::string m_hostName;
    std::atomic<bool> m_hostNameReady{false};
    std::mutex m_hostNameLock;
    std::map<std::string, std::string> m_strings;
    std::map<std::string, int> m_numbers;
};

} // namespace UlmarComms
