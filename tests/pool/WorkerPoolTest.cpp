#include "pool/WorkerPool.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "LogCapture.h"
#include "PoolTestUtil.h"
#include "TestEnv.h"

using pool_test::BLOCK_WATCH;
using pool_test::Gate;
using pool_test::WAIT_MS;
using sable_test::LogCapture;
using sable_test::WaitUntil;

namespace {

int Post(Worker& worker, std::function<void()> fn) {
    Worker::TaskPtr task = std::make_shared<SyncTask>(std::move(fn));
    return worker.Assign(task);
}

// Runs `fn` on another thread; Done() tells whether it has returned.
class Background {
public:
    explicit Background(std::function<void()> fn)
        : thread([this, fn = std::move(fn)] {
              fn();
              done = true;
          }) {}
    ~Background() {
        if (thread.joinable()) thread.join();
    }
    bool Done() const { return done; }
    bool WaitDone() { return WaitUntil([this] { return done.load(); }, WAIT_MS); }

private:
    std::atomic<bool> done{false};
    std::thread thread;
};

}  // namespace

TEST(WorkerPool, OrdinaryGrantBlocksWhenFullWhileUrgentGrantSucceeds) {
    WorkerPool pool(2, 1);
    Worker* first = pool.GetWorker();
    Worker* second = pool.GetWorker();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(first->Name(), "0");
    EXPECT_EQ(second->Name(), "1");

    std::atomic<Worker*> third{nullptr};
    {
        Background waiter([&] { third = pool.GetWorker(); });
        std::this_thread::sleep_for(BLOCK_WATCH);
        EXPECT_FALSE(waiter.Done()) << "the third ordinary grant must wait";

        Worker* urgent = pool.GetUrgentWorker();
        ASSERT_NE(urgent, nullptr);
        EXPECT_EQ(urgent->Name(), "2");
        EXPECT_FALSE(waiter.Done()) << "an urgent slot is not for ordinary callers";

        pool.FreeWorker(*first);
        ASSERT_TRUE(waiter.WaitDone());
    }
    EXPECT_EQ(third.load(), first);
    EXPECT_EQ(pool.NumWorkers(), 3u);
    pool.Destroy();
}

TEST(WorkerPool, AfterDestroyEveryGrantIsRefusedWithAccessError) {
    WorkerPool pool(2, 1);
    ASSERT_NE(pool.GetWorker(), nullptr);
    pool.Destroy();

    LogCapture cap;
    EXPECT_EQ(pool.GetFreeSlot(3), -EACCES);
    // A restrained line (once per call site and thread in 600 s): asked from a thread of its
    // own, and checked once per process.
    std::thread([&] { EXPECT_EQ(pool.PickupWorker(3), -EACCES); }).join();
    EXPECT_TRUE(cap.Contains("Find free slot failed: err = -13\n"));
    EXPECT_EQ(pool.GetWorker(), nullptr);
    EXPECT_EQ(pool.GetUrgentWorker(), nullptr);
    EXPECT_EQ(pool.AllocWorker("late"), -EACCES);
    EXPECT_TRUE(cap.Contains("Pickup worker failed: -13\n"));
    EXPECT_EQ(pool.TryGetNamedWorker("late"), nullptr);
    EXPECT_EQ(pool.WorkerOf("late"), nullptr);
    EXPECT_EQ(pool.NumWorkers(), 0u);
    EXPECT_EQ(pool.GetFreeSlot(3), -EACCES) << "a stopping pool never becomes usable again";
}

TEST(WorkerPool, DestroyOfAnUnusedPoolReturnsAtOnce) {
    WorkerPool pool(4, 1);
    auto destroyed = std::async(std::launch::async, [&] { pool.Destroy(); });
    EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(WAIT_MS)), std::future_status::ready);
    EXPECT_EQ(pool.GetFreeSlot(4), -EACCES);
}

TEST(WorkerPool, DestroyDoesNotWaitForLentWorkersThatRunNothing) {
    WorkerPool pool(3, 1);
    ASSERT_NE(pool.GetWorker(), nullptr);
    ASSERT_EQ(pool.AllocWorker("named"), 0);
    ASSERT_NE(pool.GetUrgentWorker(), nullptr);
    ASSERT_TRUE(WaitUntil([] { return pool_test::CountWorkerThreads() == 3; }, WAIT_MS));

    auto destroyed = std::async(std::launch::async, [&] { pool.Destroy(); });
    EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(WAIT_MS)), std::future_status::ready);
    EXPECT_EQ(pool.NumWorkers(), 0u);
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft()) << "Destroy joins every worker thread";
}

