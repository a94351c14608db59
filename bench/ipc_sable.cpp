// ipc_sable: one side of the two-process benchmark over the library (command line and result
// line: ipc_common.h). The peer opens the pipe as the creating end and answers from its request
// callback; the caller joins it and makes synchronous RPCs, or streams one-way requests and
// asks for the peer's count with a final RPC.
#include <errno.h>
#include <sable_comm.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "ipc_common.h"

namespace {

using namespace ipcbench;

const char kProgram[] = "sable";

// A full FIFO answers -EAGAIN at once (SabloSendRequest, SabloSendResponse and the send of
// SabloTimedRPCSync alike, which then forgets the request): yield and send the same message
// again, as the baselines do, for at most kStuckSendSec.
template <typename Send>
int RetryFull(Send&& send, uint64_t* retries) {
    uint64_t spins = 0;
    uint64_t deadline = 0;
    for (;;) {
        int ret = send();
        if (ret != -EAGAIN) return ret;
        if (retries != nullptr) (*retries)++;
        if (spins++ == 0) {
            deadline = NowNs() + kStuckSendSec * 1000000000ull;
        } else if ((spins & 1023u) == 0 && NowNs() > deadline) {
            return -ETIMEDOUT;
        }
        sched_yield();
    }
}

struct Peer {
    explicit Peer(const Options& o) : opt(o), counter(o.size), reply(kMaxPayload, 0x5A) {}

    void OnRequest(int fd, SabloRequest* req) {
        if (req == nullptr) {  // the caller has gone; the library closes the pipe after this
            {
                std::lock_guard<std::mutex> lock(goneMu);
                gone = true;
            }
            goneCv.notify_one();
            return;
        }
        if (opt.mode == Mode::kRpc) {
            if (req->size != opt.size) errors++;
            SabloResponse rsp{req->id, reply.data(), req->size};
            Answer(fd, rsp);
            return;
        }
        // The pipe is ordered (not isConcur): its callbacks run one at a time, in order, so
        // the counter needs no lock (as the plain program's single worker needs none).
        uint8_t out[StreamCounter::kReplySize];
        const bool fin = counter.Take(req->data, req->size);
        if (fin) {
            counter.Reply(out);
            SabloResponse rsp{req->id, out, StreamCounter::kReplySize};
            Answer(fd, rsp);
        }
    }

    void Answer(int fd, SabloResponse& rsp) {
        int ret = RetryFull([&] { return SabloSendResponse(fd, &rsp); }, nullptr);
        if (ret != 0) {
            fprintf(stderr, "ipc_sable peer: SabloSendResponse: %s\n", strerror(-ret));
            errors++;
        }
    }

    bool WaitGone() {
        std::unique_lock<std::mutex> lock(goneMu);
        return goneCv.wait_for(lock, std::chrono::seconds(kPeerLifetimeSec), [&] { return gone; });
    }

