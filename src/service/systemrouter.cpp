// The system router: routing table, link commands, the routing decision and
// the interface queries. See systemrouter.h for the locking rules.
#include "service/systemrouter.h"

#include "core/core.h"
#include "core/limits.h"
#include "framing/dataframe.h"
#include "network/networkrouter.h"

#include <algorithm>
#include <strings.h>
#include <unistd.h>

using UlmarComms::Address;
using UlmarComms::CommandMessage;
using UlmarComms::Core;
using UlmarComms::IMessageRouter;
using UlmarComms::MessageItem;
using UlmarCommsSystem::MutexLocker;

namespace UlmarCommsService {

namespace {

// The first value of a header key, or "" so that log lines never see null.
const char* textOrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

// Depth of post() calls on this thread: a process router that cannot deliver
// what it was handed passes it back here, and a second pass means the table
// and that router disagree (a pump matching as a prefix registered over
// another's entry). Such a message has no path; without this it would bounce
// between the two until the stack ran out. It is thread_local because posts
// run on many threads at once and only a nesting on one stack is a loop.
thread_local int t_postDepth = 0;

// Counts one post() on this thread for the lifetime of the guard.
struct PostDepthGuard {
    PostDepthGuard() { ++t_postDepth; }
    ~PostDepthGuard() { --t_postDepth; }
};

} // namespace

SystemRouter::SystemRouter()
    : m_pSystemRouterMessagePump(nullptr),
      m_pNetworkRouter(nullptr),
      m_running(false),
      m_serviceUser(static_cast<unsigned>(geteuid())),
      m_pumpsPerLink(UlmarComms::Limits::PumpsPerLink)
{
    const int perLink = Core::instance()->numberOrDefault(UlmarComms::Limits::PumpsPerLinkKey);
    if (perLink > 0)
        m_pumpsPerLink = static_cast<size_t>(perLink);
}

SystemRouter::~SystemRouter()
{
    Core::message("SystemRouter::~SystemRouter() >>> \n");
    {
        MutexLocker locker(m_tableLock);
        Core::message("SystemRouter::~SystemRouter() 1 \n");
        Core::message("SystemRouter::~SystemRouter() 2 \n");
        Core::message("SystemRouter::~SystemRouter() Q >> \n");
        m_routingTable.clear();
        Core::message("SystemRouter::~SystemRouter() Q << \n");
        Core::message("SystemRouter::~SystemRouter() 3 \n");
        Core::message("SystemRouter::~SystemRouter() 4 \n");
    }
    Core::message("SystemRouter::~SystemRouter() <<< ");
}

bool SystemRouter::start()
{
    // A link server that cannot listen does not stop the router: the service
    // works for its own process and reports the listener's failure in its log.
    for (UlmarComms::IRealSystemRouterLinkServer* server : m_linkServers)
        server->start();
    m_running = true;
    if (!Thread::start()) {
        m_running = false;
        return false;
    }
    return true;
}

void SystemRouter::finish()
{
    const bool wasRunning = m_running.exchange(false);
    for (UlmarComms::IRealSystemRouterLinkServer* server : m_linkServers)
        server->finish();
    m_wakeUp.broadcastLocked();
    if (wasRunning && isStarted())
        waitToFinish();
}

bool SystemRouter::add(IMessageRouter* router)
{
    MutexLocker locker(m_tableLock);
    m_routers.push_back(router);
    return true;
}

bool SystemRouter::add(IMessageRouter* router, const char* address)
{
    Address parsed(address);
    bool isLink = false;
    const unsigned uid = userOf(router, isLink);
    MutexLocker locker(m_tableLock);
    if (isLink && !mayRegister(parsed, address, uid))
        return false;
    // Prefix matching means a pump whose leading names equal an existing entry
    // updates that entry instead of adding one.
    RoutingEntry* entry = find(parsed);
    const bool takesOneMore = entry == nullptr || entry->router != router;
    if (isLink && takesOneMore && !mayHoldAnother(router, address, uid))
        return false;
    if (entry != nullptr) {
        m_routingTable.assign(entry, router, uid);
        return true;
    }
    m_routingTable.append(parsed, router, uid);
    return true;
}

bool SystemRouter::mayHoldAnother(IMessageRouter* link, const char* text, unsigned uid)
{
    const size_t held = m_routingTable.countFor(link);
    if (held < m_pumpsPerLink)
        return true;
    Core::log(Core::LogWarning,
              "SystemRouter: refused the registration of '%s' by a link of uid %u: the link holds %u pumps, its "
              "limit.\n",
              textOrEmpty(text), uid, static_cast<unsigned>(held));
    return false;
}

size_t SystemRouter::entryCount()
{
    MutexLocker locker(m_tableLock);
    return m_routingTable.size();
}

unsigned SystemRouter::userOf(IMessageRouter* router, bool& isLink) const
{
    unsigned uid = m_serviceUser;
    isLink = router != nullptr && router->linkUser(uid);
    return isLink ? uid : m_serviceUser;
}

bool SystemRouter::isSystemEndpointTarget(const Address& address)
{
    static const char* const endpointName = "system";
    const std::vector<std::string>& parts = address.parts();
    return parts.empty() || strcasecmp(parts.front().c_str(), endpointName) == 0;
}

// Any entry of another user that the address matches is refused: equal or
// under it would take its targets, above it would take the entry over.
bool SystemRouter::mayRegister(const Address& address, const char* text, unsigned uid)
{
    if (isSystemEndpointTarget(address)) {
        Core::log(Core::LogWarning,
                  "SystemRouter: refused the registration of '%s' by a link of uid %u: it would take targets meant "
                  "for the system endpoint.\n",
                  textOrEmpty(text), uid);
        return false;
    }
    if (uid == 0)
        return true;
    const RoutingEntry* held = m_routingTable.firstMatchNotOwnedBy(address, uid);
    if (held == nullptr)
        return true;
    Core::log(Core::LogWarning,
              "SystemRouter: refused the registration of '%s' by a link of uid %u: uid %u holds '%s'.\n",
              textOrEmpty(text), uid, held->owner, held->address.toString().c_str());
    return false;
}

bool SystemRouter::mayChange(const RoutingEntry& entry, unsigned uid) const
{
    if (isSystemEndpointTarget(entry.address))
        return false;
    return uid == 0 || entry.owner == uid;
}

// A sender no entry here holds names nobody on this machine, so replies to
// it hurt no other user's pump.
bool SystemRouter::maySendAs(const char* sender, unsigned uid)
{
    if (uid == 0 || sender == nullptr || sender[0] == '\0')
        return true;
    const RoutingEntry* entry = find(Address(sender));
    return entry == nullptr || entry->owner == uid;
}

void SystemRouter::refuseCirculating(UlmarComms::MessageRef message, const char* to, unsigned uid)
{
    Core::log(Core::LogWarning,
              "SystemRouter: a message to '%s' from a link of uid %u has no path: its best entry is that link.\n",
              textOrEmpty(to), uid);
    const char* mode = message->value(MessageItem::ArgumentKey_Mode);
    const bool isError = mode != nullptr && mode[0] == MessageItem::Mode_Error;
    if (isError || message->value(MessageItem::ArgumentKey_ResponseId) != nullptr)
        return;
    UlmarComms::MessageRef reply(Core::instance()->errorOut(message.get(), 400));
    if (reply)
        post(std::move(reply));
}

bool SystemRouter::remove(IMessageRouter* router)
{
    MutexLocker locker(m_tableLock);
    auto listed = std::find(m_routers.begin(), m_routers.end(), router);
    if (listed != m_routers.end())
        m_routers.erase(listed);
    m_routingTable.eraseRouter(router);
    return true;
}

bool SystemRouter::remove(IMessageRouter* router, const char* address)
{
    Address parsed(address);
    bool isLink = false;
    const unsigned uid = userOf(router, isLink);
    MutexLocker locker(m_tableLock);
    RoutingEntry* entry = m_routingTable.firstEqual(parsed);
    if (entry == nullptr)
        return false;
    if (isLink && !mayChange(*entry, uid)) {
        Core::log(Core::LogWarning,
                  "SystemRouter: refused the removal of '%s' by a link of uid %u: the entry is not that user's.\n",
                  textOrEmpty(address), uid);
        return false;
    }
    m_routingTable.erase(entry);
    return true;
}

void SystemRouter::addLinkServer(UlmarComms::IRealSystemRouterLinkServer* server)
{
    m_linkServers.push_back(server);
}

void SystemRouter::setNetworkRouter(UlmarComms::INetworkRouter* networkRouter)
{
    MutexLocker locker(m_queueLock);
    m_pNetworkRouter = networkRouter;
}

void SystemRouter::handleCommand(IMessageRouter* from, unsigned char command, const char* text)
{
    if (text == nullptr)
        return;
    switch (command) {
    case CommandMessage::AddMessagePump: add(from, text); break;
    case CommandMessage::RemoveMessagePump: remove(from, text); break;
    case CommandMessage::AddInterfaceNamesToMessagePump: replaceInterfaces(from, text); break;
    default: break;
    }
}

// "address:name,name": replaces that entry's interface list. The list is
// changed under the table lock: readers of the table hold it too.
void SystemRouter::replaceInterfaces(IMessageRouter* from, const char* text)
{
    std::string addressText;
    std::string namesText;
    if (!UlmarComms::splitOn(text, ":", addressText, namesText) || namesText.empty())
        return;
    std::vector<std::string> names;
    UlmarComms::splitOn(namesText, ",", names);
    Address parsed(addressText);
    bool isLink = false;
    const unsigned uid = userOf(from, isLink);
    MutexLocker locker(m_tableLock);
    RoutingEntry* entry = find(parsed);
    if (entry == nullptr)
        return;
    if (isLink && !mayChange(*entry, uid)) {
        Core::log(Core::LogWarning,
                  "SystemRouter: refused new interfaces of '%s' from a link of uid %u: the entry is not that user's.\n",
                  addressText.c_str(), uid);
        return;
    }
    entry->interfaces = names;
}

RoutingEntry* SystemRouter::find(const Address& address)
{
    if (!address.host().empty() && address.host() != Core::instance()->getHostName())
        return nullptr;
    return m_routingTable.best(address);
}

bool SystemRouter::post(UlmarComms::MessageRef message)
{
    route(std::move(message), nullptr);
    return true;
}

bool SystemRouter::postFromLink(IMessageRouter* link, UlmarComms::MessageRef message)
{
    route(std::move(message), link);
    return true;
}

void SystemRouter::route(UlmarComms::MessageRef message, IMessageRouter* link)
{
    char* to = nullptr;
    char* from = nullptr;
    message->getMandatoryRoutingFields(&to, &from);
    Core::message("SystemRouter::post( %p ) to='%s' from='%s'\n", static_cast<void*>(message.get()), textOrEmpty(to),
                  textOrEmpty(from));
    if (t_postDepth > 0) {
        rejectMessage(std::move(message), to, from);
        return;
    }
    bool isLink = false;
    const unsigned uid = userOf(link, isLink);
    bool backToLink = false;
    {
        PostDepthGuard depth;
        Address target(textOrEmpty(to));
        MutexLocker locker(m_tableLock);
        if (isLink && !maySendAs(from, uid)) {
            Core::log(Core::LogWarning,
                      "SystemRouter: refused a message sent as '%s' by a link of uid %u: another user holds that "
                      "sender.\n",
                      textOrEmpty(from), uid);
            return;
        }
        RoutingEntry* entry = find(target);
        if (isLink && entry != nullptr && entry->router == link) {
            backToLink = true;
        } else if (entry != nullptr && entry->router != nullptr) {
            Core::message("SystemRouter::post( %p ) Posting to message router\n", static_cast<void*>(message.get()));
            // The result is not looked at: the router took the message
            // either way.
            entry->router->post(std::move(message));
            return;
        }
    }
    if (backToLink) {
        refuseCirculating(std::move(message), to, uid);
        return;
    }
    if (passToLinkedHost(message, to))
        return;
    Core::message("SystemRouter::post( %p ) Adding to message queue.\n", static_cast<void*>(message.get()));
    UlmarComms::ByteCharge charge;
    if (!chargeHeld(link, message, to, uid, charge))
        return;
    bool queued = false;
    {
        MutexLocker locker(m_queueLock);
        queued = m_queue.push(std::move(message));
        if (queued)
            m_queueCharges.push_back(std::move(charge));
    }
    if (queued)
        m_wakeUp.broadcastLocked();
}

// A message for another host whose link is up goes to that link from this
// thread instead of waking the system router thread: between hosts that
// hand-off was the largest cost of a round trip. Only while nothing waits in
// the queue and the thread is not routing a message, so nothing overtakes a
// message queued before it (one link's messages are routed by one thread at
// a time, so a later one cannot pass an earlier one still being passed on
// here). A host with no link yet is left to the thread, which opens one.
bool SystemRouter::passToLinkedHost(UlmarComms::MessageRef& message, const char* to)
{
    UlmarComms::INetworkRouter* network = m_pNetworkRouter.load();
    if (network == nullptr)
        return false;
    const Address target(textOrEmpty(to));
    const std::string& host = target.host();
    if (host == "localhost" || host == Core::instance()->getHostName())
        return false;
    {
        MutexLocker locker(m_queueLock);
        if (m_queue.count() > 0 || m_routingQueued)
            return false;
    }
    const void* shown = message.get();
    const UlmarComms::INetworkRouter::LinkedPost result = network->postIfLinked(host, message);
    if (result == UlmarComms::INetworkRouter::LinkedPost::NotLinked)
        return false;
    Core::verbose("SystemRouter::ProcessMessage( %p ) Passing onto network router\n", shown);
    if (result == UlmarComms::INetworkRouter::LinkedPost::Refused)
        Core::log(Core::LogError, "SystemRouter::ProcessMessage( %p ) Failed to post onto the network router.\n",
                  shown);
    return true;
}

bool SystemRouter::chargeHeld(IMessageRouter* link, const UlmarComms::MessageRef& message, const char* to, unsigned uid,
                              UlmarComms::ByteCharge& charge)
{
    std::shared_ptr<UlmarComms::ByteAccount> account = link != nullptr ? link->heldMessagesAccount() : nullptr;
    if (!account)
        return true;
    const uint64_t bytes = message->heldBytes();
    const UlmarComms::ByteAccount* refuser = account->chargeOrRefuser(bytes, UlmarComms::ByteAccount::Bounds::All);
    if (refuser != nullptr) {
        Core::log(Core::LogWarning,
                  "SystemRouter: dropped a message for '%s' from a link of uid %u: the %s memory bound of %llu bytes "
                  "is reached.\n",
                  textOrEmpty(to), uid, refuser->name(), static_cast<unsigned long long>(refuser->limit()));
        return false;
    }
    charge = UlmarComms::ByteCharge(std::move(account), bytes);
    return true;
}

unsigned SystemRouter::run()
{
    while (m_running) {
        UlmarComms::MessageRef message;
        UlmarComms::ByteCharge charge; // given back once the message is routed
        {
            MutexLocker locker(m_queueLock);
            message = m_queue.pop();
            m_routingQueued = static_cast<bool>(message);
            if (message && !m_queueCharges.empty()) {
                charge = std::move(m_queueCharges.front());
                m_queueCharges.pop_front();
            }
        }
        if (!message) {
            // The queue is checked again under the condition's own mutex, so
            // a post between the pop above and this wait is not slept through
            // and the wait needs no time-out: an idle router sleeps.
            m_wakeUp.waitUnless(&SystemRouter::hasQueuedMessages, this);
            continue;
        }
        Core::message("SystemRouter::Run()\n");
        processMessage(std::move(message));
    }
    return 0;
}

bool SystemRouter::hasQueuedMessages(void* router)
{
    SystemRouter* self = static_cast<SystemRouter*>(router);
    MutexLocker locker(self->m_queueLock);
    return self->m_queue.count() > 0 || !self->m_running;
}

void SystemRouter::processMessage(UlmarComms::MessageRef message)
{
    const void* shown = message.get();
    Core::message("SystemRouter::ProcessMessage( %p )\n", shown);
    char* to = nullptr;
    char* from = nullptr;
    message->getMandatoryRoutingFields(&to, &from);
    Address target(textOrEmpty(to));
    const std::string& host = target.host();
    if (host != "localhost" && host != Core::instance()->getHostName()) {
        // Handed over without the queue lock: the network router posts its
        // query copies back here under its own lock, so holding ours across
        // the call would order the two locks both ways. The pointer changes
        // only while this thread is stopped.
        UlmarComms::INetworkRouter* network = m_pNetworkRouter.load();
        if (network != nullptr) {
            Core::verbose("SystemRouter::ProcessMessage( %p ) Passing onto network router\n", shown);
            if (!network->post(host, std::move(message)))
                Core::log(Core::LogError,
                          "SystemRouter::ProcessMessage( %p ) Failed to post onto the network router.\n", shown);
            return;
        }
    } else if (deliverLocally(message, target)) {
        return;
    }
    rejectMessage(std::move(message), to, from);
}

// Posts a reference of its own, so that a message the router refuses is
// still here to be answered; message stays the caller's.
bool SystemRouter::deliverLocally(const UlmarComms::MessageRef& message, const Address& target)
{
    MutexLocker locker(m_tableLock);
    RoutingEntry* entry = find(target);
    if (entry == nullptr)
        return false;
    if (entry->router == nullptr) {
        Core::log(Core::LogError, "RoutingEntry::Post( [message] %p ) No message router object running.\n",
                  static_cast<void*>(message.get()));
        return false;
    }
    if (entry->router->post(message.share()))
        return true;
    Core::log(Core::LogError, "RoutingEntry::Post( [message] %p ) Post on message router object failed.\n",
              static_cast<void*>(message.get()));
    // A stopped router dropped it: the service is going down and nobody is
    // answered. A link that could not queue it gets the sender told.
    return entry->router->isStopped();
}

// No path: answer with error 400 unless the message is itself an error (so
// errors never bounce). The test on the sender's entry is deliberately the
// inverse of what its log line suggests: an error reply goes only to a sender
// this machine's table does not hold (a sender on another host), and the check
// stays so.
void SystemRouter::rejectMessage(UlmarComms::MessageRef message, const char* to, const char* from)
{
    const void* shown = message.get();
    Core::log(Core::LogWarning, "SystemRouter::ProcessMessage( %p ) rejecting message as no path was found to '%s'\n",
              shown, textOrEmpty(to));
    Address sender(textOrEmpty(from));
    const char* mode = message->value(MessageItem::ArgumentKey_Mode);
    if (mode != nullptr && mode[0] == MessageItem::Mode_Error) {
        Core::message("SystemRouter::ProcessMessage( %p ) Got an error off an error message.\n", shown);
        return;
    }
    bool senderKnown = false;
    {
        MutexLocker locker(m_tableLock);
        senderKnown = find(sender) != nullptr;
    }
    if (senderKnown) {
        Core::message("SystemRouter::ProcessMessage( %p ) Unable to send back an error message as return address no "
                      "longer exists.\n",
                      shown);
        return;
    }
    UlmarComms::MessageRef reply(Core::instance()->errorOut(message.get(), 400));
    if (!reply) {
        Core::log(Core::LogError, "SystemRouter::ProcessMessage( %p ) Unable to create return error message.\n", shown);
        return;
    }
    if (!post(std::move(reply)))
        Core::log(Core::LogError, "SystemRouter::ProcessMessage( %p ) Unable to post error message.\n", shown);
}

bool SystemRouter::interfaceDoesAddressSupport(const Address& address, const std::string& interface)
{
    MutexLocker locker(m_tableLock);
    RoutingEntry* entry = find(address);
    if (entry == nullptr)
        return false;
    return std::find(entry->interfaces.begin(), entry->interfaces.end(), interface) != entry->interfaces.end();
}

void SystemRouter::interfaceGetAddressSupporting(const std::string& interface, std::vector<Address>& out)
{
    MutexLocker locker(m_tableLock);
    for (const auto& [sequence, entry] : m_routingTable.entries()) {
        if (std::find(entry->interfaces.begin(), entry->interfaces.end(), interface) != entry->interfaces.end())
            out.push_back(entry->address);
    }
}

// With all false an entry is selected at its first equal pair; with all true
// the equal pairs are counted and must equal the number of requested names,
// so an empty request selects everything and a name listed twice counts twice.
std::string SystemRouter::getAddressesSupportingInterfaces(std::vector<std::string>& interfaces, bool all)
{
    std::string result;
    MutexLocker locker(m_tableLock);
    for (const auto& [sequence, entry] : m_routingTable.entries()) {
        size_t equalPairs = 0;
        bool selected = false;
        for (const std::string& name : entry->interfaces) {
            for (const std::string& wanted : interfaces) {
                if (name == wanted)
                    ++equalPairs;
            }
            if (!all && equalPairs > 0) {
                selected = true;
                break;
            }
        }
        if (all)
            selected = equalPairs == interfaces.size();
        if (!selected)
            continue;
        if (!result.empty())
            result += ',';
        result += entry->address.toString();
    }
    return result;
}

void SystemRouter::dumpSystemRouterTable(std::ostringstream& out)
{
    out << "# System Routing Table " << '\n' << "Address,Interfaces" << '\n';
    MutexLocker locker(m_tableLock);
    for (const auto& [sequence, entry] : m_routingTable.entries()) {
        out << entry->address.toString() << ',';
        for (size_t i = 0; i < entry->interfaces.size(); ++i) {
            if (i != 0)
                out << '-';
            out << entry->interfaces[i];
        }
        out << '\n';
    }
}

} // namespace UlmarCommsService
