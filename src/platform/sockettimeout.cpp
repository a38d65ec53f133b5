// Timer entries: blocks of 20, a free list, the active list and the list of
// entries added since the last check.
//
// Times are whole-second milliseconds that wrap modulo 2^32; they are
// compared by their signed difference so that the wrap (every 49.7 days)
// neither stalls nor rushes any timer.
//
// While a check walks the active list, its callbacks may remove entries of
// that list; those are only marked and leave the list when the walk is over,
// so the walk never follows a pointer into the free list.
#include "platform/sockettimeout.h"

#include "core/core.h"
#include "platform/socket.h"
#include "platform/thread.h"

#include <initializer_list>
#include <new>

using UlmarComms::Core;

namespace UlmarCommsSystem {

namespace {

// Whether time a comes before time b on the wrapping clock.
bool before(unsigned a, unsigned b)
{
    return static_cast<int>(a - b) < 0;
}

bool matches(const SocketTimeout::TimeoutAction* entry, SocketTimeout::Callback callback, void* data)
{
    return !entry->removed && entry->callback == callback && entry->data == data;
}

void* asPointer(SocketTimeout::Callback callback)
{
    return reinterpret_cast<void*>(callback);
}

} // namespace

SocketTimeout::SocketTimeout()
    : m_nextCheck(0),
      m_interval(1000),
      m_capturedThread(0),
      m_free(nullptr),
      m_active(nullptr),
      m_pending(nullptr),
      m_handling(false)
{
}

SocketTimeout* SocketTimeout::instance()
{
    static SocketTimeout* s_instance = new SocketTimeout();
    return s_instance;
}

SocketTimeout::TimeoutAction* SocketTimeout::popFree()
{
    if (m_free == nullptr) {
        TimeoutAction* block = new (std::nothrow) TimeoutAction[BlockSize];
        if (block == nullptr) {
            Socket::log(Core::LogFatal, "SocketTimeout::PopFree() Failed to allcate new entries\n");
            return nullptr;
        }
        m_blocks.push_back(block);
        for (unsigned i = 0; i < BlockSize; ++i) {
            block[i] = TimeoutAction();
            pushFree(&block[i]);
        }
    }
    TimeoutAction* entry = m_free;
    m_free = entry->next;
    entry->next = nullptr;
    return entry;
}

void SocketTimeout::pushFree(TimeoutAction* entry)
{
    entry->callback = nullptr;
    entry->data = nullptr;
    entry->removed = false;
    entry->next = m_free;
    m_free = entry;
}

bool SocketTimeout::add(Callback callback, void* data, unsigned ms, bool once)
{
    Socket::verbose("SocketTimeout::Add( %p, %p )\n", asPointer(callback), data);
    MutexLocker locker(m_mutex);
    TimeoutAction* entry = popFree();
    if (entry == nullptr) {
        Socket::log(Core::LogFatal, "SocketTimeout::Add() Unable to get new timeoutaction to use.\n");
        return false;
    }
    entry->interval = ms;
    entry->once = once;
    entry->callback = callback;
    entry->data = data;
    entry->removed = false;
    entry->due = Thread::tick() + ms;
    entry->next = m_pending;
    m_pending = entry;
    return true;
}

void SocketTimeout::removeFrom(TimeoutAction*& list, Callback callback, void* data, bool& headMatched)
{
    // Removal from the active list during a check is only marked.
    const bool defer = m_handling && &list == &m_active;
    TimeoutAction** link = &list;
    while (*link != nullptr && (*link)->removed)
        link = &(*link)->next;
    TimeoutAction* head = *link;
    if (head == nullptr)
        return;
    if (matches(head, callback, data)) {
        headMatched = true;
        if (defer) {
            head->removed = true;
        } else {
            *link = head->next;
            pushFree(head);
        }
        return;
    }
    link = &head->next;
    while (*link != nullptr) {
        TimeoutAction* entry = *link;
        if (!matches(entry, callback, data)) {
            link = &entry->next;
        } else if (defer) {
            entry->removed = true;
            link = &entry->next;
        } else {
            *link = entry->next;
            pushFree(entry);
        }
    }
}

bool SocketTimeout::remove(Callback callback, void* data)
{
    Socket::verbose("SocketTimeout::Remove( %p, %p )\n", asPointer(callback), data);
    MutexLocker locker(m_mutex);
    bool headMatched = false;
    removeFrom(m_active, callback, data, headMatched);
    if (headMatched)
        return true;
    removeFrom(m_pending, callback, data, headMatched);
    if (headMatched)
        return true;
    // Entries further down may have gone all the same: the answer only tells
    // about the heads, and callers rely on nothing more.
    Socket::log(Core::LogWarning, "SocketTimeout::Remove( %p, %p ) Not removed!\n", asPointer(callback), data);
    return false;
}

bool SocketTimeout::capture()
{
    MutexLocker locker(m_mutex);
    if (m_capturedThread != 0)
        return false;
    m_capturedThread = Thread::threadId();
    m_nextCheck = Thread::tick() + m_interval;
    return true;
}

void SocketTimeout::releaseCapture()
{
    MutexLocker locker(m_mutex);
    if (m_capturedThread == Thread::threadId())
        m_capturedThread = 0;
}

void SocketTimeout::handle()
{
    const unsigned now = Thread::tick();
    MutexLocker locker(m_mutex);
    if (m_handling || before(now, m_nextCheck))
        return;
    m_handling = true;
    fireDue(now);
    m_handling = false;
    sweepRemoved();
    if (m_pending != nullptr) {
        TimeoutAction** tail = &m_active;
        while (*tail != nullptr)
            tail = &(*tail)->next;
        *tail = m_pending;
        m_pending = nullptr;
    }
    m_nextCheck = now + m_interval;
}

void SocketTimeout::fireDue(unsigned now)
{
    // Entries stay linked during the walk (removals are marked), so each
    // next pointer is still valid after a callback.
    for (TimeoutAction* entry = m_active; entry != nullptr; entry = entry->next) {
        if (entry->removed || !before(entry->due, now))
            continue;
        try {
            entry->callback(entry->data);
        } catch (...) {
            Socket::log(Core::LogError, "SocketTimeout::Handle() Unhandled exception in timer( %p, %p )\n",
                        asPointer(entry->callback), entry->data);
        }
        if (entry->removed)
            continue;
        if (!entry->once) {
            entry->due = now + entry->interval;
            continue;
        }
        Socket::verbose("SocketTimeout::Handle() removing( %p, %p )\n", asPointer(entry->callback), entry->data);
        entry->removed = true;
    }
}

void SocketTimeout::sweepRemoved()
{
    TimeoutAction** link = &m_active;
    while (*link != nullptr) {
        TimeoutAction* entry = *link;
        if (entry->removed) {
            *link = entry->next;
            pushFree(entry);
        } else {
            link = &entry->next;
        }
    }
}

unsigned SocketTimeout::count(Callback callback, void* data)
{
    MutexLocker locker(m_mutex);
    unsigned found = 0;
    for (TimeoutAction* list : {m_active, m_pending})
        for (TimeoutAction* entry = list; entry != nullptr; entry = entry->next)
            if (matches(entry, callback, data))
                ++found;
    return found;
}

} // namespace UlmarCommsSystem
