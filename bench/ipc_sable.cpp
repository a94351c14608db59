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

// The pipe between the two names: the peer creates it, the caller joins it.
SabloAttr PipeAttr(const Options& opt, SabloMode mode) {
    SabloAttr attr;
    attr.targetName = opt.peer.c_str();
    attr.selfName = opt.self.c_str();
    attr.mode = mode;
    attr.priority = SABLO_PRIORITY_DEFAULT;
    attr.timeout = kOpenTimeoutMs;
    return attr;
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
    SabloAttr attr = PipeAttr(opt, SABLO_MODE_CREATE);
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
    RunStreamLoop(
        "ipc_sable", opt,
        [&](uint64_t seq, const uint8_t* payload, uint64_t& retries) {
            SabloRequest req{static_cast<uint32_t>(seq), const_cast<uint8_t*>(payload), opt.size};
            return RetryFull([&] { return SabloSendRequest(fd, &req); }, &retries);
        },
        [&](const uint8_t* payload, FinReport& report, uint64_t& retries) {
            SabloRequest fin{0, const_cast<uint8_t*>(payload), opt.size};
            SabloResponse rsp{};
            // The fin meets the FIFO the stream has just filled: a full FIFO fails the RPC's
            // send at once with -EAGAIN (the time-out covers only the wait for the answer), so
            // it is retried like every other send.
            int ret = RetryFull([&] { return SabloTimedRPCSync(fd, &fin, &rsp, kFinTimeoutMs); },
                                &retries);
            if (ret == 0 && !ParseFinReply(rsp.data, rsp.size, report)) ret = -EPROTO;
            DestroyResponse(&rsp);
            return ret;
        },
        out);
}

int RunCaller(const Options& opt) {
    SabloAttr attr = PipeAttr(opt, SABLO_MODE_JOIN);
    RpcOutcome rpc;
    StreamOutcome stream;
    int fd = SabloOpen(&attr);
    if (fd < 0) {
        fprintf(stderr, "ipc_sable caller: SabloOpen: %s\n", strerror(-fd));
        rpc.error = stream.error = "open";
    } else {
        if (opt.mode == Mode::kRpc) {
            RunRpc(fd, opt, rpc);
        } else {
            RunStream(fd, opt, stream);
        }
        SabloClosePipe(fd);
    }
    return FinishCaller(kProgram, opt, rpc, stream);
}

}  // namespace

int main(int argc, char** argv) {
    return RunProgram(argc, argv, "ipc_sable", RunPeer, RunCaller);
}
