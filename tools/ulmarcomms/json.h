// A minimal JSON object writer for the client's --json output: one object per
// line, keys in the order they were added, strings escaped per RFC 8259
// (control characters as \u00XX; bytes of 0x80 and above passed through, as
// the library's texts are UTF-8 or plain ASCII).
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace UlmarCommsTools {

// Quotes and escapes text as a JSON string.
std::string jsonString(const std::string& text);

class JsonObject {
public:
    // Adds a string member.
    JsonObject& add(const std::string& key, const std::string& value);
    // Adds a string member (a C string; null becomes JSON null).
    JsonObject& add(const std::string& key, const char* value);
    // Adds a number member.
    JsonObject& add(const std::string& key, long value);
    // Adds a number member.
    JsonObject& add(const std::string& key, int value) { return add(key, static_cast<long>(value)); }
    // Adds a boolean member.
    JsonObject& addBool(const std::string& key, bool value);
    // Adds a null member.
    JsonObject& addNull(const std::string& key);
    // Adds an array of strings.
    JsonObject& add(const std::string& key, const std::vector<std::string>& values);
    // Adds a nested object.
    JsonObject& add(const std::string& key, const JsonObject& value);
    // Adds an array of nested objects.
    JsonObject& add(const std::string& key, const std::vector<JsonObject>& values);
    // The object as one line of JSON (no trailing newline).
    std::string str() const;

private:
    JsonObject& addRaw(const std::string& key, const std::string& rawValue);
    // (key, already-serialised value) in insertion order.
    std::vector<std::pair<std::string, std::string>> m_members;
};

} // namespace UlmarCommsTools
