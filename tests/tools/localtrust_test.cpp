// Who may use the bus and who owns which name, with the real daemon and real
// processes of two users. The second user is a uid with no account: a child
// program runs as it through setpriv, and the test's own thread takes it on
// for a moment (raw credential syscalls change only the calling thread) to
// open a raw link or a fake service. Both need root; elsewhere the tests
// say why they are skipped.
#include "support/participant.h"
#include "support/rawpeer.h"
#include "support/wait.h"
#include "tools/bus.h"

#include "messaging/messageitem.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sstream>
#include <sys/syscall.h>
#include <sys/un.h>

using namespace UlmarCommsToolsTest;
using UlmarComms::MessageItem;
using UlmarCommsTest::Participant;

namespace {

constexpr unsigned kOtherUser = 4242;
const char* const kSetpriv = "/usr/bin/setpriv";

// Why a second user cannot be had here, or "" when it can.
std::string secondUserUnavailable()
{
    if (geteuid() != 0)
        return "needs root to act as a second user";
    if (access(kSetpriv, X_OK) != 0)
        return std::string("needs ") + kSetpriv + " to run a program as a second user";
    return "";
}

#define REQUIRE_SECOND_USER()                                                                                          \
    do {                                                                                                               \
        const std::string why = secondUserUnavailable();                                                               \
        if (!why.empty())                                                                                              \
            GTEST_SKIP() << why;                                                                                       \
    } while (0)

std::vector<std::string> asOtherUser()
{
    const std::string id = std::to_string(kOtherUser);
    return {kSetpriv, "--reuid=" + id, "--regid=" + id, "--clear-groups"};
}

// This thread acts as the second user while the guard lives; root's saved
// uid lets it come back.
class ThreadAsOtherUser {
public:
    ThreadAsOtherUser()
    {
        EXPECT_EQ(syscall(SYS_setresgid, kOtherUser, kOtherUser, 0), 0);
        EXPECT_EQ(syscall(SYS_setresuid, kOtherUser, kOtherUser, 0), 0);
    }
    ~ThreadAsOtherUser()
    {
        EXPECT_EQ(syscall(SYS_setresuid, 0, 0, 0), 0);
        EXPECT_EQ(syscall(SYS_setresgid, 0, 0, 0), 0);
    }
};

UlmarCommsSystem::SocketAddress pipeAddress(const std::string& pipe)
{
    UlmarCommsSystem::SocketAddress address;
    EXPECT_TRUE(address.setUNIXAddress(pipe));
    return address;
}

bool contains(const std::string& text, const std::string& needle)
{
    return text.find(needle) != std::string::npos;
}

size_t occurrences(const std::string& text, const std::string& needle)
{
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        ++count;
    return count;
}

// Waits until the daemon's log holds needle.
bool daemonLogged(Daemon& daemon, const std::string& needle)
{
    return daemon.process().waitFor([&] { return contains(daemon.process().err(), needle); }, std::chrono::seconds(10));
}

} // namespace

TEST(LocalTrust, AUserNotAllowedIsRefusedAndTheClientSaysSo)
{
    REQUIRE_SECOND_USER();
    const std::string pipe = uniquePipeName();
    Daemon daemon(pipe);
    ASSERT_TRUE(daemon.waitReady()) << daemon.process().transcript();

    std::vector<std::string> argv = asOtherUser();
    for (const std::string& arg : clientArgs(pipe, {"--timeout", "3000", "info"}))
        argv.push_back(arg);
    const RunResult refused = runTool(argv);
    EXPECT_EQ(refused.status, 4) << refused.transcript();
    EXPECT_TRUE(contains(refused.err, "the bus refused this user")) << refused.transcript();
    EXPECT_TRUE(daemonLogged(daemon, "refused the local link of uid 4242 pid ")) << daemon.process().err();

    // The daemon's own user is unaffected.
    const RunResult own = client(pipe, {"info"});
    EXPECT_EQ(own.status, 0) << own.transcript();

    // Allowed by uid, the same user gets its answer.
    const std::string allowedPipe = uniquePipeName();
    Daemon allowing(allowedPipe, {"--allow-user", std::to_string(kOtherUser)});
    ASSERT_TRUE(allowing.waitReady()) << allowing.process().transcript();
    argv = asOtherUser();
    for (const std::string& arg : clientArgs(allowedPipe, {"info"}))
        argv.push_back(arg);
    const RunResult allowed = runTool(argv);
    EXPECT_EQ(allowed.status, 0) << allowed.transcript();
}

