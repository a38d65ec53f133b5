// What the soak's applications write down and how the coordinator reads it
// back. Every application generation (a restart is a new generation) appends
// one fixed-size record per message it posted and per message it received
// to its own two files, with write(2) at once, so a process killed with
// SIGKILL loses at most the record of the message it was handling. Times are
// CLOCK_MONOTONIC, which every process on the machine shares, so the
// coordinator can hold them against the windows of its faults.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace UlmarCommsBench {

// The target application number of messages sent to the stalled consumer.
constexpr uint32_t kStallTarget = 0xFFFFFFFFu;

// One message an application posted.
struct SentRecord {
    uint32_t app = 0; // target application, or kStallTarget
    uint32_t refused = 0; // 1 when UlmarCommsPostMessage refused it
    uint64_t sequence = 0; // the sender generation's sequence id
    int64_t ns = 0; // when it was posted
};

// One message an application received.
struct ReceivedRecord {
    uint32_t app = 0; // the sender application
    uint32_t generation = 0; // the sender's generation
    uint64_t sequence = 0; // the sender's sequence id
    int64_t ns = 0; // when it arrived
};

// A span in which messages are not held to delivery: from a fault (less the
// settle margin) until everything is reachable again plus the margin. app is
// -1 for a fault of the whole bus (daemon restart, start-up), else the
// application killed: then only its own messages, sent or received, count.
struct Window {
    int64_t fromNs = 0;
    int64_t toNs = 0;
    int app = -1;
};

// What the records add up to.
struct Tally {
    uint64_t sent = 0; // posted outside every window
    uint64_t delivered = 0; // of those, received
    uint64_t lost = 0; // of those, never received
    uint64_t insideSent = 0; // posted inside a window
    uint64_t insideDelivered = 0; // of those, received
    uint64_t refused = 0; // posts the library refused (not sent)
    uint64_t toStall = 0; // posted to the stalled consumer
    uint64_t duplicates = 0; // receptions beyond the first of one message
    uint64_t unrecorded = 0; // received but the sender's record is missing
    int64_t firstNs = 0; // earliest post
    int64_t lastNs = 0; // latest post
};

// CLOCK_MONOTONIC now, in nanoseconds.
int64_t monotonicNs();

// Appends records to a file with one write(2) each; closes on destruction.
class RecordFile {
public:
    RecordFile() = default;
    ~RecordFile();
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;
    // Creates (truncates) path; false when it cannot.
    bool open(const std::string& path);
    // Appends one record; false when the write failed.
    bool append(const void* record, unsigned size);

private:
    int m_fd = -1;
};

// The records file of an application generation's posts and receptions.
std::string sentPath(const std::string& dir, unsigned app, unsigned generation);
std::string receivedPath(const std::string& dir, unsigned app, unsigned generation);

// Reads every generation's records (generations[app] is the last one of
// each application) and holds them against the windows.
Tally tallyRecords(const std::string& dir, const std::vector<unsigned>& generations,
                   const std::vector<Window>& windows);

} // namespace UlmarCommsBench
