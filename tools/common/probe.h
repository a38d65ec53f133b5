// Finding out whether a system router service already listens on the local
// link a run is configured for.
//
// The library's own start-up cannot tell: a service start on a taken address
// reports success without listening, and an application start reports
// success while its link keeps retrying in the background. So both programs
// connect once themselves, exactly where the library would, before starting
// the runtime: the daemon refuses to start a second service, the client
// reports "no service" at once instead of waiting for a time-out.
#pragma once

#include <string>
#include <sys/types.h>

namespace UlmarCommsTools {

// Where the local link of a run leads.
struct LinkTarget {
    enum class Kind { Unix, Tcp, None };
    // Which kind of link the settings select.
    Kind kind = Kind::Unix;
    // The pipe name (Unix): the socket is the abstract "__NAME.sock".
    std::string pipeName;
    // The IPv4 address text (Tcp).
    std::string address;
    // The port text (Tcp).
    std::string port;

    // A short human description, naming the pipe name or address tried.
    std::string describe() const;
};

// The outcome of one probe.
enum class ProbeResult {
    Answered, // something accepted the connection: a service is there
    NoService, // refused, absent or silent until the time-out
    Failed // the probe itself could not be made (detail says why)
};

// The abstract-namespace socket name the library uses for a pipe name,
// without the leading NUL ("__NAME.sock").
std::string abstractSocketName(const std::string& pipeName);

// Connects once to the target; `detail` explains anything but Answered.
ProbeResult probeService(const LinkTarget& target, int timeoutMs, std::string& detail);

// A probe whose connection is kept open, to learn later whether the service
// refused this user. The wire has no refusal message: a service that does
// not let this user in closes each of its connections right after accepting
// it, before any traffic. A connection that the service ended with nothing
// received is that refusal; an allowed one simply stays open and silent.
// The service closes a connection the same way when it holds as many links
// as it may (for this user or in all); the service's uid, which the kept
// connection tells, lets the caller rule out a refused user when it is
// root or the service's own user.
class ProbeConnection {
public:
    ProbeConnection() = default;
    ~ProbeConnection();
    ProbeConnection(const ProbeConnection&) = delete;
    ProbeConnection& operator=(const ProbeConnection&) = delete;

    // Probes like probeService, keeping the connection when it stands.
    ProbeResult open(const LinkTarget& target, int timeoutMs, std::string& detail);
    // Whether the service ended the kept connection with nothing sent,
    // waiting at most waitMs for that to show.
    bool refusedByService(int waitMs) const;
    // The uid of the process that accepted the kept connection (a local
    // link over a UNIX socket only); false when not known.
    bool serviceUser(unsigned& uid) const;

private:
    int m_fd = -1;
};

} // namespace UlmarCommsTools
