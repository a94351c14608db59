// Micro-benchmarks of the hot paths: framing, the logger's door, and a synchronous round trip
// over real FIFOs between two pipes of one process. Run: build/bench/sable_bench
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "log/NuxSyslog.h"
#include "pipe/Message.h"
#include "pipe/MessageFrame.h"
#include "sable_comm.h"

namespace {

void BM_BuildFrame(benchmark::State& state) {
    std::vector<uint8_t> payload(static_cast<size_t>(state.range(0)), 0xAB);
    SabloRequest req{1, payload.data(), static_cast<uint32_t>(payload.size())};
    for (auto _ : state) {
        OutMessage msg(1, req, -1);
        std::unique_ptr<char[]> buf;
        size_t len = 0;
        benchmark::DoNotOptimize(BuildFrame(msg, buf, len));
        benchmark::DoNotOptimize(buf.get());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_BuildFrame)->Arg(64)->Arg(4000);

// What an info line costs on a hot path: nothing should be formatted or locked.
void BM_LogDroppedInfo(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        NuxSyslog(LOG_SABLECOMM, LOG_INFO, __LINE__, "bench.cpp", "value %d\n", ++i);
    }
}
BENCHMARK(BM_LogDroppedInfo);

// A restrained site that has already printed: key, hash and table lookup only.
void BM_LogRestrainedSuppressed(benchmark::State& state) {
    for (auto _ : state) {
        NuxSyslog(LOG_SABLECOMM_RESTRAINED, LOG_ERR, __LINE__, "bench.cpp", "again\n");
    }
}
BENCHMARK(BM_LogRestrainedSuppressed);

void Echo(int fd, SabloRequest* req) {
    if (req == nullptr) return;
    SabloResponse rsp{req->id, req->data, req->size};
    SabloSendResponse(fd, &rsp);
}

int OpenEnd(const std::string& self, const std::string& target, SabloMode mode) {
    SabloAttr attr;
    attr.selfName = self.c_str();
    attr.targetName = target.c_str();
    attr.mode = mode;
    attr.timeout = 0;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.callback = Echo;
    return SabloOpen(&attr);
}

// Synchronous request and response between two pipes of this process: two FIFO writes, two
// receive-thread wake-ups, one worker hand-off and the caller's wake-up.
void BM_RpcRoundTrip(benchmark::State& state) {
    mkdir("/dev/shm/nux", 0777);
    mkdir("/dev/shm/nux/sable_comm", 0777);
    std::string a = "bench_srv_" + std::to_string(getpid());
    std::string b = "bench_cli_" + std::to_string(getpid());
    int server = OpenEnd(a, b, SABLO_MODE_CREATE);
    int client = OpenEnd(b, a, SABLO_MODE_JOIN);
    if (server < 0 || client < 0) {
        state.SkipWithError("open failed");
        return;
    }
    std::vector<uint8_t> payload(static_cast<size_t>(state.range(0)), 0x5A);
    for (auto _ : state) {
        SabloRequest req{0, payload.data(), static_cast<uint32_t>(payload.size())};
        SabloResponse rsp{};
        if (SabloTimedRPCSync(client, &req, &rsp, 1000) != 0) {
            state.SkipWithError("rpc failed");
            break;
        }
        DestroyResponse(&rsp);
    }
    SabloClosePipe(client);
    SabloClosePipe(server);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RpcRoundTrip)->Arg(64)->Arg(4000)->UseRealTime();

long RssKb() {
    struct rusage ru {};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_maxrss;
}

// Memory held per open pipe pair (both ends in this process), as peak RSS growth.
void BM_OpenPipePairs(benchmark::State& state) {
    const int pairs = static_cast<int>(state.range(0));
    for (auto _ : state) {
        long before = RssKb();
        std::vector<int> fds;
        for (int i = 0; i < pairs; ++i) {
            std::string a = "bm_a" + std::to_string(getpid()) + "_" + std::to_string(i);
            std::string b = "bm_b" + std::to_string(getpid()) + "_" + std::to_string(i);
            fds.push_back(OpenEnd(a, b, SABLO_MODE_CREATE));
            fds.push_back(OpenEnd(b, a, SABLO_MODE_JOIN));
        }
        state.counters["rss_kb_per_pair"] =
            static_cast<double>(RssKb() - before) / static_cast<double>(pairs);
        for (int fd : fds) SabloClosePipe(fd);
    }
}
BENCHMARK(BM_OpenPipePairs)->Arg(100)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
