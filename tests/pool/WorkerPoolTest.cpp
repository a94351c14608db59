#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <vector>

#include "PoolTestUtil.h"
#include "pool/WorkerPool.h"

using pool_test::Ends;
using pool_test::StillBlocked;
using std::launch;

TEST(WorkerPool, ThirdOrdinaryGrantBlocksUntilASlotIsFreedWhileAnUrgentGrantSucceeds) {
    WorkerPool pool(2, 1);
    Worker* first = pool.GetWorker();
    Worker* second = pool.GetWorker();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(first->Name(), "0");
    EXPECT_EQ(second->Name(), "1");

    auto third = std::async(launch::async, [&] { return pool.GetWorker(); });
    EXPECT_TRUE(StillBlocked(third)) << "the third ordinary grant must wait";
    Worker* urgent = pool.GetUrgentWorker();
    ASSERT_NE(urgent, nullptr);
    EXPECT_EQ(urgent->Name(), "2");
    EXPECT_TRUE(StillBlocked(third)) << "an urgent slot is not for ordinary callers";
    pool.FreeWorker(*first);
    ASSERT_TRUE(Ends(third));
    EXPECT_EQ(third.get(), first);
    pool.Destroy();
}

TEST(WorkerPool, DestroyWithNoRunningTaskReturnsAtOnceAndLaterGrantsFail) {
    WorkerPool pool(2, 1);
    ASSERT_NE(pool.GetWorker(), nullptr);
    ASSERT_EQ(pool.AllocWorker("named"), 0);
    ASSERT_NE(pool.GetUrgentWorker(), nullptr);
    ASSERT_TRUE(sable_test::WaitUntil([] { return pool_test::CountWorkerThreads() == 3; },
                                      pool_test::WAIT_MS));
    auto blocked = std::async(launch::async, [&] { return pool.GetWorker(); });
    ASSERT_TRUE(StillBlocked(blocked));

    // Every worker is lent (one bound to a name) but none runs a task.
    EXPECT_TRUE(Ends(std::async(launch::async, [&] { pool.Destroy(); })));
    ASSERT_TRUE(Ends(blocked)) << "a caller waiting for a slot is woken";
    EXPECT_EQ(blocked.get(), nullptr);
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft());

    EXPECT_EQ(pool.GetFreeSlot(3), -EACCES);
    EXPECT_EQ(pool.PickupWorker(3), -EACCES);
    EXPECT_EQ(pool.GetWorker(), nullptr);
    EXPECT_EQ(pool.GetUrgentWorker(), nullptr);
    EXPECT_EQ(pool.AllocWorker("late"), -EACCES);
}

TEST(WorkerPool, AnUrgentCallerTakesAnUrgentSlotFirstLeavingTheOrdinaryOneFree) {
    WorkerPool pool(1, 1);
    Worker* urgent = pool.GetUrgentWorker();
    ASSERT_NE(urgent, nullptr);
    EXPECT_EQ(urgent->Name(), "1");
    auto ordinary = std::async(launch::async, [&] { return pool.GetWorker(); });
    ASSERT_TRUE(Ends(ordinary)) << "the ordinary slot was left free";
    EXPECT_EQ(ordinary.get()->Name(), "0");
    pool.Destroy();
}

// Both slots of a 1 + 1 pool lent, one caller of each kind blocked (in either order), the slots
// given back in either order: each given-back slot goes at once to the caller that may use it.
TEST(WorkerPool, WaitersOfBothKindsAreEachServedAsSoonAsASlotTheyMayUseIsFree) {
    for (bool urgentWaitsFirst : {false, true}) {
        for (bool urgentSlotBackFirst : {false, true}) {
            SCOPED_TRACE(std::string(urgentWaitsFirst ? "urgent" : "ordinary") +
                         " caller waits first, " +
                         (urgentSlotBackFirst ? "urgent" : "ordinary") + " slot back first");
            WorkerPool pool(1, 1);
            Worker* ordinarySlot = pool.GetWorker();
            Worker* urgentSlot = pool.GetUrgentWorker();
            ASSERT_NE(ordinarySlot, nullptr);
            ASSERT_NE(urgentSlot, nullptr);
            std::future<Worker*> ordinary;
            std::future<Worker*> urgent;
            auto startOrdinary = [&] {
                ordinary = std::async(launch::async, [&] { return pool.GetWorker(); });
                ASSERT_TRUE(StillBlocked(ordinary));
            };
            auto startUrgent = [&] {
                urgent = std::async(launch::async, [&] { return pool.GetUrgentWorker(); });
                ASSERT_TRUE(StillBlocked(urgent));
            };
            if (urgentWaitsFirst) {
                startUrgent();
                startOrdinary();
            } else {
                startOrdinary();
                startUrgent();
            }
            if (urgentSlotBackFirst) {
                pool.FreeWorker(*urgentSlot);
                ASSERT_TRUE(Ends(urgent)) << "an urgent slot is free";
                EXPECT_EQ(urgent.get(), urgentSlot);
                EXPECT_TRUE(StillBlocked(ordinary));
                pool.FreeWorker(*ordinarySlot);
                ASSERT_TRUE(Ends(ordinary));
                EXPECT_EQ(ordinary.get(), ordinarySlot);
            } else {
                pool.FreeWorker(*ordinarySlot);
                ASSERT_TRUE(Ends(ordinary)) << "an ordinary slot goes to the ordinary caller";
                EXPECT_EQ(ordinary.get(), ordinarySlot);
                EXPECT_TRUE(StillBlocked(urgent));
                pool.FreeWorker(*urgentSlot);
                ASSERT_TRUE(Ends(urgent));
                EXPECT_EQ(urgent.get(), urgentSlot);
            }
            pool.Destroy();
        }
    }
    // Only an urgent caller waits: an ordinary slot given back serves it too.
    WorkerPool pool(1, 1);
    Worker* ordinarySlot = pool.GetWorker();
    ASSERT_NE(pool.GetUrgentWorker(), nullptr);
    auto urgent = std::async(launch::async, [&] { return pool.GetUrgentWorker(); });
    ASSERT_TRUE(StillBlocked(urgent));
    pool.FreeWorker(*ordinarySlot);
    ASSERT_TRUE(Ends(urgent));
    EXPECT_EQ(urgent.get(), ordinarySlot);
    pool.Destroy();
}

// Callers of both kinds borrowing and giving back the two slots of a 1 + 1 pool as fast as they
// can: a lost wake-up would leave one blocked for good.
TEST(WorkerPool, BorrowersOfBothKindsHammeringTwoSlotsAllFinish) {
    WorkerPool pool(1, 1);
    std::atomic<int> failures{0};
    std::vector<std::future<void>> borrowers;
    for (int i = 0; i < 6; ++i) {
        borrowers.push_back(std::async(launch::async, [&, i] {
            for (int round = 0; round < 300; ++round) {
                Worker* worker = i % 2 != 0 ? pool.GetUrgentWorker() : pool.GetWorker();
                if (worker == nullptr) {
                    ++failures;
                    return;
                }
                pool.FreeWorker(*worker);
            }
        }));
    }
    for (auto& borrower : borrowers) {
        ASSERT_TRUE(Ends(borrower)) << "a borrower stayed blocked";
    }
    EXPECT_EQ(failures, 0);
    pool.Destroy();
}
