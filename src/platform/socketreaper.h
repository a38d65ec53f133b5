// The one rule for destroying what a selector worker may still call.
//
// Every call the socket layer makes into its owners (a socket callback, and
// through it a frame handler or a link) runs inside a Section: a worker's
// whole event, a read completed by the thread that took it, the connected
// callback of a blocking connect. An owner that is done with such an object
// first makes it unreachable (takes it out of every list, detaches it from
// its socket, so that no new section can find it) and then hands it to the
// reaper instead of deleting it. The reaper destroys it once every section
// that began before the hand-over has ended: a section that began later
// cannot have found it. Nothing waits for that; the selector workers destroy
// what is due between events, and Socket::deinit destroys the rest.
// Sockets themselves go the same way (Socket::release), as do frame handlers
// and the links built on them (DataFrameHandler::release).
//
// Sections are counted in two slots. New sections enter the current slot;
// the reaper moves the current slot on and destroys the objects handed over
// before the move once the old slot is empty. A section re-checks the slot
// after counting itself, so one that read the slot just before a move is
// never missed (see socketreaper.cpp).
#pragma once

#include <cstdint>

namespace UlmarCommsSystem {

class SocketReaper {
public:
    // Destroys one object handed over (object is what was given to defer).
    typedef void (*Destroy)(void* object);

    // Counts the calling thread as possibly calling into owners' objects
    // for its lifetime. Cheap (two atomic operations); never waits.
    class Section {
    public:
        Section();
        ~Section();
        Section(const Section&) = delete;
        Section& operator=(const Section&) = delete;

    private:
        unsigned m_slot;
    };

    // Hands object over: destroy(object) runs once no section that began
    // before this call is left, on a selector worker (or in deinit). Never
    // waits; safe inside a section, under any lock that destroy does not take.
    static void defer(Destroy destroy, void* object);
    // defer() for an object deleted through its (virtual) destructor.
    template <typename T> static void deferDelete(T* object)
    {
        if (object != nullptr)
            defer([](void* pointer) { delete static_cast<T*>(pointer); }, object);
    }
    // Destroys what is due now and returns at once otherwise; the selector
    // workers call it between events.
    static void reap();
    // Waits until every section that began before the call has ended. Never
    // call it inside a section (it would wait for itself), nor holding a lock
    // any socket callback may take.
    static void synchronize();
    // Waits for the sections in progress and destroys everything handed
    // over; Socket::deinit calls it once the workers are joined.
    static void drain();
    // Objects handed over and not yet destroyed.
    static uint64_t pending();
    // Called with whatever wakes a worker to reap (null: nothing).
    static void setKick(void (*kick)());
};

} // namespace UlmarCommsSystem
