// Whole-number parsing for command-line values. Options are strict: a value
// with blanks, signs where none belong, or trailing text is refused rather
// than half read, so a typo never turns into a surprising setting.
#pragma once

#include <string>

namespace UlmarCommsTools {

// Parses a whole decimal number (optional leading '-') in [min, max].
bool parseNumber(const std::string& text, long min, long max, long& value);

} // namespace UlmarCommsTools