TEST(WorkerPool, DestroyWaitsForARunningTask) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    WorkerPool pool(2, 0);
    Worker* worker = pool.GetWorker();
    ASSERT_NE(worker, nullptr);
    std::atomic<bool> finished{false};
    ASSERT_EQ(Post(*worker,
                   [&] {
                       gate.Wait();
                       finished = true;
                   }),
              0);
    ASSERT_TRUE(WaitUntil([&] { return worker->IsWorking(); }, WAIT_MS));

    Background destroyer([&] { pool.Destroy(); });
    std::this_thread::sleep_for(BLOCK_WATCH);
    EXPECT_FALSE(destroyer.Done()) << "Destroy must wait for the running task";
    gate.Open();
    ASSERT_TRUE(destroyer.WaitDone());
    EXPECT_TRUE(finished.load());
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft());
}

TEST(WorkerPool, DestroyWakesTheDestroyerWhenABorrowedWorkerIsGivenBack) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    WorkerPool pool(2, 0);
    Worker* worker = pool.GetWorker();
    ASSERT_NE(worker, nullptr);
    // The task gives its own worker back when done, as a borrowed worker does.
    ASSERT_EQ(Post(*worker,
                   [&] {
                       gate.Wait();
                       pool.FreeWorker(*worker);
                   }),
              0);
    ASSERT_TRUE(WaitUntil([&] { return worker->IsWorking(); }, WAIT_MS));
    Background destroyer([&] { pool.Destroy(); });
    std::this_thread::sleep_for(BLOCK_WATCH);
    EXPECT_FALSE(destroyer.Done());
    gate.Open();
    EXPECT_TRUE(destroyer.WaitDone());
}

TEST(WorkerPool, DestroyDoesNotWaitForANamedWorkerOnceItsTaskHasEnded) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    // A worker bound to a name keeps its slot after its task; Destroy must not wait for the
    // name to be freed.
    WorkerPool pool(2, 0);
    ASSERT_EQ(pool.AllocWorker("pipe"), 0);
    Worker* worker = pool.WorkerOf("pipe");
    ASSERT_NE(worker, nullptr);
    ASSERT_EQ(Post(*worker, [&] { gate.Wait(); }), 0);
    ASSERT_TRUE(WaitUntil([&] { return worker->IsWorking(); }, WAIT_MS));
    Background destroyer([&] { pool.Destroy(); });
    std::this_thread::sleep_for(BLOCK_WATCH);
    EXPECT_FALSE(destroyer.Done());
    gate.Open();
    EXPECT_TRUE(destroyer.WaitDone());
}

TEST(WorkerPool, DestroyWakesCallersBlockedOnAFullPool) {
    WorkerPool pool(1, 0);
    ASSERT_NE(pool.GetWorker(), nullptr);
    std::atomic<Worker*> got{reinterpret_cast<Worker*>(1)};
    Background waiter([&] { got = pool.GetWorker(); });
    std::this_thread::sleep_for(BLOCK_WATCH);
    ASSERT_FALSE(waiter.Done());
    pool.Destroy();
    ASSERT_TRUE(waiter.WaitDone());
    EXPECT_EQ(got.load(), nullptr);
}

TEST(WorkerPool, DestroyDropsQueuedTasks) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    WorkerPool pool(1, 0);
    Worker* worker = pool.GetWorker();
    ASSERT_NE(worker, nullptr);
    ASSERT_EQ(Post(*worker, [&] { gate.Wait(); }), 0);
    ASSERT_TRUE(WaitUntil([&] { return worker->IsWorking(); }, WAIT_MS));
    std::atomic<int> ran{0};
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(Post(*worker, [&] { ++ran; }), 0);
    }
    Background destroyer([&] { pool.Destroy(); });
    ASSERT_TRUE(WaitUntil([&] { return worker->WaitingTasks() == 0; }, WAIT_MS));
    gate.Open();
    ASSERT_TRUE(destroyer.WaitDone());
    EXPECT_EQ(ran, 0);
}

TEST(WorkerPool, NameIsBoundToOneSlotAndGivenBackByName) {
    WorkerPool pool(2, 0);
    ASSERT_EQ(pool.AllocWorker("a"), 0);
    Worker* a = pool.WorkerOf("a");
    ASSERT_NE(a, nullptr);
    // Binding the same name again keeps its worker and does not keep a second slot.
    ASSERT_EQ(pool.AllocWorker("a"), 0);
    EXPECT_EQ(pool.WorkerOf("a"), a);
    Worker* b = pool.TryGetNamedWorker("b");
    ASSERT_NE(b, nullptr);
    EXPECT_NE(b, a);
    EXPECT_EQ(pool.TryGetNamedWorker("c"), nullptr) << "both ordinary slots are bound";
    EXPECT_EQ(pool.AllocWorker("c"), -ENOSPC);

    EXPECT_EQ(pool.FreeWorker(std::string("a")), 0);
    EXPECT_EQ(pool.WorkerOf("a"), nullptr);
    EXPECT_EQ(pool.TryGetNamedWorker("c"), a) << "the freed slot is lent again";
    pool.Destroy();
}

