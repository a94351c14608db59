#include "pool/sable_comm_thread.h"

#include <errno.h>
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "PoolTestUtil.h"

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

private:
    void Routine() {
        handle = pthread_self();
        gate.Wait();
    }
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

TEST(SableCommThread, RefusedRealtimeSwitchIsLoggedAndReturnsZeroWithClassUnchanged) {
    std::string report = pool_test::RunInChild([]() -> std::string {
        if (!pool_test::DropRealtimeRights()) return "skip: could not drop privileges";
        if (pool_test::CanUseFifo()) return "skip: SCHED_FIFO still allowed without privileges";
        ParkedThread parked;
        parked.Start();
        LogCapture cap;
        std::string failures;
        if (parked.thread.SetRTType(SABLO_PRIORITY_REALTIME) != 0) failures += "not 0; ";
        std::string line = cap.Find(REFUSED_LINE);
        if (line.find("setSchedParam 2 ret(1).") == std::string::npos) {
            failures += "no line with request and EPERM: " + line + "; ";
        }
        if (parked.thread.GetRTType() != SABLO_PRIORITY_NORMAL) failures += "class changed; ";
        if (SeenOf(parked.Handle()).policy != SCHED_OTHER) failures += "thread switched; ";
        // The stored class is still ordinary, so a second request tries again.
        if (parked.thread.SetRTType(SABLO_PRIORITY_REALTIME) != 0) failures += "second not 0; ";
        if (cap.Count(REFUSED_LINE) != 2) failures += "second request not tried; ";
        return failures.empty() ? "ok" : failures;
    });
    if (report.rfind("skip:", 0) == 0) GTEST_SKIP() << report;
    EXPECT_EQ(report, "ok");
}
