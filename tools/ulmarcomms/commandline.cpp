// Command-line parsing for the client. Each command is described once in a
// table (its positional arguments, whether it takes KEY=VALUE pairs, which
// options it accepts, its help), and one loop parses every command from it.
#include "ulmarcomms/commandline.h"

#include "common/numbers.h"

#include <climits>

namespace UlmarCommsTools {

namespace {

// Options a command may accept.
enum OptionBit : unsigned {
    OptHost = 1u << 0,
    OptActive = 1u << 1,
    OptAll = 1u << 2,
    OptInterfaces = 1u << 3,
    OptEcho = 1u << 4,
    OptReply = 1u << 5,
    OptCount = 1u << 6,
    OptEvery = 1u << 7,
    OptKey = 1u << 8,
};

struct CommandShape {
    const char* word;
    CommandKind kind;
    // Names of the required positional arguments, in order.
    std::vector<const char*> positionals;
    // Whether KEY=VALUE pairs may follow the positionals.
    bool pairs;
    unsigned options;
    const char* synopsis;
    const char* summary;
    const char* details;
};

const std::vector<CommandShape>& commandShapes()
{
    static const std::vector<CommandShape> shapes = {
        {"call",
         CommandKind::Call,
         {"ADDRESS", "METHOD"},
         true,
         OptKey,
         "call ADDRESS METHOD [KEY=VALUE]... [--key KEY]...",
         "send a request and print the reply",
         "Sends METHOD to ADDRESS (host@name/name, or name for this host) with the\n"
         "given pairs and prints the reply's response text. The library offers no\n"
         "way to list a message's pairs, so other pairs of the reply are shown by\n"
         "name: --key KEY (repeatable) prints KEY=VALUE for each one present.\n"
         "An error reply prints its code and exits 1."},
        {"info",
         CommandKind::Info,
         {},
         false,
         OptHost,
         "info [--host HOST]",
         "host information (SystemInfo)",
         "Asks the system endpoint for \"SystemInfo\"."},
        {"settings",
         CommandKind::Settings,
         {},
         false,
         OptHost,
         "settings [--host HOST]",
         "the service's settings (ReadUlmarCommsSettings)",
         "Asks the system endpoint for \"ReadUlmarCommsSettings\": every text setting,\n"
         "the line \"# numbers\", then every number setting."},
        {"table",
         CommandKind::Table,
         {},
         false,
         OptHost,
         "table [--host HOST]",
         "the system routing table (ViewSystemRouterRoutingTable)",
         "Asks the system endpoint for \"ViewSystemRouterRoutingTable\": every pump\n"
         "address known on the machine with its interfaces (joined by '-')."},
        {"hosts",
         CommandKind::Hosts,
         {},
         false,
         OptHost | OptActive,
         "hosts [--active] [--host HOST]",
         "known hosts (KnownHosts)",
         "Asks the system endpoint for \"KnownHosts\"; --active sends activeonly=true."},
        {"host-info",
         CommandKind::HostInfo,
         {"HOST"},
         false,
         OptHost,
         "host-info HOST [--host HOST]",
         "what the network router knows of HOST (HostInformation)",
         "Asks the system endpoint for \"HostInformation\" with host=HOST."},
        {"net-table",
         CommandKind::NetTable,
         {},
         false,
         OptHost,
         "net-table [--host HOST]",
         "the network routing table (NetworkRoutingTable)",
         "Asks the system endpoint for \"NetworkRoutingTable\"."},
        {"who-supports",
         CommandKind::WhoSupports,
         {"INTERFACE[,INTERFACE...]"},
         false,
         OptHost | OptAll,
         "who-supports INTERFACE[,INTERFACE...] [--all] [--host HOST]",
         "addresses supporting interfaces (#AddressSupportingInterfaces)",
         "Asks the system endpoint for \"#AddressSupportingInterfaces\": the addresses\n"
         "supporting any of the interfaces, or with --all every one of them."},
        {"interfaces",
         CommandKind::Interfaces,
         {"ADDRESS"},
         false,
         0,
         "interfaces ADDRESS",
         "the interfaces a pump announces (#IsList)",
         "Asks the pump at ADDRESS for its interface list (\"#IsList\"), printed one\n"
         "per line."},
        {"has",
         CommandKind::Has,
         {"ADDRESS", "INTERFACE"},
         false,
         0,
         "has ADDRESS INTERFACE",
         "whether a pump supports an interface (#IsHas)",
         "Asks the pump at ADDRESS whether it supports INTERFACE (\"#IsHas\") and prints\n"
         "true or false. A pump without interface names never answers: that ends in\n"
         "a time-out (exit 3)."},
        {"events",
         CommandKind::Events,
         {"ADDRESS"},
         false,
         0,
         "events ADDRESS",
         "the events a pump publishes (#EsList)",
         "Asks the pump at ADDRESS for its events (\"#EsList\"), printed one per line."},
        {"listen",
         CommandKind::Listen,
         {"NAME"},
         false,
         OptInterfaces | OptEcho | OptReply | OptCount | OptKey,
         "listen NAME [--interfaces LIST] [--echo | --reply TEXT] [--count N] [--key KEY]...",
         "create a pump and print the requests it receives",
         "Creates the pump NAME (with the comma-separated interface LIST) and prints\n"
         "each request it receives until Ctrl-C or N requests. --echo answers with\n"
         "the request's method as response text, --reply TEXT with TEXT; either one\n"
         "copies the --key pairs of the request into the reply. When the link to the\n"
         "service drops and returns, \"link lost\" and \"link restored\" go to stderr\n"
         "(with --json also {\"command\":\"listen\",\"status\":\"link lost\"} to stdout)."},
        {"subscribe",
         CommandKind::Subscribe,
         {"ADDRESS", "EVENT"},
         false,
         OptCount | OptKey,
         "subscribe ADDRESS EVENT [--count N] [--key KEY]...",
         "register for an event and print each event message",
         "Registers for EVENT at ADDRESS (\"#reg\"), prints each event message until\n"
         "Ctrl-C or N messages, then unregisters. Exits 1 when the publisher refuses\n"
         "the registration (it has no such event). Says \"link lost\" and \"link\n"
         "restored\" on stderr as the link to the service drops and returns (with\n"
         "--json also as {\"command\":\"subscribe\",\"status\":...} lines), and after\n"
         "it returns registers again until the publisher accepts (printed again as\n"
         "subscribed)."},
        {"publish",
         CommandKind::Publish,
         {"NAME", "EVENT"},
         true,
         OptEvery | OptCount,
         "publish NAME EVENT [KEY=VALUE]... [--every MS] [--count N]",
         "create a pump that owns EVENT and emit it",
         "Creates the pump NAME with the event EVENT and emits an event message with\n"
         "the given pairs to every registered listener, at once and then every MS\n"
         "milliseconds (default 1000), until Ctrl-C or N messages, then prints how\n"
         "many it published. Says \"link lost\" and \"link restored\" on stderr as the\n"
         "link to the service drops and returns (with --json also as JSON lines);\n"
         "events emitted while the link is down are neither numbered nor counted\n"
         "towards N, and the closing line gives their number apart."},
    };
    return shapes;
}

const CommandShape* findSpec(const std::string& word)
{
    for (const CommandShape& shape : commandShapes()) {
        if (word == shape.word)
            return &shape;
    }
    return nullptr;
}

std::string optionHelp(unsigned options)
{
    std::string text;
    if (options & OptHost)
        text += "  --host HOST        ask HOST's system endpoint (HOST@/system)\n";
    if (options & OptActive)
        text += "  --active           only hosts that are active\n";
    if (options & OptAll)
        text += "  --all              addresses supporting all of the interfaces\n";
    if (options & OptInterfaces)
        text += "  --interfaces LIST  comma-separated interface names of the pump\n";
    if (options & OptEcho)
        text += "  --echo             answer each request with its method\n";
    if (options & OptReply)
        text += "  --reply TEXT       answer each request with TEXT\n";
    if (options & OptCount)
        text += "  --count N          stop after N messages\n";
    if (options & OptEvery)
        text += "  --every MS         interval between event messages (default 1000)\n";
    if (options & OptKey)
        text += "  --key KEY          show the value of KEY of received messages (repeatable)\n";
    return text;
}

const char* const kGlobalOptionsHelp =
    "Global options (before or after the command):\n"
    "  --set KEY=VALUE    override a library setting (repeatable), e.g.\n"
    "                     --set ulmar.systemrouter.pipe.name=NAME to use another bus\n"
    "  --timeout MS       how long the run may take to get through: connecting,\n"
    "                     starting and the reply (default 5000)\n"
    "  --json             one JSON object per line instead of text\n"
    "  --log-level N      write library log lines of level N (0-4) and above to stderr\n"
    "  --help             show help (after a command: that command's help)\n"
    "  --version          show the version\n";

const char* const kExitHelp = "Exit status: 0 success; 1 an error reply or a refused operation; 2 usage\n"
                              "error; 3 time-out or no service reachable; 4 the bus refused this user\n"
                              "(the service does not let this user in: see --allow-group in ulmarcommsd\n"
                              "--help; or, for a user it never refuses, see 5); 5 the service is not\n"
                              "accepting connections (it holds as many links as it may: --links-per-user,\n"
                              "--links-total in ulmarcommsd --help).\n";

// Reads an option's value: inline after '=' or the next argument.
bool optionValue(const std::vector<std::string>& args, size_t& index, const std::string& name, bool hasInline,
                 const std::string& inlineValue, std::string& value, std::string& error)
{
    if (hasInline) {
        value = inlineValue;
        return true;
    }
    if (index + 1 >= args.size()) {
        error = name + " needs a value";
        return false;
    }
    value = args[++index];
    return true;
}

bool numberOption(const std::string& name, const std::string& text, long min, long& value, std::string& error)
{
    if (parseNumber(text, min, INT_MAX, value))
        return true;
    error = name + " takes a whole number of at least " + std::to_string(min) + ", not '" + text + "'";
    return false;
}

// The parse state shared by the option handlers.
struct Parser {
    Parser(const std::vector<std::string>& arguments, Invocation& parsed, std::string& message)
        : args(arguments), invocation(parsed), text(message)
    {
    }

