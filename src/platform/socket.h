// The socket layer: TCP, UNIX-domain stream and UDP sockets whose transfers
// are asynchronous, one request at a time per direction, completed by the
// selector's worker threads (socketselector.h) through plain callbacks.
//
// Each socket keeps two descriptors for the same connection: the main one,
// registered with the selector for reading, and a dup()ed "write handle",
// registered only while a send is outstanding. The kernel keeps the two
// registrations apart, so a read and a write can be outstanding together and
// complete on different workers at the same time.
//
// Threads. Every callback (sent, received, error, disconnected, client
// connected/disconnected) runs on a selector worker thread; the connected
// callback runs on the thread that called connect() (on a worker after
// connectAsync()), and the received
// callback of a read taken off the selector (takeRead) on the thread that
// completes it. A socket's read and write
// completions may run at the same time on two workers, so owners lock their
// own state.
//
// Ownership and release. Whoever creates a socket owns it; an accepted socket
// belongs to whoever takes it in the listener's client-connect callback (with
// no such callback it is released at once). A socket is never deleted: its
// owner releases it (Socket::release), which closes its descriptors at once
// (the peer sees the close), unlinks it from its listener or its clients,
// forgets its callbacks and its id, so no new event finds it, and hands the
// object to the selector's reaper (socketreaper.h). The reaper deletes it
// once every reaper section that began before the release has ended, so a
// callback of it still running, on a worker or on the releasing thread
// itself, keeps a valid object; calls on it then fail as on a closed socket.
// Releasing never waits, so it works from any thread, under any lock that
// the reaper's destroy does not take, and inside the socket's own callbacks.
// An owner that must know that no callback of its socket still runs before
// it frees what the callbacks use waits with SocketReaper::synchronize(),
// outside any callback. Release a socket once, and never use it afterwards
// outside a callback already running on it. Every event carries the
// socket's record id, not a pointer, so an event that outlives its socket is
// dropped. Socket::deinit() must not run on a worker thread; it destroys
// the released sockets the workers had not reaped yet.
//
// The socket layer logs through its own logger, gated like the core logger.
#pragma once

#include "core/limits.h"
#include "platform/mutex.h"
#include "platform/socketaddress.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <sys/uio.h>
#include <vector>

namespace UlmarCommsSystem {

class Socket;
class SocketSelector;
class SocketSelectorWorker;
class BSDSocketServiceMode;

// Adds O_NONBLOCK to a descriptor; false when either fcntl call fails.
bool SetNonBlocking(int descriptor);

// The platform record of a socket: the write handle, both requests and the
// lock that serialises every descriptor operation of the socket. The socket
// owns it; it is shared so that a thread waiting on a taken read outside any
// reaper section (SocketWait) keeps it, and the descriptor it waits on, valid
// while the socket may be released and reaped.
struct BSDSocketPlatformData {
    // One outstanding transfer.
    struct Request {
        // The owner's buffer (not owned).
        unsigned char* buffer = nullptr;
        // Bytes to send, or room to receive into.
        unsigned size = 0;
        // Datagram destination or source.
        SocketAddress address;
        // Posted and not yet completed.
        bool pending = false;
    };

    // A record with a fresh, never reused id for its owner.
    explicit BSDSocketPlatformData(Socket* owner);

    // Begins a transfer on an open descriptor (lock held).
    void beginTransfer() { ++transfers; }
    // Ends a transfer and closes what close() left to it (takes the lock).
    void endTransfer();
    // Closes handle now, or once the transfers running on it end (lock held);
    // while a thread waits on it (waits), the connection is shut down at
    // once, which ends that wait and shows the peer the close.
    void closeHandle(int handle);

