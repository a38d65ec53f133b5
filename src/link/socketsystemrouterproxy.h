// The process side of the local link: the machine's system router as the
// process's MessageRouter sees it.
//
// Every message and link command that must leave the process goes into a
// frame on one stream socket to the system router service; what comes back
// goes to the MessageRouter. The proxy owns the connection: it opens it,
// announces the process's pumps as soon as it stands (every pump but the
// first, which is the MessageRouter's rule), and while it is live re-opens it
// two seconds after every failure, for as long as the process runs, with
// exactly one reconnection timer entry outstanding at a time.
//
// Threads. post and handleCommand: the router worker and application
// threads. onConnected: the thread that connects (start's caller, or the
// timer thread for reconnections). onDisconnect, onError, doHandleMessage,
// doHandleCommand: selector workers, or the router worker when it was idle
// and read the link itself (waitForInput): a message for this process is
// then delivered without waking the worker from another thread, the one
// hand-off a round trip could lose. onDoReconnect: the timer thread (a
// selector worker). Only the timer flags are guarded by the proxy's lock,
// which is never held across connect().
//
// Trust. Before anything is announced on a new link, the service's
// credentials on the connected socket are checked: root, this process's own
// user, or the user named by "ulmar.systemrouter.pipe.serviceuser". Any other
// listener on the service's address is not believed: the link is dropped
// with a log line and retried like any failed connection.
//
// Ownership. post takes its message whatever the result: a frame holds a
// copy, and the message is released. Messages from the link are posted to the
// MessageRouter.
// The socket is the proxy's: created for each attempt, released on error, in
// finish and in the destructor. The MessageRouter is not owned. The owner
// calls finish() before deleting the proxy: finish() waits for the callbacks
// still running, so none runs once it returns (or it releases the proxy,
// DataFrameHandler::release, and the reaper deletes it later).
#pragma once

#include "framing/dataframehandler.h"
#include "messaging/messagerouter.h"
#include "platform/mutex.h"
#include "platform/socketaddress.h"

#include <atomic>

namespace UlmarComms {

class SocketSystemRouterProxy : public ISystemRouter, public DataFrameHandler {
public:
    // The platform layer's address class.
    typedef UlmarCommsSystem::SocketAddress SocketAddress;

    // Link states.
    static constexpr int StateDown = 0;
    // A connect attempt is under way.
    static constexpr int StateConnecting = 1;
    // Connected and receiving.
    static constexpr int StateConnected = 2;
    // Milliseconds between reconnection attempts.
    static constexpr unsigned ReconnectDelay = 2000;

    // A proxy for the service at systemRouterAddress; it does not connect yet.
    explicit SocketSystemRouterProxy(const SocketAddress& systemRouterAddress);
    // Deletes a socket still held and any retry still scheduled; owners call
    // finish() first (the runtime may not, after a failed start, when no
    // callback can have run).
    ~SocketSystemRouterProxy() override;

    // Goes live and starts connecting: false only when no socket could be made.
    bool start() override;
    // Stops reconnecting and closes the link (leaves the proxy live, on
    // purpose); waits for the callbacks still running, so never call it from
    // one.
    void finish() override;
    // Attaches the process's router (replacing any earlier one); true.
    bool add(IMessageRouter* router) override;
    // Detaches router if it is the attached one (with a warning); true.
    bool remove(IMessageRouter* router) override;
    // Queues a copy of the message for the service and releases it; false
    // without a socket or when the copy could not be queued.
    bool post(MessageRef message) override;
    // Queues a link command from the attached router.
    void handleCommand(IMessageRouter* router, unsigned char code, const char* text) override;

    // The connection stands: receive, then announce the routing table.
    void onConnected(Socket* socket) override;
    // Logs only; the end of a link arrives as onError as well.
    void onDisconnect(Socket* socket) override;
    // Drops the socket and schedules a reconnection.
    void onError(Socket* socket, unsigned char error) override;
    // A command from the service goes to the MessageRouter.
    void doHandleCommand(unsigned char code, const std::string& text) override;
    // A message from the service (ours now) is posted to the MessageRouter.
    void doHandleMessage(MessageItem* item) override;
    // The idle router worker waits for the link itself and completes what
    // arrives on its own thread; see ISystemRouter.
    int waitForInput(int wakeHandle) override;
    // Uses socket for the link.
    void setSocket(Socket* socket) override;

    // One connect attempt; see start() for the result.
    bool connect();
    // Schedules the next attempt unless one is pending (only while live).
    void doTimerReconnect();
    // Cancels a pending attempt.
    void removeReconnectionTimerFunction();
    // Timer callback: data is the proxy.
    static void onDoReconnect(void* data);

    // The link state (StateDown, StateConnecting, StateConnected).
    int state() const { return m_state.load(); }
    // Whether the proxy was started (finish leaves it so).
    bool isLive();
    // Whether a reconnection is scheduled.
    bool isReconnectPending();
    // The attached router, or null.
    IMessageRouter* messageRouter() const { return m_pMessageRouter.load(); }

protected:
    // Removes the retry and releases the socket (release() calls it).
    void retireLink() override;

private:
    // Releases whatever socket the handler still holds (logging the close
    // when close is set).
    void dropSocket(bool close);
    // Whether the service behind a connected socket may be believed (logged when not).
    bool trustsService(Socket* socket);

    // StateDown, StateConnecting or StateConnected.
    std::atomic<int> m_state;
    // Guards the two flags below; never held across connect() or a timer call.
    UlmarCommsSystem::Mutex m_timerLock;
    // A reconnection timer entry is outstanding.
    bool m_reconnectPending;
    // Started: only a live proxy schedules reconnections.
    bool m_live;
    // Where the service listens.
    SocketAddress m_systemRouterAddress;
    // The process's router (not owned), or null.
    std::atomic<IMessageRouter*> m_pMessageRouter;
    // Set by onConnected when the service was not believed; connect() then
    // drops the link, after the connected callback has returned.
    std::atomic<bool> m_serviceRefused;
};

} // namespace UlmarComms
