/*
 * ulmarcomms.hpp - an optional, header-only C++17 layer over ulmarcomms.h.
 *
 * It adds no symbol to the library: everything here is inline and calls the
 * C interface. What it adds is ownership and types:
 *   - Runtime: starts the library on construction (through Runtime::start or
 *     Runtime::startService) and shuts it down when the last holder goes.
 *   - Message: owns one reference to a message; move-only; releases it once.
 *     MessageView: a non-owning view, as handed to callbacks.
 *   - Pump: owns a message pump and the heap object its callbacks live in;
 *     move-only; the callbacks are std::function objects.
 *   - Error: a result code with a readable text; Result<T>: a value or an
 *     Error.
 *
 * Threads: every pump callback runs on the library's router worker thread,
 * never on the thread that created the pump. Handlers must not throw (an
 * exception is caught and dropped at the C boundary) and must not shut the
 * runtime down. Destroying a Pump waits until a callback of that pump that
 * is running on another thread has returned; a handler may destroy its own
 * pump.
 *
 * Order of destruction: pumps and messages hold library objects that only a
 * running library can free, so destroy them before the last Runtime (declare
 * the Runtime first and C++ does this for you).
 */
#ifndef ULMARCOMMS_HPP
#define ULMARCOMMS_HPP

#include "ulmarcomms.h"

#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace ulmarcomms {

/* --- Errors ----------------------------------------------------------------- */

// A result code of the C interface (0 is success), or an error code that an
// error reply carried.
class Error {
public:
    // Success.
    constexpr Error() noexcept = default;
    // The given code; 0 means success.
    constexpr explicit Error(int code) noexcept : m_code(code) {}

    // The numeric code.
    constexpr int code() const noexcept { return m_code; }
    // True for success (code 0).
    constexpr bool ok() const noexcept { return m_code == ULMARCOMMS_OK; }
    // A short English description of the code.
    const char* message() const noexcept { return describe(m_code); }

    // The description of any code the library hands out.
    static const char* describe(int code) noexcept
    {
        switch (code) {
        case ULMARCOMMS_OK: return "success";
        case ULMARCOMMS_NOT_STARTED: return "library not started";
        case ULMARCOMMS_FAILED: return "allocation failure or caught exception";
        case ULMARCOMMS_BAD_ARGUMENT: return "null or empty argument, or the operation was refused";
        case ULMARCOMMS_NO_SENDER: return "request without sender or sender id";
        case ULMARCOMMS_NOT_ROUTED: return "the pump has no router or the router refused";
        case ULMARCOMMS_NULL_PUMP: return "null pump handle";
        case ULMARCOMMS_NO_EVENT: return "event not created on the pump";
        case ULMARCOMMS_START_NETWORK_ROUTER: return "the network router did not start";
        case ULMARCOMMS_START_LOCAL_LINK: return "the link to the system router could not be set up";
        case ULMARCOMMS_START_MESSAGE_ROUTER: return "the message router or system endpoint did not start";
        case ULMARCOMMS_ERROR_NO_PATH: return "no path to the target address";
        case ULMARCOMMS_ERROR_UNKNOWN_QUERY: return "unknown system query or missing argument";
        default: return "unknown result code";
        }
    }

    // Equal codes.
    friend constexpr bool operator==(Error a, Error b) noexcept { return a.m_code == b.m_code; }
    // Different codes.
    friend constexpr bool operator!=(Error a, Error b) noexcept { return a.m_code != b.m_code; }

private:
    int m_code = ULMARCOMMS_OK;
};

// Thrown only by Result<T>::value() when there is no value.
class Exception : public std::runtime_error {
public:
    // Carries the error and its description.
    explicit Exception(Error error)
        : std::runtime_error("ulmarcomms: " + std::string(error.message()) + " (" + std::to_string(error.code()) + ")"),
          m_error(error)
    {
    }
    // The error that had no value.
    Error error() const noexcept { return m_error; }

private:
    Error m_error;
};

