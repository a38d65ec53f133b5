// Strict decimal parsing shared by both programs.
#include "common/numbers.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace UlmarCommsTools {

bool parseNumber(const std::string& text, long min, long max, long& value)
{
    if (text.empty())
        return false;
    const unsigned char first = static_cast<unsigned char>(text[0]);
    if (!std::isdigit(first) && first != '-')
        return false;
    errno = 0;
    char* end = nullptr;
    const long parsed = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0')
        return false;
    if (parsed < min || parsed > max)
        return false;
    value = parsed;
    return true;
}

} // namespace UlmarCommsTools
