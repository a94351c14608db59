#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>

#include "LogCapture.h"
#include "PoolTestUtil.h"
#include "pool/sable_comm_thread.h"

using pool_test::Gate;
using pool_test::SchedOf;
using sable_test::LogCapture;

namespace {

// An owner whose routine publishes its handle and runs until its gate opens.
struct Parked {
    Gate gate;
    std::atomic<pthread_t> handle{};
    void Routine() {
        handle.store(pthread_self());
        gate.Wait();
    }
    pthread_t Handle() {
        sable_test::WaitUntil([this] { return handle != pthread_t{}; },
                              pool_test::WAIT_MS);
        return handle;
    }
};

// A started thread that is released and joined at scope exit.
class ParkedThread {
public:
    explicit ParkedThread(SabloPriority start = SABLO_PRIORITY_NORMAL) : thread(start) {
        thread.Create(&Parked::Routine, &owner);
    }
    ~ParkedThread() {
        owner.gate.Open();
        thread.Join();
    }
    SableCommThread thread;
    Parked owner;
};

const char* const REFUSED_LINE = "Pthread_setschedparam failed for thread(";

}  // namespace

TEST(SableCommThread, JoinableOnlyWhileAThreadIsHeld) {
    SableCommThread thread;
    EXPECT_FALSE(thread.Joinable());
    Parked owner;
    thread.Create(&Parked::Routine, &owner);
    EXPECT_TRUE(thread.Joinable());
    owner.gate.Open();
    thread.Join();
    EXPECT_FALSE(thread.Joinable());
}

TEST(SableCommThread, PrioritiesOutsideTheTableAreRefusedAndChangeNothing) {
    ParkedThread parked;
    LogCapture cap;
    EXPECT_EQ(parked.thread.SetRTType(SABLO_PRIORITY_DEFAULT), -EINVAL);
    EXPECT_EQ(parked.thread.SetRTType(static_cast<SabloPriority>(3)), -EINVAL);
    EXPECT_EQ(parked.thread.SetRTType(static_cast<SabloPriority>(-1)), -EINVAL);
    EXPECT_TRUE(cap.Contains("No such SabloPriority, input is 0\n"));
    EXPECT_TRUE(cap.Contains("No such SabloPriority, input is 3\n"));
    EXPECT_TRUE(cap.Contains("No such SabloPriority, input is -1\n"));
    EXPECT_FALSE(cap.Contains(REFUSED_LINE));
    EXPECT_EQ(parked.thread.GetRTType(), SABLO_PRIORITY_NORMAL);
    EXPECT_EQ(SchedOf(parked.owner.Handle()).policy, SCHED_OTHER);
}

TEST(SableCommThread, StartingClassHoldsUntilTheThreadExists) {
    SableCommThread thread(SABLO_PRIORITY_REALTIME);
    EXPECT_EQ(thread.GetRTType(), SABLO_PRIORITY_REALTIME);
    // Nothing to switch yet.
    EXPECT_EQ(thread.SetRTType(SABLO_PRIORITY_NORMAL), -ESRCH);
    EXPECT_EQ(thread.GetRTType(), SABLO_PRIORITY_REALTIME);

    // Created from this ordinary thread, the new one runs ordinary, whatever was stored.
    Parked owner;
    thread.Create(&Parked::Routine, &owner);
    EXPECT_EQ(thread.GetRTType(), SABLO_PRIORITY_NORMAL);
    owner.gate.Open();
    thread.Join();
}

