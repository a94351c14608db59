// Helpers of the thread and pool tests: a gate that holds a task, watches on a blocking call,
// scheduling probes, a count of worker threads, and a privilege-dropping child.
#ifndef SABLE_TESTS_POOL_TEST_UTIL_H
#define SABLE_TESTS_POOL_TEST_UTIL_H

#include <dirent.h>
#include <grp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "TestEnv.h"
#include "env/EnvManager.h"
#include "pool/Worker.h"

namespace pool_test {

// Every wait of these tests is bounded by this; a hang shows as a failure, not a time-out.
constexpr int WAIT_MS = 10000;
// How long a call that must block is watched before it is released.
constexpr auto BLOCK_WATCH = std::chrono::milliseconds(100);

// Holds tasks until opened (once); Wait gives up after WAIT_MS.
struct Gate {
    std::promise<void> opened;
    std::shared_future<void> waitable = opened.get_future().share();
    void Open() { opened.set_value(); }
    void Wait() const { waitable.wait_for(std::chrono::milliseconds(WAIT_MS)); }
};

// Whether a call started with std::async is still blocked after BLOCK_WATCH, or ended within
// WAIT_MS.
template <class T>
bool StillBlocked(const std::future<T>& call) {
    return call.wait_for(BLOCK_WATCH) == std::future_status::timeout;
}
template <class T>
bool Ends(const std::future<T>& call) {
    return call.wait_for(std::chrono::milliseconds(WAIT_MS)) == std::future_status::ready;
}

inline int Post(Worker& worker, std::function<void()> fn) {
    Worker::TaskPtr task = std::make_shared<SyncTask>(std::move(fn));
    return worker.Assign(task);
}

// Starts a task on `worker` that holds it until `gate` opens, then runs `after`; true once the
// task runs.
inline bool Occupy(
    Worker& worker, Gate& gate, std::function<void()> after = [] {}) {
    auto held = [&gate, after] {
        gate.Wait();
        after();
    };
    return Post(worker, held) == 0 &&
           sable_test::WaitUntil([&] { return worker.IsWorking(); }, WAIT_MS);
}

// What a probe task saw of the thread it ran on; policy -1 when it did not run.
struct Seen {
    int policy = -1;
    int priority = -1;
    std::string name;
    pid_t tid = -1;  // filled for the calling thread only
};

inline Seen SeenOf(pthread_t thread) {
    Seen s;
    struct sched_param param = {};
    if (pthread_getschedparam(thread, &s.policy, &param) == 0) s.priority = param.sched_priority;
    char name[17] = {};
    pthread_getname_np(thread, name, sizeof(name));
    s.name = name;
    return s;
}

// Hands a probe to `drop` (0 when it took it) and waits for it to run.
inline Seen SeenBy(const std::function<int(std::function<void()>)>& drop) {
    auto seen = std::make_shared<std::promise<Seen>>();
    std::future<Seen> result = seen->get_future();
    if (drop([seen] {
            Seen s = SeenOf(pthread_self());
            s.tid = gettid();
            seen->set_value(s);
        }) != 0 ||
        result.wait_for(std::chrono::milliseconds(WAIT_MS)) != std::future_status::ready) {
        return {};
    }
    return result.get();
}

inline int SetSelf(int policy, int priority) {
    struct sched_param param = {};
    param.sched_priority = priority;
    return pthread_setschedparam(pthread_self(), policy, &param);
}

// Whether this process may run a thread SCHED_FIFO 50 (tried on a scratch thread).
inline bool CanUseFifo() {
    bool ok = false;
    std::thread([&ok] { ok = SetSelf(SCHED_FIFO, 50) == 0; }).join();
    return ok;
}

// The name every worker thread gives itself (the kernel keeps 15 characters).
inline std::string WorkerThreadName() {
    return (std::string(Worker::THREAD_NAME_PREFIX) + EnvManager::ProcName()).substr(0, 15);
}

// Threads of this process named like workers.
inline int CountWorkerThreads() {
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    while (struct dirent* entry = dir ? readdir(dir) : nullptr) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        count += name == WorkerThreadName();
    }
    if (dir != nullptr) closedir(dir);
    return count;
}

// Whether the worker threads are gone. A joined thread can still be listed for a moment after
// pthread_join returns, so this waits for the listing to catch up.
inline bool NoWorkerThreadLeft() {
    return sable_test::WaitUntil([] { return CountWorkerThreads() == 0; }, WAIT_MS);
}

// Runs `body` in a forked child (the caller must have no other thread running) and returns its
// result, the child's exit status; -1 when it did not end normally within WAIT_MS.
inline int RunInChild(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    if (pid > 0 &&
        !sable_test::WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, WAIT_MS)) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// In a child: drops every right to real-time scheduling (RLIMIT_RTPRIO 0 and, for root, the
// switch to an unprivileged user, which clears CAP_SYS_NICE). false when that failed.
inline bool DropRealtimeRights() {
    struct rlimit none = {0, 0};
    const uid_t nobody = 65534;
    return setrlimit(RLIMIT_RTPRIO, &none) == 0 &&
           (geteuid() != 0 ||
            (setgroups(0, nullptr) == 0 && setgid(nobody) == 0 && setuid(nobody) == 0));
}

}  // namespace pool_test

#endif
