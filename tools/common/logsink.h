// The library's log lines, written to standard error with a timestamp and
// the level name.
//
// The library hands its logger a printf format and the call's va_list (as
// char*) and never formats anything itself; the sink formats once into a
// bounded buffer and writes the whole line with a single write(2), so lines
// from the library's threads never interleave mid-line.
#pragma once

#include <ctime>
#include <string>

namespace UlmarCommsTools {

// The largest log line written; longer texts are cut and marked with "...".
constexpr size_t kMaxLogText = 4096;

// "VERBOSE", "MESSAGE", "WARNING", "ERROR", "FATAL", or "LEVEL n".
std::string logLevelName(int level);
// Formats the library's (format, va_list-as-char*) pair, at most kMaxLogText.
std::string formatLogText(const char* format, char* args);
// One output line: local time with milliseconds, the level, the text with
// its trailing newlines replaced by exactly one.
std::string formatLogLine(int level, const timespec& when, const std::string& text);
// The logger installed in the library: formats and writes to stderr.
void stderrLogger(int level, const char* format, char* args);

} // namespace UlmarCommsTools
