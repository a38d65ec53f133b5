// A network router that does nothing, for tests that watch one or two of its
// calls and override those.
#pragma once

#include "network/networkrouter.h"
#include "platform/socketaddress.h"

#include <string>

namespace UlmarCommsTest {

class NetworkRouterStub : public UlmarComms::INetworkRouter {
public:
    bool post(const std::string&, UlmarComms::MessageRef) override { return false; }
    bool post(const std::string&, unsigned char, const char*) override { return false; }
    bool getHostsSupportingInterfaces(const char*, const char*, const char*, const char*) override { return false; }
    bool start() override { return true; }
    void stop() override {}
    bool add(UlmarComms::ISystemRouter*) override { return true; }
    bool routingTableNewConnection(const std::string&, UlmarComms::NetworkRouterInterface*,
                                   UlmarComms::NetworkRouterConnection*) override
    {
        return true;
    }
    std::string getKnownHosts(bool) override { return std::string(); }
    std::string getHostInfo(const std::string&) override { return std::string(); }
    void infoAboutHost(const std::string&, const UlmarCommsSystem::SocketAddress&,
                       UlmarComms::NetworkRouterInterface*) override
    {
    }
};

} // namespace UlmarCommsTest
