// Drives pipes without the process-wide table: an observer that forwards to a real callback
// pool and a real receive monitor, pipe numbers set by hand, names that carry the pid, and a
// recorder of what the request callbacks see.
#ifndef SABLE_TESTS_PIPE_PIPE_RIG_H
#define SABLE_TESTS_PIPE_PIPE_RIG_H

#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TestEnv.h"
#include "monitor/DataMonitorImpl.h"
#include "pipe/SablePipeImpl.h"
#include "pool/CallbackPool.h"
#include "pool/WorkerPool.h"
#include "sable_comm.h"
#include "table/PipeObserver.h"

namespace pipe_test {

// Index of the monitor's exit eventfd; pipe numbers handed out by a rig stay far below it.
constexpr int kEventIdx = 900000;

// Forwards like the pipe table does, and counts the remote closes it hears of.
class TestObserver : public PipeObserver {
  public:
    TestObserver(CallbackPool& callbacks, DataMonitorImpl& receiver)
        : pool(callbacks), monitor(receiver) {}
    int OnRequestIn(std::string workerKey, const std::function<void()>& task,
                    SabloPriority priority) const override {
        return pool.DropTo(workerKey, task, priority);
    }
    int OnAsyncRequestIn(const std::function<void()>& task, SabloPriority priority) const override {
        return pool.DropAsyncTask(task, priority);
    }
    int OnPipeOpened(int readFd, int fd, std::shared_ptr<SablePipeImpl> pipe) override {
        return monitor.Add(fd, readFd, pipe);
    }
    void OnOpenFailed(int /*fd*/) override {}
    void OnPipeRemoteClosed(int fd) override {
        remoteClosed++;
        monitor.Remove(fd);
    }
    int OnFreeSelfWorker(std::string workerKey) override { return pool.FreeWorker(workerKey); }
    int OnRequestTaskIn(const std::string& workerKey, std::shared_ptr<const SableTask>& task,
                        SabloPriority priority) override {
        return pool.DropTo(workerKey, task, priority);
    }
    void OnPipeResume(int fd, DataMonitorType /*type*/) override { monitor.RequestResume(fd); }

    std::atomic<int> remoteClosed{0};

  private:
    CallbackPool& pool;
    DataMonitorImpl& monitor;
};

// What one request callback saw.
struct Seen {
    int fd;
    bool isNull;
    uint32_t id;
    std::vector<uint8_t> data;
    std::thread::id thread;
};

// A request callback that records every call. A gated recorder then holds each request's
// callback until Release lets it through; destroying the recorder lets every one through, so
// no worker stays blocked when a test ends early. The callbacks share the record, so they stay
// safe when the Recorder goes before the pipes that call them.
class Recorder {
  public:
    explicit Recorder(bool gated = false) { state->tickets = gated ? 0 : kOpen; }
    ~Recorder() { Release(kOpen); }
    SabloCallback Callback() {
        return [st = state](int fd, SabloRequest* req) {
            Seen s{fd, req == nullptr, req ? req->id : 0, {}, std::this_thread::get_id()};
            if (req != nullptr) s.data.assign(req->data, req->data + req->size);
            std::unique_lock<std::mutex> lock(st->mu);
            st->seen.push_back(std::move(s));
            st->cv.notify_all();
            if (req == nullptr) return;
            st->cv.wait(lock, [&] { return st->tickets > 0; });
            st->tickets--;
            st->left++;
            st->cv.notify_all();
        };
    }
    void Release(int64_t n) {
        std::lock_guard<std::mutex> lock(state->mu);
        state->tickets += n;
        state->cv.notify_all();
    }
    std::vector<Seen> Snapshot() {
        std::lock_guard<std::mutex> lock(state->mu);
        return state->seen;
    }
    // Waits until `n` callbacks have been entered (or, with `left`, have returned).
    bool WaitForCount(size_t n, bool left = false, int timeoutMs = 20000) {
        std::unique_lock<std::mutex> lock(state->mu);
        return state->cv.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return (left ? state->left : state->seen.size()) >= n; });
    }

  private:
    static constexpr int64_t kOpen = int64_t{1} << 40;
    struct State {
        std::mutex mu;
        std::condition_variable cv;
        std::vector<Seen> seen;
        int64_t tickets = 0;
        size_t left = 0;
    };
    std::shared_ptr<State> state = std::make_shared<State>();
};

