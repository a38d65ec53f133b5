// The pieces both programs share: --set items and the start argument, the
// choice of local link, the connect probe against real listening sockets,
// the log sink's formatting, and the daemon's options.
#include "common/logsink.h"
#include "common/numbers.h"
#include "common/probe.h"
#include "common/startsettings.h"
#include "ulmarcommsd/daemonoptions.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdarg>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace UlmarCommsTools;

namespace {

std::string uniquePipeName(const char* tag)
{
    static int counter = 0;
    return std::string("tprobe") + tag + std::to_string(getpid()) + "_" + std::to_string(++counter);
}

// A listening abstract UNIX socket, bound as the library binds it (the
// whole zero-padded path, length 110) unless `padded` is false.
class UnixListener {
public:
    UnixListener(const std::string& pipeName, bool padded)
    {
        m_fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address;
        std::memset(&address, 0, sizeof(address));
        address.sun_family = AF_UNIX;
        const std::string name = abstractSocketName(pipeName);
        std::memcpy(address.sun_path + 1, name.data(), name.size());
        const socklen_t length =
            padded ? sizeof(address) : static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        m_bound = ::bind(m_fd, reinterpret_cast<sockaddr*>(&address), length) == 0 && ::listen(m_fd, 4) == 0;
    }
    ~UnixListener() { ::close(m_fd); }
    bool ok() const { return m_bound; }

private:
    int m_fd = -1;
    bool m_bound = false;
};

TEST(StartSettings, JoinsTrimmedItemsRefusesWhatCannotBeCarriedAndTheLastItemWins)
{
    StartSettings settings;
    std::string reason;
    EXPECT_TRUE(settings.empty());
    EXPECT_EQ(settings.startArgument(), "");
    EXPECT_FALSE(settings.add("novalue", reason));
    EXPECT_NE(reason.find("KEY=VALUE"), std::string::npos);
    EXPECT_FALSE(settings.add(" =x", reason));
    EXPECT_FALSE(settings.add("a=b;c=d", reason));
    EXPECT_TRUE(settings.empty());
    ASSERT_TRUE(settings.add("ulmar.systemrouter.pipe.name = abc ", reason));
    ASSERT_TRUE(settings.add("socket.selection.noworkerthreads=2", reason));
    ASSERT_TRUE(settings.add("ulmar.systemrouter.ip4.port=", reason)) << "an empty value is the library's to judge";
    EXPECT_EQ(settings.startArgument(),
              "ulmar.systemrouter.pipe.name=abc;socket.selection.noworkerthreads=2;ulmar.systemrouter.ip4.port=");
    // Values are trimmed as the library trims them.
    settings.add(" ulmar.systemrouter.pipe.name =\tsecond ", reason);
    EXPECT_EQ(settings.value("ulmar.systemrouter.pipe.name", "x"), "second");
    EXPECT_EQ(settings.value("other", "fallback"), "fallback");
}

TEST(StartSettings, LinkChoiceFollowsTheFlags)
{
    std::string reason;
    LinkTarget target;
    StartSettings defaults;
    ASSERT_TRUE(defaults.linkTarget(target, reason));
    EXPECT_EQ(target.kind, LinkTarget::Kind::Unix);
    EXPECT_EQ(target.pipeName, "ulmarcomms");
    EXPECT_EQ(target.describe(), "pipe name 'ulmarcomms' (abstract socket __ulmarcomms.sock)");

    StartSettings both;
    both.add("ulmar.systemrouter.ip4=1", reason);
    ASSERT_TRUE(both.linkTarget(target, reason));
    EXPECT_EQ(target.kind, LinkTarget::Kind::Unix) << "the pipe wins when both are on";

    StartSettings tcp;
    tcp.add("ulmar.systemrouter.pipe=0", reason);
    tcp.add("ulmar.systemrouter.ip4=1", reason);
    tcp.add("ulmar.systemrouter.ip4.port=14001", reason);
    ASSERT_TRUE(tcp.linkTarget(target, reason));
    EXPECT_EQ(target.kind, LinkTarget::Kind::Tcp);
    EXPECT_EQ(target.address, "127.0.0.1");
    EXPECT_EQ(target.port, "14001");
    EXPECT_EQ(target.describe(), "TCP 127.0.0.1:14001");

    StartSettings none;
    none.add("ulmar.systemrouter.pipe=0", reason);
    ASSERT_TRUE(none.linkTarget(target, reason));
    EXPECT_EQ(target.kind, LinkTarget::Kind::None);

    StartSettings bad;
    bad.add("ulmar.systemrouter.pipe=yes", reason);
    EXPECT_FALSE(bad.linkTarget(target, reason));
    EXPECT_NE(reason.find("ulmar.systemrouter.pipe"), std::string::npos);
}

TEST(Probe, FindsAListenerOnTheAbstractSocketAndNothingWithoutOne)
{
    LinkTarget target;
    target.pipeName = uniquePipeName("u");
    std::string detail;
    EXPECT_EQ(probeService(target, 1000, detail), ProbeResult::NoService);
    EXPECT_NE(detail.find("refused"), std::string::npos) << detail;
    {
        UnixListener listener(target.pipeName, true);
        ASSERT_TRUE(listener.ok());
        EXPECT_EQ(probeService(target, 1000, detail), ProbeResult::Answered);
    }
    EXPECT_EQ(probeService(target, 1000, detail), ProbeResult::NoService);

    LinkTarget none;
    none.kind = LinkTarget::Kind::None;
    detail.clear();
    EXPECT_EQ(probeService(none, 1000, detail), ProbeResult::NoService);
    EXPECT_FALSE(detail.empty());
}

TEST(Probe, TheZeroPaddingBelongsToTheName)
{
    // A socket bound under the bare name is a different socket: the probe
    // must look exactly where the library listens, and not here.
    LinkTarget target;
    target.pipeName = uniquePipeName("p");
    UnixListener unpadded(target.pipeName, false);
    ASSERT_TRUE(unpadded.ok());
    std::string detail;
    EXPECT_EQ(probeService(target, 1000, detail), ProbeResult::NoService);
}

TEST(Probe, TcpOnLoopback)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(fd, 4), 0);
    socklen_t length = sizeof(address);
    ASSERT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);

    LinkTarget target;
    target.kind = LinkTarget::Kind::Tcp;
    target.address = "127.0.0.1";
    target.port = std::to_string(ntohs(address.sin_port));
    std::string detail;
    EXPECT_EQ(probeService(target, 1000, detail), ProbeResult::Answered);
    ::close(fd);
    EXPECT_EQ(probeService(target, 1000, detail), ProbeResult::NoService) << detail;

    target.address = "not an address";
    EXPECT_EQ(probeService(target, 1000, detail), ProbeResult::Failed);
}

