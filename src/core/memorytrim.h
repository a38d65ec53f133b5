// Giving freed memory back to the system.
//
// The allocator keeps what a backlog freed for reuse, so without help a
// process that once held a large queue stays that large. Code that frees a
// large amount (a link's queue, a large frame) says so with released(); the
// selector workers call tick() between turns, and once a second tick() looks
// whether enough was freed (reported, or seen as the allocator's free bytes
// growing since the last trim, which catches frees nobody reported) and if
// so asks the allocator to return its free pages. At most one look and one
// trim a second keep their cost (they walk the heap) away from a busy
// link's path.
//
// Threads: both calls may come from any thread; the state is atomic, and of
// two workers ticking at once only one trims.
#pragma once

#include <cstdint>

namespace UlmarComms::MemoryTrim {

// Freed bytes worth a trim: smaller frees are reused soon enough anyway.
constexpr uint64_t TrimThresholdBytes = 1024u * 1024u;

// Notes that bytes of heap memory were freed.
void released(uint64_t bytes);
// At most once a second: trims the heap when at least TrimThresholdBytes
// were freed since the last trim; true when it trimmed.
bool tick();

} // namespace UlmarComms::MemoryTrim
