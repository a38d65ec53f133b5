// What the client keeps of a message the library delivered to one of its
// pumps. Callbacks copy these texts out during the call (the message is
// valid only then, and its reference count is not safe to share between
// threads), so the main thread never touches a library message.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace UlmarCommsTools {

// A key shown from a received message, with its value if present.
using ShownPair = std::pair<std::string, std::optional<std::string>>;

struct Received {
    enum class Kind {
        Request, // a request or event message reached the pump
        Reply, // a reply to one of our requests
        Error, // an error reply to one of our requests
        Published, // the publisher emitted an event message
        Link // the link to the service was lost or came back
    };
    Kind kind = Kind::Request;
    // The id of the request a reply or error reply answers.
    unsigned responseId = 0;
    // The code of an error reply.
    int errorCode = 0;
    // Header fields (empty when absent, see the has* flags).
    std::string to;
    std::string from;
    std::string method;
    std::string senderId;
    std::string response;
    bool hasResponse = false;
    // The values of the keys the user asked to see (--key).
    std::vector<ShownPair> shown;
    // listen: whether and how the request was answered.
    bool answered = false;
    std::string answerText;
    int answerResult = 0;
    // publish: the result of posting the event message.
    int publishResult = 0;
    // Link: whether the link is up again (false: lost).
    bool linkUp = false;
};

} // namespace UlmarCommsTools