// With every user let in, the second user still cannot take, shadow or remove
// the first user's names or the system endpoint's, nor send as them.
TEST(LocalTrust, EveryoneAllowedStillOwnsTheirNames)
{
    REQUIRE_SECOND_USER();
    const std::string pipe = uniquePipeName();
    Daemon daemon(pipe, {"--allow-everyone"});
    ASSERT_TRUE(daemon.waitReady()) << daemon.process().transcript();
    const std::string host = hostName();

    Participant owner(pipe, false);
    ASSERT_TRUE(owner.waitFor("started 0"));
    owner.ask("pump svc", "pump svc ");
    owner.ask("answer svc echo", "answer svc");
    Participant asker(pipe, false);
    ASSERT_TRUE(asker.waitFor("started 0"));
    asker.ask("pump asker", "pump asker ");
    const std::string tableBefore = asker.query("asker", "ViewSystemRouterRoutingTable");

    {
        Participant other(pipe, false, "", asOtherUser());
        ASSERT_TRUE(other.waitFor("started 0")) << other.process().transcript();
        // The pumps exist in the other process; the bus does not take them.
        other.ask("pump svc", "pump svc ");
        other.ask("pump svc/sub", "pump svc/sub ");
        other.ask("pump system", "pump system ");
        EXPECT_TRUE(daemonLogged(daemon, "refused the registration of '" + host + "@system'"))
            << daemon.process().err();
        EXPECT_EQ(occurrences(daemon.process().err(), "refused the registration of"), 3u) << daemon.process().err();
        // Destroying them asks the bus to remove the names.
        other.ask("destroy svc", "destroyed svc");
        other.ask("destroy system", "destroyed system");
        EXPECT_TRUE(daemonLogged(daemon, "refused the removal of '" + host + "@system'")) << daemon.process().err();
        EXPECT_TRUE(contains(daemon.process().err(), "refused the removal of '" + host + "@svc'"))
            << daemon.process().err();
    }
    EXPECT_EQ(asker.query("asker", "ViewSystemRouterRoutingTable"), tableBefore);

    // A request under the name the other user tried to shadow reaches the owner.
    const std::string sent = asker.ask("send asker svc/sub ping", "sent asker ");
    EXPECT_TRUE(owner.waitFor("request svc ")) << owner.process().transcript();
    EXPECT_TRUE(asker.waitFor("response asker ")) << sent;

    // A raw link of the other user sends a query as the owner's pump: it is
    // dropped, so the reply never reaches the owner.
    UlmarCommsTest::RawPeer raw;
    {
        ThreadAsOtherUser other;
        ASSERT_TRUE(raw.connectTo(pipeAddress(pipe)));
    }
    UlmarComms::MessageRef forged(MessageItem::create());
    forged->add(MessageItem::ArgumentKey_To, (host + "@system").c_str());
    forged->add(MessageItem::ArgumentKey_From, (host + "@svc").c_str());
    forged->add(MessageItem::ArgumentKey_Method, "SystemInfo");
    forged->add(MessageItem::ArgumentKey_SenderId, "77");
    ASSERT_TRUE(raw.sendAll(UlmarCommsTest::messageFrame(1, forged.get())));
    EXPECT_TRUE(daemonLogged(daemon, "refused a message sent as '" + host + "@svc'")) << daemon.process().err();
    EXPECT_FALSE(owner.waitFor("response svc 77", nullptr, std::chrono::milliseconds(300)));
    EXPECT_EQ(asker.query("asker", "SystemInfo").rfind("name=" + host, 0), 0u);
}

// A name captured by one process and then given up by it once made a message
// circulate between that process and the service; now it ends at once.
TEST(LocalTrust, ACapturedNameGivenUpEndsAtOnce)
{
    const std::string pipe = uniquePipeName();
    Daemon daemon(pipe);
    ASSERT_TRUE(daemon.waitReady()) << daemon.process().transcript();
    Participant first(pipe, false);
    ASSERT_TRUE(first.waitFor("started 0"));
    first.ask("pump cap", "pump cap ");
    Participant capturer(pipe, false);
    ASSERT_TRUE(capturer.waitFor("started 0"));
    capturer.ask("pump keep", "pump keep ");
    // Registered under the first process's entry, the new pump takes it over.
    capturer.ask("pump cap/sub", "pump cap/sub ");
    capturer.ask("destroy cap/sub", "destroyed cap/sub");
    Participant asker(pipe, false);
    ASSERT_TRUE(asker.waitFor("started 0"));
    asker.ask("pump asker", "pump asker ");
    // Make sure the capturer's commands are through before asking.
    capturer.query("keep", "SystemInfo");

    std::istringstream sent(asker.ask("send asker cap ping", "sent asker "));
    std::string word, name, id;
    sent >> word >> name >> id;
    // One answer, error 400, and the service keeps answering.
    EXPECT_TRUE(asker.waitFor("error asker " + id + " 400")) << asker.process().transcript();
    EXPECT_EQ(asker.query("asker", "SystemInfo").rfind("name=", 0), 0u);
    EXPECT_TRUE(daemonLogged(daemon, "has no path: its best entry is that link")) << daemon.process().err();
    EXPECT_EQ(occurrences(daemon.process().err(), "has no path: its best entry is that link"), 1u)
        << daemon.process().err();
}

