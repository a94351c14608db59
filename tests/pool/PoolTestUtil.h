// Helpers of the thread and pool tests: gates that hold a task, scheduling probes, a look at
// the process's threads, and a privilege-dropping child.
#ifndef SABLE_TESTS_POOL_TEST_UTIL_H
#define SABLE_TESTS_POOL_TEST_UTIL_H

#include <dirent.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
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

// Holds tasks until opened; Wait gives up (false) after WAIT_MS.
class Gate {
public:
    void Open() {
        std::lock_guard<std::mutex> lock(mu);
        open = true;
        cv.notify_all();
    }
    bool Wait() {
        std::unique_lock<std::mutex> lock(mu);
        return cv.wait_for(lock, std::chrono::milliseconds(WAIT_MS), [this] { return open; });
    }

private:
    std::mutex mu;
    std::condition_variable cv;
    bool open = false;
};

struct Sched {
    int policy = -1;
    int priority = -1;
};

inline Sched SchedOf(pthread_t thread) {
    Sched s;
    struct sched_param param = {};
    if (pthread_getschedparam(thread, &s.policy, &param) == 0) {
        s.priority = param.sched_priority;
    }
    return s;
}

inline Sched SchedOfSelf() {
    return SchedOf(pthread_self());
}

inline int SetSelf(int policy, int priority) {
    struct sched_param param = {};
    param.sched_priority = priority;
    return pthread_setschedparam(pthread_self(), policy, &param);
}

// Whether this process may run a thread SCHED_FIFO 50 (tried on a scratch thread).
inline bool CanUseFifo() {
    bool ok = false;
    std::thread probe([&ok] { ok = SetSelf(SCHED_FIFO, 50) == 0; });
    probe.join();
    return ok;
}

inline std::string ThreadName() {
    char name[17] = {};
    prctl(PR_GET_NAME, name);
    return name;
}

// The name every worker thread gives itself (the kernel keeps 15 characters).
inline std::string WorkerThreadName() {
    return (std::string(Worker::THREAD_NAME_PREFIX) + EnvManager::ProcName()).substr(0, 15);
}

// Threads of this process named like workers.
inline int CountWorkerThreads() {
    int count = 0;
    std::string expected = WorkerThreadName();
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) {
        return -1;
    }
    while (struct dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        if (name == expected) {
            ++count;
        }
    }
    closedir(dir);
    return count;
}

// Whether the worker threads are gone. A joined thread can still be listed for a moment after
// pthread_join returns, so this waits (at most WAIT_MS) for the listing to catch up.
inline bool NoWorkerThreadLeft() {
    return sable_test::WaitUntil([] { return CountWorkerThreads() == 0; }, WAIT_MS);
}

// Runs `body` in a forked child (the caller must have no other thread running) and returns
// what it wrote to its report function: "" when it wrote nothing. The child ends with _exit.
// Waits at most WAIT_MS for the child.
std::string RunInChild(const std::function<void(const std::function<void(const std::string&)>&)>& body);

// In a child: drops every privilege that allows real-time scheduling (RLIMIT_RTPRIO 0 and,
// for root, the switch to an unprivileged user). false when that failed.
bool DropRealtimeRights();

}  // namespace pool_test

#endif
