// Request plans, reply-text parsers and the text/JSON renderings.
#include "ulmarcomms/output.h"

#include "common/numbers.h"
#include "ulmarcomms/json.h"

#include <climits>

namespace UlmarCommsTools {

namespace {

std::string withNewline(const std::string& text)
{
    if (text.empty() || text.back() == '\n')
        return text;
    return text + "\n";
}

std::string lines(const std::vector<std::string>& items)
{
    std::string text;
    for (const std::string& item : items)
        text += item + "\n";
    return text;
}

std::string jsonLine(const JsonObject& object)
{
    return object.str() + "\n";
}

// The members every line about a request starts with.
JsonObject requestHeader(const Invocation& invocation, const RequestPlan& plan, const char* status)
{
    JsonObject object;
    object.add("command", invocation.command.word).add("to", plan.to).add("method", plan.method).add("status", status);
    return object;
}

JsonObject shownPairsObject(const std::vector<ShownPair>& shown)
{
    JsonObject pairs;
    for (const auto& [key, value] : shown) {
        if (value)
            pairs.add(key, *value);
        else
            pairs.addNull(key);
    }
    return pairs;
}

std::string shownPairsText(const std::vector<ShownPair>& shown, const char* separator)
{
    std::string text;
    for (const auto& [key, value] : shown) {
        if (value)
            text += separator + key + "=" + *value;
    }
    return text;
}

// The structured form of a reply, by command.
void addParsedReply(JsonObject& object, CommandKind kind, const Received& reply)
{
    const std::string& text = reply.response;
    switch (kind) {
    case CommandKind::Info: {
        JsonObject info;
        for (const auto& [key, value] : parseKeyValueLines(text))
            info.add(key, value);
        object.add("info", info);
        break;
    }
    case CommandKind::Settings: {
        const SettingsListing listing = parseSettingsListing(text);
        JsonObject strings;
        for (const auto& [key, value] : listing.strings)
            strings.add(key, value);
        JsonObject numbers;
        for (const auto& [key, value] : listing.numbers) {
            long number = 0;
            if (parseNumber(value, LONG_MIN, LONG_MAX, number))
                numbers.add(key, number);
            else
                numbers.add(key, value);
        }
        object.add("strings", strings).add("numbers", numbers);
        break;
    }
    case CommandKind::Table: {
        std::vector<JsonObject> entries;
        for (const RoutingEntryText& entry : parseRoutingTable(text)) {
            JsonObject item;
            item.add("address", entry.address).add("interfaces", entry.interfaces);
            entries.push_back(item);
        }
        object.add("entries", entries);
        break;
    }
    case CommandKind::Hosts: object.add("hosts", splitText(text, '\n', true)); break;
    case CommandKind::WhoSupports: object.add("addresses", splitText(text, ',', true)); break;
    case CommandKind::Interfaces:
        object.add("interfaces", reply.hasResponse ? splitText(text, ',', false) : std::vector<std::string>());
        break;
    case CommandKind::Has: object.addBool("supported", text == "true"); break;
    case CommandKind::Events: object.add("events", splitText(text, '|', true)); break;
    default: break;
    }
}

std::string textReply(CommandKind kind, const Received& reply)
{
    const std::string& text = reply.response;
    switch (kind) {
    case CommandKind::WhoSupports: return lines(splitText(text, ',', true));
    case CommandKind::Interfaces: return reply.hasResponse ? lines(splitText(text, ',', false)) : std::string();
    case CommandKind::Events: return lines(splitText(text, '|', true));
    default: return withNewline(text);
    }
}

} // namespace

bool isRequestCommand(CommandKind kind)
{
    return kind != CommandKind::Listen && kind != CommandKind::Subscribe && kind != CommandKind::Publish;
}

RequestPlan planRequest(const Command& command)
{
    RequestPlan plan;
    plan.to = systemAddress(command.host);
    switch (command.kind) {
    case CommandKind::Call:
        plan.to = command.address;
        plan.method = command.method;
        plan.pairs = command.pairs;
        break;
    case CommandKind::Info: plan.method = "SystemInfo"; break;
    case CommandKind::Settings: plan.method = "ReadUlmarCommsSettings"; break;
    case CommandKind::Table: plan.method = "ViewSystemRouterRoutingTable"; break;
    case CommandKind::Hosts:
        plan.method = "KnownHosts";
        if (command.activeOnly)
            plan.pairs.emplace_back("activeonly", "true");
        break;
    case CommandKind::HostInfo:
        plan.method = "HostInformation";
        plan.pairs.emplace_back("host", command.hostArgument);
        break;
    case CommandKind::NetTable: plan.method = "NetworkRoutingTable"; break;
    case CommandKind::WhoSupports:
        plan.method = "#AddressSupportingInterfaces";
        plan.pairs.emplace_back("inters", command.interfaces);
        plan.pairs.emplace_back("match", command.matchAll ? "1" : "0");
        break;
    case CommandKind::Interfaces:
        plan.builder = RequestPlan::Builder::ListInterfaces;
        plan.to = command.address;
        plan.method = "#IsList";
        break;
    case CommandKind::Has:
        plan.builder = RequestPlan::Builder::HasInterface;
        plan.to = command.address;
        plan.method = "#IsHas";
        break;
    case CommandKind::Events:
        plan.builder = RequestPlan::Builder::ListEvents;
        plan.to = command.address;
        plan.method = "#EsList";
        break;
    default: break;
    }
    return plan;
}

std::vector<std::string> splitText(const std::string& text, char separator, bool dropEmpty)
{
    std::vector<std::string> pieces;
    size_t start = 0;
    while (true) {
        const size_t end = text.find(separator, start);
        const std::string piece = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!piece.empty() || !dropEmpty)
            pieces.push_back(piece);
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
    if (!dropEmpty && text.empty())
        pieces.clear();
    return pieces;
}

std::vector<KeyValue> parseKeyValueLines(const std::string& text)
{
    std::vector<KeyValue> pairs;
    for (const std::string& line : splitText(text, '\n', true)) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos || equals == 0)
            continue;
        pairs.emplace_back(line.substr(0, equals), line.substr(equals + 1));
    }
    return pairs;
}

