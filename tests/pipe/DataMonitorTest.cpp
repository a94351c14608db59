// The receive monitor: its table of pipes, its one thread, and its teardown, also after an
// Init that failed half-way.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <future>

#include "LogCapture.h"
#include "PipeRig.h"

using namespace pipe_test;
using sable_test::OpenFds;

namespace {

// Threads of this process named "sable_comm_monitor" (as the kernel keeps it, 15 characters).
int MonitorThreads() {
    int n = 0;
    DIR* d = opendir("/proc/self/task");
    while (dirent* e = d ? readdir(d) : nullptr) {
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        n += name == "sable_comm_moni" ? 1 : 0;
    }
    if (d != nullptr) closedir(d);
    return n;
}

bool DestroysWithin10s(DataMonitorImpl& monitor) {
    auto done = std::async(std::launch::async, [&] { monitor.Destroy(); });
    return done.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
}

}  // namespace

TEST(DataMonitor, AddingAnIndexTwiceKeepsTheFirstAndRemovingAnUnknownOneIsEnoent) {
    PipeRig rig;
    auto kept = rig.Make(rig.Name("k"), rig.Name("r"), SABLO_MODE_JOIN, 0);
    auto ignored = rig.Make(rig.Name("i"), rig.Name("r"), SABLO_MODE_JOIN, 0);
    int first[2], second[2];
    ASSERT_EQ(pipe2(first, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(second, O_CLOEXEC), 0);
    const long keptRefs = kept.use_count(), ignoredRefs = ignored.use_count();
    EXPECT_EQ(rig.monitor.Add(500, first[0], kept), 0);
    EXPECT_EQ(rig.monitor.Add(500, second[0], ignored), 0);
    EXPECT_EQ(rig.monitor.Size(), 1u);
    EXPECT_EQ(kept.use_count(), keptRefs + 1);
    EXPECT_EQ(ignored.use_count(), ignoredRefs) << "the second pipe is not held";
    EXPECT_EQ(rig.monitor.RemoveFd(second[0]), -ENOENT) << "nor its descriptor watched";
    EXPECT_EQ(rig.monitor.Remove(500), 0);
    EXPECT_EQ(kept.use_count(), keptRefs);
    EXPECT_EQ(rig.monitor.Remove(42), -ENOENT);
    EXPECT_NE(fcntl(first[0], F_GETFD), -1) << "the pipe owns the descriptor, not the monitor";
    for (int fd : {first[0], first[1], second[0], second[1]}) close(fd);
}

TEST(DataMonitor, SecondInitStartsNoThreadAndDestroyJoinsAlsoAfterAFailedInit) {
    sable_test::LogCapture cap;
    const int threads = MonitorThreads();
    const auto before = OpenFds();
    DataMonitorImpl monitor;
    ASSERT_EQ(monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT), 0);
    ASSERT_TRUE(sable_test::WaitUntil([&] { return MonitorThreads() == threads + 1; }, 5000));
    const auto running = OpenFds();
    EXPECT_EQ(running.size(), before.size() + 3) << "an epoll set and two eventfds (exit, resume)";
    EXPECT_EQ(monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT), 0);
    EXPECT_EQ(MonitorThreads(), threads + 1);
    EXPECT_EQ(OpenFds(), running);
    // Whatever a process does once at its first log line is done before descriptors run short.
    EXPECT_NE(monitor.RemoveFd(-1), 0);
    ASSERT_TRUE(DestroysWithin10s(monitor));
    // A joined thread can linger in /proc for a moment after the join returned.
    EXPECT_TRUE(sable_test::WaitUntil([&] { return MonitorThreads() == threads; }, 5000))
        << "joined, not left running";
    EXPECT_EQ(OpenFds(), before);

    // With one descriptor to spare Init gets its epoll set but no eventfd.
    struct rlimit old {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    struct rlimit low = old;
    low.rlim_cur = 0;
    while (before.count(static_cast<int>(low.rlim_cur)) != 0) low.rlim_cur++;
    low.rlim_cur++;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    const int ret = monitor.Init(SABLO_PRIORITY_DEFAULT, kEventIdx, DATA_MONITOR_LOCAL_DEFAULT);
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(ret, -EMFILE);
    EXPECT_TRUE(cap.Contains("Create eventFd failed, errno = 24"));
    EXPECT_EQ(OpenFds(), before) << "Init cleaned up after itself";
    EXPECT_TRUE(DestroysWithin10s(monitor));
    EXPECT_TRUE(sable_test::WaitUntil([&] { return MonitorThreads() == threads; }, 5000));
}