// A value or the Error that prevented it (an expected-like type).
template <typename T> class Result {
public:
    // A result holding a value.
    Result(T value) : m_value(std::move(value)) {}
    // A failed result; a success code without a value counts as a failure.
    Result(Error error) : m_error(error.ok() ? Error(ULMARCOMMS_FAILED) : error) {}

    // True when a value is held.
    bool ok() const noexcept { return m_value.has_value(); }
    // True when a value is held.
    explicit operator bool() const noexcept { return ok(); }
    // The error; success when a value is held.
    Error error() const noexcept { return m_error; }

    // The value; throws Exception when there is none.
    T& value() &
    {
        check();
        return *m_value;
    }
    // The value, moved out; throws Exception when there is none.
    T&& value() &&
    {
        check();
        return std::move(*m_value);
    }
    // The held value (unchecked).
    T& operator*() & { return *m_value; }
    // The held value (unchecked).
    T* operator->() { return &*m_value; }

private:
    void check() const
    {
        if (!m_value)
            throw Exception(m_error);
    }

    std::optional<T> m_value;
    Error m_error;
};

// Whether the library is started in this process (by any caller).
inline bool started() noexcept
{
    // A null message is refused with 4 once started and with 1 before: a
    // side-effect-free probe.
    return UlmarCommsIncCounterMessage(nullptr) != ULMARCOMMS_NOT_STARTED;
}

namespace detail {

// A NUL-terminated copy of a view, for the C interface.
inline std::string cstr(std::string_view text)
{
    return std::string(text);
}

// A C text as a view; null gives an empty view.
inline std::string_view view(const char* text) noexcept
{
    return text ? std::string_view(text) : std::string_view();
}

// A C text as an optional view; null gives no value.
inline std::optional<std::string_view> optionalView(const char* text) noexcept
{
    if (!text)
        return std::nullopt;
    return std::string_view(text);
}

} // namespace detail

/* --- Runtime ---------------------------------------------------------------- */

// Holds the started library. Several Runtime objects share one start; the
// last one to go shuts the library down. Move-only.
class Runtime {
public:
    // Which start function was used.
    enum class Role { Application, Service };

    // Starts the library as an application (UlmarCommsStart); arg is empty,
    // "key=value;key=value" overrides of the settings table, or a text
    // without '=' (a name, say), which is ignored. Every pump the program
    // creates is announced again when the service restarts: the start text
    // turns on ulmar.messagerouter.reannounce.all unless arg sets it itself.
    static Result<Runtime> start(std::string_view arg = {})
    {
        return acquire(Role::Application, withEveryPumpReannounced(arg));
    }
    // Starts the library as this machine's system router service
    // (UlmarCommsSystemStartUp). A process hosts the service once: after it
    // has stopped, the library refuses to build it again.
    static Result<Runtime> startService(std::string_view arg = {}) { return acquire(Role::Service, arg); }

    // An empty holder, for a later move-assignment.
    Runtime() noexcept = default;
    // Takes over another holder.
    Runtime(Runtime&& other) noexcept : m_held(std::exchange(other.m_held, false)) {}
    // Gives up the current hold, then takes over another.
    Runtime& operator=(Runtime&& other) noexcept
    {
        if (this != &other) {
            shutdown();
            m_held = std::exchange(other.m_held, false);
        }
        return *this;
    }
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;
    // Gives up the hold (the last holder shuts the library down).
    ~Runtime() { shutdown(); }

    // Gives up the hold now; the last holder shuts the library down and
    // returns the shutdown's result. Does nothing on an empty holder.
    Error shutdown() noexcept
    {
        if (!std::exchange(m_held, false))
            return Error();
        return release();
    }
    // True while this object holds the library.
    bool holds() const noexcept { return m_held; }

private:
    struct Shared {
        std::mutex lock;
        int holders = 0;
        Role role = Role::Application;
    };

    // One state per program: holders of the C++ layer share a start.
    static Shared& shared() noexcept
    {
        static Shared state;
        return state;
    }

    struct Held {};
    explicit Runtime(Held) noexcept : m_held(true) {}