// An application does not announce itself to a listener on the service's
// address that another user runs.
TEST(LocalTrust, AFakeServiceOfAnotherUserIsNotBelieved)
{
    REQUIRE_SECOND_USER();
    const std::string pipe = uniquePipeName();
    int listener = -1;
    {
        ThreadAsOtherUser other;
        listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const UlmarCommsSystem::SocketAddress address = pipeAddress(pipe);
        ASSERT_EQ(::bind(listener, address.getAddress(), address.getAddressSize()), 0);
        ASSERT_EQ(::listen(listener, 4), 0);
    }
    UlmarCommsTest::ChildProcess logged(ULMARCOMMS_TESTAPP, {"--log", "--start", Participant::argument(pipe)});
    ASSERT_TRUE(logged.waitForOut("not using the service")) << logged.transcript();
    EXPECT_TRUE(contains(logged.out(), "it runs as uid 4242")) << logged.transcript();

    // What the application sent before it gave up: nothing.
    const int accepted = ::accept(listener, nullptr, nullptr);
    ASSERT_GE(accepted, 0);
    pollfd entry{accepted, POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 10000), 1);
    char byte = 0;
    EXPECT_EQ(::recv(accepted, &byte, 1, 0), 0);
    ::close(accepted);
    logged.send("quit");
    EXPECT_EQ(logged.wait(), 0) << logged.transcript();
    ::close(listener);
}

namespace {

// Raw connections to the service's pipe that send nothing: idle links.
class IdleLinks {
public:
    ~IdleLinks()
    {
        for (int fd : m_fds)
            ::close(fd);
    }
    bool open(const std::string& pipe, size_t count)
    {
        const UlmarCommsSystem::SocketAddress address = pipeAddress(pipe);
        for (size_t i = 0; i < count; ++i) {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (fd < 0)
                return false;
            m_fds.push_back(fd);
            if (::connect(fd, address.getAddress(), address.getAddressSize()) != 0)
                return false;
        }
        return true;
    }
    // How many the service has closed.
    size_t closed() const
    {
        size_t count = 0;
        for (int fd : m_fds) {
            pollfd entry{fd, POLLIN | POLLRDHUP, 0};
            char byte = 0;
            if (::poll(&entry, 1, 0) == 1 && ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0)
                ++count;
        }
        return count;
    }

private:
    std::vector<int> m_fds;
};

} // namespace

// One user's idle links fill that user's share only: the links past it are
// closed at once and logged, and another user's application and client get
// through as ever.
TEST(LocalTrust, OneUsersIdleLinksDoNotShutOutAnother)
{
    REQUIRE_SECOND_USER();
    const std::string pipe = uniquePipeName();
    Daemon daemon(pipe, {"--allow-everyone", "--links-per-user", "256"});
    ASSERT_TRUE(daemon.waitReady()) << daemon.process().transcript();

    IdleLinks idle;
    {
        ThreadAsOtherUser other;
        ASSERT_TRUE(idle.open(pipe, 300));
    }
    EXPECT_TRUE(UlmarCommsTest::waitUntil([&] { return idle.closed() == 44; }, std::chrono::seconds(10)))
        << idle.closed() << " closed";
    EXPECT_TRUE(daemonLogged(daemon, "refused a local link of uid 4242 pid ")) << daemon.process().err();
    EXPECT_TRUE(contains(daemon.process().err(), "that user holds 256 links, its limit.")) << daemon.process().err();

    Participant app(pipe, false);
    ASSERT_TRUE(app.waitFor("started 0")) << app.process().transcript();
    app.ask("pump app", "pump app ");
    EXPECT_EQ(app.query("app", "SystemInfo").rfind("name=", 0), 0u);
    const RunResult own = client(pipe, {"--timeout", "5000", "info"});
    EXPECT_EQ(own.status, 0) << own.transcript();
    EXPECT_EQ(idle.closed(), 44u);
}

// A client that the service closes for its bound of links says so, and does
// not wait for a reply that cannot come. Root is never a refused user, so the
// message is that of the bound.
TEST(LocalTrust, AClientPastItsBoundOfLinksSaysTheServiceIsNotAccepting)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "the client tells a bound from a refused user only as root or the service's user";
    const std::string pipe = uniquePipeName();
    Daemon daemon(pipe, {"--links-per-user", "2"});
    ASSERT_TRUE(daemon.waitReady()) << daemon.process().transcript();
    IdleLinks idle;
    ASSERT_TRUE(idle.open(pipe, 2));

    const RunResult refused = client(pipe, {"--timeout", "3000", "info"});
    EXPECT_EQ(refused.status, 5) << refused.transcript();
    EXPECT_TRUE(contains(refused.err, "the service is not accepting connections")) << refused.transcript();
    EXPECT_FALSE(contains(refused.err, "no reply")) << refused.transcript();
    EXPECT_TRUE(daemonLogged(daemon, "that user holds 2 links, its limit.")) << daemon.process().err();
}
