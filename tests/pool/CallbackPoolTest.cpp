#include "pool/CallbackPool.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <atomic>
#include <future>
#include <mutex>
#include <vector>

#include "LogCapture.h"
#include "PoolTestUtil.h"
#include "TestEnv.h"

using pool_test::BLOCK_WATCH;
using pool_test::Gate;
using pool_test::WAIT_MS;
using sable_test::LogCapture;
using sable_test::WaitUntil;

namespace {

// A callback pool over its own worker pool; the test keeps a handle on both.
struct Pools {
    Pools(uint32_t ordinary, uint32_t urgent)
        : workers(std::make_shared<WorkerPool>(ordinary, urgent)), callbacks(workers) {}
    ~Pools() { callbacks.Destroy(); }

    std::shared_ptr<WorkerPool> workers;
    CallbackPool callbacks;
};

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

TEST(CallbackPool, EmptyCallbackIsRefusedByBothDropsAndNothingIsQueued) {
    Pools pools(2, 1);
    LogCapture cap;
    EXPECT_EQ(pools.callbacks.DropAsyncTask(nullptr, SABLO_PRIORITY_NORMAL), -EINVAL);
    EXPECT_EQ(pools.callbacks.DropTo("3", nullptr, SABLO_PRIORITY_NORMAL), -EINVAL);
    EXPECT_EQ(cap.Count("Input parameter invalid\n"), 2u);
    EXPECT_EQ(pools.callbacks.NumWorkers(), 0u) << "no worker was taken";
    EXPECT_EQ(pools.workers->WorkerOf("3"), nullptr);
}

TEST(CallbackPool, CallbacksDroppedToOneNameRunInOrderOnOneThread) {
    Pools pools(4, 1);
    std::mutex mu;
    std::vector<int> order;
    std::vector<std::thread::id> ids;
    const int n = 300;
    for (int i = 0; i < n; ++i) {
        // Priorities 0 and 1 alternate: neither moves the callbacks to another worker.
        SabloPriority prio = i % 2 ? SABLO_PRIORITY_NORMAL : SABLO_PRIORITY_DEFAULT;
        ASSERT_EQ(pools.callbacks.DropTo("7",
                                         [&, i] {
                                             std::lock_guard<std::mutex> lock(mu);
                                             order.push_back(i);
                                             ids.push_back(std::this_thread::get_id());
                                         },
                                         prio),
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
    }
    EXPECT_EQ(pools.callbacks.NumWorkers(), 1u);
}

TEST(CallbackPool, TwoThreadsDroppingToANewNameBindOneWorker) {
    Pools pools(2, 0);
    for (int round = 0; round < 50; ++round) {
        std::string name = "pipe" + std::to_string(round);
        std::mutex mu;
        std::vector<std::thread::id> ids;
        std::atomic<int> ready{0};
        auto drop = [&] {
            ++ready;
            while (ready < 2) {
            }
            int ret = pools.callbacks.DropTo(name,
                                             [&] {
                                                 std::lock_guard<std::mutex> lock(mu);
                                                 ids.push_back(std::this_thread::get_id());
                                             },
                                             SABLO_PRIORITY_DEFAULT);
            EXPECT_EQ(ret, 0);
        };
        std::thread a(drop);
        std::thread b(drop);
        a.join();
        b.join();
        ASSERT_TRUE(WaitUntil(
            [&] {
                std::lock_guard<std::mutex> lock(mu);
                return ids.size() == 2;
            },
            WAIT_MS));
        EXPECT_EQ(ids[0], ids[1]) << "round " << round;
        // Only one of the two slots is bound.
        Worker* probe = pools.workers->TryGetNamedWorker("probe");
        EXPECT_NE(probe, nullptr) << "round " << round;
        pools.workers->FreeWorker(std::string("probe"));
        EXPECT_EQ(pools.callbacks.FreeWorker(name), 0);
    }
}

TEST(CallbackPool, AsyncDropWaitsWhileOrdinarySlotsAreBorrowedButUrgentProceeds) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    Pools pools(1, 1);
    std::atomic<bool> firstRunning{false};
    ASSERT_EQ(pools.callbacks.DropAsyncTask(
                  [&] {
                      firstRunning = true;
                      gate.Wait();
                  },
                  SABLO_PRIORITY_NORMAL),
              0);
    ASSERT_TRUE(WaitUntil([&] { return firstRunning.load(); }, WAIT_MS));

    std::atomic<bool> secondRan{false};
    std::atomic<int> secondResult{1};
    Background second([&] {
        secondResult = pools.callbacks.DropAsyncTask([&] { secondRan = true; },
                                                     SABLO_PRIORITY_NORMAL);
    });
    std::this_thread::sleep_for(BLOCK_WATCH);
    EXPECT_FALSE(second.Done()) << "no ordinary worker is free";

    std::atomic<bool> urgentRan{false};
    EXPECT_EQ(pools.callbacks.DropAsyncTask([&] { urgentRan = true; }, SABLO_PRIORITY_REALTIME),
              0);
    EXPECT_TRUE(WaitUntil([&] { return urgentRan.load(); }, WAIT_MS));
    EXPECT_FALSE(second.Done());

    gate.Open();
    ASSERT_TRUE(second.WaitDone());
    EXPECT_EQ(secondResult, 0);
    EXPECT_TRUE(WaitUntil([&] { return secondRan.load(); }, WAIT_MS));
}

TEST(CallbackPool, BorrowedWorkerIsGivenBackAfterItsCallback) {
    Pools pools(1, 0);
    std::atomic<int> ran{0};
    // With one slot, each drop needs the previous callback's worker back.
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(pools.callbacks.DropAsyncTask([&] { ++ran; }, SABLO_PRIORITY_NORMAL), 0);
    }
    EXPECT_TRUE(WaitUntil([&] { return ran == 20; }, WAIT_MS));
    EXPECT_TRUE(WaitUntil([&] { return pools.workers->TryGetNamedWorker("probe") != nullptr; },
                          WAIT_MS));
    EXPECT_EQ(pools.callbacks.NumWorkers(), 1u);
}