    // Identifies the socket in selector registrations.
    const uint64_t id;
    // Guards the descriptors, requests, callbacks and flags of the socket.
    Mutex lock;
    // The dup()ed descriptor registered for writing, -1 when none.
    int writeHandle = -1;
    // The outstanding write: buffer, size, destination (datagrams).
    Request writeRequest;
    // The outstanding read: buffer, size, source (datagrams).
    Request readRequest;
    // The pending stream read was taken off the selector by a thread that
    // waits for it itself (Socket::takeRead).
    bool readTaken = false;
    // Stream transfers running on the descriptors without the lock, so that
    // a receive and a send of one socket do not wait for each other; begun
    // and ended under the lock. A wait on a taken read counts as one.
    unsigned transfers = 0;
    // Threads waiting on a taken read (SocketWait), among the transfers.
    unsigned waits = 0;
    // Descriptors close() took away while transfers still used them: the
    // last transfer to end closes them, so a number is never reused under it.
    std::vector<int> closedHandles;
    // Set once the connection has been reported ended; cleared by set().
    bool ended = false;
    // A connectAsync() is under way: the write handle is registered for its
    // completion, and no send may be posted until it is reported.
    bool connecting = false;
    // A connect was started on this descriptor: a second one is refused,
    // since the kernel would report the first one's success to it again.
    bool connectStarted = false;
    // The socket, null once it is released (changed under the registry lock).
    std::atomic<Socket*> owner;
};

// The socket an event or a caller works on, found by record id or pointer.
// It keeps nothing alive by itself: the reaper section the caller is in
// (socketreaper.h) keeps the socket object, or the caller owns it. socket()
// turns null as soon as the socket is released, possibly by a callback the
// holder just ran, and the holder then stops touching it.
class SocketHold {
public:
    // The live socket whose record has this id; empty if it is gone.
    static SocketHold byId(uint64_t id);
    // The socket, if it is not released; empty for null.
    explicit SocketHold(Socket* socket);
    // An empty hold.
    SocketHold() = default;
    SocketHold(SocketHold&& other) noexcept = default;
    SocketHold& operator=(SocketHold&& other) = delete;
    SocketHold(const SocketHold&) = delete;
    SocketHold& operator=(const SocketHold&) = delete;

    // The socket, or null once it has been released.
    Socket* socket() const;
    // The record (valid as long as the hold lives), or null.
    BSDSocketPlatformData* record() const { return m_record.get(); }

private:
    explicit SocketHold(std::shared_ptr<BSDSocketPlatformData> record);

    std::shared_ptr<BSDSocketPlatformData> m_record;
};

// A taken read's descriptor, kept open for a thread that waits on it outside
// any reaper section (Socket::waitOnTakenRead): until the wait goes, closing
// or releasing the socket shuts the connection down instead of closing the
// descriptor, so the wait ends at once and the number is never reused under
// it. Holds no Socket pointer: whoever completes the read finds the socket
// again inside a section.
class SocketWait {
public:
    // An empty wait.
    SocketWait() = default;
    // Ends the wait; closes the descriptor if the socket was closed meanwhile.
    ~SocketWait();
    SocketWait(SocketWait&& other) noexcept;
    SocketWait& operator=(SocketWait&& other) noexcept;
    SocketWait(const SocketWait&) = delete;
    SocketWait& operator=(const SocketWait&) = delete;

    // The descriptor to wait on, -1 when empty.
    int handle() const { return m_handle; }
    // Whether this waits on the read of the socket hold holds.
    bool of(const SocketHold& hold) const { return m_record && hold.record() == m_record.get(); }

private:
    friend class Socket;
    SocketWait(std::shared_ptr<BSDSocketPlatformData> record, int handle);
    void end();

    std::shared_ptr<BSDSocketPlatformData> m_record;
    int m_handle = -1;
};

// An asynchronous socket; see the file comment for threads and ownership.
class Socket {
public:
    // Connected / disconnected: (socket, user).
    typedef void (*ConnectionCallback)(Socket* socket, void* user);
    // Stream received / sent: (socket, buffer, count done, size asked, user, error).
    typedef void (*StreamCallback)(Socket* socket, unsigned char* buffer, unsigned count, unsigned size, void* user,
                                   unsigned char error);
    // Datagram received / sent: (socket, peer, buffer, count, size, user, error).
    typedef void (*DatagramCallback)(Socket* socket, const SocketAddress& peer, unsigned char* buffer, unsigned count,
                                     unsigned size, void* user, unsigned char error);
    // Error: (socket, error code, user).
    typedef void (*ErrorCallback)(Socket* socket, unsigned char error, void* user);
    // Listener, client connected: (listener, peer, accepted, user).
    typedef void (*ClientConnectCallback)(Socket* listener, const SocketAddress& peer, Socket* accepted, void* user);
    // Listener, client disconnected: (listener, accepted, user).
    typedef void (*ClientDisconnectCallback)(Socket* listener, Socket* accepted, void* user);
    // Timer entry: (data).
    typedef void (*TimerCallback)(void* data);
    // The application's log sink: level, printf format, the call's va_list.
    typedef void (*Logger)(int level, const char* format, char* args);

