// JSON serialisation for the client's output.
#include "ulmarcomms/json.h"

#include <cstdio>

namespace UlmarCommsTools {

std::string jsonString(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '\b': out += "\\b"; break;
        case '\f': out += "\\f"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof(escaped), "\\u%04x",
                              static_cast<unsigned>(static_cast<unsigned char>(c)));
                out += escaped;
            } else {
                out += c;
            }
        }
    }
    out += '"';
    return out;
}

JsonObject& JsonObject::addRaw(const std::string& key, const std::string& rawValue)
{
    m_members.emplace_back(key, rawValue);
    return *this;
}

JsonObject& JsonObject::add(const std::string& key, const std::string& value)
{
    return addRaw(key, jsonString(value));
}

JsonObject& JsonObject::add(const std::string& key, const char* value)
{
    return value == nullptr ? addNull(key) : add(key, std::string(value));
}

JsonObject& JsonObject::add(const std::string& key, long value)
{
    return addRaw(key, std::to_string(value));
}

JsonObject& JsonObject::addBool(const std::string& key, bool value)
{
    return addRaw(key, value ? "true" : "false");
}

JsonObject& JsonObject::addNull(const std::string& key)
{
    return addRaw(key, "null");
}

JsonObject& JsonObject::add(const std::string& key, const std::vector<std::string>& values)
{
    std::string raw = "[";
    for (size_t index = 0; index < values.size(); ++index) {
        if (index > 0)
            raw += ',';
        raw += jsonString(values[index]);
    }
    raw += ']';
    return addRaw(key, raw);
}

JsonObject& JsonObject::add(const std::string& key, const JsonObject& value)
{
    return addRaw(key, value.str());
}

JsonObject& JsonObject::add(const std::string& key, const std::vector<JsonObject>& values)
{
    std::string raw = "[";
    for (size_t index = 0; index < values.size(); ++index) {
        if (index > 0)
            raw += ',';
        raw += values[index].str();
    }
    raw += ']';
    return addRaw(key, raw);
}

std::string JsonObject::str() const
{
    std::string out = "{";
    for (size_t index = 0; index < m_members.size(); ++index) {
        if (index > 0)
            out += ',';
        out += jsonString(m_members[index].first);
        out += ':';
        out += m_members[index].second;
    }
    out += '}';
    return out;
}

} // namespace UlmarCommsTools
