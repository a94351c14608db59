// ipc_raw: one side of the two-process benchmark over the bare FIFO pair: the same frames as
// ipc_plain (ipc_fifo.h), blocking reads and writes, no threads (command line and result line:
// ipc_common.h).
//
// rpc: the caller writes a request frame and blocks reading the response; the peer reads one
// whole frame at a time (header, then the rest) and writes the response.
// stream: the caller writes its frames with blocking writes; the peer reads 64 KiB blocks,
// counts every whole frame and answers the fin frame with its count.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ipc_common.h"
#include "ipc_fifo.h"

namespace {

using namespace ipcbench;

const char kProgram[] = "raw";

void OnAlarm(int) {}

// Blocking opens wait for the other end; SIGALRM (without SA_RESTART) bounds the wait.
void ArmOpenBound() {
    struct sigaction sa {};
    sa.sa_handler = OnAlarm;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(SIGALRM, &sa, nullptr);
    alarm((kOpenTimeoutMs + 999) / 1000);
}

int OpenOrReport(const std::string& path, int flags, const char* who) {
    int fd = open(path.c_str(), flags);
    if (fd < 0) {
        fprintf(stderr, "ipc_raw %s: open %s: %s\n", who, path.c_str(),
                errno == EINTR ? "no other end in time" : strerror(errno));
    }
    return fd;
}

// Reads one whole frame into `frame` (kMaxFrame bytes): 1 with a frame, 0 at end of file
// before it, -1 on any error (reported).
int ReadOneFrame(int fd, uint8_t* frame, FrameView& view, const char* who) {
    ssize_t n = ReadFull(fd, frame, kHeaderSize);
    if (n == 0) return 0;
    std::string why;
    if (n < 0) {
        fprintf(stderr, "ipc_raw %s: read: %s\n", who, strerror(static_cast<int>(-n)));
        return -1;
    }
    if (CheckHeader(frame, kHeaderSize, view, why) != FrameStatus::kOk) {
        fprintf(stderr, "ipc_raw %s: %s\n", who, why.c_str());
        return -1;
    }
    n = ReadFull(fd, frame + kHeaderSize, view.size - kHeaderSize);
    if (n <= 0) {
        fprintf(stderr, "ipc_raw %s: read: %s\n", who,
                n == 0 ? "end of file inside a frame" : strerror(static_cast<int>(-n)));
        return -1;
    }
    if (ParseFrame(frame, view.size, view, why) != FrameStatus::kOk) {
        fprintf(stderr, "ipc_raw %s: %s\n", who, why.c_str());
        return -1;
    }
    return 1;
}

int ServeRpc(int readFd, int writeFd, const Options& opt) {
    std::vector<uint8_t> in(kMaxFrame);
    std::vector<uint8_t> out(kMaxFrame);
    std::vector<uint8_t> reply(kMaxPayload, 0x5A);  // the answer's payload, prepared once
    int errors = 0;
    for (;;) {
        FrameView req;
        int got = ReadOneFrame(readFd, in.data(), req, "peer");
        if (got == 0) return errors;
        if (got < 0) return errors + 1;
        if (req.type != kTypeRequest || req.len != opt.size) errors++;
        size_t n = BuildFrame(out.data(), req.id, kTypeResponse, reply.data(), req.len, -1);
        int ret = WriteAll(writeFd, out.data(), n);
        if (ret != 0) {
            fprintf(stderr, "ipc_raw peer: write: %s\n", strerror(-ret));
            return errors + 1;
        }
    }
}

int ServeStream(int readFd, int writeFd, const Options& opt) {
    std::vector<uint8_t> buf(kReadBufferSize);
    std::vector<uint8_t> out(kMaxFrame);
    StreamCounter counter(opt.size);
    size_t have = 0;
    int errors = 0;
    for (;;) {
        ssize_t got = read(readFd, buf.data() + have, buf.size() - have);
        if (got < 0) {
            if (errno == EINTR) continue;
            fprintf(stderr, "ipc_raw peer: read: %s\n", strerror(errno));
            return errors + 1;
        }
        if (got == 0) {
            if (have != 0) fprintf(stderr, "ipc_raw peer: end of file inside a frame\n");
            return errors + (have != 0 ? 1 : 0);
        }
        have += static_cast<size_t>(got);
        std::string why;
        size_t used = ParseFrames(
            buf.data(), have,
            [&](const FrameView& frame) {
                if (frame.type != kTypeRequest) errors++;
                if (!counter.Take(frame.payload, frame.len)) return true;
                uint8_t counts[StreamCounter::kReplySize];
                counter.Reply(counts);
                size_t n =
                    BuildFrame(out.data(), frame.id, kTypeResponse, counts, sizeof(counts), -1);
                int ret = WriteAll(writeFd, out.data(), n);
                if (ret != 0) {
                    fprintf(stderr, "ipc_raw peer: write: %s\n", strerror(-ret));
                    errors++;
                }
                return true;
            },
            why);
        if (!why.empty()) {
            fprintf(stderr, "ipc_raw peer: %s\n", why.c_str());
            return errors + 1;
        }
        memmove(buf.data(), buf.data() + used, have - used);
        have -= used;
    }
}

int RunPeer(const Options& opt) {
    const std::string in = FifoPath(opt.peer, opt.self);
    const std::string out = FifoPath(opt.self, opt.peer);
    FifoPair files(in, out, "ipc_raw");  // removed when the peer returns
    if (!files.Made()) return 1;
    ArmOpenBound();
    int readFd = OpenOrReport(in, O_RDONLY | O_CLOEXEC, "peer");
    int writeFd = readFd < 0 ? -1 : OpenOrReport(out, O_WRONLY | O_CLOEXEC, "peer");
    alarm(0);
    if (writeFd < 0) {
        if (readFd >= 0) close(readFd);
        return 1;
    }
    int errors =
        opt.mode == Mode::kRpc ? ServeRpc(readFd, writeFd, opt) : ServeStream(readFd, writeFd, opt);
    close(writeFd);
    close(readFd);
    return errors == 0 ? 0 : 1;
}

// One request and its response; 0 or a negative errno (-EPROTO for a wrong answer).
int Call(int readFd, int writeFd, uint32_t id, const uint8_t* payload, uint32_t len,
         int32_t timeoutMs, uint8_t* out, uint8_t* in, FrameView& rsp) {
    size_t n = BuildFrame(out, id, kTypeRequest, payload, len, timeoutMs);
    int ret = WriteAll(writeFd, out, n);
    if (ret != 0) return ret;
    int got = ReadOneFrame(readFd, in, rsp, "caller");
    if (got <= 0) return got == 0 ? -EPIPE : -EPROTO;
    return rsp.type == kTypeResponse && rsp.id == id ? 0 : -EPROTO;
}

void RunRpc(int readFd, int writeFd, const Options& opt, RpcOutcome& out) {
    std::vector<uint8_t> payload;
    FillPayload(payload, opt.size);
    std::vector<uint8_t> txFrame(kMaxFrame);
    std::vector<uint8_t> rxFrame(kMaxFrame);
    uint32_t nextId = 1;
    RunRpcLoop(
        "ipc_raw", opt,
        [&](uint64_t seq, uint32_t& answerSize) {
            PutSeq(payload.data(), seq);
            FrameView rsp;
            int ret = Call(readFd, writeFd, nextId++, payload.data(), opt.size, kRpcTimeoutMs,
                           txFrame.data(), rxFrame.data(), rsp);
            answerSize = rsp.len;
            return ret;
        },
        out);
}

void RunStream(int readFd, int writeFd, const Options& opt, StreamOutcome& out) {
    std::vector<uint8_t> txFrame(kMaxFrame);
    std::vector<uint8_t> rxFrame(kMaxFrame);
    RunStreamLoop(
        "ipc_raw", opt,
        [&](uint64_t seq, const uint8_t* payload, uint64_t&) {
            size_t n = BuildFrame(txFrame.data(), static_cast<uint32_t>(seq), kTypeRequest, payload,
                                  opt.size, -1);
            return WriteAll(writeFd, txFrame.data(), n);
        },
        [&](const uint8_t* payload, FinReport& report, uint64_t&) {
            FrameView rsp;
            int ret = Call(readFd, writeFd, 0xFFFFFFFFu, payload, opt.size, kFinTimeoutMs,
                           txFrame.data(), rxFrame.data(), rsp);
            if (ret == 0 && !ParseFinReply(rsp.payload, rsp.len, report)) ret = -EPROTO;
            return ret;
        },
        out);
}

int RunCaller(const Options& opt) {
    const std::string out = FifoPath(opt.self, opt.peer);
    const std::string in = FifoPath(opt.peer, opt.self);
    RpcOutcome rpc;
    StreamOutcome stream;
    int readFd = -1;
    int writeFd = -1;
    if (WaitForFile(out, kOpenTimeoutMs) && WaitForFile(in, kOpenTimeoutMs)) {
        ArmOpenBound();
        writeFd = OpenOrReport(out, O_WRONLY | O_CLOEXEC, "caller");
        readFd = writeFd < 0 ? -1 : OpenOrReport(in, O_RDONLY | O_CLOEXEC, "caller");
        alarm(0);
    } else {
        fprintf(stderr, "ipc_raw caller: the peer's FIFOs did not appear\n");
    }
    if (readFd < 0) {
        rpc.error = stream.error = "open";
    } else if (opt.mode == Mode::kRpc) {
        RunRpc(readFd, writeFd, opt, rpc);
    } else {
        RunStream(readFd, writeFd, opt, stream);
    }
    if (writeFd >= 0) close(writeFd);
    if (readFd >= 0) close(readFd);
    return FinishCaller(kProgram, opt, rpc, stream);
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    return RunProgram(argc, argv, "ipc_raw", RunPeer, RunCaller);
}
