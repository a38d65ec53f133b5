// Microbenchmarks of the hot paths one message takes inside a process: building
// it, serialising and parsing its packet form, reassembling a frame from the
// stream, parsing and matching addresses, and one request/reply between two
// pumps through the process router and its worker thread. One more measures
// the system router's table at scale: 50,000 registrations from one link.
//
// They link the internal archive, so they measure exactly the code the shared
// library runs. The system router is a stub that refuses everything: these
// figures are the in-process share of a message's cost.
#include "core/address.h"
#include "core/core.h"
#include "framing/dataframe.h"
#include "messaging/messaging.h"
#include "service/systemrouter.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using UlmarComms::Address;
using UlmarComms::DataFrame;
using UlmarComms::IMessageRouter;
using UlmarComms::ISystemRouter;
using UlmarComms::MessageItem;
using UlmarComms::MessagePump;
using UlmarComms::MessageRef;
using UlmarComms::MessageRouter;

namespace {

// A 6-pair request as an application builds it: the four header pairs the
// pump adds ("_t", "_f", "_m", "_s") and two of its own.
MessageItem* buildRequest(MessagePump& pump, const char* to, const std::string& payload)
{
    MessageItem* message = pump.createMessage(to, "bench.echo");
    message->add("payload", payload.c_str());
    message->add("sequence", "123456");
    return message;
}

// A stand-alone 6-pair message (no pump, no router).
MessageItem* buildSixPairs(const std::string& payload)
{
    MessageItem* message = MessageItem::create();
    message->add("_t", "benchhost@server/echo");
    message->add("_f", "benchhost@client/caller");
    message->add("_m", "bench.echo");
    message->add("_s", "42");
    message->add("payload", payload.c_str());
    message->add("sequence", "123456");
    return message;
}

// The payload length that makes the frame of buildSixPairs exactly `frame` bytes.
std::string payloadForFrame(unsigned frame)
{
    MessageItem* probe = buildSixPairs("");
    const unsigned base = probe->memSize() + DataFrame::HeaderSize;
    MessageItem::release(probe);
    return std::string(frame > base ? frame - base : 0, 'x');
}

// The bytes of one message frame as they travel on a link.
std::vector<unsigned char> frameBytes(unsigned frameSize)
{
    MessageItem* message = buildSixPairs(payloadForFrame(frameSize));
    DataFrame frame(1, message);
    MessageItem::release(message);
    std::vector<unsigned char> bytes(frame.dataSize() + DataFrame::HeaderSize);
    unsigned count = 0;
    frame.writeOut(bytes.data(), static_cast<unsigned>(bytes.size()), count);
    bytes.resize(count);
    return bytes;
}

// A system router that takes nothing: every message here stays local.
class NullSystemRouter : public ISystemRouter {
public:
    bool start() override { return true; }
    void finish() override {}
    bool add(IMessageRouter*) override { return true; }
    bool remove(IMessageRouter*) override { return true; }
    bool post(MessageRef) override { return false; }
    void handleCommand(IMessageRouter*, unsigned char, const char*) override {}
};

} // namespace

static void BM_BuildSixPairMessage(benchmark::State& state)
{
    const std::string payload(static_cast<size_t>(state.range(0)), 'p');
    for (auto _ : state) {
        MessageItem* message = buildSixPairs(payload);
        benchmark::DoNotOptimize(message);
        MessageItem::release(message);
    }
}
BENCHMARK(BM_BuildSixPairMessage)->Arg(16)->Arg(1024);

static void BM_ToBuffer(benchmark::State& state)
{
    MessageItem* message = buildSixPairs(std::string(static_cast<size_t>(state.range(0)), 'p'));
    std::vector<unsigned char> buffer(message->memSize());
    for (auto _ : state) {
        unsigned size = 0;
        const bool ok = message->toBuffer(size, buffer.data(), static_cast<unsigned>(buffer.size()));
        benchmark::DoNotOptimize(ok);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(buffer.size()));
    MessageItem::release(message);
}
BENCHMARK(BM_ToBuffer)->Arg(16)->Arg(1024);

