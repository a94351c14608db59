#include <errno.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include "LogCapture.h"
#include "PoolTestUtil.h"
#include "pool/CallbackPool.h"

using pool_test::WAIT_MS;
using sable_test::LogCapture;
using sable_test::WaitUntil;

namespace {

// A callback pool over its own worker pool; the test keeps a handle on both.
struct Pools {
    Pools(uint32_t ordinary, uint32_t urgent)
        : workers(std::make_shared<WorkerPool>(ordinary, urgent)), callbacks(workers) {}
    std::shared_ptr<WorkerPool> workers;
    CallbackPool callbacks;
};

}  // namespace

TEST(CallbackPool, CallbacksDroppedToOneNameRunInOrderOnOneThread) {
    Pools pools(4, 1);
    std::atomic<int> next{0};
    std::atomic<int> misplaced{0};
    const int n = 300;
    for (int i = 0; i < n; ++i) {
        auto check = [&, i] {
            Worker* bound = pools.workers->WorkerOf("7");
            misplaced += next++ != i || bound == nullptr || !bound->RunsOnCallingThread();
        };
        // Priorities 0 and 1 alternate: neither moves the callbacks to another worker.
        SabloPriority prio = i % 2 ? SABLO_PRIORITY_NORMAL : SABLO_PRIORITY_DEFAULT;
        ASSERT_EQ(pools.callbacks.DropTo("7", check, prio), 0);
    }
    ASSERT_TRUE(WaitUntil([&] { return next == n; }, WAIT_MS));
    EXPECT_EQ(misplaced, 0);
    EXPECT_EQ(pools.callbacks.NumWorkers(), 1u);
}

TEST(CallbackPool, TwoThreadsDroppingToANewNameBindOneWorker) {
    Pools pools(2, 0);
    for (int round = 0; round < 50; ++round) {
        std::string name = "pipe" + std::to_string(round);
        std::atomic<int> ready{0};
        auto drop = [&] {
            for (++ready; ready < 2;) {
            }
            EXPECT_EQ(pools.callbacks.DropTo(
                          name, [] {}, SABLO_PRIORITY_DEFAULT),
                      0);
        };
        std::thread a(drop);
        std::thread b(drop);
        a.join();
        b.join();
        // Two bindings would have taken both slots.
        EXPECT_NE(pools.workers->TryGetNamedWorker("probe"), nullptr) << "round " << round;
        pools.workers->FreeWorker(std::string("probe"));
        pools.callbacks.FreeWorker(name);
    }
}

TEST(CallbackPool, BorrowedWorkersComeBackAndRefusedDropsKeepNoSlot) {
    Pools pools(1, 0);
    std::atomic<int> ran{0};
    // With one slot, each drop needs the previous callback's worker back.
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(pools.callbacks.DropAsyncTask([&] { ++ran; }, SABLO_PRIORITY_NORMAL), 0);
    }
    EXPECT_TRUE(WaitUntil([&] { return ran == 20; }, WAIT_MS));

    LogCapture cap;
    EXPECT_EQ(pools.callbacks.DropAsyncTask(nullptr, SABLO_PRIORITY_NORMAL), -EINVAL);
    EXPECT_EQ(pools.callbacks.DropTo("3", nullptr, SABLO_PRIORITY_NORMAL), -EINVAL);
    EXPECT_EQ(pools.workers->WorkerOf("3"), nullptr);
    const auto badPrio = static_cast<SabloPriority>(3);
    EXPECT_EQ(pools.callbacks.DropAsyncTask([&] { ++ran; }, badPrio), -EINVAL);
    EXPECT_TRUE(cap.Contains("Set worker attribute failed, ret = -22\n"));
    // The failed switch gave the borrowed slot back, so a name can take it.
    EXPECT_EQ(pools.callbacks.DropTo(
                  "5", [&] { ++ran; }, badPrio),
              -EINVAL);
    EXPECT_NE(pools.workers->WorkerOf("5"), nullptr);

    // No slot left for another name: refused at once, the callback not kept.
    auto capture = std::make_shared<int>(0);
    std::weak_ptr<int> watch = capture;
    EXPECT_EQ(pools.callbacks.DropTo(
                  "b", [capture] {}, SABLO_PRIORITY_DEFAULT),
              -ENOSPC);
    capture.reset();
    EXPECT_TRUE(watch.expired()) << "the refused callback is not held anywhere";
    EXPECT_EQ(ran, 20);
}

