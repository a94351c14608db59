#include "pool/Worker.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "LogCapture.h"
#include "PoolTestUtil.h"
#include "TestEnv.h"

using pool_test::Gate;
using pool_test::WAIT_MS;
using sable_test::LogCapture;
using sable_test::WaitUntil;

namespace {

Worker::TaskPtr Task(std::function<void()> fn) {
    return std::make_shared<SyncTask>(std::move(fn));
}

int Post(Worker& worker, std::function<void()> fn) {
    Worker::TaskPtr task = Task(std::move(fn));
    return worker.Assign(task);
}

// Starts the worker's task that holds it until `gate` opens; returns once it runs.
void Occupy(Worker& worker, Gate& gate) {
    ASSERT_EQ(Post(worker, [&gate] { gate.Wait(); }), 0);
    ASSERT_TRUE(WaitUntil([&] { return worker.IsWorking(); }, WAIT_MS));
}

// Long enough for a started thread to be seen before it idles out.
constexpr std::chrono::milliseconds SHORT_IDLE{200};

}  // namespace

TEST(Worker, TasksRunInOrderOnOneThreadNamedAfterTheProcess) {
    Worker worker("order");
    ASSERT_TRUE(worker.Start());
    std::mutex mu;
    std::vector<int> order;
    std::vector<std::thread::id> ids;
    std::vector<std::string> names;
    const int n = 200;
    for (int i = 0; i < n; ++i) {
        ASSERT_EQ(Post(worker,
                       [&, i] {
                           std::lock_guard<std::mutex> lock(mu);
                           order.push_back(i);
                           ids.push_back(std::this_thread::get_id());
                           names.push_back(pool_test::ThreadName());
                       }),
                  0);
    }
    ASSERT_TRUE(WaitUntil(
        [&] {
            std::lock_guard<std::mutex> lock(mu);
            return order.size() == n;
        },
        WAIT_MS));
    std::lock_guard<std::mutex> lock(mu);
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(order[i], i);
        EXPECT_EQ(ids[i], ids[0]);
        EXPECT_EQ(names[i], pool_test::WorkerThreadName());
    }
    EXPECT_NE(ids[0], std::this_thread::get_id());
}

TEST(Worker, ThousandAndFirstQueuedTaskIsRefusedWithBusy) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    Worker worker("full");
    ASSERT_TRUE(worker.Start());
    Occupy(worker, gate);
    std::atomic<int> ran{0};
    for (size_t i = 0; i < Worker::CAPACITY; ++i) {
        ASSERT_EQ(Post(worker, [&ran] { ++ran; }), 0) << i;
    }
    EXPECT_EQ(worker.WaitingTasks(), 1000u);

    // A restrained line: printed once per call site and thread in 600 s, so this check holds
    // once per process (each test runs in a process of its own).
    LogCapture cap;
    std::atomic<bool> refusedRan{false};
    Worker::TaskPtr refused = Task([&refusedRan] { refusedRan = true; });
    EXPECT_EQ(worker.Assign(refused), -EBUSY);
    EXPECT_NE(refused, nullptr) << "a refused task stays with the caller";
    EXPECT_EQ(worker.WaitingTasks(), 1000u);
    std::string line = cap.Find("Tasks exceeds worker's capacity(1000)\n");
    EXPECT_FALSE(line.empty());
    auto lines = cap.Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().level, LOG_WARNING);

    gate.Open();
    ASSERT_TRUE(WaitUntil([&] { return ran == 1000; }, WAIT_MS));
    // Room again once the queue drains.
    EXPECT_EQ(worker.Assign(refused), 0);
    EXPECT_TRUE(WaitUntil([&] { return refusedRan.load(); }, WAIT_MS));
}

TEST(Worker, StopDropsQueuedTasksWithoutRunningThem) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    auto worker = std::make_unique<Worker>("stop");
    ASSERT_TRUE(worker->Start());
    Occupy(*worker, gate);
    std::atomic<int> ran{0};
    auto capture = std::make_shared<int>(0);
    std::weak_ptr<int> watch = capture;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(Post(*worker, [&ran, capture] { ++ran; }), 0);
    }
    capture.reset();
    EXPECT_EQ(worker->WaitingTasks(), 5u);

    worker->Stop();
    EXPECT_EQ(worker->WaitingTasks(), 0u);
    EXPECT_TRUE(watch.expired()) << "dropped tasks are released at once";
    gate.Open();
    worker->ThreadJoin();
    EXPECT_EQ(ran, 0);
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft());
    worker.reset();
}

TEST(Worker, IdledOutThreadIsRestartedByTheNextAssign) {
    Worker worker("idle", SHORT_IDLE);
    ASSERT_TRUE(worker.Start());
    ASSERT_TRUE(WaitUntil([] { return pool_test::CountWorkerThreads() == 1; }, WAIT_MS));
    // No work: the thread ends by itself.
    ASSERT_TRUE(WaitUntil([] { return pool_test::CountWorkerThreads() == 0; }, WAIT_MS));

    std::atomic<bool> ran{false};
    std::string name;
    ASSERT_EQ(Post(worker,
                   [&] {
                       name = pool_test::ThreadName();
                       ran = true;
                   }),
              0);
    ASSERT_TRUE(WaitUntil([&] { return ran.load(); }, WAIT_MS));
    EXPECT_EQ(name, pool_test::WorkerThreadName());
    // And it idles out again.
    EXPECT_TRUE(WaitUntil([] { return pool_test::CountWorkerThreads() == 0; }, WAIT_MS));
}

