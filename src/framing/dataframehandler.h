// Frames over one stream socket.
//
// DataFrameHandler queues outbound messages and link commands as frames and
// writes them one frame at a time through the socket's asynchronous send
// (commands overtake queued messages; a partial send is resumed where the
// socket stopped). It reassembles inbound frames from whatever blocks recv
// delivers and hands each complete frame to the subclass. The handler's
// implementation is split by direction: dataframehandler.cpp (lifetime, the
// socket, the receive path, the callbacks) and dataframeoutbound.cpp (the
// queues and the frame in flight).
//
// Threads. onSent, onRecved, onError, onDisconnect and the subclass's
// doHandleMessage/doHandleCommand run on selector worker threads; onConnected
// runs on the thread that called Socket::connect. addToOutbound is called from
// any thread. The inbound lock serialises the receive path (and is held while
// frames are dispatched); the outbound lock guards the queues, the frame being
// written and the socket pointer. Lock order: inbound before outbound.
//
// Batching. Frames ready together leave in one gathering write from their
// own buffers (what the connection leaves over is copied for the selector).
// onRecved dispatches a received block inside a WriteBatch
// (writebatch.h): message frames queued on that thread meanwhile, on this
// handler or any other, are written once per handler when the block ends.
//
// Ownership. The socket is the owner's (the subclass or whoever set it); the
// handler never releases it. An owner detaches the socket (takeSocket)
// before releasing it (Socket::release), so no thread reaches it through the
// handler afterwards; the release never waits, so any lock may be held. A message given to addToOutbound stays the caller's: the
// frame holds a serialised copy. A message handed to doHandleMessage belongs
// to the subclass.
//
// Lifetime. A handler that a socket may still call is not deleted but
// released: release() runs retireLink() at once (by default the socket is
// forgotten and its callbacks cleared, so no callback of it starts any more)
// and hands the handler to the selector's reaper, which deletes it once no
// callback that began before can still be running (platform/socketreaper.h).
// That works from inside the handler's own callbacks too. Deleting directly
// is only for a handler no socket has called, or whose owner has waited
// (SocketReaper::synchronize) after detaching it.
//
// Memory. Every frame the handler holds is charged at heldBytes() (buffer
// capacity and object, not wire size): the queued and in-flight outbound
// frames to the queue account, bounded at MaxQueuedBytes unless the owner
// sets other accounts; the frame being received to the inbound account as
// its buffer grows, bounded by the largest frame. A frame that has to wait
// is shrunk to its wire size first. With setMemoryAccounts both accounts
// charge a parent (the service: the user's account, and through it the
// service's), and a link whose queue would pass a bound is a slow consumer:
// it is ended with one log line and its queued frames are freed, while the
// caller of addToOutbound only gets false and carries on. An inbound frame
// whose growth a bound refuses ends the link like a header over the size
// limit. A frame into an empty queue is written at once, so it is charged
// but never refused. Large frees are reported to MemoryTrim.
//
// A frame whose payload does not parse (a message packet or command record
// that contradicts itself) or whose type is unknown is logged and dropped:
// its header said where it ends, so the link stays and the next frame is read.
// Only a header that cannot be honoured (announcing more than
// DataFrame::MaxDataSize, or more than memory allows) ends the link, since
// the bytes after it cannot be framed again: nothing of the announced size is
// allocated, the connection is shut down and the socket layer then reports
// its end like any other drop, so each owner's one clean-up path runs,
// outside the handler's own frames.
#pragma once

#include "core/byteaccount.h"
#include "core/limits.h"
#include "framing/dataframe.h"
#include "framing/writebatch.h"
#include "platform/mutex.h"
#include "platform/socket.h"
#include "platform/socketaddress.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <sys/uio.h>
#include <vector>

namespace UlmarComms {

class MessageItem;

// Moves frames over one connected stream socket; subclasses consume them.
class DataFrameHandler {
public:
    // The socket class of the platform layer.
    typedef UlmarCommsSystem::Socket Socket;