    // arg with "ulmar.messagerouter.reannounce.all=1" in front, so that a
    // value arg gives for it wins (a later item overrides an earlier one).
    static std::string withEveryPumpReannounced(std::string_view arg)
    {
        std::string text = "ulmar.messagerouter.reannounce.all=1";
        // A text without '=' is not read as overrides; it changes nothing.
        if (arg.find('=') != std::string_view::npos)
            text.append(";").append(arg);
        return text;
    }

    static Result<Runtime> acquire(Role role, std::string_view arg)
    {
        Shared& s = shared();
        std::lock_guard<std::mutex> guard(s.lock);
        if (s.holders > 0) {
            // One process plays one role; joining the other role is refused.
            if (s.role != role)
                return Error(ULMARCOMMS_BAD_ARGUMENT);
            ++s.holders;
            return Runtime(Held{});
        }
        const std::string text(arg);
        const int code = role == Role::Service ? UlmarCommsSystemStartUp(text.c_str()) : UlmarCommsStart(text.c_str());
        if (code != ULMARCOMMS_OK) {
            // A refused argument starts nothing; a failed start-up leaves
            // objects behind that only a shutdown frees.
            if (code != ULMARCOMMS_BAD_ARGUMENT)
                stop(role);
            return Error(code);
        }
        s.holders = 1;
        s.role = role;
        return Runtime(Held{});
    }

    static Error release() noexcept
    {
        Shared& s = shared();
        std::lock_guard<std::mutex> guard(s.lock);
        if (s.holders <= 0 || --s.holders > 0)
            return Error();
        return Error(stop(s.role));
    }

    static int stop(Role role) noexcept
    {
        return role == Role::Service ? UlmarCommsSystemShutdown() : UlmarCommsShutdown();
    }

    bool m_held = false;
};

/* --- Messages ---------------------------------------------------------------- */

class Message;

// A message that someone else owns (a callback's argument, or a Message).
// Valid only as long as its owner keeps the message; texts returned are valid
// as long as the message is.
class MessageView {
public:
    // An empty view.
    constexpr MessageView() noexcept = default;
    // A view of a C message handle.
    constexpr explicit MessageView(void* handle) noexcept : m_handle(handle) {}

    // The C handle (not owned).
    void* handle() const noexcept { return m_handle; }
    // True when the view refers to a message.
    explicit operator bool() const noexcept { return m_handle != nullptr; }

    // The target address ("_t"); empty when absent.
    std::string_view to() const noexcept { return detail::view(UlmarCommsGetTo(m_handle)); }
    // The sender's address ("_f"); empty when absent.
    std::string_view from() const noexcept { return detail::view(UlmarCommsGetFrom(m_handle)); }
    // The mode ("_M": "N" or "E"); empty when absent.
    std::string_view mode() const noexcept { return detail::view(UlmarCommsGetMode(m_handle)); }
    // The sender id ("_s"); empty when absent.
    std::string_view senderId() const noexcept { return detail::view(UlmarCommsGetSenderId(m_handle)); }
    // The id of the request a reply answers ("_R"); empty when absent.
    std::string_view responseId() const noexcept { return detail::view(UlmarCommsGetResponseId(m_handle)); }
    // The response text ("_r"); no value when absent (an empty reply is "").
    std::optional<std::string_view> response() const noexcept
    {
        return detail::optionalView(UlmarCommsGetResponse(m_handle));
    }
    // The method ("_m"); empty when absent.
    std::string_view method() const noexcept { return detail::view(UlmarCommsGetMethod(m_handle)); }
    // True when the message is an error reply.
    bool isError() const noexcept { return mode() == "E"; }

    // Whether a pair with this key exists.
    bool has(std::string_view key) const
    {
        return m_handle && UlmarCommsMessageHasKey(m_handle, detail::cstr(key).c_str()) == 1;
    }
    // The value of the first pair with this key; no value when absent.
    std::optional<std::string_view> value(std::string_view key) const
    {
        if (!m_handle)
            return std::nullopt;
        return detail::optionalView(UlmarCommsMessageValue(m_handle, detail::cstr(key).c_str()));
    }
    // The value of the first pair with this key, or fallback.
    std::string_view valueOr(std::string_view key, std::string_view fallback) const
    {
        return value(key).value_or(fallback);
    }

