// Drives pipes without the process-wide table: an observer that forwards to a real callback
// pool (over a small worker pool) and a real receive monitor, pipe numbers set by hand, names
// that carry the pid, and recorders for what the request callbacks see.
#ifndef SABLE_TESTS_PIPE_PIPE_RIG_H
#define SABLE_TESTS_PIPE_PIPE_RIG_H

#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TestEnv.h"
#include "monitor/DataMonitorImpl.h"
#include "pipe/Message.h"
#include "pipe/SablePipeImpl.h"
#include "pool/CallbackPool.h"
#include "pool/WorkerPool.h"
#include "sable_comm.h"
#include "table/PipeObserver.h"

namespace pipe_test {

// Index of the monitor's exit eventfd; pipe numbers handed out by a rig stay far below it.
constexpr int kEventIdx = 900000;

// Forwards like the pipe table does and counts every report. With `watch` false the read end
// is not put on the monitor, so nothing in this process reads it.
class TestObserver : public PipeObserver {
  public:
    TestObserver(CallbackPool& callbacks, DataMonitorImpl& receiver, bool watchReads)
        : pool(callbacks), monitor(receiver), watch(watchReads) {}

    int OnRequestIn(std::string workerKey, const std::function<void()>& task,
                    SabloPriority priority) const override {
        requestsIn++;
        return pool.DropTo(workerKey, task, priority);
    }
    int OnAsyncRequestIn(const std::function<void()>& task, SabloPriority priority) const override {
        asyncIn++;
        return pool.DropAsyncTask(task, priority);
    }
    int OnPipeOpened(int readFd, int fd, std::shared_ptr<SablePipeImpl> pipe) override {
        opened++;
        return watch ? monitor.Add(fd, readFd, pipe) : 0;
    }
    void OnOpenFailed(int /*fd*/) override { openFailed++; }
    void OnPipeRemoteClosed(int fd) override {
        remoteClosed++;
        if (removeOnRemoteClose) {
            monitor.Remove(fd);
        }
    }
    int OnFreeSelfWorker(std::string workerKey) override {
        freedWorkers++;
        return pool.FreeWorker(workerKey);
    }

    mutable std::atomic<int> requestsIn{0};
    mutable std::atomic<int> asyncIn{0};
    std::atomic<int> opened{0};
    std::atomic<int> openFailed{0};
    std::atomic<int> remoteClosed{0};
    std::atomic<int> freedWorkers{0};
    // As the table does: stop receiving for a pipe whose remote has gone.
    std::atomic<bool> removeOnRemoteClose{true};

  private:
    CallbackPool& pool;
    DataMonitorImpl& monitor;
    const bool watch;
};

// What one request callback saw.
struct Seen {
    int fd;
    bool isNull;
    uint32_t id;
    std::vector<uint8_t> data;
    std::thread::id thread;
};

// A request callback that records every call. The callbacks share the record, so they stay
// safe when the Recorder goes before the pipes that call them.
class Recorder {
  public:
    SabloCallback Callback() {
        return [st = state](int fd, SabloRequest* req) {
            Seen s{fd, req == nullptr, req ? req->id : 0, {}, std::this_thread::get_id()};
            if (req != nullptr) s.data.assign(req->data, req->data + req->size);
            std::lock_guard<std::mutex> lock(st->mu);
            st->seen.push_back(std::move(s));
            st->cv.notify_all();
        };
    }
    std::vector<Seen> Snapshot() {
        std::lock_guard<std::mutex> lock(state->mu);
        return state->seen;
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(state->mu);
        return state->seen.size();
    }
    bool WaitForCount(size_t n, int timeoutMs = 10000) {
        std::unique_lock<std::mutex> lock(state->mu);
        return state->cv.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return state->seen.size() >= n; });
    }

  private:
    struct State {
        std::mutex mu;
        std::condition_variable cv;
        std::vector<Seen> seen;
    };
    std::shared_ptr<State> state = std::make_shared<State>();
};

// A pipe that a callback can reach once it exists.
class PipeRef {
  public:
    void Set(const std::shared_ptr<SablePipeImpl>& p) {
        std::lock_guard<std::mutex> lock(mu);
        pipe = p;
    }
    std::shared_ptr<SablePipeImpl> Get() {
        std::lock_guard<std::mutex> lock(mu);
        return pipe.lock();
    }

  private:
    std::mutex mu;
    std::weak_ptr<SablePipeImpl> pipe;
};

// A callback that answers every request on `ref`'s pipe with the same payload.
inline SabloCallback EchoCallback(std::shared_ptr<PipeRef> ref) {
    return [ref](int, SabloRequest* req) {
        if (req == nullptr) return;
        if (auto p = ref->Get()) {
            SabloResponse rsp{req->id, req->data, req->size};
            p->Send(rsp);
        }
    };
}

// Blocks callbacks until let through. Destroying the Gate lets every callback through for
// good (so that no worker stays blocked when a test ends early); the callbacks share its state.
class Gate {
  public:
    ~Gate() { OpenAll(); }
    // A request callback that waits at the gate.
    SabloCallback Callback() {
        return [st = state](int, SabloRequest*) { st->Pass(); };
    }
    // Lets `n` blocked (or later) callbacks through.
    void Release(int n = 1) {
        std::lock_guard<std::mutex> lock(state->mu);
        state->tickets += n;
        state->cv.notify_all();
    }
    void OpenAll() {
        std::lock_guard<std::mutex> lock(state->mu);
        state->open = true;
        state->cv.notify_all();
    }
    bool WaitEntered(int n, int timeoutMs = 10000) { return WaitFor(state->entered, n, timeoutMs); }
    bool WaitLeft(int n, int timeoutMs = 10000) { return WaitFor(state->left, n, timeoutMs); }
    int Entered() {
        std::lock_guard<std::mutex> lock(state->mu);
        return state->entered;
    }