TEST(WorkerPool, FreeingAnUnknownNameChangesNothing) {
    WorkerPool pool(1, 0);
    ASSERT_EQ(pool.AllocWorker("known"), 0);
    Worker* known = pool.WorkerOf("known");
    EXPECT_EQ(pool.FreeWorker(std::string("unknown")), 0);
    EXPECT_EQ(pool.WorkerOf("known"), known);
    EXPECT_EQ(pool.TryGetNamedWorker("other"), nullptr) << "no slot was given back";
    Worker stranger("stranger");
    EXPECT_EQ(pool.FreeWorker(stranger), 0);
    EXPECT_EQ(pool.TryGetNamedWorker("other"), nullptr);
    pool.Destroy();
}

TEST(WorkerPool, FreeingANameDropsTheTasksQueuedForIt) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    WorkerPool pool(1, 0);
    ASSERT_EQ(pool.AllocWorker("pipe"), 0);
    Worker* worker = pool.WorkerOf("pipe");
    ASSERT_EQ(Post(*worker, [&] { gate.Wait(); }), 0);
    ASSERT_TRUE(WaitUntil([&] { return worker->IsWorking(); }, WAIT_MS));
    std::atomic<int> ran{0};
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(Post(*worker, [&] { ++ran; }), 0);
    }
    pool.FreeWorker(std::string("pipe"));
    EXPECT_EQ(worker->WaitingTasks(), 0u);
    gate.Open();
    ASSERT_TRUE(WaitUntil([&] { return !worker->IsWorking(); }, WAIT_MS));
    EXPECT_EQ(ran, 0);
    pool.Destroy();
}

TEST(WorkerPool, FillingBeyondTheMaximumLogsAndCreatesNothing) {
    WorkerPool pool(2, 1);
    LogCapture cap;
    pool.FillWorkersTo(8);
    EXPECT_TRUE(cap.Contains("Extended size 8(total new size 8) exceeds max workers 3\n"));
    EXPECT_EQ(pool.NumWorkers(), 0u);
    pool.FillWorkersTo(1);
    EXPECT_EQ(pool.NumWorkers(), 1u);
    pool.FillWorkersTo(4);
    EXPECT_TRUE(cap.Contains("Extended size 3(total new size 4) exceeds max workers 3\n"));
    EXPECT_EQ(pool.NumWorkers(), 1u);
    pool.FillWorkersTo(3);
    EXPECT_EQ(pool.NumWorkers(), 3u);
    pool.Destroy();
}

TEST(WorkerPool, UrgentWorkersAreCountedByTheirClass) {
    WorkerPool pool(2, 1);
    Worker* worker = pool.GetUrgentWorker();
    ASSERT_NE(worker, nullptr);
    EXPECT_EQ(pool.NumUrgentWorkers(), 0u);
    // Recorded even where the switch itself is refused.
    ASSERT_EQ(worker->SetRTType(SABLO_PRIORITY_REALTIME), 0);
    EXPECT_EQ(pool.NumUrgentWorkers(), 1u);
    ASSERT_EQ(worker->SetRTType(SABLO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(pool.NumUrgentWorkers(), 0u);
    pool.Destroy();
}

TEST(WorkerPool, BusySweepGivesBackOnlyIdleWorkers) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    WorkerPool pool(2, 0);
    Worker* idle = pool.GetWorker();
    Worker* busy = pool.GetWorker();
    ASSERT_NE(idle, nullptr);
    ASSERT_NE(busy, nullptr);
    ASSERT_EQ(Post(*busy, [&] { gate.Wait(); }), 0);
    ASSERT_TRUE(WaitUntil([&] { return busy->IsWorking(); }, WAIT_MS));

    EXPECT_TRUE(pool.HasBusyWorker());
    // The idle worker's slot came back, the busy one's did not.
    EXPECT_EQ(pool.TryGetNamedWorker("probe"), idle);
    EXPECT_EQ(pool.TryGetNamedWorker("probe2"), nullptr);
    gate.Open();
    ASSERT_TRUE(WaitUntil([&] { return !busy->IsWorking(); }, WAIT_MS));
    EXPECT_FALSE(pool.HasBusyWorker());
    pool.Destroy();
}

TEST(WorkerPool, DestroyFromInsideATaskDoesNotWaitForItself) {
    auto pool = std::make_unique<WorkerPool>(1, 0);
    Worker* worker = pool->GetWorker();
    ASSERT_NE(worker, nullptr);
    std::atomic<bool> returned{false};
    ASSERT_EQ(Post(*worker,
                   [&] {
                       pool->Destroy();
                       returned = true;
                   }),
              0);
    EXPECT_TRUE(WaitUntil([&] { return returned.load(); }, WAIT_MS));
    // The pool's own destruction joins the worker that destroyed it.
    pool.reset();
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft());
}

TEST(WorkerPool, PoolDestructorStopsAndJoinsWithoutDestroy) {
    {
        WorkerPool pool(2, 1);
        ASSERT_NE(pool.GetWorker(), nullptr);
        ASSERT_NE(pool.GetUrgentWorker(), nullptr);  // the lowest free slot: "1"
        ASSERT_TRUE(WaitUntil([] { return pool_test::CountWorkerThreads() == 2; }, WAIT_MS));
    }
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft());
}