    const std::vector<std::string>& args;
    Invocation& invocation;
    std::string& text;
    const CommandShape* shape = nullptr;
    std::vector<std::string> positionals;
    bool helpRequested = false;
    bool versionRequested = false;
    bool answerGiven = false;

    // Handles a global option; returns 1 handled, 0 not global, -1 error.
    int global(const std::string& name, bool hasInline, const std::string& inlineValue, size_t& index)
    {
        GlobalOptions& global = invocation.global;
        std::string value;
        if (name == "--json" && !hasInline) {
            global.json = true;
            return 1;
        }
        if ((name == "--help" || name == "-h") && !hasInline) {
            helpRequested = true;
            return 1;
        }
        if (name == "--version" && !hasInline) {
            versionRequested = true;
            return 1;
        }
        if (name != "--set" && name != "--timeout" && name != "--log-level")
            return 0;
        if (!optionValue(args, index, name, hasInline, inlineValue, value, text))
            return -1;
        long number = 0;
        if (name == "--set")
            return global.settings.add(value, text) ? 1 : -1;
        if (name == "--timeout") {
            if (!numberOption(name, value, 1, number, text))
                return -1;
            global.timeoutMs = static_cast<int>(number);
            return 1;
        }
        if (!parseNumber(value, 0, 4, number)) {
            text = "--log-level takes a number from 0 to 4, not '" + value + "'";
            return -1;
        }
        global.logLevel = static_cast<int>(number);
        return 1;
    }

