// Daemon option parsing. Options take their value as the next argument or
// after '=' ("--log-level 3" or "--log-level=3"); a word that is not an
// option is a start argument in the library's own form.
#include "ulmarcommsd/daemonoptions.h"

#include "common/numbers.h"
#include "core/limits.h"
#include "network/networkpolicy.h"

#include <algorithm>
#include <cctype>
#include <climits>

namespace UlmarCommsTools {

namespace {

// Splits "--name=value" into name and value; true when a value was inline.
bool splitInline(const std::string& arg, std::string& name, std::string& value)
{
    const size_t equals = arg.find('=');
    if (equals == std::string::npos) {
        name = arg;
        return false;
    }
    name = arg.substr(0, equals);
    value = arg.substr(equals + 1);
    return true;
}

// A whole start argument given as it would be passed to the library
// ("key=value;key=value"), as service units and scripts pass it. Like the
// library, a word without '=' (a name, say) is accepted and ignored.
bool addStartArgument(const std::string& argument, StartSettings& settings, std::string& error)
{
    if (argument.find('=') == std::string::npos)
        return true;
    size_t start = 0;
    while (start <= argument.size()) {
        const size_t end = std::min(argument.find(';', start), argument.size());
        const std::string item = argument.substr(start, end - start);
        if (item.find_first_not_of(" \t") != std::string::npos && !settings.add(item, error))
            return false;
        start = end + 1;
    }
    return true;
}

const char* const kAllowKey = "ulmar.networkrouter.ip4.allow";
const char* const kAllowAnyKey = "ulmar.networkrouter.ip4.allow.any";

// Adds the --allow-network networks to the allow list (the last item for a
// key wins, so one item carries the whole list) and checks the list.
bool addAllowedNetworks(const std::vector<std::string>& networks, StartSettings& settings, std::string& error)
{
    std::string list = settings.value(kAllowKey, "");
    for (const std::string& network : networks)
        list += (list.empty() ? "" : ",") + network;
    std::vector<UlmarComms::Ip4Network> parsed;
    if (!UlmarComms::parseIp4NetworkList(list, parsed, error)) {
        error = std::string(kAllowKey) + ": " + error;
        return false;
    }
    return networks.empty() || settings.add(std::string(kAllowKey) + "=" + list, error);
}

std::string joined(const std::vector<std::string>& items)
{
    std::string text;
    for (const std::string& item : items)
        text += (text.empty() ? "" : ",") + item;
    return text;
}

// The policy options as settings items; they come after the --set items, so
// an option given on the command line wins over a --set of the same key.
bool addPolicySettings(DaemonOptions& options, std::string& error)
{
    if (!options.allowGroups.empty() &&
        !options.settings.add("ulmar.systemrouter.pipe.allow.groups=" + joined(options.allowGroups), error))
        return false;
    if (!options.allowUsers.empty() &&
        !options.settings.add("ulmar.systemrouter.pipe.allow.users=" + joined(options.allowUsers), error))
        return false;
    return !options.allowEveryone || options.settings.add("ulmar.systemrouter.pipe.allow.everyone=1", error);
}

// The options that set one of the local link's bounds (core/limits.h). Like
// the allow options they are stored only when given, so a service started
// without them lists exactly the settings it always lists.
struct BoundOption {
    const char* name;
    const char* key;
};
const BoundOption kBoundOptions[] = {
    {"--links-per-user", UlmarComms::Limits::LinksPerUserKey},
    {"--links-total", UlmarComms::Limits::LinksTotalKey},
    {"--pumps-per-link", UlmarComms::Limits::PumpsPerLinkKey},
};

const BoundOption* boundOption(const std::string& name)
{
    for (const BoundOption& option : kBoundOptions) {
        if (name == option.name)
            return &option;
    }
    return nullptr;
}

bool addBound(const BoundOption& option, const std::string& value, StartSettings& settings, std::string& error)
{
    long number = 0;
    if (!parseNumber(value, 1, 1000000000, number)) {
        error = std::string(option.name) + " takes a number from 1 to 1000000000, not '" + value + "'";
        return false;
    }
    return settings.add(std::string(option.key) + "=" + std::to_string(number), error);
}

// A group or user name as the policy takes it: one word, no list separator.
bool policyName(const std::string& option, const std::string& value, std::string& error)
{
    if (!value.empty() && value.find_first_of(",; \t=") == std::string::npos)
        return true;
    error = option + " takes one user or group name (or number), not '" + value + "'";
    return false;
}

// The memory options and the settings they set.
struct MemoryOption {
    const char* name;
    const char* key;
};
const MemoryOption kMemoryOptions[] = {
    {"--link-memory", "ulmar.systemrouter.memory.link"},
    {"--user-memory", "ulmar.systemrouter.memory.user"},
    {"--memory", "ulmar.systemrouter.memory"},
};

const MemoryOption* memoryOption(const std::string& name)
{
    for (const MemoryOption& option : kMemoryOptions) {
        if (name == option.name)
            return &option;
    }
    return nullptr;
}

// A byte count with an optional K, M or G (powers of 1024). Settings are
// int, so the count must fit one; below 64 KiB no link could work.
bool parseBytes(const std::string& option, const std::string& text, long& bytes, std::string& error)
{
    const long minimum = 64 * 1024;
    std::string digits = text;
    long unit = 1;
    if (!digits.empty()) {
        const char suffix = digits.back();
        const long units[] = {1024L, 1024L * 1024L, 1024L * 1024L * 1024L};
        const std::string letters = "KMG";
        const size_t found = letters.find(static_cast<char>(std::toupper(static_cast<unsigned char>(suffix))));
        if (found != std::string::npos) {
            unit = units[found];
            digits.pop_back();
        }
    }
    long count = 0;
    if (!digits.empty() && digits[0] != '-' && parseNumber(digits, 1, INT_MAX, count) && count <= INT_MAX / unit &&
        count * unit >= minimum) {
        bytes = count * unit;
        return true;
    }
    error = option + " takes a byte count from 64K to 2147483647 (suffix K, M or G allowed), not '" + text + "'";
    return false;
}

} // namespace

DaemonParse parseDaemonOptions(const std::vector<std::string>& args, DaemonOptions& options, std::string& error)
{
    std::vector<std::string> allowed;
    std::vector<std::string> memory; // settings items of the memory options
    for (size_t index = 0; index < args.size(); ++index) {
        const std::string& arg = args[index];
        if (arg == "--help" || arg == "-h")
            return DaemonParse::Help;
        if (arg == "--version")
            return DaemonParse::Version;
        if (arg == "--allow-any-network") {
            if (!options.settings.add(std::string(kAllowAnyKey) + "=1", error))
                return DaemonParse::Usage;
            continue;
        }
        if (arg == "--allow-everyone") {
            options.allowEveryone = true;
            continue;
        }
        if (arg.rfind("-", 0) != 0) {
            if (!addStartArgument(arg, options.settings, error))
                return DaemonParse::Usage;
            continue;
        }
        std::string name;
        std::string value;
        const bool inlineValue = splitInline(arg, name, value);
        if (name != "--set" && name != "--log-level" && name != "--allow-network" && name != "--allow-group" &&
            name != "--allow-user" && memoryOption(name) == nullptr && boundOption(name) == nullptr) {
            error = "unknown argument '" + arg + "'";
            return DaemonParse::Usage;
        }
        if (!inlineValue) {
            if (index + 1 >= args.size()) {
                error = name + " needs a value";
                return DaemonParse::Usage;
            }
            value = args[++index];
        }
        if (name == "--allow-network") {
            UlmarComms::Ip4Network network;
            if (!UlmarComms::parseIp4Network(value, network, error)) {
                error = "--allow-network: " + error;
                return DaemonParse::Usage;
            }
            allowed.push_back(value);
            continue;
        }
        if (const MemoryOption* option = memoryOption(name)) {
            long bytes = 0;
            if (!parseBytes(name, value, bytes, error))
                return DaemonParse::Usage;
            memory.push_back(std::string(option->key) + "=" + std::to_string(bytes));
            continue;
        }
        if (const BoundOption* bound = boundOption(name)) {
            if (!addBound(*bound, value, options.settings, error))
                return DaemonParse::Usage;
            continue;
        }
        if (name == "--set") {
            if (!options.settings.add(value, error))
                return DaemonParse::Usage;
            continue;
        }
        if (name == "--allow-group" || name == "--allow-user") {
            if (!policyName(name, value, error))
                return DaemonParse::Usage;
            (name == "--allow-group" ? options.allowGroups : options.allowUsers).push_back(value);
            continue;
        }
        long level = 0;
        if (!parseNumber(value, 0, 4, level)) {
            error = "--log-level takes a number from 0 to 4, not '" + value + "'";
            return DaemonParse::Usage;
        }
        options.logLevel = static_cast<int>(level);
    }
    if (!addAllowedNetworks(allowed, options.settings, error))
        return DaemonParse::Usage;
    // After the --set items, so an option wins over a --set of its key.
    for (const std::string& item : memory) {
        if (!options.settings.add(item, error))
            return DaemonParse::Usage;
    }
    return addPolicySettings(options, error) ? DaemonParse::Run : DaemonParse::Usage;
}

std::string daemonUsage()
{
    return "Usage: ulmarcommsd [--set KEY=VALUE]... [--log-level N] [--allow-group NAME]...\n"
           "                   [--allow-user NAME|UID]... [--allow-everyone] [--allow-network CIDR]...\n"
           "                   [--allow-any-network] [--link-memory BYTES] [--user-memory BYTES]\n"
           "                   [--memory BYTES] [--links-per-user N] [--links-total N]\n"
           "                   [--pumps-per-link N] [KEY=VALUE[;KEY=VALUE...]]\n"
           "\n"
           "Runs this machine's system router service in the foreground until\n"
           "SIGTERM or SIGINT, then shuts it down and exits 0.\n"
           "\n"
           "Options:\n"
           "  --set KEY=VALUE  override one of the library's settings for this run\n"
           "                   (repeatable), e.g. --set ulmar.systemrouter.pipe.name=test\n"
           "                   to serve a separate bus on the abstract socket __test.sock\n"
           "  --log-level N    lowest library log level written to stderr: 0 verbose,\n"
           "                   1 message, 2 warning (default), 3 error, 4 fatal\n"
           "  --allow-network CIDR\n"
           "                   with the network router on, also take links and\n"
           "                   discovery datagrams from this IPv4 network, e.g.\n"
           "                   10.1.0.0/16 or a single 10.1.2.3 (repeatable); by default\n"
           "                   only loopback and the subnets of the interfaces the\n"
           "                   router broadcasts on are trusted, and these add to them\n"
           "  --allow-any-network\n"
           "                   take links and discovery datagrams from any address\n"
           "  --allow-group NAME  let members of group NAME use the bus (repeatable;\n"
           "                   without it, members of the group 'ulmarcomms' when it\n"
           "                   exists); root and the daemon's own user always may\n"
           "  --allow-user NAME|UID  let this user use the bus (repeatable)\n"
           "  --allow-everyone let every local user use the bus; each user still\n"
           "                   owns the names its programs register\n"
           "  --link-memory BYTES  memory the frames queued for one local link may\n"
           "                   hold (default 16M); a link that does not read and\n"
           "                   would pass it is ended, its senders carry on\n"
           "  --user-memory BYTES  memory all local links of one user may hold\n"
           "                   (default 128M)\n"
           "  --memory BYTES   memory all local links together may hold (default\n"
           "                   256M); BYTES takes a suffix K, M or G\n"
           "  --links-per-user N  local links one user may hold open (default 256);\n"
           "                   more are closed at once and logged\n"
           "  --links-total N  local links of all users together (default: half the\n"
           "                   descriptor limit, less 64 kept back)\n"
           "  --pumps-per-link N  pumps one local link may register (default 4096)\n"
           "  KEY=VALUE;...    a whole start argument, as the library takes it; its\n"
           "                   items are added to the --set items (a word without\n"
           "                   '=' is accepted and ignored)\n"
           "  --help           show this text\n"
           "  --version        show the version\n"
           "\n"
           "Exit status: 0 after a clean shutdown; 1 when another service already\n"
           "answers on the same local link or the service could not start; 2 for a\n"
           "usage error.\n";
}

} // namespace UlmarCommsTools