TEST(CallbackPool, FailedSchedulingSwitchGivesTheBorrowedWorkerBack) {
    Pools pools(1, 0);
    LogCapture cap;
    std::atomic<bool> ran{false};
    EXPECT_EQ(pools.callbacks.DropAsyncTask([&] { ran = true; }, static_cast<SabloPriority>(3)),
              -EINVAL);
    EXPECT_TRUE(cap.Contains("Set worker attribute failed, ret = -22\n"));
    EXPECT_EQ(pools.callbacks.DropTo("5", [&] { ran = true; }, static_cast<SabloPriority>(3)),
              -EINVAL);
    EXPECT_EQ(cap.Count("Set worker attribute failed, ret = -22\n"), 2u);
    EXPECT_FALSE(ran.load());
    pools.callbacks.FreeWorker("5");
    EXPECT_NE(pools.workers->TryGetNamedWorker("probe"), nullptr) << "the slot came back";
}

TEST(CallbackPool, DropToAFullPoolFailsWithoutQueuing) {
    Pools pools(1, 1);
    std::atomic<bool> ran{false};
    ASSERT_EQ(pools.callbacks.DropTo("a", [&] { ran = true; }, SABLO_PRIORITY_DEFAULT), 0);
    EXPECT_TRUE(WaitUntil([&] { return ran.load(); }, WAIT_MS));

    auto capture = std::make_shared<int>(0);
    std::weak_ptr<int> watch = capture;
    // Names take ordinary slots only; the urgent slot stays free.
    EXPECT_EQ(pools.callbacks.DropTo("b", [capture] {}, SABLO_PRIORITY_DEFAULT), -ENOSPC);
    capture.reset();
    EXPECT_TRUE(watch.expired()) << "the refused callback is not held anywhere";
    EXPECT_EQ(pools.workers->WorkerOf("b"), nullptr);
}

TEST(CallbackPool, AfterDestroyDropsAreRefusedWithAccessError) {
    Pools pools(2, 1);
    std::atomic<int> ran{0};
    ASSERT_EQ(pools.callbacks.DropAsyncTask([&] { ++ran; }, SABLO_PRIORITY_NORMAL), 0);
    ASSERT_TRUE(WaitUntil([&] { return ran == 1; }, WAIT_MS));
    pools.callbacks.Destroy();

    LogCapture cap;
    EXPECT_EQ(pools.callbacks.DropAsyncTask([&] { ++ran; }, SABLO_PRIORITY_NORMAL), -EACCES);
    EXPECT_EQ(pools.callbacks.DropAsyncTask([&] { ++ran; }, SABLO_PRIORITY_REALTIME), -EACCES);
    std::string line = cap.Find("Using thread pool after destroy.");
    EXPECT_FALSE(line.empty());
    auto lines = cap.Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front().level, LOG_WARNING);
    EXPECT_EQ(pools.callbacks.DropTo("new", [&] { ++ran; }, SABLO_PRIORITY_NORMAL), -EACCES);
    EXPECT_EQ(ran, 1);
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft());
}

