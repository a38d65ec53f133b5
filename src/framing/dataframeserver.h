// The listener that hands out stream sockets for frame handlers.
//
// DataFrameServer owns a listening socket and hands every accepted
// connection to its subclass, which decides what runs on it (the local link
// and the network link put a frame handler on each). It is kept apart from
// DataFrameHandler: a server makes links, a handler runs one.
//
// The listener is released, not deleted (Socket::release), so its end never
// waits; finish() then waits until no callback of it still runs, since the
// subclass frees what its accept callback uses once finish() returns.
#pragma once

#include "platform/socket.h"
#include "platform/socketaddress.h"

#include <atomic>

namespace UlmarComms {

// A listening stream socket whose accepted connections go to the subclass.
class DataFrameServer {
public:
    // The platform layer's socket and address classes.
    typedef UlmarCommsSystem::Socket Socket;
    typedef UlmarCommsSystem::SocketAddress SocketAddress;

    // A server for this address; start() listens.
    explicit DataFrameServer(const SocketAddress& address);

    // A client was accepted on listener; the subclass owns accepted from here.
    virtual void onClientConnect(Socket* listener, const SocketAddress& peer, Socket* accepted) = 0;
    // An accepted client's connection ended (reported before its own callbacks).
    virtual void onClientDisconnect(Socket* listener, Socket* accepted) = 0;
    // Releases the listening socket (subclasses call finish() first).
    virtual ~DataFrameServer();
    // Creates, binds and listens (replacing an earlier listener); false on failure.
    virtual bool start();
    // Releases the listening socket and waits until no callback of it still
    // runs (SocketReaper::synchronize): never call it from a socket callback.
    virtual void finish();

    // Owns its listener: not copyable.
    DataFrameServer(const DataFrameServer&) = delete;
    DataFrameServer& operator=(const DataFrameServer&) = delete;

    // The listening socket, or null.
    Socket* listeningSocket() const { return m_pSocket.load(); }
    // The address listened on.
    const SocketAddress& address() const { return m_address; }

    // Client-connect trampoline: user data is the server.
    static void onClientConnectFunction(Socket* listener, const SocketAddress& peer, Socket* accepted, void* user);
    // Client-disconnect trampoline; re-arms the listener afterwards.
    static void onClientDisconnectFunction(Socket* listener, Socket* accepted, void* user);

private:
    // Releases the listening socket, if any; never waits.
    void dropListener();

    // The byte the listener's re-arming receive names.
    unsigned char m_scratch;
    // The address listened on.
    SocketAddress m_address;
    // The listening socket (owned), or null.
    std::atomic<Socket*> m_pSocket;
};

} // namespace UlmarComms