    // Memory of frames one handler keeps queued at most, unless
    // setMemoryAccounts says otherwise (core/limits.h); one frame is always
    // accepted into an empty queue, so no single frame is ever refused here.
    static constexpr uint64_t MaxQueuedBytes = Limits::LinkQueuedBytes;
    // A receive buffer up to this size is kept for the next frame; a larger
    // one is freed once its frame is dispatched.
    static constexpr unsigned KeptInboundBytes = 4 * DataFrame::InitialBufferSize;
    // Frames one gathering write carries at most.
    static constexpr int MaxWriteParts = 64;
    // Bytes one gathering write offers at most (a larger current frame goes alone).
    static constexpr uint64_t MaxWriteBytes = 256u * 1024u;
    // What the frame being received may hold at most: the largest frame.
    static constexpr uint64_t MaxInboundBytes = uint64_t(Limits::FramePayloadBytes) + DataFrame::HeaderSize +
        sizeof(DataFrame) + 2 * DataFrame::AllocationOverhead;

    // Empty queues, no socket, no buffers.
    DataFrameHandler();

    // A send completed (count of size bytes went out): the next piece or frame.
    virtual void onSent(Socket* socket, unsigned char* buffer, unsigned count, unsigned size, unsigned char error);
    // A block arrived: reassembles and dispatches frames, then receives again.
    virtual void onRecved(Socket* socket, unsigned char* buffer, unsigned count, unsigned size, unsigned char error);
    // The connection ended or failed; the default only logs.
    virtual void onError(Socket* socket, unsigned char error);
    // A connect completed; the default only logs.
    virtual void onConnected(Socket* socket);
    // The connection ended (reported before onError); the default only logs.
    virtual void onDisconnect(Socket* socket);
    // One inbound command (its text keeps the NUL as last character).
    virtual void doHandleCommand(unsigned char code, const std::string& text) = 0;
    // One inbound message; the subclass owns it from here.
    virtual void doHandleMessage(MessageItem* message) = 0;
    // Releases queued frames and buffers; does not close or release the socket.
    virtual ~DataFrameHandler();
    // Retires the handler's link at once and hands the handler to the reaper
    // (see the file comment); null does nothing.
    static void release(DataFrameHandler* handler);
    // Releases instead of deleting, for owners that hold a handler in a smart pointer.
    struct Releaser {
        // Releases handler.
        void operator()(DataFrameHandler* handler) const { release(handler); }
    };
    // Installs the callbacks on the socket and uses it from now on.
    virtual void setSocket(Socket* socket);

    // Owns queues and buffers: not copyable.
    DataFrameHandler(const DataFrameHandler&) = delete;
    DataFrameHandler& operator=(const DataFrameHandler&) = delete;

    // Allocates the transfer buffers; 0 takes the "dataframehandler.*" setting.
    bool createBuffers(unsigned inbound, unsigned outbound);
    // Posts one receive of the whole inbound buffer on the socket.
    bool recvData();
    // Queues a message frame (the message stays the caller's); while a
    // WriteBatch is open on this thread it is written when the batch ends.
    bool addToOutbound(MessageItem* message);
    // Queues a command frame, written at once behind the frames batched before it.
    bool addToOutbound(unsigned char code, const char* text);

    // A new empty frame, or null.
    DataFrame* create();
    // Destroys a frame.
    void release(DataFrame* frame);

    // The socket in use, or null.
    Socket* socket() const { return m_pSocket.load(); }
    // The socket in use (empty without one), found under the outbound lock.
    // Call it inside a reaper section: an owner releases the socket only
    // after taking it from the handler, so the section keeps it valid.
    UlmarCommsSystem::SocketHold holdSocket();
    // Forgets the socket and returns it (null if none) for the caller to
    // release; from now on no frame is written to it.
    Socket* takeSocket();
    // takeSocket(), but only while expected is the socket in use.
    Socket* takeSocketIf(Socket* expected);
    // Frames queue but none is written until releaseOutbound(): for a socket
    // whose connection is still being made.
    void holdOutbound();
    // Lets queued frames go out again, starting at once.
    void releaseOutbound();
    // Frames waiting to be written, the one being written included.
    unsigned queuedFrames();
    // Whether the peer sent a header that cannot be honoured and the link is
    // being ended.
    bool isLinkEnding();
    // Charges this link's memory to parent as well (null: no parent): the
    // queue bounded at queueLimit bytes, the frame being received at
    // MaxInboundBytes. With endSlowConsumer a queue or parent bound that a
    // frame would pass ends the link instead of refusing the frame alone.
    // Call it before the socket is set; what is charged already moves over.
    void setMemoryAccounts(uint64_t queueLimit, std::shared_ptr<ByteAccount> parent, bool endSlowConsumer);
    // Whether the link was ended because a memory bound would have passed.
    bool isSlowConsumer();
    // Ends the link, before buffering a byte of it, at a command frame
    // announcing more than bytes of payload, and at a command record whose
    // own length does not fit its frame (0, the default: frames of up to
    // DataFrame::MaxDataSize, and such a record only dropped). Set before
    // receiving starts.
    void limitInboundCommands(unsigned bytes) { m_inboundCommandLimit = bytes; }

