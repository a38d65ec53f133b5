// The system endpoint's answers, asked of a real service process through the
// C interface, with the exact texts applications parse.
#include "support/participant.h"

#include "core/core.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using UlmarCommsTest::Participant;
using UlmarCommsTest::uniquePipe;

namespace {

// The test program prints newlines inside a response as "\n".
std::string escaped(const std::string& text)
{
    std::string out;
    for (char c : text)
        out += c == '\n' ? std::string("\\n") : std::string(1, c);
    return out;
}

class SystemEndpoint : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_pipe = uniquePipe();
        m_host = UlmarComms::Core::instance()->getHostName();
        m_service = std::make_unique<Participant>(m_pipe, true);
        ASSERT_TRUE(m_service->waitFor("started 0"));
        m_app = std::make_unique<Participant>(m_pipe, false);
        ASSERT_TRUE(m_app->waitFor("started 0"));
        m_app->ask("pump asker", "pump asker");
        m_app->ask("pump calc a,b", "pump calc");
        m_app->ask("pump other b", "pump other");
        // The service knows "other" (with its interfaces) once it answers for it.
        for (int i = 0; i < 500; ++i) {
            if (ask("AddressSupportsInterface", "interface=b address=other") == "true")
                return;
        }
        FAIL() << "the service never learnt the application's pumps";
    }
    void TearDown() override
    {
        m_app.reset();
        m_service.reset();
    }
    std::string ask(const std::string& method, const std::string& pairs = "")
    {
        return m_app->query("asker", method, pairs);
    }
    // Sends a query expected to fail and returns the error line.
    std::string askForError(const std::string& method, const std::string& pairs = "")
    {
        std::string sent = m_app->ask("send asker /system " + method + " " + pairs, "sent asker ");
        const std::string id = sent.substr(std::string("sent asker ").size(), sent.find(' ', 11) - 11);
        std::string line;
        EXPECT_TRUE(m_app->waitFor("error asker " + id + " ", &line)) << method;
        return line.substr(std::string("error asker " + id + " ").size());
    }

    std::string m_pipe;
    std::string m_host;
    std::unique_ptr<Participant> m_service;
    std::unique_ptr<Participant> m_app;
};

TEST_F(SystemEndpoint, SettingsListingShowsEveryDefault)
{
    const std::string expected = "string,ulmar.networkrouter.ip4.addresses,*\n"
                                 "string,ulmar.networkrouter.ip4.networks,*\n"
                                 "string,ulmar.networkrouter.ip4.port,34001\n"
                                 "string,ulmar.systemrouter.ip4.addresses,127.0.0.1\n"
                                 "string,ulmar.systemrouter.ip4.port,13001\n"
                                 "string,ulmar.systemrouter.pipe.name," +
        m_pipe +
        "\n"
        "# numbers\n"
        "number,dataframehandler.inbound.size,4096\n"
        "number,dataframehandler.outbound.size,4096\n"
        "number,socket.selection.noworkerthreads,1\n"
        "number,socket.selection.systemmode.noworkerthreads,1\n"
        "number,socket.selection.timeout,500\n"
        "number,socketmessagerouterproxy.inbound.size,4096\n"
        "number,socketmessagerouterproxy.outbound.size,4096\n"
        "number,socketsystemrouterproxy.inbound.size,4096\n"
        "number,socketsystemrouterproxy.outbound.size,4096\n"
        "number,ulmar.networkrouter,0\n"
        "number,ulmar.networkrouter.discovery,0\n"
        "number,ulmar.networkrouter.discovery.timeout,5000\n"
        "number,ulmar.networkrouter.inStelthMode,0\n"
        "number,ulmar.networkrouter.ip4,1\n"
        "number,ulmar.networkrouter.ip6,0\n"
        "number,ulmar.networkrouter.isLowerOrder,0\n"
        "number,ulmar.networkrouter.isMaster,0\n"
        "number,ulmar.systemrouter.ip4,0\n"
        "number,ulmar.systemrouter.pipe,1\n";
    EXPECT_EQ(ask("ReadUlmarCommsSettings"), escaped(expected));
    // Selection by keys is not offered: any keys give an empty answer.
    EXPECT_EQ(ask("ReadUlmarCommsSettings", "keys=ulmar.networkrouter"), "");
}

TEST_F(SystemEndpoint, SystemInformationAndTable)
{
    // The network router is always attached; switched off, it has no interfaces.
    EXPECT_EQ(ask("SystemInfo"), escaped("name=" + m_host + "\nos=linux\ninterfaces=0\n"));
    EXPECT_EQ(ask("ViewSystemRouterRoutingTable"),
              escaped("# System Routing Table \nAddress,Interfaces\n" + m_host +
                      "@system,quendrelis.ulmar.comms.system\n" + m_host + "@asker,\n" + m_host + "@calc,a-b\n" +
                      m_host + "@other,b\n"));
}

TEST_F(SystemEndpoint, InterfaceQueries)
{
    // "#IsHas" is every pump's own question, answered by the endpoint's pump
    // about itself before the system queries see it.
    EXPECT_EQ(ask("#IsHas", "inters=quendrelis.ulmar.comms.system"), "true");
    EXPECT_EQ(ask("#IsHas", "inters=b"), "false");
    EXPECT_EQ(ask("#IsHas"), "false");
    EXPECT_EQ(ask("#AdsSupIs", "inters=a"), "a," + m_host + "@calc");
    EXPECT_EQ(ask("AddressSupportsInterface", "interface=a address=calc"), "true");
    EXPECT_EQ(ask("AddressSupportsInterface", "interface=a address=other"), "false");
    EXPECT_EQ(ask("AddressSupportsInterface", "interface=a"), "false");
    EXPECT_EQ(ask("#AddressSupportingInterfaces", "inters=a,b"), m_host + "@calc," + m_host + "@other");
    EXPECT_EQ(ask("#AddressSupportingInterfaces", "inters=a,b match=1"), m_host + "@calc");
    EXPECT_EQ(ask("#AddressSupportingInterfaces", "inters=a,b match=0"), m_host + "@calc," + m_host + "@other");
    EXPECT_EQ(ask("#AddressSupportingInterfaces", "inters=zzz"), "");
}

TEST_F(SystemEndpoint, NetworkQueriesWithTheRouterSwitchedOff)
{
    EXPECT_EQ(ask("KnownHosts"), m_host);
    EXPECT_EQ(ask("KnownHosts", "activeonly=true"), m_host);
    EXPECT_EQ(ask("HostInformation", "host=elsewhere"), escaped("host:elsewhere\n"));
    EXPECT_EQ(ask("HostInformation"), "");
    EXPECT_EQ(ask("NetworkRoutingTable"), "");
}

TEST_F(SystemEndpoint, UnknownCallsAndMissingKeysGetError1002)
{
    EXPECT_EQ(askForError("NoSuchQuery"), "1002");
    EXPECT_EQ(askForError("#AdsSupIs"), "1002");
    EXPECT_EQ(askForError("#AddressSupportingInterfaces"), "1002");
    // The endpoint is still answering afterwards.
    EXPECT_EQ(ask("AddressSupportsInterface", "interface=b address=other"), "true");
}

} // namespace
