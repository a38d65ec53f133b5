// Start-argument assembly and the link choice, mirroring the library's
// defaults for the five local-link settings.
#include "common/startsettings.h"

#include "common/numbers.h"

#include <climits>

namespace UlmarCommsTools {

namespace {

const char* const kPipeFlag = "ulmar.systemrouter.pipe";
const char* const kPipeName = "ulmar.systemrouter.pipe.name";
const char* const kIp4Flag = "ulmar.systemrouter.ip4";
const char* const kIp4Addresses = "ulmar.systemrouter.ip4.addresses";
const char* const kIp4Port = "ulmar.systemrouter.ip4.port";

std::string trimmed(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return std::string();
    const size_t last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

bool flagValue(const StartSettings& settings, const char* key, long fallback, long& value, std::string& reason)
{
    const std::string text = settings.value(key, "");
    if (text.empty()) {
        value = fallback;
        return true;
    }
    if (parseNumber(text, INT_MIN, INT_MAX, value))
        return true;
    reason = std::string(key) + " must be a number, not '" + text + "'";
    return false;
}

} // namespace

bool StartSettings::add(const std::string& item, std::string& reason)
{
    const size_t equals = item.find('=');
    if (equals == std::string::npos) {
        reason = "'" + item + "' is not KEY=VALUE";
        return false;
    }
    if (item.find(';') != std::string::npos) {
        reason = "'" + item + "' contains ';', which separates start-argument items";
        return false;
    }
    std::string key = trimmed(item.substr(0, equals));
    if (key.empty()) {
        reason = "'" + item + "' has an empty key";
        return false;
    }
    m_items.emplace_back(std::move(key), trimmed(item.substr(equals + 1)));
    return true;
}

std::string StartSettings::startArgument() const
{
    std::string argument;
    for (const auto& [key, value] : m_items) {
        if (!argument.empty())
            argument += ';';
        argument += key + "=" + value;
    }
    return argument;
}

std::string StartSettings::value(const std::string& key, const std::string& fallback) const
{
    for (auto item = m_items.rbegin(); item != m_items.rend(); ++item) {
        if (item->first == key)
            return item->second;
    }
    return fallback;
}

// The library prefers the pipe when both flags are set, and has no link at
// all when neither is.
bool StartSettings::linkTarget(LinkTarget& target, std::string& reason) const
{
    long pipe = 0;
    long ip4 = 0;
    if (!flagValue(*this, kPipeFlag, 1, pipe, reason) || !flagValue(*this, kIp4Flag, 0, ip4, reason))
        return false;
    target = LinkTarget();
    if (pipe != 0) {
        target.kind = LinkTarget::Kind::Unix;
        target.pipeName = value(kPipeName, "ulmarcomms");
    } else if (ip4 != 0) {
        target.kind = LinkTarget::Kind::Tcp;
        target.address = value(kIp4Addresses, "127.0.0.1");
        target.port = value(kIp4Port, "13001");
    } else {
        target.kind = LinkTarget::Kind::None;
    }
    return true;
}

} // namespace UlmarCommsTools
