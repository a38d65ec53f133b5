// The machine's system router: the table of every message pump address known
// on this machine, each with the process router that delivers to it and the
// interfaces the pump supports. Process routers reach it directly (the
// service's own router) or through the service side of a local link, which
// presents each remote process as one more IMessageRouter.
//
// Two locks, never nested by this class: the table lock (routers and routing
// table) and the queue lock (the queue and the network router pointer). No
// lock of this class is held while a message is handed to the network router,
// which posts back here under its own lock.
// Messages that cannot be delivered at once are queued for the router's own
// thread ("system router" thread), which makes the full routing decision and
// answers undeliverable requests with error 400. A message for another host
// whose link is up skips the queue when nothing waits in it (see
// passToLinkedHost).
//
// Who owns which name. Every entry remembers the user of the router that
// added it: the peer of a link, or this service's own user for a router in
// this process. A link of one user cannot register a name that matches an
// entry of another user (equal, under it, or above it, which would take the
// entry over), cannot remove or re-describe another user's entry, and cannot
// send a message whose sender names another user's entry; root's links may.
// No link, root's included, may register a name that would take targets
// meant for the system endpoint (no path names, or a first name "system"),
// nor remove or re-describe its entry. A message that arrived over a link
// and whose best entry is that same link has no path: sending it back would
// make it circulate: a request is answered with error 400, anything else
// dropped. A link holds at most a bounded number of entries (PumpsPerLink in
// core/limits.h), so one process cannot grow the table without end. Each
// refusal leaves the table as it was and is logged with a text of its own,
// so the log's throttle holds back each cause on its own. A message held in
// the queue is charged to the account its link names (its user's), so a
// flood towards names nobody holds is bounded like any other backlog; one
// that would pass that bound is dropped with a log line.
#pragma once

#include "core/address.h"
#include "messaging/messagerouter.h"
#include "platform/mutex.h"
#include "platform/thread.h"
#include "service/routingtable.h"

#include <deque>
#include <sstream>
#include <string>
#include <vector>

namespace UlmarComms {
class INetworkRouter;
class SystemRouterMessagePump;

// The abstract face of a link server attached to the real system router.
class IRealSystemRouterLinkServer {
public:
    // Remembers the router the server serves (not owned).
    explicit IRealSystemRouterLinkServer(ISystemRouter* router) : m_pSystemRouter(router) {}
    // Forgets the router.
    virtual ~IRealSystemRouterLinkServer() { m_pSystemRouter = nullptr; }
    // Starts listening.
    virtual bool start() = 0;
    // Stops listening.
    virtual void finish() = 0;

protected:
    ISystemRouter* m_pSystemRouter;
};
} // namespace UlmarComms

namespace UlmarCommsService {

class SystemRouter : public UlmarComms::ISystemRouter, public UlmarCommsSystem::Thread {
public:
    SystemRouter();
    ~SystemRouter() override;

    // Starts the link servers, then the system router thread.
    bool start() override;
    // Stops the link servers and joins the thread.
    void finish() override;
    // Adds a process router to the routers list.
    bool add(UlmarComms::IMessageRouter* router) override;
    // Registers a pump address delivered by router.
    bool add(UlmarComms::IMessageRouter* router, const char* address);
    // Forgets a router and every entry it delivers to.
    bool remove(UlmarComms::IMessageRouter* router) override;
    // Removes the entry whose path equals address (any router may).
    bool remove(UlmarComms::IMessageRouter* router, const char* address);
    // Attaches a link server; called before start.
    void addLinkServer(UlmarComms::IRealSystemRouterLinkServer* server);
    // Attaches (or with null detaches) the network router.
    void setNetworkRouter(UlmarComms::INetworkRouter* networkRouter) override;
    // The attached network router, or null.
    UlmarComms::INetworkRouter* networkRouter() const { return m_pNetworkRouter.load(); }
    // Remembers the system endpoint (informational).
    void setSystemRouterMessagePump(UlmarComms::SystemRouterMessagePump* pump) { m_pSystemRouterMessagePump = pump; }
    // Routes a message (it takes it); always true.
    bool post(UlmarComms::MessageRef message) override;
    // Routes a message that arrived over link (it takes it); always true.
    bool postFromLink(UlmarComms::IMessageRouter* link, UlmarComms::MessageRef message) override;
    // Whether a link could never own address: it would be chosen instead of
    // the system endpoint's entry for a target meant for it.
    static bool isSystemEndpointTarget(const UlmarComms::Address& address);
    // Acts on a link command from a process router.
    void handleCommand(UlmarComms::IMessageRouter* from, unsigned char command, const char* text) override;