    // Socket trampolines: user data is the handler; every exception is caught.
    static void onSentFunction(Socket* socket, unsigned char* buffer, unsigned count, unsigned size, void* user,
                               unsigned char error);
    // Received-block trampoline.
    static void onRecvedFunction(Socket* socket, unsigned char* buffer, unsigned count, unsigned size, void* user,
                                 unsigned char error);
    // Error trampoline.
    static void onErrorFunction(Socket* socket, unsigned char error, void* user);
    // Connected trampoline.
    static void onConnectedFunction(Socket* socket, void* user);
    // Disconnected trampoline.
    static void onDisconnectFunction(Socket* socket, void* user);

protected:
    // What release() does before the handler goes to the reaper: forgets
    // the socket and clears its callbacks. Owners of the socket override it
    // to release it, and to leave whatever lists hold the handler.
    virtual void retireLink();
    // Who is behind the link, for log lines; the default names the handler.
    virtual std::string linkName() const;
    // From doHandleMessage or doHandleCommand: the frames after this one are
    // not dispatched and the link ends as endLink ends it, without a log line
    // of its own (the caller has said why, within its own rate limit).
    void endLinkAfterThisFrame();

private:
    // Writes the frames it batched when a batch ends.
    friend class WriteBatch;

    // Writes the message frames waiting for a batch, if the link may write.
    void writeBatched();
    // Lists this handler with the batch open on this thread; false when none
    // is open (outbound lock held).
    bool joinBatch();

    // Picks the next frame when none is being written (outbound lock held).
    void sendOutbound();
    // Takes the next frame from the queues as the current one; false when
    // none is waiting (outbound lock held).
    bool pickNextFrame();
    // The frame that would be written after the current one and the first
    // batched ones, as one at a time would pick it; null when none waits.
    DataFrame* frameAfterBatch(size_t batched) const;
    // Moves next (from frameAfterBatch(batched)) into the batch behind the
    // current frame unless it is there already (outbound lock held).
    void joinSend(DataFrame* next, size_t batched);
    // Points parts at the unsent rest of the current frame and whole frames
    // behind it (at most MaxWriteParts and MaxWriteBytes); the bytes
    // gathered, 0 when the current frame cannot be written (outbound lock held).
    unsigned gatherOutbound(iovec* parts, int& count);
    // Copies the unsent rest of the current frame and whole frames that fit
    // behind it into the outbound buffer; the bytes copied (outbound lock held).
    unsigned fillOutboundBuffer();
    // Writes the current frame and whatever is batched behind it, at once
    // when the socket takes it, else through the selector (outbound lock held).
    void doSendOutboundData();
    // Accounts count bytes as gone; true while a current frame is left to
    // write (outbound lock held).
    bool completeSent(Socket* socket, unsigned char* buffer, unsigned count, unsigned size);
    // Returns frames of the last send that the socket took nothing of to the
    // heads of their queues (outbound lock held).
    void requeueUntouched();
    // Returns the frames batched behind the current one to the heads of
    // their queues, in order (outbound lock held).
    void requeueBatched();
    // A frame to build an outbound frame in: a spare one, else a new one
    // (outbound lock held).
    DataFrame* createOutbound();
    // Keeps a sent frame's buffer for the next outbound frame, or frees it
    // (outbound lock held).
    void recycle(DataFrame* frame);
    // Appends a built frame, or refuses it when the queue is full; writes it
    // unless a batch is open for it (outbound lock held).
    bool enqueue(DataFrame* frame, bool command);
    // Whether frames may be written now (outbound lock held).
    bool mayWrite() const;
    // Forgets the socket; the frame in flight is kept only if nothing of it left.
    Socket* detachLocked();
    // Posts a receive on socket.
    bool postRecv(Socket* socket);
    // Dispatches the complete inbound frame; one that does not parse is dropped.
    void processInboundCurrentFrame();
    // Why the frame being received refused the stream, for the log.
    std::string refusalReason(const DataFrame& frame) const;
    // Shuts the connection down so the socket layer reports its end; logs
    // the reason unless it is null.
    void endLink(Socket* socket, const char* reason);
    // Releases every frame queued or in flight.
    void releaseOutboundFrames();
    // A frame that may not join the queue because refuser's bound would
    // pass: refused alone, or with endSlowConsumer the link ends (outbound
    // lock held).
    void refuseOutbound(DataFrame* frame, const ByteAccount* refuser);
    // Ends a slow consumer's link: frees its waiting frames and shuts the
    // connection down (outbound lock held).
    void endSlowConsumer(const ByteAccount* refuser, uint64_t wanted);
    // A new frame to receive into, charged to the inbound account; null
    // when none could be made (inbound lock held).
    DataFrame* createInbound();
    // Frees the frame being received and its charge (inbound lock held).
    void releaseInbound();
    // Shuts the connection down and writes the probe that makes the socket
    // report its end (outbound lock held unless probe is false).
    void shutdownConnection(Socket* socket, bool probe);

