// Address parsing, printing and matching, and the shared text splitters.
#include "core/address.h"

#include "core/core.h"

#include <algorithm>
#include <cstring>
#include <strings.h>

namespace UlmarComms {

void splitOn(const std::string& text, const std::string& delimiters, std::vector<std::string>& out)
{
    out.clear();
    size_t start = text.find_first_not_of(delimiters);
    while (start != std::string::npos) {
        const size_t end = text.find_first_of(delimiters, start);
        out.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos)
            break;
        start = text.find_first_not_of(delimiters, end);
    }
}

bool splitOn(const std::string& text, const std::string& delimiters, std::string& left, std::string& right)
{
    const size_t at = text.find_first_of(delimiters);
    if (at == std::string::npos)
        return false;
    left = text.substr(0, at);
    right = text.substr(at + 1);
    return true;
}

Address::Address() = default;

namespace {

// splitOn(text, "/", out) over a range, without copying the range first:
// every router parses each message's target, so this is on every message's
// path. At least four slots are kept, so a usual path allocates the list once.
void splitPath(const char* begin, const char* end, std::vector<std::string>& out)
{
    out.clear();
    if (out.capacity() < 4)
        out.reserve(4);
    const char* p = begin;
    while (p < end) {
        while (p < end && *p == '/')
            ++p;
        const char* start = p;
        while (p < end && *p != '/')
            ++p;
        if (p > start)
            out.emplace_back(start, static_cast<size_t>(p - start));
    }
}

} // namespace

Address::Address(const char* text)
{
    if (text != nullptr)
        parse(text, std::strlen(text));
    else
        parse("", 0);
}

Address::Address(const std::string& text)
{
    set(text);
}

Address::Address(const Address& other)
{
    copy(other);
}

Address& Address::operator=(const Address& other)
{
    if (this != &other)
        copy(other);
    return *this;
}

void Address::set(const std::string& text)
{
    parse(text.data(), text.size());
}

void Address::parse(const char* text, size_t length)
{
    if (length != 0) {
        const char* end = text + length;
        const char* at = static_cast<const char*>(std::memchr(text, '@', length));
        if (at == nullptr) {
            splitPath(text, end, m_parts);
        } else {
            m_host.assign(text, static_cast<size_t>(at - text));
            splitPath(at + 1, end, m_parts);
        }
    }
    // Only an empty host is filled in here; "localhost" survives parsing and
    // is replaced only by an explicit setHost().
    if (m_host.empty())
        m_host = Core::instance()->getHostName();
}

void Address::copy(const Address& other)
{
    m_host = other.m_host;
    m_parts = other.m_parts;
}

void Address::setHost()
{
    if (m_host.empty() || m_host == "localhost")
        m_host = Core::instance()->getHostName();
}

std::string Address::toString() const
{
    std::string text;
    if (!m_host.empty()) {
        text = m_host;
        text += '@';
    }
    for (size_t i = 0; i < m_parts.size(); ++i) {
        if (i != 0)
            text += '/';
        text += m_parts[i];
    }
    return text;
}

bool Address::operator==(const Address& other) const
{
    return m_parts == other.m_parts;
}

bool Address::match(const Address& other, int& score) const
{
    const size_t n = std::min(m_parts.size(), other.m_parts.size());
    for (size_t i = 0; i < n; ++i) {
        const std::string& mine = m_parts[i];
        const std::string& theirs = other.m_parts[i];
        if (mine.size() != theirs.size() || strncasecmp(mine.c_str(), theirs.c_str(), mine.size()) != 0)
            return false;
    }
    score = static_cast<int>(n);
    return true;
}

} // namespace UlmarComms