// Calls the sink's formatter the way the library calls its logger: the
// format and the call's va_list passed as char*.
std::string formatAsLibrary(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = formatLogText(format, reinterpret_cast<char*>(&args));
    va_end(args);
    return text;
}

TEST(LogSink, FormatsTheLibrarysArguments)
{
    EXPECT_EQ(formatAsLibrary("SystemRouter::post( %p ) to='%s' n=%d\n", nullptr, "a@b", 42),
              "SystemRouter::post( (nil) ) to='a@b' n=42\n");
    const std::string huge(kMaxLogText + 100, 'x');
    const std::string cut = formatAsLibrary("%s", huge.c_str());
    EXPECT_EQ(cut.size(), kMaxLogText + 3);
    EXPECT_EQ(cut.substr(cut.size() - 3), "...");
    EXPECT_EQ(formatLogText(nullptr, nullptr), "");
}

TEST(LogSink, LineHasTimestampLevelAndOneNewline)
{
    timespec when{};
    when.tv_sec = 0;
    when.tv_nsec = 7000000;
    const std::string line = formatLogLine(3, when, "Core::errorOut( 0x1, 400 ) No From.\n\n");
    // The date depends on the time zone; the shape does not.
    ASSERT_GE(line.size(), 24u);
    EXPECT_EQ(line[4], '-');
    EXPECT_EQ(line[10], ' ');
    EXPECT_EQ(line.substr(19, 5), ".007 ");
    EXPECT_EQ(line.substr(24), "ERROR Core::errorOut( 0x1, 400 ) No From.\n");
    EXPECT_EQ(logLevelName(0), "VERBOSE");
    EXPECT_EQ(logLevelName(1), "MESSAGE");
    EXPECT_EQ(logLevelName(2), "WARNING");
    EXPECT_EQ(logLevelName(4), "FATAL");
    EXPECT_EQ(logLevelName(9), "LEVEL 9");
}