    bool accepts(unsigned bit, const std::string& name)
    {
        if (shape->options & bit)
            return true;
        text = "'" + std::string(shape->word) + "' does not take " + name;
        return false;
    }

    // Handles a command option; false with `text` set on error.
    bool commandOption(const std::string& name, bool hasInline, const std::string& inlineValue, size_t& index)
    {
        Command& command = invocation.command;
        const bool flag = name == "--active" || name == "--all" || name == "--echo";
        if (flag && hasInline) {
            text = name + " takes no value";
            return false;
        }
        if (name == "--active")
            return accepts(OptActive, name) && (command.activeOnly = true);
        if (name == "--all")
            return accepts(OptAll, name) && (command.matchAll = true);
        if (name == "--echo") {
            if (!accepts(OptEcho, name) || !singleAnswer())
                return false;
            command.answer = ListenAnswer::Echo;
            return true;
        }
        std::string value;
        long number = 0;
        if (name == "--host") {
            if (!accepts(OptHost, name) || !optionValue(args, index, name, hasInline, inlineValue, value, text))
                return false;
            if (value.empty() || value.find('@') != std::string::npos) {
                text = "--host takes a host name without '@'";
                return false;
            }
            command.host = value;
            return true;
        }
        if (name == "--interfaces") {
            if (!accepts(OptInterfaces, name) || !optionValue(args, index, name, hasInline, inlineValue, value, text))
                return false;
            command.interfaces = value;
            return true;
        }
        if (name == "--reply") {
            if (!accepts(OptReply, name) || !singleAnswer() ||
                !optionValue(args, index, name, hasInline, inlineValue, value, text))
                return false;
            command.answer = ListenAnswer::Reply;
            command.replyText = value;
            return true;
        }
        if (name == "--count") {
            if (!accepts(OptCount, name) || !optionValue(args, index, name, hasInline, inlineValue, value, text) ||
                !numberOption(name, value, 1, number, text))
                return false;
            command.count = number;
            return true;
        }
        if (name == "--every") {
            if (!accepts(OptEvery, name) || !optionValue(args, index, name, hasInline, inlineValue, value, text) ||
                !numberOption(name, value, 1, number, text))
                return false;
            command.everyMs = number;
            return true;
        }
        if (name == "--key") {
            if (!accepts(OptKey, name) || !optionValue(args, index, name, hasInline, inlineValue, value, text))
                return false;
            if (value.empty()) {
                text = "--key needs a key name";
                return false;
            }
            command.shownKeys.push_back(value);
            return true;
        }
        text = "unknown option '" + name + "' for '" + shape->word + "'";
        return false;
    }

