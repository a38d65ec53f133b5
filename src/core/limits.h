// Every bound a peer or an application can push against, in one table.
//
// Each entry: its value, its unit, why it is there, and the setting that
// changes it. Most are fixed at build time; the three memory bounds of the
// service and the bounds of the local link (links per user and in total,
// pumps per link) are settings (read with Core::numberOrDefault, so they are
// listed only once given) and daemon options. The classes that enforce a
// bound keep their constant names as aliases of these entries ("Alias:"
// below), so each number is written here only.
//
// Accounting: a bound on bytes held is kept by a ByteAccount
// (core/byteaccount.h), in the memory the bytes really take: a frame counts
// its buffer's capacity and its object, not its size on the wire, since a
// 1-byte message held in a 4 KiB buffer holds 4 KiB. Each link's
// DataFrameHandler has one account for its outbound queue (charged where a
// frame joins the queue, released where it leaves: written, or dropped when
// the link is torn down) and one for the frame it is receiving (charged as
// its buffer grows). In the service each local link's accounts have the
// account of the user behind the link as parent, and every user's account
// the service's, so one charge reaches all three bounds; the service's
// LocalSocketServerInterface keeps the user and service accounts. A message
// from a local link that waits in the system router's queue (its target has
// no entry yet, or it is bound for another host) is charged to that link's
// user account until it is routed. A link between hosts has no user: its
// accounts charge the service's directly, and a frame that would pass the
// service's bound is refused there, as by a full queue, without ending the
// link.
//
// Not limits, and so not here: the transfer buffer sizes (the *.inbound.size
// and *.outbound.size settings, NetworkRouterConnection::BufferSize) bound
// one read or write, not what a link may hold, since longer frames move in
// pieces; allocation block sizes and spare-object caches (SocketTimeout's
// BlockSize, the handler's spare frames) grow with our own use only and are
// small and bounded per link.
#pragma once

#include <cstddef>
#include <cstdint>

