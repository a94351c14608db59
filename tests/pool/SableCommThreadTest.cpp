#include <errno.h>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "PoolTestUtil.h"
#include "pool/sable_comm_thread.h"

using pool_test::SeenOf;
using sable_test::LogCapture;

namespace {

// A started thread that publishes its handle and runs until released at scope exit.
class ParkedThread {
  public:
    explicit ParkedThread(SabloPriority start = SABLO_PRIORITY_NORMAL) : thread(start) {}
    ~ParkedThread() {
        gate.Open();
        if (thread.Joinable()) thread.Join();
    }
    void Start() { thread.Create(&ParkedThread::Routine, this); }
    pthread_t Handle() {
        sable_test::WaitUntil([this] { return handle != pthread_t{}; }, pool_test::WAIT_MS);
        return handle;
    }
    SableCommThread thread;

    void Routine() {
        handle = pthread_self();
        gate.Wait();
    }

  private:
    pool_test::Gate gate;
    std::atomic<pthread_t> handle{};
};

const char* const REFUSED_LINE = "Pthread_setschedparam failed for thread(";

}  // namespace

TEST(SableCommThread, OutOfTablePrioritiesAndAMissingThreadAreRefused) {
    ParkedThread parked(SABLO_PRIORITY_REALTIME);
    EXPECT_EQ(parked.thread.SetRTType(SABLO_PRIORITY_NORMAL), -ESRCH) << "no thread yet";
    EXPECT_EQ(parked.thread.GetRTType(), SABLO_PRIORITY_REALTIME);
    // Created from this ordinary thread, the new one runs ordinary, whatever was stored.
    parked.Start();
    EXPECT_EQ(parked.thread.GetRTType(), SABLO_PRIORITY_NORMAL);

    LogCapture cap;
    EXPECT_EQ(parked.thread.SetRTType(SABLO_PRIORITY_DEFAULT), -EINVAL);
    EXPECT_EQ(parked.thread.SetRTType(static_cast<SabloPriority>(3)), -EINVAL);
    EXPECT_TRUE(cap.Contains("No such SabloPriority, input is 0\n"));
    EXPECT_TRUE(cap.Contains("No such SabloPriority, input is 3\n"));
    EXPECT_EQ(parked.thread.GetRTType(), SABLO_PRIORITY_NORMAL);
    EXPECT_EQ(SeenOf(parked.Handle()).policy, SCHED_OTHER);
}

TEST(SableCommThread, RealtimeRunsFifo50AndTheStoredClassMakesNoSystemCall) {
    if (!pool_test::CanUseFifo()) GTEST_SKIP() << "this process may not use SCHED_FIFO";
    ParkedThread parked;
    parked.Start();
    pthread_t handle = parked.Handle();
    EXPECT_EQ(parked.thread.SetRTType(SABLO_PRIORITY_REALTIME), 0);
    EXPECT_EQ(parked.thread.GetRTType(), SABLO_PRIORITY_REALTIME);
    EXPECT_EQ(SeenOf(handle).policy, SCHED_FIFO);
    EXPECT_EQ(SeenOf(handle).priority, 50);
    EXPECT_EQ(parked.thread.SetRTType(SABLO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(SeenOf(handle).policy, SCHED_OTHER);
    EXPECT_EQ(SeenOf(handle).priority, 0);

    // Switched behind the object's back: asking again for the stored class must not touch it.
    struct sched_param fifo = {};
    fifo.sched_priority = 50;
    ASSERT_EQ(pthread_setschedparam(handle, SCHED_FIFO, &fifo), 0);
    EXPECT_EQ(parked.thread.SetRTType(SABLO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(SeenOf(handle).policy, SCHED_FIFO);
}

TEST(SableCommThread, AThreadCreatedByARealtimeThreadStartsOrdinaryOnTheStackAskedFor) {
    if (!pool_test::CanUseFifo()) GTEST_SKIP() << "this process may not use SCHED_FIFO";
    ParkedThread parked;
    std::thread([&] {
        ASSERT_EQ(pool_test::SetSelf(SCHED_FIFO, 50), 0);
        parked.thread.Create(&ParkedThread::Routine, &parked, 256 * 1024);
    }).join();
    pthread_t handle = parked.Handle();
    EXPECT_EQ(SeenOf(handle).policy, SCHED_OTHER) << "not inherited from its creator";
    EXPECT_EQ(parked.thread.GetRTType(), SABLO_PRIORITY_NORMAL);
    pthread_attr_t attr;
    ASSERT_EQ(pthread_getattr_np(handle, &attr), 0);
    size_t size = 0;
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    EXPECT_EQ(size, 256u * 1024);
}

TEST(SableCommThread, RefusedRealtimeSwitchIsLoggedAndReturnsZeroWithClassUnchanged) {
    const int SKIP = 77;
    int result = pool_test::RunInChild([] {
        if (!pool_test::DropRealtimeRights() || pool_test::CanUseFifo()) return SKIP;
        ParkedThread parked;
        parked.Start();
        LogCapture cap;
        // The failed check is the exit status; what failed goes to stderr.
        auto check = [](bool ok, const char* what) {
            if (!ok) fprintf(stderr, "failed: %s\n", what);
            return ok;
        };
        bool ok = check(parked.thread.SetRTType(SABLO_PRIORITY_REALTIME) == 0, "returns 0");
        ok &= check(cap.Find(REFUSED_LINE).find("setSchedParam 2 ret(1).") != std::string::npos,
                    "logs the request and EPERM");
        ok &= check(parked.thread.GetRTType() == SABLO_PRIORITY_NORMAL, "class unchanged");
        ok &= check(SeenOf(parked.Handle()).policy == SCHED_OTHER, "thread not switched");
        // The stored class is still ordinary, so a second request tries again.
        ok &= check(parked.thread.SetRTType(SABLO_PRIORITY_REALTIME) == 0, "second returns 0");
        ok &= check(cap.Count(REFUSED_LINE) == 2, "second request tried");
        return ok ? 0 : 1;
    });
    if (result == SKIP) GTEST_SKIP() << "the rights to real-time scheduling could not be dropped";
    EXPECT_EQ(result, 0);
}
