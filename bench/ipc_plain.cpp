// ipc_plain: one side of the two-process benchmark as a plain program of the library's own
// architecture, without the library (command line and result line: ipc_common.h; frames and
// FIFOs: ipc_fifo.h).
//
// Each side has one receive thread and one worker thread. The receive thread waits on its read
// FIFO with epoll, makes one non-blocking read per wake-up into a 64 KiB buffer and checks every
// whole frame in it (a partial frame waits for the next read). A request goes to the worker as
// a task through a mutex + condition variable queue; the worker runs the request callback, which
// writes the answer. A response goes straight to the caller thread waiting for it. Writes are
// non-blocking, one write per frame; a full FIFO yields and retries. A round trip thus crosses
// four threads: caller -> peer receive thread -> peer worker -> caller receive thread -> caller.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipc_common.h"
#include "ipc_fifo.h"

namespace {

using namespace ipcbench;

const char kProgram[] = "plain";

struct Task {
    uint32_t id = 0;
    std::vector<uint8_t> payload;
};

class Endpoint {
  public:
    explicit Endpoint(const char* who) : who_(who) {}
    ~Endpoint() { Stop(); }

    // Read end already open: starts the receive thread.
    bool StartReceiver(int readFd) {
        readFd_ = readFd;
        stopFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        epollFd_ = epoll_create1(EPOLL_CLOEXEC);
        if (stopFd_ < 0 || epollFd_ < 0) return Fail("eventfd/epoll_create1", errno);
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = readFd_;
        if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, readFd_, &ev) != 0) return Fail("epoll_ctl", errno);
        ev.data.fd = stopFd_;
        if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, stopFd_, &ev) != 0) return Fail("epoll_ctl", errno);
        receiver_ = std::thread([this] { ReceiveLoop(); });
        return true;
    }

    // Write end already open: starts the worker that runs `callback` for every request.
    void StartWorker(int writeFd, std::function<void(Task&)> callback) {
        writeFd_ = writeFd;
        callback_ = std::move(callback);
        worker_ = std::thread([this] { WorkerLoop(); });
    }

    // Stops the receive thread, lets the worker finish the queued tasks, joins both.
    void Stop() {
        if (receiver_.joinable()) {
            uint64_t one = 1;
            ssize_t n = write(stopFd_, &one, sizeof(one));
            (void)n;
            receiver_.join();
        }
        if (worker_.joinable()) {
            {
                std::lock_guard<std::mutex> lock(queueMu_);
                stopping_ = true;
            }
            queueCv_.notify_one();
            worker_.join();
        }
        if (epollFd_ >= 0) close(epollFd_);
        if (stopFd_ >= 0) close(stopFd_);
        epollFd_ = stopFd_ = -1;
    }

    // Waits until the other side has closed its write end, at most `seconds`.
    bool WaitClosed(int seconds) {
        std::unique_lock<std::mutex> lock(waitMu_);
        return waitCv_.wait_for(lock, std::chrono::seconds(seconds), [&] { return closed_; });
    }

    // Sends a request and waits for its response: 0, -ETIMEDOUT, -EPIPE (the other side has
    // gone) or the write's error. `frame` holds kMaxFrame bytes; a full FIFO is retried (and
    // counted in `retries` when given) as every send is.
    int Call(uint32_t id, const uint8_t* payload, uint32_t len, int timeoutMs, uint8_t* frame,
             std::vector<uint8_t>& answer, uint64_t* retries) {
        {
            std::lock_guard<std::mutex> lock(waitMu_);
            if (closed_) return -EPIPE;
            waitId_ = id;
            waiting_ = true;
            answered_ = false;
        }
        size_t n = BuildFrame(frame, id, kTypeRequest, payload, len, timeoutMs);
        int ret = WriteFrameRetry(writeFd_, frame, n, retries);
        std::unique_lock<std::mutex> lock(waitMu_);
        if (ret == 0) {
            waitCv_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return answered_ || closed_; });
            ret = answered_ ? 0 : closed_ ? -EPIPE : -ETIMEDOUT;
        }
        waiting_ = false;
        if (ret == 0) answer.swap(answer_);
        return ret;
    }

    int writeFd() const { return writeFd_; }
    uint64_t errors() const { return errors_.load(); }
    void CountError() { errors_++; }

  private:
    bool Fail(const char* what, int err) {
        fprintf(stderr, "ipc_plain %s: %s: %s\n", who_, what, strerror(err));
        errors_++;
        return false;
    }

    void MarkClosed() {
        {
            std::lock_guard<std::mutex> lock(waitMu_);
            closed_ = true;
        }
        waitCv_.notify_all();
    }

    void ReceiveLoop() {
        std::vector<uint8_t> buf(kReadBufferSize);
        size_t have = 0;
        epoll_event events[2];
        for (;;) {
            int n = epoll_wait(epollFd_, events, 2, -1);
            if (n < 0) {
                if (errno == EINTR) continue;
                Fail("epoll_wait", errno);
                break;
            }
            bool readable = false;
            bool stop = false;
            for (int i = 0; i < n; ++i) {
                if (events[i].data.fd == stopFd_) {
                    stop = true;
                } else {
                    readable = true;
                }
            }
            if (stop) break;
            if (!readable) continue;
            ssize_t got = read(readFd_, buf.data() + have, buf.size() - have);
            if (got < 0) {
                if (errno == EAGAIN || errno == EINTR) continue;
                Fail("read", errno);
                break;
            }
            if (got == 0) {  // every writer has gone
                if (have != 0) Fail("end of file inside a frame", EIO);
                break;
            }
            have += static_cast<size_t>(got);
            std::string why;
            size_t used = ParseFrames(
                buf.data(), have,
                [this](const FrameView& frame) {
                    Dispatch(frame);
                    return true;
                },
                why);
            if (!why.empty()) {
                fprintf(stderr, "ipc_plain %s: %s\n", who_, why.c_str());
                errors_++;
                break;
            }
            if (used != 0) {
                memmove(buf.data(), buf.data() + used, have - used);
                have -= used;
            }
        }
        MarkClosed();
    }

    void Dispatch(const FrameView& frame) {
        if (frame.type == kTypeRequest) {
            Task task;
            task.id = frame.id;
            task.payload.assign(frame.payload, frame.payload + frame.len);
            {
                std::lock_guard<std::mutex> lock(queueMu_);
                queue_.push_back(std::move(task));
            }
            queueCv_.notify_one();
            return;
        }
        if (frame.type == kTypeResponse) {
            bool match = false;
            {
                std::lock_guard<std::mutex> lock(waitMu_);
                match = waiting_ && !answered_ && frame.id == waitId_;
                if (match) {
                    answer_.assign(frame.payload, frame.payload + frame.len);
                    answered_ = true;
                }
            }
            if (match) {
                waitCv_.notify_one();
            } else {
                fprintf(stderr, "ipc_plain %s: unexpected response id %u\n", who_, frame.id);
                errors_++;
            }
            return;
        }
        fprintf(stderr, "ipc_plain %s: frame of type %u\n", who_, frame.type);
        errors_++;
    }

    void WorkerLoop() {
        for (;;) {
            Task task;
            {
                std::unique_lock<std::mutex> lock(queueMu_);
                queueCv_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
                if (queue_.empty()) return;
                task = std::move(queue_.front());
                queue_.pop_front();
            }
            callback_(task);
        }
    }

    const char* who_;
    int readFd_ = -1;
    int writeFd_ = -1;
    int stopFd_ = -1;
    int epollFd_ = -1;
    std::thread receiver_;
    std::thread worker_;
    std::function<void(Task&)> callback_;
    std::atomic<uint64_t> errors_{0};

    std::mutex queueMu_;
    std::condition_variable queueCv_;
    std::deque<Task> queue_;
    bool stopping_ = false;

    std::mutex waitMu_;
    std::condition_variable waitCv_;
    bool closed_ = false;  // the other side's write end has gone (or the receiver stopped)
    bool waiting_ = false;
    bool answered_ = false;
    uint32_t waitId_ = 0;
    std::vector<uint8_t> answer_;
};