    // Takes a reference of its own to the viewed message (to keep a message
    // beyond the callback that received it). Empty when that fails.
    inline Message retain() const;

protected:
    void* m_handle = nullptr;
};

// Owns one reference to a message and releases it once. Move-only.
class Message : public MessageView {
public:
    // An empty message.
    constexpr Message() noexcept = default;
    // Takes over a reference the caller owns (a handle from a C builder).
    static Message adopt(void* handle) noexcept { return Message(handle); }

    // Takes over another message's reference.
    Message(Message&& other) noexcept : MessageView(std::exchange(other.m_handle, nullptr)) {}
    // Releases the current reference, then takes over another.
    Message& operator=(Message&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_handle = std::exchange(other.m_handle, nullptr);
        }
        return *this;
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    // Releases the reference.
    ~Message() { reset(); }

    // Releases the reference now and becomes empty.
    void reset() noexcept
    {
        if (void* handle = std::exchange(m_handle, nullptr))
            UlmarCommsDestroyMessage(handle);
    }
    // Gives the reference up to the caller, who releases it; becomes empty.
    [[nodiscard]] void* release() noexcept { return std::exchange(m_handle, nullptr); }

    // Appends a key/value pair (at most 25 pairs per message).
    Error add(std::string_view key, std::string_view value)
    {
        if (!m_handle)
            return Error(ULMARCOMMS_BAD_ARGUMENT);
        return Error(UlmarCommsMessageAddKeyValue(m_handle, detail::cstr(key).c_str(), detail::cstr(value).c_str()));
    }
    // Appends a pair and returns the message, for chaining; a failed add
    // empties the message so that posting it fails visibly.
    Message&& with(std::string_view key, std::string_view value) &&
    {
        if (!add(key, value).ok())
            reset();
        return std::move(*this);
    }

private:
    constexpr explicit Message(void* handle) noexcept : MessageView(handle) {}
};

inline Message MessageView::retain() const
{
    if (!m_handle || UlmarCommsIncCounterMessage(m_handle) != ULMARCOMMS_OK)
        return Message();
    return Message::adopt(m_handle);
}

/* --- Pumps ------------------------------------------------------------------- */

// A request arrived: the message, its target address and its method.
using RequestHandler = std::function<void(MessageView message, std::string_view to, std::string_view method)>;
// A reply arrived to the request whose sender id is responseId.
using ResponseHandler = std::function<void(unsigned responseId, MessageView message)>;
// An error reply with errorCode arrived to the request responseId.
using ErrorHandler = std::function<void(unsigned responseId, int errorCode)>;

// The three callbacks of a pump; any may be empty.
struct Handlers {
    RequestHandler onRequest; // requests
    ResponseHandler onResponse; // replies
    ErrorHandler onError; // error replies
};

// A named endpoint. Owns the C pump and the heap object its callbacks live
// in, which stays at one address for the pump's whole life. Move-only.
class Pump {
public:
    // An empty pump.
    Pump() noexcept = default;

    // Creates a pump named name (for example "echo" or "tools/echo") with
    // the handlers and an optional comma-separated interface list.
    static Result<Pump> create(std::string_view name, Handlers handlers, std::string_view interfaces = {})
    {
        if (name.empty())
            return Error(ULMARCOMMS_BAD_ARGUMENT);
        std::unique_ptr<State> state(new State(std::move(handlers)));
        const std::string nameText(name);
        const std::string interfaceText(interfaces);
        void* handle =
            UlmarCommsCreateMessagePump(nameText.c_str(), state.get(), &State::onRequest, &State::onResponse,
                                        &State::onError, interfaces.empty() ? nullptr : interfaceText.c_str());
        if (!handle)
            return Error(started() ? ULMARCOMMS_NOT_ROUTED : ULMARCOMMS_NOT_STARTED);
        return Pump(handle, state.release());
    }

