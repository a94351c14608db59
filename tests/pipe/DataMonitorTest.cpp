// The receive monitor: its table of pipes, its one thread, and its teardown, also after an
// Init that failed half-way.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <future>

#include "LogCapture.h"
#include "PipeRig.h"

using namespace pipe_test;
using sable_test::LogCapture;
using sable_test::OpenFds;

namespace {

// "sable_comm_monitor" as the kernel keeps it (15 characters).
const char* const kMonitorThread = "sable_comm_moni";

// Reports go nowhere: for pipes that are only table entries here.
class QuietObserver : public PipeObserver {
  public:
    int OnRequestIn(std::string, const std::function<void()>&, SabloPriority) const override {
        return 0;
    }
    int OnAsyncRequestIn(const std::function<void()>&, SabloPriority) const override { return 0; }
    int OnPipeOpened(int, int, std::shared_ptr<SablePipeImpl>) override { return 0; }
    void OnOpenFailed(int) override {}
    void OnPipeRemoteClosed(int) override {}
    int OnFreeSelfWorker(std::string) override { return 0; }
};

std::shared_ptr<SablePipeImpl> IdlePipe(PipeObserver& observer, const std::string& self) {
    SabloAttr attr;
    std::string remote = self + "_r";
    attr.selfName = self.c_str();
    attr.targetName = remote.c_str();
    attr.priority = SABLO_PRIORITY_DEFAULT;
    return std::make_shared<SablePipeImpl>(attr, observer);
}

struct OsPipe {
    OsPipe() { EXPECT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0); }
    ~OsPipe() {
        close(fds[0]);
        close(fds[1]);
    }
    int fds[2] = {-1, -1};
};

int LowestFreeFd() {
    auto open = OpenFds();
    int fd = 0;
    while (open.count(fd) != 0) fd++;
    return fd;
}

bool DestroysWithin(DataMonitorImpl& monitor, int seconds) {
    auto done = std::async(std::launch::async, [&] { monitor.Destroy(); });
    return done.wait_for(std::chrono::seconds(seconds)) == std::future_status::ready;
}

}  // namespace

TEST(DataMonitor, AddingAnIndexTwiceKeepsTheFirstEntry) {
    QuietObserver observer;
    DataMonitorImpl monitor;
    ASSERT_EQ(monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT), 0);
    OsPipe first, second;
    auto kept = IdlePipe(observer, sable_test::UniqueName("dm"));
    auto ignored = IdlePipe(observer, sable_test::UniqueName("dm"));
    EXPECT_EQ(monitor.Add(5, first.fds[0], kept), 0);
    EXPECT_EQ(monitor.Add(5, second.fds[0], ignored), 0);
    EXPECT_EQ(monitor.Size(), 1u);
    EXPECT_EQ(kept.use_count(), 2);
    EXPECT_EQ(ignored.use_count(), 1) << "the second pipe is not held";
    EXPECT_EQ(monitor.RemoveFd(second.fds[0]), -ENOENT) << "its descriptor was never watched";
    LogCapture cap;
    EXPECT_EQ(monitor.Remove(5), 0);
    EXPECT_FALSE(cap.Contains("RemoveFd unfinished")) << "the entry held the first descriptor";
    EXPECT_EQ(kept.use_count(), 1);
    EXPECT_EQ(monitor.Size(), 0u);
    monitor.Destroy();
    // Remove never closes a descriptor: the pipe owns it.
    EXPECT_NE(fcntl(first.fds[0], F_GETFD), -1);
}

TEST(DataMonitor, AddOfADescriptorThatCannotBeWatchedLeavesTheTableAlone) {
    QuietObserver observer;
    DataMonitorImpl monitor;
    ASSERT_EQ(monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT), 0);
    auto pipe = IdlePipe(observer, sable_test::UniqueName("dm"));
    LogCapture cap;
    EXPECT_EQ(monitor.Add(3, -1, pipe), -EBADF);
    EXPECT_TRUE(cap.Contains("DataMonitorImpl AddFd failed. pipeIdx = 3, readFd = -1."));
    EXPECT_EQ(monitor.Size(), 0u);
    EXPECT_EQ(pipe.use_count(), 1);
}

TEST(DataMonitor, RemovingAnUnknownIndexIsEnoentAndNoError) {
    DataMonitorImpl monitor;
    ASSERT_EQ(monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT), 0);
    LogCapture cap;
    EXPECT_EQ(monitor.Remove(42), -ENOENT);
    EXPECT_TRUE(cap.Lines().empty()) << "info level only";
}

TEST(DataMonitor, SecondInitStartsNoSecondThread) {
    const int threads = ThreadsNamed(kMonitorThread);
    auto before = OpenFds();
    DataMonitorImpl monitor;
    ASSERT_EQ(monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT), 0);
    ASSERT_TRUE(
        sable_test::WaitUntil([&] { return ThreadsNamed(kMonitorThread) == threads + 1; }, 5000));
    auto afterFirst = OpenFds();
    EXPECT_EQ(afterFirst.size(), before.size() + 2) << "an epoll set and an eventfd";
    EXPECT_EQ(monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_REMOTE_DEFAULT), 0);
    EXPECT_EQ(ThreadsNamed(kMonitorThread), threads + 1);
    EXPECT_EQ(OpenFds(), afterFirst);
    EXPECT_TRUE(monitor.IsDataMonitorRemoteMode());
    ASSERT_TRUE(DestroysWithin(monitor, 10));
    EXPECT_EQ(ThreadsNamed(kMonitorThread), threads);
    EXPECT_EQ(OpenFds(), before);
}