    // Socket error codes.
    static constexpr unsigned char NoSocketError = 0;
    static constexpr unsigned char UnknownError = 1;
    static constexpr unsigned char SocketAlreadlyCreated = 2;
    static constexpr unsigned char SocketNotCreated = 3;
    static constexpr unsigned char SocketNotOpen = 4;
    static constexpr unsigned char PermissionDenied = 5;
    static constexpr unsigned char AddressAlreadyUsed = 6;
    static constexpr unsigned char CantAssignAddress = 7;
    static constexpr unsigned char ConnectionAbort = 8;
    static constexpr unsigned char ConnectionRefused = 9;
    static constexpr unsigned char ConnectionResetByPeer = 10;
    static constexpr unsigned char BadAddress = 11;
    static constexpr unsigned char HostIsDown = 12;
    static constexpr unsigned char NoRouteToHost = 13;
    static constexpr unsigned char SocketConnected = 14;
    static constexpr unsigned char TooManyOpenFiles = 15;
    static constexpr unsigned char MessageTooLong = 16;
    static constexpr unsigned char NetworkDown = 17;
    static constexpr unsigned char NetworkDownOnReset = 18;
    static constexpr unsigned char NetworkUnreachable = 19;
    static constexpr unsigned char SocketNotConnected = 20;
    static constexpr unsigned char CannotSendAfterSocketShutdown = 21;
    static constexpr unsigned char TimeOut = 22;
    static constexpr unsigned char HostNotFound = 23;
    static constexpr unsigned char NoNetwork = 24;
    static constexpr unsigned char FunctionNotSupported = 25;
    static constexpr unsigned char SelectIsFull = 26;
    static constexpr unsigned char CallingAsyncFunctionOnNoneAsyncObject = 27;
    static constexpr unsigned char ActionNotAllowed = 28;
    static constexpr unsigned char InvalidFunctionOnSocketType = 29;
    static constexpr unsigned char UnableToSchedualAsyncJob = 30;

    // The descriptor value of a socket that is not created.
    static constexpr int BadSocketValue = -1;
    // The listen() backlog (core/limits.h).
    static constexpr int ListenBacklog = UlmarComms::Limits::ListenBacklog;
    // Live accepted sockets one listener keeps at most (core/limits.h);
    // later clients are accepted and dropped at once.
    static constexpr unsigned MaxAcceptedSockets = UlmarComms::Limits::AcceptedSocketsPerListener;

    // The server-mode record a listening socket carries.
    class ServerMode {
    public:
        virtual ~ServerMode();
    };

