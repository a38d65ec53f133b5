// The daemon's memory bounds, against a real ulmarcommsd: a raw client that
// registers a pump and never reads is ended as a slow consumer, with one log
// line, while an application floods it and another keeps its request/reply
// traffic going; half-received large frames on many links stay within the
// daemon's bound, the links that would pass it being ended. The daemon's
// resident size is read from /proc; under the sanitizers it says little (the
// allocator keeps freed memory in quarantine), so there only the behaviour
// is checked.
#include "support/participant.h"
#include "support/rawpeer.h"
#include "tools/bus.h"

#include "core/core.h"
#include "messaging/commandmessage.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

using namespace UlmarCommsToolsTest;
using UlmarComms::CommandMessage;
using UlmarComms::DataFrame;
using UlmarCommsTest::Participant;
using UlmarCommsTest::RawPeer;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kResidentSizeMeaningful = false;
#else
constexpr bool kResidentSizeMeaningful = true;
#endif

constexpr long kMiB = 1024 * 1024;
constexpr std::chrono::seconds kDeadline{10};
// What the daemon may hold beyond its bounds: the frames in flight, the
// transfer buffers, the allocator's own slack.
constexpr long kSlackKiB = 8 * 1024;

// VmRSS of a process in KiB, 0 when unknown.
long residentKiB(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return 0;
}

UlmarCommsSystem::SocketAddress linkAddress(const std::string& pipe)
{
    UlmarCommsSystem::SocketAddress address;
    EXPECT_TRUE(address.setUNIXAddress(pipe));
    return address;
}

size_t count(const std::string& text, const std::string& what)
{
    size_t found = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
        ++found;
    return found;
}

// The id in a "sent NAME ID RC" line.
std::string sentId(const std::string& line)
{
    std::istringstream words(line);
    std::string word, name, id;
    words >> word >> name >> id;
    return id;
}

// One request from app's pump "sender" to to, answered within the deadline.
bool requestAnswered(Participant& app, const std::string& to)
{
    const std::string id = sentId(app.ask("send sender " + to + " ping", "sent sender "));
    return app.waitFor("response sender " + id + " ");
}

TEST(UlmarcommsdMemory, ASlowConsumerIsEndedOnceAndTheBusCarriesOn)
{
    const std::string host = UlmarComms::Core::instance()->getHostName();
    for (const int dataBytes : {1, 1024}) {
        SCOPED_TRACE("data bytes " + std::to_string(dataBytes));
        const std::string pipe = uniquePipeName();
        Daemon daemon(pipe, {"--link-memory", "1M"});
        ASSERT_TRUE(daemon.waitReady()) << daemon.process().transcript();
        const pid_t pid = daemon.process().pid();

        Participant service(pipe, false);
        ASSERT_TRUE(service.waitFor("started 0"));
        const std::string svc = service.ask("pump svc", "pump svc").substr(std::strlen("pump svc "));
        service.ask("answer svc echo", "answer svc");
        Participant app(pipe, false);
        ASSERT_TRUE(app.waitFor("started 0"));
        app.ask("pump sender", "pump sender");
        ASSERT_TRUE(requestAnswered(app, svc));
        const long idleKiB = residentKiB(pid);

        // The consumer announces its pump, takes the first message (so the
        // daemon knows the pump), then never reads again.
        RawPeer stall(linkAddress(pipe));
        const std::string stalled = host + "@stall";
        ASSERT_TRUE(stall.sendAll(UlmarCommsTest::commandFrame(1, CommandMessage::AddMessagePump, stalled.c_str())));
        bool reached = false;
        for (int attempt = 0; attempt < 50 && !reached; ++attempt) {
            const std::string id = sentId(app.ask("send sender " + stalled + " hello", "sent sender "));
            unsigned char type = 0;
            uint32_t frameId = 0;
            UlmarCommsTest::Bytes payload;
            // Until the pump is known the request comes back as an error.
            if (app.waitFor("error sender " + id + " ", nullptr, std::chrono::milliseconds(200)))
                continue;
            reached = stall.readFrame(type, frameId, payload);
        }
        ASSERT_TRUE(reached) << "the stalled pump never got its first message";

        long peakKiB = 0;
        bool ended = false;
        for (int round = 0; round < 200 && !ended; ++round) {
            const std::string burst = "burst sender " + stalled + " flood 1000 " + std::to_string(dataBytes);
            EXPECT_EQ(app.ask(burst, "burst sender "), "burst sender 0");
            peakKiB = std::max(peakKiB, residentKiB(pid));
            ASSERT_TRUE(requestAnswered(app, svc)) << "round " << round;
            ended = stall.peerHasShutDown();
        }
        ASSERT_TRUE(ended || daemon.process().waitFor([&] { return stall.peerHasShutDown(); }, kDeadline))
            << daemon.process().transcript();

        // Senders and the other links carry on.
        EXPECT_EQ(app.ask("burst sender " + stalled + " after 100", "burst sender "), "burst sender 0");
        EXPECT_TRUE(requestAnswered(app, svc));
        RunResult info = client(pipe, {"info"});
        EXPECT_EQ(info.status, 0) << info.transcript();

        daemon.process().waitFor([&] { return count(daemon.process().err(), "as a slow consumer") > 0; }, kDeadline);
        const std::string err = daemon.process().err();
        EXPECT_EQ(count(err, "as a slow consumer"), 1u) << err;
        EXPECT_NE(err.find("uid " + std::to_string(getuid()) + " pid " + std::to_string(getpid())), std::string::npos)
            << err;
        EXPECT_EQ(count(err, "Failed to add the message"), 0u) << err;
        if (kResidentSizeMeaningful) {
            EXPECT_LT(peakKiB - idleKiB, kMiB / 1024 + kSlackKiB) << "idle " << idleKiB << " KiB";
            // What the backlog took goes back to the system within seconds.
            EXPECT_TRUE(
                daemon.process().waitFor([&] { return residentKiB(pid) < idleKiB + 2048; }, std::chrono::seconds(10)))
                << "idle " << idleKiB << " KiB, now " << residentKiB(pid) << " KiB";
        }
    }
}

