// A scriptable bus participant for the process-level tests, built on the
// public C interface only. It starts the library (as an application, or with
// --service as the machine's service), then reads commands from stdin, one
// per line, and reports on stdout, one event per line:
//
//   pump NAME [INTERFACES]          -> "pump NAME ADDRESS" or "fail pump NAME"
//   answer NAME echo|silent         -> "answer NAME" (how NAME answers requests)
//   send NAME TO METHOD [K=V...]    -> "sent NAME ID RC"
//   burst NAME TO METHOD COUNT [BYTES] -> COUNT requests with "seq"=0..COUNT-1 (and a "data" value of
//                                      BYTES bytes), then "burst NAME RC"
//   threads                         -> "threads N": how many threads have run callbacks
//   destroy NAME                    -> "destroyed NAME" (the pump is gone)
//   quit                            -> shuts down and exits 0
//
// With --log, the library's warnings and errors are printed as
// "log LEVEL TEXT" lines (newlines in the text dropped).
//
// Callbacks (on the library's router worker thread) print:
//   "request NAME FROM METHOD SENDERID [seq=N]"
//   "response NAME RESPONSEID RESPONSE [seq=N]"
//   "error NAME RESPONSEID CODE"
#include "ulmarcomms.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::mutex g_outputLock;

void say(const std::string& line)
{
    std::lock_guard<std::mutex> guard(g_outputLock);
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

struct Pump {
    std::string name;
    void* handle = nullptr;
    std::string answer = "echo";
};

std::map<std::string, Pump*> g_pumps;

std::mutex g_threadsLock;
std::set<std::thread::id> g_callbackThreads;

void noteCallbackThread()
{
    std::lock_guard<std::mutex> guard(g_threadsLock);
    g_callbackThreads.insert(std::this_thread::get_id());
}

// The "seq" pair a burst numbers its requests with, as " seq=N".
std::string seqPair(void* message)
{
    const char* seq = UlmarCommsMessageValue(message, "seq");
    return seq != nullptr ? std::string(" seq=") + seq : std::string();
}

// Texts go on one line: newlines are shown as "\\n", and a missing text as "-".
std::string orDash(const char* text)
{
    if (text == nullptr)
        return "-";
    std::string escaped;
    for (const char* c = text; *c != '\0'; ++c) {
        if (*c == '\n')
            escaped += "\\n";
        else
            escaped += *c;
    }
    return escaped;
}

void onRequest(void* context, void* message, const char*, const char* method)
{
    noteCallbackThread();
    Pump* pump = static_cast<Pump*>(context);
    say("request " + pump->name + " " + orDash(UlmarCommsGetFrom(message)) + " " + orDash(method) + " " +
        orDash(UlmarCommsGetSenderId(message)) + seqPair(message));
    if (pump->answer == "echo") {
        void* reply = UlmarCommsCreateReplyMessage(pump->handle, message, method);
        const char* seq = UlmarCommsMessageValue(message, "seq");
        if (reply != nullptr && seq != nullptr)
            UlmarCommsMessageAddKeyValue(reply, "seq", seq);
        if (reply != nullptr)
            UlmarCommsPostMessage(pump->handle, reply);
    }
}

void onResponse(void* context, unsigned int responseId, void* message)
{
    noteCallbackThread();
    Pump* pump = static_cast<Pump*>(context);
    say("response " + pump->name + " " + std::to_string(responseId) + " " + orDash(UlmarCommsGetResponse(message)) +
        seqPair(message));
}

void onError(void* context, unsigned int responseId, int code)
{
    noteCallbackThread();
    Pump* pump = static_cast<Pump*>(context);
    say("error " + pump->name + " " + std::to_string(responseId) + " " + std::to_string(code));
}

void addPairs(void* message, const std::vector<std::string>& words, size_t from)
{
    for (size_t i = from; i < words.size(); ++i) {
        const size_t equals = words[i].find('=');
        if (equals != std::string::npos)
            UlmarCommsMessageAddKeyValue(message, words[i].substr(0, equals).c_str(),
                                         words[i].substr(equals + 1).c_str());
    }
}

// Posts a built message and reports its id and the post result.
void postBuilt(Pump* pump, void* message)
{
    if (message == nullptr) {
        say("fail build " + pump->name);
        return;
    }
    const int id = UlmarCommsMessageId(pump->handle, message);
    const int rc = UlmarCommsPostMessage(pump->handle, message);
    say("sent " + pump->name + " " + std::to_string(id) + " " + std::to_string(rc));
}

bool handle(const std::vector<std::string>& w)
{
    const std::string& verb = w[0];
    if (verb == "quit")
        return false;
    if (verb == "threads") {
        std::lock_guard<std::mutex> guard(g_threadsLock);
        say("threads " + std::to_string(g_callbackThreads.size()));
        return true;
    }
    if (w.size() < 2) {
        say("fail usage " + verb);
        return true;
    }
    if (verb == "destroy" && w.size() >= 2 && g_pumps.count(w[1]) != 0) {
        UlmarCommsDestroyMessagePump(g_pumps[w[1]]->handle);
        delete g_pumps[w[1]];
        g_pumps.erase(w[1]);
        say("destroyed " + w[1]);
        return true;
    }
    if (verb == "pump") {
        Pump* pump = new Pump;
        pump->name = w[1];
        pump->handle = UlmarCommsCreateMessagePump(w[1].c_str(), pump, onRequest, onResponse, onError,
                                                   w.size() > 2 ? w[2].c_str() : nullptr);
        if (pump->handle == nullptr) {
            delete pump;
            say("fail pump " + w[1]);
            return true;
        }
        g_pumps[w[1]] = pump;
        say("pump " + w[1] + " " + UlmarCommsMessagePumpAddress(pump->handle));
        return true;
    }
    auto found = g_pumps.find(w[1]);
    if (found == g_pumps.end()) {
        say("fail nopump " + w[1]);
        return true;
    }
    Pump* pump = found->second;
    if (verb == "answer" && w.size() >= 3) {
        pump->answer = w[2];
        say("answer " + w[1]);
    } else if (verb == "send" && w.size() >= 4) {
        void* message = UlmarCommsCreateMessage(pump->handle, w[2].c_str(), w[3].c_str());
        if (message != nullptr)
            addPairs(message, w, 4);
        postBuilt(pump, message);
    } else if (verb == "burst" && w.size() >= 5) {
        const int count = std::atoi(w[4].c_str());
        const std::string data(w.size() > 5 ? static_cast<size_t>(std::max(0, std::atoi(w[5].c_str()))) : 0, 'd');
        int worst = 0;
        for (int i = 0; i < count; ++i) {
            void* message = UlmarCommsCreateMessage(pump->handle, w[2].c_str(), w[3].c_str());
            UlmarCommsMessageAddKeyValue(message, "seq", std::to_string(i).c_str());
            if (!data.empty())
                UlmarCommsMessageAddKeyValue(message, "data", data.c_str());
            const int rc = UlmarCommsPostMessage(pump->handle, message);
            if (rc != 0)
                worst = rc;
        }
        say("burst " + w[1] + " " + std::to_string(worst));
    } else {
        say("fail usage " + verb);
    }
    return true;
}

} // namespace