    // Takes over another pump.
    Pump(Pump&& other) noexcept
        : m_handle(std::exchange(other.m_handle, nullptr)), m_state(std::exchange(other.m_state, nullptr))
    {
    }
    // Destroys the current pump, then takes over another.
    Pump& operator=(Pump&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_handle = std::exchange(other.m_handle, nullptr);
            m_state = std::exchange(other.m_state, nullptr);
        }
        return *this;
    }
    Pump(const Pump&) = delete;
    Pump& operator=(const Pump&) = delete;
    // Destroys the pump.
    ~Pump() { reset(); }

    // Destroys the pump now (it leaves its router first); returns the
    // library's result. Safe to call from the pump's own handler.
    Error reset() noexcept
    {
        void* handle = std::exchange(m_handle, nullptr);
        State* state = std::exchange(m_state, nullptr);
        if (!handle)
            return Error();
        const Error result(UlmarCommsDestroyMessagePump(handle));
        State::retire(state);
        return result;
    }

    // The C handle (still owned by this object).
    void* handle() const noexcept { return m_handle; }
    // True when the pump exists.
    explicit operator bool() const noexcept { return m_handle != nullptr; }
    // The pump's full address (host@name); empty for an empty pump.
    std::string_view address() const noexcept { return detail::view(UlmarCommsMessagePumpAddress(m_handle)); }

    // Creates an event this pump publishes (an existing one keeps its
    // listeners).
    Error addEvent(std::string_view eventName)
    {
        return Error(UlmarCommsMessagePumpCreateEvent(m_handle, detail::cstr(eventName).c_str()));
    }
    // Destroys an event and drops its listeners.
    Error removeEvent(std::string_view eventName)
    {
        return Error(UlmarCommsMessagePumpDestroyEvent(m_handle, detail::cstr(eventName).c_str()));
    }

    // A request to `to` with `method`.
    Message createMessage(std::string_view to, std::string_view method) const
    {
        return Message::adopt(
            UlmarCommsCreateMessage(m_handle, detail::cstr(to).c_str(), detail::cstr(method).c_str()));
    }
    // A reply to request; without a response text the reply has no "_r".
    Message createReply(MessageView request, std::optional<std::string_view> response = std::nullopt) const
    {
        const std::string text(response.value_or(std::string_view()));
        return Message::adopt(
            UlmarCommsCreateReplyMessage(m_handle, request.handle(), response ? text.c_str() : nullptr));
    }
    // "#HsList" to this host's system endpoint.
    Message createListHostsMessage() const { return Message::adopt(UlmarCommsCreateSystemListHostsMessage(m_handle)); }
    // "NetHostSupportInterfaces": which hosts support the interfaces (all of
    // them when match is true).
    Message createHostsSupportingInterfacesMessage(std::string_view interfaces, bool match) const
    {
        return Message::adopt(
            UlmarCommsCreateListHostsSupportingInterfaces(m_handle, detail::cstr(interfaces).c_str(), match));
    }
    // "#AdsSupIs" to host's system endpoint (empty host: this host).
    Message createAddressesSupportingInterfacesMessage(std::string_view host, std::string_view interfaces) const
    {
        return Message::adopt(UlmarCommsCreateSystemGetAddressesSupportingInterfacesMessage(
            m_handle, detail::cstr(host).c_str(), detail::cstr(interfaces).c_str()));
    }
    // "#IsHas": does `to` support the interface?
    Message createHasInterfacesMessage(std::string_view to, std::string_view interfaces) const
    {
        return Message::adopt(
            UlmarCommsCreateHasInterfacesMessage(m_handle, detail::cstr(to).c_str(), detail::cstr(interfaces).c_str()));
    }
    // "#IsList": which interfaces does `to` have?
    Message createListInterfacesMessage(std::string_view to) const
    {
        return Message::adopt(UlmarCommsCreateListInterfacesMessage(m_handle, detail::cstr(to).c_str()));
    }
    // "#EsList": which events does `to` publish?
    Message createListEventsMessage(std::string_view to) const
    {
        return Message::adopt(UlmarCommsCreateListEventsMessage(m_handle, detail::cstr(to).c_str()));
    }
    // "#reg": (un)register for remoteEventName at `to`; events then arrive
    // as requests whose method is returnMethod.
    Message createEventRegistrationMessage(std::string_view returnMethod, std::string_view to,
                                           std::string_view remoteEventName, bool reg) const
    {
        return Message::adopt(UlmarCommsCreateEventRegistrationMessage(m_handle, detail::cstr(returnMethod).c_str(),
                                                                       detail::cstr(to).c_str(),
                                                                       detail::cstr(remoteEventName).c_str(), reg));
    }
    // An event message for an event this pump created.
    Message createEventMessage(std::string_view eventName) const
    {
        return Message::adopt(UlmarCommsCreateEventMessage(m_handle, detail::cstr(eventName).c_str()));
    }

    // Posts a message. The library takes it, except on NOT_STARTED and
    // BAD_ARGUMENT, where it stays in `message` (a temporary is then released
    // as usual).
    Error post(Message&& message)
    {
        const int code = UlmarCommsPostMessage(m_handle, message.handle());
        if (code != ULMARCOMMS_NOT_STARTED && code != ULMARCOMMS_BAD_ARGUMENT)
            static_cast<void>(message.release());
        return Error(code);
    }
    // Sends an error reply with errorCode to request (the request stays with
    // its owner).
    Error sendError(MessageView request, int errorCode)
    {
        return Error(UlmarCommsSendErrorMessage(m_handle, request.handle(), errorCode));
    }
    // The message's sender id as a number (-1 without one).
    int messageId(MessageView message) const noexcept { return UlmarCommsMessageId(m_handle, message.handle()); }

