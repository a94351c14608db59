// The scheduling a callback runs under, read back from inside it: every class its own, whatever
// the worker ran before and whichever thread dropped it or started the library.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <fstream>
#include <mutex>
#include <vector>

#include "ChildProcess.h"
#include "PoolTestUtil.h"
#include "TestEnv.h"
#include "pool/CallbackPool.h"
#include "sable_comm.h"

using pool_test::Seen;
using pool_test::WAIT_MS;
using sable_test::WaitUntil;

namespace {

struct Expected {
    int policy;
    int priority;
};
const Expected FIFO50{SCHED_FIFO, 50};
const Expected OTHER{SCHED_OTHER, 0};

// The test process's threads run SCHED_OTHER: so does class 0.
::testing::AssertionResult RanAs(const Seen& seen, Expected want) {
    if (seen.policy == want.policy && seen.priority == want.priority) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "ran as policy " << seen.policy << " priority "
                                         << seen.priority << ", not " << want.policy << " "
                                         << want.priority;
}

}  // namespace

TEST(Scheduling, EachCallbackRunsUnderItsClassOnABorrowedWorkerAndOnANamedOne) {
    if (!pool_test::CanUseFifo()) GTEST_SKIP() << "this process may not use SCHED_FIFO";
    pool_test::Gate gate;  // first: destroyed after every thread that may wait on it
    // One slot only: every borrowed callback runs on the same worker.
    auto workers = std::make_shared<WorkerPool>(1, 0);
    CallbackPool callbacks(workers);
    auto async = [&](SabloPriority prio) {
        return pool_test::SeenBy(
            [&](std::function<void()> probe) { return callbacks.DropAsyncTask(probe, prio); });
    };
    Seen rt = async(SABLO_PRIORITY_REALTIME);
    EXPECT_TRUE(RanAs(rt, FIFO50));
    Seen zero = async(SABLO_PRIORITY_DEFAULT);
    EXPECT_TRUE(RanAs(zero, OTHER)) << "real-time must not carry over into class 0";
    Seen one = async(SABLO_PRIORITY_NORMAL);
    EXPECT_TRUE(RanAs(one, OTHER));
    EXPECT_TRUE(RanAs(async(SABLO_PRIORITY_REALTIME), FIFO50));
    EXPECT_EQ(zero.tid, rt.tid) << "one worker";
    EXPECT_EQ(one.tid, rt.tid);

    // A pipe's own worker, the same way.
    auto named = [&](SabloPriority prio) {
        return pool_test::SeenBy(
            [&](std::function<void()> probe) { return callbacks.DropTo("4", probe, prio); });
    };
    callbacks.FreeWorker("4");
    EXPECT_TRUE(RanAs(named(SABLO_PRIORITY_REALTIME), FIFO50));
    EXPECT_TRUE(RanAs(named(SABLO_PRIORITY_DEFAULT), OTHER));
    EXPECT_TRUE(RanAs(named(SABLO_PRIORITY_REALTIME), FIFO50));
    EXPECT_TRUE(RanAs(named(SABLO_PRIORITY_NORMAL), OTHER));

    // Queued one behind the other while the worker is held: each still runs under its own
    // class, which is taken when it runs, not when it is dropped.
    ASSERT_EQ(callbacks.DropTo(
                  "4", [&] { gate.Wait(); }, SABLO_PRIORITY_NORMAL),
              0);
    std::vector<std::future<Seen>> queued;
    std::vector<Expected> wanted;
    for (SabloPriority prio : {SABLO_PRIORITY_REALTIME, SABLO_PRIORITY_DEFAULT,
                               SABLO_PRIORITY_REALTIME, SABLO_PRIORITY_NORMAL}) {
        auto seen = std::make_shared<std::promise<Seen>>();
        queued.push_back(seen->get_future());
        wanted.push_back(prio == SABLO_PRIORITY_REALTIME ? FIFO50 : OTHER);
        ASSERT_EQ(callbacks.DropTo(
                      "4", [seen] { seen->set_value(pool_test::SeenOf(pthread_self())); }, prio),
                  0);
    }
    gate.Open();
    for (size_t i = 0; i < queued.size(); ++i) {
        ASSERT_EQ(queued[i].wait_for(std::chrono::milliseconds(WAIT_MS)),
                  std::future_status::ready);
        EXPECT_TRUE(RanAs(queued[i].get(), wanted[i])) << "queued callback " << i;
    }
    callbacks.Destroy();
}

