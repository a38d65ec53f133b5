// Runtime and pump glue over the C interface.
#include "ulmarcomms/session.h"

#include <ulmarcomms.h>

namespace UlmarCommsTools {

const char* const kTickMethod = "ulmarcomms.publish.tick";

namespace {

std::string text(const char* value)
{
    return value == nullptr ? std::string() : std::string(value);
}

} // namespace

Runtime::~Runtime()
{
    // A failed start can leave objects behind; shutting down tears them
    // down as well (it answers 1 and does nothing if nothing started).
    if (m_startCalled)
        UlmarCommsShutdown();
}

// Listeners and publishers outlive a restart of the service: with this
// setting every pump of ours is announced again when the link returns. It
// goes first, so a --set of the same key still decides.
int Runtime::start(const std::string& argument)
{
    m_startCalled = true;
    std::string text = "ulmar.messagerouter.reannounce.all=1";
    if (!argument.empty())
        text += ";" + argument;
    return UlmarCommsStart(text.c_str());
}

ClientPump::ClientPump(Inbox& inbox, PumpBehaviour behaviour) : m_inbox(inbox), m_behaviour(std::move(behaviour))
{
}

ClientPump::~ClientPump()
{
    if (m_pump != nullptr)
        UlmarCommsDestroyMessagePump(m_pump);
}

bool ClientPump::create(const std::string& name, const std::string& interfaces)
{
    void* pump = UlmarCommsCreateMessagePump(name.c_str(), this, onMessageCallback, onResponseCallback, onErrorCallback,
                                             interfaces.empty() ? nullptr : interfaces.c_str());
    {
        std::lock_guard<std::mutex> locker(m_lock);
        m_pump = pump;
        m_createFinished = true;
    }
    m_created.notify_all();
    return pump != nullptr;
}

std::string ClientPump::address() const
{
    std::lock_guard<std::mutex> locker(m_lock);
    return m_pump == nullptr ? std::string() : text(UlmarCommsMessagePumpAddress(m_pump));
}

void ClientPump::setTickSource(const std::string& address)
{
    std::lock_guard<std::mutex> locker(m_lock);
    m_tickSource = address;
}

void* ClientPump::pumpForCallback()
{
    std::unique_lock<std::mutex> locker(m_lock);
    m_created.wait(locker, [this] { return m_createFinished; });
    return m_pump;
}

// The three trampolines run on the router worker thread; nothing may throw
// out of them into the library.
void ClientPump::onMessageCallback(void* context, void* message, const char* to, const char* method)
{
    try {
        static_cast<ClientPump*>(context)->onMessage(message, to, method);
    } catch (...) {
    }
}

void ClientPump::onResponseCallback(void* context, unsigned int responseId, void* message)
{
    try {
        static_cast<ClientPump*>(context)->onResponse(responseId, message);
    } catch (...) {
    }
}

void ClientPump::onErrorCallback(void* context, unsigned int responseId, int errorCode)
{
    try {
        static_cast<ClientPump*>(context)->onError(responseId, errorCode);
    } catch (...) {
    }
}

Received ClientPump::copyMessage(void* message, Received::Kind kind) const
{
    Received received;
    received.kind = kind;
    const char* to = nullptr;
    const char* from = nullptr;
    const char* senderId = nullptr;
    const char* response = nullptr;
    const char* method = nullptr;
    UlmarCommsGetMandatoryFields(message, &to, &from, nullptr, &senderId, nullptr, &response, &method);
    received.to = text(to);
    received.from = text(from);
    received.senderId = text(senderId);
    received.method = text(method);
    received.hasResponse = response != nullptr;
    received.response = text(response);
    for (const std::string& key : m_behaviour.shownKeys) {
        const char* value = UlmarCommsMessageValue(message, key.c_str());
        received.shown.emplace_back(key, value == nullptr ? std::nullopt : std::optional<std::string>(value));
    }
    return received;
}

void ClientPump::onMessage(void* message, const char* to, const char* method)
{
    const std::string methodText = text(method);
    void* pump = pumpForCallback();
    if (pump == nullptr)
        return;
    if (methodText == kTickMethod && !m_behaviour.eventName.empty()) {
        std::string tickSource;
        {
            std::lock_guard<std::mutex> locker(m_lock);
            tickSource = m_tickSource;
        }
        if (!tickSource.empty() && text(UlmarCommsGetFrom(message)) == tickSource) {
            emitEvent(pump);
            return;
        }
    }
    if (!m_behaviour.acceptRequest || !m_behaviour.acceptRequest(methodText))
        return;
    Received received = copyMessage(message, Received::Kind::Request);
    if (received.to.empty())
        received.to = text(to);
    if (m_behaviour.answer != ListenAnswer::None)
        answer(pump, message, received);
    m_inbox.push(std::move(received));
}

void ClientPump::answer(void* pump, void* request, Received& received)
{
    const std::string response = m_behaviour.answer == ListenAnswer::Echo ? received.method : m_behaviour.replyText;
    received.answered = true;
    received.answerText = response;
    void* reply = UlmarCommsCreateReplyMessage(pump, request, response.c_str());
    if (reply == nullptr) {
        received.answerResult = ULMARCOMMS_FAILED;
        return;
    }
    for (const auto& [key, value] : received.shown) {
        if (value)
            UlmarCommsMessageAddKeyValue(reply, key.c_str(), value->c_str());
    }
    received.answerResult = UlmarCommsPostMessage(pump, reply);
    if (received.answerResult == ULMARCOMMS_NOT_STARTED || received.answerResult == ULMARCOMMS_BAD_ARGUMENT)
        UlmarCommsDestroyMessage(reply);
}

void ClientPump::emitEvent(void* pump)
{
    Received published;
    published.kind = Received::Kind::Published;
    void* event = UlmarCommsCreateEventMessage(pump, m_behaviour.eventName.c_str());
    if (event == nullptr) {
        published.publishResult = ULMARCOMMS_NO_EVENT;
        m_inbox.push(std::move(published));
        return;
    }
    for (const auto& [key, value] : m_behaviour.eventPairs)
        UlmarCommsMessageAddKeyValue(event, key.c_str(), value.c_str());
    published.publishResult = UlmarCommsPostMessage(pump, event);
    if (published.publishResult == ULMARCOMMS_NOT_STARTED || published.publishResult == ULMARCOMMS_BAD_ARGUMENT)
        UlmarCommsDestroyMessage(event);
    m_inbox.push(std::move(published));
}

void ClientPump::onResponse(unsigned int responseId, void* message)
{
    Received received = copyMessage(message, Received::Kind::Reply);
    received.responseId = responseId;
    m_inbox.push(std::move(received));
}

void ClientPump::onError(unsigned int responseId, int errorCode)
{
    Received received;
    received.kind = Received::Kind::Error;
    received.responseId = responseId;
    received.errorCode = errorCode;
    m_inbox.push(std::move(received));
}

void* buildRequest(ClientPump& pump, const RequestPlan& plan, const Command& command)
{
    void* message = nullptr;
    switch (plan.builder) {
    case RequestPlan::Builder::Plain:
        message = UlmarCommsCreateMessage(pump.handle(), plan.to.c_str(), plan.method.c_str());
        break;
    case RequestPlan::Builder::ListInterfaces:
        message = UlmarCommsCreateListInterfacesMessage(pump.handle(), plan.to.c_str());
        break;
    case RequestPlan::Builder::HasInterface:
        message = UlmarCommsCreateHasInterfacesMessage(pump.handle(), plan.to.c_str(), command.interfaces.c_str());
        break;
    case RequestPlan::Builder::ListEvents:
        message = UlmarCommsCreateListEventsMessage(pump.handle(), plan.to.c_str());
        break;
    }
    if (message == nullptr)
        return nullptr;
    for (const auto& [key, value] : plan.pairs) {
        if (UlmarCommsMessageAddKeyValue(message, key.c_str(), value.c_str()) != ULMARCOMMS_OK) {
            UlmarCommsDestroyMessage(message);
            return nullptr;
        }
    }
    return message;
}

Exchange exchange(ClientPump& pump, Inbox& inbox, void* message, int timeoutMs, unsigned interruptBaseline)
{
    Exchange outcome;
    if (message == nullptr)
        return outcome;
    // The id is read before posting: afterwards the message is the library's.
    const unsigned id = static_cast<unsigned>(UlmarCommsMessageId(pump.handle(), message));
    const Inbox::Clock::time_point deadline = Inbox::Clock::now() + std::chrono::milliseconds(timeoutMs);
    const int posted = UlmarCommsPostMessage(pump.handle(), message);
    if (posted != ULMARCOMMS_OK) {
        if (posted == ULMARCOMMS_NOT_STARTED || posted == ULMARCOMMS_BAD_ARGUMENT)
            UlmarCommsDestroyMessage(message);
        outcome.result = Exchange::Result::NotPosted;
        outcome.postCode = posted;
        return outcome;
    }
    const auto isAnswer = [id](const Received& item) {
        return (item.kind == Received::Kind::Reply || item.kind == Received::Kind::Error) && item.responseId == id;
    };
    switch (inbox.waitFor(isAnswer, deadline, interruptBaseline, outcome.answer)) {
    case Inbox::Wait::Got: outcome.result = Exchange::Result::Answered; break;
    case Inbox::Wait::TimedOut: outcome.result = Exchange::Result::TimedOut; break;
    case Inbox::Wait::Interrupted: outcome.result = Exchange::Result::Interrupted; break;
    }
    return outcome;
}

} // namespace UlmarCommsTools