TEST(UlmarcommsdMemory, HalfReceivedLargeFramesStayWithinTheDaemonsBound)
{
    const std::string pipe = uniquePipeName();
    // Each link receives 5 MiB of a 6 MiB frame, holding a 6 MiB buffer: two
    // fit in 16 MiB, a third does not.
    Daemon daemon(pipe, {"--memory", "16M", "--user-memory", "64M"});
    ASSERT_TRUE(daemon.waitReady()) << daemon.process().transcript();
    const pid_t pid = daemon.process().pid();
    const long idleKiB = residentKiB(pid);

    const unsigned frameBytes = 6 * kMiB;
    const UlmarCommsTest::Bytes part =
        UlmarCommsTest::rawFrame(DataFrame::FrameTypeMessage, frameBytes, 1, UlmarCommsTest::Bytes(5 * kMiB, 'x'));
    std::vector<std::unique_ptr<RawPeer>> links;
    for (int i = 0; i < 6; ++i) {
        links.push_back(std::make_unique<RawPeer>(linkAddress(pipe)));
        links.back()->sendAll(part); // fails once the daemon has ended the link
    }
    auto ended = [&] {
        size_t count = 0;
        for (auto& link : links)
            count += link->peerHasShutDown() ? 1 : 0;
        return count;
    };
    daemon.process().waitFor([&] { return ended() >= 4; }, kDeadline);
    EXPECT_EQ(ended(), 4u) << daemon.process().transcript();
    if (kResidentSizeMeaningful) {
        EXPECT_LT(residentKiB(pid) - idleKiB, 16 * 1024 + kSlackKiB) << "idle " << idleKiB << " KiB";
    }

    const std::string limit = "would pass the service memory limit";
    daemon.process().waitFor([&] { return count(daemon.process().err(), limit) >= 4; }, kDeadline);
    const std::string err = daemon.process().err();
    EXPECT_EQ(count(err, limit), 4u) << err;
    RunResult info = client(pipe, {"info"});
    EXPECT_EQ(info.status, 0) << "the daemon still serves\n" << info.transcript();
}

TEST(UlmarcommsdMemory, MemoryOptionsAreCheckedAsUsage)
{
    for (const char* bad : {"0", "12", "-1M", "1T", "3G", "M", "1.5M"}) {
        RunResult usage = runTool({toolPath("ulmarcommsd"), "--link-memory", bad});
        EXPECT_EQ(usage.status, 2) << bad << "\n" << usage.transcript();
        EXPECT_NE(usage.err.find("--link-memory takes a byte count"), std::string::npos) << usage.err;
    }
    // A good value lands in the settings the service lists.
    const std::string pipe = uniquePipeName();
    Daemon daemon(pipe, {"--memory=64M", "--user-memory", "96m"});
    ASSERT_TRUE(daemon.waitReady()) << daemon.process().transcript();
    RunResult settings = client(pipe, {"settings"});
    EXPECT_EQ(settings.status, 0) << settings.transcript();
    EXPECT_NE(settings.out.find("ulmar.systemrouter.memory"), std::string::npos) << settings.out;
    EXPECT_NE(settings.out.find(std::to_string(64 * kMiB)), std::string::npos) << settings.out;
    EXPECT_NE(settings.out.find(std::to_string(96 * kMiB)), std::string::npos) << settings.out;
}

} // namespace
