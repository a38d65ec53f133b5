// The frame server: listening, accepting and re-arming the listener.
#include "framing/dataframeserver.h"

#include "core/core.h"
#include "platform/socketreaper.h"

#include <new>

namespace UlmarComms {

using UlmarCommsSystem::Socket;
using UlmarCommsSystem::SocketAddress;

DataFrameServer::DataFrameServer(const SocketAddress& address) : m_scratch(0), m_address(address), m_pSocket(nullptr)
{
}

DataFrameServer::~DataFrameServer()
{
    dropListener();
}

void DataFrameServer::dropListener()
{
    // Closed at once; a callback of it still running keeps the object.
    Socket::release(m_pSocket.exchange(nullptr));
}

bool DataFrameServer::start()
{
    if (!m_address.isValid()) {
        Core::log(Core::LogError, "The address passed to DataFrameServer object is not valid.\n");
        return false;
    }
    dropListener();
    Socket* listener = nullptr;
    if (m_address.isIP4Address())
        listener = new (std::nothrow) UlmarCommsSystem::SocketTCPIP();
    else if (m_address.isUNIXAddress())
        listener = new (std::nothrow) UlmarCommsSystem::SocketUNIX();
    if (listener == nullptr) {
        Core::log(Core::LogError, "DataFrameServer::start() Failed to create Socket Object.\n");
        return false;
    }
    unsigned char error = listener->create();
    if (error != Socket::NoSocketError) {
        Core::log(Core::LogError, "DataFrameServer::start() Failed to create socket. Error: %d\n", error);
        Socket::release(listener);
        return false;
    }
    error = listener->bind(m_address);
    if (error != Socket::NoSocketError) {
        Core::log(Core::LogError, "DataFrameServer::start() Failed to bind socket. Error: %d\n", error);
        Socket::release(listener);
        return false;
    }
    listener->setUserData(this);
    // Published before listening: the first client may arrive at once, and
    // the subclass checks that it came through this listener.
    m_pSocket = listener;
    error = listener->listen(onClientConnectFunction, onClientDisconnectFunction, this);
    if (error != Socket::NoSocketError) {
        Core::log(Core::LogError, "DataFrameServer::start() Failed to listen on socket. Error: %d\n", error);
        dropListener();
        return false;
    }
    return true;
}

void DataFrameServer::finish()
{
    dropListener();
    // An accept still running may hand the subclass a client after this
    // point; once no section that began before is left, none is.
    UlmarCommsSystem::SocketReaper::synchronize();
}

void DataFrameServer::onClientConnectFunction(Socket* listener, const SocketAddress& peer, Socket* accepted, void* user)
{
    DataFrameServer* server = static_cast<DataFrameServer*>(user);
    if (server == nullptr)
        return;
    try {
        server->onClientConnect(listener, peer, accepted);
    } catch (...) {
        Core::log(Core::LogFatal, "DataFrameServer::onClientConnectFunction( %p, %p, %p ) Unhandled exception.\n",
                  static_cast<void*>(listener), static_cast<void*>(accepted), user);
    }
}

void DataFrameServer::onClientDisconnectFunction(Socket* listener, Socket* accepted, void* user)
{
    DataFrameServer* server = static_cast<DataFrameServer*>(user);
    if (server == nullptr)
        return;
    try {
        server->onClientDisconnect(listener, accepted);
    } catch (...) {
        Core::log(Core::LogFatal, "DataFrameServer::onClientDisconnectFunction( %p, %p, %p ) Unhandled exception.\n",
                  static_cast<void*>(listener), static_cast<void*>(accepted), user);
    }
    if (listener == nullptr)
        return;
    const unsigned char error = listener->recv(&server->m_scratch, 1);
    if (error != Socket::NoSocketError)
        Core::log(Core::LogError,
                  "DataFrameServer::onClientDisconnectFunction() Failed to do the disconnect recv() with error: %d",
                  error);
}

} // namespace UlmarComms