TEST(Numbers, StrictWholeNumbers)
{
    long value = 0;
    EXPECT_TRUE(parseNumber("42", 0, 100, value));
    EXPECT_EQ(value, 42);
    EXPECT_TRUE(parseNumber("-3", -5, 5, value));
    EXPECT_EQ(value, -3);
    for (const char* wrong : {"", " 1", "1 ", "+1", "1x", "x", "101", "99999999999999999999999"})
        EXPECT_FALSE(parseNumber(wrong, 0, 100, value)) << wrong;
}

TEST(DaemonOptions, ParsesSettingsLevelAndWholeStartArguments)
{
    DaemonOptions options;
    std::string error;
    ASSERT_EQ(parseDaemonOptions({"--set", "ulmar.systemrouter.pipe.name=t", "--log-level=0",
                                  "--set=socket.selection.systemmode.noworkerthreads=2"},
                                 options, error),
              DaemonParse::Run)
        << error;
    EXPECT_EQ(options.logLevel, 0);
    EXPECT_EQ(options.settings.startArgument(),
              "ulmar.systemrouter.pipe.name=t;socket.selection.systemmode.noworkerthreads=2");

    DaemonOptions defaults;
    ASSERT_EQ(parseDaemonOptions({}, defaults, error), DaemonParse::Run);
    EXPECT_EQ(defaults.logLevel, 2);
    EXPECT_TRUE(defaults.settings.empty());

    // Service units and scripts pass the library's own form as one word; a
    // word without '=' (a name, say) is accepted and adds nothing.
    DaemonOptions whole;
    ASSERT_EQ(parseDaemonOptions({"myservice", "ulmar.systemrouter.pipe.name=a; socket.selection.noworkerthreads=2;",
                                  "--set", "ulmar.systemrouter.ip4=1"},
                                 whole, error),
              DaemonParse::Run)
        << error;
    EXPECT_EQ(whole.settings.startArgument(),
              "ulmar.systemrouter.pipe.name=a;socket.selection.noworkerthreads=2;ulmar.systemrouter.ip4=1");
    EXPECT_EQ(whole.settings.value("ulmar.systemrouter.pipe.name", ""), "a");
}

// The bounds of the local link are stored only when given, after the --set
// items, and only as whole positive numbers.
TEST(DaemonOptions, LinkBoundOptionsBecomeTheirSettings)
{
    DaemonOptions options;
    std::string error;
    ASSERT_EQ(parseDaemonOptions({"--links-per-user", "10", "--links-total=300", "--pumps-per-link", "50000"}, options,
                                 error),
              DaemonParse::Run)
        << error;
    EXPECT_EQ(options.settings.startArgument(),
              "ulmar.systemrouter.pipe.links.peruser=10;"
              "ulmar.systemrouter.pipe.links.total=300;"
              "ulmar.systemrouter.pipe.pumps.perlink=50000");
    for (const std::vector<std::string>& wrong : std::vector<std::vector<std::string>>{
             {"--links-per-user", "0"}, {"--links-total", "-3"}, {"--pumps-per-link", "4k"}, {"--links-total"}}) {
        DaemonOptions refused;
        EXPECT_EQ(parseDaemonOptions(wrong, refused, error), DaemonParse::Usage) << wrong.front();
        EXPECT_NE(error.find(wrong.front()), std::string::npos) << error;
    }
    EXPECT_NE(daemonUsage().find("--pumps-per-link N"), std::string::npos);
}

