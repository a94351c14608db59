#include <errno.h>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "PoolTestUtil.h"
#include "pool/Worker.h"

using pool_test::CountWorkerThreads;
using pool_test::Gate;
using pool_test::Post;
using pool_test::SeenBy;
using pool_test::WAIT_MS;
using sable_test::WaitUntil;

// Long enough for a started thread to be seen before it idles out.
constexpr std::chrono::milliseconds SHORT_IDLE{200};

TEST(Worker, ThousandAndFirstQueuedTaskIsRefusedWithBusyAndAStoppedWorkerRunsWhatItAccepted) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    Worker worker("full");
    ASSERT_TRUE(worker.Start());
    ASSERT_TRUE(pool_test::Occupy(worker, gate));
    std::atomic<int> ran{0};
    auto capture = std::make_shared<int>(0);
    std::weak_ptr<int> watch = capture;
    for (size_t i = 0; i < Worker::CAPACITY; ++i) {
        ASSERT_EQ(Post(worker, [&ran, capture] { ++ran; }), 0) << i;
    }
    capture.reset();
    EXPECT_EQ(worker.WaitingTasks(), 1000u);

    sable_test::LogCapture cap;
    Worker::TaskPtr refused = std::make_shared<SyncTask>([&ran] { ++ran; });
    EXPECT_EQ(worker.Assign(refused), -EBUSY);
    EXPECT_NE(refused, nullptr) << "a refused task stays with the caller";
    EXPECT_TRUE(cap.Contains("Tasks exceeds worker's capacity(1000)\n"));

    worker.Stop();
    EXPECT_EQ(worker.WaitingTasks(), 1000u) << "accepted tasks are kept";
    EXPECT_EQ(worker.Assign(refused), -EACCES) << "a stopped worker takes nothing more";
    EXPECT_NE(refused, nullptr);
    gate.Open();
    worker.ThreadJoin();
    EXPECT_EQ(ran, 1000);
    EXPECT_TRUE(watch.expired()) << "the tasks are released once run";
    EXPECT_TRUE(pool_test::NoWorkerThreadLeft());

    Worker never("never");
    EXPECT_EQ(Post(never, [&ran] { ++ran; }), -EACCES) << "nothing would run it";
}

TEST(Worker, IdleThreadEndsAndTheNextAssignRestartsIt) {
    Gate gate;  // first: destroyed after every thread that may wait on it
    Worker worker("idle", SHORT_IDLE);
    ASSERT_TRUE(worker.Start());
    ASSERT_TRUE(WaitUntil([] { return CountWorkerThreads() == 1; }, WAIT_MS));
    ASSERT_TRUE(WaitUntil([] { return CountWorkerThreads() == 0; }, WAIT_MS));

    std::atomic<int> selfPost{1};
    std::atomic<bool> followed{false};
    pool_test::Seen seen = SeenBy([&](std::function<void()> probe) {
        return Post(worker, [&, probe] {
            probe();
            gate.Wait();
            selfPost = Post(worker, [&] { followed = true; });
        });
    });
    EXPECT_EQ(seen.name, pool_test::WorkerThreadName());
    std::this_thread::sleep_for(SHORT_IDLE * 3);
    EXPECT_EQ(CountWorkerThreads(), 1) << "a busy thread does not idle out";
    gate.Open();
    EXPECT_TRUE(WaitUntil([&] { return followed.load(); }, WAIT_MS));
    EXPECT_EQ(selfPost, 0) << "a task may post to its own worker";
}

TEST(Worker, RealtimeClassAppliesWhicheverThreadStartsTheWorker) {
    if (!pool_test::CanUseFifo()) GTEST_SKIP() << "this process may not use SCHED_FIFO";
    Worker worker("rt", SHORT_IDLE);
    auto post = [&](std::function<void()> fn) { return Post(worker, std::move(fn)); };
    // Started by a real-time thread, an ordinary worker still runs ordinary.
    std::thread([&] {
        ASSERT_EQ(pool_test::SetSelf(SCHED_FIFO, 50), 0);
        ASSERT_TRUE(worker.Start());
    }).join();
    EXPECT_EQ(SeenBy(post).policy, SCHED_OTHER);

    // The class outlives the thread: the one restarted by this ordinary thread runs it too.
    ASSERT_EQ(worker.SetRTType(SABLO_PRIORITY_REALTIME), 0);
    ASSERT_TRUE(WaitUntil([] { return CountWorkerThreads() == 0; }, WAIT_MS));
    pool_test::Seen seen = SeenBy(post);
    EXPECT_EQ(seen.policy, SCHED_FIFO);
    EXPECT_EQ(seen.priority, 50);
}