    const Options opt;
    StreamCounter counter;
    std::vector<uint8_t> reply;  // the answer's payload, prepared once
    std::atomic<uint64_t> errors{0};
    std::mutex goneMu;
    std::condition_variable goneCv;
    bool gone = false;
};

int RunPeer(const Options& opt) {
    // Never freed: a library thread may still be returning from the callback when main returns.
    Peer& peer = *new Peer(opt);
    SabloAttr attr;
    attr.targetName = opt.peer.c_str();
    attr.selfName = opt.self.c_str();
    attr.mode = SABLO_MODE_CREATE;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.timeout = kOpenTimeoutMs;
    attr.callback = [&peer](int fd, SabloRequest* req) { peer.OnRequest(fd, req); };
    int fd = SabloOpen(&attr);
    if (fd < 0) {
        fprintf(stderr, "ipc_sable peer: SabloOpen: %s\n", strerror(-fd));
        return 1;
    }
    bool gone = peer.WaitGone();
    if (!gone) {
        fprintf(stderr, "ipc_sable peer: the caller did not leave within %d s\n", kPeerLifetimeSec);
        SabloClosePipe(fd);
    }
    return gone && peer.errors.load() == 0 ? 0 : 1;
}

void RunRpc(int fd, const Options& opt, RpcOutcome& out) {
    std::vector<uint8_t> payload;
    FillPayload(payload, opt.size);
    RunRpcLoop(
        "ipc_sable", opt,
        [&](uint64_t seq, uint32_t& answerSize) {
            PutSeq(payload.data(), seq);
            SabloRequest req{0, payload.data(), opt.size};
            SabloResponse rsp{};
            int ret = RetryFull([&] { return SabloTimedRPCSync(fd, &req, &rsp, kRpcTimeoutMs); },
                                nullptr);
            answerSize = rsp.data != nullptr ? rsp.size : 0;
            DestroyResponse(&rsp);
            return ret;
        },
        out);
}

void RunStream(int fd, const Options& opt, StreamOutcome& out) {
    std::vector<uint8_t> payload;
    FillPayload(payload, opt.size);
    if (!SyncPoint(opt, "READY")) {
        out.error = "sync";
        return;
    }
    uint64_t start = NowNs();
    for (uint64_t i = 0; i < opt.count; ++i) {
        PutSeq(payload.data(), i);
        SabloRequest req{static_cast<uint32_t>(i), payload.data(), opt.size};
        int ret = RetryFull([&] { return SabloSendRequest(fd, &req); }, &out.retries);
        if (ret != 0) {
            fprintf(stderr, "ipc_sable caller: SabloSendRequest %llu: %s\n",
                    static_cast<unsigned long long>(i), strerror(-ret));
            out.error = "send_errno_" + std::to_string(-ret);
            break;
        }
        out.accepted++;
    }
    PutSeq(payload.data(), kFinSeq);
    SabloRequest fin{0, payload.data(), opt.size};
    SabloResponse rsp{};
    // The fin meets the FIFO the stream has just filled: a full FIFO fails the RPC's send at
    // once with -EAGAIN (the time-out covers only the wait for the answer), so it is retried
    // like every other send.
    int ret =
        RetryFull([&] { return SabloTimedRPCSync(fd, &fin, &rsp, kFinTimeoutMs); }, &out.retries);
    out.elapsedSec = static_cast<double>(NowNs() - start) / 1e9;
    if (ret == 0 && ParseFinReply(rsp.data, rsp.size, out.fin)) {
        out.finOk = true;
    } else {
        fprintf(stderr, "ipc_sable caller: fin RPC: ret %d (%s), response size %u\n", ret,
                ret ? strerror(-ret) : "ok", rsp.size);
        if (out.error.empty()) out.error = "fin";
    }
    DestroyResponse(&rsp);
    if (!SyncPoint(opt, "DONE") && out.error.empty()) out.error = "sync";
}

int RunCaller(const Options& opt) {
    SabloAttr attr;
    attr.targetName = opt.peer.c_str();
    attr.selfName = opt.self.c_str();
    attr.mode = SABLO_MODE_JOIN;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.timeout = kOpenTimeoutMs;
    int fd = SabloOpen(&attr);
    if (fd < 0) {
        fprintf(stderr, "ipc_sable caller: SabloOpen: %s\n", strerror(-fd));
        if (opt.mode == Mode::kRpc) {
            RpcOutcome out;
            out.error = "open";
            PrintRpcResult(kProgram, opt, out);
        } else {
            StreamOutcome out;
            out.error = "open";
            PrintStreamResult(kProgram, opt, out);
        }
        return 1;
    }
    bool ok = false;
    if (opt.mode == Mode::kRpc) {
        RpcOutcome out;
        RunRpc(fd, opt, out);
        SabloClosePipe(fd);
        ok = out.error.empty() && out.failures == 0;
        PrintRpcResult(kProgram, opt, out);
    } else {
        StreamOutcome out;
        RunStream(fd, opt, out);
        SabloClosePipe(fd);
        ok = out.error.empty() && out.finOk;
        PrintStreamResult(kProgram, opt, out);
    }
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    if (!ParseOptions(argc, argv, "ipc_sable", opt)) return 2;
    return opt.role == Role::kPeer ? RunPeer(opt) : RunCaller(opt);
}
