// The client's command line: global options, one command and its arguments,
// parsed into plain values before anything touches the library.
//
// Global options (--set, --timeout, --json, --log-level) are accepted before
// or after the command word; "--" ends option parsing, so later words are
// taken as arguments even if they begin with "--".
#pragma once

#include "common/startsettings.h"

#include <string>
#include <utility>
#include <vector>

namespace UlmarCommsTools {

// Exit statuses of the client.
constexpr int kExitOk = 0;
constexpr int kExitRefused = 1; // an error reply, or a refused operation
constexpr int kExitUsage = 2; // bad command line
constexpr int kExitUnreachable = 3; // time-out, or no service reachable
constexpr int kExitUserRefused = 4; // the service does not let this user use the bus
constexpr int kExitNotAccepting = 5; // the service closed the connection: it holds as many links as it may

// The commands.
enum class CommandKind {
    Call,
    Info,
    Settings,
    Table,
    Hosts,
    HostInfo,
    NetTable,
    WhoSupports,
    Interfaces,
    Has,
    Events,
    Listen,
    Subscribe,
    Publish
};

// How `listen` answers the requests it receives.
enum class ListenAnswer { None, Echo, Reply };

// A KEY=VALUE argument pair of a message.
using KeyValue = std::pair<std::string, std::string>;

// Options that apply to every command.
struct GlobalOptions {
    // The --set items.
    StartSettings settings;
    // How long to wait for a reply, in milliseconds.
    int timeoutMs = 5000;
    // One JSON object per line instead of text.
    bool json = false;
    // The lowest library log level written to stderr; -1: no library log.
    int logLevel = -1;
};

// One command with its arguments; fields a command does not use stay empty.
struct Command {
    CommandKind kind = CommandKind::Call;
    // The command word as typed ("call", "who-supports", ...).
    std::string word;
    // Target address (call, interfaces, has, events, subscribe).
    std::string address;
    // Method (call).
    std::string method;
    // Pump name (listen, publish).
    std::string name;
    // Event name (subscribe, publish).
    std::string event;
    // Interface list (who-supports, has, listen --interfaces).
    std::string interfaces;
    // Host whose system endpoint is asked (--host), or the host-info argument.
    std::string host;
    // host-info's HOST argument.
    std::string hostArgument;
    // KEY=VALUE pairs to send (call, publish).
    std::vector<KeyValue> pairs;
    // Keys whose values are shown from received messages (--key).
    std::vector<std::string> shownKeys;
    // hosts --active.
    bool activeOnly = false;
    // who-supports --all.
    bool matchAll = false;
    // listen --echo / --reply TEXT.
    ListenAnswer answer = ListenAnswer::None;
    // listen --reply TEXT.
    std::string replyText;
    // --count N; 0 means until interrupted.
    long count = 0;
    // publish --every MS.
    long everyMs = 1000;
};

// A parsed command line.
struct Invocation {
    GlobalOptions global;
    Command command;
};

// The outcome of parsing.
enum class ParseOutcome { Run, Help, Version, Usage };

// Parses the arguments after the program name. On Help, `text` is the help
// to print (general or the command's); on Usage, it is the reason.
ParseOutcome parseCommandLine(const std::vector<std::string>& args, Invocation& invocation, std::string& text);
// The general help text.
std::string generalHelp();
// The help text of one command word, or empty if there is no such command.
std::string commandHelp(const std::string& word);

// The system endpoint of a host ("/system" for this host).
std::string systemAddress(const std::string& host);

} // namespace UlmarCommsTools