static void BM_FromBuffer(benchmark::State& state)
{
    MessageItem* source = buildSixPairs(std::string(static_cast<size_t>(state.range(0)), 'p'));
    std::vector<unsigned char> buffer(source->memSize());
    unsigned size = 0;
    source->toBuffer(size, buffer.data(), static_cast<unsigned>(buffer.size()));
    MessageItem::release(source);
    for (auto _ : state) {
        MessageItem* message = MessageItem::create();
        const bool ok = message->fromBuffer(buffer.data(), size);
        benchmark::DoNotOptimize(ok);
        MessageItem::release(message);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(size));
}
BENCHMARK(BM_FromBuffer)->Arg(16)->Arg(1024);

// Reassembly of one 150-byte frame offered in pieces of state.range(0) bytes
// (0 = the whole frame in one piece).
static void BM_DataFrameReadIn150(benchmark::State& state)
{
    const std::vector<unsigned char> bytes = frameBytes(150);
    if (bytes.size() != 150) {
        state.SkipWithError("frame is not 150 bytes");
        return;
    }
    const unsigned piece = state.range(0) == 0 ? 150u : static_cast<unsigned>(state.range(0));
    DataFrame frame;
    for (auto _ : state) {
        unsigned offset = 0;
        bool complete = false;
        while (offset < bytes.size()) {
            unsigned consumed = 0;
            const unsigned length = std::min<unsigned>(piece, static_cast<unsigned>(bytes.size()) - offset);
            frame.readIn(bytes.data() + offset, length, complete, consumed);
            offset += consumed;
        }
        benchmark::DoNotOptimize(complete);
        frame.reset();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * 150);
}
BENCHMARK(BM_DataFrameReadIn150)->Arg(0)->Arg(1)->ArgName("piece");

// Building the frame a link sends for one message (serialise into it).
static void BM_DataFrameInsertMessage(benchmark::State& state)
{
    MessageItem* message = buildSixPairs(payloadForFrame(150));
    DataFrame frame;
    unsigned id = 0;
    for (auto _ : state) {
        const bool ok = frame.insertMessage(++id, message);
        benchmark::DoNotOptimize(ok);
    }
    MessageItem::release(message);
}
BENCHMARK(BM_DataFrameInsertMessage);

static void BM_AddressParse(benchmark::State& state)
{
    UlmarComms::Core::instance()->getHostName(); // cached before timing
    const std::string text = "benchhost@service42/endpoint/child";
    for (auto _ : state) {
        Address address(text);
        benchmark::DoNotOptimize(address);
    }
}
BENCHMARK(BM_AddressParse);

// The routers' rule over a table of 100 entries: first strictly best score.
static void BM_AddressBestMatch100(benchmark::State& state)
{
    std::vector<Address> table;
    for (int i = 0; i < 100; ++i)
        table.emplace_back("benchhost@service" + std::to_string(i) + "/endpoint");
    const Address target("benchhost@service73/endpoint/child");
    for (auto _ : state) {
        int best = -1;
        size_t chosen = table.size();
        for (size_t i = 0; i < table.size(); ++i) {
            int score = 0;
            if (table[i].match(target, score) && score > best) {
                best = score;
                chosen = i;
            }
        }
        benchmark::DoNotOptimize(chosen);
    }
}
BENCHMARK(BM_AddressBestMatch100);

// The whole lookup a router does per message: parse the target, then the
// best match over 100 pumps under the table lock.
static void BM_RouterFindTarget100(benchmark::State& state)
{
    NullSystemRouter system;
    MessageRouter router;
    router.setSystemRouter(&system);
    std::vector<std::unique_ptr<MessagePump>> pumps;
    for (int i = 0; i < 100; ++i) {
        pumps.push_back(std::make_unique<MessagePump>(("service" + std::to_string(i) + "/endpoint").c_str(), &router));
        router.add(pumps.back().get());
    }
    const std::string target = "service73/endpoint/child";
    for (auto _ : state) {
        MessagePump* pump = router.findTargetMessagePump(target.c_str());
        benchmark::DoNotOptimize(pump);
    }
    for (auto& pump : pumps)
        router.remove(pump.get());
}
BENCHMARK(BM_RouterFindTarget100);