TEST(DataMonitor, DestroyJoinsAndTheMonitorCanStartAgain) {
    const int threads = ThreadsNamed(kMonitorThread);
    auto before = OpenFds();
    DataMonitorImpl monitor;
    ASSERT_EQ(monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT), 0);
    ASSERT_TRUE(DestroysWithin(monitor, 10));
    EXPECT_EQ(ThreadsNamed(kMonitorThread), threads) << "joined, not left running";
    EXPECT_TRUE(monitor.RecvRoutineStopped());
    ASSERT_TRUE(DestroysWithin(monitor, 10)) << "a second Destroy is harmless";
    ASSERT_EQ(monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT), 0);
    EXPECT_FALSE(monitor.RecvRoutineStopped());
    ASSERT_TRUE(
        sable_test::WaitUntil([&] { return ThreadsNamed(kMonitorThread) == threads + 1; }, 5000));
    ASSERT_TRUE(DestroysWithin(monitor, 10));
    EXPECT_EQ(OpenFds(), before);
}

TEST(DataMonitor, DestroyOfANeverInitialisedMonitorDoesNotBlock) {
    DataMonitorImpl monitor;
    EXPECT_TRUE(DestroysWithin(monitor, 10));
}

// The descriptor limit lets Init get only so far; what it made is released by Destroy.
TEST(DataMonitor, DestroyAfterAFailedInitClosesWhatExists) {
    {
        // Everything that runs once per process (the process name behind the first log line,
        // the sanitizers' own look-ups, which need descriptors too) runs here first.
        DataMonitorImpl warm;
        ASSERT_EQ(warm.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT), 0);
        LogCapture cap;
        EXPECT_NE(warm.RemoveFd(-1), 0);
        EXPECT_FALSE(cap.Lines().empty());
    }
    const int threads = ThreadsNamed(kMonitorThread);
    auto before = OpenFds();
    struct rlimit old {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    struct Case {
        int extraFds;  // descriptors Init may open before it runs out
        std::string line;
    };
    for (const Case& c : {Case{0, "Create epoll instance failed, err = -1, errno = 24"},
                          Case{1, "Create eventFd failed, errno = 24"}}) {
        DataMonitorImpl monitor;
        LogCapture cap;
        struct rlimit low = old;
        low.rlim_cur = static_cast<rlim_t>(LowestFreeFd() + c.extraFds);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
        int ret = monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT);
        setrlimit(RLIMIT_NOFILE, &old);
        EXPECT_EQ(ret, -EMFILE);
        EXPECT_TRUE(cap.Contains(c.line)) << c.line;
        if (c.extraFds == 1) {
            EXPECT_TRUE(cap.Contains("Create epoll instance failed, err = -24"));
        }
        EXPECT_EQ(OpenFds(), before) << "Init cleaned up after itself";
        EXPECT_TRUE(DestroysWithin(monitor, 10));
        EXPECT_EQ(ThreadsNamed(kMonitorThread), threads);
    }
    EXPECT_EQ(OpenFds(), before);
}

TEST(DataMonitor, HangUpRemovesTheEntryEvenWhenTheOwnerKeepsIt) {
    PipeRig rig;
    rig.observer.removeOnRemoteClose = false;
    Recorder ra;
    std::shared_ptr<SablePipeImpl> a, b;
    EndSpec ea;
    ea.callback = ra.Callback();
    rig.OpenPair(ea, {}, a, b);
    ASSERT_EQ(rig.monitor.Size(), 2u);
    b->DeInitPipe();  // not removed from the monitor: b's entry stays, a hangs up
    ASSERT_TRUE(ra.WaitForCount(1));
    EXPECT_TRUE(ra.Snapshot()[0].isNull);
    EXPECT_TRUE(sable_test::WaitUntil([&] { return rig.monitor.Size() == 1u; }, 10000));
    EXPECT_EQ(rig.observer.remoteClosed, 1);
}

TEST(DataMonitor, EventsFindThePipeByItsIndex) {
    PipeRig rig;
    Recorder ra;
    EndSpec ea;
    ea.callback = ra.Callback();
    std::shared_ptr<SablePipeImpl> a, b;
    rig.OpenPair(ea, {}, a, b);
    // The index is the pipe number set by hand, unrelated to the descriptor.
    ASSERT_NE(a->GetPipeFd(), a->GetReadFd());
    Payload p(1, 1);
    ASSERT_EQ(b->Send(p.Request(3), 100), 0);
    ASSERT_TRUE(ra.WaitForCount(1));
    EXPECT_EQ(ra.Snapshot()[0].fd, a->GetPipeFd());
}