    // The best local entry for address; the caller holds the table lock.
    RoutingEntry* find(const UlmarComms::Address& address);
    // Whether the best entry for address lists exactly this interface.
    bool interfaceDoesAddressSupport(const UlmarComms::Address& address, const std::string& interface);
    // Appends the address of every entry listing the interface.
    void interfaceGetAddressSupporting(const std::string& interface, std::vector<UlmarComms::Address>& out);
    // Comma-separated addresses of entries supporting any (or all) names.
    std::string getAddressesSupportingInterfaces(std::vector<std::string>& interfaces, bool all);
    // Writes the routing table as text.
    void dumpSystemRouterTable(std::ostringstream& out);
    // Entries one link may hold from now on (the setting decides at start).
    void setPumpsPerLink(size_t pumps) { m_pumpsPerLink = pumps; }
    // How many entries the table holds.
    size_t entryCount();

protected:
    // The system router thread: drains the queue.
    unsigned run() override;

private:
    // The wait predicate of the thread: queued work or a stop.
    static bool hasQueuedMessages(void* router);
    // The full routing decision for a queued message (system router thread).
    void processMessage(UlmarComms::MessageRef message);
    // Posts a share of message to its local entry; false when it has no path.
    bool deliverLocally(const UlmarComms::MessageRef& message, const UlmarComms::Address& target);
    // Answers an undeliverable message with error 400 where that is due.
    void rejectMessage(UlmarComms::MessageRef message, const char* to, const char* from);
    void replaceInterfaces(UlmarComms::IMessageRouter* from, const char* text);
    // Routes message; link is the link it arrived over, or null.
    void route(UlmarComms::MessageRef message, UlmarComms::IMessageRouter* link);
    // The user router acts for; isLink tells whether it stands for another process.
    unsigned userOf(UlmarComms::IMessageRouter* router, bool& isLink) const;
    // Whether a link of uid may register address (text as sent); logs a
    // refusal (table lock held).
    bool mayRegister(const UlmarComms::Address& address, const char* text, unsigned uid);
    // Whether link may take one more entry; logs a refusal (table lock held).
    bool mayHoldAnother(UlmarComms::IMessageRouter* link, const char* text, unsigned uid);
    // Whether a link of uid may change or remove entry (table lock held).
    bool mayChange(const RoutingEntry& entry, unsigned uid) const;
    // Whether a link of uid may send as sender (table lock held).
    bool maySendAs(const char* sender, unsigned uid);
    // A message that would go back over the link it came from: a request
    // is answered with error 400, anything else dropped.
    void refuseCirculating(UlmarComms::MessageRef message, const char* to, unsigned uid);
    // Passes a message for another host straight to its live link when no
    // queued message could be overtaken; false leaves it to the queue.
    bool passToLinkedHost(UlmarComms::MessageRef& message, const char* to);
    // Charges a message about to be queued to the account its link names;
    // false (logged) when a bound refuses it, and the message is dropped.
    bool chargeHeld(UlmarComms::IMessageRouter* link, const UlmarComms::MessageRef& message, const char* to,
                    unsigned uid, UlmarComms::ByteCharge& charge);

    UlmarCommsSystem::Mutex m_tableLock;
    std::vector<UlmarComms::IMessageRouter*> m_routers;
    RoutingTable m_routingTable;
    UlmarCommsSystem::Mutex m_queueLock;
    UlmarComms::MessageQueue m_queue;
    // What each queued message costs its sender's account, in queue order.
    std::deque<UlmarComms::ByteCharge> m_queueCharges;
    // The thread has taken a message off the queue and may still be routing
    // it (queue lock): messages for other hosts then queue behind it.
    bool m_routingQueued = false;
    UlmarComms::SystemRouterMessagePump* m_pSystemRouterMessagePump;
    std::vector<UlmarComms::IRealSystemRouterLinkServer*> m_linkServers;
    // Attached by the service start-up while queries may already be asked.
    std::atomic<UlmarComms::INetworkRouter*> m_pNetworkRouter;
    std::atomic<bool> m_running;
    UlmarCommsSystem::ConditionValue m_wakeUp;
    // The user this service runs as: the owner of its own process's entries.
    unsigned m_serviceUser;
    // Entries one link may hold (Limits::PumpsPerLink or its setting).
    size_t m_pumpsPerLink;
};

} // namespace UlmarCommsService