namespace UlmarComms::Limits {

// ------------------------------------------------------------- framing

// Largest frame payload built or accepted, in bytes. Frames carry no
// checksum, so a peer can announce any size: the receiver refuses a larger
// header before allocating and ends the link. Setting: none.
// Alias: DataFrame::MaxDataSize (src/framing/dataframe.h).
constexpr unsigned FramePayloadBytes = 64u * 1024u * 1024u;

// Memory, in bytes, of the frames one link of an application keeps queued
// for sending, at most. A service that stops reading must not make the
// application hold unbounded memory; one frame is always accepted into an
// empty queue, and past the bound frames are refused. Setting: none.
// Alias: DataFrameHandler::MaxQueuedBytes (src/framing/dataframehandler.h).
constexpr uint64_t LinkQueuedBytes = 32u * 1024u * 1024u;

// Memory, in bytes, of the frames the service keeps queued for one local
// link. A process that stops reading is a slow consumer: the frame that
// would pass this bound ends its link instead (one log line), so the
// senders never wait for it. One frame always goes into an empty queue.
// Setting: ulmar.systemrouter.memory.link (daemon option --link-memory).
constexpr uint64_t ServiceLinkMemoryBytes = 16u * 1024u * 1024u;

// Memory, in bytes, that the local links of one user hold in the service:
// their queues and the frames they are receiving. Twice the largest frame,
// so one user can send one largest frame while receiving another, and still
// only half of the service's bound, so one user alone cannot take all the
// service holds. A link whose charge would pass it is ended as above.
// Setting: ulmar.systemrouter.memory.user (daemon option --user-memory).
constexpr uint64_t ServiceUserMemoryBytes = 128u * 1024u * 1024u;

// Memory, in bytes, that all local links together hold in the service.
// With it, many half-received large frames, or many stalled links, still
// leave the machine's memory alone: the link whose next charge would pass
// it is ended. Setting: ulmar.systemrouter.memory (daemon option --memory).
constexpr uint64_t ServiceMemoryBytes = 256u * 1024u * 1024u;

// A command record's text has no bound of its own: the record (5 bytes, the
// text and its NUL) is one frame payload, so FramePayloadBytes bounds it. A
// network link carries only host names, so it ends the link at a command
// frame longer than a HostNameBytes name needs (NetworkRouterConnection::MaxCommandRecord).

// ----------------------------------------------------------- messaging

// Key/value pairs in one message, header pairs included. It sizes each
// message's pair arrays and is the number applications are told; a received
// packet with more pairs is refused. Setting: none.
// Alias: MessageItem::s_maxNumberArguments (src/messaging/messageitem.h).
constexpr int MessagePairs = 25;

// Longest key in bytes, its NUL included, that a message keeps intact when
// it crosses a link: the length travels in one byte. A longer key is not
// refused; its message cannot be read where it arrives and is dropped there.
// Values have no bound of their own beyond FramePayloadBytes. Setting: none.
// Checked against MessageItem's one-byte key lengths (src/messaging/messageitem.h).
constexpr unsigned MessageKeyBytes = 255;

// Listener entries one event of one pump keeps, at most. Other pumps, here
// or on a peer host, register them, so the table must be bounded;
// registrations past it are not kept. Setting: none.
// Alias: MessagePump::s_maxListenersPerEvent (src/messaging/messagepump.h).
constexpr size_t EventListeners = 1024;

// ------------------------------------------------------------- logging

// Lines one log text (one call site's format) may write in a second; more
// are counted and summarised once the second has passed, so a peer that
// repeats a fault in a loop cannot fill the disk. Setting: none.
// Used by LogThrottle (src/core/logthrottle.h).
constexpr uint32_t LogLinesPerSecond = 5;

// Distinct log texts the throttle keeps a window for: far above the
// library's call sites; a format made at run time past it is not throttled.
// Setting: none.
constexpr size_t LogTexts = 4096;

// ------------------------------------------------------------- sockets

// The listen() backlog: connections the kernel holds for a listener before
// they are accepted. Setting: none.
// Alias: Socket::ListenBacklog (src/platform/socket.h).
constexpr int ListenBacklog = 256;

// Live accepted sockets one listener keeps, at most, unless its owner sets
// another bound (the local link's follows LinksTotal); later clients are
// accepted and closed at once, so a connection flood cannot use up every
// descriptor. Setting: none.
// Alias: Socket::MaxAcceptedSockets (src/platform/socket.h).
constexpr unsigned AcceptedSocketsPerListener = 1024;

// --------------------------------------------------------- local link

// Local links one user may hold open at the service at once; more are
// accepted and closed at once with a log line, so one user's idle links
// cannot shut out another user's application. Root is counted too.
// Setting: "ulmar.systemrouter.pipe.links.peruser" (LinksPerUserKey).
// Used by LocalSocketServerInterface (src/link/localsocketserverinterface.h).
constexpr unsigned LinksPerUser = 256;
constexpr const char* LinksPerUserKey = "ulmar.systemrouter.pipe.links.peruser";

// Local links of all users together. 0 means: derived from the process's
// descriptor limit when the listener starts, (RLIMIT_NOFILE - 64) / 2,
// since each link costs two descriptors (its socket and the write handle)
// and 64 stay for the listener, the selector, logs and network links. A
// cap below the descriptor limit keeps accept() from failing for lack of
// descriptors, which would leave every later client waiting unanswered.
// Setting: "ulmar.systemrouter.pipe.links.total" (LinksTotalKey).
constexpr unsigned LinksTotal = 0;
constexpr const char* LinksTotalKey = "ulmar.systemrouter.pipe.links.total";

// Routing entries (registered pumps) one link may hold in the system
// router's table; a registration past it is refused, logged, and leaves
// the table as it was. Setting: "ulmar.systemrouter.pipe.pumps.perlink"
// (PumpsPerLinkKey). Used by SystemRouter (src/service/systemrouter.h).
constexpr unsigned PumpsPerLink = 4096;
constexpr const char* PumpsPerLinkKey = "ulmar.systemrouter.pipe.pumps.perlink";

// Longest pipe name (ulmar.systemrouter.pipe.name) used whole, in bytes: the
// abstract socket path "__NAME.sock" must fit sockaddr_un's 108-byte path
// after its leading NUL. A longer name is cut to fit, so names that share
// their first 104 bytes reach the same socket. The name is a setting; this
// bound is not.
// Checked against sockaddr_un (src/platform/socketaddress.cpp).
constexpr size_t PipeNameBytes = 99;

// ------------------------------------------------------------- network

// Distinct host names the network router keeps, at most, so that a flood of
// invented names is bounded. A name leaves once nothing binds it (no link,
// not heard for 3 discovery periods); when full, the oldest name without a
// link makes room. Setting: none.
// Alias: NetworkRouter::MaxHostNames (src/network/networkrouter.h).
constexpr size_t NetworkHostNames = 1024;

// Routing table entries the network router keeps, at most, for the same
// reason; an entry leaves once it is quiet and without a link. Setting: none.
// Alias: NetworkRouter::MaxRoutingTableEntries (src/network/networkrouter.h).
constexpr size_t RoutingTableEntries = 4096;

// Longest host name, in bytes, accepted from a peer (the system's own limit
// is 64). Setting: none.
// Alias: NetworkRouter::MaxHostNameLength (src/network/networkrouter.h).
constexpr size_t HostNameBytes = 255;

// Milliseconds an accepted network link has to send its host name; a link
// silent that long is closed. A real peer names itself as soon as its
// connect completes. Setting: none.
// Alias: NetworkRouterInterface::HelloTimeout (src/network/networkinterface.h).
constexpr unsigned NetworkHelloMilliseconds = 5000;

// Accepted network links one source address holds on one interface, at
// most; more are closed as they are accepted. Two hosts need two links (one
// opened by each); 8 leaves room for a host that reconnects before its old
// links have been torn down. Setting: none.
// Alias: NetworkRouterInterface::MaxLinksPerSource (src/network/networkinterface.h).
constexpr unsigned NetworkLinksPerSource = 8;

// Bytes of one discovery datagram, received or sent: a receive takes at
// most this many (the rest of a longer datagram is lost), and an
// announcement of our own that would not fit is not built. Setting: none.
// Alias: NetworkRouterInterface::DiscoveryBufferSize (src/network/networkinterface.h).
constexpr unsigned DiscoveryDatagramBytes = 1024;

} // namespace UlmarComms::Limits
