// Pipes that recover: a peer killed and started again is reached again by a plain open, failed
// opens give their slots back, two name pairs never share a pipe, a close racing an open leaves
// no file, and an ordinary remote close logs no error.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "TestEnv.h"
#include "sable_comm.h"
#include "table/SableTable.h"
#include "table/TableFactory.h"

#if defined(__SANITIZE_ADDRESS__)
#define SABLE_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SABLE_TEST_ASAN 1
#endif
#endif
#ifndef SABLE_TEST_ASAN
#define SABLE_TEST_ASAN 0
#endif

namespace {

using sable_test::ChildProcess;
using sable_test::FifoFilesWith;
using sable_test::UniqueName;
using sable_test::WaitUntil;

std::atomic<int> requestsSeen{0};
std::atomic<int> closesSeen{0};

void Count(int, SabloRequest* req) {
    if (req == nullptr) {
        closesSeen++;
    } else {
        requestsSeen++;
    }
}

int Open(const std::string& self, const std::string& target, SabloMode mode, int timeout,
         SabloCallback callback = {}) {
    return sable_test::OpenPipe(self, target, mode, timeout, std::move(callback));
}

int Rpc(int fd) {
    uint8_t payload[64] = {7};
    SabloRequest req{0, payload, sizeof(payload)};
    SabloResponse rsp{};
    int ret = SabloTimedRPCSync(fd, &req, &rsp, 5000);
    // A creating end's write end opens once the peer reads: retry that moment.
    for (int i = 0; i < 2000 && ret == -ENXIO; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        ret = SabloTimedRPCSync(fd, &req, &rsp, 5000);
    }
    if (ret == 0 && rsp.size != sizeof(payload)) ret = -EBADMSG;
    DestroyResponse(&rsp);
    return ret;
}

// Whether this end creates the files, and whether its pipe has a request callback.
class PeerRestart : public ::testing::TestWithParam<std::tuple<bool, bool>> {
  protected:
    void SetUp() override { sable_test::EnsureFifoDir(); }
    void TearDown() override {
        EXPECT_TRUE(WaitUntil([&] { return FifoFilesWith(self).empty(); }, 10000));
    }
    const std::string self = UniqueName("stay");
    const std::string peer = UniqueName("peer");
};

TEST_P(PeerRestart, AKilledPeerStartedAgainIsReachedByAPlainOpen) {
    const bool thisEndCreates = std::get<0>(GetParam());
    const SabloCallback callback = std::get<1>(GetParam()) ? SabloCallback(Count) : nullptr;
    const SabloMode mode = thisEndCreates ? SABLO_MODE_CREATE : SABLO_MODE_JOIN;
    const std::string peerMode = thisEndCreates ? "0" : "1";
    int oldFd = -1;
    for (int life = 0; life < 2; ++life) {
        ChildProcess child("stream_peer", {"echo", peer, self, peerMode});
        if (!thisEndCreates) {
            ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
        }
        const int fd = Open(self, peer, mode, 10000, callback);
        ASSERT_GT(fd, 0) << "life " << life;
        if (thisEndCreates) {
            ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
        }
        EXPECT_NE(fd, oldFd) << "a new pipe under a new number";
        ASSERT_EQ(Rpc(fd), 0) << "life " << life;
        if (oldFd > 0) {
            uint8_t byte = 1;
            SabloRequest req{0, &byte, 1};
            int ret = SabloSendRequest(oldFd, &req);
            EXPECT_TRUE(ret == -ENOENT || ret == -EPIPE) << ret;
        }
        child.Kill(SIGKILL);
        child.ExpectExit(128 + SIGKILL);
        // This end sees the hang-up and removes the files of the pair.
        ASSERT_TRUE(WaitUntil([&] { return FifoFilesWith(self).empty(); }, 10000));
        oldFd = fd;
    }
    SabloClosePipe(oldFd);
}

INSTANTIATE_TEST_SUITE_P(BothEnds, PeerRestart,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()));

TEST(Recovery, FailedOpensLeaveNoSlotBehind) {
    sable_test::EnsureFifoDir();
    const std::string self = UniqueName("self");
    auto table = TableFactory::GetInstance();
    ASSERT_TRUE(table);
    const int before = table->Size();
    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(Open(self, UniqueName("absent"), SABLO_MODE_JOIN, 1), -ETIMEDOUT) << i;
    }
    EXPECT_EQ(table->Size(), before);
    const int fd = Open(self, UniqueName("nobody"), SABLO_MODE_CREATE, 0);
    EXPECT_GT(fd, 0);
    SabloClosePipe(fd);
    EXPECT_TRUE(FifoFilesWith(self).empty());
}

// "<base>ap" to "qr<base>" and "<base>apq" to "r<base>": the same names joined end to end.
TEST(Recovery, NamePairsThatJoinToTheSameTextAreTwoPipes) {
    sable_test::EnsureFifoDir();
    const std::string base = UniqueName("k");
    const std::string self1 = base + "ap", target1 = "qr" + base;
    const std::string self2 = base + "apq", target2 = "r" + base;
    ChildProcess peer1("pipe_peer", {"echo", target1, self1, "0", "10000", "0", "1"});
    ChildProcess peer2("pipe_peer", {"echo", target2, self2, "0", "10000", "0", "1"});
    const int fd1 = Open(self1, target1, SABLO_MODE_CREATE, 10000);
    const int fd2 = Open(self2, target2, SABLO_MODE_CREATE, 10000);
    ASSERT_GT(fd1, 0);
    ASSERT_GT(fd2, 0);
    EXPECT_NE(fd1, fd2);
    ASSERT_EQ(peer1.ReadLine().rfind("ready ", 0), 0u);
    ASSERT_EQ(peer2.ReadLine().rfind("ready ", 0), 0u);
    EXPECT_EQ(Rpc(fd1), 0);
    EXPECT_EQ(Rpc(fd2), 0);
    // Each peer answered exactly one request: its own.
    SabloClosePipe(fd1);
    SabloClosePipe(fd2);
    EXPECT_EQ(peer1.Wait(20000), 0);
    EXPECT_EQ(peer2.Wait(20000), 0);
}