TEST(SableCommThread, RealtimeClassRunsFifo50AndBack) {
    if (!pool_test::CanUseFifo()) {
        GTEST_SKIP() << "this process may not use SCHED_FIFO";
    }
    Parked owner;
    SableCommThread thread;
    thread.Create(&Parked::Routine, &owner);
    pthread_t handle = owner.Handle();

    LogCapture cap;
    EXPECT_EQ(thread.SetRTType(SABLO_PRIORITY_REALTIME), 0);
    EXPECT_EQ(thread.GetRTType(), SABLO_PRIORITY_REALTIME);
    pool_test::Sched s = SchedOf(handle);
    EXPECT_EQ(s.policy, SCHED_FIFO);
    EXPECT_EQ(s.priority, 50);

    EXPECT_EQ(thread.SetRTType(SABLO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(thread.GetRTType(), SABLO_PRIORITY_NORMAL);
    s = SchedOf(handle);
    EXPECT_EQ(s.policy, SCHED_OTHER);
    EXPECT_EQ(s.priority, 0);
    EXPECT_FALSE(cap.Contains(REFUSED_LINE));

    owner.gate.Open();
    thread.Join();
}

TEST(SableCommThread, SamePriorityTwiceMakesOneSystemCall) {
    if (!pool_test::CanUseFifo()) {
        GTEST_SKIP() << "this process may not use SCHED_FIFO";
    }
    Parked owner;
    SableCommThread thread;
    thread.Create(&Parked::Routine, &owner);
    pthread_t handle = owner.Handle();

    ASSERT_EQ(thread.SetRTType(SABLO_PRIORITY_REALTIME), 0);
    // Put the thread back to ordinary behind the object's back: a second request for the
    // stored class must not touch the thread, so it stays ordinary.
    struct sched_param ordinary = {};
    ASSERT_EQ(pthread_setschedparam(handle, SCHED_OTHER, &ordinary), 0);
    EXPECT_EQ(thread.SetRTType(SABLO_PRIORITY_REALTIME), 0);
    EXPECT_EQ(SchedOf(handle).policy, SCHED_OTHER);
    EXPECT_EQ(thread.GetRTType(), SABLO_PRIORITY_REALTIME);

    owner.gate.Open();
    thread.Join();
}

TEST(SableCommThread, ThreadCreatedByARealtimeThreadReportsItsInheritedClass) {
    if (!pool_test::CanUseFifo()) {
        GTEST_SKIP() << "this process may not use SCHED_FIFO";
    }
    SableCommThread thread;
    Parked owner;
    // The creator runs SCHED_FIFO 50, so the new thread does too.
    std::thread creator([&] {
        ASSERT_EQ(pool_test::SetSelf(SCHED_FIFO, 50), 0);
        thread.Create(&Parked::Routine, &owner);
    });
    creator.join();
    EXPECT_EQ(thread.GetRTType(), SABLO_PRIORITY_REALTIME);
    pool_test::Sched s = SchedOf(owner.Handle());
    EXPECT_EQ(s.policy, SCHED_FIFO);
    EXPECT_EQ(s.priority, 50);
    // So asking for ordinary really switches it.
    EXPECT_EQ(thread.SetRTType(SABLO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(thread.GetRTType(), SABLO_PRIORITY_NORMAL);
    EXPECT_EQ(SchedOf(owner.Handle()).policy, SCHED_OTHER);
    owner.gate.Open();
    thread.Join();
}

TEST(SableCommThread, RefusedRealtimeSwitchIsLoggedAndReturnsZeroWithClassUnchanged) {
    std::string report = pool_test::RunInChild([](const auto& tell) {
        if (!pool_test::DropRealtimeRights()) {
            tell("skip: could not drop privileges");
            return;
        }
        if (pool_test::CanUseFifo()) {
            tell("skip: SCHED_FIFO still allowed without privileges");
            return;
        }
        Parked owner;
        SableCommThread thread;
        thread.Create(&Parked::Routine, &owner);
        pthread_t handle = owner.Handle();
        std::string failures;
        {
            LogCapture cap;
            if (thread.SetRTType(SABLO_PRIORITY_REALTIME) != 0) failures += "first call not 0; ";
            if (cap.Count(REFUSED_LINE) != 1) failures += "no failure line; ";
            std::string line = cap.Find(REFUSED_LINE);
            if (line.find("setSchedParam 2 ret(1).") == std::string::npos) {
                failures += "line lacks request and EPERM: " + line + "; ";
            }
            if (thread.GetRTType() != SABLO_PRIORITY_NORMAL) failures += "class changed; ";
            if (SchedOf(handle).policy != SCHED_OTHER) failures += "thread switched; ";
            // The stored class is still ordinary, so a second request tries again...
            if (thread.SetRTType(SABLO_PRIORITY_REALTIME) != 0) failures += "second call not 0; ";
            if (cap.Count(REFUSED_LINE) != 2) failures += "second request not tried; ";
            // ...while the stored class itself makes no call.
            if (thread.SetRTType(SABLO_PRIORITY_NORMAL) != 0) failures += "ordinary not 0; ";
            if (cap.Count(REFUSED_LINE) != 2) failures += "ordinary made a call; ";
        }
        owner.gate.Open();
        thread.Join();
        tell(failures.empty() ? "ok" : failures);
    });
    if (report.rfind("skip:", 0) == 0) {
        GTEST_SKIP() << report;
    }
    EXPECT_EQ(report, "ok");
}
