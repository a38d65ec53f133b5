// Writes batched over the dispatch of one received block.
//
// While a frame handler dispatches the frames of one received block (its
// read-completion path, on a selector worker or on a router worker reading
// its link), every message frame that any frame handler queues on that same
// thread waits in that handler's queue unwritten. When the block's dispatch
// ends, each handler that queued is written once, in the order they first
// queued: a block that fans out to other links costs one send per link
// instead of one per message. Only the order of system calls changes; the
// bytes of each link and their order are those of writing at once. A
// command frame is not batched: it first writes the message frames waiting
// before it on its handler, so it never overtakes them (see
// DataFrameHandler::enqueue). No application callback runs inside a block's
// dispatch (messages for pumps are queued for the router workers), so what
// a batch keeps back leaves as soon as the routing of that block is done.
//
// Threads. A batch belongs to the thread whose call stack opened it and is
// only ever touched by that thread. A handler may be destroyed on another
// thread while a batch still lists it; what a batch keeps of a handler is
// therefore its Member, shared between them: the handler's destructor clears
// it under the member's lock, and the batch writes only under that lock, so
// a handler that goes during a batch is never touched afterwards.
//
// Lock order: a member's lock is taken with the dispatching handler's
// inbound lock held, and the handler's outbound lock, the socket's record
// lock and the registry lock are taken under it; the handler's destructor
// takes it holding nothing. docs/architecture.md lists it with the others.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

namespace UlmarComms {

class DataFrameHandler;

// The batch of frames queued on this thread during one block's dispatch.
class WriteBatch {
public:
    // A handler as batches see it; the handler clears it when it goes.
    struct Member {
        // The handler, while it lives.
        explicit Member(DataFrameHandler* owner) : handler(owner) {}
        // Held while the handler is written or forgotten.
        std::mutex lock;
        // Null once the handler is being destroyed (guarded by lock).
        DataFrameHandler* handler;
    };

    // Opens this thread's batch, or joins the one already open: the
    // outermost scope writes.
    WriteBatch();
    // The outermost scope writes each handler that queued, once, in the
    // order they first queued, skipping handlers that went meanwhile.
    ~WriteBatch();
    WriteBatch(const WriteBatch&) = delete;
    WriteBatch& operator=(const WriteBatch&) = delete;

    // The batch open on the calling thread, or null.
    static WriteBatch* current();
    // Lists member's handler to be written at the end (once however often
    // it is added); false when it cannot be listed and must write at once.
    bool add(const std::shared_ptr<Member>& member);
    // Called by a handler's destructor: from now on no batch touches it.
    static void forget(Member& member);

private:
    // Handlers that queued, in the order they first did.
    std::vector<std::shared_ptr<Member>> m_members;
    // Whether this scope opened the batch (and so writes it).
    bool m_outermost;
};

} // namespace UlmarComms