TEST(Recovery, ACloseRacingAnOpenLeavesNoFile) {
    sable_test::EnsureFifoDir();
    const std::string self = UniqueName("race");
    auto table = TableFactory::GetInstance();
    ASSERT_TRUE(table);
    SabloClosePipe(Open(self, UniqueName("warm"), SABLO_MODE_CREATE, 0));  // the monitor exists
    for (int i = 0; i < 300; ++i) {
        const std::string target = UniqueName("t");
        // Numbers come from one counter: the open below takes the one after this.
        const int next = table->AllocateFd() + 1;
        std::thread closer([&] {
            std::this_thread::sleep_for(std::chrono::microseconds((i % 50) * 20));
            SabloClosePipe(next);
        });
        const int fd = Open(self, target, SABLO_MODE_CREATE, 0);
        closer.join();
        EXPECT_TRUE(fd == next || fd == -ECANCELED)
            << "open gave " << fd << ", expected " << next << " at delay " << (i % 50) * 20;
        if (fd > 0) SabloClosePipe(fd);
        ASSERT_TRUE(FifoFilesWith(target).empty()) << "after a close at delay " << (i % 50) * 20;
    }
}

// The peer writes its requests and dies without closing: they arrive, then the close.
TEST(Recovery, ARemoteCloseWithPendingFramesLogsNoError) {
    sable_test::EnsureFifoDir();
    const std::string self = UniqueName("quiet");
    const std::string peer = UniqueName("gone");
    sable_test::LogCapture cap;
    ChildProcess child("pipe_peer", {"burst", peer, self, "1", "10000", "200"});
    ASSERT_EQ(child.ReadLine().rfind("ready ", 0), 0u);
    const int fd = Open(self, peer, SABLO_MODE_JOIN, 10000, Count);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(child.Wait(20000), 0);
    ASSERT_TRUE(WaitUntil([&] { return closesSeen.load() == 1; }, 10000));
    EXPECT_EQ(requestsSeen.load(), 200);
    for (const auto& line : cap.Lines()) EXPECT_GT(line.level, LOG_ERR) << line.text;
    EXPECT_TRUE(WaitUntil([&] { return FifoFilesWith(self).empty(); }, 10000));
}

// A field of /proc/<pid>/status ("Threads", "VmRSS" in kB).
long StatusField(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    long value = -1;
    while (status >> key) {
        if (key == field + ":") {
            status >> value;
            break;
        }
        status.ignore(4096, '\n');
    }
    return value;
}

// Clients come and go as fast as they can: each one connects, makes one RPC and closes, under
// one name again and again, then under a new name each time.
TEST(Recovery, ClientChurnAgainstAServerAnswersEveryCallWithFewThreadsAndFlatMemory) {
    sable_test::EnsureFifoDir();
    const std::string server = UniqueName("srv");
    ChildProcess child("stream_peer", {"serve", server});
    ASSERT_EQ(child.ReadLine(), "server 0");
    const std::string same = UniqueName("cli");
    long rssAfterWarmUp = 0;
    for (int cycle = 0; cycle < 600; ++cycle) {
        const std::string self = cycle < 300 ? same : UniqueName("cli");
        SabloAttr attr;
        attr.selfName = self.c_str();
        attr.targetName = server.c_str();
        attr.mode = SABLO_MODE_JOIN;
        attr.timeout = 5000;
        attr.priority = SABLO_PRIORITY_DEFAULT;
        const int fd = SabloCreateClient(&attr);
        ASSERT_GT(fd, 0) << "cycle " << cycle;
        ASSERT_EQ(Rpc(fd), 0) << "cycle " << cycle;
        SabloClosePipe(fd);
        if (cycle == 50) rssAfterWarmUp = StatusField(child.Pid(), "VmRSS");
    }
    const long threads = StatusField(child.Pid(), "Threads");
    const long rss = StatusField(child.Pid(), "VmRSS");
    std::printf("server after 600 clients: %ld threads, VmRSS %ld kB (%ld kB after 50)\n", threads,
                rss, rssAfterWarmUp);
    EXPECT_LE(threads, 40) << "server threads";
#if !SABLE_TEST_ASAN
    // (AddressSanitizer holds freed memory back on purpose: RSS says nothing there.)
    EXPECT_LE(rss - rssAfterWarmUp, 8 * 1024) << "server RSS grew from " << rssAfterWarmUp << " kB";
#endif
    child.Kill(SIGKILL);
    child.ExpectExit(128 + SIGKILL);
    ASSERT_EQ(child.Wait(), 128 + SIGKILL);
    // The killed server leaves its files; this process removes what it can reach.
    for (const auto& name : FifoFilesWith(server))
        unlink((sable_test::EnsureFifoDir() + name).c_str());
}

}  // namespace