TEST(Worker, IdledOutThreadIsRestartedBySetRTType) {
    // Long enough for the restarted thread to be seen before it idles out again.
    Worker worker("idle-rt", std::chrono::milliseconds(300));
    ASSERT_TRUE(worker.Start());
    ASSERT_TRUE(WaitUntil([] { return pool_test::CountWorkerThreads() == 0; }, WAIT_MS));
    EXPECT_EQ(worker.SetRTType(SABLO_PRIORITY_NORMAL), 0);
    EXPECT_TRUE(WaitUntil([] { return pool_test::CountWorkerThreads() == 1; }, WAIT_MS));
    std::atomic<bool> ran{false};
    ASSERT_EQ(Post(worker, [&] { ran = true; }), 0);
    EXPECT_TRUE(WaitUntil([&] { return ran.load(); }, WAIT_MS));
}

TEST(Worker, BusyWorkerDoesNotIdleOut) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    Worker worker("busy", SHORT_IDLE);
    ASSERT_TRUE(worker.Start());
    Occupy(worker, gate);
    std::this_thread::sleep_for(SHORT_IDLE * 4);
    EXPECT_EQ(pool_test::CountWorkerThreads(), 1);
    std::atomic<bool> ran{false};
    ASSERT_EQ(Post(worker, [&] { ran = true; }), 0);
    gate.Open();
    EXPECT_TRUE(WaitUntil([&] { return ran.load(); }, WAIT_MS));
}

TEST(Worker, TaskMayPostToItsOwnWorker) {
    Worker worker("self");
    ASSERT_TRUE(worker.Start());
    std::atomic<bool> inner{false};
    std::atomic<int> postResult{1};
    ASSERT_EQ(Post(worker, [&] { postResult = Post(worker, [&] { inner = true; }); }), 0);
    EXPECT_TRUE(WaitUntil([&] { return inner.load(); }, WAIT_MS));
    EXPECT_EQ(postResult, 0);
}

TEST(Worker, ClassOutsideTheTableIsRefusedAndNotRecorded) {
    Worker worker("bad-class");
    ASSERT_TRUE(worker.Start());
    EXPECT_EQ(worker.SetRTType(static_cast<SabloPriority>(3)), -EINVAL);
    EXPECT_EQ(worker.SetRTType(SABLO_PRIORITY_DEFAULT), -EINVAL);
    EXPECT_EQ(worker.GetRTType(), SABLO_PRIORITY_NORMAL);
}

TEST(Worker, RealtimeClassAppliesToTheThreadAndSurvivesARestart) {
    if (!pool_test::CanUseFifo()) {
        GTEST_SKIP() << "this process may not use SCHED_FIFO";
    }
    Worker worker("rt", SHORT_IDLE);
    ASSERT_TRUE(worker.Start());
    ASSERT_EQ(worker.SetRTType(SABLO_PRIORITY_REALTIME), 0);
    EXPECT_EQ(worker.GetRTType(), SABLO_PRIORITY_REALTIME);
    std::atomic<int> policy{-1};
    std::atomic<int> priority{-1};
    auto probe = [&] {
        pool_test::Sched s = pool_test::SchedOfSelf();
        priority = s.priority;
        policy = s.policy;
    };
    ASSERT_EQ(Post(worker, probe), 0);
    ASSERT_TRUE(WaitUntil([&] { return policy != -1; }, WAIT_MS));
    EXPECT_EQ(policy, SCHED_FIFO);
    EXPECT_EQ(priority, 50);

    // The restarted thread is created by this ordinary thread, yet runs the worker's class.
    ASSERT_TRUE(WaitUntil([] { return pool_test::CountWorkerThreads() == 0; }, WAIT_MS));
    policy = -1;
    ASSERT_EQ(Post(worker, probe), 0);
    ASSERT_TRUE(WaitUntil([&] { return policy != -1; }, WAIT_MS));
    EXPECT_EQ(policy, SCHED_FIFO);
    EXPECT_EQ(priority, 50);
}

TEST(Worker, OrdinaryWorkerStartedByARealtimeThreadRunsOrdinary) {
    if (!pool_test::CanUseFifo()) {
        GTEST_SKIP() << "this process may not use SCHED_FIFO";
    }
    Worker worker("inherit");
    std::thread starter([&] {
        ASSERT_EQ(pool_test::SetSelf(SCHED_FIFO, 50), 0);
        worker.Start();
    });
    starter.join();
    std::atomic<int> policy{-1};
    ASSERT_EQ(Post(worker, [&] { policy = pool_test::SchedOfSelf().policy; }), 0);
    ASSERT_TRUE(WaitUntil([&] { return policy != -1; }, WAIT_MS));
    EXPECT_EQ(policy, SCHED_OTHER);
}

TEST(Worker, SameClassTwiceMakesNoSecondSystemCall) {
    if (!pool_test::CanUseFifo()) {
        GTEST_SKIP() << "this process may not use SCHED_FIFO";
    }
    Worker worker("twice");
    ASSERT_TRUE(worker.Start());
    ASSERT_EQ(worker.SetRTType(SABLO_PRIORITY_REALTIME), 0);
    // The task puts its own thread back to ordinary; asking again for real-time must leave it.
    std::atomic<bool> reset{false};
    ASSERT_EQ(Post(worker, [&] { reset = pool_test::SetSelf(SCHED_OTHER, 0) == 0; }), 0);
    ASSERT_TRUE(WaitUntil([&] { return reset.load(); }, WAIT_MS));
    EXPECT_EQ(worker.SetRTType(SABLO_PRIORITY_REALTIME), 0);
    std::atomic<int> policy{-1};
    ASSERT_EQ(Post(worker, [&] { policy = pool_test::SchedOfSelf().policy; }), 0);
    ASSERT_TRUE(WaitUntil([&] { return policy != -1; }, WAIT_MS));
    EXPECT_EQ(policy, SCHED_OTHER);
}
