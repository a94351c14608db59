// A caller: synchronous RPCs and fire-and-forget requests to the demo service.
//
//   sable_demo_caller pipe   SELF SERVICE COUNT     joins the service's pipe
//   sable_demo_caller client SELF SERVER  COUNT     connects to the service's server
//
// COUNT synchronous RPCs alternate 64- and 4000-byte payloads and check every answer; then
// COUNT asynchronous requests are sent without waiting. Prints the calls made, failures,
// round-trip p50/p99 and the rate; exits non-zero on any failure.
#include <sable_comm.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

void Ignore(int, SabloRequest*) {}

int Usage() {
    fprintf(stderr, "usage: sable_demo_caller pipe|client SELF PEER COUNT\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) return Usage();
    std::string mode = argv[1];
    const int count = atoi(argv[4]);
    SabloAttr attr;
    attr.selfName = argv[2];
    attr.targetName = argv[3];
    attr.mode = SABLO_MODE_JOIN;
    attr.timeout = 10000;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.callback = Ignore;
    int fd = mode == "client" ? SabloCreateClient(&attr) : mode == "pipe" ? SabloOpen(&attr) : -1;
    if (mode != "client" && mode != "pipe") return Usage();
    if (fd < 0) {
        fprintf(stderr, "%s: open failed: %s\n", argv[2], strerror(-fd));
        return 1;
    }

    std::vector<uint8_t> payload(4000);
    std::vector<double> roundTrips;
    roundTrips.reserve(static_cast<size_t>(count));
    int failures = 0;
    auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        uint32_t size = (i % 2 == 0) ? 64 : 4000;
        for (uint32_t b = 0; b < size; ++b) payload[b] = static_cast<uint8_t>(i * 31 + b);
        SabloRequest req{0, payload.data(), size};
        SabloResponse rsp{};
        auto t0 = Clock::now();
        int ret = SabloTimedRPCSync(fd, &req, &rsp, 2000);
        auto t1 = Clock::now();
        if (ret != 0 || rsp.size != size || memcmp(rsp.data, payload.data(), size) != 0) {
            failures++;
        } else {
            roundTrips.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
        }
        DestroyResponse(&rsp);
    }
    double rpcSeconds = std::chrono::duration<double>(Clock::now() - start).count();

    // Fire-and-forget: a full FIFO answers -EAGAIN at once, so back off and retry.
    int asyncSent = 0;
    for (int i = 0; i < count; ++i) {
        uint32_t size = (i % 2 == 0) ? 64 : 4000;
        SabloRequest req{static_cast<uint32_t>(0x80000000u + i), payload.data(), size};
        int ret = -EAGAIN;
        for (int tries = 0; tries < 2000 && ret == -EAGAIN; ++tries) {
            ret = SabloSendRequest(fd, &req);
            if (ret == -EAGAIN) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        if (ret == 0) {
            asyncSent++;
        } else {
            failures++;
        }
    }
    // Let the service answer what it got before the pipe goes.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    SabloClosePipe(fd);

    std::sort(roundTrips.begin(), roundTrips.end());
    auto pct = [&](double p) {
        if (roundTrips.empty()) return 0.0;
        size_t idx = std::min(roundTrips.size() - 1, static_cast<size_t>(p * roundTrips.size()));
        return roundTrips[idx];
    };
    printf(
        "%s (pid %d): %d RPCs + %d async requests, %d failures, round trip p50 %.1f us, "
        "p99 %.1f us, %.0f RPC/s\n",
        argv[2], getpid(), count, asyncSent, failures, pct(0.50), pct(0.99),
        rpcSeconds > 0 ? count / rpcSeconds : 0.0);
    return failures == 0 ? 0 : 1;
}
