#include <errno.h>
#include <gtest/gtest.h>

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
