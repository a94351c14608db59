#include <errno.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

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
    EXPECT_TRUE(cap.Contains("No such SabloPriority, input is 3\n"));
    EXPECT_TRUE(cap.Contains("Set worker attribute failed, ret = -22\n"));
    // Refused before a worker is bound: the slot is still free for a name.
    EXPECT_EQ(pools.callbacks.DropTo(
                  "5", [&] { ++ran; }, badPrio),
              -EINVAL);
    EXPECT_EQ(pools.workers->WorkerOf("5"), nullptr);
    EXPECT_EQ(pools.callbacks.DropTo(
                  "5", [&] { ++ran; }, SABLO_PRIORITY_DEFAULT),
              0);
    EXPECT_TRUE(WaitUntil([&] { return ran == 21; }, WAIT_MS));

    // No slot left for another name: refused at once, the callback not kept.
    auto capture = std::make_shared<int>(0);
    std::weak_ptr<int> watch = capture;
    EXPECT_EQ(pools.callbacks.DropTo(
                  "b", [capture] {}, SABLO_PRIORITY_DEFAULT),
              -ENOSPC);
    capture.reset();
    EXPECT_TRUE(watch.expired()) << "the refused callback is not held anywhere";
    EXPECT_EQ(ran, 21);
}

TEST(CallbackPool, DestroyWaitsForRunningCallbacksRunsQueuedOnesAndRefusesLaterDrops) {
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
    EXPECT_TRUE(pool_test::StillBlocked(destroyed)) << "Destroy must wait for running callbacks";
    EXPECT_EQ(named->WaitingTasks(), 3u) << "accepted callbacks are kept";
    EXPECT_EQ(pools.callbacks.DropTo(
                  "9", [&] { ++late; }, SABLO_PRIORITY_DEFAULT),
              -EACCES)
        << "a stopping worker refuses what it could not run";
    gate.Open();
    ASSERT_TRUE(pool_test::Ends(destroyed));
    EXPECT_EQ(finished, 2);
    EXPECT_EQ(late, 3) << "every callback accepted before Destroy has run";

    LogCapture cap;
    EXPECT_EQ(pools.callbacks.DropAsyncTask([&] { ++late; }, SABLO_PRIORITY_NORMAL), -EACCES);
    auto lines = cap.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].text.find("Using thread pool after destroy."), std::string::npos);
    EXPECT_EQ(lines[0].level, LOG_WARNING);
    EXPECT_EQ(pools.callbacks.DropTo(
                  "new", [&] { ++late; }, SABLO_PRIORITY_NORMAL),
              -EACCES);
    EXPECT_EQ(late, 3);
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


// Threads drop callbacks (on borrowed workers and on names of their own) while the pool is
// destroyed: every drop either returned an error or its callback ran.
TEST(CallbackPool, DropsRacingDestroyEitherRunOrFail) {
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        // Four names bound for good, and slots left for borrowing.
        Pools pools(6, 1);
        std::atomic<int> accepted{0};
        std::atomic<int> ran{0};
        std::atomic<int> refused{0};
        std::atomic<bool> go{false};
        std::vector<std::future<void>> droppers;
        for (int i = 0; i < 4; ++i) {
            droppers.push_back(std::async(std::launch::async, [&, i] {
                while (!go.load()) std::this_thread::yield();
                const std::string name = "d" + std::to_string(i);
                for (int n = 0; n < 2000; ++n) {
                    const SabloPriority prio = n % 3 == 0 ? SABLO_PRIORITY_REALTIME
                                                          : SABLO_PRIORITY_DEFAULT;
                    int ret = (n + i) % 2 == 0 ? pools.callbacks.DropTo(
                                                     name, [&] { ++ran; }, prio)
                                               : pools.callbacks.DropAsyncTask([&] { ++ran; },
                                                                               prio);
                    if (ret == 0) {
                        ++accepted;
                    } else if (++refused > 0 && pools.workers->GetFreeSlot(0) == -EACCES) {
                        return;  // the pool is going: nothing more will be accepted
                    }
                }
            }));
        }
        go = true;
        ASSERT_TRUE(WaitUntil([&] { return accepted > 10 * (round % 5); }, WAIT_MS));
        pools.callbacks.Destroy();
        for (auto& dropper : droppers) {
            ASSERT_TRUE(pool_test::Ends(dropper));
        }
        EXPECT_TRUE(WaitUntil([&] { return ran == accepted; }, WAIT_MS));
        EXPECT_EQ(ran.load(), accepted.load()) << "accepted callbacks were lost";
    }
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft());
}