    // Retires socket at once and hands it to the reaper, which deletes it
    // once no callback that began before can still be running (see the file
    // comment); never waits. Null does nothing; a second release of the same
    // socket does nothing either.
    static void release(Socket* socket);
    // Releases instead of deleting, for owners that hold a socket in a smart pointer.
    struct Releaser {
        // Releases socket.
        void operator()(Socket* socket) const { release(socket); }
    };
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    // Adopts a descriptor (non-blocking for stream transfers) and registers
    // it; on failure the caller keeps the descriptor.
    virtual unsigned char set(int handle);
    // A new, not created socket of the same class.
    virtual Socket* createOfType() = 0;
    // The connected peer's address.
    virtual unsigned char getRemoteAddress(SocketAddress& address);
    // AF_INET or AF_UNIX.
    virtual int getFamily() const = 0;
    // 6, 0 or 17.
    virtual int getProtocol() const = 0;
    // SOCK_STREAM or SOCK_DGRAM.
    virtual int getType() const = 0;
    // Posts one send of size bytes (stream sockets).
    virtual unsigned char send(unsigned char* buffer, unsigned size);
    // Writes what the connection takes at once, on the calling thread, when
    // no send is outstanding (stream sockets); the count taken, 0 when it
    // would block, failed or a send is posted. No callback follows: the
    // caller posts send() for whatever is left, and a failure then ends the
    // connection on a worker exactly as it would have without this attempt.
    unsigned trySend(const unsigned char* buffer, unsigned size);
    // trySend() of count pieces in one system call, in order: the bytes
    // taken, which may end inside any piece.
    unsigned trySendv(const iovec* parts, int count);
    // Posts one receive into buffer (stream sockets).
    virtual unsigned char recv(unsigned char* buffer, unsigned size);
    // Takes the pending stream read off the selector for a thread that will
    // wait for the data itself (poll on the descriptor returned) and then
    // completeTakenRead() or returnRead(). The descriptor, or -1 when no
    // stream read is pending; a read already taken is returned again
    // without a system call.
    int takeRead();
    // takeRead() for a thread that will wait outside any reaper section: the
    // descriptor stays open until the returned wait goes (see SocketWait).
    // Empty when takeRead() would give -1.
    SocketWait waitOnTakenRead();
    // Gives a taken read back to the selector.
    void returnRead();
    // Completes a taken read on the calling thread, exactly as a worker
    // would: the receive, then the received callback or the end of the
    // connection. hold holds this socket; a read not taken is left alone.
    void completeTakenRead(SocketHold& hold);
    // Posts one datagram to address (datagram sockets).
    virtual unsigned char sendTo(const SocketAddress& address, unsigned char* buffer, unsigned size);
    // Posts one datagram receive into buffer (datagram sockets).
    virtual unsigned char recvFrom(unsigned char* buffer, unsigned size);
    // Makes the descriptor of this family, type and protocol and registers it.
    virtual unsigned char create();
    // Binds the descriptor (UNIX names with the full address size).
    virtual unsigned char bind(const SocketAddress& address);
    // Listens (backlog 256) and accepts on the workers, calling these.
    virtual unsigned char listen(ClientConnectCallback clientConnect, ClientDisconnectCallback clientDisconnect,
                                 void* user);
    // Blocking connect, then non-blocking; calls connected on this thread.
    virtual unsigned char connect(const SocketAddress& address, ConnectionCallback connected,
                                  ConnectionCallback disconnected, void* user);
    // Starts a non-blocking connect and returns at once; a worker reports
    // the outcome: connected, or disconnected and the error callback. An
    // error returned here means no callback follows.
    unsigned char connectAsync(const SocketAddress& address, ConnectionCallback connected,
                               ConnectionCallback disconnected, void* user);
    // Deregisters and closes both descriptors; drops the server mode.
    virtual unsigned char close();
    // Sets SO_BROADCAST.
    virtual unsigned char setBroadcastMode(bool on);
    // Accepts one client (run by a worker when the listener is readable).
    virtual unsigned char doAccept();
    // Live accepted sockets this listener keeps at most from now on
    // (MaxAcceptedSockets until set); an owner with a bound of its own sets
    // it a little above that, so that its own refusal, with its reason, comes first.
    void setMaxAcceptedSockets(unsigned count) { m_maxAccepted = count; }

    // The socket's own address (getsockname).
    unsigned char getLocalAddress(SocketAddress& address);
    // The main descriptor, -1 when not created.
    int getHandle() const;
    // Whether listen() has given the socket its server mode.
    bool isListening() const;
    // The listener this socket was accepted on, or null.
    Socket* getParent() const;
    // Links the socket to a listening socket (anything else unlinks it).
    void setParent(Socket* listener);
    // The sockets accepted on this listener and still alive.
    std::vector<Socket*> getAcceptedSockets() const;

    // Installs the stream sent/received callbacks and their user data.
    void setStreamCallbacks(StreamCallback sent, StreamCallback received, void* user);
    // Installs the datagram sent/received callbacks and their user data.
    void setDatagramCallbacks(DatagramCallback sent, DatagramCallback received, void* user);
    // Installs the error callback.
    void setErrorCallback(ErrorCallback callback, void* user);
    // Installs the connected/disconnected callbacks.
    void setConnectionCallback(ConnectionCallback connected, ConnectionCallback disconnected, void* user);
    // Stores a pointer for the owner.
    void setUserData(void* data);
    // The owner's pointer.
    void* getUserData() const;
    // Forgets every callback, user pointer and the listener link.
    void clear();

    // Calls the connected callback.
    void onConnectedAction();
    // Calls the listener's client-disconnect, then the disconnected callback.
    void onDisconnectAction(unsigned char code);
    // Calls the error callback.
    void errored(unsigned char code);