    bool singleAnswer()
    {
        if (answerGiven) {
            text = "--echo and --reply exclude each other";
            return false;
        }
        answerGiven = true;
        return true;
    }

    // A word that is not an option: the command, a positional or a pair.
    bool word(const std::string& arg)
    {
        if (shape == nullptr) {
            shape = findSpec(arg);
            if (shape == nullptr && arg == "help") {
                helpRequested = true;
                return true;
            }
            if (shape == nullptr) {
                text = "unknown command '" + arg + "'";
                return false;
            }
            invocation.command.kind = shape->kind;
            invocation.command.word = shape->word;
            return true;
        }
        if (positionals.size() < shape->positionals.size()) {
            positionals.push_back(arg);
            return true;
        }
        const size_t equals = arg.find('=');
        if (!shape->pairs || equals == std::string::npos) {
            text = "unexpected argument '" + arg + "' for '" + shape->word + "'";
            return false;
        }
        const std::string key = arg.substr(0, equals);
        if (key.empty() || key[0] == '_') {
            text = "'" + arg + "': a key must be non-empty and not begin with '_' (the routing header's keys)";
            return false;
        }
        invocation.command.pairs.emplace_back(key, arg.substr(equals + 1));
        return true;
    }

    bool assignPositionals()
    {
        if (positionals.size() < shape->positionals.size()) {
            text = "'" + std::string(shape->word) + "' needs " + shape->positionals[positionals.size()];
            return false;
        }
        for (size_t index = 0; index < positionals.size(); ++index) {
            if (positionals[index].empty()) {
                text = std::string(shape->positionals[index]) + " must not be empty";
                return false;
            }
        }
        Command& command = invocation.command;
        switch (shape->kind) {
        case CommandKind::Call:
            command.address = positionals[0];
            command.method = positionals[1];
            break;
        case CommandKind::HostInfo: command.hostArgument = positionals[0]; break;
        case CommandKind::WhoSupports: command.interfaces = positionals[0]; break;
        case CommandKind::Interfaces:
        case CommandKind::Events: command.address = positionals[0]; break;
        case CommandKind::Has:
            command.address = positionals[0];
            command.interfaces = positionals[1];
            break;
        case CommandKind::Listen: command.name = positionals[0]; break;
        case CommandKind::Subscribe:
            command.address = positionals[0];
            command.event = positionals[1];
            break;
        case CommandKind::Publish:
            command.name = positionals[0];
            command.event = positionals[1];
            break;
        default: break;
        }
        return true;
    }

