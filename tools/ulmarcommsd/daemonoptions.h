// The daemon's command line: --set KEY=VALUE (repeatable), --log-level N,
// the local-link user policy (--allow-group, --allow-user, repeatable, and
// --allow-everyone, turned into the library's allow settings), the trusted
// networks (--allow-network CIDR, repeatable, and --allow-any-network),
// --help, --version, and optionally a whole start argument
// ("key=value;key=value") as a plain word. Parsed into plain values so the
// program's main only acts on them. --allow-network adds its networks to
// "ulmar.networkrouter.ip4.allow" (after any --set value of that key),
// --allow-any-network sets "ulmar.networkrouter.ip4.allow.any" to 1; the
// resulting list is checked here, so a bad network is a usage error.
#pragma once

#include "common/startsettings.h"

#include <string>
#include <vector>

namespace UlmarCommsTools {

// What the daemon was asked to do.
struct DaemonOptions {
    // The --set items.
    StartSettings settings;
    // The lowest library log level written to stderr (0-4).
    int logLevel = 2;
    // --allow-group names, in order; none keeps the library's default group.
    std::vector<std::string> allowGroups;
    // --allow-user names or uids, in order.
    std::vector<std::string> allowUsers;
    // --allow-everyone was given.
    bool allowEveryone = false;
};

// The outcome of parsing.
enum class DaemonParse { Run, Help, Version, Usage };

// Parses the arguments after the program name; on Usage, `error` says why.
DaemonParse parseDaemonOptions(const std::vector<std::string>& args, DaemonOptions& options, std::string& error);
// The --help text.
std::string daemonUsage();

} // namespace UlmarCommsTools