TEST(Scheduling, AWorkerStartedOrDroppedToFromARealtimeThreadRunsOrdinaryWorkOrdinary) {
    if (!pool_test::CanUseFifo()) GTEST_SKIP() << "this process may not use SCHED_FIFO";
    auto workers = std::make_shared<WorkerPool>(2, 1);
    CallbackPool callbacks(workers);
    Seen fromRealtime[2];
    std::thread([&] {
        ASSERT_EQ(pool_test::SetSelf(SCHED_FIFO, 50), 0);
        // The first drops create and start the workers from this thread.
        fromRealtime[0] = pool_test::SeenBy([&](std::function<void()> probe) {
            return callbacks.DropTo("7", probe, SABLO_PRIORITY_DEFAULT);
        });
        fromRealtime[1] = pool_test::SeenBy([&](std::function<void()> probe) {
            return callbacks.DropAsyncTask(probe, SABLO_PRIORITY_DEFAULT);
        });
    }).join();
    EXPECT_TRUE(RanAs(fromRealtime[0], OTHER));
    EXPECT_TRUE(RanAs(fromRealtime[1], OTHER));
    callbacks.Destroy();
}

namespace {

std::mutex seenMutex;
std::vector<Seen> delivered;  // guarded by seenMutex

void RecordAndEcho(int fd, SabloRequest* req) {
    {
        std::lock_guard<std::mutex> lock(seenMutex);
        delivered.push_back(pool_test::SeenOf(pthread_self()));
    }
    if (req != nullptr) {
        SabloResponse rsp{req->id, req->data, req->size};
        SabloSendResponse(fd, &rsp);
    }
}

// The scheduling of this process's threads whose name starts with `prefix`.
std::vector<Expected> ThreadsNamed(const std::string& prefix) {
    std::vector<Expected> found;
    DIR* dir = opendir("/proc/self/task");
    while (struct dirent* entry = dir ? readdir(dir) : nullptr) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        if (name.rfind(prefix, 0) != 0) continue;
        pid_t tid = static_cast<pid_t>(atoi(entry->d_name));
        struct sched_param param = {};
        int policy = sched_getscheduler(tid);
        sched_getparam(tid, &param);
        found.push_back(Expected{policy, param.sched_priority});
    }
    if (dir != nullptr) closedir(dir);
    return found;
}

}  // namespace

// Two processes: the peer creates the pipe and makes RPCs; this process joins it from a
// SCHED_FIFO thread, which also starts the library here.
TEST(Scheduling, APriorityZeroPipeOpenedFromARealtimeThreadDeliversAtOrdinaryScheduling) {
    if (!pool_test::CanUseFifo()) GTEST_SKIP() << "this process may not use SCHED_FIFO";
    sable_test::EnsureFifoDir();
    const std::string self = sable_test::UniqueName("sched");
    const std::string peer = sable_test::UniqueName("schedpeer");
    sable_test::ChildProcess child("sable_peer", {"call", peer, self, "1", "20"});
    ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
    int fd = -1;
    std::thread([&] {
        ASSERT_EQ(pool_test::SetSelf(SCHED_FIFO, 50), 0);
        fd = sable_test::OpenPipe(self, peer, SABLO_MODE_JOIN, WAIT_MS, RecordAndEcho);
    }).join();
    ASSERT_GT(fd, 0);
    EXPECT_EQ(child.Wait(20000), 0) << "the peer's RPCs did not all come back";

    std::vector<Expected> monitors = ThreadsNamed("sable_comm_mon");
    ASSERT_FALSE(monitors.empty());
    for (const Expected& monitor : monitors) {
        EXPECT_EQ(monitor.policy, SCHED_OTHER) << "a class-0 receive thread runs ordinary";
    }
    EXPECT_TRUE(WaitUntil(
        [] {
            std::lock_guard<std::mutex> lock(seenMutex);
            return delivered.size() >= 21;
        },
        WAIT_MS))
        << "20 requests and the close";
    std::lock_guard<std::mutex> lock(seenMutex);
    for (const Seen& seen : delivered) {
        EXPECT_TRUE(RanAs(seen, OTHER));
    }
    SabloClosePipe(fd);
    EXPECT_TRUE(WaitUntil([&] { return sable_test::FifoFilesWith(self).empty(); }, WAIT_MS));
}
