// Settings with their defaults, the logging gate, the host name cache and
// the error reply.
#include "core/core.h"

#include "messaging/messaging.h"
#include "platform/mutex.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace UlmarComms {

namespace {

// The one logging lock; it exists from library load to unload, independently
// of the singleton, so even the singleton's construction may log.
UlmarCommsSystem::Mutex loggingProtection;

const std::string emptyString;

// Hands one call's arguments to the application's logger under the lock.
void deliver(UlmarCommsSystem::Mutex* lock, Core::Logger logger, int level, const char* format,
             va_list args)
{
    UlmarCommsSystem::MutexLocker locker(lock);
    // The logger receives the platform's va_list as char*, as applications
    // of this library expect.
    logger(level, format, reinterpret_cast<char*>(args));
}

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

void Core::installDefaults()
{
    addSetting("socket.selection.timeout", 500);
    addSetting("socket.selection.noworkerthreads", 1);
    addSetting("socket.selection.systemmode.noworkerthreads", 1);
    addSetting("dataframehandler.inbound.size", 4096);
    addSetting("dataframehandler.outbound.size", 4096);
    addSetting("socketmessagerouterproxy.inbound.size", 4096);
    addSetting("socketmessagerouterproxy.outbound.size", 4096);
    addSetting("socketsystemrouterproxy.inbound.size", 4096);
    addSetting("socketsystemrouterproxy.outbound.size", 4096);
    addSetting("ulmar.systemrouter.ip4", 0);
    addSetting("ulmar.systemrouter.ip4.port", std::string("13001"));
    addSetting("ulmar.systemrouter.ip4.addresses", std::string("127.0.0.1"));
    addSetting("ulmar.systemrouter.pipe", 1);
    addSetting("ulmar.systemrouter.pipe.name", std::string("ulmarcomms"));
    addSetting("ulmar.networkrouter", 0);
    addSetting("ulmar.networkrouter.discovery", 0);
    addSetting("ulmar.networkrouter.discovery.timeout", 5000);
    addSetting("ulmar.networkrouter.isMaster", 0);
    addSetting("ulmar.networkrouter.isLowerOrder", 0);
    addSetting("ulmar.networkrouter.inStelthMode", 0);
    addSetting("ulmar.networkrouter.ip4", 1);
    addSetting("ulmar.networkrouter.ip4.networks", std::string("*"));
    addSetting("ulmar.networkrouter.ip4.addresses", std::string("*"));
    addSetting("ulmar.networkrouter.ip4.port", std::string("34001"));
    addSetting("ulmar.networkrouter.ip6", 0);
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

const std::string& Core::getString(const std::string& key) const
{
    auto found = m_strings.find(key);
    return found == m_strings.end() ? emptyString : found->second;
}

const std::string& Core::getHostName()
{
    if (!m_hostName.empty())
        return m_hostName;
    char buffer[256];
    std::memset(buffer, 0, sizeof(buffer));
    if (gethostname(buffer, 255) != 0)
        m_hostName = "unknownhost";
    else
        m_hostName = buffer;
    return m_hostName;
}

void Core::setHostName(const std::string& name)
{
    m_hostName = name;
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

void Core::message(const char* format, ...)
{
    Core* core = instance();
    Logger logger = core->m_logger;
    if (logger == nullptr || core->m_loggingLevel > LogMessage)
        return;
    va_list args;
    va_start(args, format);
    deliver(core->m_pLoggingProtection, logger, LogMessage, format, args);
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
    deliver(core->m_pLoggingProtection, logger, LogVerbose, format, args);
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
    deliver(core->m_pLoggingProtection, logger, level, format, args);
    va_end(args);
}

MessageItem* Core::errorOut(MessageItem* failed, int code)
{
    if (failed == nullptr)
        return nullptr;
    const char* from = failed->value(MessageItem::ArgumentKey_From);
    if (from == nullptr) {
        log(LogError, "Core::errorOut( %p, %d ) No From.\n", static_cast<void*>(failed), code);
        MessageItem::release(failed);
        return nullptr;
    }
    const char* senderId = failed->value(MessageItem::ArgumentKey_SenderId);
    if (senderId == nullptr) {
        log(LogError, "Core::errorOut( %p, %d ) No SenderId.\n", static_cast<void*>(failed), code);
        MessageItem::release(failed);
        return nullptr;
    }
    MessageItem* reply = MessageItem::create();
    if (reply == nullptr)
        return nullptr;
    char codeText[16];
    std::snprintf(codeText, sizeof(codeText), "%d", code);
    const char* to = failed->value(MessageItem::ArgumentKey_To);
    bool built = reply->add(MessageItem::ArgumentKey_To, from)
        && reply->add(MessageItem::ArgumentKey_ResponseId, senderId);
    // A failed message without a "to" gets a reply without a "from": the
    // pair is skipped rather than invented as an empty address.
    if (built && to != nullptr)
        built = reply->add(MessageItem::ArgumentKey_From, to);
    built = built && reply->add(MessageItem::ArgumentKey_Mode, MessageItem::Mode_ErrorText)
        && reply->add(MessageItem::ArgumentKey_SenderId, "0")
        && reply->add(MessageItem::ArgumentKey_ErrorRoutingHostId, getHostName().c_str())
        && reply->add(MessageItem::ArgumentKey_Method, codeText);
    if (!built) {
        MessageItem::release(reply);
        return nullptr;
    }
    return reply;
}

} // namespace UlmarComms