SettingsListing parseSettingsListing(const std::string& text)
{
    SettingsListing listing;
    for (const std::string& line : splitText(text, '\n', true)) {
        const size_t first = line.find(',');
        if (first == std::string::npos)
            continue;
        const size_t second = line.find(',', first + 1);
        if (second == std::string::npos)
            continue;
        const std::string type = line.substr(0, first);
        KeyValue pair(line.substr(first + 1, second - first - 1), line.substr(second + 1));
        if (type == "string")
            listing.strings.push_back(pair);
        else if (type == "number")
            listing.numbers.push_back(pair);
    }
    return listing;
}

// Interface names never hold ',' (announcements split on it), so the last
// comma ends the address.
std::vector<RoutingEntryText> parseRoutingTable(const std::string& text)
{
    std::vector<RoutingEntryText> entries;
    for (const std::string& line : splitText(text, '\n', true)) {
        if (line[0] == '#' || line == "Address,Interfaces")
            continue;
        const size_t comma = line.rfind(',');
        if (comma == std::string::npos)
            continue;
        RoutingEntryText entry;
        entry.address = line.substr(0, comma);
        entry.interfaces = splitText(line.substr(comma + 1), '-', true);
        entries.push_back(entry);
    }
    return entries;
}

std::string errorMeaning(int code)
{
    switch (code) {
    case 400: return "no path to the address";
    case 1002: return "unknown query, or a required key is missing";
    case 2: return "error reply without a code";
    default: return "error reply";
    }
}

std::string formatAnswer(const Invocation& invocation, const RequestPlan& plan, const Received& answer)
{
    const Command& command = invocation.command;
    if (answer.kind == Received::Kind::Error) {
        if (!invocation.global.json)
            return "error " + std::to_string(answer.errorCode) + ": " + errorMeaning(answer.errorCode) + "\n";
        JsonObject object = requestHeader(invocation, plan, "error");
        object.add("code", answer.errorCode).add("meaning", errorMeaning(answer.errorCode));
        return jsonLine(object);
    }
    if (!invocation.global.json) {
        // The response text, then one KEY=VALUE line per shown key present.
        std::string text = textReply(command.kind, answer);
        for (const auto& [key, value] : answer.shown) {
            if (value)
                text += key + "=" + *value + "\n";
        }
        return text;
    }
    JsonObject object = requestHeader(invocation, plan, "reply");
    object.add("from", answer.from);
    if (answer.hasResponse)
        object.add("response", answer.response);
    else
        object.addNull("response");
    addParsedReply(object, command.kind, answer);
    if (!command.shownKeys.empty())
        object.add("pairs", shownPairsObject(answer.shown));
    return jsonLine(object);
}

std::string formatTimeout(const Invocation& invocation, const RequestPlan& plan)
{
    if (!invocation.global.json)
        return std::string();
    JsonObject object = requestHeader(invocation, plan, "timeout");
    object.add("timeoutMs", invocation.global.timeoutMs);
    return jsonLine(object);
}

std::string timeoutMessage(const Invocation& invocation, const RequestPlan& plan)
{
    std::string text = "no reply from '" + plan.to + "' to " + plan.method + " within " +
        std::to_string(invocation.global.timeoutMs) + " ms";
    if (invocation.command.kind == CommandKind::Has)
        text += " (a pump without interface names never answers #IsHas)";
    return text;
}

std::string formatNoService(const Invocation& invocation, const LinkTarget& link, const std::string& detail)
{
    if (!invocation.global.json)
        return std::string();
    JsonObject object;
    object.add("command", invocation.command.word).add("status", "no-service").add("link", link.describe());
    if (link.kind == LinkTarget::Kind::Unix)
        object.add("pipeName", link.pipeName);
    object.add("detail", detail);
    return jsonLine(object);
}

