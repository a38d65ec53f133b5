// Writing and tallying the soak's records. A message is identified by its
// sender, the sender's generation and its sequence id; the tally counts each
// reception of it, so a second one is a duplicate wherever it happened.
#include "soakrecords.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include <unordered_map>

namespace UlmarCommsBench {

namespace {

// One message's identity packed into 64 bits: 16 bits application, 16 bits
// generation, 32 bits sequence (a 10-minute run posts far fewer).
uint64_t messageKey(uint32_t app, uint32_t generation, uint64_t sequence)
{
    return (uint64_t(app & 0xFFFF) << 48) | (uint64_t(generation & 0xFFFF) << 32) | (sequence & 0xFFFFFFFFu);
}

// Every record of type T in path; empty when the file is missing.
template <typename T> std::vector<T> readRecords(const std::string& path)
{
    std::vector<T> records;
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr)
        return records;
    T record;
    while (std::fread(&record, sizeof(record), 1, file) == 1)
        records.push_back(record);
    std::fclose(file);
    return records;
}

// Whether a message from sender to target posted at ns falls in a window.
bool insideWindow(const std::vector<Window>& windows, int64_t ns, int sender, int target)
{
    for (const Window& window : windows) {
        if (ns < window.fromNs || ns > window.toNs)
            continue;
        if (window.app < 0 || window.app == sender || window.app == target)
            return true;
    }
    return false;
}

} // namespace

int64_t monotonicNs()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

RecordFile::~RecordFile()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

bool RecordFile::open(const std::string& path)
{
    m_fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    return m_fd >= 0;
}

bool RecordFile::append(const void* record, unsigned size)
{
    ssize_t written = -1;
    do {
        written = ::write(m_fd, record, size);
    } while (written < 0 && errno == EINTR);
    return written == ssize_t(size);
}

std::string sentPath(const std::string& dir, unsigned app, unsigned generation)
{
    return dir + "/sent-" + std::to_string(app) + "-" + std::to_string(generation);
}

std::string receivedPath(const std::string& dir, unsigned app, unsigned generation)
{
    return dir + "/received-" + std::to_string(app) + "-" + std::to_string(generation);
}

Tally tallyRecords(const std::string& dir, const std::vector<unsigned>& generations, const std::vector<Window>& windows)
{
    Tally tally;
    std::unordered_map<uint64_t, uint32_t> received;
    for (unsigned app = 0; app < generations.size(); ++app) {
        for (unsigned generation = 0; generation <= generations[app]; ++generation) {
            for (const ReceivedRecord& r : readRecords<ReceivedRecord>(receivedPath(dir, app, generation)))
                ++received[messageKey(r.app, r.generation, r.sequence)];
        }
    }
    for (const auto& [key, count] : received)
        tally.duplicates += count - 1;
    for (unsigned app = 0; app < generations.size(); ++app) {
        for (unsigned generation = 0; generation <= generations[app]; ++generation) {
            for (const SentRecord& s : readRecords<SentRecord>(sentPath(dir, app, generation))) {
                if (tally.firstNs == 0 || s.ns < tally.firstNs)
                    tally.firstNs = s.ns;
                tally.lastNs = std::max(tally.lastNs, s.ns);
                if (s.refused != 0) {
                    ++tally.refused;
                    continue;
                }
                if (s.app == kStallTarget) {
                    ++tally.toStall;
                    continue;
                }
                const bool arrived = received.erase(messageKey(app, generation, s.sequence)) != 0;
                if (insideWindow(windows, s.ns, int(app), int(s.app))) {
                    ++tally.insideSent;
                    tally.insideDelivered += arrived ? 1 : 0;
                } else {
                    ++tally.sent;
                    ++(arrived ? tally.delivered : tally.lost);
                }
            }
        }
    }
    tally.unrecorded = received.size();
    return tally;
}

} // namespace UlmarCommsBench