TEST(DaemonOptions, NetworkOptionsAddToTheAllowSettingAndBadNetworksAreUsageErrors)
{
    DaemonOptions options;
    std::string error;
    ASSERT_EQ(parseDaemonOptions({"--set", "ulmar.networkrouter.ip4.allow=10.0.0.0/8", "--allow-network",
                                  "192.168.1.0/24", "--allow-network=10.9.9.9", "--allow-any-network"},
                                 options, error),
              DaemonParse::Run)
        << error;
    EXPECT_EQ(options.settings.value("ulmar.networkrouter.ip4.allow", ""), "10.0.0.0/8,192.168.1.0/24,10.9.9.9");
    EXPECT_EQ(options.settings.value("ulmar.networkrouter.ip4.allow.any", ""), "1");
    EXPECT_NE(daemonUsage().find("--allow-network CIDR"), std::string::npos);
    EXPECT_NE(daemonUsage().find("--allow-any-network"), std::string::npos);

    const struct {
        std::vector<std::string> args;
        const char* error;
    } wrong[] = {
        {{"--allow-network", "10.1.2.3/24"}, "--allow-network: '10.1.2.3/24' has host bits set beyond /24"},
        {{"--allow-network", "10.0.0.0/33"}, "--allow-network: '10.0.0.0/33' is not an IPv4 network: the prefix"},
        {{"--allow-network", "eth0"}, "'eth0' is not a dotted IPv4 address"},
        {{"--allow-network"}, "--allow-network needs a value"},
        {{"--set", "ulmar.networkrouter.ip4.allow=10.0.0.0/8,nonsense"},
         "ulmar.networkrouter.ip4.allow: 'nonsense' is not an IPv4 network"},
    };
    for (const auto& item : wrong) {
        DaemonOptions fresh;
        error.clear();
        EXPECT_EQ(parseDaemonOptions(item.args, fresh, error), DaemonParse::Usage) << item.args[0];
        EXPECT_NE(error.find(item.error), std::string::npos) << error;
    }
}

TEST(DaemonOptions, PolicyOptionsBecomeTheAllowSettings)
{
    DaemonOptions options;
    std::string error;
    ASSERT_EQ(parseDaemonOptions({"--allow-group", "staff", "--allow-user=alice", "--set",
                                  "ulmar.systemrouter.pipe.allow.groups=wheel", "--allow-group=ops", "--allow-user",
                                  "1001", "--allow-everyone"},
                                 options, error),
              DaemonParse::Run)
        << error;
    // The options come after every --set item, so they win.
    EXPECT_EQ(options.settings.value("ulmar.systemrouter.pipe.allow.groups", ""), "staff,ops");
    EXPECT_EQ(options.settings.value("ulmar.systemrouter.pipe.allow.users", ""), "alice,1001");
    EXPECT_EQ(options.settings.value("ulmar.systemrouter.pipe.allow.everyone", ""), "1");

    DaemonOptions none;
    ASSERT_EQ(parseDaemonOptions({}, none, error), DaemonParse::Run);
    EXPECT_EQ(none.settings.value("ulmar.systemrouter.pipe.allow.groups", "unset"), "unset");
    for (const std::vector<std::string>& wrong :
         std::vector<std::vector<std::string>>{{"--allow-group", "a,b"}, {"--allow-user", ""}, {"--allow-user"}}) {
        DaemonOptions fresh;
        EXPECT_EQ(parseDaemonOptions(wrong, fresh, error), DaemonParse::Usage) << wrong[0];
    }
}

TEST(DaemonOptions, HelpVersionAndMistakes)
{
    DaemonOptions options;
    std::string error;
    EXPECT_EQ(parseDaemonOptions({"--help"}, options, error), DaemonParse::Help);
    EXPECT_EQ(parseDaemonOptions({"--version"}, options, error), DaemonParse::Version);
    EXPECT_NE(daemonUsage().find("--log-level N"), std::string::npos);
    for (const std::vector<std::string>& wrong : std::vector<std::vector<std::string>>{
             {"--log-level", "5"}, {"--log-level"}, {"--set", "x"}, {"=1"}, {"--bogus"}, {"a=1;oops"}}) {
        DaemonOptions fresh;
        error.clear();
        EXPECT_EQ(parseDaemonOptions(wrong, fresh, error), DaemonParse::Usage) << wrong[0];
        EXPECT_FALSE(error.empty());
    }
}

} // namespace