// Pools, monitor and observer for the pipes of one test. Teardown closes every pipe it made,
// stops the monitor and the pools, and checks that no FIFO of the test is left behind.
class PipeRig {
  public:
    explicit PipeRig(uint32_t workers = 32)
        : tag(sable_test::UniqueName("pt") + "_"),
          callbacks(std::make_shared<WorkerPool>(workers, 4)),
          observer(callbacks, monitor) {
        sable_test::EnsureFifoDir();
        EXPECT_EQ(monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT), 0);
    }
    // The monitor stops first, so that closing the pipes here notifies no callback of a
    // remote close (a test's own state may be gone by now); running callbacks are waited for.
    ~PipeRig() {
        monitor.Destroy();
        callbacks.Destroy();
        for (auto& p : pipes) p->DeInitPipe();
        EXPECT_TRUE(sable_test::FifoFilesWith(tag).empty()) << "FIFO left behind for " << tag;
    }

    // A name of this test: the pid and a counter, then `suffix`.
    std::string Name(const std::string& suffix) const { return tag + suffix; }

    std::shared_ptr<SablePipeImpl> Make(const std::string& self, const std::string& remote,
                                        SabloMode mode, int timeout, SabloCallback callback = {},
                                        bool isConcur = false) {
        SabloAttr attr;
        attr.targetName = remote.c_str();
        attr.selfName = self.c_str();
        attr.callback = std::move(callback);
        attr.timeout = timeout;
        attr.mode = mode;
        attr.priority = SABLO_PRIORITY_DEFAULT;
        attr.isConcur = isConcur;
        auto pipe = std::make_shared<SablePipeImpl>(attr, observer);
        pipe->SetFd(nextFd++);
        pipes.push_back(pipe);
        return pipe;
    }

    // Opens "a" (creating end, timeout 0: its write end opens at its first send) and "b"
    // (joining end) to each other.
    void OpenPair(std::shared_ptr<SablePipeImpl>& a, std::shared_ptr<SablePipeImpl>& b,
                  SabloCallback callbackA = {}, SabloCallback callbackB = {},
                  bool concurA = false) {
        a = Make(Name("a"), Name("b"), SABLO_MODE_CREATE, 0, std::move(callbackA), concurA);
        b = Make(Name("b"), Name("a"), SABLO_MODE_JOIN, 5000, std::move(callbackB));
        ASSERT_EQ(a->TimedOpen(0), 0);
        ASSERT_EQ(b->TimedOpen(5000), 0);
    }

    // Waits until `pipe` has given up both descriptors and no FIFO of this test is left. (A
    // close marks the pipe closed first and then releases what it holds.)
    bool WaitClosed(const SablePipeImpl& pipe) const {
        return sable_test::WaitUntil(
            [&] {
                return pipe.GetCloseFdAction() == -1 && pipe.GetReadFd() < 0 &&
                       pipe.GetWriteFd() < 0 && sable_test::FifoFilesWith(tag).empty();
            },
            10000);
    }

    const std::string tag;
    CallbackPool callbacks;
    DataMonitorImpl monitor;
    TestObserver observer;

  private:
    int nextFd = 1;
    std::vector<std::shared_ptr<SablePipeImpl>> pipes;
};

// `size` bytes that encode `seed`, and requests carrying them.
struct Payload {
    Payload(uint32_t seed, uint32_t size) : bytes(size) {
        for (uint32_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed * 31 + i);
    }
    SabloRequest Request(uint32_t id = 0) {
        return {id, bytes.data(), static_cast<uint32_t>(bytes.size())};
    }
    std::vector<uint8_t> bytes;
};

// Records `req` as waiting for its response and sends it: 0 or the error.
inline int Call(SablePipeImpl& pipe, SabloRequest& req, SabloResponse& rsp, int timeoutMs) {
    int ret = pipe.RecordOutRequest(req, rsp, timeoutMs);
    if (ret == 0 && (ret = pipe.Send(req, timeoutMs)) != 0) pipe.RemoveRequest(req);
    return ret;
}

inline std::vector<uint8_t> Bytes(const SabloResponse& rsp) {
    return std::vector<uint8_t>(rsp.data, rsp.data + rsp.size);
}

}  // namespace pipe_test

#endif
