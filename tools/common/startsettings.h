// The --set KEY=VALUE items of a run, turned into the library's start
// argument ("key=value;key=value") and read back for the few settings the
// programs need before the runtime exists (which local link to probe).
//
// The library checks the items itself and refuses a bad argument as a whole;
// this class only refuses what could not be carried in the argument at all
// (no '=', an empty key, a ';' that would split an item) and reads values the
// way the library does: blanks around key and value trimmed, the last item
// for a key winning.
#pragma once

#include "common/probe.h"

#include <string>
#include <utility>
#include <vector>

namespace UlmarCommsTools {

class StartSettings {
public:
    // Adds one "KEY=VALUE" item; false with a reason when it is unusable.
    bool add(const std::string& item, std::string& reason);
    // The start argument: the items joined by ';' (empty without items).
    std::string startArgument() const;
    // The trimmed value of the last item for key, or fallback.
    std::string value(const std::string& key, const std::string& fallback) const;
    // The local link these settings select; false with a reason when a flag
    // that decides it is not a number.
    bool linkTarget(LinkTarget& target, std::string& reason) const;
    // Whether no item was given.
    bool empty() const { return m_items.empty(); }

private:
    // (trimmed key, trimmed value) per item, in order.
    std::vector<std::pair<std::string, std::string>> m_items;
};

} // namespace UlmarCommsTools
