// Everything the client prints: the request each command sends, the
// answers in text or JSON (one object per line), and the parsers that turn
// the system endpoint's reply texts into JSON structure.
//
// Results go to stdout; the one-line explanations of failures go to stderr,
// so a script reading stdout sees only results (in --json mode, every result
// including a failure is a JSON line there).
#pragma once

#include "common/probe.h"
#include "ulmarcomms/commandline.h"
#include "ulmarcomms/received.h"

#include <string>
#include <utility>
#include <vector>

namespace UlmarCommsTools {

// The request a request/reply command sends.
struct RequestPlan {
    // How the message is built: a plain request, or one of the pump
    // builders that make the built-in protocol's requests.
    enum class Builder { Plain, ListInterfaces, HasInterface, ListEvents };
    Builder builder = Builder::Plain;
    std::string to;
    std::string method;
    // Pairs added after building (for the builders they are already in).
    std::vector<KeyValue> pairs;
};

// Whether a command is a single request answered by a reply.
bool isRequestCommand(CommandKind kind);
// The request of a request/reply command.
RequestPlan planRequest(const Command& command);

// Splits text at every separator; empty pieces kept unless dropEmpty.
std::vector<std::string> splitText(const std::string& text, char separator, bool dropEmpty);
// "key=value" lines (SystemInfo); lines without '=' are skipped.
std::vector<KeyValue> parseKeyValueLines(const std::string& text);

// A parsed settings listing.
struct SettingsListing {
    std::vector<KeyValue> strings;
    std::vector<KeyValue> numbers;
};
// Parses "string,KEY,VALUE" and "number,KEY,N" lines (other lines skipped).
SettingsListing parseSettingsListing(const std::string& text);

// One line of the system routing table.
struct RoutingEntryText {
    std::string address;
    std::vector<std::string> interfaces;
};
// Parses the table dump ("ADDRESS,IF-IF" lines after the two header lines).
std::vector<RoutingEntryText> parseRoutingTable(const std::string& text);

// What an error code means, for the messages.
std::string errorMeaning(int code);

// The answer of a request/reply command (a Reply or an Error).
std::string formatAnswer(const Invocation& invocation, const RequestPlan& plan, const Received& answer);
// The stdout line of a time-out (JSON mode only; empty in text mode).
std::string formatTimeout(const Invocation& invocation, const RequestPlan& plan);
// The stderr explanation of a time-out.
std::string timeoutMessage(const Invocation& invocation, const RequestPlan& plan);
// The stdout line when no service answers (JSON mode only).
std::string formatNoService(const Invocation& invocation, const LinkTarget& link, const std::string& detail);
// A refused operation or start-up failure, as a stdout line (JSON only).
std::string formatFailure(const Invocation& invocation, const std::string& status, const std::string& reason, int code);

// listen: the pump is ready.
std::string formatListening(const Invocation& invocation, const std::string& address);
// listen: one request received (and perhaps answered).
std::string formatRequest(const Invocation& invocation, const Received& request);
// subscribe: the registration was accepted.
std::string formatSubscribed(const Invocation& invocation, const std::string& address);
// subscribe: one event message.
std::string formatEvent(const Invocation& invocation, const Received& event);
// subscribe: the registration was removed (or why it was not confirmed).
std::string formatUnsubscribed(const Invocation& invocation, bool confirmed, const std::string& why);
// publish: the pump and its event exist.
std::string formatPublishing(const Invocation& invocation, const std::string& address);
// publish: one event message was handed to the library (result 0) or not.
std::string formatPublished(const Invocation& invocation, long sequence, int result);
// publish: the closing count; events emitted while no link existed are
// counted apart.
std::string formatPublishSummary(const Invocation& invocation, long published, long withoutLink);
// listen, subscribe, publish: the link to the service was lost or came back
// (JSON mode only; the text goes to stderr).
std::string formatLink(const Invocation& invocation, bool up);

} // namespace UlmarCommsTools
