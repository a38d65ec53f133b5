// The parsed form of a message address: a host, "@", then path names joined
// by "/". Routers decide with it whether a message stays on this host and
// which table entry takes it (prefix match of path names, case-insensitive,
// best score wins and ties go to the earlier entry).
#pragma once

#include <string>
#include <vector>

namespace UlmarComms {

// Clears out, then appends every maximal run of non-delimiter characters.
void splitOn(const std::string& text, const std::string& delimiters, std::vector<std::string>& out);
// Splits at the first delimiter; false (outputs untouched) when there is none.
bool splitOn(const std::string& text, const std::string& delimiters, std::string& left, std::string& right);

class Address {
public:
    Address();
    Address(const char* text);
    Address(const std::string& text);
    Address(const Address& other);
    Address& operator=(const Address& other);

    // Parses text; an empty host becomes this machine's host name.
    void set(const std::string& text);
    // Takes host and path from other.
    void copy(const Address& other);
    // The host part.
    const std::string& host() const { return m_host; }
    // The path names, left to right.
    const std::vector<std::string>& parts() const { return m_parts; }
    // Replaces an empty or "localhost" host with this machine's host name.
    void setHost();
    // The printed form: host "@" names joined by "/".
    std::string toString() const;
    // Equal path names (byte for byte); hosts are not compared.
    bool operator==(const Address& other) const;
    // Prefix match of path names ignoring ASCII case; score = names compared.
    bool match(const Address& other, int& score) const;

private:
    // set() over a text of length bytes.
    void parse(const char* text, size_t length);

    std::string m_host;
    std::vector<std::string> m_parts;
};

} // namespace UlmarComms