private:
    // The callbacks' home. It stays put while the pump lives, and is freed
    // only when no callback of the pump is running on it any more.
    class State {
    public:
        explicit State(Handlers h) : handlers(std::move(h)) {}

        // Called by the router worker thread.
        static void onRequest(void* context, void* message, const char* to, const char* method)
        {
            static_cast<State*>(context)->run([&](Handlers& h) {
                if (h.onRequest)
                    h.onRequest(MessageView(message), detail::view(to), detail::view(method));
            });
        }
        // Called by the router worker thread.
        static void onResponse(void* context, unsigned int responseId, void* message)
        {
            static_cast<State*>(context)->run([&](Handlers& h) {
                if (h.onResponse)
                    h.onResponse(responseId, MessageView(message));
            });
        }
        // Called by the router worker thread.
        static void onError(void* context, unsigned int responseId, int errorCode)
        {
            static_cast<State*>(context)->run([&](Handlers& h) {
                if (h.onError)
                    h.onError(responseId, errorCode);
            });
        }

        // After the C pump is gone: frees the state now, or, when one of its
        // callbacks is still running, as soon as that callback returns. A
        // handler that destroys its own pump cannot be waited for on its own
        // thread, so the state is left to that callback to free.
        static void retire(State* state) noexcept
        {
            if (!state)
                return;
            std::unique_lock<std::mutex> guard(state->lock);
            if (state->active > 0 && state->runner == std::this_thread::get_id()) {
                state->orphaned = true;
                return;
            }
            state->idle.wait(guard, [state] { return state->active == 0; });
            guard.unlock();
            delete state;
        }

    private:
        template <typename Call> void run(Call&& call) noexcept
        {
            {
                std::lock_guard<std::mutex> guard(lock);
                ++active;
                runner = std::this_thread::get_id();
            }
            try {
                call(handlers);
            } catch (...) {
                // Nothing may cross back into the C library.
            }
            bool free = false;
            {
                std::lock_guard<std::mutex> guard(lock);
                --active;
                free = orphaned && active == 0;
                if (!free)
                    idle.notify_all();
            }
            if (free)
                delete this;
        }

        Handlers handlers;
        std::mutex lock;
        std::condition_variable idle;
        int active = 0;
        std::thread::id runner;
        bool orphaned = false;
    };

    Pump(void* handle, State* state) noexcept : m_handle(handle), m_state(state) {}

    void* m_handle = nullptr;
    State* m_state = nullptr;
};