    // Starts the selector with count workers (0 means 1); once only.
    static bool init(unsigned count);
    // Stops and destroys the selector (never from a worker thread).
    static void deinit();
    // The running selector, or null.
    static SocketSelector* getSelector();
    // A TCP socket for an IPv4 address, a UNIX one for a UNIX address, else null.
    static Socket* createByAddressType(const SocketAddress& address);
    // Adds a timer entry (see SocketTimeout).
    static bool addToTimer(TimerCallback callback, void* data, unsigned ms, bool once);
    // Removes timer entries (see SocketTimeout).
    static bool removeFromTimer(TimerCallback callback, void* data);

    // Maps a system error number to a socket error code.
    static unsigned char BSDSocketsErrorCode(int error);
    // NoSocketError for result >= 0, else the mapping of errno.
    static unsigned char goodAPICall(int result);

    // Installs the socket layer's logger; null switches it off.
    static int setLogger(Logger logger);
    // Sets the lowest level passed on.
    static int setLoggingLevel(int level);
    // The lowest level passed on.
    static int getLoggingLevel();
    // Logs at LogMessage.
    static void message(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // Logs at LogVerbose.
    static void verbose(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // Logs at the given level.
    static void log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
    // Writes the summaries of log texts held back (core/logthrottle.h).
    static void flushLogSummaries();

protected:
    Socket();
    // Only the reaper destroys a socket (release()).
    virtual ~Socket();

private:
    friend class SocketSelectorWorker;
    friend class SocketHold;

    // The selector registration data: record id and direction.
    uint64_t token(bool write) const;
    // Unregisters, unlinks, closes and forgets the callbacks (release());
    // false when already released.
    bool retire();
    // Forgets every callback and its user pointer; the record lock is held.
    void forgetCallbacksLocked();
    // Deletes a released socket (the reaper's destroy).
    static void destroy(void* socket);
    // Takes the pending stream read off the selector (locked); the descriptor or -1.
    int takeReadLocked();
    // Points the main handle's registration at the read request (locked).
    bool armRead(uint32_t events);
    // Re-arms a listener for the next client.
    unsigned char rearmListener();
    // Builds the server-mode record (locked).
    void buildServerMode(ClientConnectCallback clientConnect, ClientDisconnectCallback clientDisconnect, void* user);
    // Drops the server-mode record and unlinks its accepted sockets (locked).
    void destroyServerMode();
    // Accepts and drops a client beyond the limit.
    void refuseClient(int handle);

    Socket* m_pParent;
    int m_handle;
    ErrorCallback m_errorCallback;
    void* m_pErrorUser;
    StreamCallback m_streamSent;
    StreamCallback m_streamReceived;
    DatagramCallback m_datagramSent;
    DatagramCallback m_datagramReceived;
    void* m_pTransferUser;
    ConnectionCallback m_connected;
    ConnectionCallback m_disconnected;
    void* m_pConnectionUser;
    std::shared_ptr<BSDSocketPlatformData> m_platform;
    BSDSocketServiceMode* m_pServerMode;
    void* m_pUserData;
    std::atomic<unsigned> m_maxAccepted{MaxAcceptedSockets};
};

// The server mode of a BSD listener: its accepted sockets and callbacks.
class BSDSocketServiceMode : public Socket::ServerMode {
public:
    // Sockets accepted here and still alive (under the registry lock).
    std::vector<Socket*> accepted;
    // Called for each accepted client.
    Socket::ClientConnectCallback clientConnect = nullptr;
    // Called when an accepted client's connection ends.
    Socket::ClientDisconnectCallback clientDisconnect = nullptr;
    // Their user data.
    void* user = nullptr;
};

// TCP over IPv4.
class SocketTCPIP : public Socket {
public:
    SocketTCPIP();
    Socket* createOfType() override;
    int getFamily() const override;
    int getProtocol() const override;
    int getType() const override;

protected:
    // Released, never deleted (Socket::release).
    ~SocketTCPIP() override = default;
};

// Stream sockets in the UNIX domain (abstract namespace).
class SocketUNIX : public Socket {
public:
    SocketUNIX();
    Socket* createOfType() override;
    int getFamily() const override;
    int getProtocol() const override;
    int getType() const override;

protected:
    // Released, never deleted (Socket::release).
    ~SocketUNIX() override = default;
};

// UDP over IPv4.
class SocketUDP : public Socket {
public:
    SocketUDP();
    Socket* createOfType() override;
    int getFamily() const override;
    int getProtocol() const override;
    int getType() const override;

protected:
    // Released, never deleted (Socket::release).
    ~SocketUDP() override = default;
};

} // namespace UlmarCommsSystem