TEST(CallbackPool, DestroyWaitsForRunningCallbacksDropsQueuedOnesAndRefusesLaterDrops) {
    pool_test::Gate gate;  // first: destroyed after every thread that may wait on it
    Pools pools(2, 1);
    std::atomic<int> started{0};
    std::atomic<int> finished{0};
    std::atomic<int> late{0};
    auto held = [&] {
        ++started;
        gate.Wait();
        ++finished;
    };
    // One callback on a name, more queued behind it; one on a borrowed worker. The name stays
    // bound after its callback: Destroy must not wait for that.
    ASSERT_EQ(pools.callbacks.DropTo("9", held, SABLO_PRIORITY_NORMAL), 0);
    Worker* named = pools.workers->WorkerOf("9");
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(pools.callbacks.DropTo(
                      "9", [&] { ++late; }, SABLO_PRIORITY_DEFAULT),
                  0);
    }
    ASSERT_EQ(pools.callbacks.DropAsyncTask(held, SABLO_PRIORITY_NORMAL), 0);
    ASSERT_TRUE(WaitUntil([&] { return started == 2; }, WAIT_MS));

    auto destroyed = std::async(std::launch::async, [&] { pools.callbacks.Destroy(); });
    EXPECT_TRUE(WaitUntil([&] { return named->WaitingTasks() == 0; }, WAIT_MS));
    EXPECT_TRUE(pool_test::StillBlocked(destroyed)) << "Destroy must wait for running callbacks";
    gate.Open();
    ASSERT_TRUE(pool_test::Ends(destroyed));
    EXPECT_EQ(finished, 2);

    LogCapture cap;
    EXPECT_EQ(pools.callbacks.DropAsyncTask([&] { ++late; }, SABLO_PRIORITY_NORMAL), -EACCES);
    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].text.find("Using thread pool after destroy."), std::string::npos);
    EXPECT_EQ(lines[0].level, LOG_WARNING);
    EXPECT_EQ(pools.callbacks.DropTo(
                  "new", [&] { ++late; }, SABLO_PRIORITY_NORMAL),
              -EACCES);
    EXPECT_EQ(late, 0);
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft());
}

TEST(CallbackPool, DestroyFromInsideACallbackDoesNotHang) {
    auto callbacks = std::make_unique<CallbackPool>(std::make_shared<WorkerPool>(2, 0));
    CallbackPool* self = callbacks.get();
    std::atomic<bool> returned{false};
    auto destroyItself = [&returned, self] {
        self->Destroy();
        returned = true;
    };
    ASSERT_EQ(callbacks->DropAsyncTask(destroyItself, SABLO_PRIORITY_NORMAL), 0);
    EXPECT_TRUE(WaitUntil([&] { return returned.load(); }, WAIT_MS));
    // Released right away: the callback's worker may still be reporting back, and must be
    // joined before the callback pool goes.
    callbacks.reset();
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft());
}

TEST(CallbackPool, RealtimeCallbacksRunSchedFifo50AndPriorityZeroLeavesTheClass) {
    if (!pool_test::CanUseFifo()) GTEST_SKIP() << "this process may not use SCHED_FIFO";
    Pools pools(2, 1);
    // Drops a probe (to "4", or to any worker for ""); the class is switched when a callback
    // is dropped, and each probe has run before the next drop.
    auto drop = [&](const char* name, SabloPriority prio) {
        return pool_test::SeenBy([&](std::function<void()> probe) {
            return *name ? pools.callbacks.DropTo(name, probe, prio)
                         : pools.callbacks.DropAsyncTask(probe, prio);
        });
    };
    pool_test::Seen seen = drop("", SABLO_PRIORITY_REALTIME);
    EXPECT_EQ(seen.policy, SCHED_FIFO);
    EXPECT_EQ(seen.priority, 50);
    EXPECT_EQ(pools.callbacks.NumUrgentWorkers(), 1u);
    seen = drop("4", SABLO_PRIORITY_REALTIME);
    EXPECT_EQ(seen.policy, SCHED_FIFO);
    EXPECT_EQ(seen.priority, 50);
    EXPECT_EQ(drop("4", SABLO_PRIORITY_DEFAULT).policy, SCHED_FIFO) << "0 leaves the class";
    EXPECT_EQ(drop("4", SABLO_PRIORITY_NORMAL).policy, SCHED_OTHER);
}
