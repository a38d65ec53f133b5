// Settings with their defaults, the logging gate and the host name cache.
// The error reply declared in core.h is built in src/messaging/errorreply.cpp,
// beside the message record it fills in, so that core includes no other layer.
#include "core/core.h"

#include "core/address.h"
#include "core/limits.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>
#include <vector>

namespace UlmarComms {

namespace {

// The one logging lock; it exists from library load to unload, independently
// of the singleton, so even the singleton's construction may log.
// It is recursive, as every long-lived lock of the library is, so a log call
// made while the lock is already held by the same thread cannot deadlock.
std::recursive_mutex loggingProtection;

const std::string emptyString;

} // namespace

Core::Core() : m_logger(nullptr), m_pLoggingProtection(&loggingProtection), m_loggingLevel(LogWarning)
{
    installDefaults();
}

Core* Core::instance()
{
    static Core* s_instance = new Core();
    return s_instance;
}

namespace {

// The settings table: every key with its type and default, in order. Keys
// not installed are accepted in a start argument and listed once given;
// until then their readers use the default written here (stringOrDefault,
// numberOrDefault), so a service started without them lists exactly the
// settings it always lists.
struct DefaultSetting {
    const char* key;
    bool isNumber;
    int number;
    const char* text;
    bool installed = true;
};

const DefaultSetting kDefaultSettings[] = {
    {"socket.selection.timeout", true, 500, nullptr},
    {"socket.selection.noworkerthreads", true, 1, nullptr},
    {"socket.selection.systemmode.noworkerthreads", true, 1, nullptr},
    {"dataframehandler.inbound.size", true, 4096, nullptr},
    {"dataframehandler.outbound.size", true, 4096, nullptr},
    {"socketmessagerouterproxy.inbound.size", true, 4096, nullptr},
    {"socketmessagerouterproxy.outbound.size", true, 4096, nullptr},
    {"socketsystemrouterproxy.inbound.size", true, 4096, nullptr},
    {"socketsystemrouterproxy.outbound.size", true, 4096, nullptr},
    {"ulmar.systemrouter.ip4", true, 0, nullptr},
    {"ulmar.systemrouter.ip4.port", false, 0, "13001"},
    {"ulmar.systemrouter.ip4.addresses", false, 0, "127.0.0.1"},
    {"ulmar.systemrouter.pipe", true, 1, nullptr},
    {"ulmar.systemrouter.pipe.name", false, 0, "ulmarcomms"},
    {"ulmar.networkrouter", true, 0, nullptr},
    {"ulmar.networkrouter.discovery", true, 0, nullptr},
    {"ulmar.networkrouter.discovery.timeout", true, 5000, nullptr},
    {"ulmar.networkrouter.isMaster", true, 0, nullptr},
    {"ulmar.networkrouter.isLowerOrder", true, 0, nullptr},
    {"ulmar.networkrouter.inStelthMode", true, 0, nullptr},
    {"ulmar.networkrouter.ip4", true, 1, nullptr},
    {"ulmar.networkrouter.ip4.networks", false, 0, "*"},
    {"ulmar.networkrouter.ip4.addresses", false, 0, "*"},
    {"ulmar.networkrouter.ip4.port", false, 0, "34001"},
    {"ulmar.networkrouter.ip6", true, 0, nullptr},
    // The keys below are not installed (see above). 1 makes an application's
    // runtime hold a first pump of its own, so that every pump it creates is
    // announced again when its link to the service returns.
    {"ulmar.messagerouter.reannounce.all", true, 0, nullptr, false},
    // Networks trusted beyond loopback and the subnets of the interfaces in
    // use (CIDR items joined by ","), and the switch that trusts every address.
    {"ulmar.networkrouter.ip4.allow", false, 0, "", false},
    {"ulmar.networkrouter.ip4.allow.any", true, 0, nullptr, false},
    // Who may use the local link besides root and the service's own user:
    // members of these groups (comma-separated names), these users (names or
    // uids), or with 1 every local user.
    {"ulmar.systemrouter.pipe.allow.groups", false, 0, "ulmarcomms", false},
    {"ulmar.systemrouter.pipe.allow.users", false, 0, "", false},
    {"ulmar.systemrouter.pipe.allow.everyone", true, 0, nullptr, false},
    // The user an application believes as its service besides root and
    // itself (a name or a uid).
    {"ulmar.systemrouter.pipe.serviceuser", false, 0, "ulmarcomms", false},
    // Memory in bytes the service's local links may hold: one link's queue,
    // all links of one user, all links (core/limits.h says why these).
    {"ulmar.systemrouter.memory.link", true, 16 * 1024 * 1024, nullptr, false},
    {"ulmar.systemrouter.memory.user", true, 128 * 1024 * 1024, nullptr, false},
    {"ulmar.systemrouter.memory", true, 256 * 1024 * 1024, nullptr, false},
    // The service's bounds on local links and the pumps each may register
    // (core/limits.h says why each is there).
    {Limits::LinksPerUserKey, true, static_cast<int>(Limits::LinksPerUser), nullptr, false},
    {Limits::LinksTotalKey, true, static_cast<int>(Limits::LinksTotal), nullptr, false},
    {Limits::PumpsPerLinkKey, true, static_cast<int>(Limits::PumpsPerLink), nullptr, false},
};

const DefaultSetting* findDefault(const std::string& key)
{
    for (const DefaultSetting& setting : kDefaultSettings) {
        if (key == setting.key)
            return &setting;
    }
    return nullptr;
}

std::string trimmed(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return std::string();
    const size_t last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

// A whole decimal int, optionally signed; nothing else.
bool parseDecimal(const std::string& text, int& value)
{
    if (text.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    const long parsed = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || parsed < INT_MIN || parsed > INT_MAX ||
        std::isspace(static_cast<unsigned char>(text[0])))
        return false;
    value = static_cast<int>(parsed);
    return true;
}

// One parsed override.
struct Override {
    const DefaultSetting* setting;
    int number;
    std::string text;
};

// Parses one "key=value" item; an empty result with a reason on refusal.
bool parseItem(const std::string& item, Override& out, const char*& reason)
{
    std::string key;
    std::string value;
    if (!splitOn(item, "=", key, value)) {
        reason = "no '='";
        return false;
    }
    key = trimmed(key);
    value = trimmed(value);
    out.setting = findDefault(key);
    if (out.setting == nullptr) {
        reason = "unknown setting";
        return false;
    }
    if (out.setting->isNumber && !parseDecimal(value, out.number)) {
        reason = "not a decimal number";
        return false;
    }
    out.text = value;
    return true;
}

} // namespace

void Core::installDefaults()
{
    for (const DefaultSetting& setting : kDefaultSettings) {
        if (!setting.installed)
            continue;
        if (setting.isNumber)
            addSetting(setting.key, setting.number);
        else
            addSetting(setting.key, std::string(setting.text));
    }
}

// Every item is checked before any is applied, so a refused argument changes
// nothing. Overrides replace the value outright: they are the one exception
// to the insert-only rule, applied before start-up reads any setting.
// Programs pass all sorts of text here (an application name, say); only a
// text that uses '=' is read as overrides, anything else changes nothing.
bool Core::applyStartArgument(const std::string& arg)
{
    if (arg.find('=') == std::string::npos)
        return true;
    std::vector<std::string> items;
    splitOn(arg, ";", items);
    std::vector<Override> overrides;
    for (const std::string& item : items) {
        if (trimmed(item).empty())
            continue;
        Override parsed{};
        const char* reason = "";
        if (!parseItem(item, parsed, reason)) {
            log(LogError, "Core::applyStartArgument() Refused start argument item '%s': %s.\n", item.c_str(), reason);
            return false;
        }
        overrides.push_back(parsed);
    }
    for (const Override& item : overrides) {
        if (item.setting->isNumber)
            overrideSetting(item.setting->key, item.number);
        else
            overrideSetting(item.setting->key, item.text);
    }
    return true;
}

void Core::addSetting(const std::string& key, int value)
{
    m_numbers.emplace(key, value);
}

void Core::addSetting(const std::string& key, const std::string& value)
{
    m_strings.emplace(key, value);
}

void Core::overrideSetting(const std::string& key, int value)
{
    m_numbers[key] = value;
}

void Core::overrideSetting(const std::string& key, const std::string& value)
{
    m_strings[key] = value;
}

int Core::getNumber(const std::string& key) const
{
    auto found = m_numbers.find(key);
    return found == m_numbers.end() ? 0 : found->second;
}

int Core::numberOrDefault(const std::string& key) const
{
    auto found = m_numbers.find(key);
    if (found != m_numbers.end())
        return found->second;
    const DefaultSetting* setting = findDefault(key);
    return setting != nullptr && setting->isNumber ? setting->number : 0;
}

std::string Core::stringOrDefault(const std::string& key) const
{
    auto found = m_strings.find(key);
    if (found != m_strings.end())
        return found->second;
    const DefaultSetting* setting = findDefault(key);
    return setting != nullptr && !setting->isNumber ? setting->text : std::string();
}

const std::string& Core::getString(const std::string& key) const
{
    auto found = m_strings.find(key);
    return found == m_strings.end() ? emptyString : found->second;
}

const std::string& Core::getHostName()
{
    if (m_hostNameReady.load(std::memory_order_acquire))
        return m_hostName;
    std::lock_guard<std::mutex> locker(m_hostNameLock);
    if (m_hostName.empty()) {
        char buffer[256];
        std::memset(buffer, 0, sizeof(buffer));
        m_hostName = gethostname(buffer, 255) != 0 ? "unknownhost" : buffer;
    }
    m_hostNameReady.store(true, std::memory_order_release);
    return m_hostName;
}

void Core::setHostName(const std::string& name)
{
    std::lock_guard<std::mutex> locker(m_hostNameLock);
    m_hostName = name;
    m_hostNameReady.store(!name.empty(), std::memory_order_release);
}

int Core::setLogger(Logger logger)
{
    instance()->m_logger = logger;
    return 0;
}

int Core::setLoggingLevel(int level)
{
    instance()->m_loggingLevel = level;
    return 0;
}

int Core::getLoggingLevel()
{
    return instance()->m_loggingLevel;
}

void Core::deliver(Logger logger, int level, const char* format, va_list args)
{
    std::lock_guard<std::recursive_mutex> locker(*m_pLoggingProtection);
    m_throttle.write(logger, level, format, args);
}

void Core::flushLogSummaries()
{
    Core* core = instance();
    Logger logger = core->m_logger;
    if (logger == nullptr || !core->m_throttle.hasPending())
        return;
    std::lock_guard<std::recursive_mutex> locker(*core->m_pLoggingProtection);
    core->m_throttle.flush(logger);
}

void Core::message(const char* format, ...)
{
    Core* core = instance();
    Logger logger = core->m_logger;
    if (logger == nullptr || core->m_loggingLevel > LogMessage)
        return;
    va_list args;
    va_start(args, format);
    core->deliver(logger, LogMessage, format, args);
    va_end(args);
}

void Core::verbose(const char* format, ...)
{
    Core* core = instance();
    Logger logger = core->m_logger;
    if (logger == nullptr || core->m_loggingLevel > LogVerbose)
        return;
    va_list args;
    va_start(args, format);
    core->deliver(logger, LogVerbose, format, args);
    va_end(args);
}

void Core::log(int level, const char* format, ...)
{
    Core* core = instance();
    Logger logger = core->m_logger;
    if (logger == nullptr || core->m_loggingLevel > level)
        return;
    va_list args;
    va_start(args, format);
    core->deliver(logger, level, format, args);
    va_end(args);
}

} // namespace UlmarComms