    ParseOutcome run()
    {
        bool optionsEnded = false;
        for (size_t index = 0; index < args.size(); ++index) {
            const std::string& arg = args[index];
            if (!optionsEnded && arg == "--") {
                optionsEnded = true;
                continue;
            }
            const bool isOption = !optionsEnded && arg.size() > 1 && arg[0] == '-';
            if (!isOption) {
                if (!word(arg))
                    return ParseOutcome::Usage;
                continue;
            }
            const size_t equals = arg.find('=');
            const bool hasInline = equals != std::string::npos;
            const std::string name = hasInline ? arg.substr(0, equals) : arg;
            const std::string inlineValue = hasInline ? arg.substr(equals + 1) : std::string();
            const int handled = global(name, hasInline, inlineValue, index);
            if (handled < 0)
                return ParseOutcome::Usage;
            if (handled > 0)
                continue;
            if (shape == nullptr) {
                text = "unknown option '" + name + "'";
                return ParseOutcome::Usage;
            }
            if (!commandOption(name, hasInline, inlineValue, index))
                return ParseOutcome::Usage;
        }
        if (helpRequested) {
            text = shape != nullptr ? commandHelp(shape->word) : generalHelp();
            return ParseOutcome::Help;
        }
        if (versionRequested)
            return ParseOutcome::Version;
        if (shape == nullptr) {
            text = "no command given";
            return ParseOutcome::Usage;
        }
        return assignPositionals() ? ParseOutcome::Run : ParseOutcome::Usage;
    }
};

} // namespace

ParseOutcome parseCommandLine(const std::vector<std::string>& args, Invocation& invocation, std::string& text)
{
    text.clear();
    Parser parser(args, invocation, text);
    return parser.run();
}

std::string generalHelp()
{
    std::string text = "Usage: ulmarcomms [GLOBAL OPTIONS] COMMAND [ARGUMENTS]\n"
                       "\n"
                       "Talks to the machine's system router service and to message pumps.\n"
                       "\n"
                       "Commands:\n";
    for (const CommandShape& shape : commandShapes()) {
        std::string word = shape.word;
        word.resize(14, ' ');
        text += "  " + word + shape.summary + "\n";
    }
    text += "\n";
    text += kGlobalOptionsHelp;
    text += "\n'ulmarcomms COMMAND --help' describes one command.\n";
    text += kExitHelp;
    return text;
}

std::string commandHelp(const std::string& word)
{
    const CommandShape* shape = findSpec(word);
    if (shape == nullptr)
        return std::string();
    std::string text =
        std::string("Usage: ulmarcomms [GLOBAL OPTIONS] ") + shape->synopsis + "\n\n" + shape->details + "\n";
    const std::string options = optionHelp(shape->options);
    if (!options.empty())
        text += "\nOptions:\n" + options;
    text += "\n";
    text += kGlobalOptionsHelp;
    text += "\n";
    text += kExitHelp;
    return text;
}

std::string systemAddress(const std::string& host)
{
    return host.empty() ? std::string("/system") : host + "@/system";
}

} // namespace UlmarCommsTools