/* --- Settings and logging ---------------------------------------------------- */

// Adds a number setting (the first value stored for a key wins, so the keys
// of the settings table keep their defaults: change those with the start
// argument).
inline Error setOption(std::string_view key, int value)
{
    return Error(UlmarCommsSetOptionNumber(detail::cstr(key).c_str(), value));
}
// Adds a text setting (the first value stored for a key wins).
inline Error setOption(std::string_view key, std::string_view value)
{
    return Error(UlmarCommsSetOptionString(detail::cstr(key).c_str(), detail::cstr(value).c_str()));
}

// A log sink: the level (ULMARCOMMS_LOG_*) and the formatted line.
using LogHandler = std::function<void(int level, std::string_view line)>;

namespace detail {

// One sink per logger (library, socket layer), shared by the program.
struct LogSink {
    std::mutex lock;
    LogHandler handler;
};

inline LogSink& librarySink()
{
    static LogSink sink;
    return sink;
}

inline LogSink& socketSink()
{
    static LogSink sink;
    return sink;
}

// Formats the library's printf format and va_list and hands the line on.
inline void deliverLog(LogSink& sink, int level, const char* format, char* args) noexcept
{
    try {
        std::string line;
        if (format) {
            char buffer[512];
            va_list copy;
            va_copy(copy, *reinterpret_cast<va_list*>(args));
            const int needed = std::vsnprintf(buffer, sizeof buffer, format, copy);
            va_end(copy);
            if (needed < 0)
                return;
            if (static_cast<size_t>(needed) < sizeof buffer) {
                line.assign(buffer, static_cast<size_t>(needed));
            } else {
                line.resize(static_cast<size_t>(needed) + 1);
                va_copy(copy, *reinterpret_cast<va_list*>(args));
                std::vsnprintf(&line[0], line.size(), format, copy);
                va_end(copy);
                line.resize(static_cast<size_t>(needed));
            }
        }
        std::lock_guard<std::mutex> guard(sink.lock);
        if (sink.handler)
            sink.handler(level, line);
    } catch (...) {
        // A logger must not throw into the library.
    }
}

inline void libraryLogTrampoline(int level, const char* format, char* args)
{
    deliverLog(librarySink(), level, format, args);
}

inline void socketLogTrampoline(int level, const char* format, char* args)
{
    deliverLog(socketSink(), level, format, args);
}

inline Error installSink(LogSink& sink, LogHandler handler, int (*install)(UlmarCommsLogger),
                         UlmarCommsLogger trampoline)
{
    const bool on = static_cast<bool>(handler);
    {
        std::lock_guard<std::mutex> guard(sink.lock);
        sink.handler = std::move(handler);
    }
    return Error(install(on ? trampoline : nullptr));
}

} // namespace detail

// Installs a logger for the library (an empty handler switches it off). It
// may be called from any library thread, one call at a time.
inline Error setLogger(LogHandler handler)
{
    return detail::installSink(detail::librarySink(), std::move(handler), &UlmarCommsSetLogger,
                               &detail::libraryLogTrampoline);
}
// The lowest level passed to the library's logger (default warnings).
inline Error setLogLevel(int level)
{
    return Error(UlmarCommsSetLoggerLevel(level));
}
// Installs a logger for the socket layer (an empty handler switches it off).
inline Error setSocketsLogger(LogHandler handler)
{
    return detail::installSink(detail::socketSink(), std::move(handler), &UlmarCommsSocketsSetLogger,
                               &detail::socketLogTrampoline);
}
// The lowest level passed to the socket layer's logger.
inline Error setSocketsLogLevel(int level)
{
    return Error(UlmarCommsSocketsSetLoggerLevel(level));
}

} // namespace ulmarcomms

#endif // ULMARCOMMS_HPP