  private:
    struct State {
        void Pass() {
            std::unique_lock<std::mutex> lock(mu);
            entered++;
            cv.notify_all();
            cv.wait(lock, [&] { return open || tickets > 0; });
            if (!open) tickets--;
            left++;
            cv.notify_all();
        }
        std::mutex mu;
        std::condition_variable cv;
        int entered = 0;
        int left = 0;
        int tickets = 0;
        bool open = false;
    };
    bool WaitFor(int& counter, int n, int timeoutMs) {
        std::unique_lock<std::mutex> lock(state->mu);
        return state->cv.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return counter >= n; });
    }
    std::shared_ptr<State> state = std::make_shared<State>();
};

struct EndSpec {
    std::string self;
    std::string remote;
    SabloMode mode = SABLO_MODE_JOIN;
    int timeout = 0;
    SabloCallback callback;
    bool isConcur = false;
    bool watch = true;  // put the read end on the rig's monitor
};

// Pools, monitor and observers for the pipes of one test. Teardown closes every pipe it made,
// stops the monitor and the pools, and checks that no FIFO of the test is left behind.
class PipeRig {
  public:
    explicit PipeRig(uint32_t workers = 32, uint32_t urgent = 4)
        : tag(sable_test::UniqueName("pt") + "_"),
          workerPool(std::make_shared<WorkerPool>(workers, urgent)),
          callbacks(workerPool),
          observer(callbacks, monitor, true),
          unwatched(callbacks, monitor, false) {
        sable_test::EnsureFifoDir();
        EXPECT_EQ(monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT), 0);
    }
    // The monitor stops first, so that closing the pipes here notifies no callback of a
    // remote close (a test's own state may be gone by now); running callbacks are waited for.
    ~PipeRig() {
        monitor.Destroy();
        callbacks.Destroy();
        for (auto& p : pipes) p->DeInitPipe();
        pipes.clear();
        EXPECT_TRUE(sable_test::FifoFilesWith(tag).empty()) << "FIFO left behind for " << tag;
    }
    PipeRig(const PipeRig&) = delete;
    PipeRig& operator=(const PipeRig&) = delete;

    // A name of this test: the pid and a counter, then `suffix`.
    std::string Name(const std::string& suffix) const { return tag + suffix; }

    std::shared_ptr<SablePipeImpl> Make(const EndSpec& end) {
        SabloAttr attr;
        attr.targetName = end.remote.c_str();
        attr.selfName = end.self.c_str();
        attr.callback = end.callback;
        attr.timeout = end.timeout;
        attr.mode = end.mode;
        attr.priority = SABLO_PRIORITY_DEFAULT;
        attr.isConcur = end.isConcur;
        auto pipe = std::make_shared<SablePipeImpl>(attr, end.watch ? observer : unwatched);
        pipe->SetFd(nextFd++);
        pipes.push_back(pipe);
        return pipe;
    }

    // Opens "a" (creating end, timeout 0: no half-second write-end retry) and "b" (joining
    // end) to each other; frames flow once each end has sent its first one.
    void OpenPair(EndSpec a, EndSpec b, std::shared_ptr<SablePipeImpl>& pa,
                  std::shared_ptr<SablePipeImpl>& pb) {
        a.self = Name("a");
        a.remote = Name("b");
        a.mode = SABLO_MODE_CREATE;
        b.self = Name("b");
        b.remote = Name("a");
        b.mode = SABLO_MODE_JOIN;
        if (b.timeout == 0) b.timeout = 5000;
        pa = Make(a);
        pb = Make(b);
        ASSERT_EQ(pa->TimedOpen(a.timeout), 0);
        ASSERT_EQ(pb->TimedOpen(b.timeout), 0);
    }

    // Waits until `pipe` has given up both descriptors and no FIFO of this test is left. (A
    // close marks the pipe closed first and then releases what it holds.)
    bool WaitClosed(const SablePipeImpl& pipe, int timeoutMs = 10000) const {
        return sable_test::WaitUntil(
            [&] {
                return pipe.GetCloseFdAction() == -1 && pipe.GetReadFd() < 0 &&
                       pipe.GetWriteFd() < 0 && sable_test::FifoFilesWith(tag).empty();
            },
            timeoutMs);
    }

    const std::string tag;
    std::shared_ptr<WorkerPool> workerPool;
    CallbackPool callbacks;
    DataMonitorImpl monitor;
    TestObserver observer;
    TestObserver unwatched;

  private:
    int nextFd = 1;
    std::vector<std::shared_ptr<SablePipeImpl>> pipes;
};

// A request carrying `size` bytes that encode `seed`.
struct Payload {
    Payload(uint32_t seed, uint32_t size) : bytes(size) {
        for (uint32_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed * 31 + i);
    }
    SabloRequest Request(uint32_t id = 0) { return {id, bytes.data(), Size()}; }
    uint32_t Size() const { return static_cast<uint32_t>(bytes.size()); }
    std::vector<uint8_t> bytes;
};

// Send that waits (bounded) while the FIFO is full, for tests that outrun their reader.
inline int SendPatiently(SablePipeImpl& pipe, const SabloRequest& req) {
    int ret = 0;
    for (int i = 0; i < 20000; ++i) {
        if ((ret = pipe.Send(req, 100)) != -EAGAIN) break;
        std::this_thread::sleep_for(std::chrono::microseconds(250));
    }
    return ret;
}

// Threads of this process whose name is `name`.
inline int ThreadsNamed(const std::string& name) {
    int n = 0;
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr) return -1;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string line;
        std::getline(comm, line);
        if (line == name) n++;
    }
    closedir(d);
    return n;
}

}  // namespace pipe_test

#endif