int RunPeer(const Options& opt) {
    const std::string in = FifoPath(opt.peer, opt.self);
    const std::string out = FifoPath(opt.self, opt.peer);
    FifoPair files(in, out, "ipc_plain");  // removed when the peer returns
    if (!files.Made()) return 1;
    int readFd = open(in.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (readFd < 0) {
        fprintf(stderr, "ipc_plain peer: open %s: %s\n", in.c_str(), strerror(errno));
        return 1;
    }
    Endpoint ep("peer");
    if (!ep.StartReceiver(readFd)) {
        return 1;
    }
    int writeFd = OpenRetryNoReader(out, O_WRONLY | O_NONBLOCK | O_CLOEXEC, kOpenTimeoutMs);
    if (writeFd < 0) {
        fprintf(stderr, "ipc_plain peer: open %s: %s\n", out.c_str(), strerror(-writeFd));
        ep.Stop();
        close(readFd);
        return 1;
    }

    std::vector<uint8_t> reply(kMaxPayload, 0x5A);  // the answer's payload, prepared once
    std::vector<uint8_t> frame(kMaxFrame);
    StreamCounter counter(opt.size);  // the worker's alone
    ep.StartWorker(writeFd, [&](Task& task) {
        uint32_t len = static_cast<uint32_t>(task.payload.size());
        size_t n = 0;
        if (opt.mode == Mode::kRpc) {
            if (len != opt.size) ep.CountError();
            n = BuildFrame(frame.data(), task.id, kTypeResponse, reply.data(), len, -1);
        } else {
            if (!counter.Take(task.payload.data(), len)) return;
            uint8_t counts[StreamCounter::kReplySize];
            counter.Reply(counts);
            n = BuildFrame(frame.data(), task.id, kTypeResponse, counts, sizeof(counts), -1);
        }
        int ret = WriteFrameRetry(ep.writeFd(), frame.data(), n, nullptr);
        if (ret != 0) {
            fprintf(stderr, "ipc_plain peer: write: %s\n", strerror(-ret));
            ep.CountError();
        }
    });

    bool gone = ep.WaitClosed(kPeerLifetimeSec);
    if (!gone) fprintf(stderr, "ipc_plain peer: the caller did not leave in time\n");
    ep.Stop();
    close(writeFd);
    close(readFd);
    return gone && ep.errors() == 0 ? 0 : 1;
}

void RunRpc(Endpoint& ep, const Options& opt, RpcOutcome& out) {
    std::vector<uint8_t> payload;
    FillPayload(payload, opt.size);
    std::vector<uint8_t> frame(kMaxFrame);
    std::vector<uint8_t> answer;
    uint32_t nextId = 1;
    RunRpcLoop(
        "ipc_plain", opt,
        [&](uint64_t seq, uint32_t& answerSize) {
            PutSeq(payload.data(), seq);
            int ret = ep.Call(nextId++, payload.data(), opt.size, kRpcTimeoutMs, frame.data(),
                              answer, nullptr);
            answerSize = static_cast<uint32_t>(answer.size());
            return ret;
        },
        out);
}

void RunStream(Endpoint& ep, const Options& opt, StreamOutcome& out) {
    std::vector<uint8_t> frame(kMaxFrame);
    RunStreamLoop(
        "ipc_plain", opt,
        [&](uint64_t seq, const uint8_t* payload, uint64_t& retries) {
            size_t n = BuildFrame(frame.data(), static_cast<uint32_t>(seq), kTypeRequest, payload,
                                  opt.size, -1);
            return WriteFrameRetry(ep.writeFd(), frame.data(), n, &retries);
        },
        [&](const uint8_t* payload, FinReport& report, uint64_t& retries) {
            std::vector<uint8_t> answer;
            int ret = ep.Call(0xFFFFFFFFu, payload, opt.size, kFinTimeoutMs, frame.data(), answer,
                              &retries);
            if (ret == 0 &&
                !ParseFinReply(answer.data(), static_cast<uint32_t>(answer.size()), report)) {
                ret = -EPROTO;
            }
            return ret;
        },
        out);
}

int RunCaller(const Options& opt) {
    const std::string out = FifoPath(opt.self, opt.peer);
    const std::string in = FifoPath(opt.peer, opt.self);
    RpcOutcome rpc;
    StreamOutcome stream;
    auto report = [&](const std::string& error) {
        rpc.error = stream.error = error;
        return FinishCaller(kProgram, opt, rpc, stream);
    };
    uint64_t openStart = NowNs();
    if (!WaitForFile(out, kOpenTimeoutMs) || !WaitForFile(in, kOpenTimeoutMs)) {
        fprintf(stderr, "ipc_plain caller: the peer's FIFOs did not appear\n");
        return report("open");
    }
    int readFd = open(in.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (readFd < 0) {
        fprintf(stderr, "ipc_plain caller: open %s: %s\n", in.c_str(), strerror(errno));
        return report("open");
    }
    Endpoint ep("caller");
    if (!ep.StartReceiver(readFd)) {
        close(readFd);
        return report("open");
    }
    int left = kOpenTimeoutMs - static_cast<int>((NowNs() - openStart) / 1000000ull);
    int writeFd = OpenRetryNoReader(out, O_WRONLY | O_NONBLOCK | O_CLOEXEC, left > 0 ? left : 0);
    if (writeFd < 0) {
        fprintf(stderr, "ipc_plain caller: open %s: %s\n", out.c_str(), strerror(-writeFd));
        ep.Stop();
        close(readFd);
        return report("open");
    }
    ep.StartWorker(writeFd, [&](Task&) {
        fprintf(stderr, "ipc_plain caller: unexpected request\n");
        ep.CountError();
    });

    if (opt.mode == Mode::kRpc) {
        RunRpc(ep, opt, rpc);
    } else {
        RunStream(ep, opt, stream);
    }
    close(writeFd);  // the peer reads the end of file and leaves
    ep.Stop();
    close(readFd);
    if (ep.errors() != 0) {
        if (rpc.error.empty()) rpc.error = "protocol";
        if (stream.error.empty()) stream.error = "protocol";
    }
    return FinishCaller(kProgram, opt, rpc, stream);
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    return RunProgram(argc, argv, "ipc_plain", RunPeer, RunCaller);
}