void logLine(int level, const char* format, char* args)
{
    char text[1024];
    va_list copy;
    va_copy(copy, *reinterpret_cast<va_list*>(args));
    std::vsnprintf(text, sizeof(text), format, copy);
    va_end(copy);
    std::string line = "log " + std::to_string(level) + " " + text;
    line.erase(std::remove(line.begin(), line.end(), '\n'), line.end());
    say(line);
}

int main(int argc, char** argv)
{
    std::string start;
    bool service = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--log") == 0) {
            UlmarCommsSetLogger(logLine);
            UlmarCommsSetLoggerLevel(2);
        } else if (std::strcmp(argv[i], "--service") == 0)
            service = true;
        else if (std::strcmp(argv[i], "--start") == 0 && i + 1 < argc)
            start = argv[++i];
    }
    const int rc = service ? UlmarCommsSystemStartUp(start.c_str()) : UlmarCommsStart(start.c_str());
    say("started " + std::to_string(rc));
    if (rc != 0)
        return 1;
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::vector<std::string> w;
        for (std::string word; words >> word;)
            w.push_back(word);
        if (!w.empty() && !handle(w))
            break;
    }
    for (auto& [name, pump] : g_pumps) {
        UlmarCommsDestroyMessagePump(pump->handle);
        delete pump;
    }
    g_pumps.clear();
    if (service)
        UlmarCommsSystemShutdown();
    UlmarCommsShutdown();
    say("bye");
    return 0;
}