    // Serialises the receive path and guards the inbound state.
    UlmarCommsSystem::Mutex m_inboundLock;
    // Where recv delivers, and its size (one transfer, not one frame).
    unsigned char* m_pInboundBuffer;
    unsigned m_inboundSize;
    // The other receive buffer: the next receive fills one while the frames
    // of the last are dispatched from the other.
    unsigned char* m_pInboundSpare;
    // Frames waiting to be written, per kind (commands go first).
    std::deque<DataFrame*> m_messageQueue;
    std::deque<DataFrame*> m_commandQueue;
    // The frame being reassembled.
    DataFrame* m_pInboundCurrentFrame;
    // The peer sent a header that cannot be honoured; inbound bytes are
    // dropped until a new socket.
    bool m_linkEnding;
    // Set by endLinkAfterThisFrame while a frame is dispatched (inbound lock held).
    bool m_endAfterFrame;
    // See limitInboundCommands.
    unsigned m_inboundCommandLimit;
    // Guards the queues, the frame in flight, the ids and the socket pointer.
    UlmarCommsSystem::Mutex m_outboundLock;
    // Tested before sending, cleared when nothing is left; never set.
    bool m_sending;
    // The id of the last frame queued (ids start at 1).
    uint32_t m_lastId;
    // What send is given, and its size.
    unsigned char* m_pOutboundBuffer;
    unsigned m_outboundSize;
    // The frame being written.
    DataFrame* m_pOutboundCurrentFrame;
    // Frames taken from the queues to follow the current one in the same
    // send, in wire order; they become current one after another.
    std::deque<DataFrame*> m_batched;
    // A send of the current frame is posted and not yet completed.
    bool m_outboundInFlight;
    // Bytes of the current frame the socket has taken.
    uint64_t m_currentSent;
    // Memory of every queued frame and the current one, bounded at
    // MaxQueuedBytes or as setMemoryAccounts says.
    std::unique_ptr<ByteAccount> m_pQueued;
    // Memory of the frame being received (inbound lock).
    std::unique_ptr<ByteAccount> m_pInbound;
    // A bound a frame would pass ends the link (set before the socket).
    bool m_endSlowConsumer;
    // The link was ended as a slow consumer; frames are dropped until a new socket.
    bool m_slowConsumer;
    // Set by holdOutbound: frames queue but none is written.
    bool m_outboundHeld;
    // Message frames wait, unwritten, for the end of a batch.
    bool m_batchedFrames;
    // What batches keep of this handler; cleared when it is destroyed.
    std::shared_ptr<WriteBatch::Member> m_pBatchMember;
    // Sent frames kept for reuse, so a frame sent costs no allocation.
    std::vector<DataFrame*> m_spareFrames;
    // One byte written after a shutdown to make the socket report its end.
    unsigned char m_probe;
    // Written under both locks, so either lock gives a stable view.
    std::atomic<Socket*> m_pSocket;
};

} // namespace UlmarComms