std::string formatFailure(const Invocation& invocation, const std::string& status, const std::string& reason, int code)
{
    if (!invocation.global.json)
        return std::string();
    JsonObject object;
    object.add("command", invocation.command.word).add("status", status).add("reason", reason).add("code", code);
    return jsonLine(object);
}

std::string formatListening(const Invocation& invocation, const std::string& address)
{
    if (!invocation.global.json)
        return "listening on " + address + "\n";
    JsonObject object;
    object.add("command", "listen").add("status", "listening").add("address", address);
    if (!invocation.command.interfaces.empty())
        object.add("interfaces", invocation.command.interfaces);
    return jsonLine(object);
}

std::string formatRequest(const Invocation& invocation, const Received& request)
{
    if (!invocation.global.json) {
        std::string text = "request " + request.method + " from " + request.from + shownPairsText(request.shown, " ");
        if (request.answered) {
            if (request.answerResult == 0)
                text += " | replied: " + request.answerText;
            else
                text += " | reply failed: code " + std::to_string(request.answerResult);
        }
        return text + "\n";
    }
    JsonObject object;
    object.add("command", "listen")
        .add("status", "request")
        .add("to", request.to)
        .add("from", request.from)
        .add("method", request.method)
        .add("senderId", request.senderId);
    if (!invocation.command.shownKeys.empty())
        object.add("pairs", shownPairsObject(request.shown));
    if (request.answered) {
        JsonObject reply;
        reply.add("response", request.answerText).add("result", request.answerResult);
        object.add("reply", reply);
    }
    return jsonLine(object);
}

std::string formatSubscribed(const Invocation& invocation, const std::string& address)
{
    const Command& command = invocation.command;
    if (!invocation.global.json)
        return "subscribed to " + command.event + " at " + command.address + "\n";
    JsonObject object;
    object.add("command", "subscribe")
        .add("status", "subscribed")
        .add("to", command.address)
        .add("event", command.event)
        .add("address", address);
    return jsonLine(object);
}

std::string formatEvent(const Invocation& invocation, const Received& event)
{
    const Command& command = invocation.command;
    if (!invocation.global.json)
        return "event " + command.event + " from " + event.from + shownPairsText(event.shown, " ") + "\n";
    JsonObject object;
    object.add("command", "subscribe").add("status", "event").add("event", command.event).add("from", event.from);
    if (!command.shownKeys.empty())
        object.add("pairs", shownPairsObject(event.shown));
    return jsonLine(object);
}

std::string formatUnsubscribed(const Invocation& invocation, bool confirmed, const std::string& why)
{
    const Command& command = invocation.command;
    if (!invocation.global.json) {
        if (confirmed)
            return "unsubscribed from " + command.event + " at " + command.address + "\n";
        return "unsubscribing from " + command.event + " at " + command.address + " not confirmed: " + why + "\n";
    }
    JsonObject object;
    object.add("command", "subscribe")
        .add("status", "unsubscribed")
        .add("to", command.address)
        .add("event", command.event)
        .addBool("confirmed", confirmed);
    if (!confirmed)
        object.add("reason", why);
    return jsonLine(object);
}

std::string formatPublishing(const Invocation& invocation, const std::string& address)
{
    const Command& command = invocation.command;
    if (!invocation.global.json)
        return "publishing " + command.event + " on " + address + "\n";
    JsonObject object;
    object.add("command", "publish").add("status", "publishing").add("address", address).add("event", command.event);
    return jsonLine(object);
}

std::string formatPublished(const Invocation& invocation, long sequence, int result)
{
    const Command& command = invocation.command;
    if (!invocation.global.json) {
        if (result == 0)
            return "published " + command.event + " #" + std::to_string(sequence) + "\n";
        return "publishing " + command.event + " #" + std::to_string(sequence) + " failed: code " +
            std::to_string(result) + "\n";
    }
    JsonObject object;
    object.add("command", "publish")
        .add("status", result == 0 ? "published" : "failed")
        .add("event", command.event)
        .add("sequence", sequence)
        .add("result", result);
    return jsonLine(object);
}

std::string formatLink(const Invocation& invocation, bool up)
{
    if (!invocation.global.json)
        return std::string();
    JsonObject object;
    object.add("command", invocation.command.word).add("status", up ? "link restored" : "link lost");
    return jsonLine(object);
}

std::string formatPublishSummary(const Invocation& invocation, long published, long withoutLink)
{
    const Command& command = invocation.command;
    if (!invocation.global.json) {
        std::string text = "published " + std::to_string(published) + " " + command.event + " events";
        if (withoutLink > 0)
            text += ", " + std::to_string(withoutLink) + " more emitted without a link (not counted)";
        return text + "\n";
    }
    JsonObject object;
    object.add("command", "publish")
        .add("status", "done")
        .add("event", command.event)
        .add("published", published)
        .add("withoutLink", withoutLink);
    return jsonLine(object);
}

} // namespace UlmarCommsTools
