// The non-template half of the path index: folding names into keys.
#include "core/pathindex.h"

namespace UlmarComms {

namespace {

// ASCII lower case, as the case-insensitive comparison of names folds it.
char folded(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

std::vector<std::string> foldedPrefixKeys(const std::vector<std::string>& parts)
{
    std::vector<std::string> keys;
    keys.reserve(parts.size());
    std::string key;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i != 0)
            key += '/';
        for (char c : parts[i])
            key += folded(c);
        keys.push_back(key);
    }
    return keys;
}

void foldKey(const std::vector<std::string>& parts, std::string& key)
{
    key.clear();
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i != 0)
            key += '/';
        for (char c : parts[i])
            key += folded(c);
    }
}

} // namespace UlmarComms