// The system router's side of a process with many pumps: one link of an
// ordinary user registers 50,000 pumps (its bound raised to fit), each
// through the link command with the ownership check, then they are removed
// one by one. Before the table was indexed this took about 26 s.
namespace {
class BenchLink : public UlmarComms::IMessageRouter {
public:
    bool setSystemRouter(ISystemRouter*) override { return true; }
    bool post(UlmarComms::MessageRef) override { return true; }
    void commandHandler(unsigned char, const char*) override {}
    bool linkUser(unsigned& uid) const override
    {
        uid = 1000;
        return true;
    }
};
} // namespace

static void BM_SystemRouterRegisterAndRemove(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i)
        names.push_back("bench/app" + std::to_string(i % 97) + "/pump" + std::to_string(i));
    for (auto _ : state) {
        UlmarCommsService::SystemRouter router;
        router.setPumpsPerLink(static_cast<size_t>(count));
        BenchLink link;
        router.add(&link);
        for (const std::string& name : names)
            router.handleCommand(&link, UlmarComms::CommandMessage::AddMessagePump, name.c_str());
        if (router.entryCount() != static_cast<size_t>(count))
            state.SkipWithError("not every pump was registered");
        for (const std::string& name : names)
            router.handleCommand(&link, UlmarComms::CommandMessage::RemoveMessagePump, name.c_str());
        router.remove(&link);
    }
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_SystemRouterRegisterAndRemove)->Arg(50)->Arg(50000)->Unit(benchmark::kMillisecond);

namespace {

// Two pumps on one router: the server echoes every request, the client's
// response callback tells the benchmark thread.
struct PumpPair {
    NullSystemRouter system;
    MessageRouter router;
    MessagePump server{"bench/server", &router};
    MessagePump client{"bench/client", &router};
    std::mutex lock;
    std::condition_variable answered;
    std::atomic<unsigned> replies{0};

    PumpPair()
    {
        router.setSystemRouter(&system);
        router.start();
        server.setCallbacks(this, &PumpPair::onRequest, nullptr, nullptr);
        client.setCallbacks(this, nullptr, &PumpPair::onResponse, nullptr);
    }
    ~PumpPair()
    {
        router.remove(&client);
        router.remove(&server);
        router.finish();
    }

    static void onRequest(void* context, MessageItem* message, const char*, const char*)
    {
        PumpPair* self = static_cast<PumpPair*>(context);
        MessageItem* reply = self->server.createReplyMessage(message, "ok");
        if (reply != nullptr)
            self->server.post(MessageRef(reply));
    }
    static void onResponse(void* context, unsigned, MessageItem*)
    {
        PumpPair* self = static_cast<PumpPair*>(context);
        {
            std::lock_guard<std::mutex> guard(self->lock);
            self->replies.fetch_add(1);
        }
        self->answered.notify_one();
    }
    void awaitReplies(unsigned count)
    {
        std::unique_lock<std::mutex> guard(lock);
        answered.wait(guard, [&] { return replies.load() >= count; });
    }
};

} // namespace

// One request and its reply between two pumps of one process: two trips
// through the router queue and its worker thread.
static void BM_PumpToPumpRequestReply(benchmark::State& state)
{
    PumpPair pair;
    const std::string payload(16, 'p');
    unsigned sent = 0;
    for (auto _ : state) {
        pair.client.post(MessageRef(buildRequest(pair.client, "bench/server", payload)));
        pair.awaitReplies(++sent);
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_PumpToPumpRequestReply)->UseRealTime();

// The same with 64 requests outstanding: what the worker sustains when it
// does not have to be woken for every message.
static void BM_PumpToPumpPipelined64(benchmark::State& state)
{
    PumpPair pair;
    const std::string payload(16, 'p');
    unsigned sent = 0;
    for (auto _ : state) {
        for (int i = 0; i < 64; ++i)
            pair.client.post(MessageRef(buildRequest(pair.client, "bench/server", payload)));
        sent += 64;
        pair.awaitReplies(sent);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * 64);
}
BENCHMARK(BM_PumpToPumpPipelined64)->UseRealTime();

BENCHMARK_MAIN();