TEST(CallbackPool, DestroyReturnsAtOnceWhenNoCallbackRuns) {
    Pools pools(3, 1);
    std::atomic<int> ran{0};
    ASSERT_EQ(pools.callbacks.DropAsyncTask([&] { ++ran; }, SABLO_PRIORITY_NORMAL), 0);
    ASSERT_EQ(pools.callbacks.DropTo("9", [&] { ++ran; }, SABLO_PRIORITY_NORMAL), 0);
    ASSERT_TRUE(WaitUntil([&] { return ran == 2; }, WAIT_MS));
    // "9" stays bound and its worker lent; Destroy must not wait for it.
    auto destroyed = std::async(std::launch::async, [&] { pools.callbacks.Destroy(); });
    EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(WAIT_MS)), std::future_status::ready);
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft());
}

TEST(CallbackPool, DestroyWaitsForARunningCallback) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    Pools pools(2, 0);
    std::atomic<bool> started{false};
    std::atomic<bool> finished{false};
    ASSERT_EQ(pools.callbacks.DropAsyncTask(
                  [&] {
                      started = true;
                      gate.Wait();
                      finished = true;
                  },
                  SABLO_PRIORITY_NORMAL),
              0);
    ASSERT_TRUE(WaitUntil([&] { return started.load(); }, WAIT_MS));
    Background destroyer([&] { pools.callbacks.Destroy(); });
    std::this_thread::sleep_for(BLOCK_WATCH);
    EXPECT_FALSE(destroyer.Done()) << "Destroy must wait for the running callback";
    gate.Open();
    ASSERT_TRUE(destroyer.WaitDone());
    EXPECT_TRUE(finished.load());
}

TEST(CallbackPool, DestroyFromInsideACallbackDoesNotHang) {
    auto workers = std::make_shared<WorkerPool>(2, 0);
    auto callbacks = std::make_unique<CallbackPool>(workers);
    CallbackPool* self = callbacks.get();
    std::atomic<bool> returned{false};
    ASSERT_EQ(callbacks->DropAsyncTask(
                  [&returned, self] {
                      self->Destroy();
                      returned = true;
                  },
                  SABLO_PRIORITY_NORMAL),
              0);
    EXPECT_TRUE(WaitUntil([&] { return returned.load(); }, WAIT_MS));
    // Released right away: the callback's worker may still be reporting back, and must be
    // joined before the callback pool goes.
    callbacks.reset();
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft());
}

TEST(CallbackPool, RealtimeCallbacksRunSchedFifo50AndPriorityZeroLeavesTheClass) {
    if (!pool_test::CanUseFifo()) {
        GTEST_SKIP() << "this process may not use SCHED_FIFO";
    }
    Pools pools(2, 1);
    std::mutex mu;
    std::vector<pool_test::Sched> seen;
    auto record = [&] {
        pool_test::Sched s = pool_test::SchedOfSelf();
        std::lock_guard<std::mutex> lock(mu);
        seen.push_back(s);
    };
    auto count = [&] {
        std::lock_guard<std::mutex> lock(mu);
        return seen.size();
    };
    ASSERT_EQ(pools.callbacks.DropAsyncTask(record, SABLO_PRIORITY_REALTIME), 0);
    ASSERT_TRUE(WaitUntil([&] { return count() == 1; }, WAIT_MS));
    EXPECT_EQ(pools.callbacks.NumUrgentWorkers(), 1u);

    // The class is switched when a callback is dropped, not when it runs: each callback runs
    // before the next drop.
    ASSERT_EQ(pools.callbacks.DropTo("4", record, SABLO_PRIORITY_REALTIME), 0);
    ASSERT_TRUE(WaitUntil([&] { return count() == 2; }, WAIT_MS));
    ASSERT_EQ(pools.callbacks.DropTo("4", record, SABLO_PRIORITY_DEFAULT), 0);
    ASSERT_TRUE(WaitUntil([&] { return count() == 3; }, WAIT_MS));
    ASSERT_EQ(pools.callbacks.DropTo("4", record, SABLO_PRIORITY_NORMAL), 0);
    ASSERT_TRUE(WaitUntil([&] { return count() == 4; }, WAIT_MS));
    std::lock_guard<std::mutex> lock(mu);
    EXPECT_EQ(seen[0].policy, SCHED_FIFO);
    EXPECT_EQ(seen[0].priority, 50);
    EXPECT_EQ(seen[1].policy, SCHED_FIFO);
    EXPECT_EQ(seen[1].priority, 50);
    EXPECT_EQ(seen[2].policy, SCHED_FIFO) << "priority 0 leaves the thread's class as it is";
    EXPECT_EQ(seen[3].policy, SCHED_OTHER);
}
